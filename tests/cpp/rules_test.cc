// Rules, shaping objects, rule conditions and live views: request bytes,
// list decoding order, state across replies, and replies cut anywhere.
#include <gtest/gtest.h>

#include <array>
#include <cstring>
#include <functional>
#include <string>

#include "support/wire.h"
#include "tq_list.h"
#include "tq_malloc.h"
#include "tqdb_api_ruleset.h"

using namespace tqtest;

namespace {

using H = tqdb_api_handle_t;
constexpr uint32_t S = 9;  // session

template <void (*Free)(tq_list_t *)>
struct ListFree {
  void operator()(tq_list_t *l) const { Free(l); }
};
template <void (*Free)(tq_list_t *)>
using List = std::unique_ptr<tq_list_t, ListFree<Free>>;

template <class T>
std::vector<T *> recs(const tq_list_t *l) {
  std::vector<T *> v;
  for (; l != nullptr; l = l->next) v.push_back(static_cast<T *>(l->data));
  return v;
}
std::vector<uint32_t> ints(const tq_list_t *l) {
  std::vector<uint32_t> v;
  for (void *p : recs<void>(l)) v.push_back(static_cast<uint32_t>(reinterpret_cast<uintptr_t>(p)));
  return v;
}
using Six = std::array<uint32_t, 6>;
std::vector<Six> limits(const tq_list_t *l) {
  std::vector<Six> v;
  for (auto *r : recs<tqdb_api_shapingobject_limit_t>(l)) v.push_back(std::to_array(r->v));
  return v;
}

// Records of the families still allocated.
uint32_t live() {
  uint32_t n = 0;
  for (const char *label : {"tqdb_api_fwrule_t", "tqdb_api_shapingrule_t", "tqdb_api_statisticsrule_t",
                            "tqdb_api_shapingobject_t", "tqdb_api_shapingobject_limit_t",
                            "tqdb_api_rule_condition_t", "tqdb_api_rule_condition_item_t",
                            "tqdb_api_dynamicliveview_t", "tqdb_api_dynamicliveview_distribution_t",
                            "tqdb_api_dynamicliveview_filter_t", "tqdb_api_dynamicliveview_filter_value_t"}) {
    tq_malloc_stat_t st{};
    if (tq_malloc_stat(label, &st)) n += st.entries;
  }
  return n;
}

EnvPtr reply(std::span<const uint8_t> body, CorruptLog *log = nullptr) {
  return make_env(0x21000, Wire().u32(S).u32(1).raw(body), log ? CorruptLog::cb : nullptr, log);
}

Wire &audit(Wire &w) { return w.str("admin").str("2024-01-02 03:04:05").str("ops").str("2024-02-03 04:05:06"); }

Wire &fwrule(Wire &w, uint32_t id, std::string_view name, std::string_view inject = "") {
  w.u32(id).u8(1).str(name).u8(1).u32(2).u8(3).u32(4).u32(5).u32(6).u32(7).u32(8).str("mon").str("div")
      .str(inject).str("trig").u32(11);
  return audit(w);
}
Wire &statsrule(Wire &w, uint32_t id, uint8_t flags, std::vector<uint32_t> st, std::vector<uint32_t> ipfix) {
  audit(w.u32(id).u8(flags).str("s").u32(3)).u8(static_cast<uint8_t>(st.size()));
  for (uint32_t i : st) w.u32(i);
  w.u8(static_cast<uint8_t>(ipfix.size()));
  for (uint32_t i : ipfix) w.u32(i);
  return w;
}
using Limit = std::pair<uint8_t, Six>;
Wire &shapingobject(Wire &w, int32_t id, std::vector<Limit> lims, std::vector<uint32_t> ids) {
  audit(w.u32(static_cast<uint32_t>(id)).str("so").u8(2).u32(24).u32(100).u32(7).u32(0))
      .raw(Bytes{1, 2, 3, 4, 5, 6}).u8(1).u32(5).u32(static_cast<uint32_t>(lims.size()));
  for (auto &[sel, v] : lims) {
    w.u8(sel);
    for (uint32_t x : v) w.u32(x);
  }
  w.u32(static_cast<uint32_t>(ids.size()));
  for (uint32_t i : ids) w.u32(i);
  return w;
}

struct Row {
  std::function<uint32_t(H *)> call;
  uint32_t code;
  Bytes body;
};

// The requests every rule family has, by family.
struct Family {
  tqdb_api_rule_codes_t c;
  uint32_t (*list)(H *, uint32_t);
  uint32_t (*remove)(H *, uint32_t, uint32_t), (*rename)(H *, uint32_t, uint32_t, const char *),
      (*set_active)(H *, uint32_t, uint32_t, uint8_t), (*tstamp)(H *, uint32_t, uint32_t),
      (*copy)(H *, uint32_t, uint32_t), (*cget)(H *, uint32_t, uint32_t), (*cset)(H *, uint32_t, uint32_t, const char *);
};
const Family kFamilies[] = {
    {TQDB_FWRULE_CODES, tqdb_api_fwrule_list, tqdb_api_fwrule_remove, tqdb_api_fwrule_rename,
     tqdb_api_fwrule_set_active, tqdb_api_fwrule_tstamp, tqdb_api_fwrule_copy, tqdb_api_fwrule_comments_get,
     tqdb_api_fwrule_comments_set},
    {TQDB_SHAPINGRULE_CODES, tqdb_api_shapingrule_list, tqdb_api_shapingrule_remove, tqdb_api_shapingrule_rename,
     tqdb_api_shapingrule_set_active, tqdb_api_shapingrule_tstamp, tqdb_api_shapingrule_copy,
     tqdb_api_shapingrule_comments_get, tqdb_api_shapingrule_comments_set},
    {TQDB_STATISTICSRULE_CODES, tqdb_api_statisticsrule_list, tqdb_api_statisticsrule_remove,
     tqdb_api_statisticsrule_rename, tqdb_api_statisticsrule_set_active, tqdb_api_statisticsrule_tstamp,
     tqdb_api_statisticsrule_copy, tqdb_api_statisticsrule_comments_get, tqdb_api_statisticsrule_comments_set},
};

// Lists of records the test owns (nodes only).
using Nodes = List<tq_list_free>;
template <class... T>
Nodes nodes(T *...data) {
  tq_list_t *l = nullptr;
  ((l = tq_list_append(l, data)), ...);
  return Nodes(l);
}

}  // namespace

