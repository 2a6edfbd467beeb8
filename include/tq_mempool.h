// A counting pool of fixed-size items. Items are tracked allocations under
// the pool's name; the pool counts them out and back so that a shutdown can
// tell what is still in use, and so that a pool without a grow step refuses
// once its initial items are all out.
//
// Counting: numitems is how many items the pool has ever had out at once
// (it only grows), availitems how many of those are currently back.
// In use = numitems - availitems.
#ifndef TQ_MEMPOOL_H
#define TQ_MEMPOOL_H

#include <cstddef>
#include <cstdint>

struct tq_mempool_t {
  void *blocks;          // backing blocks (a list); items are allocated one by one, so empty
  uint32_t state;        // 0xDEAD after deinit
  uint32_t inititems;
  uint32_t growitems;    // 0: the pool never grows past inititems
  size_t itemsize;
  uint32_t numitems;     // items handed out so far
  uint32_t availitems;   // of those, given back
  char name[64];
};

inline constexpr uint32_t TQ_MEMPOOL_STATE_DEAD = 0xDEAD;

// Fatal when inititems and growitems are both 0 or itemsize < 8.
void tq_mempool_init(tq_mempool_t *pool, const char *name, uint32_t inititems,
                     uint32_t growitems, size_t itemsize);
void *tq_mempool_get(tq_mempool_t *pool);  // nullptr when exhausted
void tq_mempool_put(tq_mempool_t *pool, void *item);  // nullptr is fatal
uint32_t tq_mempool_used(const tq_mempool_t *pool);
// Reports items still out (they stay valid tracked allocations).
void tq_mempool_deinit(tq_mempool_t *pool);

#endif
