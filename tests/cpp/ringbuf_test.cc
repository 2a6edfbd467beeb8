// The chunked ring buffer against a plain byte queue, its chunk boundaries,
// the offset wrap, the chunk cache and its limit, and the fatal paths.
#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <deque>
#include <fcntl.h>
#include <memory>
#include <random>
#include <utility>
#include <unistd.h>
#include <vector>

#include "tq_ringbuf.h"

namespace {

using Bytes = std::vector<uint8_t>;
constexpr size_t kChunk = TQ_RINGBUF_CHUNK;

struct RingDeleter {
  void operator()(tq_ringbuf_t *rb) const { tq_ringbuf_free(rb); }
};
using Ring = std::unique_ptr<tq_ringbuf_t, RingDeleter>;

Bytes pattern(size_t n, uint32_t seed) {
  Bytes b(n);
  for (size_t i = 0; i < n; ++i) b[i] = static_cast<uint8_t>((seed + i) * 2654435761u >> 24);
  return b;
}

size_t chunks_in(const tq_ringbuf_t *rb) {
  size_t n = 0;
  for (const tq_ringbuf_chunk_t *c = rb->first_chunk; c != nullptr; c = c->next) ++n;
  return n;
}

class RingbufTest : public testing::Test {
 protected:
  void SetUp() override { ASSERT_TRUE(tq_ringbuf_init(0)); }
  void TearDown() override { tq_ringbuf_deinit(); }
};

// Random writes, reads, peeks and skips of every size, many crossing chunk
// boundaries, from offset 0 and from just before the wrap point, compared
// with a byte queue after every step.
TEST_F(RingbufTest, BehavesLikeAByteQueue) {
  std::mt19937 rng(99);
  for (uint32_t start : {0u, TQ_RINGBUF_WRAP - 1000u, TQ_RINGBUF_WRAP - uint32_t{kChunk}}) {
    SCOPED_TRACE(start);
    Ring rb(tq_ringbuf_new(3 * kChunk));
    rb->rd = rb->wr = start;
    std::deque<uint8_t> model;
    uint32_t seed = 0;
    for (int step = 0; step < 600; ++step) {
      // Mostly small, sometimes more than a chunk.
      const size_t len = rng() % 4 == 0 ? rng() % (2 * kChunk) : rng() % 5000;
      const uint32_t rd_before = rb->rd;
      const int op = static_cast<int>(rng() % 4);
      if (op == 0) {
        const Bytes in = pattern(len, seed += 977);
        const size_t n = tq_ringbuf_write(rb.get(), in.data(), len);
        ASSERT_EQ(n, std::min<size_t>(len, 3 * kChunk - model.size()));
        model.insert(model.end(), in.begin(), in.begin() + long(n));
      } else {  // read, peek, skip
        Bytes out(len, 0xEE);
        const size_t n = op == 1   ? tq_ringbuf_read(rb.get(), out.data(), len)
                         : op == 2 ? tq_ringbuf_peek(rb.get(), out.data(), len)
                                   : tq_ringbuf_skip(rb.get(), len);
        ASSERT_EQ(n, std::min(len, model.size()));
        if (op != 3) {
          ASSERT_TRUE(std::equal(model.begin(), model.begin() + long(n), out.begin()));
        }
        if (op == 2) {
          ASSERT_EQ(rb->rd, rd_before);
        } else {
          model.erase(model.begin(), model.begin() + long(n));
        }
      }
      ASSERT_EQ(tq_ringbuf_used(rb.get()), model.size());
      ASSERT_EQ(tq_ringbuf_free_space(rb.get()), 3 * kChunk - model.size());
      ASSERT_LT(rb->rd, TQ_RINGBUF_WRAP);
      ASSERT_LT(rb->wr, TQ_RINGBUF_WRAP);
      ASSERT_EQ((uint64_t{rb->wr} + TQ_RINGBUF_WRAP - rb->rd) % TQ_RINGBUF_WRAP, model.size());
      ASSERT_LE(chunks_in(rb.get()), 4u);
    }
    Bytes rest(model.size());
    ASSERT_EQ(tq_ringbuf_read(rb.get(), rest.data(), rest.size()), model.size());
    EXPECT_TRUE(std::equal(rest.begin(), rest.end(), model.begin()));
  }
}

TEST_F(RingbufTest, OffsetsWrapWithoutMovingInsideTheChunk) {
  Ring rb(tq_ringbuf_new(0));
  rb->rd = rb->wr = TQ_RINGBUF_WRAP - 10;
  const Bytes in = pattern(30, 1);
  ASSERT_EQ(tq_ringbuf_write(rb.get(), in.data(), 10), 10u);
  EXPECT_EQ(rb->wr, 0u) << "reaching the wrap point is offset 0";
  EXPECT_EQ(chunks_in(rb.get()), 1u);
  ASSERT_EQ(tq_ringbuf_write(rb.get(), in.data() + 10, 20), 20u);
  EXPECT_EQ(rb->wr, 20u);
  EXPECT_EQ(chunks_in(rb.get()), 2u);
  Bytes out(30);
  ASSERT_EQ(tq_ringbuf_read(rb.get(), out.data(), 30), 30u);
  EXPECT_EQ(out, in);
  EXPECT_EQ(rb->rd, 20u);
  EXPECT_EQ(chunks_in(rb.get()), 1u);
}

TEST_F(RingbufTest, ChunkBoundaries) {
  Ring rb(tq_ringbuf_new(0x80000));
  const Bytes in = pattern(kChunk + 1, 5);
  // A write that ends on the boundary takes no chunk for what follows.
  ASSERT_EQ(tq_ringbuf_write(rb.get(), in.data(), kChunk), kChunk);
  EXPECT_EQ(chunks_in(rb.get()), 1u);
  EXPECT_EQ(rb->last_chunk, rb->first_chunk);
  ASSERT_EQ(tq_ringbuf_write(rb.get(), in.data() + kChunk, 1), 1u);
  EXPECT_EQ(chunks_in(rb.get()), 2u);

  // A peek across the boundary changes nothing; a read up to it gives the
  // finished chunk back.
  tq_ringbuf_chunk_t *first = rb->first_chunk;
  Bytes out(kChunk + 1);
  ASSERT_EQ(tq_ringbuf_skip(rb.get(), kChunk - 3), kChunk - 3);
  ASSERT_EQ(tq_ringbuf_peek(rb.get(), out.data(), 4), 4u);
  EXPECT_EQ(Bytes(out.begin(), out.begin() + 4), Bytes(in.end() - 4, in.end()));
  EXPECT_EQ(rb->first_chunk, first);
  EXPECT_EQ(rb->rd, kChunk - 3);
  EXPECT_EQ(tq_ringbuf_used(rb.get()), 4u);
  EXPECT_EQ(tq_ringbuf_cache_count(), 0u);
  ASSERT_EQ(tq_ringbuf_read(rb.get(), out.data(), 3), 3u);
  EXPECT_EQ(tq_ringbuf_cache_count(), 1u);
  EXPECT_EQ(chunks_in(rb.get()), 1u);
  EXPECT_NE(rb->first_chunk, first);

  // Reading all bytes that end on a boundary leaves no chunk; the next write
  // takes one from the cache, and a read that stops inside it keeps it.
  rb.reset(tq_ringbuf_new(0));
  tq_ringbuf_deinit();
  ASSERT_EQ(tq_ringbuf_write(rb.get(), in.data(), kChunk), kChunk);
  ASSERT_EQ(tq_ringbuf_read(rb.get(), out.data(), kChunk), kChunk);
  EXPECT_EQ(rb->first_chunk, nullptr);
  EXPECT_EQ(tq_ringbuf_cache_count(), 1u);
  ASSERT_EQ(tq_ringbuf_write(rb.get(), in.data(), 5), 5u);
  EXPECT_NE(rb->first_chunk, nullptr);
  EXPECT_EQ(rb->last_chunk, rb->first_chunk);
  EXPECT_EQ(tq_ringbuf_cache_count(), 0u);
  ASSERT_EQ(tq_ringbuf_read(rb.get(), out.data(), 5), 5u);
  EXPECT_NE(rb->first_chunk, nullptr);
  EXPECT_EQ(tq_ringbuf_cache_count(), 0u);
}

TEST_F(RingbufTest, SizingTruncatedWritesAndClear) {
  struct Case { size_t size; uint32_t chunks; };
  // Below 512 KiB one chunk, else whole chunks rounded down.
  for (const Case &c : {Case{0, 1}, Case{0x7FFFF, 1}, Case{0x80000, 2}, Case{0xBFFFF, 2},
                        Case{78643200, 300}}) {
    Ring rb(tq_ringbuf_new(c.size));
    EXPECT_EQ(tq_ringbuf_size(rb.get()), c.chunks * kChunk) << c.size;
  }
  Ring rb(tq_ringbuf_new(0x20000));
  const Bytes in = pattern(kChunk + 5, 3);
  EXPECT_EQ(tq_ringbuf_write(rb.get(), in.data(), in.size()), kChunk);
  EXPECT_EQ(tq_ringbuf_write(rb.get(), in.data(), 1), 0u);
  EXPECT_EQ(tq_ringbuf_free_space(rb.get()), 0u);
  tq_ringbuf_clear(rb.get());
  EXPECT_EQ(tq_ringbuf_used(rb.get()), 0u);
  EXPECT_EQ(rb->first_chunk, nullptr);
  EXPECT_EQ(std::pair(rb->rd, rb->wr), std::pair(0u, 0u));
  EXPECT_EQ(tq_ringbuf_cache_count(), 1u);
}

TEST_F(RingbufTest, CacheLimitAndPrealloc) {
  // bytes / chunk + 1 chunks each time, also for 0 bytes.
  for (auto [bytes, count] : {std::pair{size_t{0}, 1u}, {kChunk - 1, 2u}, {kChunk, 4u}}) {
    tq_ringbuf_prealloc(bytes);
    EXPECT_EQ(tq_ringbuf_cache_count(), count) << bytes;
  }
  // Five chunks given back: a limit of 2 lets the cache keep 3, 0 is no limit.
  const Bytes in = pattern(5 * kChunk, 8);
  for (uint32_t limit : {2u, 0u}) {
    tq_ringbuf_deinit();
    EXPECT_EQ(tq_ringbuf_cache_count(), 0u);
    tq_ringbuf_set_cache_limit(limit);
    Ring rb(tq_ringbuf_new(5 * kChunk));
    ASSERT_EQ(tq_ringbuf_write(rb.get(), in.data(), in.size()), in.size());
    ASSERT_EQ(chunks_in(rb.get()), 5u);
    tq_ringbuf_clear(rb.get());
    EXPECT_EQ(tq_ringbuf_cache_count(), limit == 0 ? 5u : limit + 1) << limit;
  }
}

TEST_F(RingbufTest, ToFdWritesWhatTheDescriptorTakes) {
  std::signal(SIGPIPE, SIG_IGN);
  int fds[2];
  ASSERT_EQ(pipe(fds), 0);
  ASSERT_EQ(fcntl(fds[1], F_SETFL, O_NONBLOCK), 0);
  Ring rb(tq_ringbuf_new(0x80000));
  EXPECT_EQ(tq_ringbuf_to_fd(rb.get(), fds[1], 10), 0);  // nothing buffered
  EXPECT_EQ(tq_ringbuf_to_fd(rb.get(), -1, 10), -1);
  EXPECT_EQ(tq_ringbuf_to_fd(nullptr, fds[1], 10), -1);
  EXPECT_EQ(tq_ringbuf_to_fd(rb.get(), fds[1], 0), -1);

  // Across a chunk boundary, and more than the pipe can take at once.
  rb->rd = rb->wr = kChunk - 100;
  const Bytes in = pattern(kChunk, 4);
  ASSERT_EQ(tq_ringbuf_write(rb.get(), in.data(), in.size()), in.size());
  const ssize_t n = tq_ringbuf_to_fd(rb.get(), fds[1], kChunk);
  ASSERT_GT(n, 100);
  ASSERT_LT(n, ssize_t(kChunk));
  EXPECT_EQ(tq_ringbuf_used(rb.get()), kChunk - size_t(n));
  Bytes got(static_cast<size_t>(n));
  ASSERT_EQ(read(fds[0], got.data(), got.size()), n);
  EXPECT_EQ(got, Bytes(in.begin(), in.begin() + n));
  EXPECT_EQ(tq_ringbuf_to_fd(rb.get(), fds[0], 10), -EBADF);  // the read end
  close(fds[0]);
  EXPECT_EQ(tq_ringbuf_to_fd(rb.get(), fds[1], 10), -EPIPE);
  EXPECT_EQ(tq_ringbuf_used(rb.get()), kChunk - size_t(n));
  close(fds[1]);
}

using RingbufDeathTest = RingbufTest;

TEST_F(RingbufDeathTest, BrokenInvariantsAreFatal) {
  const std::string at = "TQ-BUG at common/ringbuf\\.cc:[0-9]+/";
  const Bytes in = pattern(16, 0);
  Ring rb(tq_ringbuf_new(0));
  ASSERT_EQ(tq_ringbuf_write(rb.get(), in.data(), in.size()), in.size());
  tq_ringbuf_t *r = rb.get();
  EXPECT_DEATH((r->last_chunk = nullptr, (void)tq_ringbuf_write(r, in.data(), 1)),
               at + "tq_ringbuf_write\\(\\): ringbuf->last_chunk == \\(\\(void \\*\\)0\\)  "
                    "If first chunk exists, so must last\n");
  // One byte more used than the chunks hold.
  EXPECT_DEATH((r->used = 17, r->rd = kChunk - 16, (void)tq_ringbuf_skip(r, 17)),
               at + "tq_ringbuf_read2\\(\\): !rd_chunk  \n");
  EXPECT_DEATH((r->first_chunk->in_use = 0, tq_ringbuf_clear(r)),
               at + "tq_ringbuf_recycle\\(\\): !chunk->in_use  \n");
  // A chunk marked in use although it sits in the cache.
  tq_ringbuf_chunk_t *chunk = r->first_chunk;
  EXPECT_DEATH((tq_ringbuf_clear(r), chunk->in_use = 1, (void)tq_ringbuf_write(r, in.data(), 1)),
               at + "tq_ringbuf_chunk_new\\(\\): ret->in_use  \n");
}

}  // namespace