TEST(RulesetRequests, BodiesAreByteExact) {
  HandlePtr h(tqdb_api_handle_new());
  std::vector<Row> rows;
  for (const Family &f : kFamilies) {
    rows.push_back({[&f](H *h) { return f.list(h, S); }, f.c.list, {}});
    rows.push_back({[&f](H *h) { return f.remove(h, S, 0x01020304); }, f.c.remove, Wire().u32(0x01020304)});
    rows.push_back({[&f](H *h) { return f.rename(h, S, 2, "n"); }, f.c.rename, Wire().u32(2).str("n")});
    rows.push_back({[&f](H *h) { return f.set_active(h, S, 3, 1); }, f.c.set_active, Wire().u32(3).u8(1)});
    rows.push_back({[&f](H *h) { return f.tstamp(h, S, 4); }, f.c.tstamp, Wire().u32(4)});
    rows.push_back({[&f](H *h) { return f.copy(h, S, 5); }, f.c.copy, Wire().u32(5)});
    rows.push_back({[&f](H *h) { return f.cget(h, S, 6); }, f.c.comments, Wire().u32(6)});
    rows.push_back({[&f](H *h) { return f.cset(h, S, 7, "c"); }, f.c.comments, Wire().u32(7).str("c")});
  }
  tqdb_api_fwrule_t fw{};  // only name, action, quick and log given
  std::strcpy(fw.name, "fw");
  fw.action = 2, fw.quick = 1, fw.log_level = 3;
  tqdb_api_fwrule_t fwu{7, "x", 8, 1, 3, 0, 1, 4, 5, 6, "m", "d", 0, 0, "t", "i", {}};
  tqdb_api_shapingrule_t sr{5, "sr", 1, 2, 3, 4, 6, {}, nullptr};
  tqdb_api_shapingobject_limit_t l1{{10, 20, 30, 40, 50, 60}}, l2{{1, 2, 3, 4, 5, 6}};
  Nodes in = nodes(&l1), bidir = nodes(&l2, &l1), split = nodes((void *)5, (void *)6);
  tqdb_api_shapingobject_t so{-2, "so", 7, -1, 2, 24, 3, 9, in.get(), nullptr, bidir.get(), split.get(),
                              {1, 2, 3, 4, 5, 6}, 0, 0, {}};
  const auto so_tail = [](uint8_t group, uint32_t arg) {
    return Wire().str("so").u8(2).u32(24).u32(0xFFFFFFFF).u32(7).raw(Bytes{1, 2, 3, 4, 5, 6}).u8(group).u32(arg)
        .u32(3).u8(1).u32(10).u32(30).u32(20).u32(40).u32(50).u32(60)
        .u8(0).u32(1).u32(3).u32(2).u32(4).u32(5).u32(6).u8(0).u32(10).u32(30).u32(20).u32(40).u32(50).u32(60)
        .u32(2).u32(5).u32(6).bytes();
  };
  const std::array<uint32_t, 2> st{10, 11};
  const std::array<uint32_t, 1> ipfix{20};
  const std::array<tqdb_api_rule_condition_item_t, 2> items{{{5, 10}, {29, 0x01020304}}};
  tqdb_api_dynamicliveview_distribution_t dist{1, "app", "top"};
  tqdb_api_dynamicliveview_filter_value_t v80{1, "80"}, v443{2, "443"};
  Nodes values = nodes(&v80, &v443);
  tqdb_api_dynamicliveview_filter_t filter{3, 1, "port", values.get()};
  Nodes dists = nodes(&dist), filters = nodes(&filter);
  const std::vector<Row> more{
      {[&](H *h) { return tqdb_api_fwrule_add(h, S, &fw); }, 0x13002,
       Wire().str("fw").u32(0).u32(2).u8(1).u8(3).u32(0).u32(0).u32(0).str("").str("").str("").str("")},
      {[&](H *h) { return tqdb_api_fwrule_update(h, S, &fwu); }, 0x13003,
       Wire().u32(7).u32(8).u32(3).u8(0).u8(1).u32(4).u32(5).u32(6).str("m").str("d").str("i").str("t")},
      {[](H *h) { return tqdb_api_fwrule_position_swap(h, S, 1, 2); }, 0x13006, Wire().u32(1).u32(2)},
      {[&](H *h) { return tqdb_api_shapingrule_add(h, S, &sr); }, 0x17002, Wire().str("sr").u32(6).u8(2).u8(3).u8(4)},
      {[&](H *h) { return tqdb_api_shapingrule_update(h, S, &sr); }, 0x17005, Wire().u32(5).u32(6).u8(2).u8(3).u8(4)},
      {[&](H *h) { return tqdb_api_shapingrule_set_objects(h, S, 4, st); }, 0x17007, Wire().u32(4).u32(10).u32(11)},
      {[](H *h) { return tqdb_api_statisticsrule_add(h, S, "st", 3, 1, 0); }, 0x18002, Wire().str("st").u32(3).u8(1).u8(0)},
      {[](H *h) { return tqdb_api_statisticsrule_update(h, S, 8, 3, 0, 1); }, 0x18005, Wire().u32(8).u32(3).u8(0).u8(1)},
      {[&](H *h) { return tqdb_api_statisticsrule_set_objects(h, S, 4, st, ipfix); }, 0x1800B,
       Wire().u32(4).u8(1).u32(10).u8(1).u32(11).u8(2).u32(20)},
      {[](H *h) { return tqdb_api_shapingobject_list(h, S); }, 0x16001, {}},
      {[&](H *h) { return tqdb_api_shapingobject_add(h, S, &so); }, 0x16002, so_tail(0, 0)},
      {[&](H *h) { return tqdb_api_shapingobject_modify(h, S, &so); }, 0x16005, Wire().u32(0xFFFFFFFE).raw(so_tail(3, 9))},
      {[](H *h) { return tqdb_api_shapingobject_remove(h, S, 1); }, 0x16003, Wire().u32(1)},
      {[](H *h) { return tqdb_api_shapingobject_rename(h, S, 1, "r"); }, 0x16004, Wire().u32(1).str("r")},
      {[](H *h) { return tqdb_api_shapingobject_tstamp(h, S, 1); }, 0x16009, Wire().u32(1)},
      {[](H *h) { return tqdb_api_shapingobject_comments_get(h, S, 1); }, 0x1600A, Wire().u32(1)},
      {[](H *h) { return tqdb_api_shapingobject_comments_set(h, S, 1, "c"); }, 0x1600A, Wire().u32(1).str("c")},
      {[](H *h) { return tqdb_api_shapingobject_attr_list(h, S, 1); }, 0x1600B, Wire().u32(1)},
      {[](H *h) { return tqdb_api_shapingobject_attr_set(h, S, 1, "k", "v"); }, 0x1600C, Wire().u32(1).str("k").str("v")},
      {[](H *h) { return tqdb_api_shapingobject_attr_remove(h, S, 1, "k"); }, 0x1600D, Wire().u32(1).str("k")},
      {[](H *h) { return tqdb_api_ruleconditions_list(h, S); }, 0x11101, {}},
      {[](H *h) { return tqdb_api_ruleconditions_add(h, S, "rc", 2); }, 0x11102, Wire().str("rc").u8(2)},
      {[](H *h) { return tqdb_api_ruleconditions_remove(h, S, 1); }, 0x11103, Wire().u32(1)},
      {[](H *h) { return tqdb_api_ruleconditions_rename(h, S, 1, "r"); }, 0x11104, Wire().u32(1).str("r")},
      {[](H *h) { return tqdb_api_ruleconditions_set_items(h, S, 7, {}); }, 0x11105, Wire().u32(7).u16(0)},
      {[&](H *h) { return tqdb_api_ruleconditions_set_items(h, S, 7, items); }, 0x11105,
       Wire().u32(7).u16(2).u8(5).u32(10).u8(29).u32(0x01020304)},
      {[](H *h) { return tqdb_api_dynamicliveview_add(h, S, "v"); }, 0x1AC01, Wire().str("v")},
      {[](H *h) { return tqdb_api_dynamicliveview_remove(h, S, 1); }, 0x1AC02, Wire().u32(1)},
      {[](H *h) { return tqdb_api_dynamicliveview_list(h, S); }, 0x1AC03, {}},
      {[](H *h) { return tqdb_api_dynamicliveview_update(h, S, 5, nullptr, nullptr); }, 0x1AC04, Wire().u32(5).u32(0).u32(0)},
      {[&](H *h) { return tqdb_api_dynamicliveview_update(h, S, 5, filters.get(), dists.get()); }, 0x1AC04,
       Wire().u32(5).u32(1).str("app").str("top").u32(1).u8(1).str("port").u32(2).str("80").str("443")},
      {[](H *h) { return tqdb_api_dynamicliveview_rename(h, S, 1, "r"); }, 0x1AC05, Wire().u32(1).str("r")},
  };
  rows.insert(rows.end(), more.begin(), more.end());
  for (size_t i = 0; i < rows.size(); ++i) {
    SCOPED_TRACE(i);
    const uint32_t cid = rows[i].call(h.get());
    EXPECT_EQ(cid, i + 1);
    EXPECT_EQ(drain_wbuf(h.get()), frame(rows[i].code, Wire().u32(S).u32(cid).raw(rows[i].body)));
  }
}

