#include "stats_store.h"

#include <algorithm>
#include <bit>
#include <cctype>
#include <chrono>
#include <ctime>

#include "dispatch.h"
#include "options.h"
#include "tq_msg.h"
#include "util.h"

namespace tqsim {
namespace {

// Bit order of the reply masks.
constexpr const char *kTotalNames[kTotalFields] = {
    "BYTES_IN",         "BYTES_OUT",          "CONNS",           "UCONNS",
    "CONNS_IN",         "CONNS_OUT",          "UCONNS_IN",       "UCONNS_OUT",
    "QUALITY_IN",       "QUALITY_OUT",        "BYTES_TOTAL",     "CURCONNS_IN",
    "CURCONNS_OUT",     "PKTDROPS_IN",        "PKTDROPS_OUT",    "AVG_LATENCY_IN",
    "AVG_LATENCY_OUT",  "SUBITEMS",           "QUALITY_IN_INT",  "QUALITY_OUT_INT",
    "QUALITY_IN_EXT",   "QUALITY_OUT_EXT",    "QUALITY_PKTS_IN", "QUALITY_PKTS_OUT",
    "RTT_IN",           "RTT_OUT",            "PACKETS_IN",      "PACKETS_OUT",
    "SHAPING_BYTEDROPS_IN", "SHAPING_BYTEDROPS_OUT", "QUALITY_DROPS_IN", "QUALITY_DROPS_OUT",
    "QUALITY_RETRANSMISSIONS_IN", "QUALITY_RETRANSMISSIONS_OUT"};
constexpr const char *kGraphNames[kGraphFields] = {
    "BPS_IN",           "BPS_OUT",            "CPS",             "UCPS",
    "CPS_IN",           "CPS_OUT",            "UCPS_IN",         "UCPS_OUT",
    "CURCONNS_IN",      "CURCONNS_OUT",       "QUALITY_IN",      "QUALITY_OUT",
    "SUBITEMS",         "BPS_TOTAL",          "PKTDROPS_IN",     "PKTDROPS_OUT",
    "AVG_LATENCY_IN",   "AVG_LATENCY_OUT",    "QUALITY_IN_INT",  "QUALITY_OUT_INT",
    "QUALITY_IN_EXT",   "QUALITY_OUT_EXT",    "QUALITY_PKTS_IN", "QUALITY_PKTS_OUT",
    "LINK_UTILIZATION_IN", "LINK_UTILIZATION_OUT", "RTT_IN",     "RTT_OUT",
    "PACKETS_IN",       "PACKETS_OUT",        "SHAPING_BYTEDROPS_IN", "SHAPING_BYTEDROPS_OUT",
    "QUALITY_DROPS_IN", "QUALITY_DROPS_OUT",  "QUALITY_RETRANSMISSIONS_IN",
    "QUALITY_RETRANSMISSIONS_OUT"};

// The total field (bit) each graph field (bit) follows; -1: none.
constexpr int kGraphTotal[kGraphFields] = {0,  1,  2,  3,  4,  5,  6,  7,  11, 12, 8,  9,
                                           17, 10, 13, 14, 15, 16, 18, 19, 20, 21, 22, 23,
                                           -1, -1, 24, 25, 26, 27, 28, 29, 30, 31, 32, 33};

constexpr std::size_t kGraphBpsIn = 0, kGraphBpsOut = 1, kGraphBpsTotal = 13;

constexpr uint16_t kRoot = 0, kNetObjectType = 513, kHost = 514, kService = 518, kRemoteHost = 524,
                   kLink = 525, kChannel = 534, kBaseService = 535;
constexpr uint64_t kValid = 1, kExpandable = 2, kGraphs = 8, kHasSubscribers = 512;
constexpr std::size_t kBytesIn = 0, kBytesOut = 1, kConns = 2, kConnsIn = 4, kConnsOut = 5,
                      kBytesTotal = 10, kSubitems = 17;
constexpr std::size_t kDays = 7;
constexpr uint64_t kFirstDay = 1767225600;  // 2026-01-01 00:00:00 UTC
constexpr const char *kServices[] = {"HTTP", "HTTPS", "DNS", "SSH", "SMTP", "NTP"};

// splitmix64: the same seed gives the same store on every machine.
struct Rng {
  uint64_t s;
  uint64_t next() {
    uint64_t z = (s += 0x9E3779B97F4A7C15ull);
    z = (z ^ (z >> 30)) * 0xBF58476D1CE4E5B9ull;
    z = (z ^ (z >> 27)) * 0x94D049BB133111EBull;
    return z ^ (z >> 31);
  }
  uint64_t below(uint64_t n) { return next() % n; }
};

constexpr const char *kSchema = R"sql(
CREATE TABLE nodes_t(path TEXT PRIMARY KEY, name TEXT, parent TEXT, type INTEGER,
                     flags INTEGER, subscribers INTEGER, subitems INTEGER);
CREATE TABLE totals_t(path TEXT, date TEXT, bit INTEGER, value INTEGER);
CREATE TABLE graph_t(path TEXT, time INTEGER, bit INTEGER, value INTEGER);
CREATE TABLE dates_t(date TEXT);
CREATE TABLE fields_t(id INTEGER, kind INTEGER, subkind INTEGER, name TEXT);
CREATE INDEX totals_path ON totals_t(path);
CREATE INDEX graph_path ON graph_t(path);
CREATE VIEW stat_nodes AS SELECT path, name, parent, type, flags, subscribers, subitems
  FROM nodes_t;
CREATE VIEW stat_totals AS SELECT t.path, t.date, f.name AS field, t.bit, t.value
  FROM totals_t t JOIN fields_t f ON f.kind = 0 AND f.id = (1 << t.bit);
CREATE VIEW stat_graph AS SELECT g.path, g.time, f.name AS field, g.bit, g.value
  FROM graph_t g JOIN fields_t f ON f.kind = 1 AND f.id = (1 << g.bit);
CREATE VIEW stat_dates AS SELECT date FROM dates_t;
CREATE VIEW stat_fields AS SELECT id, kind, subkind, name FROM fields_t;
)sql";

constexpr ValueTypeName kValueTypes[] = {
    {0, "ROOT", "RT"},          {256, "AGGREGATION", "AGG"},   {512, "TRAFFICSTATS", "TS"},
    {513, "NETOBJECT", "NO"},   {514, "HOST", "H"},            {515, "LOCALVHOST", "LVH"},
    {516, "REMOTEVHOST", "RVH"}, {517, "SERVOBJECT", "SO"},    {518, "SERVICE", "S"},
    {519, "INTASPATH", "IAP"},  {520, "EXTASPATH", "EAP"},     {521, "INVLAN", "IV"},
    {522, "XFBFLAG", "XF"},     {523, "IPPROTOCOL", "IP"},     {524, "REMOTEHOST", "RH"},
    {525, "LINK", "L"},         {526, "OUTVLAN", "OV"},        {527, "INDSCP", "ID"},
    {528, "OUTDSCP", "OD"},     {529, "INCHAN", "IC"},         {530, "OUTCHAN", "OC"},
    {531, "INMPLS", "IM"},      {532, "OUTMPLS", "OM"},        {533, "CHANNELSTATS_ROOT", "CR"},
    {534, "CHANNELSTATS_CHANNEL", "CH"}, {535, "BASESERVICE", "BS"}, {536, "ORIGINAS", "OAS"},
    {537, "PROPERTY", "P"},     {538, "INTBGPCOMM", "IBC"},    {539, "EXTBGPCOMM", "EBC"},
    {540, "TTL", "TTL"},        {541, "SORVIK", "SV"},         {768, "ZONESTATS", "ZS"},
    {1024, "CHANNELSTATS", "CS"}, {1281, "NAT_ROOT", "NR"},    {1282, "NAT_HOST", "NH"},
    {1283, "NAT_POOL", "NP"}};

}  // namespace

