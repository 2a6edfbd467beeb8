// Host and connection-protection triggers (0x1A3xx, 0x1AAxx): one set of
// handlers for both families; a family differs only in its resource and
// in the thresholds host triggers carry behind their script.
#include "triggers.h"

#include <algorithm>

#include "answer.h"
#include "dispatch.h"
#include "files.h"
#include "ruleset.h"
#include "tqdb_api.h"
#include "util.h"

namespace tqsim {
namespace {

// The thresholds in wire order, each either unsigned or signed.
struct LimitRow {
  const char *key;
  uint32_t HostTriggerLimits::*u;
  int32_t HostTriggerLimits::*i;
};
using L = HostTriggerLimits;
constexpr LimitRow kLimitRows[] = {
    {"in_bw", &L::in_bw, nullptr},         {"out_bw", &L::out_bw, nullptr},
    {"in_cps", &L::in_cps, nullptr},       {"out_cps", &L::out_cps, nullptr},
    {"conns", &L::conns, nullptr},         {"uconns", &L::uconns, nullptr},
    {"uconn_rate", &L::uconn_rate, nullptr}, {"out_ttls", nullptr, &L::out_ttls},
    {"qoe_in_int", nullptr, &L::qoe_in_int}, {"qoe_in_ext", nullptr, &L::qoe_in_ext},
    {"qoe_out_int", nullptr, &L::qoe_out_int}, {"qoe_out_ext", nullptr, &L::qoe_out_ext},
    {"netobject", &L::netobject, nullptr}, {"trigtype", nullptr, &L::trigtype},
};

// What sets the families apart.
template <class Set>
struct Family;
template <>
struct Family<HostTriggers> {
  static constexpr uint32_t kResource = TQDB_RESOURCE_HOSTTRIGGER;
  static constexpr HostTriggers ResourceData::*kData = &ResourceData::hosttriggers;
  static constexpr const char *kNoun = "host trigger";
};
template <>
struct Family<ConnprotTriggers> {
  static constexpr uint32_t kResource = TQDB_RESOURCE_CONNPROT_TRIGGER;
  static constexpr ConnprotTriggers ResourceData::*kData = &ResourceData::connprot_triggers;
  static constexpr const char *kNoun = "connection-protection trigger";
};

bool read_limits(Body &in, HostTrigger &t) {
  for (const LimitRow &r : kLimitRows)
    if (r.u ? !in.u32(t.limits.*r.u) : !in.i32(t.limits.*r.i)) return false;
  return true;
}
bool read_limits(Body &, ConnprotTrigger &) { return true; }

void put_limits(Out &o, const HostTrigger &t) {
  for (const LimitRow &r : kLimitRows) r.u ? o.u32(t.limits.*r.u) : o.i32(t.limits.*r.i);
}
void put_limits(Out &, const ConnprotTrigger &) {}

// What a host trigger watches must exist: a type the appliance knows and,
// but for single hosts, a net object of the ruleset in force (committed:
// a trigger runs against the live ruleset, not against an edit of it).
std::string limits_problem(Call &c, const HostTrigger &t) {
  const int32_t type = t.limits.trigtype;
  if (type < 0 || type > kTrigtypeLast)
    return format("Bad trigger type %d (trigger types are 0 to %d)", type, kTrigtypeLast);
  if (type == 0) return {};
  const uint32_t id = t.limits.netobject;
  if (id == 0)
    return format("A trigger of type %d watches a net object: netobject cannot be 0", type);
  const Resource &rs = *c.store.resource(TQDB_RESOURCE_RULESET);
  const Ruleset &committed = (rs.snapshot ? *rs.snapshot : rs.data).ruleset;
  if (!committed.objects[kNetObject].contains(id)) return missing_text(object_ref(kNetObject, id));
  return {};
}
std::string limits_problem(Call &, const ConnprotTrigger &) { return {}; }

std::string capital(std::string s) {
  if (!s.empty() && s[0] >= 'a' && s[0] <= 'z') s[0] = static_cast<char>(s[0] - 'a' + 'A');
  return s;
}

template <class Set>
const Set &view(Call &c) {
  using F = Family<Set>;
  return c.view(*c.store.resource(F::kResource)).*F::kData;
}
template <class Set>
Set *change(Call &c) {
  using F = Family<Set>;
  ResourceData *d = c.change(*c.store.resource(F::kResource));
  return d ? &(d->*F::kData) : nullptr;
}

template <class Set>
std::string name_refusal(const Set &s, const std::string &name, uint32_t self) {
  const std::string noun = Family<Set>::kNoun;
  if (name.empty() || name.size() > kTriggerTextMax)
    return capital(format("a %s name has 1 to %zu bytes", noun.c_str(), kTriggerTextMax));
  for (const auto &[id, t] : s.by_id)
    if (id != self && t.name == name) return capital(noun) + " '" + name + "' exists already";
  return {};
}

std::string script_refusal(const std::string &script) {
  const std::string why = name_problem(script);
  return why.empty() ? why : "Bad script name: " + why;
}

template <class Set>
typename Set::Record *find(Call &c, Set &s, uint32_t id) {
  auto it = s.by_id.find(id);
  if (it != s.by_id.end()) return &it->second;
  c.error(format("Unknown %s id %u", Family<Set>::kNoun, id));
  return nullptr;
}

}  // namespace

template <class Set>
void TriggerRequests<Set>::list(Call &c) {
  if (!c.in.end()) return c.malformed();
  const Set &s = view<Set>(c);
  if (s.by_id.empty()) return c.ok();
  ListAnswer a(c);
  for (const auto &[id, t] : s.by_id) {
    a.out().u32(id).text(t.name).text(t.script);
    put_limits(a.out(), t);
    a.next();
  }
  a.finish();
}

template <class Set>
void TriggerRequests<Set>::add(Call &c) {
  typename Set::Record t;
  if (!c.in.text(t.name) || !c.in.text(t.script) || !read_limits(c.in, t) || !c.in.end())
    return c.malformed();
  Set *s = change<Set>(c);
  if (!s) return;
  for (const std::string &why :
       {name_refusal(*s, t.name, 0), script_refusal(t.script), limits_problem(c, t)})
    if (!why.empty()) return c.error(why);
  do ++s->last_id;
  while (s->last_id == 0 || s->by_id.contains(s->last_id));
  t.id = s->last_id;
  s->by_id.emplace(t.id, t);
  c.answer(Out().u32(t.id));
}

template <class Set>
void TriggerRequests<Set>::remove(Call &c) {
  uint32_t id = 0;
  if (!c.in.u32(id) || !c.in.end()) return c.malformed();
  Set *s = change<Set>(c);
  if (!s || !find(c, *s, id)) return;
  s->by_id.erase(id);
  c.ok();
}

template <class Set>
void TriggerRequests<Set>::update(Call &c) {
  typename Set::Record t;
  if (!c.in.u32(t.id) || !c.in.text(t.script) || !read_limits(c.in, t) || !c.in.end())
    return c.malformed();
  Set *s = change<Set>(c);
  if (!s) return;
  auto *old = find(c, *s, t.id);
  if (!old) return;
  t.name = old->name;
  for (const std::string &why : {script_refusal(t.script), limits_problem(c, t)})
    if (!why.empty()) return c.error(why);
  *old = std::move(t);
  c.ok();
}

template <class Set>
void TriggerRequests<Set>::rename(Call &c) {
  uint32_t id = 0;
  std::string name;
  if (!c.in.u32(id) || !c.in.text(name) || !c.in.end()) return c.malformed();
  Set *s = change<Set>(c);
  if (!s) return;
  auto *t = find(c, *s, id);
  if (!t) return;
  if (std::string why = name_refusal(*s, name, id); !why.empty()) return c.error(why);
  t->name = std::move(name);
  c.ok();
}

template struct TriggerRequests<HostTriggers>;
template struct TriggerRequests<ConnprotTriggers>;

// --- saved state ---------------------------------------------------------------------------

void io(Io &io, HostTriggerLimits &l) {
  for (const LimitRow &r : kLimitRows) r.u ? io.field(r.key, l.*r.u) : io.field(r.key, l.*r.i);
}

void io(Io &io, HostTrigger &t) {
  io.field("id", t.id);
  io.field("name", t.name);
  io.field("script", t.script);
  tqsim::io(io, t.limits);  // the thresholds beside the name, not nested
}

void io(Io &io, ConnprotTrigger &t) {
  io.field("id", t.id);
  io.field("name", t.name);
  io.field("script", t.script);
}

namespace {
template <class Set>
void set_io(Io &io, Set &s) {
  io.field("last_id", s.last_id);
  io.by_id("triggers", s.by_id);
  // Ids are never handed out twice, whatever the counter read back says.
  if (io.loading() && !s.by_id.empty()) s.last_id = std::max(s.last_id, s.by_id.rbegin()->first);
}
}  // namespace

void io(Io &io, HostTriggers &s) { set_io(io, s); }
void io(Io &io, ConnprotTriggers &s) { set_io(io, s); }

}  // namespace tqsim
