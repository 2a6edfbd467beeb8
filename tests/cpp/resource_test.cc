// Transactions and resource records: request bytes, commit ids, resource lists.
#include <gtest/gtest.h>

#include <array>
#include <string>

#include "support/wire.h"
#include "tq_commitid.h"
#include "tq_list.h"
#include "tq_malloc.h"
#include "tq_msg.h"
#include "tqdb_api.h"

using namespace tqtest;

namespace {

struct ListDeleter {
  void operator()(tq_list_t *l) const { tq_list_free_with_data(l); }
};
using ListPtr = std::unique_ptr<tq_list_t, ListDeleter>;

std::vector<const tqdb_api_resource_real_t *> records(const tq_list_t *l) {
  std::vector<const tqdb_api_resource_real_t *> out;
  for (; l != nullptr; l = l->next) out.push_back(static_cast<const tqdb_api_resource_real_t *>(l->data));
  return out;
}

uint32_t live_records() {
  tq_malloc_stat_t st{};
  return tq_malloc_stat("tqdb_api_resource_real_t", &st) ? st.entries : 0;
}

Wire &resource_record(Wire &w, uint32_t id, std::string_view name, std::string_view locker) {
  return w.u32(id).str(name).str("10.0.0.1").str("proxy-user").str("proxy-pw").u8(1).u8(0)
      .str(locker).str("select *").u32(250).u64(0x0102030405060708).str("ok");
}

}  // namespace

TEST(ResourceRequests, FramesAreByteExact) {
  HandlePtr h(tqdb_api_handle_new());
  tqdb_api_handle_t *hp = h.get();
  // SYSDIAG and LEVELS are one resource on the wire.
  EXPECT_EQ(tqdb_api_resource_begin(hp, 42, TQDB_RESOURCE_SYSDIAG, 0), 1u);
  EXPECT_EQ(tqdb_api_resource_begin(hp, 42, TQDB_RESOURCE_LEVELS, 1), 2u);
  EXPECT_EQ(tqdb_api_resource_commit(hp, 42, "new rules"), 3u);
  EXPECT_EQ(tqdb_api_resource_rollback(hp, 42), 4u);
  EXPECT_EQ(tqdb_api_resource_list(hp, 42), 5u);
  EXPECT_EQ(tqdb_api_resource_steal(hp, 42, 0x0A0B0C0D), 6u);
  EXPECT_EQ(tqdb_api_resource_19301(hp, 42), 7u);
  EXPECT_EQ(tqdb_api_resource_19303(hp, 42, 0x11223344, 5, 6, "x", nullptr, ""), 8u);
  Wire expect;
  expect.raw(frame(0x10201, Wire().u32(42).u32(1).u32(7).u8(0)))
      .raw(frame(0x10201, Wire().u32(42).u32(2).u32(7).u8(1)))
      .raw(frame(0x10202, Wire().u32(42).u32(3).str("new rules")))
      .raw(frame(0x10203, Wire().u32(42).u32(4)))
      .raw(frame(0x19304, Wire().u32(42).u32(5)))
      .raw(frame(0x19305, Wire().u32(42).u32(6).u32(0x0A0B0C0D)))
      .raw(frame(0x19301, Wire().u32(42).u32(7)))
      .raw(frame(0x19303, Wire().u32(42).u32(8).u32(0x11223344).u8(5).u8(6).str("x").null_str().str("")));
  EXPECT_EQ(drain_wbuf(hp), expect.bytes());

  // Without a session the record requests send nothing and spend no id;
  // the transaction requests still go out.
  EXPECT_EQ(tqdb_api_resource_list(hp, 0), 0u);
  EXPECT_EQ(tqdb_api_resource_steal(hp, 0, 1), 0u);
  EXPECT_EQ(tqdb_api_resource_19301(hp, 0), 0u);
  EXPECT_EQ(tqdb_api_resource_19303(hp, 0, 1, 2, 3, "a", "b", "c"), 0u);
  EXPECT_TRUE(drain_wbuf(hp).empty());
  EXPECT_EQ(tqdb_api_resource_rollback(hp, 0), 9u);
  EXPECT_EQ(drain_wbuf(hp), frame(0x10203, Wire().u32(0).u32(9)));
}