std::span<const ValueTypeName> value_types() { return kValueTypes; }

const char *total_field_name(std::size_t bit) { return bit < kTotalFields ? kTotalNames[bit] : ""; }
const char *graph_field_name(std::size_t bit) { return bit < kGraphFields ? kGraphNames[bit] : ""; }

StatsStore::StatsStore(uint64_t seed, uint32_t scale) {
  generate(seed, scale == 0 ? 1 : scale);
  sqlite3 *db = nullptr;
  const int rc = sqlite3_open_v2(":memory:", &db, SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE, nullptr);
  db_.reset(db);
  if (rc != SQLITE_OK) {
    fault_ = db ? sqlite3_errmsg(db) : "out of memory";
    return;
  }
  built_ = exec(kSchema) && fill();
}

bool StatsStore::exec(const char *sql) {
  char *err = nullptr;
  if (sqlite3_exec(db_.get(), sql, nullptr, nullptr, &err) == SQLITE_OK) return true;
  fault_ = err ? err : "sqlite error";
  sqlite3_free(err);
  return false;
}

void StatsStore::generate(uint64_t seed, uint32_t scale) {
  Rng rng{seed};
  for (std::size_t d = 0; d < kDays; ++d) {
    const time_t t = static_cast<time_t>(kFirstDay + d * 86400);
    tm parts{};
    gmtime_r(&t, &parts);
    dates_.push_back(format("%04d-%02d-%02d", parts.tm_year + 1900, parts.tm_mon + 1, parts.tm_mday));
  }
  auto add = [&](int parent, uint16_t type, std::string name) {
    StatsNode n;
    n.path = parent <= 0 ? name : nodes_[parent].path + "/" + name;
    if (parent < 0) n.path.clear();
    n.name = std::move(name);
    n.parent = parent;
    n.type = type;
    n.time = kFirstDay + (kDays - 1) * 86400 + rng.below(86400);
    n.subscribers = type == kHost ? rng.below(4) : 0;
    const uint64_t scale_of = type == kRoot ? 1000 : type == kNetObjectType ? 100 : 10;
    for (std::size_t d = 0; d < kDays; ++d) {
      std::array<uint64_t, kTotalFields> v{};
      for (auto &x : v) x = rng.below(1000) * scale_of;
      v[kBytesIn] = rng.below(1'000'000) * scale_of;
      v[kBytesOut] = rng.below(1'000'000) * scale_of;
      v[kBytesTotal] = v[kBytesIn] + v[kBytesOut];
      v[kConns] = v[kConnsIn] + v[kConnsOut];
      n.days.push_back(v);
    }
    nodes_.push_back(std::move(n));
    const int id = static_cast<int>(nodes_.size()) - 1;
    if (parent >= 0) nodes_[parent].children.push_back(id);
    return id;
  };
  const int root = add(-1, kRoot, "");
  for (uint32_t i = 1; i <= 4 * scale; ++i) {
    const int no = add(root, kNetObjectType, format("NetObject-%u", i));
    for (uint32_t h = 1; h <= 3 * scale; ++h) {
      const int host = add(no, kHost, format("10.%u.0.%u", i % 256, h % 256));
      for (uint32_t r = 1; r <= 3; ++r)
        add(host, kRemoteHost, format("198.51.%u.%u", i % 256, static_cast<unsigned>(rng.below(254) + 1)));
      for (uint32_t s = 0; s < 2; ++s) add(host, kService, kServices[(h + s) % 6]);
    }
    for (uint32_t s = 0; s < 3; ++s) add(no, kService, kServices[(i + s) % 6]);
  }
  for (uint32_t i = 1; i <= 2; ++i) add(root, kLink, format("Link-%u", i));
  for (uint32_t i = 0; i < 2; ++i) add(root, kChannel, format("eth%u", i));
  for (uint32_t i = 0; i < 4; ++i) add(root, kBaseService, kServices[i]);
  for (auto &n : nodes_) {
    n.flags = kValid | kGraphs | (n.children.empty() ? 0 : kExpandable) |
              (n.subscribers ? kHasSubscribers : 0);
    for (auto &day : n.days) day[kSubitems] = n.children.size();
  }
}

