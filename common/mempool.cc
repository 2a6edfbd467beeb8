// Counting pools of fixed-size items on top of the tracked allocator.
#include "tq_mempool.h"

#include <cstdio>
#include <cstring>

#include "tq_log.h"
#include "tq_malloc.h"

namespace {

// A free item must be able to hold a link.
using tq_pointer_t = void *;

// Backing blocks would be chained through their first word; the pool
// allocates items one by one, so the chain stays empty, but a deinit walks
// it all the same should blocks ever be added.
void free_blocks(tq_mempool_t *mempool) {
  void *block = mempool->blocks;
  while (block != nullptr) {
    void *next;
    std::memcpy(&next, block, sizeof next);
    tq_free_flags(block);
    block = next;
  }
  mempool->blocks = nullptr;
}

}  // namespace

void tq_mempool_init(tq_mempool_t *mempool, const char *name, uint32_t inititems,
                     uint32_t growitems, size_t itemsize) {
  TQ_BUG_ON(mempool == TQ_NULL, "");
  TQ_BUG_ON(inititems == 0 && growitems == 0, "");
  TQ_BUG_ON(itemsize < sizeof (tq_pointer_t), "");
  if (name == nullptr) name = "";
  if (tq_log_enabled(TQ_LOG_FAC_MEMORY, TQ_LOG_NOTICE))
    tq_log(TQ_LOG_FAC_MEMORY, TQ_LOG_NOTICE,
           "MEMPOOL '%s': init: inititems: %u, growitems: %u itemsize: %zu", name, inititems,
           growitems, itemsize);
  *mempool = tq_mempool_t{};
  mempool->inititems = inititems;
  mempool->growitems = growitems;
  mempool->itemsize = itemsize;
  std::snprintf(mempool->name, sizeof mempool->name, "%s", name);
}

void *tq_mempool_get(tq_mempool_t *mempool) {
  TQ_BUG_ON(mempool == TQ_NULL, "");
  TQ_BUG_ON(mempool->state == TQ_MEMPOOL_STATE_DEAD, "Mempool used after deinit()");
  if (tq_mempool_used(mempool) >= mempool->inititems && mempool->growitems == 0) {
    if (tq_log_enabled(TQ_LOG_FAC_MEMORY, TQ_LOG_DEBUG))
      tq_log(TQ_LOG_FAC_MEMORY, TQ_LOG_DEBUG,
             "MEMPOOL '%s': WARNING: Out of items in non-growable mempool!", mempool->name);
    return nullptr;
  }
  if (mempool->availitems > 0)
    mempool->availitems--;
  else
    mempool->numitems++;
  return tq_malloc_flags(mempool->name, mempool->itemsize, 0);
}

void tq_mempool_put(tq_mempool_t *mempool, void *item) {
  TQ_BUG_ON(mempool == TQ_NULL, "");
  TQ_BUG_ON(item == TQ_NULL, "");
  TQ_BUG_ON(mempool->state == TQ_MEMPOOL_STATE_DEAD, "Mempool used after deinit()");
  mempool->availitems++;
  (void)tq_mempool_used(mempool);  // more items back than out is fatal there
  tq_free_flags(item);
}

uint32_t tq_mempool_used(const tq_mempool_t *mempool) {
  TQ_BUG_ON(mempool == TQ_NULL, "");
  TQ_BUG_ON(mempool->availitems > mempool->numitems, "");
  return mempool->numitems - mempool->availitems;
}

void tq_mempool_deinit(tq_mempool_t *mempool) {
  TQ_BUG_ON(mempool == TQ_NULL, "");
  TQ_BADNESS_ON(tq_mempool_used (mempool) != 0,
                "Not all items returned before deinit(). Still in use=%u mempool=%s",
                tq_mempool_used(mempool), mempool->name);
  free_blocks(mempool);
  mempool->state = TQ_MEMPOOL_STATE_DEAD;
}
