// Statistics reader: request bytes, list / graph / flags / field-list
// decoding, state across replies, and replies cut anywhere.
#include <gtest/gtest.h>

#include <bit>
#include <cstring>
#include <functional>
#include <string>

#include "support/wire.h"
#include "tq_list.h"
#include "tq_malloc.h"
#include "tqdb_api_statreader.h"

using namespace tqtest;

namespace {

using H = tqdb_api_handle_t;
using L = tqdb_api_statreader_list_t;
using G = tqdb_api_statreader_graph_t;
constexpr uint32_t S = 9;

struct Free {
  void operator()(L *l) const { tqdb_api_statreader_list_free(l); }
  void operator()(G *g) const { tqdb_api_statreader_graph_free(g); }
  void operator()(tqdb_api_statistics_fields_t *f) const { tqdb_api_statistics_fields_free(f); }
  void operator()(tq_list_t *l) const { tq_list_free_with_data(l); }
};
template <class T>
using Own = std::unique_ptr<T, Free>;

template <class T>
std::vector<T *> recs(const tq_list_t *l) {
  std::vector<T *> v;
  for (; l != nullptr; l = l->next) v.push_back(static_cast<T *>(l->data));
  return v;
}

uint32_t live() {
  uint32_t n = 0;
  for (const char *label : {"statreader_list_t", "statreader_list_node_t", "statreader_graph_t",
                            "statreader_graph_node_t", "statreader_graph_t::usage_bm", "statreader_date_t",
                            "statistics_fields_t", "statistics_fieldnode_t", "statistics_valuetype_t"}) {
    tq_malloc_stat_t st{};
    if (tq_malloc_stat((std::string("tqdb_api_") + label).c_str(), &st)) n += st.entries;
  }
  return n;
}

EnvPtr reply(std::span<const uint8_t> body, CorruptLog *log = nullptr, uint32_t code = 0x21000) {
  return make_env(code, Wire().u32(S).u32(1).raw(body), log ? CorruptLog::cb : nullptr, log);
}

// A node: name, counts, type, flags, field_a, field_b, time, [mode values], values.
Wire &node(Wire &w, std::string_view name, std::vector<uint64_t> vals, uint8_t n_extra = 0, bool mode1 = false) {
  w.str(name).u8(static_cast<uint8_t>(vals.size() - n_extra)).u8(n_extra).u16(513).u64(0x8000000000000002)
      .u16(7).u16(8).u64(1700000000);
  if (mode1) w.u64(11).u64(12);
  for (uint64_t v : vals) w.u64(v);
  return w;
}
Wire list_head(uint8_t mode, uint64_t id, std::vector<std::pair<uint32_t, uint32_t>> kv) {
  Wire w;
  w.u8(mode).u64(id).u8(static_cast<uint8_t>(kv.size()));
  for (auto [k, v] : kv) w.u32(k).u32(v);
  return w;
}
// A point: mask, counts, time, p1, p2, optional values, arrays.
Wire &point(Wire &w, uint64_t mask, uint32_t p1, std::vector<uint64_t> u, std::vector<double> d) {
  w.u64(mask).u8(static_cast<uint8_t>(u.size())).u8(static_cast<uint8_t>(d.size())).u64(1000 + p1).u8(1)
      .u32(p1).u32(p1 * 2);
  if (mask & TQDB_STAT_POINT_OPT1) w.u64(0x0101);
  if (mask & TQDB_STAT_POINT_OPT2) w.u64(0x0202);
  for (uint64_t v : u) w.u64(v);
  for (double v : d) w.u64(std::bit_cast<uint64_t>(v));
  return w.u64(99);
}
Wire graph_head(uint32_t total) { return Wire().u32(total).u16(1).u16(2).u16(3).u32(4); }

struct Row {
  std::function<uint32_t(H *)> call;
  uint32_t code;
  Bytes body;
};

}  // namespace

