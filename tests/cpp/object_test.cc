// Objects and their items, statistics and IPFIX objects: request bytes, the
// item layouts, the tagged object stream and the flat record lists.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <functional>
#include <stdexcept>
#include <tuple>
#include <string>
#include <variant>
#include <vector>

#include "support/wire.h"
#include "tq_list.h"
#include "tq_malloc.h"
#include "tq_msg.h"
#include "tqdb_api_ruleset.h"

using namespace tqtest;

namespace {

struct ObjListDeleter {
  void operator()(tq_list_t *l) const { tqdb_api_object_list_free(l); }
};
using ObjList = std::unique_ptr<tq_list_t, ObjListDeleter>;
const Bytes kOk = Wire().u32(7).u32(1);  // a reply of another type than DATA

template <class T>
std::vector<T *> all(const tq_list_t *l) {
  std::vector<T *> out;
  for (; l != nullptr; l = l->next) out.push_back(static_cast<T *>(l->data));
  return out;
}

uint32_t live(const char *label) {
  tq_malloc_stat_t st{};
  return tq_malloc_stat(label, &st) ? st.entries : 0;
}

// A DATA reply's session and cid words; objects and items as the appliance sends them.
Wire reply() { return Wire().u32(7).u32(1); }
Wire &object(Wire &w, uint32_t id, std::string_view name, std::vector<std::string> attrs = {}) {
  w.u8(0).u32(id).str(name).u32(id + 100).u32(3).str("alice").str("2024-01-02 03:04:05");
  w.str("bob").str("2024-02-03 04:05:06").u8(1).u32(0).u32(static_cast<uint32_t>(attrs.size()));
  for (const std::string &a : attrs) w.str(a).str(a + "-v");
  return w;
}
Wire &item(Wire &w, uint8_t type, uint32_t id, std::span<const uint8_t> fields) {
  return w.u8(1).u8(type).u32(id).raw(fields).str("carol").str("d1").str("dave").str("d2");
}
EnvPtr answer(std::span<const uint8_t> body, CorruptLog *log = nullptr) {
  return make_env(0x21000, body, log != nullptr ? CorruptLog::cb : nullptr, log);
}

// One type-specific field of an item record, read through its layout row.
using Value = std::variant<uint32_t, std::string>;
Value value_of(const void *rec, const tqdb_api_item_field_t &f) {
  const auto *p = static_cast<const unsigned char *>(rec) + f.offset;
  if (f.wire == tqdb_api_wire::Text) return std::string(reinterpret_cast<const char *>(p));
  uint32_t v = 0;
  std::memcpy(&v, p, f.size);  // little-endian: a u8 or u16 is the low bytes
  return v;
}
std::string attr_text(const tq_list_t *l) {
  std::string s;
  for (auto *a : all<tqdb_api_ruleset_attr_t>(l)) s += std::string(a->key) + a->value;
  return s;
}
const tqdb_api_item_field_t &row(uint32_t type, std::string_view key) {
  for (const auto &f : tqdb_api_object_item_layout(type)->fields)
    if (key == f.key) return f;
  throw std::out_of_range(std::string(key));
}

}  // namespace

