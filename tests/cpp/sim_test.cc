// tqdbsim end to end: the real binary on a free loopback port, driven by
// clients made of the real transport and API handle.
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <ctime>
#include <string>
#include <thread>
#include <vector>

#include "support/responder.h"
#include "support/sim_process.h"
#include "support/wire.h"
#include "tq_list.h"
#include "tq_msg.h"
#include "tq_ringbuf.h"
#include "tqdb_api.h"

namespace {

using namespace tqtest;
using testing::AssertionFailure;
using testing::AssertionResult;
using testing::AssertionSuccess;

// The next message, which must answer the request with correlation id cid.
EnvPtr answer(SimClient &c, uint32_t cid) {
  EnvPtr env = c.next();
  if (!env) {
    ADD_FAILURE() << "no answer to request " << cid;
    return nullptr;
  }
  EXPECT_EQ(tqdb_api_msg_get_cid(env.get()), cid);
  return env;
}

AssertionResult Is(const EnvPtr &env, uint32_t type, std::string_view text = {}) {
  if (!env) return AssertionFailure() << "no message";
  if (env->type != type)
    return AssertionFailure() << "type " << env->type << " ('" << env->error << "'), expected "
                              << type;
  if (text != env->error) return AssertionFailure() << "text '" << env->error << "'";
  return AssertionSuccess();
}

tq_commitid_t commit_of(const EnvPtr &env) {
  tq_commitid_t id{};
  if (env && (env->type == TQDB_API_MSG_TYPE_DATA || env->type == TQDB_API_MSG_TYPE_BCAST_COMMIT))
    EXPECT_TRUE(tqdb_api_resource_begin_handle(env.get(), &id));
  else
    ADD_FAILURE() << "no commit id in " << (env ? env->error : "(nothing)");
  return id;
}

// Connects, takes the version announcement and logs in.
bool connect_login(SimClient &c, uint16_t port, const char *user = "admin",
                   const char *password = "admin") {
  if (!c.connect(port)) return false;
  EnvPtr v = c.next();
  if (!v || v->type != TQDB_API_MSG_TYPE_VERSION || !tqdb_api_auth(c.h(), user, password))
    return false;
  EnvPtr a = c.next();
  return a && tqdb_api_auth_handle(a.get(), nullptr) == 1;
}

uint32_t open_session(SimClient &c) {
  EnvPtr env = answer(c, tqdb_api_session_new(c.h()));
  return env ? tqdb_api_session_new_handle(env.get()) : 0;
}

std::string lock_text(uint32_t res, const char *name, const char *user, uint32_t session) {
  return "Resource " + std::to_string(res) + " (" + name + ") is locked by " + user +
         " (session " + std::to_string(session) + ")";
}

std::string idle_text(uint32_t session) {
  return "No transaction open in session " + std::to_string(session);
}

std::vector<tqdb_api_resource_real_t> resource_list(SimClient &c, uint32_t session) {
  EnvPtr env = answer(c, tqdb_api_resource_list(c.h(), session));
  std::vector<tqdb_api_resource_real_t> out;
  tq_list_t *list = env ? tqdb_api_resource_list_handle(env.get(), nullptr) : nullptr;
  for (tq_list_t *n = list; n; n = n->next)
    out.push_back(*static_cast<tqdb_api_resource_real_t *>(n->data));
  tq_list_free_with_data(list);
  return out;
}

const tqdb_api_resource_real_t *record(const std::vector<tqdb_api_resource_real_t> &l,
                                       uint32_t id) {
  for (const auto &r : l)
    if (r.id == id) return &r;
  return nullptr;
}

class SimTest : public testing::Test {
 protected:
  void SetUp() override {
    ASSERT_FALSE(sim_binary().empty()) << "TQDBSIM must name the simulator binary";
    ASSERT_TRUE(sim_.start({"--user", "admin:admin", "--user", "ops:secret"}));
  }
  void TearDown() override { EXPECT_EQ(sim_.stop(), 0) << "SIGTERM must end it cleanly"; }
  uint16_t port() const { return sim_.port(); }

