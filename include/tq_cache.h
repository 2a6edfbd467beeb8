// A two-level object cache: one shared free list and a free list per thread,
// bounded by water marks. A free item holds the next free item's address in
// its first 8 bytes. Every pointer that crosses a list is checked against
// the cache's address bounds; one outside them aborts ("cache corruption").
//
// Backing blocks: one block of numitems items, 64-byte aligned, when the
// cache is created with items; a cache created with 0 items grows on demand,
// by the thread cache's mid-water mark of items per block, each block an
// intentional leak (it lives as long as the process). Every block has room
// for one item more than it hands out; that spare slot holds the address of
// the previously added block, so all blocks stay reachable from `block`.
//
//   block:  [pad to 64][item 0][item 1] ... [item n-1][link to older block]
//                      ^ low                           ^ high (exclusive)
//
// Thread cache: get refills from the shared list when its count is at or
// below low water (up to mid-water items); put spills back to the shared
// list, down to mid water, when its count reaches high water. Refill and
// spill touch the shared list unlocked: callers serialise them.
#ifndef TQ_CACHE_H
#define TQ_CACHE_H

#include <cstddef>
#include <cstdint>

struct tq_cache_t {
  void *head;          // shared free list
  uint32_t avail;
  uint32_t numitems;   // created with; 0 means grow on demand
  uint32_t itemsize;   // distance between items: at least a pointer
  void *block;         // newest backing block (the tracked allocation)
  uintptr_t low;       // lowest item address
  uintptr_t high;      // end of the highest item (exclusive bound)
  char name[64];
  const char *label;   // allocation label
  unsigned flags;      // allocation flags
};

struct tq_cache_thread_t {
  void *head;
  uint32_t count;
  uint32_t highwater;
  uint32_t midwater;
  uint32_t lowwater;
  tq_cache_t *cache;
};

// false (and "itemsize is too small" logged) when itemsize < 4.
[[nodiscard]] bool tq_cache_init(tq_cache_t *cache, const char *name, uint32_t numitems,
                                 uint32_t itemsize, const char *label);
void tq_cache_thread_init(tq_cache_t *cache, tq_cache_thread_t *tc, uint32_t highwater,
                          uint32_t midwater, uint32_t lowwater);
void *tq_cache_get(tq_cache_thread_t *tc);  // nullptr when nothing can be had
void tq_cache_put(tq_cache_thread_t *tc, void *item);
void tq_cache_thread_flush(tq_cache_t *cache, tq_cache_thread_t *tc);
// Releases the backing block of a cache created with items (every thread
// cache flushed, every item back) and clears the record. Blocks grown on
// demand are intentional leaks and stay.
void tq_cache_deinit(tq_cache_t *cache);

#endif
