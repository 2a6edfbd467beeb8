// The logger: printed lines, levels and threshold, the fatal path, and the
// level table exchanged with the appliance.
#include <gtest/gtest.h>

#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "tq_log.h"
#include "tq_msg.h"

namespace {

// The facility table as the appliance documents it, written out here on its
// own so that a slip in the library's table shows up.
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
  if (name == "Audit Modify" || name == "Audit View" || name == "Database Audit Modify" ||
      name == "Database Audit View")
    return 4;
  return name == "DEBUG" ? 7 : 6;
}

std::string re_escape(const std::string &s) {
  std::string out;
  for (char c : s) {
    if (std::strchr("\\^$.|?*+()[]{}", c) != nullptr) out += '\\';
    out += c;
  }
  return out;
}

// Builds received tables byte by byte, independently of the put primitives.
struct wire {
  std::vector<uint8_t> b;
  wire &u8(uint8_t v) { b.push_back(v); return *this; }
  wire &u16(uint16_t v) { return u8(uint8_t(v >> 8)).u8(uint8_t(v)); }
  wire &u32(uint32_t v) { return u16(uint16_t(v >> 16)).u16(uint16_t(v)); }
  wire &str(const std::string &s) {
    u32(uint32_t(s.size() + 1));
    b.insert(b.end(), s.begin(), s.end());
    return u8(0);
  }
  wire &entry(const std::string &name, uint8_t level) { return str(name).u8(level); }
};

std::unique_ptr<tq_msg_t> make_msg(const std::vector<uint8_t> &bytes) {
  auto m = std::make_unique<tq_msg_t>();
  tq_msg_init(m.get(), 0);
  if (!bytes.empty()) std::memcpy(m->data, bytes.data(), bytes.size());
  m->len = uint16_t(bytes.size());
  return m;
}

class Log : public ::testing::Test {
 protected:
  std::vector<std::string> lines;

  static void sink(const char *line, void *ctx) {
    static_cast<std::vector<std::string> *>(ctx)->push_back(line);
  }
  void SetUp() override {
    tq_log_reset_levels();
    tq_log_set_sink(&sink, &lines);
    tq_log_set_stderr(false);
  }
  void TearDown() override {
    tq_log_set_sink(nullptr, nullptr);
    tq_log_set_stderr(true);
    tq_log_reset_levels();
  }
  void expect_defaults() {
    for (unsigned i = 0; i < kNames.size(); ++i)
      EXPECT_EQ(tq_log_get_level(i), default_level(kNames[i])) << kNames[i];
  }
  bool logged(const std::string &line) const {
    for (const auto &l : lines)
      if (l == line) return true;
    return false;
  }
};

TEST_F(Log, PrintedLineAndThreshold) {
  tq_log(TQ_LOG_FAC_GENERAL, 2, "level %d", 2);
  EXPECT_TRUE(lines.empty()) << "level 2 passed the default threshold 1";

  tq_log(TQ_LOG_FAC_GENERAL, 1, "a%sc", "b");
  tq_log(5, 0, "zero");
  ASSERT_EQ(lines.size(), 2u);
  EXPECT_EQ(lines[0], "[General:Alert] abc");
  EXPECT_EQ(lines[1], "[TCP:Emergency] zero");

  lines.clear();
  tq_log_set_threshold(2);
  tq_log(TQ_LOG_FAC_GENERAL, 2, "now");
  tq_log(TQ_LOG_FAC_GENERAL, 3, "not yet");
  ASSERT_EQ(lines.size(), 1u);
  EXPECT_EQ(lines[0], "[General:Critical] now");

  // A facility with blanks in its name, a level name not seen elsewhere.
  lines.clear();
  tq_log_set_threshold(5);
  tq_log(47, 5, "n");
  tq_log(47, 6, "not shown");
  EXPECT_EQ(lines, std::vector<std::string>{"[Database Audit Modify:Notice] n"});
}

