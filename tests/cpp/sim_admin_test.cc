// tqdbsim's file areas and backups through the real protocol: uploads in
// pieces, downloads cut into replies, refused names and sizes, uploads that
// die with their connection, --data across a restart, and backup archives
// dumped, refused when damaged and restored as commits.
#include <gtest/gtest.h>
#include <unistd.h>

#include <filesystem>
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
enum : uint32_t {
  kList = 0x1A201, kRemove = 0x1A202, kDownload = 0x1A203, kStart = 0x1A204, kFinish = 0x1A205,
  kChunks = 0x1A206, kTypes = 0x1A207, kBList = 0x19F01, kBDownload = 0x19F02, kBStart = 0x19F03,
  kDump = 0x19F04, kRestore = 0x19F05, kBChunks = 0x19F07, kBFinish = 0x19F08,
};

struct Client : SimSession {
  // Upload start, one data message per piece, finish; the first refusal.
  EnvPtr upload(const std::string &name, const std::vector<std::string> &pieces, bool backup = false) {
    EnvPtr env = backup ? ask(kBStart, name.c_str()) : ask(kStart, uint32_t{0}, name.c_str());
    uint32_t id = 0;
    if (!env || env->type != kData || !tq_msg_get_uint32(env->msg, &id)) return env;
    for (const std::string &p : pieces) {
      Wire w;
      w.u32(id);
      for (std::size_t at = 0; at < p.size(); at += 4096) w.u16(std::min<std::size_t>(4096, p.size() - at)).raw(p.substr(at, 4096));
      if (env = raw(backup ? kBChunks : kChunks, w); !env || env->type != kOk) return env;
    }
    return backup ? ask(kBFinish, id, name.c_str()) : ask(kFinish, uint32_t{0}, id, name.c_str());
  }
  std::string download(const std::string &name, bool backup = false) {
    const uint32_t cid = backup ? tqdb_api_send(c.h(), kBDownload, s, name.c_str())
                                : tqdb_api_send(c.h(), kDownload, s, uint32_t{0}, name.c_str());
    std::string out;
    uint32_t size = 0;
    uint16_t n = 0;
    for (EnvPtr &env : many(cid)) {
      EXPECT_TRUE(out.size() || tq_msg_get_uint32(env->msg, &size));
      for (tq_msg_t *m = env->msg; tq_msg_get_uint16(m, &n); static_cast<void>(tq_msg_skip(m, n)))
        out.append(reinterpret_cast<const char *>(m->data + m->rpos), n);
    }
    EXPECT_EQ(size, out.size());
    return out;
  }
  std::vector<std::string> names(uint32_t code) {
    std::vector<std::string> out;
    char text[256];
    uint64_t a = 0, b = 0;
    const uint32_t cid = code == kList ? tqdb_api_send(c.h(), code, s, uint32_t{0}) : tqdb_api_send(c.h(), code, s);
    for (EnvPtr &env : many(cid))
      while (tq_msg_get_string_len(env->msg, text, sizeof text) && tq_msg_get_uint64(env->msg, &a) && tq_msg_get_uint64(env->msg, &b)) out.push_back(text);
    return out;
  }
  size_t statistics_objects() {
    tq_list_t *l = nullptr;
    for (EnvPtr &env : many(tqdb_api_send(c.h(), TQDB_REQ_STATISTICSOBJECT_LIST, s)))
      l = tqdb_api_statisticsobject_list_handle(env.get(), l);
    size_t n = 0;
    for (tq_list_t *i = l; i; i = i->next) ++n;
    tq_list_free_with_data(l);
    return n;
  }
  void add_statistics_object(const char *name) {
    ASSERT_EQ(ask(TQDB_REQ_BEGIN, uint32_t{TQDB_RESOURCE_RULESET}, uint8_t{0})->type, kData);
    ASSERT_EQ(ask(TQDB_REQ_STATISTICSOBJECT_ADD, name, uint8_t{0}, uint32_t{0}, uint32_t{0}, uint32_t{60})->type, kData);
    ASSERT_EQ(ask(TQDB_REQ_COMMIT, "add")->type, kData);
  }
};

testing::AssertionResult Is(const EnvPtr &env, uint32_t type, std::string_view text = {}) {
  if (!env) return testing::AssertionFailure() << "no message";
  if (env->type != type || std::string_view(env->error).find(text) == std::string_view::npos)
    return testing::AssertionFailure() << "type " << env->type << " '" << env->error << "'";
  return testing::AssertionSuccess();
}

class SimAdmin : public testing::Test {
 protected:
  void start(std::vector<std::string> args = {}) {
    ASSERT_FALSE(sim_binary().empty()) << "TQDBSIM must name the simulator binary";
    ASSERT_TRUE(sim_.start(args));
    ASSERT_TRUE(a_.open(sim_.port()));
  }
  SimProcess sim_;
  Client a_;
};

