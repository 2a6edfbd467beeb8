// tq_ringbuf_t: a FIFO of bytes in a list of fixed 256 KiB chunks.
//
//   first_chunk                                last_chunk
//   +-----------------+    +-----------------+    +-----------------+
//   |....XXXXXXXXXXXXX| -> |XXXXXXXXXXXXXXXXX| -> |XXXXXXX..........|
//   +-----------------+    +-----------------+    +-----------------+
//        ^ rd % CHUNK                                    ^ wr % CHUNK
//
// rd and wr are stream offsets that wrap at 0xFFFC0000 (a multiple of the
// chunk size, so a position inside a chunk never jumps). used = bytes
// buffered; capacity = max_chunks * 256 KiB. Invariant: a first chunk implies
// a last chunk. Spare chunks go to one process-wide cache instead of the
// heap, so a busy connection allocates nothing in steady state.
#ifndef TQ_RINGBUF_H
#define TQ_RINGBUF_H

#include <cstddef>
#include <cstdint>
#include <sys/types.h>

inline constexpr uint32_t TQ_RINGBUF_CHUNK = 262144;
inline constexpr uint32_t TQ_RINGBUF_WRAP = 0xFFFC0000u;

struct tq_ringbuf_chunk_t {
  uint8_t data[TQ_RINGBUF_CHUNK];
  tq_ringbuf_chunk_t *next;
  uint8_t in_use;
};

struct tq_ringbuf_t {
  uint32_t rd;   // read offset
  uint32_t wr;   // write offset
  tq_ringbuf_chunk_t *first_chunk;
  tq_ringbuf_chunk_t *last_chunk;
  uint32_t max_chunks;
  uint32_t used;
};

// The process-wide chunk cache. limit 0 = no limit; a limit L lets the
// cache reach L + 1 chunks.
bool tq_ringbuf_init(uint32_t limit);
void tq_ringbuf_set_cache_limit(uint32_t limit);
void tq_ringbuf_prealloc(size_t bytes);  // bytes / 256 KiB + 1 chunks
void tq_ringbuf_deinit();
uint32_t tq_ringbuf_cache_count();

// max_chunks = 1 below 512 KiB, else size >> 18.
tq_ringbuf_t *tq_ringbuf_new(size_t size);
void tq_ringbuf_clear(tq_ringbuf_t *rb);
void tq_ringbuf_free(tq_ringbuf_t *rb);  // nullptr is ignored

uint32_t tq_ringbuf_size(const tq_ringbuf_t *rb);
uint32_t tq_ringbuf_free_space(const tq_ringbuf_t *rb);
uint32_t tq_ringbuf_used(const tq_ringbuf_t *rb);

// Stores min(len, free space) bytes and returns that count.
size_t tq_ringbuf_write(tq_ringbuf_t *rb, const void *buf, size_t len);
// The one read primitive: min(len, used) bytes, consumed and/or copied.
size_t tq_ringbuf_read2(tq_ringbuf_t *rb, void *buf, size_t len, bool consume, bool copy);
size_t tq_ringbuf_read(tq_ringbuf_t *rb, void *buf, size_t len);
size_t tq_ringbuf_peek(tq_ringbuf_t *rb, void *buf, size_t len);
size_t tq_ringbuf_skip(tq_ringbuf_t *rb, size_t len);
// Writes up to len (<= 256 KiB) buffered bytes to fd and discards what went:
// the count, 0 when nothing was buffered or written, -errno on failure, -1
// for a bad descriptor, a null ring or len 0.
ssize_t tq_ringbuf_to_fd(tq_ringbuf_t *rb, int fd, size_t len);

#endif