#define REQ(call, code, ...) {[&](tqdb_api_handle_t *h) { return call; }, code, Wire() __VA_ARGS__}
TEST(ObjectRequests, BodiesAreByteExact) {
  tqdb_api_netobject_item_t net{{}, 2, "10.0.0.0", "", 1};
  tqdb_api_rewriteobject_item_t rw{{}, 2, 0x01020304, "x"};  // direction first in the record
  tqdb_api_portobject_item_t port{{}, 2, 1024, 0xFFFF, 0};
  const tqdb_api_statisticsobject_t st{9, "cnt", 3, 0x55, 0xF0F0, 60, {}};
  const tqdb_api_ipfixobject_t ip{9, "ipfix", "192.0.2.1", 4739, 17, 60, {}};
  const char *const names[] = {"a", "bc"};
  const struct { std::function<uint32_t(tqdb_api_handle_t *)> call; uint32_t code; Bytes body; } rows[] = {
      REQ(tqdb_api_object_list(h, 7, 3), 0x11001, .u8(3).u32(0).u8(1)),
      REQ(tqdb_api_object_get(h, 7, 3, 9), 0x11001, .u8(3).u32(9).u8(0)),
      REQ(tqdb_api_object_list_by_name(h, 7, 3, names), 0x11001, .u8(3).u32(0).u8(1).u32(2).str("a").str("bc")),
      REQ(tqdb_api_object_add(h, 7, 0, "web", 5), 0x11002, .u8(0).str("web").u32(5)),
      REQ(tqdb_api_object_remove(h, 7, 0, 9), 0x11003, .u8(0).u32(9)),
      REQ(tqdb_api_object_rename(h, 7, 0, 9, "n"), 0x11004, .u8(0).u32(9).str("n")),
      REQ(tqdb_api_object_set_visible(h, 7, 0, 9, 0), 0x11005, .u8(0).u32(9).u8(0)),
      REQ(tqdb_api_object_move(h, 7, 0, 9, 4), 0x11006, .u8(0).u32(9).u32(4)),
      REQ(tqdb_api_object_copy(h, 7, 0, 9, 4), 0x11007, .u8(0).u32(9).u32(4)),
      REQ(tqdb_api_object_unlink(h, 7, 0, 9), 0x11008, .u8(0).u32(9)),
      REQ(tqdb_api_object_comments_get(h, 7, 0, 9), 0x11009, .u8(0).u32(9)),
      REQ(tqdb_api_object_comments_set(h, 7, 0, 9, "hi"), 0x1100A, .u8(0).u32(9).str("hi").u32(0)),
      REQ(tqdb_api_object_attr_list(h, 7, 0, 9), 0x1100C, .u8(0).u32(9)),
      REQ(tqdb_api_object_attr_set(h, 7, 0, 9, "k", "v"), 0x1100D, .u8(0).u32(9).str("k").str("v")),
      REQ(tqdb_api_object_attr_remove(h, 7, 0, 9, "k"), 0x1100E, .u8(0).u32(9).str("k")),
      REQ(tqdb_api_object_item_add(h, 7, 0, 12, &net.hdr), 0x11010, .u8(0).u32(12).u8(2).str("10.0.0.0").str("").u8(1)),
      REQ(tqdb_api_object_item_add(h, 7, 9, 12, &rw.hdr), 0x11010, .u8(9).u32(12).u32(0x01020304).u8(2).str("x")),
      REQ(tqdb_api_object_item_update(h, 7, 1, 33, &port.hdr), 0x11011, .u8(1).u32(33).u8(2).u16(1024).u16(0xFFFF).u8(0)),
      REQ(tqdb_api_object_item_remove(h, 7, 0, 9), 0x11012, .u8(0).u32(9)),
      REQ(tqdb_api_object_11013(h, 7, 2, 5, 6), 0x11013, .u8(2).u32(5).u32(6)),
      REQ(tqdb_api_object_11014(h, 7, 2, 5, 6), 0x11014, .u8(2).u32(5).u32(6)),
      REQ(tqdb_api_rule_attr_list(h, 7, 2, 5), 0x11201, .u8(2).u32(5)),
      REQ(tqdb_api_rule_attr_set(h, 7, 2, 5, "k", "v"), 0x11202, .u8(2).u32(5).str("k").str("v")),
      REQ(tqdb_api_rule_attr_remove(h, 7, 0, 5, "k"), 0x11203, .u8(0).u32(5).str("k")),
      REQ(tqdb_api_statisticsobject_list(h, 7), 0x1B001),
      REQ(tqdb_api_statisticsobject_add(h, 7, &st), 0x1B002, .str("cnt").u8(3).u32(0x55).u32(0xF0F0).u32(60)),
      REQ(tqdb_api_statisticsobject_modify(h, 7, &st), 0x1B005, .u32(9).str("cnt").u8(3).u32(0x55).u32(0xF0F0).u32(60)),
      REQ(tqdb_api_statisticsobject_remove(h, 7, 9), 0x1B003, .u32(9)),
      REQ(tqdb_api_statisticsobject_rename(h, 7, 9, "m"), 0x1B004, .u32(9).str("m")),
      REQ(tqdb_api_ipfixobject_list(h, 7), 0x1B101),
      REQ(tqdb_api_ipfixobject_add(h, 7, &ip), 0x1B102, .str("ipfix").str("192.0.2.1").u16(4739).u8(17).u32(60)),
      REQ(tqdb_api_ipfixobject_remove(h, 7, 9), 0x1B103, .u32(9)),
      REQ(tqdb_api_ipfixobject_rename(h, 7, 9, "m"), 0x1B104, .u32(9).str("m")),
  };
  HandlePtr h(tqdb_api_handle_new());
  uint32_t cid = 0;
  for (const auto &r : rows) {
    ASSERT_EQ(r.call(h.get()), ++cid);
    EXPECT_EQ(drain_wbuf(h.get()), frame(r.code, Wire().u32(7).u32(cid).raw(r.body))) << cid;
  }
  // Nothing to send: no item, an unknown item type, no record.
  EXPECT_EQ(tqdb_api_object_item_add(h.get(), 7, 0, 1, nullptr), 0u);
  EXPECT_EQ(tqdb_api_object_item_update(h.get(), 7, 19, 1, &net.hdr), 0u);
  EXPECT_EQ(tqdb_api_statisticsobject_add(h.get(), 7, nullptr), 0u);
  EXPECT_TRUE(drain_wbuf(h.get()).empty());
}

