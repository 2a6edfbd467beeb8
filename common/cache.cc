// The two-level object cache (layout and water marks in tq_cache.h).
#include "tq_cache.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "tq_log.h"
#include "tq_malloc.h"

namespace {

constexpr uintptr_t kAlign = 64;

// Which check found a bad pointer; printed in the corruption message.
enum class check : unsigned {
  shared_item = 1,  // refill: head of the shared list
  shared_next = 2,  // refill: link stored in that item
  thread_item = 3,  // get: head of the thread list
  thread_next = 4,  // get: link stored in that item
  put_item = 5,     // put: the item given back
  spill_item = 6,   // put: item moved to the shared list
  spill_next = 7,   // put: link stored in that item
  flush_item = 8,   // flush: item moved to the shared list
  flush_next = 9,   // flush: link stored in that item
};

// Items may sit at any byte distance (itemsize need not be a multiple of 8),
// so links are copied, never dereferenced as void **.
void *link_of(const void *item) {
  void *next;
  std::memcpy(&next, item, sizeof next);
  return next;
}

void set_link(void *item, void *next) { std::memcpy(item, &next, sizeof next); }

[[noreturn]] void corruption(const tq_cache_t *cache, const void *ptr, check which) {
  if (tq_log_enabled(TQ_LOG_FAC_MEMORY, TQ_LOG_CRITICAL))
    tq_log(TQ_LOG_FAC_MEMORY, TQ_LOG_CRITICAL,
           "CACHE '%s': cache corruption, %p < %p < %p (%u/%p)", cache->name,
           reinterpret_cast<void *>(cache->low), ptr, reinterpret_cast<void *>(cache->high),
           static_cast<unsigned>(which), cache->block);
  tq_log_flush();
  std::abort();
}

void verify(const tq_cache_t *cache, const void *ptr, check which) {
  const auto a = reinterpret_cast<uintptr_t>(ptr);
  if (a < cache->low || a >= cache->high) corruption(cache, ptr, which);
}

// A link may be null (end of list); anything else must be one of ours.
void verify_link(const tq_cache_t *cache, const void *next, check which) {
  if (next != nullptr) verify(cache, next, which);
}

// Adds a block of n items to the shared list, first item at its head.
void add_block(tq_cache_t *cache, uint32_t n) {
  const size_t stride = cache->itemsize;
  void *raw = tq_malloc_flags(cache->label, (static_cast<size_t>(n) + 1) * stride + kAlign - 1,
                              cache->flags);
  const auto start = (reinterpret_cast<uintptr_t>(raw) + kAlign - 1) & ~(kAlign - 1);
  auto *first = reinterpret_cast<unsigned char *>(start);
  const uintptr_t end = start + n * stride;

  set_link(first + n * stride, cache->block);  // the spare slot chains the blocks
  cache->block = raw;
  if (cache->high == 0) {
    cache->low = start;
    cache->high = end;
  } else {
    cache->low = std::min(cache->low, start);
    cache->high = std::max(cache->high, end);
  }

  for (uint32_t i = n; i-- > 0;) {
    void *item = first + i * stride;
    set_link(item, cache->head);
    cache->head = item;
  }
  cache->avail += n;
}

}  // namespace

bool tq_cache_init(tq_cache_t *cache, const char *name, uint32_t numitems, uint32_t itemsize,
                   const char *label) {
  TQ_BUG_ON(cache == TQ_NULL, "");
  if (name == nullptr) name = "";
  if (itemsize < 4) {
    if (tq_log_enabled(TQ_LOG_FAC_MEMORY, TQ_LOG_ERROR))
      tq_log(TQ_LOG_FAC_MEMORY, TQ_LOG_ERROR, "CACHE '%s': itemsize is too small", name);
    return false;
  }
  if (tq_log_enabled(TQ_LOG_FAC_MEMORY, TQ_LOG_NOTICE))
    tq_log(TQ_LOG_FAC_MEMORY, TQ_LOG_NOTICE, "CACHE '%s': init: numitems: %u, itemsize: %u",
           name, numitems, itemsize);

  *cache = tq_cache_t{};
  std::snprintf(cache->name, sizeof cache->name, "%s", name);
  cache->label = label != nullptr ? label : cache->name;
  cache->numitems = numitems;
  // A free item carries a full pointer; smaller items are spaced so that
  // writing one never reaches into its neighbour.
  cache->itemsize = std::max<uint32_t>(itemsize, sizeof(void *));
  if (numitems == 0) {
    // Grows on demand, and what it grows is kept for good.
    cache->flags = TQ_MALLOC_INTENTIONAL_LEAK;
    return true;
  }
  cache->flags = 0;
  add_block(cache, numitems);
  return true;
}

