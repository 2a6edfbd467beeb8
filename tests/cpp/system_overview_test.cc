// The system overview: request bytes and their size limits, the decoders on
// replies cut short, and what tqdbsim makes of posted values.
#include <gtest/gtest.h>

#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "support/sim_process.h"
#include "support/wire.h"
#include "tq_list.h"
#include "tq_malloc.h"
#include "tqdb_api_system_overview.h"

using namespace tqtest;

namespace {

using Value = tqdb_api_system_overview_value_t;
using Pair = tqdb_api_system_overview_sysinfo_value_t;
using System = tqdb_api_system_overview_system_t;

Wire reply() { return Wire().u32(7).u32(1); }
EnvPtr data(std::span<const uint8_t> body, CorruptLog *log = nullptr) {
  return make_env(0x21000, body, log ? CorruptLog::cb : nullptr, log);
}
// A system record with nvalues values; count, when given, replaces their
// number on the wire.
Wire &system(Wire &w, uint32_t id, std::string_view name, uint32_t nvalues,
             std::optional<uint32_t> count = {}) {
  w.u32(id).str(name).str("192.0.2.7").u64(200).u64(100).str("17.1").str("r9").str(std::string(40, 'c')).str("PL");
  w.u32(count.value_or(nvalues));
  for (uint32_t i = 0; i < nvalues; ++i) w.u32(i + 1).u64(1000 + i).str("v");
  return w;
}
uint32_t live(const char *label) {
  tq_malloc_stat_t st{};
  return tq_malloc_stat(label, &st) ? st.entries : 0;
}

}  // namespace

#define REQ(call, code, ...) {[&](tqdb_api_handle_t *h) { return call; }, code, Wire() __VA_ARGS__}
TEST(SystemOverviewRequests, BodiesAreByteExact) {
  const Value values[] = {{1, 0x0102030405060708ull, "not sent"}, {9, 5, ""}};
  const Pair pairs[] = {{"serial", "X1"}, {"rack", ""}};
  const struct { std::function<uint32_t(tqdb_api_handle_t *)> call; uint32_t code; Bytes body; } rows[] = {
      REQ(tqdb_api_system_overview_values_post(h, 7, 3, values), 0x1A402,
          .u32(3).u32(2).u32(1).u64(0x0102030405060708ull).u32(9).u64(5)),
      REQ(tqdb_api_system_overview_list(h, 7), 0x1A403),
      REQ(tqdb_api_system_overview_announce(h, 7, 3, "n", "d", "r", "m", "PL"), 0x1A404,
          .u32(3).str("n").str("d").str("r").str("m").str("PL")),
      REQ(tqdb_api_system_overview_template_list(h, 7), 0x1A405),
      REQ(tqdb_api_system_overview_system_graph(h, 7, 3, 4), 0x1A406, .u32(3).u32(4)),
      REQ(tqdb_api_system_overview_system_get(h, 7, 3), 0x1A407, .u32(3)),
      REQ(tqdb_api_system_overview_sysinfo_list_systems(h, 7), 0x1A408),
      REQ(tqdb_api_system_overview_sysinfo_get_system(h, 7, "fw"), 0x1A409, .str("fw")),
      REQ(tqdb_api_system_overview_sysinfo_add_system(h, 7, "fw", pairs), 0x1A40A,
          .str("fw").u32(2).str("serial").str("X1").str("rack").str("")),
      REQ(tqdb_api_system_overview_system_delete(h, 7, 3), 0x1A40B, .u32(3)),
  };
  HandlePtr h(tqdb_api_handle_new());
  uint32_t cid = 0;
  for (const auto &r : rows) {
    ASSERT_EQ(r.call(h.get()), ++cid);
    EXPECT_EQ(drain_wbuf(h.get()), frame(r.code, Wire().u32(7).u32(cid).raw(r.body))) << cid;
  }
}

