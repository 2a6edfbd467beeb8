// The logger: printed lines, levels and threshold, the fatal path, and the
// level table exchanged with the appliance.
#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

#include "support/log_capture.h"
#include "support/wire.h"
#include "tq_log.h"
#include "tq_msg.h"

namespace {

using namespace tqtest;

// The facility table as the appliance documents it, kept apart from the
// library's own table so that a slip there shows up.
const std::vector<std::string> kNames = {
    "Interface", "Memory", "Linklevel", "IPv4", "Host", "TCP", "Connections", "Services",
    "Ruleset", "Firewall", "Shaping", "List", "PPPoE", "DRDL", "General", "Connlog", "Proxy",
    "Backup", "Morvaind", "TQDB", "Client", "Sysdiag", "Config", "Channel", "BGP", "Net",
    "Layer 4", "TQSD", "VBS", "Enterprise", "BCM", "Yukon", "Locks", "Virt", "E1K", "Bypass",
    "Statistics", "Audit Modify", "Divert", "Audit View", "E10K", "SNMP", "IPv6", "Shunt", "Mux",
    "Diameter", "ipfix", "Database Audit Modify", "Database Audit View", "Statsfs", "DEBUG",
    "Trigger", "Sorvik", "Rewrite", "Natsync", "VMXNet", "Enrich", "LB", "HTTPD", "TQSCD",
    "Datacore", "Host Stats", "TQCOMMD", "Tunnel", "I40E"};

unsigned default_level(const std::string &name) {
  if (name.find("Audit") != std::string::npos) return 4;
  return name == "DEBUG" ? 7 : 6;
}

const std::string kMismatch = "[General:Warning] Mismatch in number of expected log facilities. ";

// Captured lines at the library's default levels and threshold.
class Log : public ::testing::Test {
 protected:
  LogCapture capture;
  std::vector<std::string> &lines = capture.lines;

