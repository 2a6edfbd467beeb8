// A counting pool of fixed-size items. Items are tracked allocations under
// the pool's name; the pool counts them out and back so that a shutdown can
// tell what is still in use.
#ifndef TQ_MEMPOOL_H
#define TQ_MEMPOOL_H

#include <cstddef>
#include <cstdint>

struct tq_mempool_t {
  void *blocks;          // backing blocks (a list)
  uint32_t state;        // 0xDEAD after deinit
  uint32_t inititems;
  uint32_t growitems;    // 0: the pool never grows past inititems
  size_t itemsize;
  uint32_t numitems;     // items handed out so far
  uint32_t availitems;   // of those, given back
  char name[64];
};

void tq_mempool_init(tq_mempool_t *pool, const char *name, uint32_t inititems,
                     uint32_t growitems, size_t itemsize);
void *tq_mempool_get(tq_mempool_t *pool);  // nullptr when exhausted
void tq_mempool_put(tq_mempool_t *pool, void *item);
uint32_t tq_mempool_used(const tq_mempool_t *pool);
void tq_mempool_deinit(tq_mempool_t *pool);

#endif