// A request is sent whole or not at all: the largest that fits, and one
// byte (or value) more.
TEST(SystemOverviewRequests, LargestBodies) {
  HandlePtr h(tqdb_api_handle_new());
  const std::vector<Value> values(2730);
  EXPECT_EQ(tqdb_api_system_overview_values_post(h.get(), 7, 1, std::span(values).first(2730)), 0u);
  EXPECT_NE(tqdb_api_system_overview_values_post(h.get(), 7, 1, std::span(values).first(2729)), 0u);
  EXPECT_EQ(drain_wbuf(h.get()).size(), 6u + 32764);
  // Header 8, "s" 6, count 4, 25 full pairs of 1288 bytes, then "k" and 539 bytes: 32768.
  std::vector<Pair> pairs(26);
  for (Pair &p : pairs) std::string(255, 'k').copy(p.key, 255), std::string(1023, 'v').copy(p.value, 1023);
  for (const auto &[len, sent] : {std::pair{540, false}, {539, true}}) {
    Pair &last = pairs.back();
    last = {};
    last.key[0] = 'k';
    std::string(len, 'v').copy(last.value, len);
    EXPECT_EQ(tqdb_api_system_overview_sysinfo_add_system(h.get(), 7, "s", pairs) != 0, sent) << len;
    EXPECT_EQ(drain_wbuf(h.get()).size(), sent ? 6u + 32768 : 0u);
  }
}

// Two systems; every cut of the second keeps the first whole with its
// values and reports the cut once.
TEST(SystemOverviewList, SystemsCutShort) {
  Wire w = reply();
  const size_t second = system(w, 1, "a", 2).size();
  system(w, 2, std::string(70, 'n'), 3);
  const uint32_t values_were = live("tqdb_api_system_overview_value_t");
  for (size_t cut = second; cut <= w.size(); ++cut) {
    SCOPED_TRACE(cut);
    CorruptLog log;
    tq_list_t *l = tqdb_api_system_overview_list_handle(data(std::span(w.bytes()).first(cut), &log).get(), nullptr);
    ASSERT_EQ(tq_list_length(l), cut == w.size() ? 2u : 1u);
    EXPECT_EQ(log.calls, cut > second && cut < w.size() ? 1 : 0);
    const auto &a = *static_cast<System *>(l->data);
    EXPECT_EQ(std::tuple(a.systemid, std::string(a.host), a.lastupdate, a.firstupdate, std::string(a.configmd5), a.n),
              std::tuple(1u, std::string("192.0.2.7"), 200ull, 100ull, std::string(32, 'c'), 2u));
    EXPECT_EQ(std::tuple(a.values[1].templateid, a.values[1].value, std::string(a.values[1].text)),
              std::tuple(2u, 1001ull, std::string("v")));
    if (l->next) {
      const auto &b = *static_cast<System *>(l->next->data);
      EXPECT_EQ(std::string(b.name), std::string(64, 'n'));
      EXPECT_EQ(b.values[2].value, 1002u);
    }
    tqdb_api_system_overview_list_free(l);
    EXPECT_EQ(live("tqdb_api_system_overview_value_t"), values_were);
  }
  // A count no body could hold allocates nothing of its size.
  Wire forged = reply();
  system(forged, 3, "f", 1, 0xFFFFFFFF);
  CorruptLog log;
  EXPECT_EQ(tqdb_api_system_overview_list_handle(data(forged, &log).get(), nullptr), nullptr);
  EXPECT_EQ(log.calls, 1);
}

// The flat decoders: whole replies, replies one byte short, other types.
TEST(SystemOverviewDecoders, FlatRecordsAndPairs) {
  using Fn = tq_list_t *(*)(tqdb_api_msg_t *, tq_list_t *);
  const Wire tmpl = Wire().u32(4).str("Connections").u32(8).u32(1).u32(2).str("connections").u32(1).str("d").u32(0);
  const struct { Fn fn; Bytes record; } rows[] = {
      {tqdb_api_system_overview_template_list_handle, tmpl},
      {tqdb_api_system_overview_system_graph_handle, Wire().u64(1700000000).u64(42)},
      {tqdb_api_system_overview_sysinfo_list_systems_handle, Wire().str("fw1")},
  };
  for (const auto &r : rows) {
    const Wire two = reply().raw(r.record).raw(r.record);
    for (size_t cut : {two.size(), two.size() - 1}) {
      CorruptLog log;
      tq_list_t *l = r.fn(data(std::span(two.bytes()).first(cut), &log).get(), nullptr);
      EXPECT_EQ(tq_list_length(l), cut == two.size() ? 2u : 1u);
      EXPECT_EQ(log.calls, cut == two.size() ? 0 : 1);
      EXPECT_EQ(r.fn(make_env(0x20003, reply()).get(), l), l);
      tq_list_free_with_data(l);
    }
  }
  // Sysinfo pairs: whole, the second cut, a count larger than the pairs.
  const struct { Bytes body; size_t pairs; int corrupt; } gets[] = {
      {reply().u32(2).str("serial").str("X1").str("rack").str("4"), 2, 0},
      {reply().u32(2).str("serial").str("X1").str("rack"), 1, 1},
      {reply().u32(1000).str("serial").str("X1"), 1, 1},
      {reply().u32(0), 0, 0},
  };
  for (const auto &g : gets) {
    CorruptLog log;
    tq_list_t *l = tqdb_api_system_overview_sysinfo_get_system_handle(data(g.body, &log).get());
    EXPECT_EQ(tq_list_length(l), g.pairs);
    EXPECT_EQ(log.calls, g.corrupt);
    if (l) {
      EXPECT_STREQ(static_cast<Pair *>(l->data)->value, "X1");
    }
    tq_list_free_with_data(l);
  }
  EXPECT_EQ(tqdb_api_system_overview_sysinfo_get_system_handle(make_env(0x20003, reply()).get()), nullptr);
}