bool StatsStore::fill() {
  if (!exec("BEGIN")) return false;
  auto prep = [&](const char *sql) {
    sqlite3_stmt *s = nullptr;
    sqlite3_prepare_v2(db_.get(), sql, -1, &s, nullptr);
    return SqlStmt(s);
  };
  SqlStmt node = prep("INSERT INTO nodes_t VALUES(?,?,?,?,?,?,?)");
  SqlStmt total = prep("INSERT INTO totals_t VALUES(?,?,?,?)");
  SqlStmt graph = prep("INSERT INTO graph_t VALUES(?,?,?,?)");
  SqlStmt date = prep("INSERT INTO dates_t VALUES(?)");
  SqlStmt field = prep("INSERT INTO fields_t VALUES(?,?,0,?)");
  if (!node || !total || !graph || !date || !field) {
    fault_ = sqlite3_errmsg(db_.get());
    return false;
  }
  auto run = [](sqlite3_stmt *s) {
    const bool ok = sqlite3_step(s) == SQLITE_DONE;
    sqlite3_reset(s);
    return ok;
  };
  bool ok = true;
  for (const auto &d : dates_) {
    sqlite3_bind_text(date.get(), 1, d.c_str(), -1, SQLITE_TRANSIENT);
    ok = ok && run(date.get());
  }
  for (std::size_t b = 0; b < kTotalFields + kGraphFields; ++b) {
    const bool is_total = b < kTotalFields;
    const std::size_t bit = is_total ? b : b - kTotalFields;
    sqlite3_bind_int64(field.get(), 1, static_cast<int64_t>(uint64_t{1} << bit));
    sqlite3_bind_int(field.get(), 2, is_total ? 0 : 1);
    sqlite3_bind_text(field.get(), 3, is_total ? kTotalNames[bit] : kGraphNames[bit], -1, SQLITE_STATIC);
    ok = ok && run(field.get());
  }
  for (const auto &n : nodes_) {
    sqlite3_bind_text(node.get(), 1, n.path.c_str(), -1, SQLITE_STATIC);
    sqlite3_bind_text(node.get(), 2, n.name.c_str(), -1, SQLITE_STATIC);
    if (n.parent < 0) sqlite3_bind_null(node.get(), 3);
    else sqlite3_bind_text(node.get(), 3, nodes_[n.parent].path.c_str(), -1, SQLITE_STATIC);
    sqlite3_bind_int(node.get(), 4, n.type);
    sqlite3_bind_int64(node.get(), 5, static_cast<int64_t>(n.flags));
    sqlite3_bind_int64(node.get(), 6, static_cast<int64_t>(n.subscribers));
    sqlite3_bind_int64(node.get(), 7, static_cast<int64_t>(n.children.size()));
    ok = ok && run(node.get());
    for (std::size_t d = 0; d < n.days.size(); ++d) {
      for (std::size_t b = 0; b < kTotalFields; ++b) {
        sqlite3_bind_text(total.get(), 1, n.path.c_str(), -1, SQLITE_STATIC);
        sqlite3_bind_text(total.get(), 2, dates_[d].c_str(), -1, SQLITE_STATIC);
        sqlite3_bind_int(total.get(), 3, static_cast<int>(b));
        sqlite3_bind_int64(total.get(), 4, static_cast<int64_t>(n.days[d][b]));
        ok = ok && run(total.get());
      }
    }
    const int at = static_cast<int>(&n - nodes_.data());
    for (std::size_t p = 0; p < kGraphPoints; ++p) {
      for (std::size_t b = 0; b < kGraphFields; ++b) {
        sqlite3_bind_text(graph.get(), 1, n.path.c_str(), -1, SQLITE_STATIC);
        sqlite3_bind_int64(graph.get(), 2, static_cast<int64_t>(graph_time(at, p)));
        sqlite3_bind_int(graph.get(), 3, static_cast<int>(b));
        sqlite3_bind_int64(graph.get(), 4, static_cast<int64_t>(graph_value(at, p, b)));
        ok = ok && run(graph.get());
      }
    }
  }
  if (!ok) {
    fault_ = sqlite3_errmsg(db_.get());
    exec("ROLLBACK");
    return false;
  }
  return exec("COMMIT");
}

