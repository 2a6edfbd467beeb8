// Lists on the shared "List Cache": links after every operation, copy order,
// the poison of given-back nodes and the node caches behind them.
#include <gtest/gtest.h>

#include <vector>

#include "tq_cache.h"
#include "tq_list.h"
#include "tq_malloc.h"

namespace {

using V = std::vector<int>;
int g_data[8];

// Data indexes front to back, checking every prev link (the head's is null).
V values(const tq_list_t *list) {
  V out;
  for (const tq_list_t *n = list, *prev = nullptr; n; prev = n, n = n->next) {
    EXPECT_EQ(n->prev, prev) << "back link at " << out.size();
    out.push_back(static_cast<int>(static_cast<const int *>(n->data) - g_data));
  }
  return out;
}

tq_malloc_stat_t stat_of(const char *label) {
  tq_malloc_stat_t s{};
  EXPECT_TRUE(tq_malloc_stat(label, &s)) << label;
  return s;
}

TEST(List, InsertReverseAppendCopy) {
  tq_list_t *b = tq_list_new(2, nullptr, &g_data[2]);
  tq_list_t *a = tq_list_new(1, b, &g_data[1]);  // b had no predecessor
  tq_list_new(3, b, &g_data[3]);                 // goes between a and b
  EXPECT_EQ(values(a), (V{1, 3, 2}));
  EXPECT_EQ(tq_list_length(a), 3u);
  EXPECT_EQ(tq_list_last(a), b);

  a = tq_list_append(tq_list_reverse(a), &g_data[5]);
  EXPECT_EQ(values(a), (V{2, 3, 1, 5}));
  EXPECT_EQ(a->tag, 2u);
  EXPECT_EQ(tq_list_last(a)->tag, 0u);

  tq_list_t *copy = tq_list_copy(a);
  EXPECT_EQ(values(copy), (V{2, 3, 1, 5}));
  for (tq_list_t *n = copy; n; n = n->next) EXPECT_EQ(n->tag, 0u);  // also: not a's nodes
  EXPECT_EQ(tq_list_copy(nullptr), nullptr);
  tq_list_free(copy);
  tq_list_free(a);
}

TEST(List, GivenBackNodesCarryThePoison) {
  tq_list_t *list = nullptr;
  for (int i = 4; i >= 0; --i) list = tq_list_new(0, list, &g_data[i]);
  tq_list_t *third = list->next->next;
  const std::vector<tq_list_t *> tail{third, third->next, third->next->next};
  tq_list_free(third);  // from the middle: the front stays a proper list
  for (tq_list_t *n : tail) EXPECT_EQ(reinterpret_cast<uintptr_t>(n->prev), 0xFACEB00Bu);
  EXPECT_EQ(values(list), (V{0, 1}));
  tq_list_free(list);

  for (int i = 0; i < 4; ++i) list = tq_list_append(i ? list : nullptr, tq_malloc_flags("list.data", 10, 0));
  EXPECT_EQ(stat_of("list.data").entries, 4u);
  tq_list_free_with_data(list);
  EXPECT_EQ(stat_of("list.data").entries, 0u);
}

TEST(List, NodesComeFromTheListCache) {
  tq_list_t *n = tq_list_new(0, nullptr, nullptr);  // starts the cache on first use
  EXPECT_TRUE(tq_list_init());
  const tq_malloc_stat_t s = stat_of("tq_list_t");
  EXPECT_GE(s.leak_count, 1u);  // grown on demand by 50000 nodes, kept for good
  EXPECT_EQ(s.leak_bytes, s.leak_count * ((50000u + 1) * 32 + 63));
  EXPECT_EQ(s.allocations, 0u);

  tq_cache_thread_t tc;
  tq_list_thread_init(&tc);
  tq_list_t *m = tq_list_new(7, nullptr, nullptr);
  EXPECT_EQ(tc.count, 50000u - 1);
  tq_list_free(m);
  EXPECT_EQ(tc.count, 50000u);
  tq_list_thread_deinit(&tc);
  EXPECT_EQ(tc.count, 0u);
  tq_list_free(tq_list_new(8, nullptr, nullptr));  // back on the library's cache
  EXPECT_EQ(tc.count, 0u);

  // Shut down twice; nodes still held stay valid and a later use restarts.
  tq_list_deinit();
  tq_list_deinit();
  tq_list_free(n);
  tq_list_t *again;
  ASSERT_NE(again = tq_list_new(9, nullptr, nullptr), nullptr);
  tq_list_free(again);
}

TEST(ListDeathTest, GivingANodeBackTwiceIsFatal) {
  tq_list_t *n = tq_list_new(0, nullptr, nullptr);
  tq_list_free(n);
  EXPECT_DEATH(tq_list_free(n), "TQ-BUG at common/list\\.cc:[0-9]+/tq_list_free\\(\\): .* given back twice");
}

}  // namespace