// The writer and the list decoder against each other, field by field, for
// every layout: each field distinct, texts at their full length.
TEST(ObjectItems, EveryLayoutRoundTrips) {
  for (uint32_t t = 0; t < TQDB_OBJECT_TYPE_COUNT; ++t) {
    SCOPED_TRACE(t);
    const tqdb_api_item_layout_t *lay = tqdb_api_object_item_layout(t);
    tqdb_api_object_item_t *in = tqdb_api_object_item_new(t, "object_test item");
    uint8_t k = 0;
    for (const auto &f : lay->fields) {
      auto *p = reinterpret_cast<unsigned char *>(in) + f.offset;
      const uint32_t v = (f.size == 2 ? 0xA000u : f.wire == tqdb_api_wire::U32 ? 0xC0000000u : 0x20u) + ++k;
      f.wire == tqdb_api_wire::Text ? (void)std::memset(p, 'a' + k, f.size - 1u) : (void)std::memcpy(p, &v, f.size);
    }
    tq_msg_t *m = tq_msg_new(0);
    tqdb_api_object_item_write(m, t, in);
    Wire w = reply();
    item(object(w, 1, "o"), static_cast<uint8_t>(t), 77, std::span(m->data, m->len));
    tq_msg_free(m);
    const uint32_t before = live(lay->label);
    ObjList l(tqdb_api_object_list_handle(answer(w).get(), nullptr));
    EXPECT_EQ(live(lay->label), before + 1);
    const auto items = all<tqdb_api_object_item_t>(all<tqdb_api_object_t>(l.get()).at(0)->items);
    ASSERT_EQ(items.size(), 1u);
    EXPECT_EQ(std::tuple(items[0]->type, items[0]->id, std::string(items[0]->audit.modification_date)),
              std::tuple(t, 77u, std::string("d2")));
    for (const auto &f : lay->fields) EXPECT_EQ(value_of(items[0], f), value_of(in, f)) << f.key;
    tq_free_flags(in);
  }
  EXPECT_EQ(tqdb_api_object_item_layout(TQDB_OBJECT_TYPE_COUNT), nullptr);
  EXPECT_EQ(tqdb_api_object_item_new(TQDB_OBJECT_TYPE_COUNT, nullptr), nullptr);
}

// Fields written out by hand from the protocol tables.
TEST(ObjectItems, HandWrittenWireBytes) {
  const struct { uint8_t type; Bytes fields; std::vector<std::pair<const char *, Value>> want; } rows[] = {
      {9, Wire().u32(0x01020304).u8(2).str("dst"), {{"field", 0x01020304u}, {"direction", 2u}, {"value", "dst"}}},
      {12, Wire().u8(2).u8(10).u8(46).u8(1), {{"type", 2u}, {"value1", 10u}, {"value2", 46u}, {"exclude", 1u}}},
      {1, Wire().u8(2).u16(1024).u16(65535).u8(0), {{"type", 2u}, {"value1", 1024u}, {"value2", 65535u}}},
      {0, Wire().u8(3).str(std::string(200, 'a')).str("").u8(1),
       {{"type", 3u}, {"value1", std::string(127, 'a')}, {"value2", ""}, {"exclude", 1u}}},
  };
  for (const auto &r : rows) {
    SCOPED_TRACE(int{r.type});
    Wire w = reply();
    CorruptLog log;
    ObjList l(tqdb_api_object_list_handle(answer(item(object(w, 1, "o"), r.type, 5, r.fields), &log).get(), nullptr));
    const auto *it = static_cast<tqdb_api_object_item_t *>(all<tqdb_api_object_t>(l.get()).at(0)->items->data);
    for (const auto &[key, v] : r.want) EXPECT_EQ(value_of(it, row(r.type, key)), v) << key;
    EXPECT_STREQ(it->audit.creator, "carol");  // still aligned behind the fields
    EXPECT_EQ(log.calls, 0);
  }
}

