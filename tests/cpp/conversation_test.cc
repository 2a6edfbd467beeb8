// Whole conversations between a real handle and a scripted appliance over
// the encrypted transport: requests checked byte for byte as the appliance
// receives them, replies decoded as the client sees them.
#include <gtest/gtest.h>

#include <array>
#include <string>

#include "support/responder.h"
#include "tq_commitid.h"
#include "tq_list.h"
#include "tq_msg.h"
#include "tqdb_api.h"

using namespace tqtest;

namespace {

class Conversation : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_TRUE(link_.ok());
    tqdb_api_handle_set_io(h(), link_.client());
    tqdb_api_handle_set_corrupt_cb(h(), CorruptLog::cb, &corrupt_);
  }
  tqdb_api_handle_t *h() { return handle_.get(); }

  // Flushes the client and checks what the appliance receives.
  void expect_request(uint32_t code, const Bytes &payload) {
    ASSERT_TRUE(flush(h(), link_.client_fd()));
    const auto f = link_.recv_frame();
    ASSERT_TRUE(f.has_value());
    EXPECT_EQ(f->code, code);
    EXPECT_EQ(f->payload, payload);
  }
  // The appliance sends one frame; the client's envelope of it.
  EnvPtr reply(uint32_t code, const Bytes &payload) {
    return link_.send_frame(code, payload) ? await_msg(h(), link_.client_fd()) : nullptr;
  }
  static Bytes commit_id(uint64_t seq, std::string_view log) {
    return Wire().u64(seq).u64(1700000000 + seq).str("tqdb-a").str(log);
  }

  Link link_;
  HandlePtr handle_{tqdb_api_handle_new()};
  CorruptLog corrupt_;
};

}  // namespace

TEST_F(Conversation, LoginSessionPingAndDiag) {
  char product[256], text[256];
  EXPECT_EQ(tqdb_api_version_handle(reply(0x20007, Wire().u32(0x6085).str("TQDB").str("17.1.5")).get(),
                                    product, text, sizeof product), 0x6085u);
  EXPECT_STREQ(text, "17.1.5");
  ASSERT_EQ(tqdb_api_auth(h(), "admin", "admin"), 1);
  expect_request(0x10001, Wire().str("admin").str("admin"));
  tqdb_api_auth_result r{};
  ASSERT_EQ(tqdb_api_auth_handle(reply(0x20001, Wire().u8(1).u64(10).u64(20).u64(30).u32(40)).get(), &r), 1);
  EXPECT_EQ((std::array<uint64_t, 4>{r.value0, r.value1, r.value2, r.value3}),
            (std::array<uint64_t, 4>{10, 20, 30, 40}));

  ASSERT_EQ(tqdb_api_session_new(h()), 1u);
  expect_request(0x10101, Wire().u32(0).u32(1));
  const uint32_t session = tqdb_api_session_new_handle(reply(0x21000, Wire().u32(0).u32(1).u32(42)).get());
  ASSERT_EQ(session, 42u);

  // Two pings in flight, answered in reverse: the ids tell them apart.
  const uint32_t p1 = tqdb_api_ping(h(), session, "one"), p2 = tqdb_api_ping(h(), session, "two");
  expect_request(0x10103, Wire().u32(session).u32(p1).str("one"));
  expect_request(0x10103, Wire().u32(session).u32(p2).str("two"));
  char buf[64];
  EnvPtr second = reply(0x21000, Wire().u32(session).u32(p2).str("two"));
  EXPECT_EQ(tqdb_api_msg_get_cid(second.get()), p2);
  EXPECT_STREQ(tqdb_api_ping_handle(second.get(), buf, sizeof buf), "two");
  EXPECT_EQ(tqdb_api_msg_get_cid(reply(0x21000, Wire().u32(session).u32(p1).str("one")).get()), p1);

  const uint32_t d = tqdb_api_session_diag(h(), session);
  expect_request(0x10105, Wire().u32(session).u32(d));
  EnvPtr diag = reply(0x21000, Wire().u32(session).u32(d).str("uptime 5").str("sessions 1"));
  tq_list_t *lines = tqdb_api_session_diag_handle(diag.get(), nullptr);
  ASSERT_EQ(tq_list_length(lines), 2u);
  EXPECT_STREQ(static_cast<const char *>(lines->next->data), "sessions 1");
  tq_list_free_with_data(lines);
  EXPECT_EQ(corrupt_.calls, 0);
  // The handle's callback reaches the envelopes it reads: a text cut short.
  EnvPtr cut = reply(0x20004, Wire().u32(session).u32(9).u32(20).raw("short"));
  EXPECT_STREQ(tqdb_api_msg_get_error(cut.get()), "");
  EXPECT_EQ(corrupt_.calls, 1);
  EXPECT_EQ(corrupt_.function, "tqdb_api_msg_new");
}