TEST_F(SimAdmin, UploadInPiecesDownloadCutIntoReplies) {
  ASSERT_NO_FATAL_FAILURE(start({"--max-reply-bytes", "64"}));
  std::string text;
  for (int i = 0; i < 200; ++i) text.push_back(static_cast<char>(i));
  ASSERT_TRUE(Is(a_.upload("f", {text.substr(0, 7), text.substr(7, 120), text.substr(127)}), kOk));
  const uint32_t cid = tqdb_api_send(a_.c.h(), kDownload, a_.s, uint32_t{0}, "f");
  std::vector<EnvPtr> parts = a_.many(cid);
  // 56 body bytes a message: size + 50, then 54, 54, 42.
  ASSERT_EQ(parts.size(), 4u);
  const Bytes first = Wire().u32(a_.s).u32(cid).u32(200).u16(50).raw(text.substr(0, 50));
  EXPECT_EQ(Bytes(parts[0]->msg->data, parts[0]->msg->data + parts[0]->msg->len), first);
  EXPECT_EQ(a_.download("f"), text);
  EXPECT_EQ(a_.names(kList), std::vector<std::string>{"f"});
  EXPECT_TRUE(Is(a_.ask(kRemove, uint32_t{0}, "f"), kOk));
  EXPECT_TRUE(a_.names(kList).empty());
  EXPECT_EQ(a_.many(tqdb_api_send(a_.c.h(), kTypes, a_.s)).size(), 6u);  // 11 records cut at 56 bytes
}

TEST_F(SimAdmin, BadRequestsAreRefused) {
  ASSERT_NO_FATAL_FAILURE(start());
  struct Row {
    uint32_t code;
    Wire body;
    const char *error;  // empty: accepted
  };
  const Row rows[] = {
      {kStart, Wire().u32(0).str(std::string(255, 'x')), ""},
      {kStart, Wire().u32(0).str(std::string(256, 'x')), "at most 255 bytes, not 256"},
      {kStart, Wire().u32(0).str(""), "cannot be empty"},
      {kStart, Wire().u32(0).str("a/b"), "'/'"},
      {kStart, Wire().u32(0).str("x..y"), "'..'"},
      {kStart, Wire().u32(0).str(std::string_view("a\0b", 3)), "NUL"},
      {kStart, Wire().u32(11).str("f"), "Unknown file type 11 (file types are 0 to 10)"},
      {kStart, Wire().u32(7).str("f"), "The documentation area cannot be written"},
      {kDownload, Wire().u32(10).str("f"), "firmware_upload area cannot be downloaded"},
      {kDownload, Wire().u32(0).str("f"), "No file 'f' in the hosttrigger area"},
      {kRemove, Wire().u32(0).str("f"), "No file 'f' in the hosttrigger area"},
      {kChunks, Wire().u32(999), "No upload in progress with transfer id 999"},
      {kChunks, Wire().u32(1).u16(3).raw("ab"), "Malformed request 0x1a206: body too short"},
      {kChunks, Wire().u32(1).u16(4097).raw(std::string(4097, 'x')), "a chunk of 4097 bytes"},
      {kChunks, Wire().u32(1).u16(4096).raw(std::string(4096, 'x')), ""},
      {kFinish, Wire().u32(0).u32(1).str("other"), "Transfer 1 uploads 'xxx"},
  };
  for (const Row &r : rows)
    EXPECT_TRUE(*r.error ? Is(a_.raw(r.code, r.body), kErr, r.error) : Is(a_.raw(r.code, r.body), r.code == kStart ? kData : kOk))
        << std::hex << r.code << " expecting '" << r.error << "'";
}

TEST_F(SimAdmin, UploadsAreBoundedAndDieWithTheirConnection) {
  ASSERT_NO_FATAL_FAILURE(start({"--max-file-bytes", "100"}));
  EXPECT_TRUE(Is(a_.upload("full", {std::string(60, 'a'), std::string(40, 'b')}), kOk));
  EXPECT_TRUE(Is(a_.upload("over", {std::string(60, 'a'), std::string(41, 'b')}), kErr,
                 "passes the largest file size of 100 bytes; the upload was discarded"));
  EXPECT_TRUE(Is(a_.ask(kFinish, uint32_t{0}, uint32_t{2}, "over"), kErr, "No upload in progress with transfer id 2"));
  Client b;
  ASSERT_TRUE(b.open(sim_.port()));
  for (int i = 0; i < 16; ++i) ASSERT_TRUE(Is(b.ask(kStart, uint32_t{0}, "part"), kData));
  EXPECT_TRUE(Is(b.ask(kStart, uint32_t{0}, "part"), kErr, "already has 16 uploads in progress"));
  EXPECT_TRUE(Is(a_.raw(kChunks, Wire().u32(3).u16(1).raw("z")), kErr, "No upload in progress with transfer id 3"));
  ASSERT_TRUE(Is(b.raw(kChunks, Wire().u32(3).u16(1).raw("z")), kOk));
  b.c.close(true);  // mid-upload
  ASSERT_TRUE(b.open(sim_.port()));
  EXPECT_TRUE(Is(b.ask(kFinish, uint32_t{0}, uint32_t{3}, "part"), kErr, "No upload in progress with transfer id 3"));
  EXPECT_TRUE(Is(b.ask(kStart, uint32_t{0}, "part"), kData));  // the dead connection's 16 are gone
  EXPECT_EQ(a_.names(kList), std::vector<std::string>{"full"});
}