int StatsStore::find(std::string_view path) const {
  if (path == "/") path = "";
  if (path.starts_with('/')) path.remove_prefix(1);
  for (std::size_t i = 0; i < nodes_.size(); ++i)
    if (!nodes_[i].gone && nodes_[i].path == path) return static_cast<int>(i);
  return -1;
}

std::pair<std::size_t, std::size_t> StatsStore::days(std::string_view start,
                                                     std::string_view end) const {
  std::size_t first = 0, last = 0;
  for (std::size_t d = 0; d < dates_.size(); ++d) {
    // A date string may carry a time of day; the day is its first ten characters.
    if (!start.empty() && dates_[d] < start.substr(0, 10)) first = d + 1;
    if (end.empty() || dates_[d] <= end.substr(0, 10)) last = d + 1;
  }
  return {first, std::max(first, last)};
}

std::array<uint64_t, kTotalFields> StatsStore::totals(int node,
                                                      std::pair<std::size_t, std::size_t> d) const {
  std::array<uint64_t, kTotalFields> sum{};
  for (std::size_t i = d.first; i < d.second && i < nodes_[node].days.size(); ++i)
    for (std::size_t b = 0; b < kTotalFields; ++b) sum[b] += nodes_[node].days[i][b];
  return sum;
}

uint64_t StatsStore::graph_time(int node, std::size_t p) const {
  return nodes_[node].time - (kGraphPoints - 1 - p) * kGraphStep;
}

