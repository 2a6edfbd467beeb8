// Lists on the shared "List Cache": links after every operation, copy order,
// the poison of given-back nodes and the node caches behind them.
#include <gtest/gtest.h>

#include <vector>

#include "tq_cache.h"
#include "tq_list.h"
#include "tq_malloc.h"

namespace {

int g_data[8];

// Data indexes front to back, checking every prev link against the walk.
std::vector<int> values(const tq_list_t *list) {
  std::vector<int> out;
  for (const tq_list_t *n = list, *prev = list ? list->prev : nullptr; n; prev = n, n = n->next) {
    EXPECT_EQ(n->prev, prev) << "back link at " << out.size();
    out.push_back(static_cast<int>(static_cast<const int *>(n->data) - g_data));
  }
  return out;
}

TEST(List, NewInsertsInFrontOfBefore) {
  tq_list_t *b = tq_list_new(2, nullptr, &g_data[2]);
  tq_list_t *a = tq_list_new(1, b, &g_data[1]);  // b had no predecessor
  EXPECT_EQ(values(a), (std::vector<int>{1, 2}));
  EXPECT_EQ(a->prev, nullptr);
  tq_list_t *c = tq_list_new(3, b, &g_data[3]);  // goes between a and b
  EXPECT_EQ(a->next, c);
  EXPECT_EQ(b->prev, c);
  EXPECT_EQ(values(a), (std::vector<int>{1, 3, 2}));
  EXPECT_EQ(c->tag, 3u);
  EXPECT_EQ(tq_list_length(a), 3u);
  EXPECT_EQ(tq_list_last(a), b);

  a = tq_list_reverse(a);
  EXPECT_EQ(values(a), (std::vector<int>{2, 3, 1}));
  a = tq_list_append(a, &g_data[5]);
  EXPECT_EQ(values(a), (std::vector<int>{2, 3, 1, 5}));
  EXPECT_EQ(tq_list_last(a)->tag, 0u);

  tq_list_t *copy = tq_list_copy(a);
  EXPECT_EQ(values(copy), (std::vector<int>{2, 3, 1, 5}));
  for (tq_list_t *n = copy, *o = a; n; n = n->next, o = o->next) {
    EXPECT_EQ(n->tag, 0u);
    EXPECT_NE(n, o);
  }
  EXPECT_EQ(a->tag, 2u);
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
  EXPECT_EQ(values(list), (std::vector<int>{0, 1}));
  tq_list_free(list);

  for (int i = 0; i < 4; ++i) list = tq_list_append(i ? list : nullptr, tq_malloc_flags("list.data", 10, 0));
  tq_malloc_stat_t s{};
  ASSERT_TRUE(tq_malloc_stat("list.data", &s));
  EXPECT_EQ(s.entries, 4u);
  tq_list_free_with_data(list);
  ASSERT_TRUE(tq_malloc_stat("list.data", &s));
  EXPECT_EQ(s.entries, 0u);
}

TEST(List, NodesComeFromTheListCache) {
  tq_list_t *n = tq_list_new(0, nullptr, nullptr);  // starts the cache on first use
  EXPECT_TRUE(tq_list_init());
  tq_malloc_stat_t s{};
  ASSERT_TRUE(tq_malloc_stat("tq_list_t", &s));
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
  tq_list_t *again = tq_list_new(9, nullptr, nullptr);
  ASSERT_NE(again, nullptr);
  tq_list_free(again);
}

TEST(ListDeathTest, GivingANodeBackTwiceIsFatal) {
  tq_list_t *n = tq_list_new(0, nullptr, nullptr);
  tq_list_free(n);
  EXPECT_DEATH(tq_list_free(n), "TQ-BUG at common/list\\.cc:[0-9]+/tq_list_free\\(\\): .* given back twice");
}

}  // namespace