TEST(StatreaderRequests, BodiesAreByteExact) {
  HandlePtr h(tqdb_api_handle_new());
  const auto addr = [](uint16_t type = 513) { return Wire().str("a").str("b").str("/p").u16(type); };
  uint32_t kv[4] = {1, 2, 3, 4};
  L cont{0, 2, 0x0102030405060708, kv, kv + 2, nullptr};
  L none{0, 2, 0, kv, kv + 2, nullptr};  // an id of 0 continues nothing
  const uint64_t M = 0x1122334455667788;
#define R(call, code, body) Row{[&](H *h) { return tqdb_api_##call; }, code, body}
#define A S, "a", "b", "/p", 513
  const std::vector<Row> rows{
      R(statreader_date_list(h, S), 0x19A01, {}),
      R(statreader_list(h, A, M, nullptr), 0x19A02, addr().u64(M).u64(0)),
      R(statreader_list(h, A, M, &none), 0x19A02, addr().u64(M).u64(0)),
      R(statreader_list(h, A, M, &cont), 0x19A02, addr().u64(M).u64(0x0102030405060708).u32(1).u32(3).u32(2).u32(4)),
      R(statreader_graph(h, A, 60, 1, M, true, 5, 0), 0x19A03, addr().u32(60).u8(1).u64(M).u8(1).u8(5).u32(0)),
      R(statreader_transfer_get(h, A, M), 0x19A05, addr().u64(M)),
      R(statreader_top_list(h, S, "a", "b", "/p", 10, 513, M, 20, nullptr), 0x19A06,
        Wire().str("a").str("b").str("/p").u32(10).u16(513).u64(M).u64(0).u32(20).u64(0)),
      R(statreader_top_list(h, S, nullptr, "b", "/p", 10, 513, M, 20, &cont), 0x19A06,
        Wire().null_str().str("b").str("/p").u32(10).u16(513).u64(M).u64(0).u32(20).u64(0x0102030405060708)
            .u32(1).u32(3).u32(2).u32(4)),
      R(statistics_list_fields(h, S), 0x19A07, {}),
      R(statreader_subitem_count(h, A), 0x19A09, addr()),
      R(statreader_peak_list(h, A, M), 0x19A0A, addr().u64(M)),
      R(statreader_writer_status(h, S), 0x19A0B, {}),
      R(statreader_list_duration(h, A, true), 0x19A0C, addr().u8(1)),
      R(statreader_subscriber_count(h, A), 0x19A0E, addr()),
      R(statreader_subscriber_count_list(h, A), 0x19A0F, addr()),
      R(statreader_subscriber_count_graph(h, A, 30), 0x19A10, addr().u32(30)),
      R(statreader_get_flags(h, S, "a", "b", "/p", 0xFFFF), 0x19A11, addr(0xFFFF)),
      R(statreader_list_graph(h, A, 30, 2, M), 0x19A12, addr().u32(30).u8(2).u64(M)),
      R(statreader_recursive_list(h, A), 0x19A13, addr()),
      R(statreader_data_invalidate(h, A, false), 0x19A14, addr().u8(0)),
      R(statreader_graph_invalidate(h, A, true), 0x19A15, addr().u8(1)),
      R(statreader_subitem_count_list(h, A), 0x19A16, addr()),
      R(statreader_subscribers(h, A, -1, M), 0x19A17, addr().u32(0xFFFFFFFF).u64(M)),
      R(statreader_subitems_list(h, A, 5, M), 0x19A18, addr().u32(5).u64(M)),
      R(statreader_subscribers_activity(h, A, 7), 0x19A19, addr().u32(7)),
      R(statreader_list_activity(h, A, 8), 0x19A1A, addr().u32(8)),
      R(statreader_list_subscribers(h, A, 100, M), 0x19A1B, addr().u32(100).u64(M)),
      R(statreader_list_search(h, A, 50, "x", 3, M), 0x19A1C, addr().u32(50).str("x").u32(3).u64(M)),
      R(statreader_names_list(h, A, "m*"), 0x19A1E, addr().str("m*")),
      R(statreader_string_table(h, S, 2), 0x19A1F, Wire().u32(2)),
      R(statreader_protocol_version(h, S), 0x19A20, {}),
  };
  for (size_t i = 0; i < rows.size(); ++i) {
    SCOPED_TRACE(i);
    const uint32_t cid = rows[i].call(h.get());
    EXPECT_EQ(cid, i + 1);
    EXPECT_EQ(drain_wbuf(h.get()), frame(rows[i].code, Wire().u32(S).u32(cid).raw(rows[i].body)));
  }
#undef A
#undef R
}