TEST(RulesetRequests, ConditionItemsGoWholeOrNotAtAll) {
  HandlePtr h(tqdb_api_handle_new());
  const std::vector<tqdb_api_rule_condition_item_t> items(6551, {1, 2});
  EXPECT_EQ(tqdb_api_ruleconditions_set_items(h.get(), S, 7, items), 0u);
  EXPECT_TRUE(drain_wbuf(h.get()).empty());
  ASSERT_NE(tqdb_api_ruleconditions_set_items(h.get(), S, 7, std::span(items).first(6550)), 0u);
  EXPECT_EQ(drain_wbuf(h.get()).size(), 6u + 14u + 6550u * 5u);  // 4 bytes short of full
}

TEST(RuleLists, OrderFieldsAndBrokenRecords) {
  Wire fw;
  fwrule(fwrule(fw, 1, "A", std::string(600, 'i')), 2, "B");
  List<tqdb_api_fwrule_list_free> fws(tqdb_api_fwrule_list_handle(reply(fw).get(), nullptr));
  auto f = recs<tqdb_api_fwrule_t>(fws.get());
  ASSERT_EQ(f.size(), 2u);
  EXPECT_STREQ(f[0]->name, "B");
  EXPECT_EQ(std::string(f[1]->inject_data), std::string(511, 'i'));
  const tqdb_api_fwrule_t &a = *f[1];
  EXPECT_EQ((std::vector<uint32_t>{a.active, a.quick, a.action, a.log_level, a.position, a.orderby, a.rewriteobject,
                                   a.enrichobject, a.monitor_iface, a.rulecondition}),
            (std::vector<uint32_t>{1, 1, 2, 3, 4, 5, 6, 7, 8, 11}));
  EXPECT_STREQ(f[1]->audit.modification_date, "2024-02-03 04:05:06");
  // A record cut short gives the reply up; the list passed in stays as it was.
  Wire more;
  fwrule(more, 3, "C").u32(4).u8(1);
  EXPECT_EQ(tqdb_api_fwrule_list_handle(reply(more).get(), fws.get()), nullptr);
  EXPECT_EQ(fws->prev, nullptr);
  EXPECT_EQ(tq_list_length(fws.get()), 2u);

  Wire st;
  statsrule(statsrule(st, 1, 21, {1, 2}, {3}), 2, 4, {}, {});
  List<tqdb_api_statisticsrule_list_free> sts(tqdb_api_statisticsrule_list_handle(reply(st).get(), nullptr));
  auto s = recs<tqdb_api_statisticsrule_t>(sts.get());
  ASSERT_EQ(s.size(), 2u);
  EXPECT_EQ(s[0]->flags, 4);
  EXPECT_EQ(s[1]->flags, 21);
  EXPECT_EQ(ints(s[1]->statisticsobjects), (std::vector<uint32_t>{2, 1}));
  EXPECT_EQ(ints(s[1]->ipfixobjects), (std::vector<uint32_t>{3}));
  // Ending before a count ends the listing; a count the body cannot hold breaks it.
  const Bytes upto_count = audit(Wire().u32(5).u8(1).str("x").u32(3));
  List<tqdb_api_statisticsrule_list_free> ended(tqdb_api_statisticsrule_list_handle(reply(upto_count).get(), nullptr));
  EXPECT_EQ(tq_list_length(ended.get()), 1u);
  EXPECT_EQ(tqdb_api_statisticsrule_list_handle(reply(Wire().raw(upto_count).u8(1).u8(0)).get(), nullptr), nullptr);

  Wire sr;
  audit(sr.u32(1).u8(1).str("sr").u8(2).u8(3).u8(4).u32(5)).u32(3).u32(7).u32(8).u32(9);
  List<tqdb_api_shapingrule_list_free> srs(tqdb_api_shapingrule_list_handle(reply(sr).get(), nullptr));
  ASSERT_EQ(tq_list_length(srs.get()), 1u);
  EXPECT_EQ(ints(recs<tqdb_api_shapingrule_t>(srs.get())[0]->objects), (std::vector<uint32_t>{7, 8, 9}));
  EXPECT_EQ(tqdb_api_shapingrule_list_handle(reply(std::span(sr.bytes()).first(sr.size() - 1)).get(), nullptr), nullptr);
}

