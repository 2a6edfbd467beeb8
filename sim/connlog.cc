#include "connlog.h"

#include <arpa/inet.h>

#include <array>
#include <cstring>
#include <ctime>

#include "dispatch.h"
#include "stats_store.h"
#include "util.h"

namespace tqsim {
namespace {

constexpr uint64_t kFirstDay = 1767225600;  // 2026-01-01, the statistics store's first day
constexpr uint64_t kDays = 7;

// splitmix64, apart from the statistics store's own stream so that the
// log does not change what the statistics are.
struct Rng {
  uint64_t s;
  uint64_t next() {
    uint64_t z = (s += 0x9E3779B97F4A7C15ull);
    z = (z ^ (z >> 30)) * 0xBF58476D1CE4E5B9ull;
    z = (z ^ (z >> 27)) * 0x94D049BB133111EBull;
    return z ^ (z >> 31);
  }
  uint32_t below(uint64_t n) { return static_cast<uint32_t>(next() % n); }
};

// The servers clients reach: each with its host name and service.
struct Server {
  const char *v4;
  const char *v6;
  const char *host;
  const char *service;
  uint16_t port;
  uint8_t protocol;
};
constexpr Server kServers[] = {
    {"203.0.113.10", "2001:db8:ff::10", "www.example.com", "HTTPS", 443, 6},
    {"203.0.113.11", "2001:db8:ff::11", "cdn.example.com", "HTTPS", 443, 6},
    {"203.0.113.12", "2001:db8:ff::12", "intranet.example.org", "HTTP", 80, 6},
    {"203.0.113.20", "2001:db8:ff::20", "ns1.example.net", "DNS", 53, 17},
    {"203.0.113.21", "2001:db8:ff::21", "ns2.example.net", "DNS", 53, 17},
    {"198.51.100.5", "2001:db8:fe::5", "mail.example.net", "SMTP", 25, 6},
    {"198.51.100.6", "2001:db8:fe::6", "git.example.org", "SSH", 22, 6},
    {"198.51.100.7", "2001:db8:fe::7", "time.example.org", "NTP", 123, 17},
    {"198.51.100.8", "2001:db8:fe::8", "video.example.com", "HTTPS", 443, 6},
    {"198.51.100.9", "2001:db8:fe::9", "", "ICMP", 0, 1},
};
constexpr uint32_t kNetObjects = 4;  // clients 10.i.0.h / 2001:db8:i::h, as the statistics tree
constexpr uint32_t kHostsPerNet = 3;

constexpr const char *kSchema =
    "CREATE TABLE connlog(id INTEGER PRIMARY KEY, start INTEGER, end INTEGER, day TEXT,"
    " family INTEGER, protocol INTEGER, client TEXT, server TEXT, clientport INTEGER,"
    " serverport INTEGER, bytes_in INTEGER, bytes_out INTEGER, service TEXT,"
    " serverhostname TEXT, netobject INTEGER, natclient TEXT, natclientport INTEGER,"
    " natserver TEXT, natserverport INTEGER, vnos TEXT);"
    "CREATE INDEX connlog_start ON connlog(start);"
    "CREATE INDEX connlog_day ON connlog(day, service);"
    "CREATE INDEX connlog_server ON connlog(server, serverport);"
    "CREATE INDEX connlog_client ON connlog(client, clientport);"
    "CREATE INDEX connlog_serverport ON connlog(serverport);";
constexpr const char *kColumns =
    "start, end, family, protocol, client, server, clientport, serverport, bytes_in,"
    " bytes_out, service, serverhostname, netobject, natclient, natclientport, natserver,"
    " natserverport, vnos";

// The condition of each filter field (TQDB_API_CONNLOG_FILTER_FIELDS order),
// one parameter each; address fields are compared in canonical form.
struct Cond {
  const char *sql;
  bool address;
};
constexpr Cond kConds[TQDB_API_CONNLOG_CONDITIONS] = {
    {"start >= ?", false},
    {"start <= ?", false},
    {"server = ?", true},
    {"serverport = ?", false},
    {"client = ?", true},
    {"clientport = ?", false},
    {"service = ?", false},
    {"instr(lower(serverhostname), lower(?)) > 0", false},
    {"protocol = ?", false},
    {"netobject = ?", false},
    {"natclient = ?", true},
    {"natclientport = ?", false},
    {"natserver = ?", true},
    {"natserverport = ?", false},
};

std::string day_of(uint64_t t) {
  const time_t tt = static_cast<time_t>(t);
  tm parts{};
  gmtime_r(&tt, &parts);
  return format("%04d-%02d-%02d", parts.tm_year + 1900, parts.tm_mon + 1, parts.tm_mday);
}

// The canonical text of an address; false when text is none.
bool canonical(const char *text, std::string &out) {
  unsigned char bin[16];
  char buf[INET6_ADDRSTRLEN];
  const int family = inet_pton(AF_INET, text, bin) == 1   ? AF_INET
                     : inet_pton(AF_INET6, text, bin) == 1 ? AF_INET6
                                                           : 0;
  if (family == 0 || !inet_ntop(family, bin, buf, sizeof buf)) return false;
  out = buf;
  return true;
}

// One given condition: its field and the value to bind.
struct Given {
  std::size_t field = 0;
  uint64_t number = 0;
  std::string text;
  bool is_text = false;
};

// The conditions a filter gives, in filter order; false with why for an
// address that is none.
bool given_conditions(const ConnlogFilter &f, std::vector<Given> &out, std::string &why) {
  const auto *base = reinterpret_cast<const unsigned char *>(&f);
  for (std::size_t i = 0; i < TQDB_API_CONNLOG_CONDITIONS; ++i) {
    const tqdb_api_connlog_filter_field_t &row = TQDB_API_CONNLOG_FILTER_FIELDS[i];
    const unsigned char *p = base + row.offset;
    Given g;
    g.field = i;
    switch (row.wire) {
      case tqdb_api_connlog_filter_wire::U64:
        std::memcpy(&g.number, p, 8);
        break;
      case tqdb_api_connlog_filter_wire::U32: {
        uint32_t v;
        std::memcpy(&v, p, 4);
        g.number = v;
        break;
      }
      case tqdb_api_connlog_filter_wire::Text:
        g.is_text = true;
        g.text.assign(reinterpret_cast<const char *>(p), strnlen(reinterpret_cast<const char *>(p), row.size));
        break;
    }
    if (g.is_text ? g.text.empty() : g.number == 0) continue;
    if (kConds[i].address && !canonical(g.text.c_str(), g.text)) {
      why = format("Bad address '%s' for %s", g.text.c_str(), row.key);
      return false;
    }
    out.push_back(std::move(g));
  }
  return true;
}

std::string where_of(std::span<const Given> conds) {
  std::string sql;
  for (const Given &g : conds) sql += (sql.empty() ? " WHERE " : " AND ") + std::string(kConds[g.field].sql);
  return sql;
}

// A request's statements, all under one deadline.
class Sql {
 public:
  Sql(sqlite3 *db, uint32_t limit_ms) : db_(db), deadline_(monotonic_ms() + limit_ms) {
    sqlite3_progress_handler(db_, 1000, expired, this);
  }
  ~Sql() { sqlite3_progress_handler(db_, 0, nullptr, nullptr); }
  Sql(const Sql &) = delete;
  Sql &operator=(const Sql &) = delete;