TEST(ObjectList, AttributesNamesAndContinuation) {
  Wire w = reply();
  item(object(w, 1, std::string(300, 'n'), {"a", "b", "c"}), 0, 10, Wire().u8(1).str("x").str("").u8(0));
  object(w, 2, "two").u8(9);  // an unknown tag is passed over
  ObjList l(tqdb_api_object_list_handle(answer(w).get(), nullptr));
  auto objs = all<tqdb_api_object_t>(l.get());
  ASSERT_EQ(objs.size(), 2u);
  const tqdb_api_object_t &o = *objs[0];
  EXPECT_EQ(std::tuple(std::string(o.name), o.parent, o.referenced, o.visible, std::string(o.audit.modification_date)),
            std::tuple(std::string(255, 'n'), 101u, 3u, uint8_t{1}, std::string("2024-02-03 04:05:06")));
  EXPECT_EQ(attr_text(o.attributes), "cc-vbb-vaa-v");

  // The next reply starts with items of object 2, then a third object.
  Wire next = reply();
  item(item(next, 0, 11, Wire().u8(1).str("y").str("").u8(0)), 0, 12, Wire().u8(1).str("z").str("").u8(0));
  object(next, 3, "three");
  EXPECT_EQ(tqdb_api_object_list_handle(answer(next).get(), l.get()), l.get());
  objs = all<tqdb_api_object_t>(l.get());
  ASSERT_EQ(objs.size(), 3u);
  std::vector<uint32_t> ids;
  for (auto *it : all<tqdb_api_object_item_t>(objs[1]->items)) ids.push_back(it->id);
  EXPECT_EQ(ids, (std::vector<uint32_t>{11, 12}));
  EXPECT_EQ(std::tuple(tq_list_length(objs[0]->items), objs[2]->id), std::tuple(1u, 3u));

  // Items with no object to join: nothing; another type: the list as it was.
  EXPECT_EQ(tqdb_api_object_list_handle(answer(next).get(), nullptr), nullptr);
  EXPECT_EQ(tqdb_api_object_list_handle(make_env(0x20003, kOk).get(), l.get()), l.get());
  EXPECT_EQ(tqdb_api_object_list_handle(make_env(0x20003, kOk).get(), nullptr), nullptr);
}

// Cut inside a record: the records begun are kept, reported once; cut
// between records: reported never.
TEST(ObjectList, CutAtEveryPosition) {
  Wire w = reply();
  std::vector<size_t> ends{w.size()}, objects_at, items_at;
  for (uint32_t id : {1u, 2u}) {
    objects_at.push_back(w.size());
    ends.push_back(object(w, id, "obj", {"k"}).size());
    items_at.push_back(w.size());
    ends.push_back(item(w, 8, id * 10, Wire().str("p").str("v")).size());
  }
  const auto begun = [](const std::vector<size_t> &at, size_t cut) {
    return static_cast<size_t>(std::count_if(at.begin(), at.end(), [cut](size_t p) { return p < cut; }));
  };
  for (size_t cut = 8; cut <= w.size(); ++cut) {
    SCOPED_TRACE(cut);
    CorruptLog log;
    ObjList l(tqdb_api_object_list_handle(answer(std::span(w.bytes()).first(cut), &log).get(), nullptr));
    const auto objs = all<tqdb_api_object_t>(l.get());
    ASSERT_EQ(objs.size(), begun(objects_at, cut));
    size_t items = 0;
    for (auto *o : objs) items += tq_list_length(o->items);
    EXPECT_EQ(items, begun(items_at, cut));
    EXPECT_EQ(log.calls, std::count(ends.begin(), ends.end(), cut) ? 0 : 1);
    EXPECT_TRUE(cut < 8 + 5 || objs[0]->id == 1u);  // once tag and id are whole
    // Past the first short field everything reads as zero, never as the
    // leftover bytes of a text cut short.
    for (auto *o : objs)
      EXPECT_TRUE(o->visible <= 1 && (o->parent == 0 || o->parent == o->id + 100) &&
                  (o->referenced == 0 || o->referenced == 3)) << o->id;
  }
}