TEST(StatreaderList, ModeOneNodesLongNamesAndContinuation) {
  const std::string long_name(3000, 'n');
  Wire w = list_head(1, 77, {{1, 2}, {3, 4}});
  node(node(w, long_name, {5, 6, 7}, 1, true), "b", {}, 0, true);
  CorruptLog log;
  Own<L> l(tqdb_api_statreader_list_handle(reply(w, &log).get(), nullptr));
  ASSERT_TRUE(l);
  EXPECT_EQ(log.calls, 0);
  EXPECT_EQ((std::vector<uint64_t>{l->id, l->keys[0], l->values[0], l->keys[1], l->values[1]}),
            (std::vector<uint64_t>{77, 1, 2, 3, 4}));
  auto n = recs<tqdb_api_statreader_list_node_t>(l->nodes);
  ASSERT_EQ(n.size(), 2u);
  EXPECT_EQ(std::string(n[0]->name), long_name.substr(0, 2047));
  const auto *a = n[0];
  EXPECT_EQ((std::vector<uint64_t>{a->n_values, a->values[0], a->values[1], a->n_extra, a->extra[0], a->type,
                                   a->flags, a->field_a, a->field_b, a->time, a->mode_value_1, a->mode_value_2}),
            (std::vector<uint64_t>{2, 5, 6, 1, 7, 513, 0x8000000000000002, 7, 8, 1700000000, 11, 12}));
  EXPECT_STREQ(n[1]->name, "b");
  // Mode 0 nodes carry no mode values; the next reply continues the list.
  Wire w2 = list_head(0, 0, {});
  node(w2, "c", {9});
  l.reset(tqdb_api_statreader_list_handle(reply(w2).get(), l.release()));
  EXPECT_EQ(l->id, 0u);
  n = recs<tqdb_api_statreader_list_node_t>(l->nodes);
  ASSERT_EQ(n.size(), 3u);
  EXPECT_EQ((std::vector<uint64_t>{n[2]->values[0], n[2]->mode_value_1}), (std::vector<uint64_t>{9, 0}));
  // An empty reply keeps its id; another type leaves the list alone.
  Own<L> e(tqdb_api_statreader_list_handle(reply(list_head(0, 5, {})).get(), nullptr));
  EXPECT_EQ(e->id, 5u);
  EXPECT_EQ(e->nodes, nullptr);
  EXPECT_EQ(tqdb_api_statreader_list_handle(reply({}, nullptr, 0x20003).get(), l.get()), nullptr);
}

TEST(StatreaderGraph, ContinuesAcrossRepliesAndDropsAPointCutShort) {
  Wire r1 = graph_head(3);
  point(point(r1, TQDB_STAT_POINT_OPT1, 1, {10}, {0.5}), TQDB_STAT_POINT_OPT1 | TQDB_STAT_POINT_OPT2, 2, {}, {});
  Wire r2;
  point(r2, 0, 3, {30, 31}, {-2.25});
  Wire tail = r2;
  tail.raw(Bytes{0, 0, 0, 0, 0, 0, 0, 0, 1});  // a fourth point cut short
  CorruptLog log;
  Own<G> g(tqdb_api_statreader_graph_handle(reply(r1).get(), nullptr));
  ASSERT_TRUE(g);
  EXPECT_EQ(g->received, 2u);
  ASSERT_NE(g->usage_bm, nullptr);
  EXPECT_EQ(g->usage_bm[3], 0);
  EXPECT_EQ(tqdb_api_statreader_graph_handle(reply(r2, &log).get(), g.get()), g.get());
  EXPECT_EQ(log.calls, 0);
  auto p = recs<tqdb_api_statreader_graph_node_t>(g->points);
  ASSERT_EQ(p.size(), 3u);
  EXPECT_EQ((std::vector<uint64_t>{p[0]->p1, p[0]->opt1, p[0]->opt2, p[0]->u64s[0], p[0]->extra[0]}),
            (std::vector<uint64_t>{1, 0x0101, 0, 10, 99}));
  EXPECT_EQ(p[0]->doubles[0], 0.5);
  EXPECT_EQ((std::vector<uint64_t>{p[1]->p2, p[1]->opt1, p[1]->opt2}), (std::vector<uint64_t>{4, 0x0101, 0x0202}));
  EXPECT_EQ(p[2]->doubles[0], -2.25);
  EXPECT_EQ(p[2]->u64s[1], 31u);
  // With all points in, nothing more is read.
  EXPECT_EQ(tqdb_api_statreader_graph_handle(reply(r2).get(), g.get())->received, 3u);
  // A graph of four points: the fourth is cut short, dropped and reported.
  Wire r3 = graph_head(4);
  r3.raw(tail);
  Own<G> g4(tqdb_api_statreader_subscriber_count_graph_handle(reply(r3, &log).get(), nullptr));
  EXPECT_EQ(g4->received, 1u);
  EXPECT_EQ(tq_list_length(g4->points), 1u);
  EXPECT_EQ(log.calls, 1);
  EXPECT_EQ(log.function, "tqdb_api_statreader_subscriber_count_graph_handle");
  // A usage bitmap no graph can have is a broken reply, not an allocation.
  for (uint32_t usage : {TQDB_STAT_USAGE_MAX, TQDB_STAT_USAGE_MAX + 1}) {
    CorruptLog big;
    Own<G> gb(tqdb_api_statreader_graph_handle(
        reply(Wire().u32(0).u16(1).u16(2).u16(3).u32(usage), &big).get(), nullptr));
    EXPECT_EQ(gb != nullptr, usage == TQDB_STAT_USAGE_MAX);
    EXPECT_EQ(big.calls, usage == TQDB_STAT_USAGE_MAX ? 0 : 1);
  }
}