TEST_F(Log, TextIsCutAt4095Characters) {
  for (size_t n : {4094u, 4095u, 4096u, 5000u}) {
    lines.clear();
    const std::string text(n, 'x');
    tq_log(TQ_LOG_FAC_MEMORY, 1, "%s", text.c_str());
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_EQ(lines[0], "[Memory:Alert] " + std::string(n < 4095 ? n : 4095, 'x')) << n;
  }
}

TEST_F(Log, LevelSettersIgnoreOutOfRange) {
  tq_log_set_level(65, 3);
  tq_log_set_level(0, 9);
  tq_log_set_level(TQ_LOG_FAC_GENERAL, 100);
  EXPECT_FALSE(tq_log_set_all_levels(9));
  expect_defaults();
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
  for (unsigned i = 0; i < 65; ++i) EXPECT_EQ(tq_log_get_level(i), 8u);
  tq_log_reset_levels();
  expect_defaults();
  EXPECT_EQ(tq_log_get_threshold(), 1u);
}

TEST_F(Log, FacilityLookup) {
  ASSERT_EQ(kNames.size(), TQ_LOG_NUM_FACILITIES);
  for (unsigned i = 0; i < kNames.size(); ++i) {
    EXPECT_EQ(tq_log_facility_lookup(kNames[i].c_str()), int(i)) << kNames[i];
    EXPECT_STREQ(tq_log_facility_name(i), kNames[i].c_str());
  }
  for (const char *miss : {"general", "GENERAL", "Genera", "General ", " General", "Generall",
                           "Layer4", "Audit  Modify", "IPFIX", "", "Database Audit"})
    EXPECT_EQ(tq_log_facility_lookup(miss), -1) << '"' << miss << '"';
  EXPECT_EQ(tq_log_facility_lookup(nullptr), -1);
  EXPECT_EQ(tq_log_facility_name(65), nullptr);
  EXPECT_EQ(tq_log_level_name(9), nullptr);
  EXPECT_STREQ(tq_log_level_name(8), "Verbose");
}

TEST_F(Log, LevelTableBytes) {
  tq_log_set_level(1, 0);  // "Memory"
  auto m = make_msg({});
  tq_log_msg_put(m.get());

  const std::vector<uint8_t> head = {
      0x00, 0x41,                                                          // 65 entries
      0x00, 0x00, 0x00, 0x0a, 'I', 'n', 't', 'e', 'r', 'f', 'a', 'c', 'e', 0x00, 0x06,
      0x00, 0x00, 0x00, 0x07, 'M', 'e', 'm', 'o', 'r', 'y', 0x00, 0x00,
      0x00, 0x00, 0x00, 0x0a, 'L', 'i', 'n', 'k', 'l', 'e', 'v', 'e', 'l', 0x00, 0x06,
  };
  ASSERT_GE(m->len, head.size());
  EXPECT_EQ(std::vector<uint8_t>(m->data, m->data + head.size()), head);

  // Every entry: u32 count, name, NUL, level byte.
  size_t total = 2;
  for (const auto &n : kNames) total += 4 + n.size() + 1 + 1;
  EXPECT_EQ(m->len, total);
}

TEST_F(Log, LevelTableRoundTrip) {
  for (unsigned i = 0; i < 65; ++i) tq_log_set_level(i, (i * 5) % 9);
  auto m = make_msg({});
  tq_log_msg_put(m.get());
  tq_log_reset_levels();
  EXPECT_TRUE(tq_log_msg_get(m.get()));
  EXPECT_EQ(m->rpos, m->len);
  for (unsigned i = 0; i < 65; ++i) EXPECT_EQ(tq_log_get_level(i), (i * 5) % 9) << i;
}