// A graph field follows the last day's total of the same name: the BPS
// fields as its bits per second over the day, the others at its level, each
// point varied between 50% and 150% (subitems exact); the link utilizations
// are percentages from 5 to 94.
uint64_t StatsStore::graph_value(int node, std::size_t p, std::size_t bit) const {
  const int total = bit < kGraphFields ? kGraphTotal[bit] : -1;
  Rng mix{(static_cast<uint64_t>(node) << 32) ^ (p << 8) ^ bit};
  if (total < 0) return 5 + mix.below(90);
  const uint64_t base = nodes_[node].days.back()[total];
  if (static_cast<std::size_t>(total) == kSubitems) return base;
  const bool bps = bit == kGraphBpsIn || bit == kGraphBpsOut || bit == kGraphBpsTotal;
  return (bps ? base * 8 / 86400 : base) * (50 + mix.below(101)) / 100;
}

bool StatsStore::invalidate(std::string_view path, bool drop_root) {
  const int at = find(path);
  if (at < 0) return false;
  std::vector<int> todo{at};
  SqlStmt del_totals, del_node;
  sqlite3_stmt *s = nullptr;
  sqlite3_prepare_v2(db_.get(), "DELETE FROM totals_t WHERE path = ?", -1, &s, nullptr);
  del_totals.reset(s);
  sqlite3_prepare_v2(db_.get(), "DELETE FROM nodes_t WHERE path = ?", -1, &s, nullptr);
  del_node.reset(s);
  while (!todo.empty()) {
    const int i = todo.back();
    todo.pop_back();
    StatsNode &n = nodes_[i];
    for (auto &day : n.days) day.fill(0);
    for (sqlite3_stmt *st : {del_totals.get(), drop_root ? del_node.get() : nullptr}) {
      if (!st) continue;
      sqlite3_bind_text(st, 1, n.path.c_str(), -1, SQLITE_TRANSIENT);
      sqlite3_step(st);
      sqlite3_reset(st);
    }
    if (drop_root) n.gone = true;
    todo.insert(todo.end(), n.children.begin(), n.children.end());
  }
  if (drop_root && nodes_[at].parent >= 0) std::erase(nodes_[nodes_[at].parent].children, at);
  return true;
}

}  // namespace tqsim

// --- the columnar query ------------------------------------------------------------------

