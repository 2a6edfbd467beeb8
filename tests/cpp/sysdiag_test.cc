// System diagnostics: request bytes, the string-fit rule of the level
// update, the level list cut at every byte, and the record decoders.
#include <gtest/gtest.h>

#include <functional>
#include <string>

#include "support/wire.h"
#include "tq_list.h"
#include "tq_msg.h"
#include "tqdb_api_sysdiag.h"

using namespace tqtest;

namespace {

struct ListFree {
  void operator()(tq_list_t *l) const { tq_list_free_with_data(l); }
};
using List = std::unique_ptr<tq_list_t, ListFree>;

template <class T>
std::vector<T *> all(const tq_list_t *l) {
  std::vector<T *> out;
  for (; l != nullptr; l = l->next) out.push_back(static_cast<T *>(l->data));
  return out;
}
Wire reply() { return Wire().u32(7).u32(1); }
Wire &level(Wire &w, uint32_t a) {
  return w.u32(a).u32(a + 1).u64(1).u64(2).u64(3).u64(0x1122334455667788).str("c").str("t").str("n");
}

}  // namespace

#define REQ(call, code, ...) {[&](tqdb_api_handle_t *h) { return call; }, code, Wire() __VA_ARGS__}
TEST(SysdiagRequests, BodiesAreByteExact) {
  tqdb_api_sysdiag_zone_valuedef_t vals[] = {{1, "load", 4, 0}, {0, "st", 8, 4}};
  const tqdb_api_sysdiag_zone_t zone{0, "cpu", 3, 1, 2, vals};
  const uint64_t nums[] = {5, 0x0102030405060708};
  const struct { std::function<uint32_t(tqdb_api_handle_t *)> call; uint32_t code; Bytes body; } rows[] = {
      REQ(tqdb_api_sysdiag_level_list(h, 7), 0x19E01),
      REQ(tqdb_api_sysdiag_level_update(h, 7, 1, 2, 3, 4, 5, 6, "c", "t"), 0x19E02,
          .u32(1).u32(2).u64(3).u64(4).u64(5).u64(6).str("c").str("t")),
      REQ(tqdb_api_sysdiag_level_get(h, 7, 1, 2), 0x19E10, .u32(1).u32(2)),
      REQ(tqdb_api_sysdiag_malloc_usage_list(h, 7), 0x19E11),
      REQ(tqdb_api_sysdiag_malloc_usage_get(h, 7, "s", "z"), 0x19E12, .str("s").str("z")),
      REQ(tqdb_api_sysdiag_zone_register(h, 7, &zone), 0x19E20,
          .u32(0).str("cpu").u32(3).u32(1).u32(2).u32(1).str("load").u32(4).u32(0).u32(0).str("st").u32(8).u32(4)),
      REQ(tqdb_api_sysdiag_zone_update_values(h, 7, 9, 1000, nums), 0x19E21,
          .u32(9).u32(1000).u32(2).u64(5).u64(0x0102030405060708)),
      REQ(tqdb_api_sysdiag_zone_unregister(h, 7, 9), 0x19E22, .u32(9)),
      REQ(tqdb_api_sysdiag_zone_list(h, 7), 0x19E23),
      REQ(tqdb_api_sysdiag_zone_get(h, 7, "cpu"), 0x19E24, .str("cpu")),
      REQ(tqdb_api_sysdiag_zone_value_get(h, 7, "cpu", "load"), 0x19E25, .str("cpu").str("load")),
      REQ(tqdb_api_sysdiag_zone_version(h, 7), 0x19E26),
      REQ(tqdb_api_sysdiag_zone_system_name_get(h, 7, 4), 0x19E27, .u32(4)),
      REQ(tqdb_api_sysdiag_zone_system_name_set(h, 7, 4, "e"), 0x19E28, .u32(4).str("e")),
      REQ(tqdb_api_sysdiag_zone_alerted_zones(h, 7), 0x19E29),
      REQ(tqdb_api_sysdiag_log_post(h, 7, 2, "t", "b"), 0x19E30, .u32(2).str("t").str("b")),
      REQ(tqdb_api_sysdiag_log_list(h, 7, 1, 5), 0x19E31, .u8(1).u32(5)),
      REQ(tqdb_api_sysdiag_log_ack(h, 7, 5), 0x19E32, .u32(5)),
      REQ(tqdb_api_sysdiag_log_ack_all(h, 7), 0x19E33),
      REQ(tqdb_api_sysdiag_zone_get_enum_values(h, 7, 9), 0x19E35, .u32(9)),
  };
  HandlePtr h(tqdb_api_handle_new());
  uint32_t cid = 0;
  for (const auto &r : rows) {
    ASSERT_EQ(r.call(h.get()), ++cid);
    EXPECT_EQ(drain_wbuf(h.get()), frame(r.code, Wire().u32(7).u32(cid).raw(r.body))) << cid;
  }
  EXPECT_EQ(tqdb_api_sysdiag_zone_register(h.get(), 7, nullptr), 0u);
  EXPECT_TRUE(drain_wbuf(h.get()).empty());
}