  void SetUp() override { tq_log_reset_levels(); }
  void expect_all_levels(unsigned (*want)(const std::string &)) {
    for (unsigned i = 0; i < kNames.size(); ++i)
      EXPECT_EQ(tq_log_get_level(i), want(kNames[i])) << kNames[i];
  }
  bool logged(const std::string &line) const {
    return std::find(lines.begin(), lines.end(), line) != lines.end();
  }
  void expect_levels_read(const Wire &w, bool ok) { EXPECT_EQ(tq_log_msg_get(make_msg(0, w).get()), ok); }
};

TEST_F(Log, PrintedLineAndThreshold) {
  tq_log(TQ_LOG_FAC_GENERAL, 2, "level %d", 2);  // above the default threshold 1
  tq_log(TQ_LOG_FAC_GENERAL, 1, "a%sc", "b");
  tq_log(5, 0, "zero");
  tq_log_set_threshold(2);
  tq_log(TQ_LOG_FAC_GENERAL, 2, "now");
  tq_log(TQ_LOG_FAC_GENERAL, 3, "not yet");
  tq_log_set_threshold(5);
  tq_log(47, 5, "n");  // blanks in the facility name
  tq_log(47, 6, "not shown");
  EXPECT_EQ(lines, (std::vector<std::string>{"[General:Alert] abc", "[TCP:Emergency] zero",
                                             "[General:Critical] now",
                                             "[Database Audit Modify:Notice] n"}));
}

TEST_F(Log, TextIsCutAt4095Characters) {
  for (size_t n : {4094u, 4095u, 4096u}) {
    lines.clear();
    tq_log(TQ_LOG_FAC_MEMORY, 1, "%s", std::string(n, 'x').c_str());
    const std::string want = "[Memory:Alert] " + std::string(n < 4095 ? n : 4095, 'x');
    EXPECT_EQ(lines, std::vector<std::string>{want}) << n;
  }
}

TEST_F(Log, LevelSettersIgnoreOutOfRange) {
  tq_log_set_level(65, 3);
  tq_log_set_level(0, 9);
  tq_log_set_level(TQ_LOG_FAC_GENERAL, 100);
  EXPECT_FALSE(tq_log_set_all_levels(9));
  expect_all_levels(default_level);
  EXPECT_EQ(tq_log_get_threshold(), 1u);
  EXPECT_EQ(tq_log_get_level(65), 0u);
  EXPECT_FALSE(tq_log_enabled(65, 0));

  // The last valid facility and level are taken.
  tq_log_set_level(64, 8);
  tq_log_set_level(0, 0);
  EXPECT_EQ(tq_log_get_level(64), 8u);
  EXPECT_EQ(tq_log_get_level(0), 0u);
  EXPECT_TRUE(tq_log_enabled(64, 8));
  EXPECT_FALSE(tq_log_enabled(0, 1));

  EXPECT_TRUE(tq_log_set_all_levels(8));
  expect_all_levels([](const std::string &) { return 8u; });
  tq_log_reset_levels();
  expect_all_levels(default_level);
  EXPECT_EQ(tq_log_get_threshold(), 1u);
}

TEST_F(Log, FacilityLookup) {
  ASSERT_EQ(kNames.size(), TQ_LOG_NUM_FACILITIES);
  for (unsigned i = 0; i < kNames.size(); ++i) {
    EXPECT_EQ(tq_log_facility_lookup(kNames[i].c_str()), int(i)) << kNames[i];
    EXPECT_STREQ(tq_log_facility_name(i), kNames[i].c_str());
  }
  for (const char *miss : {"general", "Genera", "General ", " General", "Generall", "Layer4",
                           "Audit  Modify", "IPFIX", "", "Database Audit"})
    EXPECT_EQ(tq_log_facility_lookup(miss), -1) << '"' << miss << '"';
  EXPECT_EQ(tq_log_facility_lookup(nullptr), -1);
  EXPECT_EQ(tq_log_facility_name(65), nullptr);
  EXPECT_EQ(tq_log_level_name(9), nullptr);
  EXPECT_STREQ(tq_log_level_name(8), "Verbose");
}

// The library's table must be these bytes; reading them back cut anywhere
// applies exactly the entries wholly before the cut.
TEST_F(Log, LevelTableBytesAndCutAtEveryPosition) {
  auto lvl = [](unsigned i) { return uint8_t((i * 4 + 1) % 9); };  // 0 to 8 all occur
  Wire w;
  w.u16(65);
  std::vector<size_t> name_end;  // offset just past each name's NUL
  for (unsigned i = 0; i < kNames.size(); ++i) {
    w.str(kNames[i]);
    name_end.push_back(w.size());
    w.u8(lvl(i));
    tq_log_set_level(i, lvl(i));
  }
  auto put = make_msg(0, {});
  tq_log_msg_put(put.get());
  ASSERT_EQ(std::vector<uint8_t>(put->data, put->data + put->len), w.bytes());

  for (size_t cut = 0; cut <= w.size(); ++cut) {
    SCOPED_TRACE(cut);
    tq_log_reset_levels();
    tq_log_set_threshold(8);
    lines.clear();
    // The whole table sits in the buffer: only len may stop the reader.
    auto m = make_msg(0, w);
    m->len = uint16_t(cut);
    EXPECT_EQ(tq_log_msg_get(m.get()), cut == w.size());
    EXPECT_LE(m->rpos, cut);
    size_t whole = 0;
    while (whole < name_end.size() && name_end[whole] < cut) ++whole;
    for (unsigned i = 0; i < 65; ++i)
      ASSERT_EQ(tq_log_get_level(i), i < whole ? lvl(i) : default_level(kNames[i])) << kNames[i];
    if (cut == w.size()) {
      EXPECT_EQ(m->rpos, cut);
      continue;
    }
    ASSERT_FALSE(lines.empty());
    EXPECT_EQ(lines.back(),
              cut < 2 ? "[General:Error] Failed to read number of log facilities from tq_msg_t."
              : cut == name_end[whole] ? "[General:Error] Failed to read log facility level."
                                       : "[General:Error] Failed to read log facility name.");
  }
}

TEST_F(Log, ReceivedTableOfOtherLength) {
  tq_log_set_threshold(8);
  Wire w;
  w.u16(66).str("Quantum").u8(2);  // the peer knows one facility more, sent first
  for (const auto &n : kNames) w.str(n).u8(7);
  expect_levels_read(w, true);
  expect_all_levels([](const std::string &) { return 7u; });
  EXPECT_EQ(lines.front(), kMismatch + "Got=66 Expected=65. Continuing with those I got.");
  EXPECT_TRUE(logged("[General:Warning] Failed to find any log facility named 'Quantum'."));
  // "General" is at 7 from its own entry on, so only the later entries are told.
  EXPECT_FALSE(logged("[General:Debug] Setting loglevel Debug for [DRDL]"));
  EXPECT_TRUE(logged("[General:Debug] Setting loglevel Debug for [Connlog]"));
  EXPECT_TRUE(logged("[General:Debug] Setting loglevel Debug for [I40E]"));

  // Shorter: the rest keep their levels and a repeated name takes the later
  // level; a count of 0 succeeds at once.
  lines.clear();
  expect_levels_read(Wire().u16(2).str("TCP").u8(1).str("TCP").u8(3), true);
  EXPECT_EQ(tq_log_get_level(5), 3u);
  EXPECT_EQ(tq_log_get_level(6), 7u);
  EXPECT_EQ(lines.front(), kMismatch + "Got=2 Expected=65. Continuing with those I got.");
  lines.clear();
  auto m = make_msg(0, Wire().u16(0).str("TCP").u8(0));
  EXPECT_TRUE(tq_log_msg_get(m.get()));
  EXPECT_EQ(m->rpos, 2);
  EXPECT_EQ(tq_log_get_level(5), 3u);
  EXPECT_EQ(lines.size(), 1u);
}

TEST_F(Log, ReceivedEntriesSkipped) {
  tq_log_set_threshold(8);
  const std::string long_name(100, 'n');  // cut to 63 characters, unknown
  auto m = make_msg(0, Wire().u16(5).str(long_name).u8(2).str("TCP").u8(9).str("Host").u8(8)
                        .str("").u8(1).str("IPv4").u8(0));
  EXPECT_TRUE(tq_log_msg_get(m.get()));
  EXPECT_EQ(m->rpos, m->len);
  EXPECT_EQ(tq_log_get_level(5), 6u);
  EXPECT_EQ(tq_log_get_level(4), 8u);
  EXPECT_EQ(tq_log_get_level(3), 0u);
  const std::vector<std::string> want = {
      kMismatch + "Got=5 Expected=65. Continuing with those I got.",
      "[General:Warning] Failed to find any log facility named '" + long_name.substr(0, 63) + "'.",
      "[General:Warning] Log level=9 is too high for 'TCP'.",
      "[General:Warning] Failed to find any log facility named ''."};
  EXPECT_EQ(lines, want) << "\"Setting loglevel\" needs General above 6";

  // One more and it is told.
  lines.clear();
  tq_log_set_level(TQ_LOG_FAC_GENERAL, 7);
  expect_levels_read(Wire().u16(65).str("IPv4").u8(3), false);
  EXPECT_EQ(tq_log_get_level(3), 3u);
  EXPECT_EQ(lines, (std::vector<std::string>{"[General:Debug] Setting loglevel Error for [IPv4]",
                                             "[General:Error] Failed to read log facility name."}));

  // Below 4 the warnings stay quiet, but the entries are still skipped.
  lines.clear();
  tq_log_set_level(TQ_LOG_FAC_GENERAL, 3);
  expect_levels_read(Wire().u16(2).str("Nope").u8(1).str("Host").u8(9), true);
  EXPECT_TRUE(lines.empty());
  EXPECT_EQ(tq_log_get_level(4), 8u);
}

TEST_F(Log, BadnessLogsAndContinues) {
  tq_log_set_threshold(4);
  const std::string at = "[General:Warning] TQ-BADNESS at tests/cpp/log_test.cc:";
  int x = 3;
  int line = __LINE__ + 1;
  EXPECT_TRUE(TQ_BADNESS_ON(x == 3, "x=%d", x));
  EXPECT_FALSE(TQ_BADNESS_ON(x == 4, "never"));
  const int line2 = __LINE__ + 1;
  TQ_BADNESS("plain %s", "text");
  EXPECT_EQ(lines, (std::vector<std::string>{
                       at + std::to_string(line) + "/TestBody(): x == 3  x=3",
                       at + std::to_string(line2) + "/TestBody(): plain text"}));

  // "General" at 3: nothing is logged, the caller still bails out.
  lines.clear();
  tq_log_set_level(TQ_LOG_FAC_GENERAL, 3);
  EXPECT_TRUE(TQ_BADNESS_ON(x > 0, ""));
  EXPECT_TRUE(lines.empty());
}

using LogDeathTest = Log;

TEST_F(LogDeathTest, BugIsPrintedAndAborts) {
  tq_log_set_stderr(true);
  const void *p = nullptr;
  const std::string at = "[General:Alert] TQ-BUG at tests/cpp/log_test.cc:";
  int line = __LINE__ + 1;
  EXPECT_DEATH(TQ_BUG_ON(p == TQ_NULL, "n=%d", 7),
               re_escape(at + std::to_string(line) + "/TestBody(): p == ((void *)0)  n=7\n"));
  line = __LINE__ + 1;
  EXPECT_DEATH(TQ_BUG("no condition"),
               re_escape(at + std::to_string(line) + "/TestBody(): no condition\n"));

  // "General" at 2 still prints; below 2 the process dies without a word.
  tq_log_set_level(TQ_LOG_FAC_GENERAL, 2);
  EXPECT_DEATH(TQ_BUG("at two"), re_escape("(): at two"));
  tq_log_set_level(TQ_LOG_FAC_GENERAL, 1);
  EXPECT_DEATH(TQ_BUG("at one"), "^$");
}

TEST_F(LogDeathTest, LevelTableOutOfSpace) {
  tq_log_set_stderr(true);
  const std::string want =
      "/tq_log_msg_put(): tq_msg_free_bytes (msg) == 0  Out of space in tq_msg_t";
  auto m = make_msg(0, {});
  m->len = uint16_t(TQ_MSG_MAX_DATA);
  EXPECT_DEATH(tq_log_msg_put(m.get()), "TQ-BUG at common/log\\.cc:[0-9]+" + re_escape(want));
  // Room for the count but not a whole entry: puts are dropped until full.
  m->len = uint16_t(TQ_MSG_MAX_DATA - 10);
  EXPECT_DEATH(tq_log_msg_put(m.get()), re_escape(want));
}

TEST_F(Log, LibInit) {
  tq_log_set_threshold(8);
  ASSERT_TRUE(tq_lib_init(0));
  EXPECT_TRUE(logged("[General:Info] LOGFILE STARTED"));
  // A second user only counts: its flags change nothing.
  lines.clear();
  EXPECT_TRUE(tq_lib_init(TQ_INIT_THREAD | TQ_INIT_QUIET));
  EXPECT_TRUE(lines.empty());
  expect_all_levels(default_level);
  tq_lib_deinit();
  tq_lib_deinit();

  // A fresh quiet start: every facility at "Error", so nothing is logged.
  lines.clear();
  ASSERT_TRUE(tq_lib_init(TQ_INIT_THREAD | TQ_INIT_QUIET));
  expect_all_levels([](const std::string &) { return 3u; });
  EXPECT_FALSE(logged("[General:Info] LOGFILE STARTED"));
  // The caches work after start-up and after the last user has left.
  for (bool up : {true, false}) {
    tq_msg_t *m = tq_msg_new(1);
    ASSERT_NE(m, nullptr) << up;
    tq_msg_free(m);
    if (up) tq_lib_deinit();
  }
}

}  // namespace