void tq_cache_thread_init(tq_cache_t *cache, tq_cache_thread_t *tc, uint32_t highwater,
                          uint32_t midwater, uint32_t lowwater) {
  TQ_BUG_ON(cache == TQ_NULL, "");
  TQ_BUG_ON(tc == TQ_NULL, "");
  if (tq_log_enabled(TQ_LOG_FAC_MEMORY, TQ_LOG_INFO))
    tq_log(TQ_LOG_FAC_MEMORY, TQ_LOG_INFO,
           "CACHE '%s': thread init: highwater: %u, midwater: %u, lowwater: %u, pool-avail: %u",
           cache->name, highwater, midwater, lowwater, cache->avail);
  *tc = tq_cache_thread_t{};
  tc->highwater = highwater;
  tc->midwater = midwater;
  tc->lowwater = lowwater;
  tc->cache = cache;
}

void *tq_cache_get(tq_cache_thread_t *tc) {
  TQ_BUG_ON(tc == TQ_NULL, "");
  tq_cache_t *cache = tc->cache;
  TQ_BUG_ON(cache == TQ_NULL, "");

  if (tc->count <= tc->lowwater) {
    if (cache->head == nullptr && cache->numitems == 0 && tc->midwater > 0)
      add_block(cache, tc->midwater);
    for (uint32_t i = 0; i < tc->midwater && cache->head != nullptr; ++i) {
      void *item = cache->head;
      verify(cache, item, check::shared_item);
      void *next = link_of(item);
      verify_link(cache, next, check::shared_next);
      cache->head = next;
      cache->avail--;
      set_link(item, tc->head);
      tc->head = item;
      tc->count++;
    }
  }

  void *item = tc->head;
  if (item == nullptr) return nullptr;
  verify(cache, item, check::thread_item);
  void *next = link_of(item);
  verify_link(cache, next, check::thread_next);
  tc->head = next;
  tc->count--;
  return item;
}

void tq_cache_put(tq_cache_thread_t *tc, void *item) {
  TQ_BUG_ON(tc == TQ_NULL, "");
  tq_cache_t *cache = tc->cache;
  TQ_BUG_ON(cache == TQ_NULL, "");
  verify(cache, item, check::put_item);
  set_link(item, tc->head);
  tc->head = item;
  tc->count++;
  if (tc->count < tc->highwater) return;

  while (tc->count > tc->midwater) {
    void *moved = tc->head;
    // The count says there are more items than the list holds.
    if (moved == nullptr) TQ_BUG("");
    verify(cache, moved, check::spill_item);
    void *next = link_of(moved);
    verify_link(cache, next, check::spill_next);
    tc->head = next;
    tc->count--;
    set_link(moved, cache->head);
    cache->head = moved;
    cache->avail++;
  }
}

void tq_cache_thread_flush(tq_cache_t *cache, tq_cache_thread_t *tc) {
  TQ_BUG_ON(cache == TQ_NULL, "");
  TQ_BUG_ON(tc == TQ_NULL, "");
  TQ_BUG_ON(tc->cache != cache, "Thread cache belongs to another cache");
  while (tc->head != nullptr) {
    void *moved = tc->head;
    verify(cache, moved, check::flush_item);
    void *next = link_of(moved);
    verify_link(cache, next, check::flush_next);
    tc->head = next;
    set_link(moved, cache->head);
    cache->head = moved;
    cache->avail++;
  }
  tc->count = 0;
}

void tq_cache_deinit(tq_cache_t *cache) {
  TQ_BUG_ON(cache == TQ_NULL, "");
  if ((cache->flags & TQ_MALLOC_INTENTIONAL_LEAK) == 0) tq_free_flags(cache->block);
  *cache = tq_cache_t{};
}