TEST_F(Log, ReceivedTableWithMoreEntries) {
  tq_log_set_threshold(8);
  // The peer knows one facility more, sent first.
  wire w;
  w.u16(66).entry("Quantum", 2);
  for (const auto &n : kNames) w.entry(n, 7);
  auto m = make_msg(w.b);
  EXPECT_TRUE(tq_log_msg_get(m.get()));
  for (unsigned i = 0; i < 65; ++i) EXPECT_EQ(tq_log_get_level(i), 7u) << kNames[i];
  EXPECT_EQ(lines.front(),
            "[General:Warning] Mismatch in number of expected log facilities. Got=66 "
            "Expected=65. Continuing with those I got.");
  EXPECT_TRUE(logged("[General:Warning] Failed to find any log facility named 'Quantum'."));
  // "General" is at 7 from its own entry on, so the later entries are told.
  EXPECT_FALSE(logged("[General:Debug] Setting loglevel Debug for [DRDL]"));
  EXPECT_TRUE(logged("[General:Debug] Setting loglevel Debug for [Connlog]"));
  EXPECT_TRUE(logged("[General:Debug] Setting loglevel Debug for [I40E]"));

  // A shorter table: the rest keep their levels, a repeated name takes the
  // later level; a count of 0 succeeds at once.
  lines.clear();
  w = wire{};
  w.u16(2).entry("TCP", 1).entry("TCP", 3);
  m = make_msg(w.b);
  EXPECT_TRUE(tq_log_msg_get(m.get()));
  EXPECT_EQ(tq_log_get_level(5), 3u);
  EXPECT_EQ(tq_log_get_level(6), 7u);
  EXPECT_EQ(lines.front(),
            "[General:Warning] Mismatch in number of expected log facilities. Got=2 "
            "Expected=65. Continuing with those I got.");

  lines.clear();
  m = make_msg(wire{}.u16(0).entry("TCP", 0).b);
  EXPECT_TRUE(tq_log_msg_get(m.get()));
  EXPECT_EQ(m->rpos, 2);
  EXPECT_EQ(tq_log_get_level(5), 3u);
  EXPECT_EQ(lines.size(), 1u);
}

TEST_F(Log, ReceivedEntriesSkipped) {
  tq_log_set_threshold(8);
  const std::string long_name(100, 'n');
  wire w;
  w.u16(5)
      .entry(long_name, 2)    // cut to 63 characters, unknown
      .entry("TCP", 9)        // level too high
      .entry("Host", 8)       // highest level
      .entry("", 1)           // empty name
      .entry("IPv4", 0);
  auto m = make_msg(w.b);
  EXPECT_TRUE(tq_log_msg_get(m.get()));
  EXPECT_EQ(m->rpos, m->len);
  EXPECT_EQ(tq_log_get_level(5), 6u);
  EXPECT_EQ(tq_log_get_level(4), 8u);
  EXPECT_EQ(tq_log_get_level(3), 0u);
  const std::vector<std::string> want = {
      "[General:Warning] Mismatch in number of expected log facilities. Got=5 Expected=65. "
      "Continuing with those I got.",
      "[General:Warning] Failed to find any log facility named '" + long_name.substr(0, 63) +
          "'.",
      "[General:Warning] Log level=9 is too high for 'TCP'.",
      "[General:Warning] Failed to find any log facility named ''.",
  };
  EXPECT_EQ(lines, want) << "\"Setting loglevel\" needs General above 6";

  // One more and it is told.
  lines.clear();
  tq_log_set_level(TQ_LOG_FAC_GENERAL, 7);
  m = make_msg(wire{}.u16(65).entry("IPv4", 3).b);
  EXPECT_FALSE(tq_log_msg_get(m.get()));
  EXPECT_EQ(tq_log_get_level(3), 3u);
  ASSERT_EQ(lines.size(), 2u);
  EXPECT_EQ(lines[0], "[General:Debug] Setting loglevel Error for [IPv4]");
  EXPECT_EQ(lines[1], "[General:Error] Failed to read log facility name.");

  // Below 4 the warnings stay quiet, but the entries are still skipped.
  lines.clear();
  tq_log_set_level(TQ_LOG_FAC_GENERAL, 3);
  m = make_msg(wire{}.u16(2).entry("Nope", 1).entry("Host", 9).b);
  EXPECT_TRUE(tq_log_msg_get(m.get()));
  EXPECT_TRUE(lines.empty());
  EXPECT_EQ(tq_log_get_level(4), 8u);
}

