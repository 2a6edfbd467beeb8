// The chunked ring buffer and the process-wide cache of spare chunks.
#include "tq_ringbuf.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <span>
#include <sys/uio.h>

#include "tq_log.h"
#include "tq_malloc.h"

namespace {

constexpr const char *kChunkLabel = "tq_ringbuf_chunk_t";
constexpr const char *kRingLabel = "tq_ringbuf_t";
// Rings larger than the offset space could not tell their positions apart.
constexpr uint32_t kMaxChunks = TQ_RINGBUF_WRAP / TQ_RINGBUF_CHUNK;
static_assert(TQ_RINGBUF_WRAP % TQ_RINGBUF_CHUNK == 0, "the wrap keeps positions in chunks");

// Spare chunks, shared by every ring of the process. The all-zero state is
// the valid empty cache with no limit, so no start-up call is needed.
struct chunk_cache {
  tq_ringbuf_chunk_t *head;
  uint32_t count;
  uint32_t limit;  // 0: no limit
};
constinit chunk_cache g_cache{};

constexpr uint32_t chunk_pos(uint32_t offset) { return offset % TQ_RINGBUF_CHUNK; }

// Offsets stay below the wrap point; as it is a multiple of the chunk size,
// wrapping never moves a position inside its chunk.
constexpr uint32_t advance(uint32_t offset, size_t n) {
  uint64_t next = uint64_t{offset} + n;
  if (next >= TQ_RINGBUF_WRAP) next -= TQ_RINGBUF_WRAP;
  return static_cast<uint32_t>(next);
}

tq_ringbuf_chunk_t *tq_ringbuf_chunk_new() {
  tq_ringbuf_chunk_t *ret = g_cache.head;
  if (ret != nullptr) {
    TQ_BUG_ON(ret->in_use, "");
    g_cache.head = ret->next;
    --g_cache.count;
  } else {
    ret = tq_new_record<tq_ringbuf_chunk_t>(kChunkLabel);
  }
  ret->next = nullptr;
  ret->in_use = 1;
  return ret;
}

// A limit L lets the cache grow to L + 1 chunks before chunks are freed.
void tq_ringbuf_recycle(tq_ringbuf_chunk_t *chunk) {
  TQ_BUG_ON(!chunk->in_use, "");
  chunk->in_use = 0;
  if (g_cache.limit != 0 && g_cache.limit < g_cache.count) {
    tq_free_flags(chunk);
    return;
  }
  chunk->next = g_cache.head;
  g_cache.head = chunk;
  ++g_cache.count;
}

void free_cached_chunks() {
  while (tq_ringbuf_chunk_t *chunk = g_cache.head) {
    g_cache.head = chunk->next;
    tq_free_flags(chunk);
  }
  g_cache.count = 0;
}

}  // namespace

// --- the chunk cache ----------------------------------------------------------------

bool tq_ringbuf_init(uint32_t limit) {
  free_cached_chunks();
  g_cache.limit = limit;
  return true;
}

void tq_ringbuf_set_cache_limit(uint32_t limit) { g_cache.limit = limit; }

void tq_ringbuf_prealloc(size_t bytes) {
  for (size_t n = bytes / TQ_RINGBUF_CHUNK + 1; n > 0; --n) {
    auto *chunk = tq_new_record<tq_ringbuf_chunk_t>(kChunkLabel);
    chunk->next = g_cache.head;
    g_cache.head = chunk;
    ++g_cache.count;
  }
}

void tq_ringbuf_deinit() { free_cached_chunks(); }

uint32_t tq_ringbuf_cache_count() { return g_cache.count; }

// --- rings -------------------------------------------------------------------------

tq_ringbuf_t *tq_ringbuf_new(size_t size) {
  auto *rb = tq_new_record<tq_ringbuf_t>(kRingLabel);
  const size_t chunks = size < 2 * TQ_RINGBUF_CHUNK ? 1 : size >> 18;
  rb->max_chunks = static_cast<uint32_t>(std::min<size_t>(chunks, kMaxChunks));
  return rb;
}

void tq_ringbuf_clear(tq_ringbuf_t *rb) {
  tq_ringbuf_chunk_t *chunk = rb->first_chunk;
  while (chunk != nullptr) {
    tq_ringbuf_chunk_t *next = chunk->next;
    tq_ringbuf_recycle(chunk);
    chunk = next;
  }
  rb->rd = 0;
  rb->wr = 0;
  rb->first_chunk = nullptr;
  rb->last_chunk = nullptr;
  rb->used = 0;
}

void tq_ringbuf_free(tq_ringbuf_t *rb) {
  if (rb == nullptr) return;
  tq_ringbuf_clear(rb);
  tq_free_flags(rb);
}