  SimProcess sim_;
};

TEST(SimCommandLine, BadArgumentsGiveUsageAndExitTwo) {
  ASSERT_FALSE(sim_binary().empty());
  const std::vector<std::vector<std::string>> bad = {
      {"--port", "65536"},     {"--port", "-1"},         {"--port"},
      {"--user", "nocolon"},   {"--user", ":pw"},        {"--version", "0x1g"},
      {"--version", "0x100000000"}, {"--frobnicate"},    {"--user", "a:b", "--user", "a:c"},
  };
  for (const auto &args : bad) {
    const SimRun run = run_sim(args);
    EXPECT_EQ(run.exit_code, 2) << args[0] << " " << (args.size() > 1 ? args[1] : "");
    EXPECT_NE(run.err.find("usage: tqdbsim"), std::string::npos) << run.err;
    EXPECT_EQ(run.out, "");
  }
  const SimRun help = run_sim({"--help"});
  EXPECT_EQ(help.exit_code, 0);
  EXPECT_EQ(help.out.rfind("usage: tqdbsim", 0), 0u);
  // The largest values are still good ones.
  SimProcess edge;
  EXPECT_TRUE(edge.start({"--version", "0xffffffff", "--user", "a:"}));
  EXPECT_EQ(edge.stop(), 0);
}

TEST_F(SimTest, VersionLoginAndSessions) {
  EXPECT_EQ(sim_.listening_line(), "tqdbsim listening on 127.0.0.1:" + std::to_string(port()));
  SimClient a;
  ASSERT_TRUE(a.connect(port()));
  EnvPtr v = a.next();
  char product[256], version[256];
  ASSERT_TRUE(Is(v, TQDB_API_MSG_TYPE_VERSION));
  EXPECT_EQ(tqdb_api_version_handle(v.get(), product, version, sizeof product), 0x6080u);
  EXPECT_STREQ(product, "tqdbsim");
  EXPECT_STREQ(version, "17.1.0");

  // Nothing but authentication before a login; a refusal is one byte and
  // logs nobody in.
  EXPECT_TRUE(Is(answer(a, tqdb_api_session_new(a.h())), TQDB_API_MSG_TYPE_ERROR,
                 "Not authenticated"));
  for (auto [user, pw] : {std::pair{"ops", "wrong"}, {"admin", "secret"}, {"ops", ""}}) {
    ASSERT_TRUE(tqdb_api_auth(a.h(), user, pw));
    EnvPtr r = a.next();
    ASSERT_TRUE(Is(r, TQDB_API_MSG_TYPE_AUTH));
    EXPECT_EQ(r->msg->len, 1u);
    EXPECT_EQ(tqdb_api_auth_handle(r.get(), nullptr), 0) << user << ":" << pw;
  }
  EXPECT_TRUE(Is(answer(a, tqdb_api_ping(a.h(), 1, "x")), TQDB_API_MSG_TYPE_ERROR,
                 "Not authenticated"));

  const auto before = static_cast<uint64_t>(std::time(nullptr));
  ASSERT_TRUE(tqdb_api_auth(a.h(), "ops", "secret"));
  EnvPtr r = a.next();
  tqdb_api_auth_result granted{};
  ASSERT_TRUE(Is(r, TQDB_API_MSG_TYPE_AUTH));
  EXPECT_EQ(r->msg->len, 1u + 8 + 8 + 8 + 4);
  ASSERT_EQ(tqdb_api_auth_handle(r.get(), &granted), 1);
  EXPECT_EQ(granted.value0, 2u);  // second user of the command line
  EXPECT_GE(granted.value1, before);
  EXPECT_LE(granted.value1, static_cast<uint64_t>(std::time(nullptr)));
  EXPECT_EQ(granted.value2, 1u);  // first connection
  EXPECT_EQ(granted.value3, 1u);

  const uint32_t s1 = open_session(a), s2 = open_session(a);
  EXPECT_NE(s1, 0u);
  EXPECT_NE(s2, 0u);
  EXPECT_NE(s1, s2);

  char echo[64];
  EnvPtr p = answer(a, tqdb_api_ping(a.h(), s1, "hello"));
  ASSERT_TRUE(Is(p, TQDB_API_MSG_TYPE_DATA));
  EXPECT_EQ(p->session, s1);
  EXPECT_STREQ(tqdb_api_ping_handle(p.get(), echo, sizeof echo), "hello");
  p = answer(a, tqdb_api_ping(a.h(), s2, ""));
  ASSERT_TRUE(Is(p, TQDB_API_MSG_TYPE_DATA));
  EXPECT_EQ(p->msg->len - p->msg->rpos, 5);  // count 1 and the NUL
  EXPECT_TRUE(Is(answer(a, tqdb_api_session_10102(a.h(), 7)), TQDB_API_MSG_TYPE_OK));
  EXPECT_TRUE(Is(answer(a, tqdb_api_session_10104(a.h(), s2)), TQDB_API_MSG_TYPE_OK));

  EnvPtr d = answer(a, tqdb_api_session_diag(a.h(), s2));
  ASSERT_TRUE(Is(d, TQDB_API_MSG_TYPE_DATA));
  std::vector<std::string> lines;
  char line[256];
  while (tq_msg_avail_bytes(d->msg) >= 4 && tq_msg_get_string_len(d->msg, line, sizeof line))
    lines.emplace_back(line);
  EXPECT_EQ(tq_msg_avail_bytes(d->msg), 0u);
  EXPECT_NE(std::find(lines.begin(), lines.end(), "User: ops"), lines.end());
  EXPECT_NE(std::find(lines.begin(), lines.end(), "Session: " + std::to_string(s2)), lines.end());
  EXPECT_NE(std::find(lines.begin(), lines.end(), "Transaction: none"), lines.end());

  // A second connection: its own login, fresh session ids, and the first
  // connection's sessions are not its own.
  SimClient b;
  ASSERT_TRUE(connect_login(b, port()));
  const uint32_t s3 = open_session(b);
  EXPECT_NE(s3, 0u);
  EXPECT_NE(s3, s1);
  EXPECT_NE(s3, s2);
  EXPECT_TRUE(Is(answer(b, tqdb_api_ping(b.h(), s1, "x")), TQDB_API_MSG_TYPE_ERROR,
                 "Unknown session " + std::to_string(s1)));

  // Another version word on the command line is announced and decoded;
  // without --user, admin:admin may log in. Stopping it with a client
  // inside a transaction is still a clean exit.
  SimProcess other;
  ASSERT_TRUE(other.start({"--version", "0x6100"}));
  SimClient c;
  ASSERT_TRUE(c.connect(other.port()));
  v = c.next();
  ASSERT_TRUE(Is(v, TQDB_API_MSG_TYPE_VERSION));
  EXPECT_EQ(tqdb_api_version_handle(v.get(), product, version, sizeof product), 0x6100u);
  EXPECT_STREQ(version, "17.2.0");
  ASSERT_TRUE(tqdb_api_auth(c.h(), "admin", "admin"));
  EXPECT_EQ(tqdb_api_auth_handle(c.next().get(), nullptr), 1);
  const uint32_t s4 = open_session(c);
  EXPECT_TRUE(Is(answer(c, tqdb_api_resource_begin(c.h(), s4, 1, 0)), TQDB_API_MSG_TYPE_DATA));
  EXPECT_EQ(other.stop(), 0);
  EXPECT_TRUE(wait_closed(c.fd()));
}

TEST_F(SimTest, LocksCommitsBroadcastsAndRollback) {
  SimClient a, b;
  ASSERT_TRUE(connect_login(a, port()));
  ASSERT_TRUE(connect_login(b, port(), "ops", "secret"));
  const uint32_t a1 = open_session(a), a2 = open_session(a), b1 = open_session(b);

  const tq_commitid_t initial = commit_of(answer(a, tqdb_api_resource_begin(a.h(), a1, 1, 0)));
  EXPECT_EQ(initial.seqno, 0u);
  EXPECT_STREQ(initial.systemid, "tqdbsim");
  const std::string held = lock_text(1, "ruleset", "admin", a1);
  EnvPtr lock = answer(a, tqdb_api_resource_begin(a.h(), a2, 1, 0));
  EXPECT_TRUE(Is(lock, TQDB_API_MSG_TYPE_LOCK, held));
  EXPECT_EQ(lock->session, a2);
  EXPECT_TRUE(Is(answer(b, tqdb_api_resource_begin(b.h(), b1, 1, 0)), TQDB_API_MSG_TYPE_LOCK,
                 held));
  EXPECT_TRUE(Is(answer(a, tqdb_api_resource_begin(a.h(), a1, 7, 0)), TQDB_API_MSG_TYPE_ERROR,
                 "Session " + std::to_string(a1) +
                     " already has a transaction open on resource 1 (ruleset)"));
  EXPECT_TRUE(Is(answer(b, tqdb_api_resource_begin(b.h(), b1, TQDB_RESOURCE_SYSDIAG, 0)),
                 TQDB_API_MSG_TYPE_DATA));

  // Commit: a new id to the committer, the same id to every other session.
  const auto before = static_cast<uint64_t>(std::time(nullptr));
  const tq_commitid_t first = commit_of(answer(a, tqdb_api_resource_commit(a.h(), a1, "first")));
  EXPECT_GT(first.seqno, initial.seqno);
  EXPECT_GE(first.timestamp, before);
  EXPECT_LE(first.timestamp, static_cast<uint64_t>(std::time(nullptr)));
  EXPECT_STREQ(first.systemid, "tqdbsim");
  EXPECT_STREQ(first.log, "first");
  for (auto [client, session] : {std::pair{&a, a2}, {&b, b1}}) {
    EnvPtr n = client->next();
    ASSERT_TRUE(Is(n, TQDB_API_MSG_TYPE_BCAST_COMMIT));
    EXPECT_EQ(n->session, session);
    const tq_commitid_t seen = commit_of(n);
    EXPECT_EQ(seen.seqno, first.seqno);
    EXPECT_STREQ(seen.log, "first");
  }
  // None for the committer: the next thing it sees is the ping's answer.
  EXPECT_TRUE(Is(answer(a, tqdb_api_ping(a.h(), a1, "x")), TQDB_API_MSG_TYPE_DATA));

  const tq_commitid_t second = commit_of(answer(b, tqdb_api_resource_commit(b.h(), b1, "second")));
  EXPECT_GT(second.seqno, first.seqno);
  for (uint32_t session : {a1, a2}) {
    EnvPtr n = a.next();
    ASSERT_TRUE(Is(n, TQDB_API_MSG_TYPE_BCAST_COMMIT));
    EXPECT_EQ(n->session, session);
    EXPECT_EQ(commit_of(n).seqno, second.seqno);
  }

  // The lock is free again; a rollback publishes nothing.
  EXPECT_EQ(commit_of(answer(a, tqdb_api_resource_begin(a.h(), a2, 1, 0))).seqno, first.seqno);
  EXPECT_TRUE(Is(answer(a, tqdb_api_resource_rollback(a.h(), a2)), TQDB_API_MSG_TYPE_OK));
  EXPECT_TRUE(Is(answer(a, tqdb_api_resource_rollback(a.h(), a2)), TQDB_API_MSG_TYPE_ERROR,
                 idle_text(a2)));
  EXPECT_TRUE(Is(answer(a, tqdb_api_resource_commit(a.h(), a2, "x")), TQDB_API_MSG_TYPE_ERROR,
                 idle_text(a2)));
  EXPECT_EQ(commit_of(answer(b, tqdb_api_resource_begin(b.h(), b1, 1, 0))).seqno, first.seqno);
  EXPECT_TRUE(Is(answer(b, tqdb_api_resource_rollback(b.h(), b1)), TQDB_API_MSG_TYPE_OK));

  // Changes inside a transaction: visible at once, undone by a rollback,
  // kept by a commit, refused to others while the lock is held.
  auto set_proxy = [](SimClient &c, uint32_t s, uint32_t rec, const char *addr) {
    return answer(c, tqdb_api_resource_19303(c.h(), s, rec, 1, 0, addr, "puser", "ppass"));
  };
  ASSERT_TRUE(Is(answer(a, tqdb_api_resource_begin(a.h(), a1, TQDB_RESOURCE_RESOURCE, 0)),
                 TQDB_API_MSG_TYPE_DATA));
  EXPECT_TRUE(Is(set_proxy(a, a1, 1, "10.1.2.3"), TQDB_API_MSG_TYPE_OK));
  EXPECT_TRUE(Is(set_proxy(a, a1, 99, "10.1.2.3"), TQDB_API_MSG_TYPE_ERROR, "Unknown resource 99"));
  EXPECT_TRUE(Is(set_proxy(b, b1, 2, "10.6.6.6"), TQDB_API_MSG_TYPE_LOCK,
                 lock_text(11, "resource", "admin", a1)));
  auto list = resource_list(b, b1);
  ASSERT_NE(record(list, 1), nullptr);
  EXPECT_STREQ(record(list, 1)->proxyaddress, "10.1.2.3");
  EXPECT_EQ(record(list, 1)->proxy, 1);
  EXPECT_STREQ(record(list, 2)->proxyaddress, "");
  EXPECT_TRUE(Is(answer(a, tqdb_api_resource_rollback(a.h(), a1)), TQDB_API_MSG_TYPE_OK));
  list = resource_list(b, b1);
  ASSERT_NE(record(list, 1), nullptr);
  EXPECT_STREQ(record(list, 1)->proxyaddress, "");
  EXPECT_STREQ(record(list, 1)->proxyuser, "");
  EXPECT_EQ(record(list, 1)->proxy, 0);

  ASSERT_TRUE(Is(answer(a, tqdb_api_resource_begin(a.h(), a1, TQDB_RESOURCE_RESOURCE, 0)),
                 TQDB_API_MSG_TYPE_DATA));
  EXPECT_TRUE(Is(set_proxy(a, a1, 1, "10.9.9.9"), TQDB_API_MSG_TYPE_OK));
  EXPECT_EQ(commit_of(answer(a, tqdb_api_resource_commit(a.h(), a1, "proxy"))).seqno,
            second.seqno + 1);
  EXPECT_EQ(commit_of(b.next()).seqno, second.seqno + 1);
  list = resource_list(b, b1);
  ASSERT_NE(record(list, 1), nullptr);
  EXPECT_STREQ(record(list, 1)->proxyaddress, "10.9.9.9");
  EXPECT_STREQ(record(list, 1)->proxypassword, "ppass");
}

TEST_F(SimTest, StealAndResourceList) {
  SimClient a, b;
  ASSERT_TRUE(connect_login(a, port()));
  ASSERT_TRUE(connect_login(b, port(), "ops", "secret"));
  const uint32_t a1 = open_session(a), b1 = open_session(b);
  ASSERT_TRUE(Is(answer(a, tqdb_api_resource_begin(a.h(), a1, TQDB_RESOURCE_USERS, 0)),
                 TQDB_API_MSG_TYPE_DATA));

  const std::vector<std::pair<uint32_t, const char *>> expected = {
      {1, "ruleset"},  {2, "channels"}, {3, "users"},      {4, "config"},
      {5, "statreader"}, {6, "connlog"}, {7, "sysdiag"},   {8, "backups"},
      {9, "logs"},     {10, "fileserv"}, {11, "resource"}, {12, "hosttrigger"},
      {13, "system_overview"}, {20, "connprot_trigger"},   {23, "dynamicliveview"}};
  auto list = resource_list(b, b1);
  ASSERT_EQ(list.size(), expected.size());
  for (size_t i = 0; i < list.size(); ++i) {
    EXPECT_EQ(list[i].id, expected[i].first);
    EXPECT_STREQ(list[i].name, expected[i].second);
    const bool held = list[i].id == TQDB_RESOURCE_USERS;
    EXPECT_STREQ(list[i].locker, held ? ("admin (session " + std::to_string(a1) + ")").c_str() : "");
    EXPECT_STREQ(list[i].status, held ? "locked" : "idle");
    EXPECT_EQ(list[i].queries, held ? 1u : 0u);
  }

  // The lock moves; the holder is rolled back and told so.
  EnvPtr ok = answer(b, tqdb_api_resource_steal(b.h(), b1, TQDB_RESOURCE_USERS));
  EXPECT_TRUE(Is(ok, TQDB_API_MSG_TYPE_OK));
  EXPECT_EQ(ok->session, b1);
  EnvPtr gone = a.next();
  EXPECT_TRUE(Is(gone, TQDB_API_MSG_TYPE_DETACHED,
                 "Resource 3 (users) was taken over by ops (session " + std::to_string(b1) +
                     "); your transaction was rolled back"));
  ASSERT_TRUE(gone);
  EXPECT_EQ(gone->session, a1);
  EXPECT_EQ(gone->cid, 0u);
  list = resource_list(a, a1);
  ASSERT_NE(record(list, 3), nullptr);
  EXPECT_EQ(record(list, 3)->locker, "ops (session " + std::to_string(b1) + ")");
  EXPECT_TRUE(Is(answer(a, tqdb_api_resource_commit(a.h(), a1, "late")), TQDB_API_MSG_TYPE_ERROR,
                 idle_text(a1)));
  EXPECT_TRUE(Is(answer(a, tqdb_api_resource_begin(a.h(), a1, 3, 0)), TQDB_API_MSG_TYPE_LOCK,
                 lock_text(3, "users", "ops", b1)));

  // Stealing what one holds changes nothing; unknown records are refused.
  EXPECT_TRUE(Is(answer(b, tqdb_api_resource_steal(b.h(), b1, 3)), TQDB_API_MSG_TYPE_OK));
  EXPECT_TRUE(Is(answer(b, tqdb_api_resource_steal(b.h(), b1, 14)), TQDB_API_MSG_TYPE_ERROR,
                 "Unknown resource 14"));
  EXPECT_STREQ(commit_of(answer(b, tqdb_api_resource_commit(b.h(), b1, "stolen"))).log, "stolen");
  EnvPtr told = a.next();
  EXPECT_TRUE(Is(told, TQDB_API_MSG_TYPE_BCAST_COMMIT));
  EXPECT_EQ(told ? told->session : 0, a1);

  // A free resource is simply taken; a session with a transaction open
  // cannot steal another.
  EXPECT_TRUE(Is(answer(a, tqdb_api_resource_steal(a.h(), a1, 2)), TQDB_API_MSG_TYPE_OK));
  EXPECT_TRUE(Is(answer(b, tqdb_api_resource_begin(b.h(), b1, 2, 0)), TQDB_API_MSG_TYPE_LOCK,
                 lock_text(2, "channels", "admin", a1)));
  EXPECT_TRUE(Is(answer(a, tqdb_api_resource_steal(a.h(), a1, 3)), TQDB_API_MSG_TYPE_ERROR,
                 "Session " + std::to_string(a1) +
                     " already has a transaction open on resource 2 (channels)"));
}

TEST_F(SimTest, DisconnectEndsSessionsAndReleasesLocks) {
  SimClient keeper;
  ASSERT_TRUE(connect_login(keeper, port()));
  const uint32_t k = open_session(keeper);

  // One client leaves with a change pending, one with requests unread, one
  // with a reset; each one's lock comes free and its change is undone.
  for (int way = 0; way < 3; ++way) {
    SimClient gone;
    ASSERT_TRUE(connect_login(gone, port()));
    const uint32_t g = open_session(gone);
    ASSERT_TRUE(Is(answer(gone, tqdb_api_resource_begin(gone.h(), g, TQDB_RESOURCE_RESOURCE, 0)),
                   TQDB_API_MSG_TYPE_DATA));
    ASSERT_TRUE(Is(answer(gone, tqdb_api_resource_19303(gone.h(), g, 5, 1, 1, "a", "b", "c")),
                   TQDB_API_MSG_TYPE_OK));
    if (way == 1) {
      ASSERT_NE(tqdb_api_ping(gone.h(), g, "unread"), 0u);
      ASSERT_TRUE(gone.flush());
    }
    gone.close(way == 2);

    EnvPtr env;
    for (int tries = 0; tries < 300; ++tries) {
      env = answer(keeper, tqdb_api_resource_begin(keeper.h(), k, TQDB_RESOURCE_RESOURCE, 0));
      if (!env || env->type != TQDB_API_MSG_TYPE_LOCK) break;
      std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    ASSERT_TRUE(Is(env, TQDB_API_MSG_TYPE_DATA)) << "way " << way;
    const auto list = resource_list(keeper, k);
    ASSERT_NE(record(list, 5), nullptr);
    EXPECT_STREQ(record(list, 5)->proxyaddress, "") << "way " << way;
    EXPECT_EQ(record(list, 5)->enterprise, 0) << "way " << way;
    ASSERT_TRUE(Is(answer(keeper, tqdb_api_resource_rollback(keeper.h(), k)), TQDB_API_MSG_TYPE_OK));
  }
  EXPECT_TRUE(sim_.alive());
}

TEST_F(SimTest, MalformedAndUnknownRequestsGetErrors) {
  SimClient c;
  ASSERT_TRUE(connect_login(c, port()));
  const uint32_t s = open_session(c);
  auto send = [&](uint32_t code, const Bytes &body) {
    EXPECT_TRUE(c.queue_frame(code, body));
    EnvPtr env = c.next();
    EXPECT_TRUE(env) << "no answer to 0x" << std::hex << code;
    return env;
  };
  const std::string short_begin = "Malformed request 0x10201: body too short";

  EnvPtr e = send(0x1abcd, Wire().u32(s).u32(77));
  EXPECT_TRUE(Is(e, TQDB_API_MSG_TYPE_ERROR, "Unknown request code 0x1abcd"));
  EXPECT_EQ(e ? e->session : 0, s);
  EXPECT_EQ(e ? e->cid : 0, 77u);
  EXPECT_TRUE(Is(send(0x20003, {}), TQDB_API_MSG_TYPE_ERROR, "Unknown request code 0x20003"));

  // A begin cut at every position, then whole, then one byte too long.
  const Bytes begin = Wire().u32(s).u32(500).u32(TQDB_RESOURCE_LOGS).u8(0);
  for (size_t cut = 0; cut < begin.size(); ++cut) {
    e = send(TQDB_REQ_BEGIN, Bytes(begin.begin(), begin.begin() + cut));
    EXPECT_TRUE(Is(e, TQDB_API_MSG_TYPE_ERROR, short_begin)) << "cut at " << cut;
    EXPECT_EQ(e ? e->cid : 1, cut >= 8 ? 500u : 0u) << "cut at " << cut;
  }
  EXPECT_TRUE(Is(send(TQDB_REQ_BEGIN, begin), TQDB_API_MSG_TYPE_DATA));
  EXPECT_TRUE(Is(send(TQDB_REQ_ROLLBACK, Wire().u32(s).u32(501)), TQDB_API_MSG_TYPE_OK));
  Bytes longer = begin;
  longer.push_back(0);
  EXPECT_TRUE(Is(send(TQDB_REQ_BEGIN, longer), TQDB_API_MSG_TYPE_ERROR,
                 "Malformed request 0x10201: 1 unexpected bytes after the body"));

  // Strings: a count past the end, a missing NUL, a missing string.
  EXPECT_TRUE(Is(send(TQDB_REQ_PING, Wire().u32(s).u32(1).u32(7).raw("hello")),
                 TQDB_API_MSG_TYPE_ERROR, "Malformed request 0x10103: body too short"));
  EXPECT_TRUE(Is(send(TQDB_REQ_PING, Wire().u32(s).u32(1).u32(5).raw("hello")),
                 TQDB_API_MSG_TYPE_ERROR, "Malformed request 0x10103: string not terminated"));
  EXPECT_TRUE(Is(send(TQDB_REQ_COMMIT, Wire().u32(s).u32(1)), TQDB_API_MSG_TYPE_ERROR,
                 "Malformed request 0x10202: body too short"));
  EXPECT_TRUE(Is(send(TQDB_REQ_RESOURCE_STEAL, Wire().u32(s).u32(1).u16(3)),
                 TQDB_API_MSG_TYPE_ERROR, "Malformed request 0x19305: body too short"));
  EXPECT_TRUE(Is(send(TQDB_REQ_AUTH, Wire().str("admin")), TQDB_API_MSG_TYPE_ERROR,
                 "Malformed request 0x10001: body too short"));
  EXPECT_TRUE(Is(send(TQDB_REQ_PING, Wire().u32(999).u32(2).str("x")), TQDB_API_MSG_TYPE_ERROR,
                 "Unknown session 999"));
  EXPECT_TRUE(Is(send(TQDB_REQ_PING, Wire().u32(0).u32(2).str("x")), TQDB_API_MSG_TYPE_ERROR,
                 "Unknown session 0"));

  // The connection is still in order.
  char echo[16];
  EnvPtr p = answer(c, tqdb_api_ping(c.h(), s, "still here"));
  ASSERT_TRUE(Is(p, TQDB_API_MSG_TYPE_DATA));
  EXPECT_STREQ(tqdb_api_ping_handle(p.get(), echo, sizeof echo), "still here");
}

TEST_F(SimTest, BrokenConnectionsLeaveOthersRunning) {
  SimClient good;
  ASSERT_TRUE(connect_login(good, port()));
  const uint32_t s = open_session(good);

  auto raw = [&](const Bytes &bytes) {
    const int fd = connect_loopback(port());
    EXPECT_GE(fd, 0);
    EXPECT_EQ(::send(fd, bytes.data(), bytes.size(), 0), static_cast<ssize_t>(bytes.size()));
    const bool closed = wait_closed(fd);
    ::close(fd);
    return closed;
  };
  // Not our greeting; the greeting then a public key of zeros; one whose
  // modulus is too small to wrap a 64-byte key.
  EXPECT_TRUE(raw(Wire().raw("GET / HTTP/1.0\r\n\r\n")));
  EXPECT_TRUE(raw(Wire().raw("otne").raw(Bytes(256, 0))));
  Bytes small_key(256, 0);
  small_key[127] = 3;     // e = 3
  small_key[128 + 64] = 1;  // N = 2^504 + 1
  small_key[255] = 1;
  EXPECT_TRUE(raw(Wire().raw("otne").raw(small_key)));
  // Connected and gone at once.
  ::close(connect_loopback(port()));

  // A frame header announcing one byte more than a message holds: the
  // stream is garbage from there on.
  SimClient broken;
  ASSERT_TRUE(connect_login(broken, port()));
  const Bytes header = Wire().u32(TQDB_REQ_PING).u16(TQ_MSG_MAX_DATA + 1);
  ASSERT_EQ(tq_ringbuf_write(broken.h()->wbuf, header.data(), header.size()), header.size());
  ASSERT_TRUE(broken.flush());
  EXPECT_TRUE(wait_closed(broken.fd()));

  EXPECT_TRUE(sim_.alive());
  EXPECT_TRUE(Is(answer(good, tqdb_api_ping(good.h(), s, "ok")), TQDB_API_MSG_TYPE_DATA));
  SimClient late;
  ASSERT_TRUE(connect_login(late, port(), "ops", "secret"));
  EXPECT_NE(open_session(late), 0u);
}

// The client's handshake blocks cut into pieces with pauses between them,
// as a slow network delivers them: each is collected whole, and the stream
// keys agree afterwards.
TEST_F(SimTest, HandshakeArrivingInPiecesIsCollected) {
  ASSERT_NE(client_pubkey(), nullptr);
  const int fd = connect_loopback(port());
  ASSERT_GE(fd, 0);
  auto send_in_pieces = [fd](const Bytes &b, std::vector<size_t> cuts) {
    cuts.push_back(b.size());
    size_t at = 0;
    for (size_t cut : cuts) {
      EXPECT_EQ(::send(fd, b.data() + at, cut - at, 0), static_cast<ssize_t>(cut - at));
      at = cut;
      std::this_thread::sleep_for(std::chrono::milliseconds(30));
    }
  };
  auto receive = [fd](size_t n) {
    Bytes got;
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(3);
    while (got.size() < n && std::chrono::steady_clock::now() < deadline) {
      uint8_t buf[256];
      const ssize_t r = recv(fd, buf, std::min(sizeof buf, n - got.size()), 0);
      if (r > 0) got.insert(got.end(), buf, buf + r);
      if (r == 0) break;
      if (r < 0) std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    return got;
  };

  send_in_pieces(Wire().raw("otne"), {1, 3});
  EXPECT_EQ(receive(4), Wire().raw("zuhl").bytes());
  Bytes key(256);
  mpz_to_bytes(key.data(), client_pubkey()->e, 1024);
  mpz_to_bytes(key.data() + 128, client_pubkey()->N, 1024);
  send_in_pieces(key, {1, 128, 200});
  const Bytes wrapped = receive(128);
  ASSERT_EQ(wrapped.size(), 128u);

  uint8_t server_key[64], own_key[64];
  rsa_decrypt(server_key, wrapped.data(), sizeof server_key, client_privkey());
  for (size_t i = 0; i < sizeof own_key; ++i) own_key[i] = static_cast<uint8_t>(i * 7 + 1);
  vindel_rc4_t to_server, from_server;
  vindel_rc4_init(server_key, sizeof server_key, &to_server);
  vindel_rc4_init(own_key, sizeof own_key, &from_server);
  Bytes sealed(own_key, own_key + sizeof own_key);
  vindel_rc4_crypt(sealed.data(), sealed.size(), &to_server);
  send_in_pieces(sealed, {10, 40});

  Bytes first = receive(6);
  ASSERT_EQ(first.size(), 6u);
  vindel_rc4_crypt(first.data(), first.size(), &from_server);
  EXPECT_EQ(first, Wire().u32(TQDB_REPLY_VERSION).u16(4 + 4 + 8 + 4 + 7).bytes());
  ::close(fd);
}

}  // namespace
