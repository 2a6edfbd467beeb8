// The statistics reader (0x19Axx): lists, top lists, searches and counts of
// the statistics tree, its dates and fields, invalidation, and the columnar
// query, the string table of value types and the protocol version, all
// answered from the generated statistics store.
//
// A node record is the list node of mode 0: name, u8 value count, u8 extra
// count (0), u16 value type, u64 flags, u16 0, u16 0, u64 time, the values.
// A node's values are its totals over the request's dates for the bits set
// in the reply mask, in ascending bit order. List-type answers (list, top
// list, search, subscribers, recursive list) open every DATA message with
// the list header: u8 mode 0, u64 id 0 (nothing to continue), u8 count 0.
#include <algorithm>
#include <cctype>

#include "answer.h"
#include "dispatch.h"
#include "options.h"
#include "stats_store.h"
#include "tq_msg.h"
#include "tqdb_api.h"
#include "tqdb_api_query.h"
#include "tqdb_api_statreader.h"
#include "util.h"

namespace tqsim {
namespace {

constexpr std::size_t kListHeader = 1 + 8 + 1;
constexpr std::size_t kReplyHeader = 8;

Out &u64(Out &o, uint64_t v) {
  return o.u32(static_cast<uint32_t>(v >> 32)).u32(static_cast<uint32_t>(v));
}

struct Address {
  std::string start, end, path;
  uint16_t type = 0;
};

bool read_address(Body &in, Address &a) {
  return in.text(a.start) && in.text(a.end) && in.text(a.path) && in.u16(a.type);
}

// Continuation handle: u64 id, then (id non-zero) u32 key/value pairs to the end.
bool read_continuation(Body &in) {
  uint64_t id = 0;
  if (!in.u64(id)) return false;
  if (id == 0) return in.end();
  while (in.left() >= 8) {
    uint32_t k = 0, v = 0;
    if (!in.u32(k) || !in.u32(v)) return false;
  }
  return in.end();
}

std::vector<uint64_t> masked(const std::array<uint64_t, kTotalFields> &t, uint64_t mask) {
  std::vector<uint64_t> out;
  for (std::size_t b = 0; b < kTotalFields; ++b)
    if (mask & (uint64_t{1} << b)) out.push_back(t[b]);
  return out;
}

void put_named(Out &o, std::string_view name, const StatsNode &n,
               std::span<const uint64_t> values) {
  o.text(name).u8(static_cast<uint8_t>(values.size())).u8(0).u16(n.type);
  u64(o, n.flags).u16(0).u16(0);
  u64(o, n.time);
  for (uint64_t v : values) u64(o, v);
}

void put_node(Out &o, const StatsNode &n, std::span<const uint64_t> values) {
  put_named(o, n.name, n, values);
}

// DATA messages of whole records, then OK, as ListAnswer, with two more
// rules: every message opens with a head for the records it carries
// (head_size bytes, written by head), and cut() ends a message early so
// that the next record starts one of its own.
class Packed {
 public:
  using Head = void (*)(Out &, std::size_t records);
  explicit Packed(Call &c, std::size_t head_size = 0, Head head = nullptr) : c_(c), head_(head) {
    const std::size_t max = c.hub.options().max_reply_bytes;
    const std::size_t room = kReplyHeader + head_size;
    limit_ = max > room ? max - room : 1;
  }
  Out &out() { return rec_; }
  void next() {
    if (records_ && pending_.size() + rec_.size() > limit_) send();
    pending_ += rec_.bytes();
    rec_.clear();
    ++records_;
  }
  void cut() {
    if (records_) send();
  }
  void finish() {
    if (records_ || !sent_) send();
    c_.ok();
  }