uint32_t tq_ringbuf_size(const tq_ringbuf_t *rb) { return rb->max_chunks * TQ_RINGBUF_CHUNK; }

uint32_t tq_ringbuf_free_space(const tq_ringbuf_t *rb) { return tq_ringbuf_size(rb) - rb->used; }

uint32_t tq_ringbuf_used(const tq_ringbuf_t *rb) { return rb->used; }

size_t tq_ringbuf_write(tq_ringbuf_t *ringbuf, const void *buf, size_t len) {
  const size_t n = std::min<size_t>(len, tq_ringbuf_free_space(ringbuf));
  if (n == 0) return 0;
  std::span<const uint8_t> src(static_cast<const uint8_t *>(buf), n);
  while (!src.empty()) {
    const uint32_t pos = chunk_pos(ringbuf->wr);
    if (pos == 0 || ringbuf->last_chunk == nullptr) {
      if (ringbuf->first_chunk != nullptr)
        TQ_BUG_ON(ringbuf->last_chunk == TQ_NULL, "If first chunk exists, so must last");
      tq_ringbuf_chunk_t *chunk = tq_ringbuf_chunk_new();
      if (ringbuf->first_chunk != nullptr)
        ringbuf->last_chunk->next = chunk;
      else
        ringbuf->first_chunk = chunk;
      ringbuf->last_chunk = chunk;
    }
    const size_t run = std::min<size_t>(src.size(), TQ_RINGBUF_CHUNK - pos);
    std::memcpy(ringbuf->last_chunk->data + pos, src.data(), run);
    ringbuf->wr = advance(ringbuf->wr, run);
    src = src.subspan(run);
  }
  ringbuf->used += static_cast<uint32_t>(n);
  return n;
}

size_t tq_ringbuf_read2(tq_ringbuf_t *rb, void *buf, size_t len, bool consume, bool copy) {
  const size_t n = std::min<size_t>(len, rb->used);
  if (n == 0) return 0;
  auto *dst = static_cast<uint8_t *>(buf);
  tq_ringbuf_chunk_t *rd_chunk = rb->first_chunk;
  uint32_t rd = rb->rd;
  for (size_t left = n; left > 0;) {
    TQ_BUG_ON(!rd_chunk, "");
    const uint32_t pos = chunk_pos(rd);
    const size_t run = std::min<size_t>(left, TQ_RINGBUF_CHUNK - pos);
    if (copy) {
      std::memcpy(dst, rd_chunk->data + pos, run);
      dst += run;
    }
    rd = advance(rd, run);
    left -= run;
    if (chunk_pos(rd) != 0) continue;
    // The chunk is finished: a consuming read gives it back, a peek only
    // walks past it.
    tq_ringbuf_chunk_t *next = rd_chunk->next;
    if (consume) {
      rb->first_chunk = next;
      if (next == nullptr) rb->last_chunk = nullptr;  // the ring is empty now
      tq_ringbuf_recycle(rd_chunk);
    }
    rd_chunk = next;
  }
  if (consume) {
    rb->rd = rd;
    rb->used -= static_cast<uint32_t>(n);
  }
  return n;
}

size_t tq_ringbuf_read(tq_ringbuf_t *rb, void *buf, size_t len) {
  return tq_ringbuf_read2(rb, buf, len, true, true);
}

size_t tq_ringbuf_peek(tq_ringbuf_t *rb, void *buf, size_t len) {
  return tq_ringbuf_read2(rb, buf, len, false, true);
}

size_t tq_ringbuf_skip(tq_ringbuf_t *rb, size_t len) {
  return tq_ringbuf_read2(rb, nullptr, len, true, false);
}

// At most one chunk's worth, so the bytes lie in at most two runs; they are
// handed to the descriptor straight from the chunks.
ssize_t tq_ringbuf_to_fd(tq_ringbuf_t *rb, int fd, size_t len) {
  if (fd < 0 || rb == nullptr || len == 0) return -1;
  size_t n = std::min<size_t>({len, TQ_RINGBUF_CHUNK, rb->used});
  if (n == 0) return 0;
  iovec iov[2]{};
  int runs = 0;
  tq_ringbuf_chunk_t *rd_chunk = rb->first_chunk;
  for (uint32_t pos = chunk_pos(rb->rd); n > 0; pos = 0, rd_chunk = rd_chunk->next) {
    TQ_BUG_ON(!rd_chunk, "");
    const size_t run = std::min<size_t>(n, TQ_RINGBUF_CHUNK - pos);
    iov[runs].iov_base = rd_chunk->data + pos;
    iov[runs].iov_len = run;
    ++runs;
    n -= run;
  }
  const ssize_t written = ::writev(fd, iov, runs);
  if (written < 0) return -errno;
  (void)tq_ringbuf_skip(rb, static_cast<size_t>(written));
  return written;
}
