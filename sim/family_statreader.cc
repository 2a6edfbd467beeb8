// The statistics reader (0x19Axx): lists, top lists, searches and counts of
// the statistics tree, its dates and fields, invalidation, and the columnar
// query, all answered from the generated statistics store.
//
// A node record is the list node of mode 0: name, u8 value count, u8 extra
// count (0), u16 value type, u64 flags, u16 0, u16 0, u64 time, the values.
// A node's values are its totals over the request's dates for the bits set
// in the reply mask, in ascending bit order. List-type answers (list, top
// list, search, subscribers) open every DATA message with the list header:
// u8 mode 0, u64 id 0 (nothing to continue), u8 count 0.
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

void put_node(Out &o, const StatsNode &n, std::span<const uint64_t> values) {
  o.text(n.name).u8(static_cast<uint8_t>(values.size())).u8(0).u16(n.type);
  u64(o, n.flags).u16(0).u16(0);
  u64(o, n.time);
  for (uint64_t v : values) u64(o, v);
}

// DATA messages each opening with the list header, then OK.
class NodeListAnswer {
 public:
  explicit NodeListAnswer(Call &c) : c_(c) {
    const std::size_t max = c.hub.options().max_reply_bytes;
    limit_ = max > kReplyHeader + kListHeader ? max - kReplyHeader - kListHeader : 1;
  }
  void add(const Out &rec) {
    if (!pending_.empty() && pending_.size() + rec.size() > limit_) send();
    pending_ += rec.bytes();
  }
  void finish() {
    if (!pending_.empty() || !sent_) send();
    c_.ok();
  }

 private:
  void send() {
    Out head;
    u64(head.u8(0), 0).u8(0);
    Msg m = c_.data();
    if (m) {
      tq_msg_put_data(m.get(), head.bytes().data(), head.size());
      tq_msg_put_data(m.get(), pending_.data(), pending_.size());
    }
    c_.reply(std::move(m));
    pending_.clear();
    sent_ = true;
  }
  Call &c_;
  std::size_t limit_;
  std::string pending_;
  bool sent_ = false;
};

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
  NodeListAnswer ans(c);
  for (int n : nodes) {
    Out rec;
    put_node(rec, stats(c).nodes()[n], masked(stats(c).totals(n, days), mask));
    ans.add(rec);
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

// Graph: a header record (u32 points, u16 mode, u16 0, u16 0, u32 usage
// count 0), then per point: u64 mask, u8 value count, u8 0 doubles, u64
// time, u8 0 extra, u32 index, u32 seconds per point, the link utilizations
// (bits 24, 25) when selected, then the other selected fields in bit order.
// The subscriber count graph selects one value: the subscribers.
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
  constexpr uint64_t kOpt = TQDB_STAT_POINT_OPT1 | TQDB_STAT_POINT_OPT2;
  mask &= (uint64_t{1} << kGraphFields) - 1;
  const std::size_t points = numvals == 0 ? kGraphPoints : std::min<std::size_t>(numvals, kGraphPoints);
  ListAnswer ans(c);
  ans.out().u32(static_cast<uint32_t>(points)).u16(mode).u16(0).u16(0).u32(0);
  ans.next();
  for (std::size_t p = kGraphPoints - points; p < kGraphPoints; ++p) {
    std::vector<uint64_t> values;
    if (subscribers) values.push_back(stats(c).nodes()[at].subscribers);
    for (std::size_t b = 0; b < kGraphFields; ++b)
      if ((mask & ~kOpt) & (uint64_t{1} << b)) values.push_back(stats(c).graph_value(at, p, b));
    Out &o = ans.out();
    u64(o, mask).u8(static_cast<uint8_t>(values.size())).u8(0);
    u64(o, stats(c).graph_time(at, p)).u8(0).u32(static_cast<uint32_t>(p)).u32(kGraphStep);
    if (mask & TQDB_STAT_POINT_OPT1) u64(o, stats(c).graph_value(at, p, 24));
    if (mask & TQDB_STAT_POINT_OPT2) u64(o, stats(c).graph_value(at, p, 25));
    for (uint64_t v : values) u64(o, v);
    ans.next();
  }
  ans.finish();
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
    {TQDB_REQ_STATREADER_QUERY, "stat_query", H, S, query},
};

}  // namespace

std::span<const Route> family_statreader() { return kRoutes; }

}  // namespace tqsim