TEST_F(Log, ReceivedTableCutAtEveryPosition) {
  wire w;
  w.u16(65);
  std::vector<size_t> name_end;  // offset just past each name's NUL
  for (unsigned i = 0; i < kNames.size(); ++i) {
    w.str(kNames[i]);
    name_end.push_back(w.b.size());
    w.u8(uint8_t((i * 4 + 1) % 9));
  }
  const std::vector<uint8_t> &full = w.b;

  for (size_t cut = 0; cut <= full.size(); ++cut) {
    SCOPED_TRACE(cut);
    tq_log_reset_levels();
    tq_log_set_threshold(8);
    lines.clear();
    // The whole table sits in the buffer; only len says where it ends, so a
    // reader that looks past len would find valid data and succeed.
    auto m = make_msg(full);
    m->len = uint16_t(cut);
    const bool ok = tq_log_msg_get(m.get());
    EXPECT_LE(m->rpos, cut);
    if (cut == full.size()) {
      EXPECT_TRUE(ok);
      continue;
    }
    EXPECT_FALSE(ok);
    ASSERT_FALSE(lines.empty());
    if (cut < 2) {
      EXPECT_EQ(lines.back(),
                "[General:Error] Failed to read number of log facilities from tq_msg_t.");
      continue;
    }
    // Entries wholly before the cut are applied, the others untouched.
    size_t whole = 0;
    while (whole < name_end.size() && name_end[whole] + 1 <= cut) ++whole;
    const bool in_level = cut == name_end[whole];
    EXPECT_EQ(lines.back(), in_level ? "[General:Error] Failed to read log facility level."
                                     : "[General:Error] Failed to read log facility name.");
    for (unsigned i = 0; i < 65; ++i)
      ASSERT_EQ(tq_log_get_level(i), i < whole ? (i * 4 + 1) % 9 : default_level(kNames[i]))
          << kNames[i];
  }
}

TEST_F(Log, BadnessLogsAndContinues) {
  tq_log_set_threshold(4);
  int x = 3;
  int line = __LINE__ + 1;
  EXPECT_TRUE(TQ_BADNESS_ON(x == 3, "x=%d", x));
  EXPECT_FALSE(TQ_BADNESS_ON(x == 4, "never"));
  ASSERT_EQ(lines.size(), 1u);
  EXPECT_EQ(lines[0], "[General:Warning] TQ-BADNESS at tests/cpp/log_test.cc:" +
                          std::to_string(line) + "/TestBody(): x == 3  x=3");

  lines.clear();
  line = __LINE__ + 1;
  TQ_BADNESS("plain %s", "text");
  ASSERT_EQ(lines.size(), 1u);
  EXPECT_EQ(lines[0], "[General:Warning] TQ-BADNESS at tests/cpp/log_test.cc:" +
                          std::to_string(line) + "/TestBody(): plain text");

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
  auto m = make_msg({});
  m->len = uint16_t(TQ_MSG_MAX_DATA);
  EXPECT_DEATH(tq_log_msg_put(m.get()),
               "TQ-BUG at common/log\\.cc:[0-9]+" + re_escape(want));
  // Room for the count but not for a whole entry: the puts are dropped until
  // the message is full, and then it is fatal.
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
  expect_defaults();
  tq_lib_deinit();
  tq_lib_deinit();

  // A fresh start quiet: every facility at "Error", so "LOGFILE STARTED"
  // is not logged.
  lines.clear();
  ASSERT_TRUE(tq_lib_init(TQ_INIT_THREAD | TQ_INIT_QUIET));
  for (unsigned i = 0; i < 65; ++i) EXPECT_EQ(tq_log_get_level(i), 3u) << kNames[i];
  EXPECT_FALSE(logged("[General:Info] LOGFILE STARTED"));
  // The caches work after start-up and after the last user has left.
  tq_msg_t *m = tq_msg_new(1);
  ASSERT_NE(m, nullptr);
  tq_msg_free(m);
  tq_lib_deinit();
  m = tq_msg_new(1);
  ASSERT_NE(m, nullptr);
  tq_msg_free(m);
}

}  // namespace