TEST(RulesetAnswers, AttributesAddCopy) {
  CorruptLog log;
  const Bytes pairs = reply().str("a").str("1").str("b").str("2").str("c");  // the last pair is cut
  tq_list_t *l = _tqdb_api_ruleset_attr_list_handle(answer(pairs, &log).get(), nullptr);
  EXPECT_EQ(attr_text(l), "b2a1");
  EXPECT_EQ(log.calls, 1);
  EXPECT_EQ(_tqdb_api_ruleset_attr_list_handle(make_env(0x20003, kOk).get(), l), l);
  tq_list_free_with_data(l);

  uint32_t id = 1;
  char ts[TQDB_API_TIMESTAMP_SIZE] = "x";
  EXPECT_TRUE(tqdb_api_ruleset_add_handle(answer(reply().u32(42).str(std::string(23, 't'))).get(), &id, ts));
  EXPECT_EQ(std::pair(id, std::string(ts)), std::pair(42u, std::string(22, 't')));
  EXPECT_FALSE(tqdb_api_ruleset_add_handle(answer(reply().u32(43)).get(), &id, ts));
  EXPECT_EQ(std::pair(id, std::string(ts)), std::pair(43u, std::string()));
  EXPECT_FALSE(tqdb_api_ruleset_add_handle(make_env(0x20003, kOk).get(), &id, ts));
  EXPECT_EQ(id, 0u);

  tqdb_api_object_copy_res_t res{};
  const Bytes copy = reply().u32(0).str("copied").u8(1).u32(5).u32(50).u32(0).u8(3).u32(6).u32(60).u32(50).u8(3).u32(7);
  EXPECT_FALSE(tqdb_api_object_copy_handle(answer(copy).get(), &res));  // the third entry is cut
  EXPECT_EQ(std::tuple(std::string(res.message), res.flag, tq_list_length(res.entries)),
            std::tuple(std::string("copied"), uint8_t{1}, 2u));
  const auto *e = static_cast<tqdb_api_object_copy_t *>(res.entries->next->data);
  EXPECT_EQ(std::tuple(e->source, e->id, e->parent, e->type), std::tuple(6u, 60u, 50u, uint8_t{3}));
  tq_list_free_with_data(res.entries);
}

// Flat records in wire order; one cut short is released and ends the reply.
TEST(FlatLists, StatisticsAndIpfixObjects) {
  const auto audit = [](Wire &w) -> Wire & { return w.str("alice").str("d1").str("bob").str("d2"); };
  Wire stats = reply();
  const size_t second = audit(stats.u32(1).str("s1").u8(3).u32(0x55).u32(0xF0F0).u32(60)).size();
  audit(stats.u32(2).str("s2").u8(1).u32(0).u32(1).u32(300));
  for (size_t cut = second; cut <= stats.size(); ++cut) {
    SCOPED_TRACE(cut);
    CorruptLog log;
    const uint32_t was = live("tqdb_api_statisticsobject_t");
    EnvPtr env = answer(std::span(stats.bytes()).first(cut), &log);
    tq_list_t *l = tqdb_api_statisticsobject_list_handle(env.get(), nullptr);
    const auto recs = all<tqdb_api_statisticsobject_t>(l);
    ASSERT_EQ(recs.size(), cut == stats.size() ? 2u : 1u);
    EXPECT_EQ(live("tqdb_api_statisticsobject_t"), was + recs.size());
    EXPECT_EQ(log.calls, cut >= second + 4 && cut < stats.size() ? 1 : 0);  // < 4 bytes: no record
    const tqdb_api_statisticsobject_t &r = *recs[0];
    EXPECT_EQ(std::tuple(r.split, r.split_argument, r.fields, r.interval, std::string(r.audit.modification_date)),
              std::tuple(3u, 0x55u, 0xF0F0u, 60u, std::string("d2")));
    tqdb_api_statisticsobject_list_free(l);
  }

  Wire ipfix = reply();
  audit(ipfix.u32(4).str("ip").str("192.0.2.1").u16(4739).u8(17).u32(60));
  tq_list_t *l = tqdb_api_ipfixobject_list_handle(answer(ipfix).get(), nullptr);
  EXPECT_EQ(tqdb_api_ipfixobject_list_handle(answer(ipfix).get(), l), l);  // appended behind
  ASSERT_EQ(tq_list_length(l), 2u);
  const auto &r = *static_cast<tqdb_api_ipfixobject_t *>(l->next->data);
  EXPECT_EQ(std::tuple(std::string(r.collector), r.port, r.protocol, r.interval, std::string(r.audit.creator)),
            std::tuple(std::string("192.0.2.1"), uint16_t{4739}, uint8_t{17}, 60u, std::string("alice")));
  EXPECT_EQ(tqdb_api_ipfixobject_list_handle(make_env(0x20003, kOk).get(), l), l);
  EXPECT_EQ(tqdb_api_statisticsobject_list_handle(make_env(0x20003, kOk).get(), nullptr), nullptr);
  tqdb_api_ipfixobject_list_free(l);
}
