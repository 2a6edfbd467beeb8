// The tracked allocator: block bytes, statistics, misused frees, the
// quarantine of freed blocks, the report and the out-of-memory path.
#include <gtest/gtest.h>

#include <cstdio>
#include <cstring>
#include <regex>
#include <string>
#include <tuple>
#include <vector>

#include "support/log_capture.h"
#include "tq_log.h"
#include "tq_malloc.h"

namespace {

using tqtest::re_escape;
using tqtest::LogCapture;

// "[General:Warning] TQ-BADNESS at common/malloc.cc:<n>/tq_free_flags(): FREE: pointer <p> <what>"
std::string free_badness(const void *p, const char *what) {
  char text[160];
  std::snprintf(text, sizeof text, "/tq_free_flags(): FREE: pointer %p %s", p, what);
  return re_escape("[General:Warning] TQ-BADNESS at common/malloc.cc:") + "[0-9]+" + re_escape(text);
}

uint16_t state_of(const void *p) {
  uint16_t v;
  std::memcpy(&v, static_cast<const unsigned char *>(p) - 14, 2);
  return v;
}

tq_malloc_stat_t stat_of(const char *label) {
  tq_malloc_stat_t s{};
  EXPECT_TRUE(tq_malloc_stat(label, &s)) << label;
  return s;
}
// bytes, entries, allocations, leak bytes, leak count
using Counts = std::tuple<uint64_t, uint32_t, uint32_t, uint64_t, uint32_t>;
Counts counts(const char *label) {
  const tq_malloc_stat_t s = stat_of(label);
  return {s.bytes, s.entries, s.allocations, s.leak_bytes, s.leak_count};
}

void *g_kept[16];  // intentional leaks stay reachable for the leak checker
size_t g_nkept;
void *keep(void *p) { return g_kept[g_nkept++] = p; }

TEST(Malloc, BlockHeaderGuardAndStates) {
  for (size_t size : {0, 1, 15, 16, 17, 300}) {
    auto *p = static_cast<unsigned char *>(tq_zalloc("hdr.test", size));
    const unsigned char *h = p - 16;
    uint32_t stored;
    std::memcpy(&stored, h + 8, 4);
    EXPECT_EQ(reinterpret_cast<uintptr_t>(p) % 16, 0u);
    EXPECT_EQ(h[0] | h[1], 0);
    EXPECT_EQ(state_of(p), 0xEA32);
    EXPECT_EQ(stored, size);
    EXPECT_EQ(p[size], '<') << size;
    for (size_t i = 0; i < size; ++i) ASSERT_EQ(p[i], 0) << i;
    tq_free_flags(p);
    EXPECT_EQ(state_of(p), 0xDEAD);  // quarantined: still ours to read
  }
  void *plain = tq_malloc_flags("hdr.test", 8, 2);  // only bit 0 means a leak
  EXPECT_EQ(state_of(plain), 0xEA32);
  tq_free_flags(plain);
  EXPECT_EQ(state_of(keep(tq_malloc_flags("hdr.test", 8, 3))), 0x6A5B);
}

TEST(Malloc, StatisticsFollowAllocationsFreesAndLeaks) {
  tq_malloc_stat_t s{};
  EXPECT_FALSE(tq_malloc_stat("stat.never-used", &s));
  char label[] = "stat.test";  // copied on first use
  void *a = tq_malloc_flags(label, 100, 0);
  void *b = tq_malloc_flags(label, 28, 0);
  std::memcpy(label, "XXXX", 4);
  EXPECT_STREQ(stat_of("stat.test").label, "stat.test");
  EXPECT_EQ(counts("stat.test"), Counts(128, 2, 2, 0, 0));
  tq_free_flags(a);
  keep(tq_malloc_flags("stat.test", 40, TQ_MALLOC_INTENTIONAL_LEAK));
  EXPECT_EQ(counts("stat.test"), Counts(28, 1, 2, 40, 1));  // leaks count apart, allocations never drop
  tq_free_flags(b);
  EXPECT_EQ(counts("stat.test"), Counts(0, 0, 2, 40, 1));
}

TEST(Malloc, MisusedFreesAreReportedOnceAndLeftAlone) {
  LogCapture log;
  tq_free_flags(nullptr);
  void *p = tq_malloc_flags("misuse.test", 24, 0);
  tq_free_flags(p);
  EXPECT_TRUE(log.lines.empty());
  tq_free_flags(p);
  ASSERT_EQ(log.lines.size(), 1u);
  EXPECT_TRUE(std::regex_match(log.lines[0], std::regex(free_badness(p, "is already freed"))));
  EXPECT_EQ(stat_of("misuse.test").entries, 0u);  // not counted back twice

  auto *leak = static_cast<char *>(keep(tq_malloc_flags("misuse.test", 6, 1)));
  std::memcpy(leak, "kept!", 6);
  tq_free_flags(leak);
  ASSERT_EQ(log.lines.size(), 2u);
  EXPECT_TRUE(std::regex_match(log.lines[1], std::regex(free_badness(
      leak, "is marked as intentional leak. Still freeing it?"))));
  EXPECT_STREQ(leak, "kept!");
  EXPECT_EQ(state_of(leak), 0x6A5B);

  // Foreign memory with 16 readable bytes in front of the pointer.
  alignas(16) unsigned char foreign[64] = {};
  foreign[32 + 2] = 0x34;
  foreign[32 + 3] = 0x12;
  tq_free_flags(foreign + 16);
  tq_free_flags(foreign + 48);
  ASSERT_EQ(log.lines.size(), 4u);
  EXPECT_TRUE(std::regex_match(log.lines[2], std::regex(free_badness(foreign + 16, "is not allocated, flags: 0"))));
  EXPECT_TRUE(std::regex_match(log.lines[3], std::regex(free_badness(foreign + 48, "is not allocated, flags: 1234"))));

  // Still caught when the block is the oldest in quarantine.
  for (size_t i = 0; i + 1 < TQ_MALLOC_QUARANTINE; ++i) tq_free_flags(tq_malloc_flags("misuse.test", 40, 0));
  tq_free_flags(p);
  ASSERT_EQ(log.lines.size(), 5u);
  EXPECT_EQ(log.lines[4], log.lines[0]);

  tq_log_set_level(TQ_LOG_FAC_GENERAL, TQ_LOG_ERROR);  // logged only above level 3
  tq_free_flags(p);
  EXPECT_EQ(log.lines.size(), 5u);
}

TEST(Malloc, ReportOrderFormatAndTotals) {
  constexpr size_t MiB = 1 << 20;
  std::vector<void *> live;
  const auto alloc = [&](const char *label, size_t size) { live.push_back(tq_malloc_flags(label, size, 0)); };
  alloc("rpt.beta", MiB);  // first used, but loses the tie on allocations
  keep(tq_malloc_flags("rpt.beta", MiB, TQ_MALLOC_INTENTIONAL_LEAK));
  alloc("rpt.alpha", MiB);
  alloc("rpt.alpha", MiB);
  keep(tq_malloc_flags("rpt.delta", 3 * MiB, TQ_MALLOC_INTENTIONAL_LEAK));
  for (int i = 0; i < 3; ++i) alloc("rpt.gamma", MiB / 2);
  tq_free_flags(tq_malloc_flags("rpt.gamma", 4 * MiB, 0));
  alloc("rpt.eps2", MiB + 1023);  // equal in every way: first used, first listed
  alloc("rpt.eps1", MiB + 1023);

  LogCapture log;
  tq_log_set_level(TQ_LOG_FAC_MEMORY, TQ_LOG_ERROR);
  tq_malloc_report();
  EXPECT_TRUE(log.lines.empty());
  tq_log_set_level(TQ_LOG_FAC_MEMORY, TQ_LOG_WARNING);
  tq_malloc_report();
  const char *top[] = {
      "MALLOC:    3072 KiB     1 intentional leaks                   rpt.delta",
      "MALLOC:    2048 KiB     2 current entries,     2 allocations: rpt.alpha",
      "MALLOC:    1024 KiB     1 current entries,     1 allocations: rpt.beta",
      "MALLOC:    1024 KiB     1 intentional leaks                   rpt.beta",
      "MALLOC:    1536 KiB     3 current entries,     4 allocations: rpt.gamma",
      "MALLOC:    1024 KiB     1 current entries,     1 allocations: rpt.eps2",
      "MALLOC:    1024 KiB     1 current entries,     1 allocations: rpt.eps1",
  };
  ASSERT_GE(log.lines.size(), std::size(top) + 2);
  for (size_t i = 0; i < std::size(top); ++i) EXPECT_EQ(log.lines[i], std::string("[Memory:Warning] ") + top[i]);

  // The totals add up every label the report names.
  const std::regex named(R"(\[Memory:Warning\] MALLOC: .*(allocations: | {19})(.*))");
  uint64_t sum[5] = {};
  std::string last;
  for (size_t i = 0; i + 2 < log.lines.size(); ++i) {
    std::smatch m;
    ASSERT_TRUE(std::regex_match(log.lines[i], m, named)) << log.lines[i];
    if (m[2] == last) continue;
    last = m[2];
    const auto [bytes, entries, allocations, leak_bytes, leak_count] = counts(last.c_str());
    for (auto [k, v] : {std::pair<int, uint64_t>{0, bytes}, {1, entries}, {2, allocations}, {3, leak_bytes},
                        {4, leak_count}})
      sum[k] += v;
  }
  char want[2][160];
  std::snprintf(want[0], 160, "[Memory:Warning] TOTAL : %7zu KiB %5u current entries, %5u allocations: TOTAL allocations",
                size_t(sum[0] >> 10), unsigned(sum[1]), unsigned(sum[2]));
  std::snprintf(want[1], 160, "[Memory:Warning] TOTAL : %7zu KiB %5u intentional leaks                   TOTAL intentional leaks",
                size_t(sum[3] >> 10), unsigned(sum[4]));
  EXPECT_EQ(log.lines[log.lines.size() - 2], want[0]);
  EXPECT_EQ(log.lines.back(), want[1]);
  for (void *p : live) tq_free_flags(p);
}

TEST(MallocDeathTest, OutOfMemoryWritesTheReportThenDies) {
  EXPECT_DEATH(
      {
        tq_log_set_threshold(TQ_LOG_WARNING);
        (void)tq_malloc_flags("oom.test", SIZE_MAX - 8, 0);
      },
      "TOTAL intentional leaks.*" + re_escape("TQ-BUG at common/malloc.cc:") + "[0-9]+" +
          re_escape("/tq_malloc_flags(): tq_malloc() of 18446744073709551607 bytes for 'oom.test' failed."));
}

}  // namespace