  SqlStmt prepare(const std::string &sql, std::span<const Given> conds) {
    sqlite3_stmt *s = nullptr;
    if (sqlite3_prepare_v2(db_, sql.c_str(), -1, &s, nullptr) != SQLITE_OK) return SqlStmt();
    SqlStmt owned(s);
    int i = 1;
    for (const Given &g : conds) {
      if (g.is_text)
        sqlite3_bind_text(s, i++, g.text.c_str(), -1, SQLITE_TRANSIENT);
      else
        sqlite3_bind_int64(s, i++, static_cast<sqlite3_int64>(g.number));
    }
    return owned;
  }
  // The first column of the one row of sql; false when it failed or ran out of time.
  bool number(const std::string &sql, std::span<const Given> conds, uint64_t &n) {
    SqlStmt s = prepare(sql, conds);
    if (!s || sqlite3_step(s.get()) != SQLITE_ROW) return false;
    n = static_cast<uint64_t>(sqlite3_column_int64(s.get(), 0));
    return true;
  }
  bool timed_out() const { return timed_out_; }
  std::string why() const {
    return timed_out_ ? "Search stopped: time limit reached" : sqlite3_errmsg(db_);
  }

 private:
  static int expired(void *self) {
    auto *q = static_cast<Sql *>(self);
    q->timed_out_ = monotonic_ms() > q->deadline_;
    return q->timed_out_ ? 1 : 0;
  }
  sqlite3 *db_;
  uint64_t deadline_;
  bool timed_out_ = false;
};

std::string column_text(sqlite3_stmt *s, int i) {
  const unsigned char *t = sqlite3_column_text(s, i);
  return t ? reinterpret_cast<const char *>(t) : "";
}

ConnlogRow row_of(sqlite3_stmt *s) {
  ConnlogRow r;
  const auto u = [s](int i) { return static_cast<uint64_t>(sqlite3_column_int64(s, i)); };
  r.start = static_cast<uint32_t>(u(0));
  r.end = static_cast<uint32_t>(u(1));
  r.family = static_cast<uint8_t>(u(2));
  r.protocol = static_cast<uint8_t>(u(3));
  r.client = column_text(s, 4);
  r.server = column_text(s, 5);
  r.clientport = static_cast<uint16_t>(u(6));
  r.serverport = static_cast<uint16_t>(u(7));
  r.bytes_in = u(8);
  r.bytes_out = u(9);
  r.service = column_text(s, 10);
  r.serverhostname = column_text(s, 11);
  r.netobject = static_cast<uint32_t>(u(12));
  r.natclient = column_text(s, 13);
  r.natclientport = static_cast<uint16_t>(u(14));
  r.natserver = column_text(s, 15);
  r.natserverport = static_cast<uint16_t>(u(16));
  const std::string vnos = column_text(s, 17);
  for (const char *p = vnos.c_str(); *p;) {
    char *end = nullptr;
    r.vnos.push_back(static_cast<uint32_t>(std::strtoul(p, &end, 10)));
    p = *end == ',' ? end + 1 : end;
  }
  return r;
}

bool exec(sqlite3 *db, const char *sql, std::string &why) {
  char *err = nullptr;
  if (sqlite3_exec(db, sql, nullptr, nullptr, &err) == SQLITE_OK) return true;
  why = err ? err : "sqlite error";
  sqlite3_free(err);
  return false;
}

bool generate(sqlite3 *db, uint64_t seed, uint32_t entries, std::string &why) {
  if (!exec(db, "SAVEPOINT connlog_make", why)) return false;
  if (!exec(db, kSchema, why)) {
    std::string ignored;
    exec(db, "ROLLBACK TO connlog_make; RELEASE connlog_make", ignored);
    return false;
  }
  sqlite3_stmt *raw = nullptr;
  sqlite3_prepare_v2(db,
                     "INSERT INTO connlog(start, end, day, family, protocol, client, server,"
                     " clientport, serverport, bytes_in, bytes_out, service, serverhostname,"
                     " netobject, natclient, natclientport, natserver, natserverport, vnos)"
                     " VALUES(?,?,?,?,?,?,?,?,?,?,?,?,?,?,?,?,?,?,?)",
                     -1, &raw, nullptr);
  SqlStmt ins(raw);
  Rng rng{seed ^ 0xC044106ull};
  bool ok = ins != nullptr;
  for (uint32_t i = 0; ok && i < entries; ++i) {
    const Server &sv = kServers[rng.below(std::size(kServers))];
    const uint32_t net = 1 + rng.below(kNetObjects), host = 1 + rng.below(kHostsPerNet);
    const bool v6 = rng.below(4) == 0;
    const uint64_t start = kFirstDay + rng.below(kDays * 86400);
    const bool ports = sv.protocol != 1;
    const bool nat = !v6 && rng.below(2) == 0;
    std::string vnos = std::to_string(1 + rng.below(8));
    if (rng.below(3) == 0) vnos += "," + std::to_string(9 + rng.below(8));
    const std::string texts[] = {
        day_of(start),
        v6 ? format("2001:db8:%x::%x", net, host) : format("10.%u.0.%u", net, host),
        v6 ? sv.v6 : sv.v4,
        sv.service,
        sv.host,
        nat ? format("192.0.2.%u", net) : "",
        nat ? sv.v4 : "",
        vnos};
    sqlite3_stmt *s = ins.get();
    sqlite3_reset(s);
    int c = 1;
    const auto num = [&](uint64_t v) { sqlite3_bind_int64(s, c++, static_cast<sqlite3_int64>(v)); };
    const auto txt = [&](const std::string &v) {
      sqlite3_bind_text(s, c++, v.c_str(), -1, SQLITE_TRANSIENT);
    };
    num(start), num(start + 1 + rng.below(3600)), txt(texts[0]), num(v6), num(sv.protocol);
    txt(texts[1]), txt(texts[2]), num(ports ? 1024 + rng.below(64000) : 0), num(sv.port);
    num(rng.below(1'000'000)), num(rng.below(50'000'000)), txt(texts[3]), txt(texts[4]);
    num(net), txt(texts[5]), num(nat ? 20000 + rng.below(40000) : 0), txt(texts[6]);
    num(nat ? sv.port : 0), txt(texts[7]);
    ok = sqlite3_step(s) == SQLITE_DONE;
  }
  if (!ok) {
    why = sqlite3_errmsg(db);
    std::string ignored;
    exec(db, "ROLLBACK TO connlog_make; RELEASE connlog_make", ignored);
    return false;
  }
  return exec(db, "RELEASE connlog_make", why);
}

bool present(sqlite3 *db) {
  sqlite3_stmt *raw = nullptr;
  sqlite3_prepare_v2(db, "SELECT 1 FROM sqlite_master WHERE type = 'table' AND name = 'connlog'",
                     -1, &raw, nullptr);
  SqlStmt s(raw);
  return s && sqlite3_step(s.get()) == SQLITE_ROW;
}

// The texts of a one-column query.
bool texts(sqlite3 *db, uint32_t limit_ms, const std::string &sql, std::span<const Given> binds,
           std::vector<std::string> &out, std::string &why) {
  Sql q(db, limit_ms);
  SqlStmt s = q.prepare(sql, binds);
  int rc = s ? sqlite3_step(s.get()) : SQLITE_ERROR;
  for (; rc == SQLITE_ROW; rc = sqlite3_step(s.get())) out.push_back(column_text(s.get(), 0));
  if (rc == SQLITE_DONE) return true;
  why = q.why();
  return false;
}

}  // namespace

Connlog::Connlog(sqlite3 *db, uint64_t seed, uint32_t entries, uint32_t time_limit_ms)
    : db_(db), time_limit_ms_(time_limit_ms) {
  if (db_ == nullptr)
    fault_ = "No statistics database";
  else if (!present(db_) && !generate(db_, seed, entries, fault_))
    fault_ = "Connection log unavailable: " + fault_;
}

bool Connlog::search(const ConnlogFilter &f, ConnlogSearch &out, std::string &why) {
  const uint64_t began = monotonic_ms();
  std::vector<Given> conds;
  if (!given_conditions(f, conds, why)) return false;
  const std::string where = where_of(conds);
  const uint32_t limit = f.max_hits == 0 || f.max_hits > TQDB_API_CONNLOG_MAX_HITS
                             ? TQDB_API_CONNLOG_MAX_HITS
                             : f.max_hits;
  Sql q(db_, time_limit_ms_);
  uint64_t total = 0;
  SqlStmt rows = q.prepare(std::string("SELECT ") + kColumns + " FROM connlog" + where +
                               " ORDER BY start, id LIMIT " + std::to_string(limit) +
                               " OFFSET " + std::to_string(f.offset),
                           conds);
  int rc = rows ? sqlite3_step(rows.get()) : SQLITE_ERROR;
  for (; rc == SQLITE_ROW; rc = sqlite3_step(rows.get())) out.rows.push_back(row_of(rows.get()));
  if (rc != SQLITE_DONE || !q.number("SELECT count(*) FROM connlog" + where, conds, total)) {
    if (!q.timed_out()) {
      why = q.why();
      return false;
    }
    out.complete = false;
    out.warnings.push_back(format("Search stopped: time limit of %u ms reached", time_limit_ms_));
  }
  out.total = static_cast<uint32_t>(total);
  out.complete = out.complete && total <= uint64_t{f.offset} + limit;
  // Each condition alone, so a script sees which one narrowed the search.
  for (std::size_t i = 0; i < conds.size() && !q.timed_out(); ++i) {
    uint64_t n = 0;
    if (!q.number("SELECT count(*) FROM connlog" + where_of(std::span(conds).subspan(i, 1)),
                  std::span(conds).subspan(i, 1), n) && !q.timed_out()) {
      why = q.why();
      return false;
    }
    out.matches.push_back(n);
  }
  out.matches.resize(conds.size());  // a condition not counted in time: 0
  uint64_t first = 0, last = 0;
  (void)q.number("SELECT min(start) FROM connlog", {}, first);
  (void)q.number("SELECT max(start) FROM connlog", {}, last);
  out.searched_from = f.starttime != 0 && f.starttime > first ? f.starttime : first;
  out.searched_to = f.endtime != 0 && f.endtime < last ? f.endtime : last;
  out.elapsed_ms = static_cast<uint32_t>(monotonic_ms() - began);
  return true;
}

bool Connlog::count(const ConnlogFilter &f, uint64_t &n, std::string &why) {
  std::vector<Given> conds;
  if (!given_conditions(f, conds, why)) return false;
  Sql q(db_, time_limit_ms_);
  if (q.number("SELECT count(*) FROM connlog" + where_of(conds), conds, n)) return true;
  why = q.why();
  return false;
}

bool Connlog::services(std::string_view day, std::vector<std::string> &out, std::string &why) {
  Given g;
  g.is_text = true;
  g.text = day;
  return texts(db_, time_limit_ms_,
               "SELECT DISTINCT service FROM connlog WHERE day = ? ORDER BY service",
               std::span(&g, 1), out, why);
}

bool Connlog::days(std::vector<std::string> &out, std::string &why) {
  return texts(db_, time_limit_ms_, "SELECT DISTINCT day FROM connlog ORDER BY day", {}, out,
               why);
}

bool read_connlog_filter(Body &in, ConnlogFilter &f) {
  f = ConnlogFilter{};
  auto *base = reinterpret_cast<unsigned char *>(&f);
  for (const tqdb_api_connlog_filter_field_t &row : TQDB_API_CONNLOG_FILTER_FIELDS) {
    unsigned char *p = base + row.offset;
    bool ok = false;
    switch (row.wire) {
      case tqdb_api_connlog_filter_wire::U64: {
        uint64_t v = 0;
        ok = in.u64(v);
        std::memcpy(p, &v, sizeof v);
        break;
      }
      case tqdb_api_connlog_filter_wire::U32: {
        uint32_t v = 0;
        ok = in.u32(v);
        std::memcpy(p, &v, sizeof v);
        break;
      }
      case tqdb_api_connlog_filter_wire::Text: {
        std::string t;
        ok = in.text(t);
        if (ok && t.size() >= row.size) return in.fail(format("%s longer than %u characters", row.key, row.size - 1u));
        std::memcpy(p, t.data(), t.size());
        break;
      }
    }
    if (!ok) return false;
  }
  return in.end();
}

}  // namespace tqsim