// A string goes out only when its count and bytes fit the message: the
// header and fixed fields take 48 bytes, so a text of n bytes fits while
// 48 + 4 + n + 1 <= 32768.
TEST(SysdiagRequests, LevelUpdateLeavesOutAStringThatDoesNotFit) {
  const size_t room = TQ_MSG_MAX_DATA - 48 - 4 - 1;
  const struct { size_t comment; bool kept; } rows[] = {{room, true}, {room + 1, false}};
  HandlePtr h(tqdb_api_handle_new());
  for (const auto &r : rows) {
    const std::string c(r.comment, 'x');
    ASSERT_NE(tqdb_api_sysdiag_level_update(h.get(), 7, 1, 2, 0, 0, 0, 0, c.c_str(), "t"), 0u);
    Wire body = Wire().u32(7).u32(0).u32(1).u32(2).u64(0).u64(0).u64(0).u64(0);
    if (r.kept) body.str(c); else body.str("t");  // the trigger fits where the comment did not
    const Bytes got = drain_wbuf(h.get());
    EXPECT_EQ(Bytes(got.begin() + 14, got.end()), Bytes(body.bytes().begin() + 8, body.bytes().end())) << r.comment;
  }
}

// The level list keeps whole records, drops the one cut short, reports
// nothing, and appends behind what it is given.
TEST(SysdiagReplies, LevelListCutAtEveryByte) {
  Wire body = reply();
  level(body, 1);
  const size_t one = body.size() - 8;
  level(body, 2);
  for (size_t cut = 8; cut <= body.size(); ++cut) {
    CorruptLog log;
    EnvPtr env = make_env(0x21000, std::span(body.bytes()).first(cut), CorruptLog::cb, &log);
    List l(tqdb_api_sysdiag_level_list_handle(env.get(), nullptr));
    const size_t whole = (cut - 8) / one;
    ASSERT_EQ(all<tqdb_api_sysdiag_level_t>(l.get()).size(), whole) << cut;
    EXPECT_EQ(log.calls, 0);
  }
  EnvPtr env = make_env(0x21000, body);
  Wire earlier = reply();
  List first(tqdb_api_sysdiag_level_list_handle(make_env(0x21000, level(earlier, 9)).get(), nullptr));
  List l(tqdb_api_sysdiag_level_list_handle(env.get(), first.release()));
  const auto v = all<tqdb_api_sysdiag_level_t>(l.get());
  ASSERT_EQ(v.size(), 3u);
  EXPECT_EQ(v[0]->oid_a, 9u);
  EXPECT_EQ(v[1]->oid_a, 1u);
  EXPECT_EQ(v[2]->oid_b, 3u);
  EXPECT_EQ(v[2]->maximum_rate, 0x1122334455667788u);
  EXPECT_STREQ(v[2]->name, "n");
  // Another type leaves the list as it was.
  EXPECT_EQ(tqdb_api_sysdiag_level_list_handle(make_env(0x20003, reply()).get(), l.get()), l.get());
  EXPECT_EQ(all<tqdb_api_sysdiag_level_t>(l.get()).size(), 3u);
}

// Zones keep their value descriptions in the same block; a zone cut short
// (or claiming more values than the body holds) is dropped and reported.
TEST(SysdiagReplies, ZonesAndFlatRecords) {
  Wire body = reply();
  body.u32(4).str("cpu").u32(1).u32(2).u32(2).u32(1).str("load").u32(4).u32(0).u32(2).str("st").u32(8).u32(4);
  const size_t whole = body.size();
  body.u32(5).str("bad").u32(0).u32(0).u32(1000000);
  CorruptLog log;
  EnvPtr env = make_env(0x21000, body, CorruptLog::cb, &log);
  List l(tqdb_api_sysdiag_zone_list_handle(env.get(), nullptr));
  const auto z = all<tqdb_api_sysdiag_zone_t>(l.get());
  ASSERT_EQ(z.size(), 1u);
  EXPECT_EQ(log.calls, 1);
  EXPECT_EQ(z[0]->n, 2u);
  EXPECT_STREQ(z[0]->values[1].name, "st");
  EXPECT_EQ(z[0]->values[1].flags, 4u);
  for (size_t cut = whole - 1; cut > 8; cut -= 7) {
    EnvPtr e = make_env(0x21000, std::span(body.bytes()).first(cut));
    EXPECT_EQ(tqdb_api_sysdiag_zone_get_handle(e.get(), nullptr), nullptr) << cut;
  }
  Wire logs = reply();
  logs.u32(3).str("sys").u32(0).u64(1700000000).u8(1).u32(2).str("t").str(std::string(5000, 'b'));
  List entries(tqdb_api_sysdiag_log_list_handle(make_env(0x21000, logs).get(), nullptr));
  const auto e = all<tqdb_api_sysdiag_log_entry_t>(entries.get());
  ASSERT_EQ(e.size(), 1u);
  EXPECT_EQ(std::string(e[0]->body).size(), 4095u);
  EXPECT_EQ(e[0]->tstamp, 1700000000u);
}
