// A two-level object cache: one shared free list and a free list per thread,
// bounded by water marks. A free item holds the next free item's address in
// its first 8 bytes. Every pointer that crosses a list is checked against
// the cache's address bounds; one outside them aborts ("cache corruption").
#ifndef TQ_CACHE_H
#define TQ_CACHE_H

#include <cstddef>
#include <cstdint>

struct tq_cache_t {
  void *head;          // shared free list
  uint32_t avail;
  uint32_t numitems;   // created with; 0 means grow on demand
  uint32_t itemsize;
  void *block;         // first backing block
  uintptr_t low;       // lowest item address
  uintptr_t high;      // highest item address
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

[[nodiscard]] bool tq_cache_init(tq_cache_t *cache, const char *name, uint32_t numitems,
                                 uint32_t itemsize, const char *label);
void tq_cache_thread_init(tq_cache_t *cache, tq_cache_thread_t *tc, uint32_t highwater,
                          uint32_t midwater, uint32_t lowwater);
void *tq_cache_get(tq_cache_thread_t *tc);  // nullptr when nothing can be had
void tq_cache_put(tq_cache_thread_t *tc, void *item);
void tq_cache_thread_flush(tq_cache_t *cache, tq_cache_thread_t *tc);

#endif
