// The connection log (0x19Bxx): search, service list, day list, count.
// Reading needs the read bit of resource 6 (connlog). The log lives in the
// statistics store's database (connlog.h) and is made on first use.
#include <arpa/inet.h>

#include <unordered_map>

#include "answer.h"
#include "connlog.h"
#include "dispatch.h"
#include "options.h"
#include "stats_store.h"
#include "tqdb_api.h"
#include "tqdb_api_connlog.h"

namespace tqsim {
namespace {

enum Kind : uint8_t { kEntry = 1, kTableStart = 2, kTableString = 3, kMeta = 4 };

Out &u64(Out &o, uint64_t v) {
  return o.u32(static_cast<uint32_t>(v >> 32)).u32(static_cast<uint32_t>(v));
}

// An address text as its wire words: one for IPv4, four for IPv6; words
// zero for "" (no NAT).
Out &address(Out &o, const std::string &text, bool v6) {
  unsigned char bin[16]{};
  if (!text.empty()) (void)inet_pton(v6 ? AF_INET6 : AF_INET, text.c_str(), bin);
  for (std::size_t i = 0; i < (v6 ? 16u : 4u); i += 4)
    o.u32(uint32_t{bin[i]} << 24 | uint32_t{bin[i + 1]} << 16 | uint32_t{bin[i + 2]} << 8 | bin[i + 3]);
  return o;
}

Connlog log_of(Call &c) {
  const Options &o = c.hub.options();
  return Connlog(c.hub.stats().db(), o.stats_seed, o.connlog_entries, o.query_timeout_ms);
}

// Texts an answer has given ids to, from 1; "" is 0 and never sent.
class StringTable {
 public:
  // Puts the table items for the texts not sent yet before an entry.
  void announce(Out &o, std::initializer_list<const std::string *> texts) {
    std::vector<const std::string *> fresh;
    for (const std::string *t : texts)
      if (!t->empty() && !ids_.contains(*t)) {
        ids_.emplace(*t, static_cast<uint32_t>(ids_.size() + 1));
        fresh.push_back(t);
      }
    if (fresh.empty()) return;
    o.u8(kTableStart).u32(static_cast<uint32_t>(fresh.size()));
    for (const std::string *t : fresh) o.u8(kTableString).u32(ids_.at(*t)).text(*t);
  }
  uint32_t id(const std::string &t) const { return t.empty() ? 0 : ids_.at(t); }

 private:
  std::unordered_map<std::string, uint32_t> ids_;
};

void put_entry(Out &o, const ConnlogRow &r, const StringTable &st) {
  const bool v6 = r.family == TQDB_API_CONNLOG_IPV6;
  o.u8(kEntry).u32(r.start).u32(r.end).u8(r.family).u8(r.protocol);
  address(address(o, r.client, v6), r.server, v6);
  u64(u64(o.u16(r.clientport).u16(r.serverport), r.bytes_in), r.bytes_out);
  o.u32(st.id(r.service)).u32(st.id(r.serverhostname)).u32(r.netobject);
  address(o, r.natclient, false).u16(r.natclientport);
  address(o, r.natserver, false).u16(r.natserverport);
  o.u32(static_cast<uint32_t>(r.vnos.size()));
  for (uint32_t v : r.vnos) o.u32(v);
}

void put_meta(Out &o, const ConnlogSearch &s) {
  o.u8(kMeta).u32(s.total).u32(static_cast<uint32_t>(s.rows.size()));
  o.u32(static_cast<uint32_t>(s.matches.size()));
  u64(u64(o, s.searched_from), s.searched_to).u8(s.complete ? 1 : 0).u32(s.elapsed_ms);
  for (uint64_t m : s.matches) u64(o, m);
  o.u32(static_cast<uint32_t>(s.warnings.size()));
  for (const std::string &w : s.warnings) o.text(w);
}

// Entries with the strings they bring, each a record of the list answer so
// that replies are cut between entries; the metadata ends the last reply.
void search(Call &c) {
  ConnlogFilter f;
  if (!read_connlog_filter(c.in, f)) return c.malformed();
  Connlog log = log_of(c);
  if (!log.fault().empty()) return c.error(log.fault());
  ConnlogSearch found;
  std::string why;
  if (!log.search(f, found, why)) return c.error(why);
  ListAnswer a(c);
  StringTable st;
  for (const ConnlogRow &r : found.rows) {
    st.announce(a.out(), {&r.service, &r.serverhostname});
    put_entry(a.out(), r, st);
    a.next();
  }
  put_meta(a.out(), found);
  a.next();
  a.finish();
}

void count(Call &c) {
  ConnlogFilter f;
  if (!read_connlog_filter(c.in, f)) return c.malformed();
  Connlog log = log_of(c);
  if (!log.fault().empty()) return c.error(log.fault());
  uint64_t n = 0;
  std::string why;
  if (!log.count(f, n, why)) return c.error(why);
  Out o;
  c.answer(u64(o, n));
}

void text_answer(Call &c, const std::vector<std::string> &texts) {
  if (texts.empty()) return c.ok();
  ListAnswer a(c);
  for (const std::string &t : texts) {
    a.out().text(t);
    a.next();
  }
  a.finish();
}

void servicelist(Call &c) {
  std::string day;
  if (!c.in.text(day) || !c.in.end()) return c.malformed();
  Connlog log = log_of(c);
  if (!log.fault().empty()) return c.error(log.fault());
  std::vector<std::string> services;
  std::string why;
  if (!log.services(day, services, why)) return c.error(why);
  text_answer(c, services);
}

void daylist(Call &c) {
  if (!c.in.end()) return c.malformed();
  Connlog log = log_of(c);
  if (!log.fault().empty()) return c.error(log.fault());
  std::vector<std::string> days;
  std::string why;
  if (!log.days(days, why)) return c.error(why);
  text_answer(c, days);
}

constexpr auto H = Header::kSessionCid;
constexpr auto S = Access::kSession;
constexpr Route kRoutes[] = {
    {TQDB_REQ_CONNLOG_SEARCH, "connlog search", H, S, search},
    {TQDB_REQ_CONNLOG_SERVICELIST, "connlog service list", H, S, servicelist},
    {TQDB_REQ_CONNLOG_DAYLIST, "connlog day list", H, S, daylist},
    {TQDB_REQ_CONNLOG_COUNT, "connlog count", H, S, count},
};

}  // namespace

std::span<const Route> family_connlog() { return kRoutes; }

}  // namespace tqsim
