// Messages framed onto and cut out of a ring buffer: exact header bytes, the
// all-or-nothing write, frames split at every byte, broken frames and the two
// amounts the readers throw away.
#include <gtest/gtest.h>

#include <cstring>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "support/log_capture.h"
#include "support/wire.h"
#include "tq_log.h"
#include "tq_msg.h"
#include "tq_ringbuf.h"

namespace {

using namespace tqtest;

struct RingDeleter {
  void operator()(tq_ringbuf_t *rb) const { tq_ringbuf_free(rb); }
};
using Ring = std::unique_ptr<tq_ringbuf_t, RingDeleter>;
using Msg = MsgPtr;

Ring small_ring() { return Ring(tq_ringbuf_new(0x20000)); }
Bytes header(uint32_t type, uint16_t len) { return Wire().u32(type).u16(len); }

void feed(tq_ringbuf_t *rb, const Bytes &b) {
  ASSERT_EQ(tq_ringbuf_write(rb, b.data(), b.size()), b.size());
}

Bytes drain(tq_ringbuf_t *rb) {
  Bytes b(tq_ringbuf_used(rb));
  EXPECT_EQ(tq_ringbuf_read(rb, b.data(), b.size()), b.size());
  return b;
}

Bytes payload_of(const tq_msg_t *m) { return Bytes(m->data, m->data + m->len); }

TEST(MsgFrame, WriteIsExactAndAllOrNothing) {
  Msg m(tq_msg_new(0x00020003));
  tq_msg_put_uint16(m.get(), 0x6162);
  auto rb = small_ring();
  ASSERT_TRUE(tq_msg_write_frame(rb.get(), m.get()));
  EXPECT_EQ(drain(rb.get()), (Bytes{0, 2, 0, 3, 0, 2, 0x61, 0x62}));

  // Room for len + 6 bytes takes the frame; one byte less takes nothing.
  const Bytes filler(TQ_RINGBUF_CHUNK - (2 + 6) + 1, 0xAA);
  feed(rb.get(), filler);
  EXPECT_FALSE(tq_msg_write_frame(rb.get(), m.get()));
  EXPECT_EQ(tq_ringbuf_used(rb.get()), filler.size());
  ASSERT_EQ(tq_ringbuf_skip(rb.get(), 1), 1u);
  EXPECT_TRUE(tq_msg_write_frame(rb.get(), m.get()));
  EXPECT_EQ(tq_ringbuf_free_space(rb.get()), 0u);
}

TEST(MsgFrame, FullPayloadRoundTripsThroughBothReaders) {
  std::mt19937 rng(7);
  Msg out(tq_msg_new(0x2ABCD));
  for (uint32_t i = 0; i < TQ_MSG_MAX_DATA; ++i) tq_msg_put_uint8(out.get(), uint8_t(rng()));
  ASSERT_EQ(out->len, TQ_MSG_MAX_DATA);
  auto rb = small_ring();
  ASSERT_TRUE(tq_msg_write_frame(rb.get(), out.get()));
  ASSERT_TRUE(tq_msg_write_frame(rb.get(), out.get()));
  feed(rb.get(), frame(0x20002, Bytes{}));  // the frames come out one per call

  bool broken = false;
  Msg in(tq_msg_read_frame(rb.get(), &broken));
  ASSERT_NE(in, nullptr);
  EXPECT_FALSE(broken);
  EXPECT_EQ(in->type, 0x2ABCDu);
  EXPECT_EQ(in->rpos, 0);
  EXPECT_EQ(payload_of(in.get()), payload_of(out.get()));

  auto into = std::make_unique<tq_msg_t>();
  tq_msg_init(into.get(), 0);
  into->rpos = 9;
  ASSERT_TRUE(tq_msg_read_frame_into(rb.get(), into.get()));
  EXPECT_EQ(into->type, 0x2ABCDu);
  EXPECT_EQ(into->rpos, 0);
  EXPECT_EQ(payload_of(into.get()), payload_of(out.get()));
  in.reset(tq_msg_read_frame(rb.get(), nullptr));
  ASSERT_NE(in, nullptr);
  EXPECT_EQ(std::pair(in->type, in->len), std::pair(0x20002u, uint16_t{0}));
  EXPECT_EQ(tq_ringbuf_used(rb.get()), 0u);
  EXPECT_EQ(tq_msg_read_frame(rb.get(), nullptr), nullptr);
}

// Whatever the split, nothing is taken before the last byte is there; the
// completeness test answers 12 bytes early on purpose (buffered + 6 >= L).
TEST(MsgFrame, SplitAtEveryPositionIsReturnedOnlyWhenWhole) {
  Bytes payload(20);
  for (size_t i = 0; i < payload.size(); ++i) payload[i] = static_cast<uint8_t>(i * 7);
  const Bytes wire = frame(0x20005, payload);
  for (size_t split = 0; split <= wire.size(); ++split) {
    SCOPED_TRACE(split);
    for (bool into : {false, true}) {
      auto rb = small_ring();
      feed(rb.get(), Bytes(wire.begin(), wire.begin() + static_cast<long>(split)));
      EXPECT_EQ(tq_msg_frame_complete(rb.get()), split >= 6 && split + 6 >= 20);
      auto m = std::make_unique<tq_msg_t>();
      tq_msg_init(m.get(), 0);
      if (split < wire.size()) {
        if (into) {
          EXPECT_FALSE(tq_msg_read_frame_into(rb.get(), m.get()));
        } else {
          EXPECT_EQ(tq_msg_read_frame(rb.get(), nullptr), nullptr);
        }
        EXPECT_EQ(tq_ringbuf_used(rb.get()), split) << "an incomplete frame stays buffered";
        feed(rb.get(), Bytes(wire.begin() + static_cast<long>(split), wire.end()));
      }
      if (into) {
        ASSERT_TRUE(tq_msg_read_frame_into(rb.get(), m.get()));
      } else {
        m.reset(tq_msg_read_frame(rb.get(), nullptr));
        ASSERT_NE(m, nullptr);
      }
      EXPECT_EQ(m->type, 0x20005u);
      EXPECT_EQ(payload_of(m.get()), payload);
      EXPECT_EQ(tq_ringbuf_used(rb.get()), 0u);
      if (!into) tq_msg_free(m.release());
    }
  }
}

// Only the broken-frame reports count; the pool may log its own start-up.
std::vector<std::string> broken_reports(const LogCapture &log) {
  std::vector<std::string> out;
  for (const std::string &l : log.lines)
    if (l.find("broken") != std::string::npos) out.push_back(l);
  return out;
}

// A frame announcing L > 32768: tq_msg_read_frame drops L bytes and flags
// the stream, tq_msg_read_frame_into drops L + 6 and flags nothing; neither
// drops anything before L bytes are buffered.
TEST(MsgFrame, BrokenFramesDiscardTheirOwnAmounts) {
  LogCapture capture;
  const Bytes good = frame(0x20009, Bytes{0x42});
  auto take = [](tq_ringbuf_t *rb, bool into, bool *broken) {
    if (!into) {
      Msg m(tq_msg_read_frame(rb, broken));
      return m != nullptr ? m->type : 0u;
    }
    auto m = std::make_unique<tq_msg_t>();
    tq_msg_init(m.get(), 0);
    return tq_msg_read_frame_into(rb, m.get()) ? m->type : 0u;
  };
  for (uint16_t announced : {uint16_t{32769}, uint16_t{40000}}) {
    for (bool into : {false, true}) {
      SCOPED_TRACE(testing::Message() << announced << (into ? " into" : ""));
      Bytes wire = header(0x20001, announced);
      wire.resize(announced - 1u, 0xCC);  // one byte short of L buffered
      auto rb = small_ring();
      feed(rb.get(), wire);
      bool broken = false;
      EXPECT_EQ(take(rb.get(), into, &broken), 0u);
      EXPECT_EQ(broken, !into);
      EXPECT_EQ(tq_ringbuf_used(rb.get()), wire.size());
      feed(rb.get(), Bytes(7, 0xCC));  // L + 6 buffered in all
      feed(rb.get(), good);
      broken = false;
      EXPECT_EQ(take(rb.get(), into, &broken), 0u);
      EXPECT_EQ(broken, !into);
      EXPECT_EQ(tq_ringbuf_used(rb.get()), (into ? 0 : 6) + good.size());
      if (!into) (void)tq_ringbuf_skip(rb.get(), 6);  // the header it left
      EXPECT_EQ(take(rb.get(), into, &broken), 0x20009u);
    }
  }
  const auto reports = broken_reports(capture);
  ASSERT_EQ(reports.size(), 8u);
  EXPECT_EQ(reports[0], "[General:Warning] Totally broken message - size = 32769");
  EXPECT_EQ(reports[4], "[General:Warning] Totally broken message - size = 40000");

  // Below "Warning" on "General" the discard happens without the line; an
  // exact L buffered is enough.
  tq_log_set_level(TQ_LOG_FAC_GENERAL, TQ_LOG_ERROR);
  auto rb = small_ring();
  Bytes wire = header(0x20001, 32769);
  wire.resize(32769, 0);
  feed(rb.get(), wire);
  EXPECT_EQ(tq_msg_read_frame(rb.get(), nullptr), nullptr);
  EXPECT_EQ(tq_ringbuf_used(rb.get()), 0u);
  EXPECT_EQ(broken_reports(capture).size(), 8u);
}

TEST(MsgPool, DupCopiesAndThePoolCountsMessagesOut) {
  const uint32_t before = tq_msg_pool_used();
  Msg a(tq_msg_new(0x10042));
  EXPECT_EQ(tq_msg_pool_used(), before + 1);
  EXPECT_TRUE(tq_msg_is_empty(a.get()));
  EXPECT_EQ(a->reserved, 0u);
  tq_msg_put_uint32(a.get(), 0xA1B2C3D4);
  tq_msg_put_uint8(a.get(), 9);
  ASSERT_TRUE(tq_msg_skip(a.get(), 1));
  Msg b(tq_msg_dup(a.get()));
  EXPECT_EQ(tq_msg_pool_used(), before + 2);
  EXPECT_EQ(b->type, 0x10042u);
  EXPECT_EQ(b->rpos, 1);
  EXPECT_EQ(payload_of(b.get()), payload_of(a.get()));
  a.reset();
  b.reset();
  EXPECT_EQ(tq_msg_pool_used(), before);
}

using MsgFrameDeathTest = testing::Test;

TEST_F(MsgFrameDeathTest, NullMessages) {
  auto rb = small_ring();
  EXPECT_DEATH((void)tq_msg_write_frame(rb.get(), nullptr),
               "TQ-BUG at common/msg\\.cc:[0-9]+/tq_msg_write_frame\\(\\): "
               "msg == \\(\\(void \\*\\)0\\)  \n");
  EXPECT_DEATH((void)tq_msg_read_frame_into(rb.get(), nullptr),
               "/tq_msg_read_frame_into\\(\\): msg == \\(\\(void \\*\\)0\\)  \n");
}

}  // namespace