TEST_F(Conversation, TransactionsLocksAndNotices) {
  const uint32_t s = 42;
  tq_commitid_t c{};
  const uint32_t b = tqdb_api_resource_begin(h(), s, TQDB_RESOURCE_RULESET, 0);
  expect_request(0x10201, Wire().u32(s).u32(b).u32(1).u8(0));
  ASSERT_TRUE(tqdb_api_resource_begin_handle(reply(0x21000, Wire().u32(s).u32(b).raw(commit_id(6, "previous"))).get(), &c));
  EXPECT_EQ(c.seqno, 6u);
  EXPECT_STREQ(c.systemid, "tqdb-a");

  const uint32_t cm = tqdb_api_resource_commit(h(), s, "add rule");
  expect_request(0x10202, Wire().u32(s).u32(cm).str("add rule"));
  ASSERT_TRUE(tqdb_api_resource_commit_handle(reply(0x21000, Wire().u32(s).u32(cm).raw(commit_id(7, "add rule"))).get(), &c));
  EXPECT_EQ(c.seqno, 7u);
  EXPECT_STREQ(c.log, "add rule");

  // Another session's commit, announced unasked: session word, no cid.
  EnvPtr bcast = reply(0x20002, Wire().u32(s).raw(commit_id(8, "other")));
  EXPECT_EQ(tqdb_api_msg_get_type(bcast.get()), uint32_t{TQDB_API_MSG_TYPE_BCAST_COMMIT});
  EXPECT_EQ(tqdb_api_msg_get_cid(bcast.get()), 0u);
  ASSERT_TRUE(tqdb_api_resource_commit_bcast_handle(bcast.get(), &c));
  EXPECT_EQ(c.seqno, 8u);

  const uint32_t b2 = tqdb_api_resource_begin(h(), s, TQDB_RESOURCE_USERS, 0);
  expect_request(0x10201, Wire().u32(s).u32(b2).u32(3).u8(0));
  EnvPtr lock = reply(0x20006, Wire().u32(s).u32(b2).str("Resource locked by bob (session 7)"));
  EXPECT_EQ(tqdb_api_msg_get_type(lock.get()), uint32_t{TQDB_API_MSG_TYPE_LOCK});
  EXPECT_EQ(tqdb_api_msg_get_cid(lock.get()), b2);
  EXPECT_STREQ(tqdb_api_msg_get_error(lock.get()), "Resource locked by bob (session 7)");

  // A frame of no known code is dropped (its message released); the notice
  // behind it still arrives.
  const uint32_t taken = tq_msg_pool_used();
  ASSERT_TRUE(link_.send_frame(0x2000A, Wire().u32(s).u32(0)));
  EnvPtr detached = reply(0x20012, Wire().u32(s).str("Session detached: resource stolen"));
  EXPECT_EQ(tq_msg_pool_used(), taken + 1);
  EXPECT_EQ(tqdb_api_msg_get_type(detached.get()), uint32_t{TQDB_API_MSG_TYPE_DETACHED});
  EXPECT_EQ(tqdb_api_msg_get_session(detached.get()), s);
  EXPECT_EQ(tqdb_api_msg_get_cid(detached.get()), 0u);
  EXPECT_STREQ(tqdb_api_msg_get_error(detached.get()), "Session detached: resource stolen");
  EXPECT_EQ(corrupt_.calls, 0);
}