TEST(ShapingObjects, LimitsPerDirection) {
  const Six zero{};
  Wire w;
  shapingobject(w, -3, {{1, {10, 20, 30, 40, 50, 60}}, {0, {1, 2, 3, 4, 5, 6}}, {0, {7, 8, 9, 10, 11, 12}}}, {5, 6});
  shapingobject(w, 4, {}, {});
  List<tqdb_api_shapingobject_list_free> l(tqdb_api_shapingobject_list_handle(reply(w).get(), nullptr));
  auto o = recs<tqdb_api_shapingobject_t>(l.get());
  ASSERT_EQ(o.size(), 2u);
  EXPECT_EQ(o[0]->id, -3);
  EXPECT_EQ(limits(o[0]->inbound), (std::vector<Six>{{10, 30, 20, 40, 50, 60}}));
  EXPECT_EQ(limits(o[0]->outbound), (std::vector{zero}));
  EXPECT_EQ(limits(o[0]->bidir), (std::vector<Six>{{1, 3, 2, 4, 5, 6}, {7, 9, 8, 10, 11, 12}}));
  EXPECT_EQ(ints(o[0]->split_netobjects), (std::vector<uint32_t>{5, 6}));
  EXPECT_EQ((Six{o[0]->split, o[0]->split_argument, static_cast<uint32_t>(o[0]->max_connections), o[0]->flags,
                 o[0]->fairness_group, o[0]->fairness_group_argument}), (Six{2, 24, 100, 7, 1, 5}));
  EXPECT_EQ(o[0]->wfq[5], 6);
  for (auto *d : {o[1]->inbound, o[1]->outbound, o[1]->bidir}) EXPECT_EQ(limits(d), (std::vector{zero}));
  // Selector 3 gives the reply up; fixed fields cut short keep what came before.
  Wire bad;
  EXPECT_EQ(tqdb_api_shapingobject_list_handle(reply(shapingobject(bad, 1, {{3, {}}}, {})).get(), l.get()), nullptr);
  Wire cut;
  shapingobject(cut, 8, {}, {}).u32(9).u32(100);
  List<tqdb_api_shapingobject_list_free> c(tqdb_api_shapingobject_list_handle(reply(cut).get(), nullptr));
  EXPECT_EQ(tq_list_length(c.get()), 1u);
}

