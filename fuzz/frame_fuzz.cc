// The frame reader on a receive ring: the input is a byte stream written into
// the ring in slices of the fuzzer's choosing, with frames taken out after
// every slice. Besides the sanitizers, the ring must hold exactly the stream
// minus what the reader took from its front, and a frame taken out must be
// the bytes it was cut from.
#include <deque>
#include <memory>
#include <vector>

#include "harness.h"
#include "tq_ringbuf.h"

namespace {

struct RingDeleter {
  void operator()(tq_ringbuf_t *r) const { tq_ringbuf_free(r); }
};

// What the ring should hold: every byte written, minus the front the reader
// has consumed; checked against a peek after every call.
struct Shadow {
  std::deque<uint8_t> bytes;

  void resync(tq_ringbuf_t *ring) {
    const size_t used = tq_ringbuf_used(ring);
    if (used > bytes.size()) __builtin_trap();  // the reader made bytes up
    bytes.erase(bytes.begin(), bytes.end() - static_cast<std::ptrdiff_t>(used));
    uint8_t head[64];
    const size_t n = tq_ringbuf_peek(ring, head, sizeof head);
    if (n != std::min(used, sizeof head) || !std::equal(head, head + n, bytes.begin())) __builtin_trap();
  }

  void check_frame(const tq_msg_t *m) {
    if (m->rpos != 0 || m->len > TQ_MSG_MAX_DATA || bytes.size() < TQ_MSG_FRAME_HEADER + m->len) __builtin_trap();
    uint8_t hdr[TQ_MSG_FRAME_HEADER];
    std::copy_n(bytes.begin(), TQ_MSG_FRAME_HEADER, hdr);
    if (tq::load_be32(std::span<const uint8_t, 4>(hdr, 4)) != m->type ||
        tq::load_be16(std::span<const uint8_t, 2>(hdr + 4, 2)) != m->len ||
        !std::equal(m->data, m->data + m->len, bytes.begin() + TQ_MSG_FRAME_HEADER))
      __builtin_trap();
    bytes.erase(bytes.begin(), bytes.begin() + TQ_MSG_FRAME_HEADER + m->len);
  }
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  tqfuzz::install_bug_hook();
  tqfuzz::run_guarded([&] {
    tqfuzz::Reader in({data, size});
    // One ring for the process (a new one per input costs more than the
    // input), emptied first: an input cut short leaves bytes behind.
    static std::unique_ptr<tq_ringbuf_t, RingDeleter> ring(tq_ringbuf_new(TQDB_API_RBUF_SIZE));
    tq_ringbuf_clear(ring.get());
    tqfuzz::MsgPtr into(tq_msg_new(0));
    Shadow shadow;
    std::vector<uint8_t> zeros;
    while (!in.empty()) {
      // A slice: its length byte picks slices of up to 63 input bytes, or
      // runs of 0x7F in KiB (which read as a header announcing 32639 bytes), so that long frames (and frames announcing
      // more than a message holds) are cheap to reach.
      const uint8_t op = in.u8();
      tqfuzz::Span slice;
      if (op & 0x80) {
        zeros.assign(size_t{op & 0x3Fu} * 1024, 0x7F);
        slice = zeros;
      } else {
        slice = in.take(op & 0x3Fu);
      }
      const size_t put = tq_ringbuf_write(ring.get(), slice.data(), slice.size());
      shadow.bytes.insert(shadow.bytes.end(), slice.begin(), slice.begin() + static_cast<std::ptrdiff_t>(put));

      // Bit 6 chooses the reader: a new message per frame, or the caller's.
      for (int guard = 0; guard < 10000; ++guard) {
        (void)tq_msg_frame_complete(ring.get());
        if (op & 0x40) {
          if (!tq_msg_read_frame_into(ring.get(), into.get())) break;
          shadow.check_frame(into.get());
        } else {
          bool broken = false;
          tqfuzz::MsgPtr m(tq_msg_read_frame(ring.get(), &broken));
          if (!m) {
            const size_t before = shadow.bytes.size();
            shadow.resync(ring.get());
            if (broken && shadow.bytes.size() != before) continue;  // skipped a broken frame
            break;
          }
          shadow.check_frame(m.get());
        }
      }
      shadow.resync(ring.get());
    }
  });
  return 0;
}