namespace tqsim {
namespace {

constexpr uint16_t kColInt64 = 8, kColDouble = 10, kColBytes = 11;
constexpr std::size_t kReplyHeader = 8;  // session word and correlation id
constexpr int kProgressOps = 1000;       // VM steps between deadline checks

void put_be(std::string &out, uint64_t v, int bytes) {
  for (int i = bytes - 1; i >= 0; --i) out.push_back(static_cast<char>(v >> (8 * i)));
}

// Queries may read and call functions; nothing else.
int authorize(void *, int action, const char *, const char *, const char *, const char *) {
  switch (action) {
    case SQLITE_SELECT:
    case SQLITE_READ:
    case SQLITE_FUNCTION:
    case SQLITE_RECURSIVE:
      return SQLITE_OK;
    default:
      return SQLITE_DENY;
  }
}

uint16_t type_of(sqlite3_stmt *s, int col, bool have_row) {
  switch (have_row ? sqlite3_column_type(s, col) : SQLITE_NULL) {
    case SQLITE_INTEGER: return kColInt64;
    case SQLITE_FLOAT: return kColDouble;
    case SQLITE_TEXT:
    case SQLITE_BLOB: return kColBytes;
    default: break;
  }
  // No value to go by: the declared type's affinity.
  std::string decl = sqlite3_column_decltype(s, col) ? sqlite3_column_decltype(s, col) : "";
  for (auto &ch : decl) ch = static_cast<char>(std::toupper(static_cast<unsigned char>(ch)));
  if (decl.find("INT") != std::string::npos) return kColInt64;
  if (decl.find("REAL") != std::string::npos || decl.find("FLOA") != std::string::npos ||
      decl.find("DOUB") != std::string::npos)
    return kColDouble;
  return kColBytes;
}

}  // namespace

uint64_t monotonic_ms() {
  using namespace std::chrono;
  return static_cast<uint64_t>(
      duration_cast<milliseconds>(steady_clock::now().time_since_epoch()).count());
}

QueryRun::QueryRun(sqlite3 *db, sqlite3_stmt *stmt, QueryLimits limits)
    : db_(db), stmt_(stmt), limits_(limits), deadline_ms_(monotonic_ms() + limits.timeout_ms) {}

std::unique_ptr<QueryRun> QueryRun::start(StatsStore &store, std::string_view sql,
                                          QueryLimits limits, std::string &why) {
  sqlite3 *db = store.db();
  if (!store.built()) {
    why = "The statistics store is not available: " + store.fault();
    return nullptr;
  }
  sqlite3_set_authorizer(db, authorize, nullptr);
  sqlite3_stmt *stmt = nullptr;
  const char *tail = nullptr;
  const int rc = sqlite3_prepare_v2(db, sql.data(), static_cast<int>(sql.size()), &stmt, &tail);
  sqlite3_set_authorizer(db, nullptr, nullptr);
  SqlStmt owned(stmt);
  if (rc != SQLITE_OK) {
    why = sqlite3_errmsg(db);
    return nullptr;
  }
  if (!owned) {
    why = "The query holds no statement";
    return nullptr;
  }
  for (const char *p = tail; p && p < sql.data() + sql.size(); ++p) {
    if (!std::isspace(static_cast<unsigned char>(*p)) && *p != ';') {
      why = "A query is one statement";
      return nullptr;
    }
  }
  if (!sqlite3_stmt_readonly(owned.get())) {
    why = "not authorized";
    return nullptr;
  }
  return std::unique_ptr<QueryRun>(new QueryRun(db, owned.release(), limits));
}

int QueryRun::progress(void *self) {
  return monotonic_ms() > static_cast<QueryRun *>(self)->deadline_ms_ ? 1 : 0;
}

void QueryRun::frame(uint8_t kind, const std::string &payload) {
  std::string f(1, static_cast<char>(kind));
  put_be(f, payload.size() + 4, 4);
  f += payload;
  frames_.push_back(std::move(f));
}

void QueryRun::flush(Hub &hub) {
  const std::size_t max = hub.options().max_reply_bytes;
  const std::size_t limit = max > kReplyHeader ? max - kReplyHeader : 1;
  std::string pending;
  auto send = [&] {
    Msg m = reply_data(session_, cid_);
    if (m) tq_msg_put_data(m.get(), pending.data(), pending.size());
    hub.send_to_conn(conn_, std::move(m));
    pending.clear();
  };
  for (const std::string &f : frames_) {
    if (f.size() <= limit) {
      if (pending.size() + f.size() > limit) send();
      pending += f;
      continue;
    }
    // Larger than a reply: it starts one and runs on; the next frame's
    // header must not be cut, so it starts a reply of its own.
    if (!pending.empty()) send();
    for (std::size_t at = 0; at < f.size(); at += limit) {
      pending.assign(f, at, limit);
      send();
    }
  }
  if (!pending.empty()) send();
  frames_.clear();
}

bool QueryRun::finish(Hub &hub, const char *notice) {
  if (notice) frame('Q', std::string(notice) + '\0');
  frame('C', {});
  frame('Z', {});
  flush(hub);
  hub.send_to_conn(conn_, reply_ok(session_, cid_));
  return true;
}

bool QueryRun::pump(Hub &hub, std::size_t rows) {
  sqlite3_stmt *s = stmt_.get();
  sqlite3_progress_handler(db_, kProgressOps, progress, this);
  bool done = false;
  std::string notice;
  for (std::size_t n = 0; n < rows && !done; ++n) {
    const int rc = sqlite3_step(s);
    const bool row = rc == SQLITE_ROW;
    if (rc != SQLITE_ROW && rc != SQLITE_DONE && rc != SQLITE_INTERRUPT) {
      const std::string why = sqlite3_errmsg(db_);
      sqlite3_progress_handler(db_, 0, nullptr, nullptr);
      flush(hub);
      hub.send_to_conn(conn_, reply_error(session_, cid_, why));
      return true;
    }
    // The description goes out first, even when time ran out before a row.
    if (types_.empty()) {
      const int cols = sqlite3_column_count(s);
      std::string desc;
      put_be(desc, static_cast<uint64_t>(cols), 2);
      for (int c = 0; c < cols; ++c) {
        types_.push_back(type_of(s, c, row));
        const char *name = sqlite3_column_name(s, c);
        desc += name ? name : "";
        desc.push_back('\0');
        put_be(desc, types_.back(), 2);
        put_be(desc, 0, 2);
      }
      frame('T', desc);
    }
    if (rc == SQLITE_INTERRUPT) {
      notice = format("Query stopped: time limit of %u ms reached", limits_.timeout_ms);
      done = true;
      break;
    }
    if (!row) {
      done = true;
      break;
    }
    if (rows_ >= limits_.max_rows) {
      notice = format("Query stopped: row limit of %u rows reached", limits_.max_rows);
      done = true;
      break;
    }
    ++rows_;
    std::string d;
    for (std::size_t c = 0; c < types_.size(); ++c) {
      const int col = static_cast<int>(c);
      if (sqlite3_column_type(s, col) == SQLITE_NULL) {
        d.push_back(1);
        continue;
      }
      d.push_back(0);
      switch (types_[c]) {
        case kColInt64:
          put_be(d, static_cast<uint64_t>(sqlite3_column_int64(s, col)), 8);
          break;
        case kColDouble:
          put_be(d, std::bit_cast<uint64_t>(sqlite3_column_double(s, col)), 8);
          break;
        default: {
          const auto *p = static_cast<const char *>(sqlite3_column_blob(s, col));
          const auto len = static_cast<std::size_t>(sqlite3_column_bytes(s, col));
          put_be(d, len, 4);
          if (p) d.append(p, len);
        }
      }
    }
    frame('D', d);
    if (monotonic_ms() > deadline_ms_) {
      notice = format("Query stopped: time limit of %u ms reached", limits_.timeout_ms);
      done = true;
    }
  }
  sqlite3_progress_handler(db_, 0, nullptr, nullptr);
  if (done) return finish(hub, notice.empty() ? nullptr : notice.c_str());
  flush(hub);
  return false;
}

}  // namespace tqsim