TEST(RuleConditions, StateCarriesAcrossReplies) {
  tqdb_api_ruleconditions_state_t state{};
  Wire first, second;
  audit(first.u8(0).u32(1).str("A").u8(1)).u8(1).u8(5).u32(10);
  audit(second.u8(1).u8(0).u32(3).u8(9).u8(0).u32(2).str("B").u8(2));
  ASSERT_TRUE(tqdb_api_ruleconditions_list_handle(reply(first).get(), &state));
  ASSERT_TRUE(tqdb_api_ruleconditions_list_handle(reply(second).get(), &state));
  List<tqdb_api_ruleconditions_list_free> l(state.list);
  auto c = recs<tqdb_api_rule_condition_t>(l.get());
  ASSERT_EQ(c.size(), 2u);
  EXPECT_STREQ(c[0]->name, "B");
  EXPECT_EQ(c[1]->op, 1);
  auto items = recs<tqdb_api_rule_condition_item_t>(c[1]->items);
  ASSERT_EQ(items.size(), 2u);
  EXPECT_EQ((std::pair(items[0]->conditiontype, items[0]->objectid)), (std::pair<uint8_t, uint32_t>(0, 3)));
  EXPECT_EQ((std::pair(items[1]->conditiontype, items[1]->objectid)), (std::pair<uint8_t, uint32_t>(5, 10)));
  tqdb_api_ruleconditions_state_t orphan{};
  EXPECT_FALSE(tqdb_api_ruleconditions_list_handle(reply(Wire().u8(1).u8(0).u32(3)).get(), &orphan));
  EXPECT_EQ(orphan.list, nullptr);
}

