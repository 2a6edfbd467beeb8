// Counting pools and the two-level object cache: refusal and growth at their
// boundaries, water marks, on-demand growth and the corruption checks.
#include <gtest/gtest.h>

#include <cstdio>
#include <cstring>
#include <regex>
#include <set>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include "tq_cache.h"
#include "support/log_capture.h"
#include "tq_log.h"
#include "tq_malloc.h"
#include "tq_mempool.h"

namespace {

using tqtest::re_escape;
using tqtest::LogCapture;

std::string report(const char *kind, const char *file, const char *func, const std::string &text) {
  return re_escape(std::string(kind) + " at " + file + ":") + "[0-9]+" + re_escape("/" + std::string(func) + "(): " + text);
}

tq_malloc_stat_t stat_of(const char *label) {
  tq_malloc_stat_t s{};
  EXPECT_TRUE(tq_malloc_stat(label, &s)) << label;
  return s;
}

TEST(Mempool, NonGrowablePoolRefusesAtItsInitialItems) {
  LogCapture log;
  tq_log_set_level(TQ_LOG_FAC_MEMORY, TQ_LOG_DEBUG);
  tq_mempool_t pool;
  tq_mempool_init(&pool, "pool.fixed", 3, 0, 16);
  void *items[3];
  for (auto &it : items) ASSERT_NE(it = tq_mempool_get(&pool), nullptr);
  EXPECT_EQ(stat_of("pool.fixed").entries, 3u);  // tracked under the pool's name
  EXPECT_EQ(tq_mempool_get(&pool), nullptr);
  tq_mempool_put(&pool, items[1]);
  EXPECT_EQ(tq_mempool_used(&pool), 2u);
  EXPECT_NE(items[1] = tq_mempool_get(&pool), nullptr);
  EXPECT_EQ(tq_mempool_get(&pool), nullptr);
  EXPECT_EQ(log.lines, (std::vector<std::string>{
      "[Memory:Notice] MEMPOOL 'pool.fixed': init: inititems: 3, growitems: 0 itemsize: 16",
      "[Memory:Debug] MEMPOOL 'pool.fixed': WARNING: Out of items in non-growable mempool!",
      "[Memory:Debug] MEMPOOL 'pool.fixed': WARNING: Out of items in non-growable mempool!"}));
  for (void *it : items) tq_mempool_put(&pool, it);
  tq_mempool_deinit(&pool);
  EXPECT_EQ(log.lines.size(), 3u);
  EXPECT_EQ(pool.state, 0xDEADu);

  // A pool that starts empty and grows never refuses.
  tq_mempool_init(&pool, "pool.grow", 0, 128, 8);
  std::vector<void *> many(300);
  for (auto &it : many) ASSERT_NE(it = tq_mempool_get(&pool), nullptr);
  EXPECT_EQ(tq_mempool_used(&pool), 300u);
  for (void *it : many) tq_mempool_put(&pool, it);
  EXPECT_EQ(tq_mempool_used(&pool), 0u);
  tq_mempool_deinit(&pool);
}

TEST(Mempool, DeinitWithItemsOutIsReported) {
  tq_mempool_t pool;
  tq_mempool_init(&pool, "pool.leaky", 4, 0, 32);
  void *a = tq_mempool_get(&pool), *b = tq_mempool_get(&pool);
  LogCapture log;
  tq_mempool_deinit(&pool);
  ASSERT_EQ(log.lines.size(), 1u);
  EXPECT_TRUE(std::regex_match(log.lines[0], std::regex("\\[General:Warning\\] " + report(
      "TQ-BADNESS", "common/mempool.cc", "tq_mempool_deinit", "tq_mempool_used (mempool) != 0  Not all items "
      "returned before deinit(). Still in use=2 mempool=pool.leaky")))) << log.lines[0];
  tq_free_flags(a);  // still ordinary tracked blocks
  tq_free_flags(b);
  EXPECT_EQ(stat_of("pool.leaky").entries, 0u);
}

TEST(MempoolDeathTest, BrokenUseIsFatal) {
  tq_mempool_t pool;
  const auto bug = [](const char *func, const char *text) { return report("TQ-BUG", "common/mempool.cc", func, text); };
  EXPECT_DEATH(tq_mempool_init(&pool, "p", 0, 0, 16), bug("tq_mempool_init", "inititems == 0 && growitems == 0  "));
  EXPECT_DEATH(tq_mempool_init(&pool, "p", 1, 0, 7), bug("tq_mempool_init", "itemsize < sizeof (tq_pointer_t)  "));
  tq_mempool_init(&pool, "pool.death", 2, 0, 8);
  EXPECT_DEATH(tq_mempool_put(&pool, nullptr), bug("tq_mempool_put", "item == ((void *)0)  "));
  EXPECT_DEATH(tq_mempool_put(&pool, tq_malloc_flags("pool.death", 8, 0)),
               bug("tq_mempool_used", "mempool->availitems > mempool->numitems  "));
}

tq_cache_t g_grow_cache;  // grown blocks live for good: keep them reachable

std::vector<void *> take(tq_cache_thread_t *tc, size_t n) {
  std::vector<void *> out(n);
  for (auto &p : out) EXPECT_NE(p = tq_cache_get(tc), nullptr);
  return out;
}

TEST(Cache, InitLayoutAndTinyItems) {
  LogCapture log;
  tq_cache_t cache;
  tq_cache_thread_t tc;
  EXPECT_FALSE(tq_cache_init(&cache, "tiny", 4, 3, "cache.tiny"));
  ASSERT_TRUE(tq_cache_init(&cache, "layout", 10, 24, "cache.layout"));
  tq_cache_thread_init(&cache, &tc, 64, 32, 0);
  EXPECT_EQ(log.lines, (std::vector<std::string>{
      "[Memory:Error] CACHE 'tiny': itemsize is too small",
      "[Memory:Notice] CACHE 'layout': init: numitems: 10, itemsize: 24",
      "[Memory:Info] CACHE 'layout': thread init: highwater: 64, midwater: 32, lowwater: 0, pool-avail: 10"}));
  // One block of (10 + 1) * 24 + 63 bytes, items from a 64-byte boundary.
  EXPECT_EQ(stat_of("cache.layout").bytes, 11u * 24 + 63);
  EXPECT_EQ(cache.low % 64, 0u);
  EXPECT_EQ(cache.high - cache.low, 240u);
  std::set<uintptr_t> addrs;
  for (void *p : take(&tc, 10)) addrs.insert(reinterpret_cast<uintptr_t>(p));
  EXPECT_EQ(tq_cache_get(&tc), nullptr);  // created with items: never grows
  EXPECT_EQ(addrs.size(), 10u);
  EXPECT_EQ(*addrs.begin(), cache.low);
  EXPECT_EQ(*addrs.rbegin(), cache.high - 24);
  for (uintptr_t a : addrs) tq_cache_put(&tc, reinterpret_cast<void *>(a));
  tq_cache_thread_flush(&cache, &tc);
  EXPECT_EQ(cache.avail, 10u);
  tq_cache_deinit(&cache);
  EXPECT_EQ(stat_of("cache.layout").entries, 0u);

  // Four-byte items: a free item's link must not reach into its neighbour.
  ASSERT_TRUE(tq_cache_init(&cache, "four", 2, 4, "cache.four"));
  tq_cache_thread_init(&cache, &tc, 64, 32, 0);
  void *x = tq_cache_get(&tc), *y = tq_cache_get(&tc);
  std::memcpy(y, "YYYY", 4);
  tq_cache_put(&tc, x);
  EXPECT_EQ(std::memcmp(y, "YYYY", 4), 0);
  tq_cache_put(&tc, y);
  tq_cache_thread_flush(&cache, &tc);
  tq_cache_deinit(&cache);
}

TEST(Cache, WaterMarks) {
  tq_cache_t cache;
  tq_cache_thread_t tc;
  ASSERT_TRUE(tq_cache_init(&cache, "spill", 200, 16, "cache.spill"));
  tq_cache_thread_init(&cache, &tc, 64, 32, 0);
  std::vector<void *> items = take(&tc, 64);  // two refills of 32
  using P = std::pair<size_t, size_t>;  // thread count, shared avail
  const auto counts = [&] { return P(tc.count, cache.avail); };
  EXPECT_EQ(counts(), P(0, 136));
  for (size_t i = 0; i < 63; ++i) tq_cache_put(&tc, items[i]);
  EXPECT_EQ(counts(), P(63, 136));
  tq_cache_put(&tc, items[63]);  // the 64th spills down to mid water
  EXPECT_EQ(counts(), P(32, 168));
  tq_cache_thread_flush(&cache, &tc);
  EXPECT_EQ(cache.avail, 200u);

  // Low water 2: a get at count 3 is served locally, at count 2 it refills.
  tq_cache_thread_init(&cache, &tc, 64, 8, 2);
  items = take(&tc, 6);
  EXPECT_EQ(counts(), P(2, 192));
  items.push_back(tq_cache_get(&tc));
  EXPECT_EQ(counts(), P(9, 184));
  for (void *p : items) tq_cache_put(&tc, p);
  tq_cache_thread_flush(&cache, &tc);
  tq_cache_deinit(&cache);
}

TEST(Cache, EmptyCacheGrowsByMidWaterInLeakedBlocks) {
  ASSERT_TRUE(tq_cache_init(&g_grow_cache, "grow", 0, 24, "cache.grow"));
  EXPECT_EQ(g_grow_cache.head, nullptr);
  tq_cache_thread_t tc;
  tq_cache_thread_init(&g_grow_cache, &tc, 8, 4, 0);
  std::vector<void *> items = take(&tc, 4);
  const tq_malloc_stat_t s = stat_of("cache.grow");
  EXPECT_EQ(std::tuple(s.leak_count, s.leak_bytes, s.allocations), std::tuple(1u, uint64_t{5 * 24 + 63}, 0u));
  const std::set<void *> first(items.begin(), items.end());
  EXPECT_EQ(reinterpret_cast<uintptr_t>(*first.begin()) % 64, 0u);
  items.push_back(tq_cache_get(&tc));  // the fifth needs a second block
  EXPECT_EQ(stat_of("cache.grow").leak_count, 2u);
  EXPECT_EQ(std::set<void *>(items.begin(), items.end()).size(), 5u);
  for (void *p : items) {
    EXPECT_GE(reinterpret_cast<uintptr_t>(p), g_grow_cache.low);
    EXPECT_LT(reinterpret_cast<uintptr_t>(p), g_grow_cache.high);
    tq_cache_put(&tc, p);
  }
  tq_cache_thread_flush(&g_grow_cache, &tc);
  EXPECT_EQ(g_grow_cache.avail, 8u);
}

TEST(CacheDeathTest, PointersOutsideTheBoundsAbort) {
  tq_cache_t cache;
  tq_cache_thread_t tc;
  ASSERT_TRUE(tq_cache_init(&cache, "bad", 4, 16, "cache.bad"));
  tq_cache_thread_init(&cache, &tc, 64, 2, 0);
  const auto corrupt = [&](const void *ptr, unsigned check) {
    char buf[256];
    std::snprintf(buf, sizeof buf, "CACHE 'bad': cache corruption, %p < %p < %p (%u/%p)", reinterpret_cast<void *>(cache.low),
                  ptr, reinterpret_cast<void *>(cache.high), check, cache.block);
    return re_escape(buf);
  };
  // Printed at level 2, so the threshold is raised to see it.
  alignas(16) unsigned char outside[32];
  EXPECT_DEATH((tq_log_set_threshold(2), tq_cache_put(&tc, outside)), corrupt(outside, 5));
  void *end = reinterpret_cast<void *>(cache.high);
  EXPECT_DEATH((tq_log_set_threshold(2), tq_cache_put(&tc, end)), corrupt(end, 5));
  void *bogus = outside + 8;  // a broken link in the shared list, met on refill
  EXPECT_DEATH((tq_log_set_threshold(2), std::memcpy(cache.head, &bogus, 8), tq_cache_get(&tc)), corrupt(bogus, 2));
  tq_cache_deinit(&cache);
}

}  // namespace
