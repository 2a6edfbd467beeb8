// The simulator's statistics store: a tree of nodes with daily totals and
// graph points, generated from a seed and kept in an in-memory SQLite
// database that the columnar query reads through its views.
//
// Views (read-only for queries):
//   stat_nodes(path, name, parent, type, flags, subscribers, subitems)
//   stat_totals(path, date, field, bit, value)      one row per node, day, field
//   stat_graph(path, time, field, bit, value)        one row per node, point, field
//   stat_dates(date)
//   stat_fields(id, kind, subkind, name)             kind 0 total, 1 graph
//
// Paths: the root is "" (also "/"); a node below it is its parent's path,
// "/" and its name, without a leading "/": "NetObject-1/10.1.0.2".
#ifndef TQSIM_STATS_STORE_H
#define TQSIM_STATS_STORE_H

#include <sqlite3.h>

#include <array>
#include <cstdint>
#include <memory>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace tqsim {

inline constexpr std::size_t kTotalFields = 34;  // reply-mask bits 0..33
inline constexpr std::size_t kGraphFields = 36;
inline constexpr uint32_t kDefaultStatsScale = 1;
inline constexpr std::size_t kGraphPoints = 12;  // the last hour, every five minutes
inline constexpr uint64_t kGraphStep = 300;

struct StatsNode {
  std::string path;
  std::string name;
  int parent = -1;  // index, -1 for the root
  uint16_t type = 0;
  uint64_t flags = 0;
  uint64_t time = 0;  // last update, seconds since 1970
  uint64_t subscribers = 0;
  std::vector<int> children;
  bool gone = false;  // invalidated with its root
  // Totals per day (index into dates()), per field bit.
  std::vector<std::array<uint64_t, kTotalFields>> days;
};

struct SqliteClose {
  void operator()(sqlite3 *db) const noexcept { sqlite3_close(db); }
};
struct SqliteFinalize {
  void operator()(sqlite3_stmt *s) const noexcept { sqlite3_finalize(s); }
};
using SqlStmt = std::unique_ptr<sqlite3_stmt, SqliteFinalize>;

class StatsStore {
 public:
  StatsStore(uint64_t seed, uint32_t scale);

  sqlite3 *db() const { return db_.get(); }
  const std::vector<std::string> &dates() const { return dates_; }
  const std::vector<StatsNode> &nodes() const { return nodes_; }
  // The node at path (root: "" or "/"), or -1.
  int find(std::string_view path) const;
  // Day indexes [first, last) of a date range; an empty bound is open.
  std::pair<std::size_t, std::size_t> days(std::string_view start, std::string_view end) const;
  // A node's totals summed over days.
  std::array<uint64_t, kTotalFields> totals(int node, std::pair<std::size_t, std::size_t> d) const;
  // Forgets a node's totals (and with drop_root the node itself leaves the
  // tree's views); false when path names no node.
  // Graph point p (0 oldest) of a node: its time and a graph field's value.
  uint64_t graph_time(int node, std::size_t p) const;
  uint64_t graph_value(int node, std::size_t p, std::size_t bit) const;
  bool invalidate(std::string_view path, bool drop_root);
  bool built() const { return built_; }
  const std::string &fault() const { return fault_; }

 private:
  void generate(uint64_t seed, uint32_t scale);
  bool fill();
  bool exec(const char *sql);

  std::unique_ptr<sqlite3, SqliteClose> db_;
  std::vector<std::string> dates_;
  std::vector<StatsNode> nodes_;
  bool built_ = false;
  std::string fault_;
};

class Hub;

struct QueryLimits {
  uint32_t timeout_ms = 5000;
  uint32_t max_rows = 100000;
};

// One columnar query on its way to a client: the statement, stepped a slice
// at a time, and the stream it produces ("T", "D" rows, then "C", "Z" and
// OK; a "Q" notice before "C" when a limit stopped it; ERROR when SQLite
// failed). Frames are packed whole into DATA replies; a frame larger than a
// reply runs on over as many as it needs and the next frame starts afresh.
class QueryRun {
 public:
  // Prepares sql with every statement but reading refused; null (with why,
  // SQLite's message) when it cannot run.
  static std::unique_ptr<QueryRun> start(StatsStore &store, std::string_view sql,
                                         QueryLimits limits, std::string &why);
  void address(uint32_t conn, uint32_t session, uint32_t cid) {
    conn_ = conn, session_ = session, cid_ = cid;
  }
  uint32_t conn() const { return conn_; }
  // Steps up to rows rows and sends what is complete; true once finished.
  bool pump(Hub &hub, std::size_t rows);

 private:
  QueryRun(sqlite3 *db, sqlite3_stmt *stmt, QueryLimits limits);
  void frame(uint8_t kind, const std::string &payload);
  void flush(Hub &hub);
  bool finish(Hub &hub, const char *notice);
  static int progress(void *self);

  sqlite3 *db_;
  SqlStmt stmt_;
  QueryLimits limits_;
  uint64_t deadline_ms_;
  uint32_t conn_ = 0, session_ = 0, cid_ = 0;
  uint64_t rows_ = 0;
  std::vector<uint16_t> types_;  // empty until the description went out
  std::vector<std::string> frames_;
};

uint64_t monotonic_ms();

const char *total_field_name(std::size_t bit);
const char *graph_field_name(std::size_t bit);

// The value types of the statistics tree in id order: the id, its name (as
// in STATISTICS_VALUETYPE_<name>) and a short name of at most 3 characters.
struct ValueTypeName {
  uint16_t id;
  const char *name;
  const char *short_name;
};
std::span<const ValueTypeName> value_types();

}  // namespace tqsim

#endif