TEST(LiveViews, ViewsFromEarlierRepliesTakeTheirParts) {
  Wire views, parts;
  for (uint32_t id : {1, 2, 3}) audit(views.u8(0).u32(id).str(std::string(1, char('A' + id - 1))));
  parts.u8(1).u32(10).u32(1).str("app").str("top").u8(2).u32(20).u32(2).u8(1).str("port")
      .u8(3).u32(30).u32(2).u32(20).str("80").u8(3).u32(31).u32(2).u32(99).str("x").u8(1).u32(11).u32(77).str("d").str("");
  List<tqdb_api_dynamicliveview_list_free> l(tqdb_api_dynamicliveview_list_handle(reply(views).get(), nullptr));
  const uint32_t before = live();
  l.reset(tqdb_api_dynamicliveview_list_handle(reply(parts).get(), l.release()));
  EXPECT_EQ(live(), before + 3);  // the orphans were freed
  auto v = recs<tqdb_api_dynamicliveview_t>(l.get());
  ASSERT_EQ(v.size(), 3u);
  EXPECT_STREQ(v[0]->name, "C");
  EXPECT_STREQ(recs<tqdb_api_dynamicliveview_distribution_t>(v[2]->distributions).at(0)->argument, "top");
  auto f = recs<tqdb_api_dynamicliveview_filter_t>(v[1]->filters);
  ASSERT_EQ(f.size(), 1u);
  EXPECT_EQ(tq_list_length(f[0]->values), 1u);
  EXPECT_STREQ(recs<tqdb_api_dynamicliveview_filter_value_t>(f[0]->values)[0]->value, "80");
}