TEST(CommitId, DataAndBroadcastCarryTheSameRecord) {
  const Bytes id = Wire().u64(0x8000000000000001).u64(1700000000).str(std::string(25, 's')).str("commit");
  tq_commitid_t c{};
  EnvPtr data = make_env(0x21000, Wire().u32(1).u32(2).raw(id));
  ASSERT_TRUE(tqdb_api_resource_begin_handle(data.get(), &c));
  EXPECT_EQ(c.seqno, 0x8000000000000001u);
  EXPECT_EQ(c.timestamp, 1700000000u);
  EXPECT_EQ(std::string(c.systemid), std::string(19, 's'));
  EXPECT_STREQ(c.log, "commit");

  // The broadcast has no cid word: the record starts right behind the session.
  tq_commitid_t b{};
  EnvPtr bcast = make_env(0x20002, Wire().u32(1).raw(id));
  ASSERT_TRUE(tqdb_api_resource_commit_bcast_handle(bcast.get(), &b));
  EXPECT_EQ(b.seqno, c.seqno);
  EXPECT_STREQ(b.log, "commit");

  const Bytes body = Wire().u32(1).u32(2).raw(id);
  for (size_t cut = 8; cut < body.size(); ++cut)
    EXPECT_FALSE(tqdb_api_resource_commit_handle(make_env(0x21000, std::span(body).first(cut)).get(), &c)) << cut;
}

TEST(CommitIdDeathTest, NullOrWrongTypeIsFatal) {
  tq_commitid_t c{};
  EXPECT_DEATH(_tqdb_api_resource_commitid_handle(nullptr, &c),
               "TQ-BUG at resource\\.c:15/_tqdb_api_resource_commitid_handle\\(\\): "
               "amsg == \\(\\(void \\*\\)0\\)  ");
  // A lock refusal handed to the begin decoder is the caller's bug.
  EnvPtr lock = make_env(0x20006, Wire().u32(1).u32(2).str("held"));
  EXPECT_DEATH(tqdb_api_resource_begin_handle(lock.get(), &c),
               "TQ-BUG at resource\\.c:19/_tqdb_api_resource_commitid_handle\\(\\): "
               "type != TQDB_API_MSG_TYPE_DATA && type != TQDB_API_MSG_TYPE_BCAST_COMMIT  ");
}

TEST(ResourceList, ThirdRecordCutAnywhereYieldsTwo) {
  Wire w;
  w.u32(1).u32(2);
  resource_record(w, 1, std::string(100, 'n'), "");
  resource_record(w, 2, "channels", "bob");
  const size_t third_at = w.size();
  resource_record(w, 3, "users", "");
  const Bytes full = w;

  const uint32_t before = live_records();
  for (size_t cut = third_at; cut <= full.size(); ++cut) {
    SCOPED_TRACE(cut);
    ListPtr list(tqdb_api_resource_list_handle(make_env(0x21000, std::span(full).first(cut)).get(), nullptr));
    const auto recs = records(list.get());
    ASSERT_EQ(recs.size(), cut == full.size() ? 3u : 2u);
    EXPECT_EQ(live_records(), before + recs.size());  // the cut record was released
    EXPECT_EQ(std::string(recs[0]->name), std::string(63, 'n'));
    EXPECT_EQ(recs[1]->id, 2u);
    EXPECT_STREQ(recs[1]->locker, "bob");
    EXPECT_STREQ(recs[1]->proxyaddress, "10.0.0.1");
    EXPECT_EQ(recs[1]->proxy, 1);
    EXPECT_EQ(recs[1]->enterprise, 0);
    EXPECT_EQ(recs[1]->avg_query_time, 250u);
    EXPECT_EQ(recs[1]->queries, 0x0102030405060708u);
    EXPECT_STREQ(recs[1]->status, "ok");
  }
  EXPECT_EQ(live_records(), before);

  // A second reply continues the list behind what it holds.
  Wire more;
  more.u32(1).u32(3);
  resource_record(more, 9, "logs", "");
  ListPtr list(tqdb_api_resource_list_handle(make_env(0x21000, std::span(full).first(third_at)).get(), nullptr));
  tq_list_t *head = list.release();
  list.reset(tqdb_api_resource_list_handle(make_env(0x21000, more).get(), head));
  EXPECT_EQ(list.get(), head);
  const auto recs = records(list.get());
  ASSERT_EQ(recs.size(), 3u);
  EXPECT_EQ(recs[2]->id, 9u);
  EXPECT_EQ(tqdb_api_resource_list_handle(make_env(0x20003, more).get(), head), head);
}

TEST(ResourceEntry, FieldsAndCut) {
  const Bytes full = Wire().u32(7).str(std::string(300, 'e')).u8(1).u32(2).u32(3).u8(4);
  tqdb_api_resource_entry_t e{};
  MsgPtr m = make_msg(0x21000, full);
  ASSERT_TRUE(tqdb_api_resource_entry_get(m.get(), &e));
  EXPECT_EQ(e.a, 7u);
  EXPECT_EQ(std::string(e.name), std::string(255, 'e'));
  EXPECT_EQ((std::array<uint32_t, 4>{e.b, e.c, e.d, e.e}), (std::array<uint32_t, 4>{1, 2, 3, 4}));
  EXPECT_EQ(m->rpos, full.size());
  MsgPtr cut = make_msg(0x21000, std::span(full).first(full.size() - 1));
  EXPECT_FALSE(tqdb_api_resource_entry_get(cut.get(), &e));
}
