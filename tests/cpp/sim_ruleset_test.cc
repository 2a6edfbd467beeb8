// tqdbsim's ruleset through the real protocol: list answers cut into many
// replies, transactions and what other sessions see, item checks,
// references, and state kept across a restart.
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdio>
#include <fstream>
#include <string>
#include <vector>

#include "support/sim_process.h"
#include "support/wire.h"
#include "tq_list.h"
#include "tq_msg.h"
#include "tqdb_api.h"
#include "tqdb_api_ruleset.h"

namespace {

using namespace tqtest;

constexpr uint32_t kData = TQDB_API_MSG_TYPE_DATA, kOk = TQDB_API_MSG_TYPE_OK,
                   kErr = TQDB_API_MSG_TYPE_ERROR, kLock = TQDB_API_MSG_TYPE_LOCK;

struct Client : SimSession {
  // Every message of a list answer, the closing OK excluded.
  std::vector<EnvPtr> list(uint32_t code, uint8_t type = 0) {
    const uint32_t cid = code == TQDB_REQ_OBJECT_LIST
                             ? tqdb_api_send(c.h(), code, s, type, uint32_t{0}, uint8_t{1})
                             : tqdb_api_send(c.h(), code, s);
    std::vector<EnvPtr> out;
    for (EnvPtr env = take(cid); env && env->type == kData; env = take(cid)) out.push_back(std::move(env));
    return out;
  }
  // (id, name, referenced) of the item-less net objects listed.
  std::vector<std::tuple<uint32_t, std::string, uint32_t>> net_objects() {
    std::vector<std::tuple<uint32_t, std::string, uint32_t>> out;
    for (EnvPtr &env : list(TQDB_REQ_OBJECT_LIST)) {
      tq_msg_t *m = env->msg;
      uint8_t tag = 0, b = 0;
      uint32_t id = 0, word = 0, refs = 0;
      char text[256];
      while (tq_msg_get_uint8(m, &tag)) {
        EXPECT_EQ(tag, 0);
        bool ok = tq_msg_get_uint32(m, &id) && tq_msg_get_string_len(m, text, sizeof text);
        std::string name = text;
        ok = ok && tq_msg_get_uint32(m, &word) && tq_msg_get_uint32(m, &refs);
        for (int i = 0; i < 4; ++i) ok = ok && tq_msg_get_string_len(m, text, sizeof text);
        ok = ok && tq_msg_get_uint8(m, &b) && tq_msg_get_uint32(m, &word) && tq_msg_get_uint32(m, &word);
        EXPECT_TRUE(ok && word == 0);
        out.emplace_back(id, name, refs);
      }
    }
    return out;
  }
};

testing::AssertionResult Is(const EnvPtr &env, uint32_t type, std::string_view text = {}) {
  if (!env) return testing::AssertionFailure() << "no message";
  if (env->type != type || std::string_view(env->error).find(text) == std::string_view::npos)
    return testing::AssertionFailure() << "type " << env->type << " '" << env->error << "'";
  return testing::AssertionSuccess();
}

uint32_t added_id(const EnvPtr &env) {
  uint32_t id = 0;
  char stamp[TQDB_API_TIMESTAMP_SIZE];
  EXPECT_TRUE(Is(env, kData) && tqdb_api_ruleset_add_handle(env.get(), &id, stamp));
  EXPECT_EQ(std::string(stamp).size(), 19u) << stamp;
  return id;
}

class SimRuleset : public testing::Test {
 protected:
  void start(std::vector<std::string> args = {}) {
    ASSERT_FALSE(sim_binary().empty()) << "TQDBSIM must name the simulator binary";
    ASSERT_TRUE(sim_.start(args));
    ASSERT_TRUE(a_.open(sim_.port()));
  }
  uint32_t begin(Client &c) { return c.ask(TQDB_REQ_BEGIN, uint32_t{TQDB_RESOURCE_RULESET}, uint8_t{0})->type; }
  SimProcess sim_;
  Client a_;
};

TEST_F(SimRuleset, ListAnswerIsCutAtRecordsAndEndedByOk) {
  ASSERT_NO_FATAL_FAILURE(start({"--max-reply-bytes", "64"}));
  ASSERT_EQ(begin(a_), kData);
  for (const char *name : {"s1", "s2", "s3"})
    added_id(a_.ask(TQDB_REQ_STATISTICSOBJECT_ADD, name, uint8_t{0}, uint32_t{0}, uint32_t{0}, uint32_t{60}));
  // Each record is larger than 64 bytes: it goes alone, never cut.
  std::vector<EnvPtr> parts = a_.list(TQDB_REQ_STATISTICSOBJECT_LIST);
  ASSERT_EQ(parts.size(), 3u);
  uint32_t expect = 1;
  for (EnvPtr &env : parts) {
    tq_list_t *l = tqdb_api_statisticsobject_list_handle(env.get(), nullptr);
    ASSERT_TRUE(l && !l->next);
    EXPECT_EQ(static_cast<tqdb_api_statisticsobject_t *>(l->data)->id, expect++);
    tq_list_free_with_data(l);
  }
  // Small records share messages up to the limit (8 header bytes + body).
  for (int i = 0; i < 3; ++i)
    added_id(a_.ask(TQDB_REQ_RULECONDITIONS_ADD, i == 0 ? "a" : i == 1 ? "b" : "c", uint8_t{0}));
  ASSERT_TRUE(Is(a_.ask(TQDB_REQ_RULECONDITIONS_SET_ITEMS, uint32_t{3}, uint16_t{2}, uint8_t{29},
                        uint32_t{1}, uint8_t{29}, uint32_t{2}), kData));
  tqdb_api_ruleconditions_state_t st{};
  std::vector<EnvPtr> conds = a_.list(TQDB_REQ_RULECONDITIONS_LIST);
  // Conditions 3, 2, 1 are each larger than the limit; 3's two items share
  // the message after it.
  EXPECT_EQ(conds.size(), 4u);
  for (EnvPtr &env : conds) {
    EXPECT_TRUE(tqdb_api_ruleconditions_list_handle(env.get(), &st));
  }
  std::vector<uint32_t> ids, items;
  for (tq_list_t *n = st.list; n; n = n->next) {
    auto *cond = static_cast<tqdb_api_rule_condition_t *>(n->data);
    ids.push_back(cond->id);
    for (tq_list_t *i = cond->items; i; i = i->next)
      items.push_back(static_cast<tqdb_api_rule_condition_item_t *>(i->data)->objectid);
  }
  tqdb_api_ruleconditions_list_free(st.list);
  EXPECT_EQ(ids, (std::vector<uint32_t>{1, 2, 3}));  // ascending, items in the order set
  EXPECT_EQ(items, (std::vector<uint32_t>{1, 2}));
}

TEST_F(SimRuleset, TransactionsIsolateAndRollBack) {
  ASSERT_NO_FATAL_FAILURE(start());
  Client b;
  ASSERT_TRUE(b.open(sim_.port()));
  EXPECT_TRUE(Is(a_.ask(TQDB_REQ_OBJECT_ADD, uint8_t{0}, "lan", uint32_t{0}), kErr,
                 "No transaction open on resource 1 (ruleset): begin one first"));
  ASSERT_EQ(begin(a_), kData);
  EXPECT_EQ(added_id(a_.ask(TQDB_REQ_OBJECT_ADD, uint8_t{0}, "lan", uint32_t{0})), 1u);
  EXPECT_EQ(a_.net_objects().size(), 1u);  // the holder sees its change
  EXPECT_TRUE(b.net_objects().empty());     // others the last commit
  EXPECT_TRUE(Is(b.ask(TQDB_REQ_OBJECT_ADD, uint8_t{0}, "x", uint32_t{0}), kLock, "locked by admin"));
  ASSERT_TRUE(Is(a_.ask(TQDB_REQ_COMMIT, "one"), kData));
  ASSERT_EQ(b.net_objects().size(), 1u);
  ASSERT_EQ(begin(a_), kData);
  added_id(a_.ask(TQDB_REQ_OBJECT_ADD, uint8_t{0}, "gone", uint32_t{0}));
  ASSERT_TRUE(Is(a_.ask(TQDB_REQ_ROLLBACK), kOk));
  EXPECT_EQ(a_.net_objects().size(), 1u);
}

TEST_F(SimRuleset, BadItemsAreRefused) {
  ASSERT_NO_FATAL_FAILURE(start());
  ASSERT_EQ(begin(a_), kData);
  for (uint8_t t = 0; t < TQDB_OBJECT_TYPE_COUNT; ++t)
    ASSERT_EQ(added_id(a_.ask(TQDB_REQ_OBJECT_ADD, t, "o", uint32_t{0})), 1u);
  struct Row {
    uint8_t type;
    Wire item;
    const char *error;  // empty: accepted
  };
  const Row rows[] = {
      {0, Wire().u8(1).str("10.0.0.1").str("").u8(0), ""},
      {0, Wire().u8(1).str("10.0.0.256").str("").u8(0), "'10.0.0.256' is not an IPv4 address"},
      {0, Wire().u8(4).str("10.0.0.1").str("").u8(0), "not an IPv6 address"},
      {0, Wire().u8(2).str("10.0.0.0/8").str("").u8(0), ""},
      {0, Wire().u8(2).str("10.0.0.1/8").str("").u8(0), "host bits"},
      {0, Wire().u8(2).str("10.0.0.0/33").str("").u8(0), "not an IPv4 network"},
      {0, Wire().u8(3).str("10.0.0.9").str("").u8(0), "needs value2"},
      {0, Wire().u8(3).str("10.0.0.9").str("10.0.0.1").u8(0), "reversed"},
      {0, Wire().u8(6).str("::1").str("::2").u8(0), ""},
      {0, Wire().u8(7).str("::1").str("").u8(0), "type 7"},
      {0, Wire().u8(1).str("10.0.0.1").str("").u8(2), "exclude"},
      {1, Wire().u8(2).u16(80).u16(79).u8(0), "reversed"},
      {3, Wire().u8(1).u16(4095).u16(0).u8(0), ""},
      {3, Wire().u8(1).u16(4096).u16(0).u8(0), "at most 4095"},
      {11, Wire().u8(2).u32(0).u32(1u << 20).u8(0), "at most 1048575"},
      {12, Wire().u8(2).u8(0).u8(63).u8(0), ""},
      {12, Wire().u8(1).u8(64).u8(0).u8(0), "at most 63"},
      {5, Wire().u8(1).u32(0).u32(3600).u16(127).u8(0), ""},
      {5, Wire().u8(1).u32(0).u32(3600).u16(128).u8(0), "day mask"},
      {9, Wire().u32(7).u8(0).str("x"), "field 7"},
      {9, Wire().u32(1).u8(3).str("10.0.0.1"), "direction"},
      {17, Wire().u32(9).u8(0).str("k").u8(0).str("v").u8(0).u8(0).str(""), "no net object 9"},
      {0, Wire().u8(1).str("10.0.0.1"), "Malformed request 0x11010: body too short"},
  };
  for (const Row &r : rows) {
    const Bytes &bytes = r.item;
    EnvPtr env = a_.take(tqdb_api_request(a_.c.h(), TQDB_REQ_OBJECT_ITEM_ADD, a_.s, [&](tq_msg_t *m) {
      tq_msg_put_uint8(m, r.type);
      tq_msg_put_uint32(m, 1);
      tq_msg_put_data(m, bytes.data(), bytes.size());
    }));
    EXPECT_TRUE(*r.error ? Is(env, kErr, r.error) : Is(env, kData))
        << "type " << int(r.type) << " expecting '" << r.error << "'";
  }
}

TEST_F(SimRuleset, ReferencedRecordsAreProtected) {
  ASSERT_NO_FATAL_FAILURE(start());
  ASSERT_EQ(begin(a_), kData);
  added_id(a_.ask(TQDB_REQ_OBJECT_ADD, uint8_t{0}, "lan", uint32_t{0}));
  added_id(a_.ask(TQDB_REQ_RULECONDITIONS_ADD, "web", uint8_t{0}));
  added_id(a_.ask(TQDB_REQ_RULECONDITIONS_ADD, "outer", uint8_t{1}));
  ASSERT_TRUE(Is(a_.ask(TQDB_REQ_RULECONDITIONS_SET_ITEMS, uint32_t{1}, uint16_t{1}, uint8_t{1},
                        uint32_t{1}), kData));
  ASSERT_TRUE(Is(a_.ask(TQDB_REQ_RULECONDITIONS_SET_ITEMS, uint32_t{2}, uint16_t{1}, uint8_t{29},
                        uint32_t{1}), kData));
  EXPECT_EQ(std::get<2>(a_.net_objects().at(0)), 1u);
  EXPECT_TRUE(Is(a_.ask(TQDB_REQ_OBJECT_REMOVE, uint8_t{0}, uint32_t{1}), kErr,
                 "Net object 1 (lan) is used by rule condition 1 (web)"));
  EXPECT_TRUE(Is(a_.ask(TQDB_REQ_RULECONDITIONS_SET_ITEMS, uint32_t{1}, uint16_t{1}, uint8_t{29},
                        uint32_t{2}), kErr, "cycle"));
  EXPECT_TRUE(Is(a_.ask(TQDB_REQ_OBJECT_REMOVE, uint8_t{0}, uint32_t{42}), kErr, "No net object 42"));
  EXPECT_TRUE(Is(a_.ask(TQDB_REQ_OBJECT_MOVE, uint8_t{0}, uint32_t{1}, uint32_t{1}), kErr, "under itself"));
  ASSERT_TRUE(Is(a_.ask(TQDB_REQ_RULECONDITIONS_SET_ITEMS, uint32_t{1}, uint16_t{0}), kData));
  EXPECT_TRUE(Is(a_.ask(TQDB_REQ_OBJECT_REMOVE, uint8_t{0}, uint32_t{1}), kData));
}

TEST_F(SimRuleset, StateSurvivesARestart) {
  char path[] = "/tmp/tqsim_state_XXXXXX";
  const int fd = mkstemp(path);
  ASSERT_GE(fd, 0);
  close(fd);
  unlink(path);  // a missing file starts empty
  ASSERT_NO_FATAL_FAILURE(start({"--state", path}));
  ASSERT_EQ(begin(a_), kData);
  added_id(a_.ask(TQDB_REQ_OBJECT_ADD, uint8_t{0}, "kept", uint32_t{0}));
  added_id(a_.ask(TQDB_REQ_OBJECT_ADD, uint8_t{0}, "dropped", uint32_t{0}));
  ASSERT_TRUE(Is(a_.ask(TQDB_REQ_OBJECT_REMOVE, uint8_t{0}, uint32_t{2}), kData));
  ASSERT_TRUE(Is(a_.ask(TQDB_REQ_COMMIT, "keep"), kData));
  a_.c.close();
  EXPECT_EQ(sim_.stop(), 0);

  ASSERT_NO_FATAL_FAILURE(start({"--state", path}));
  const auto objects = a_.net_objects();
  ASSERT_EQ(objects.size(), 1u);
  EXPECT_EQ(std::get<1>(objects[0]), "kept");
  ASSERT_EQ(begin(a_), kData);
  EXPECT_EQ(added_id(a_.ask(TQDB_REQ_OBJECT_ADD, uint8_t{0}, "next", uint32_t{0})), 3u);  // 2 is never reused

  std::ofstream(path) << "{\"format\": 1, \"ruleset\": {\"objects\": [{\"name\": 5}]}}";
  const SimRun broken = run_sim({"--state", path, "--port", "0"});
  EXPECT_EQ(broken.exit_code, 2);
  EXPECT_NE(broken.err.find(path), std::string::npos) << broken.err;
  EXPECT_NE(broken.err.find("ruleset.objects[0].name: expected a string"), std::string::npos) << broken.err;
  unlink(path);
}

}  // namespace