TEST(StatreaderFlags, ExpandableBit) {
  const struct {
    Bytes body;
    uint32_t code;
    int want;
  } rows[] = {{Wire().u16(2), 0x21000, 1}, {Wire().u16(0xFFFD), 0x21000, 0}, {Wire().u16(3), 0x21000, 1},
              {Wire().u8(0xFF), 0x21000, 0}, {Wire().u16(2), 0x20003, 0}};
  for (const auto &r : rows) EXPECT_EQ(tqdb_api_statreader_get_flags_handle(reply(r.body, nullptr, r.code).get()), r.want);
}

TEST(StatisticsFields, CountsNamesAndEmpty) {
  Own<tqdb_api_statistics_fields_t> e(tqdb_api_statistics_list_fields_handle(reply(Wire().u8(0).u8(0)).get()));
  ASSERT_TRUE(e);
  EXPECT_EQ(e->nodes, nullptr);
  const std::string name(300, 'f');
  Wire w = Wire().u8(1).u8(1).u64(0x100000000).u8(2).u8(3).str(name).u64(4).u8(5).u8(6).str("bytes");
  Own<tqdb_api_statistics_fields_t> f(tqdb_api_statistics_list_fields_handle(reply(w).get()));
  auto n = recs<tqdb_api_statistics_fieldnode_t>(f->nodes);
  ASSERT_EQ(n.size(), 2u);
  EXPECT_EQ(n[0]->field_id, 0x100000000u);
  EXPECT_EQ(n[0]->subkind, 3);
  EXPECT_EQ(std::string(n[0]->name), name.substr(0, 255));
  EXPECT_EQ((std::vector<uint64_t>{n[1]->field_id, n[1]->kind, n[1]->subkind}), (std::vector<uint64_t>{4, 5, 6}));
  EXPECT_STREQ(n[1]->name, "bytes");
}

// Every decoder shape on every prefix of a full reply: no crash, no leak,
// at most one report per reply, the list decoder under its own name.
TEST(StatreaderDecoders, CutAtEveryPosition) {
  Wire lst = list_head(1, 3, {{1, 2}});
  node(node(lst, "first", {1, 2}, 1, true), "second", {3}, 0, true);
  Wire gr = graph_head(2);
  point(point(gr, TQDB_STAT_POINT_OPT2, 1, {1}, {1.0}), 0, 2, {}, {2.0});
  Wire nodes;
  node(node(nodes, "a", {1}), "b", {2, 3}, 1);
  const Wire fields = Wire().u8(1).u8(1).u64(1).u8(2).u8(3).str("x").u64(4).u8(5).u8(6).str("y");
  const Wire dates = Wire().str("2024-01-01").str("2024-01-02");
  const Wire vtypes = Wire().u16(2).u16(513).str("NetObject").str("NO").u32(1).u16(514).str("Host").str("H").u32(0);
  const struct {
    const Wire &full;
    std::function<void(tqdb_api_msg_t *)> decode;
  } shapes[] = {
      {lst, [](tqdb_api_msg_t *e) { tqdb_api_statreader_list_free(tqdb_api_statreader_list_handle(e, nullptr)); }},
      {gr, [](tqdb_api_msg_t *e) { tqdb_api_statreader_graph_free(tqdb_api_statreader_graph_handle(e, nullptr)); }},
      {nodes, [](tqdb_api_msg_t *e) { tq_list_free_with_data(tqdb_api_statreader_names_list_handle(e, nullptr)); }},
      {fields, [](tqdb_api_msg_t *e) { tqdb_api_statistics_fields_free(tqdb_api_statistics_list_fields_handle(e)); }},
      {dates, [](tqdb_api_msg_t *e) { tq_list_free_with_data(tqdb_api_statreader_date_list_handle(e, nullptr)); }},
      {vtypes, [](tqdb_api_msg_t *e) { tq_list_free_with_data(tqdb_api_statistics_list_valuetypes_handle(e, nullptr)); }},
  };
  const uint32_t before = live();
  for (size_t s = 0; s < std::size(shapes); ++s) {
    const Bytes &full = shapes[s].full;
    for (size_t cut = 0; cut <= full.size(); ++cut) {
      SCOPED_TRACE(testing::Message() << "shape " << s << " cut " << cut);
      CorruptLog log;
      shapes[s].decode(reply(std::span(full).first(cut), &log).get());
      EXPECT_LE(log.calls, 1);
      if (cut == full.size()) { EXPECT_EQ(log.calls, 0); }
      if (s == 0 && cut == 5) { EXPECT_EQ(log.function, "tqdb_api_statreader_list_handle_2"); }
      EXPECT_EQ(live(), before);
    }
  }
}