 private:
  void send() {
    Out head;
    if (head_) head_(head, records_);
    Msg m = c_.data();
    if (m) {
      tq_msg_put_data(m.get(), head.bytes().data(), head.size());
      tq_msg_put_data(m.get(), pending_.data(), pending_.size());
    }
    c_.reply(std::move(m));
    pending_.clear();
    records_ = 0;
    sent_ = true;
  }
  Call &c_;
  Head head_;
  std::size_t limit_;
  std::string pending_;
  Out rec_;
  std::size_t records_ = 0;
  bool sent_ = false;
};

// The list header: mode 0, id 0 (nothing to continue), no keys.
void list_head(Out &o, std::size_t) { u64(o.u8(0), 0).u8(0); }

StatsStore &stats(Call &c) { return c.hub.stats(); }

// The addressed node, or -1 after answering ERROR.
int node_at(Call &c, const Address &a) {
  const int at = stats(c).find(a.path);
  if (at < 0) c.error("No statistics node at '" + a.path + "'");
  return at;
}

// Children of a node of one value type; ROOT (0) selects all.
std::vector<int> children(const StatsStore &s, int at, uint16_t type) {
  std::vector<int> out;
  for (int ch : s.nodes()[at].children)
    if (type == 0 || s.nodes()[ch].type == type) out.push_back(ch);
  return out;
}

bool contains(std::string_view hay, std::string_view needle) {
  auto eq = [](char a, char b) {
    return std::tolower(static_cast<unsigned char>(a)) == std::tolower(static_cast<unsigned char>(b));
  };
  return std::search(hay.begin(), hay.end(), needle.begin(), needle.end(), eq) != hay.end();
}

void send_nodes(Call &c, const Address &a, std::span<const int> nodes, uint64_t mask) {
  const auto days = stats(c).days(a.start, a.end);
  Packed ans(c, kListHeader, list_head);
  for (int n : nodes) {
    put_node(ans.out(), stats(c).nodes()[n], masked(stats(c).totals(n, days), mask));
    ans.next();
  }
  ans.finish();
}

// Node lists without header: one value per node from value_of.
template <class F>
void send_counts(Call &c, std::span<const int> nodes, F value_of) {
  ListAnswer ans(c);
  for (int n : nodes) {
    const uint64_t v[] = {value_of(stats(c).nodes()[n], n)};
    put_node(ans.out(), stats(c).nodes()[n], v);
    ans.next();
  }
  ans.finish();
}

void list(Call &c) {
  Address a;
  uint64_t mask = 0;
  if (!read_address(c.in, a) || !c.in.u64(mask) || !read_continuation(c.in)) return c.malformed();
  if (const int at = node_at(c, a); at >= 0) send_nodes(c, a, children(stats(c), at, a.type), mask);
}

void top_list(Call &c) {
  Address a;
  uint32_t max = 0, offset = 0;
  uint64_t mask = 0, unused = 0;
  if (!c.in.text(a.start) || !c.in.text(a.end) || !c.in.text(a.path) || !c.in.u32(max) ||
      !c.in.u16(a.type) || !c.in.u64(mask) || !c.in.u64(unused) || !c.in.u32(offset) ||
      !read_continuation(c.in))
    return c.malformed();
  const int at = node_at(c, a);
  if (at < 0) return;
  std::vector<int> nodes = children(stats(c), at, a.type);
  const auto days = stats(c).days(a.start, a.end);
  // Largest first by the first selected field; ties keep the tree's order.
  const int first = mask ? std::countr_zero(mask) : -1;
  if (first >= 0 && first < static_cast<int>(kTotalFields)) {
    std::vector<uint64_t> key(stats(c).nodes().size());
    for (int n : nodes) key[n] = stats(c).totals(n, days)[first];
    std::stable_sort(nodes.begin(), nodes.end(), [&](int x, int y) { return key[x] > key[y]; });
  }
  const std::size_t from = std::min<std::size_t>(offset, nodes.size());
  const std::size_t n = max == 0 ? nodes.size() - from : std::min<std::size_t>(max, nodes.size() - from);
  send_nodes(c, a, std::span(nodes).subspan(from, n), mask);
}

// Descendants to depth (0 or less: all) whose name holds the search text.
void list_search(Call &c) {
  Address a;
  int32_t max = 0, depth = 0;
  std::string search;
  uint64_t mask = 0;
  if (!read_address(c.in, a) || !c.in.i32(max) || !c.in.text(search) || !c.in.i32(depth) ||
      !c.in.u64(mask) || !c.in.end())
    return c.malformed();
  const int at = node_at(c, a);
  if (at < 0) return;
  std::vector<int> found;
  std::vector<std::pair<int, int>> todo{{at, 0}};  // breadth first: nearer nodes first
  for (std::size_t next = 0;
       next < todo.size() && (max <= 0 || found.size() < static_cast<std::size_t>(max)); ++next) {
    const auto [n, d] = todo[next];
    for (int ch : stats(c).nodes()[n].children) {
      const StatsNode &node = stats(c).nodes()[ch];
      if ((a.type == 0 || node.type == a.type) && contains(node.name, search) &&
          (max <= 0 || found.size() < static_cast<std::size_t>(max)))
        found.push_back(ch);
      if (depth <= 0 || d + 1 < depth) todo.push_back({ch, d + 1});
    }
  }
  send_nodes(c, a, found, mask);
}

// Subscribers, subitems list, list subscribers: address, i32 max, u64 mask.
void list_max(Call &c) {
  Address a;
  int32_t max = 0;
  uint64_t mask = 0;
  if (!read_address(c.in, a) || !c.in.i32(max) || !c.in.u64(mask) || !c.in.end())
    return c.malformed();
  const int at = node_at(c, a);
  if (at < 0) return;
  std::vector<int> nodes = children(stats(c), at, a.type);
  if (c.code != TQDB_REQ_STAT_SUBITEMS_LIST)
    std::erase_if(nodes, [&](int n) { return stats(c).nodes()[n].subscribers == 0; });
  if (max > 0 && nodes.size() > static_cast<std::size_t>(max)) nodes.resize(max);
  send_nodes(c, a, nodes, mask);
}

void transfer_get(Call &c) {
  Address a;
  uint64_t mask = 0;
  if (!read_address(c.in, a) || !c.in.u64(mask) || !c.in.end()) return c.malformed();
  const int at = node_at(c, a);
  if (at < 0) return;
  ListAnswer ans(c);
  put_node(ans.out(), stats(c).nodes()[at], masked(stats(c).totals(at, stats(c).days(a.start, a.end)), mask));
  ans.finish();
}

// Address-only requests answered with one count per node.
void counts(Call &c) {
  Address a;
  if (!read_address(c.in, a) || !c.in.end()) return c.malformed();
  const int at = node_at(c, a);
  if (at < 0) return;
  const StatsNode &node = stats(c).nodes()[at];
  switch (c.code) {
    case TQDB_REQ_STAT_SUBITEM_COUNT: {
      const int self[] = {at};
      return send_counts(c, self, [](const StatsNode &n, int) { return n.children.size(); });
    }
    case TQDB_REQ_STAT_SUBITEM_COUNT_LIST:
      return send_counts(c, children(stats(c), at, a.type),
                         [](const StatsNode &n, int) { return n.children.size(); });
    case TQDB_REQ_STAT_SUBSCRIBER_COUNT_LIST:
      return send_counts(c, children(stats(c), at, a.type),
                         [](const StatsNode &n, int) { return n.subscribers; });
    case TQDB_REQ_STAT_SUBSCRIBER_COUNT: {
      Out o;
      u64(o, node.subscribers);
      return c.answer(o);
    }
    default: {  // flags
      Out o;
      o.u16(static_cast<uint16_t>(node.flags));
      return c.answer(o);
    }
  }
}

// Seconds of the date range in which each child carried traffic; with the
// threshold, only children that did on every day.
void list_duration(Call &c) {
  Address a;
  uint8_t threshold = 0;
  if (!read_address(c.in, a) || !c.in.u8(threshold) || !c.in.end()) return c.malformed();
  const int at = node_at(c, a);
  if (at < 0) return;
  const auto days = stats(c).days(a.start, a.end);
  auto seconds = [&](const StatsNode &n, int) {
    uint64_t s = 0;
    for (std::size_t d = days.first; d < days.second; ++d) s += n.days[d][10] ? 86400 : 0;
    return s;
  };
  std::vector<int> nodes = children(stats(c), at, a.type);
  if (threshold)
    std::erase_if(nodes, [&](int n) {
      return seconds(stats(c).nodes()[n], n) < (days.second - days.first) * 86400;
    });
  send_counts(c, nodes, seconds);
}

// Peaks: per child, the largest daily value of each selected field.
void peak_list(Call &c) {
  Address a;
  uint64_t mask = 0;
  if (!read_address(c.in, a) || !c.in.u64(mask) || !c.in.end()) return c.malformed();
  const int at = node_at(c, a);
  if (at < 0) return;
  const auto days = stats(c).days(a.start, a.end);
  ListAnswer ans(c);
  for (int n : children(stats(c), at, a.type)) {
    std::array<uint64_t, kTotalFields> peak{};
    for (std::size_t d = days.first; d < days.second; ++d)
      for (std::size_t b = 0; b < kTotalFields; ++b)
        peak[b] = std::max(peak[b], stats(c).nodes()[n].days[d][b]);
    put_node(ans.out(), stats(c).nodes()[n], masked(peak, mask));
    ans.next();
  }
  ans.finish();
}

// Activity: per child, its BPS_TOTAL over the last numvals graph points.
void activity(Call &c) {
  Address a;
  uint32_t numvals = 0;
  if (!read_address(c.in, a) || !c.in.u32(numvals) || !c.in.end()) return c.malformed();
  const int at = node_at(c, a);
  if (at < 0) return;
  constexpr std::size_t kBpsTotal = 13;
  const std::size_t points = std::min<std::size_t>(numvals == 0 ? kGraphPoints : numvals, kGraphPoints);
  ListAnswer ans(c);
  for (int n : children(stats(c), at, a.type)) {
    if (c.code == TQDB_REQ_STAT_SUBSCRIBERS_ACTIVITY && stats(c).nodes()[n].subscribers == 0) continue;
    std::vector<uint64_t> v;
    for (std::size_t p = kGraphPoints - points; p < kGraphPoints; ++p)
      v.push_back(stats(c).graph_value(n, p, kBpsTotal));
    put_node(ans.out(), stats(c).nodes()[n], v);
    ans.next();
  }
  ans.finish();
}

void names_list(Call &c) {
  Address a;
  std::string match;
  if (!read_address(c.in, a) || !c.in.text(match) || !c.in.end()) return c.malformed();
  const int at = node_at(c, a);
  if (at < 0) return;
  ListAnswer ans(c);
  for (int n : children(stats(c), at, a.type)) {
    if (!contains(stats(c).nodes()[n].name, match)) continue;
    put_node(ans.out(), stats(c).nodes()[n], {});
    ans.next();
  }
  ans.finish();
}

// Graph: a header record (u32 points, u16 mode, u16 g2, u16 g3, u32 usage
// count 0), then per point: u64 mask, u8 value count, u8 0 doubles, u64
// time, u8 0 extra, u32 index, u32 seconds per point, the link utilizations
// (bits 24, 25) when selected, then the other selected fields in bit order.
// The subscriber count graph selects one value: the subscribers.
struct GraphAsk {
  std::size_t points;  // the last ones, at most kGraphPoints
  uint8_t mode;
  uint64_t mask;
  bool subscribers;
};

void put_graph(Packed &ans, const StatsStore &s, int at, const GraphAsk &g, uint16_t g2,
               uint16_t g3) {
  constexpr uint64_t kOpt = TQDB_STAT_POINT_OPT1 | TQDB_STAT_POINT_OPT2;
  const uint64_t mask = g.mask & ((uint64_t{1} << kGraphFields) - 1);
  ans.out().u32(static_cast<uint32_t>(g.points)).u16(g.mode).u16(g2).u16(g3).u32(0);
  ans.next();
  for (std::size_t p = kGraphPoints - g.points; p < kGraphPoints; ++p) {
    std::vector<uint64_t> values;
    if (g.subscribers) values.push_back(s.nodes()[at].subscribers);
    for (std::size_t b = 0; b < kGraphFields; ++b)
      if ((mask & ~kOpt) & (uint64_t{1} << b)) values.push_back(s.graph_value(at, p, b));
    Out &o = ans.out();
    u64(o, mask).u8(static_cast<uint8_t>(values.size())).u8(0);
    u64(o, s.graph_time(at, p)).u8(0).u32(static_cast<uint32_t>(p)).u32(kGraphStep);
    if (mask & TQDB_STAT_POINT_OPT1) u64(o, s.graph_value(at, p, 24));
    if (mask & TQDB_STAT_POINT_OPT2) u64(o, s.graph_value(at, p, 25));
    for (uint64_t v : values) u64(o, v);
    ans.next();
  }
}

std::size_t last_points(uint32_t numvals) {
  return numvals == 0 ? kGraphPoints : std::min<std::size_t>(numvals, kGraphPoints);
}

void graph(Call &c) {
  Address a;
  uint32_t numvals = 0, trailer = 0;
  uint8_t mode = 0, usage = 0, further = 0;
  uint64_t mask = 0;
  const bool subscribers = c.code == TQDB_REQ_STAT_SUBSCRIBER_COUNT_GRAPH;
  bool ok = read_address(c.in, a) && c.in.u32(numvals);
  if (!subscribers)
    ok = ok && c.in.u8(mode) && c.in.u64(mask) && c.in.u8(usage) && c.in.u8(further) && c.in.u32(trailer);
  if (!ok || !c.in.end()) return c.malformed();
  const int at = node_at(c, a);
  if (at < 0) return;
  Packed ans(c);
  put_graph(ans, stats(c), at, {last_points(numvals), mode, mask, subscribers}, 0, 0);
  ans.finish();
}

// List graph: the graph of every child the list names, in its order; each
// graph starts a message of its own and carries the child's position (g2)
// and the number of children (g3).
void list_graph(Call &c) {
  Address a;
  uint32_t numvals = 0;
  uint8_t mode = 0;
  uint64_t mask = 0;
  if (!read_address(c.in, a) || !c.in.u32(numvals) || !c.in.u8(mode) || !c.in.u64(mask) ||
      !c.in.end())
    return c.malformed();
  const int at = node_at(c, a);
  if (at < 0) return;
  const std::vector<int> nodes = children(stats(c), at, a.type);
  Packed ans(c);
  for (std::size_t i = 0; i < nodes.size(); ++i) {
    ans.cut();
    put_graph(ans, stats(c), nodes[i], {last_points(numvals), mode, mask, false},
              static_cast<uint16_t>(i), static_cast<uint16_t>(nodes.size()));
  }
  ans.finish();
}

// Recursive list: every descendant, a node before its children, named by
// its path below the addressed node; of the value type (0: all), though
// the walk goes through nodes of other types too. No values.
void recursive_list(Call &c) {
  Address a;
  if (!read_address(c.in, a) || !c.in.end()) return c.malformed();
  const int at = node_at(c, a);
  if (at < 0) return;
  const StatsStore &s = stats(c);
  const std::size_t cut = s.nodes()[at].path.empty() ? 0 : s.nodes()[at].path.size() + 1;
  Packed ans(c, kListHeader, list_head);
  std::vector<int> todo(s.nodes()[at].children.rbegin(), s.nodes()[at].children.rend());
  while (!todo.empty()) {
    const StatsNode &n = s.nodes()[todo.back()];
    todo.pop_back();
    todo.insert(todo.end(), n.children.rbegin(), n.children.rend());
    if (a.type != 0 && n.type != a.type) continue;
    put_named(ans.out(), std::string_view(n.path).substr(cut), n, {});
    ans.next();
  }
  ans.finish();
}

// String table 0, the value types: every message opens with the u16 count
// of its entries; an entry is u16 id, name, short name, u32 flags (bit 0:
// the tree holds nodes of the type).
void string_table(Call &c) {
  uint32_t table = 0;
  if (!c.in.u32(table) || !c.in.end()) return c.malformed();
  if (table != 0)
    return c.error(format("No string table %u (table 0 holds the value types)", table));
  Packed ans(c, 2, [](Out &o, std::size_t n) { o.u16(static_cast<uint16_t>(n)); });
  for (const ValueTypeName &v : value_types()) {
    const bool used = std::ranges::any_of(
        stats(c).nodes(), [&](const StatsNode &n) { return !n.gone && n.type == v.id; });
    ans.out().u16(v.id).text(v.name).text(v.short_name).u32(used ? 1 : 0);
    ans.next();
  }
  ans.finish();
}

// The statistics reader's protocol version, one DATA with a u64.
constexpr uint64_t kStatsProtocolVersion = 1;
void protocol_version(Call &c) {
  if (!c.in.end()) return c.malformed();
  Out o;
  c.answer(u64(o, kStatsProtocolVersion));
}

void date_list(Call &c) {
  if (!c.in.end()) return c.malformed();
  ListAnswer ans(c);
  for (const std::string &d : stats(c).dates()) {
    ans.out().text(d);
    ans.next();
  }
  ans.finish();
}

// One node "writer": last write time, nodes, days.
void writer_status(Call &c) {
  if (!c.in.end()) return c.malformed();
  const auto &s = stats(c);
  StatsNode w;
  w.name = "writer";
  w.flags = 1;
  w.time = s.nodes().empty() ? 0 : s.nodes()[0].time;
  const uint64_t v[] = {w.time, s.nodes().size(), s.dates().size()};
  ListAnswer ans(c);
  put_node(ans.out(), w, v);
  ans.finish();
}

// count_a total fields, count_b graph fields: u64 id (the field's bit), u8
// kind (0 total, 1 graph), u8 subkind 0, name.
void list_fields(Call &c) {
  if (!c.in.end()) return c.malformed();
  Out o;
  o.u8(kTotalFields).u8(kGraphFields);
  for (std::size_t b = 0; b < kTotalFields + kGraphFields; ++b) {
    const bool total = b < kTotalFields;
    const std::size_t bit = total ? b : b - kTotalFields;
    u64(o, uint64_t{1} << bit).u8(total ? 0 : 1).u8(0).text(total ? total_field_name(bit) : graph_field_name(bit));
  }
  c.answer(o);
}

void invalidate(Call &c) {
  Address a;
  uint8_t drop_root = 0;
  if (!read_address(c.in, a) || !c.in.u8(drop_root) || !c.in.end()) return c.malformed();
  Resource *r = c.store.resource(TQDB_RESOURCE_STATREADER);
  if (!r || !c.change(*r)) return;
  if (!stats(c).invalidate(a.path, drop_root != 0))
    return c.error("No statistics node at '" + a.path + "'");
  c.ok();
}

// Body: the "Q" frame, u32 length counting itself, the text and its NUL.
void query(Call &c) {
  uint8_t kind = 0;
  uint32_t len = 0;
  std::string text;
  if (!c.in.u8(kind) || !c.in.u32(len)) return c.malformed();
  if (kind != TQDB_QUERY_FRAME_QUERY || len < 5 || len - 4 != c.in.left()) {
    c.in.fail("not a query frame");
    return c.malformed();
  }
  if (!c.in.bytes(text, len - 4) || !c.in.end()) return c.malformed();
  if (text.back() != '\0') {
    c.in.fail("string not terminated");
    return c.malformed();
  }
  text.pop_back();
  std::string why;
  const Options &o = c.hub.options();
  auto q = QueryRun::start(stats(c), text, {o.query_timeout_ms, o.query_max_rows}, why);
  if (!q) return c.error(why);
  q->address(c.conn, c.session, c.cid);
  c.hub.run_query(std::move(q));
}

constexpr auto H = Header::kSessionCid;
constexpr auto S = Access::kSession;
constexpr Route kRoutes[] = {
    {TQDB_REQ_STAT_DATE_LIST, "stat_date_list", H, S, date_list},
    {TQDB_REQ_STAT_LIST, "stat_list", H, S, list},
    {TQDB_REQ_STAT_GRAPH, "stat_graph", H, S, graph},
    {TQDB_REQ_STAT_SUBSCRIBER_COUNT_GRAPH, "stat_subscriber_count_graph", H, S, graph},
    {TQDB_REQ_STAT_TRANSFER_GET, "stat_transfer_get", H, S, transfer_get},
    {TQDB_REQ_STAT_TOP_LIST, "stat_top_list", H, S, top_list},
    {TQDB_REQ_STAT_LIST_FIELDS, "stat_list_fields", H, S, list_fields},
    {TQDB_REQ_STAT_SUBITEM_COUNT, "stat_subitem_count", H, S, counts},
    {TQDB_REQ_STAT_WRITER_STATUS, "stat_writer_status", H, S, writer_status},
    {TQDB_REQ_STAT_LIST_DURATION, "stat_list_duration", H, S, list_duration},
    {TQDB_REQ_STAT_SUBSCRIBER_COUNT, "stat_subscriber_count", H, S, counts},
    {TQDB_REQ_STAT_SUBSCRIBER_COUNT_LIST, "stat_subscriber_count_list", H, S, counts},
    {TQDB_REQ_STAT_GET_FLAGS, "stat_get_flags", H, S, counts},
    {TQDB_REQ_STAT_DATA_INVALIDATE, "stat_data_invalidate", H, S, invalidate},
    {TQDB_REQ_STAT_GRAPH_INVALIDATE, "stat_graph_invalidate", H, S, invalidate},
    {TQDB_REQ_STAT_SUBITEM_COUNT_LIST, "stat_subitem_count_list", H, S, counts},
    {TQDB_REQ_STAT_SUBSCRIBERS, "stat_subscribers", H, S, list_max},
    {TQDB_REQ_STAT_SUBITEMS_LIST, "stat_subitems_list", H, S, list_max},
    {TQDB_REQ_STAT_LIST_SUBSCRIBERS, "stat_list_subscribers", H, S, list_max},
    {TQDB_REQ_STAT_LIST_SEARCH, "stat_list_search", H, S, list_search},
    {TQDB_REQ_STAT_PEAK_LIST, "stat_peak_list", H, S, peak_list},
    {TQDB_REQ_STAT_SUBSCRIBERS_ACTIVITY, "stat_subscribers_activity", H, S, activity},
    {TQDB_REQ_STAT_LIST_ACTIVITY, "stat_list_activity", H, S, activity},
    {TQDB_REQ_STAT_NAMES_LIST, "stat_names_list", H, S, names_list},
    {TQDB_REQ_STAT_LIST_GRAPH, "stat_list_graph", H, S, list_graph},
    {TQDB_REQ_STAT_RECURSIVE_LIST, "stat_recursive_list", H, S, recursive_list},
    {TQDB_REQ_STAT_STRING_TABLE, "stat_string_table", H, S, string_table},
    {TQDB_REQ_STAT_PROTOCOL_VERSION, "stat_protocol_version", H, S, protocol_version},
    {TQDB_REQ_STATREADER_QUERY, "stat_query", H, S, query},
};

}  // namespace

std::span<const Route> family_statreader() { return kRoutes; }

}  // namespace tqsim