TEST(LiveViewsDeathTest, TagAboveThreeIsABug) {
  EXPECT_DEATH(tqdb_api_dynamicliveview_list_handle(reply(Wire().u8(4)).get(), nullptr),
               "TQ-BUG at dynamicliveview\\.c:160/tqdb_api_dynamicliveview_list_handle\\(\\): u8 > 3  ");
}

// Every decoder, handed a valid reply cut at every byte: no crash, no
// record left behind, at most one corrupt report.
TEST(RulesetDecoders, CutAnywhere) {
  Wire fw, st, sr, so, rc, lv;
  fwrule(fwrule(fw, 1, "A"), 2, "B");
  statsrule(statsrule(st, 1, 21, {1, 2}, {3}), 2, 4, {4}, {});
  audit(sr.u32(1).u8(1).str("sr").u8(2).u8(3).u8(4).u32(5)).u32(2).u32(7).u32(8);
  shapingobject(shapingobject(so, 1, {{1, {1, 2, 3, 4, 5, 6}}, {2, {}}}, {5}), 2, {}, {6});
  audit(rc.u8(0).u32(1).str("A").u8(1)).u8(1).u8(5).u32(10).u8(1).u8(0).u32(3);
  audit(lv.u8(0).u32(1).str("A")).u8(1).u32(10).u32(1).str("app").str("top").u8(2).u32(20).u32(1).u8(1).str("k")
      .u8(3).u32(30).u32(1).u32(20).str("80");
  const std::vector<std::pair<const Wire *, std::function<void(EnvPtr)>>> decoders{
      {&fw, [](EnvPtr e) { tqdb_api_fwrule_list_free(tqdb_api_fwrule_list_handle(e.get(), nullptr)); }},
      {&st, [](EnvPtr e) { tqdb_api_statisticsrule_list_free(tqdb_api_statisticsrule_list_handle(e.get(), nullptr)); }},
      {&sr, [](EnvPtr e) { tqdb_api_shapingrule_list_free(tqdb_api_shapingrule_list_handle(e.get(), nullptr)); }},
      {&so, [](EnvPtr e) { tqdb_api_shapingobject_list_free(tqdb_api_shapingobject_list_handle(e.get(), nullptr)); }},
      {&rc, [](EnvPtr e) {
         tqdb_api_ruleconditions_state_t s{};
         (void)tqdb_api_ruleconditions_list_handle(e.get(), &s);
         tqdb_api_ruleconditions_list_free(s.list);
       }},
      {&lv, [](EnvPtr e) { tqdb_api_dynamicliveview_list_free(tqdb_api_dynamicliveview_list_handle(e.get(), nullptr)); }},
  };
  const uint32_t before = live();
  for (const auto &[wire, decode] : decoders) {
    for (size_t cut = 0; cut <= wire->size(); ++cut) {
      CorruptLog log;
      decode(reply(std::span(wire->bytes()).first(cut), &log));
      EXPECT_LE(log.calls, 1);
      EXPECT_EQ(live(), before) << cut;
    }
  }
}