// tqdbsim: posted values become the systems' current values and graphs;
// a post with one unknown template changes nothing; another session's
// transaction on the overview keeps posts out.
TEST(SystemOverviewSim, PostedValuesAndGraphs) {
  ASSERT_FALSE(sim_binary().empty()) << "TQDBSIM must name the simulator binary";
  SimProcess sim;
  ASSERT_TRUE(sim.start({}));
  struct Peer : SimSession {
    uint32_t post(std::initializer_list<std::pair<uint32_t, uint64_t>> points) {
      std::vector<Value> v;
      for (const auto &[templateid, value] : points) v.push_back(Value{templateid, value, ""});
      EnvPtr env = take(tqdb_api_system_overview_values_post(c.h(), s, 5, v));
      return env ? env->type : 99;
    }
  } a, b;
  ASSERT_TRUE(a.open(sim.port()));
  ASSERT_TRUE(b.open(sim.port()));
  EXPECT_EQ(a.post({{1, 3}}), TQDB_API_MSG_TYPE_ERROR);  // not announced
  EXPECT_EQ(a.take(tqdb_api_system_overview_announce(a.c.h(), a.s, 5, "e", "", "", "", ""))->type,
            TQDB_API_MSG_TYPE_OK);
  for (uint64_t v = 0; v < 290; ++v) ASSERT_EQ(a.post({{3, v}, {7, v * 1000}}), TQDB_API_MSG_TYPE_OK);
  EXPECT_EQ(a.post({{7, 5}, {77, 1}}), TQDB_API_MSG_TYPE_ERROR);  // unknown template 77: none kept
  EXPECT_EQ(b.take(tqdb_api_resource_begin(b.c.h(), b.s, TQDB_RESOURCE_SYSTEM_OVERVIEW, 0))->type,
            TQDB_API_MSG_TYPE_DATA);
  EXPECT_EQ(a.post({{7, 6}}), TQDB_API_MSG_TYPE_LOCK);
  b.take(tqdb_api_resource_rollback(b.c.h(), b.s));
  EXPECT_EQ(a.post({{3, 90061}}), TQDB_API_MSG_TYPE_OK);

  EnvPtr got = a.take(tqdb_api_system_overview_system_get(a.c.h(), a.s, 5));
  tq_list_t *l = tqdb_api_system_overview_list_handle(got.get(), nullptr);
  ASSERT_EQ(tq_list_length(l), 1u);
  const auto &sys = *static_cast<System *>(l->data);
  ASSERT_EQ(sys.n, 2u);
  EXPECT_EQ(std::tuple(sys.values[0].templateid, sys.values[0].value, std::string(sys.values[0].text)),
            std::tuple(3u, 90061ull, std::string("1d 01:01:01")));
  EXPECT_EQ(std::string(sys.values[1].text), "289000 bit/s");
  tqdb_api_system_overview_list_free(l);

  // The history keeps the newest 288 points of a template, oldest first.
  const uint32_t cid = tqdb_api_system_overview_system_graph(a.c.h(), a.s, 5, 7);
  std::vector<uint64_t> points;
  for (EnvPtr env = a.take(cid); env && env->type == TQDB_API_MSG_TYPE_DATA; env = a.take(cid)) {
    tq_list_t *g = tqdb_api_system_overview_system_graph_handle(env.get(), nullptr);
    for (tq_list_t *n = g; n; n = n->next)
      points.push_back(static_cast<tqdb_api_system_overview_graph_value_t *>(n->data)->value);
    tq_list_free_with_data(g);
  }
  ASSERT_EQ(points.size(), 288u);
  EXPECT_EQ(points.front(), 2000u);
  EXPECT_EQ(points.back(), 289000u);
}