TEST_F(SimAdmin, BackupsDumpRefuseDamageAndRestoreAsCommits) {
  ASSERT_NO_FATAL_FAILURE(start());
  ASSERT_NO_FATAL_FAILURE(a_.add_statistics_object("one"));
  EnvPtr named = a_.ask(kDump, "b1", uint32_t{TQDB_RESOURCE_RULESET});
  ASSERT_TRUE(Is(named, kData));
  char text[256] = "";
  EXPECT_TRUE(tq_msg_get_string_len(named->msg, text, sizeof text) && std::string(text) == "b1");
  EXPECT_TRUE(Is(a_.ask(kDump, "b2", uint32_t{5}), kErr, "Resource 5 (statreader) is not kept in backups; these are: 1 (ruleset), 2 (channels), 3 (users), 4 (config), 7 (sysdiag), 9 (logs), 12 (hosttrigger), 13 (system_overview), 20 (connprot_trigger), 23 (dynamicliveview)"));
  ASSERT_NO_FATAL_FAILURE(a_.add_statistics_object("two"));

  const std::string archive = a_.download("b1", true);
  EXPECT_NE(archive.find("\"backup\""), std::string::npos);
  ASSERT_TRUE(Is(a_.upload("cut", {archive.substr(0, archive.size() / 2)}, true), kOk));
  ASSERT_TRUE(Is(a_.upload("bad", {"{\"format\": 1, \"backup\": {}, \"ruleset\": {\"objects\": [{\"name\": 5}]}}"}, true), kOk));
  EXPECT_TRUE(Is(a_.ask(kRestore, "cut", uint32_t{0}), kErr, "Backup 'cut' is damaged: line"));
  EXPECT_TRUE(Is(a_.ask(kRestore, "bad", uint32_t{0}), kErr, "Backup 'bad' is damaged: ruleset.objects[0].name: expected a string"));
  EXPECT_TRUE(Is(a_.ask(kRestore, "b1", uint32_t{3}), kErr, "Backup 'b1' holds no resource 3 (users)"));
  EXPECT_EQ(a_.statistics_objects(), 2u);
  EXPECT_EQ(a_.names(kBList), (std::vector<std::string>{"b1", "bad", "cut"}));

  Client b;
  ASSERT_TRUE(b.open(sim_.port()));
  ASSERT_TRUE(Is(b.ask(TQDB_REQ_BEGIN, uint32_t{TQDB_RESOURCE_RULESET}, uint8_t{0}), kData));
  EXPECT_TRUE(Is(a_.ask(kRestore, "b1", uint32_t{0}), kLock, "Resource 1 (ruleset) is locked by admin"));
  ASSERT_TRUE(Is(b.ask(TQDB_REQ_ROLLBACK), kOk));
  EXPECT_TRUE(Is(a_.ask(kRestore, "b1", uint32_t{0}), kOk));
  EnvPtr notice = b.c.next();
  ASSERT_TRUE(notice && notice->type == TQDB_API_MSG_TYPE_BCAST_COMMIT);
  EXPECT_EQ(b.statistics_objects(), 1u);
}

TEST_F(SimAdmin, DataAndStateSurviveARestart) {
  const std::string dir = testing::TempDir() + "tqsim_admin_" + std::to_string(getpid());
  const std::string state = dir + "/state.json";
  std::filesystem::create_directories(dir);
  std::ofstream(state) << "{\"format\": 1, \"ruleset\": {}}";  // written before users and levels were kept
  ASSERT_NO_FATAL_FAILURE(start({"--data", dir, "--state", state}));
  ASSERT_TRUE(Is(a_.upload("kept", {"contents"}), kOk));
  ASSERT_NO_FATAL_FAILURE(a_.add_statistics_object("one"));
  ASSERT_TRUE(Is(a_.ask(kDump, "", uint32_t{0}), kData));
  EXPECT_TRUE(std::filesystem::is_regular_file(dir + "/hosttrigger/kept"));
  a_.c.close();
  ASSERT_EQ(sim_.stop(), 0);

  ASSERT_NO_FATAL_FAILURE(start({"--data", dir, "--state", state}));
  EXPECT_EQ(a_.download("kept"), "contents");
  EXPECT_EQ(a_.statistics_objects(), 1u);
  const auto backups = a_.names(kBList);
  ASSERT_EQ(backups.size(), 1u);
  EXPECT_EQ(backups[0].rfind("backup-", 0), 0u) << backups[0];
  std::string saved;
  std::getline(std::ifstream(state), saved, '\0');
  for (const char *member : {"\"ruleset\"", "\"liveviews\"", "\"users\"", "\"levels\""})
    EXPECT_NE(saved.find(member), std::string::npos) << member;

  std::ofstream(state) << "{\"format\": 1, \"users\": 5}";
  const SimRun broken = run_sim({"--state", state, "--port", "0"});
  EXPECT_EQ(broken.exit_code, 2);
  EXPECT_NE(broken.err.find("users: expected an object"), std::string::npos) << broken.err;
  std::filesystem::remove_all(dir);
}

}  // namespace
