// Message pool, the field-list reader and framing of messages on a ring
// buffer. The put and get primitives are inline in tq_msg.h.
#include "tq_msg.h"

#include <array>
#include <cstdarg>

#include "tq_log.h"
#include "tq_mempool.h"
#include "tq_ringbuf.h"

namespace {

// The pool starts on first use, so that code and tests need no explicit
// library start-up; tq_msg_pool_deinit takes it back to that state.
struct msg_pool {
  tq_mempool_t pool;
  bool ready;
};
constinit msg_pool g_msgs{};

tq_mempool_t *msg_pool_get() {
  tq_msg_pool_init();
  return &g_msgs.pool;
}

struct frame_header {
  uint32_t type;
  uint32_t len;  // as announced; may exceed TQ_MSG_MAX_DATA on a broken stream
};

// The header of the frame at the front of the ring, left in place; false
// while fewer than 6 bytes are buffered.
bool peek_frame_header(tq_ringbuf_t *ring, frame_header *h) {
  if (tq_ringbuf_used(ring) < TQ_MSG_FRAME_HEADER) return false;
  std::array<uint8_t, TQ_MSG_FRAME_HEADER> raw{};
  (void)tq_ringbuf_peek(ring, raw.data(), raw.size());
  const std::span<const uint8_t, TQ_MSG_FRAME_HEADER> bytes(raw);
  h->type = tq::load_be32(bytes.first<4>());
  h->len = tq::load_be16(bytes.last<2>());
  return true;
}

void report_broken_frame(uint32_t len) {
  if (tq_log_enabled(TQ_LOG_FAC_GENERAL, TQ_LOG_WARNING))
    tq_log(TQ_LOG_FAC_GENERAL, TQ_LOG_WARNING, "Totally broken message - size = %d",
           static_cast<int>(len));
}

// Consumes the header and the payload of a complete frame into msg.
void take_frame(tq_ringbuf_t *ring, const frame_header &h, tq_msg_t *msg) {
  (void)tq_ringbuf_skip(ring, TQ_MSG_FRAME_HEADER);
  (void)tq_ringbuf_read(ring, msg->data, h.len);
  msg->type = h.type;
  msg->len = static_cast<uint16_t>(h.len);
  msg->rpos = 0;
}

bool frame_is_whole(tq_ringbuf_t *ring, const frame_header &h) {
  return tq_ringbuf_used(ring) - TQ_MSG_FRAME_HEADER >= h.len;
}

enum class field_step { next, end, failed };

field_step step_of(bool ok) { return ok ? field_step::next : field_step::failed; }

// One field of tq_msg_get_fields; the arguments are taken from ap.
field_step read_field(tq_msg_t *msg, tq_msg_field code, va_list &ap) {
  switch (code) {
    case TQ_MSG_END:
      return field_step::end;
    case TQ_MSG_UINT8:
      return step_of(tq_msg_get_uint8(msg, va_arg(ap, uint8_t *)));
    case TQ_MSG_INT8:
      return step_of(tq_msg_get_int8(msg, va_arg(ap, int8_t *)));
    case TQ_MSG_UINT16:
      return step_of(tq_msg_get_uint16(msg, va_arg(ap, uint16_t *)));
    case TQ_MSG_INT16:
      return step_of(tq_msg_get_int16(msg, va_arg(ap, int16_t *)));
    case TQ_MSG_UINT32:
      return step_of(tq_msg_get_uint32(msg, va_arg(ap, uint32_t *)));
    case TQ_MSG_INT32:
      return step_of(tq_msg_get_int32(msg, va_arg(ap, int32_t *)));
    case TQ_MSG_UINT64:
      return step_of(tq_msg_get_uint64(msg, va_arg(ap, uint64_t *)));
    case TQ_MSG_INT64:
      return step_of(tq_msg_get_int64(msg, va_arg(ap, int64_t *)));
    case TQ_MSG_STRING: {
      const size_t size = va_arg(ap, size_t);
      char *buf = va_arg(ap, char *);
      return step_of(tq_msg_get_string_len(msg, buf, size));
    }
    case TQ_MSG_DATA: {
      const size_t n = va_arg(ap, size_t);
      void *buf = va_arg(ap, void *);
      return step_of(tq_msg_get_data(msg, buf, n));
    }
    case TQ_MSG_VARUINT32:
      return step_of(tq_msg_get_varuint32(msg, va_arg(ap, uint32_t *)));
    case TQ_MSG_VARINT32:
      return step_of(tq_msg_get_varint32(msg, va_arg(ap, int32_t *)));
    case TQ_MSG_VARUINT64:
      return step_of(tq_msg_get_varuint64(msg, va_arg(ap, uint64_t *)));
    case TQ_MSG_VARINT64:
      return step_of(tq_msg_get_varint64(msg, va_arg(ap, int64_t *)));
    case TQ_MSG_SKIP:
      return step_of(tq_msg_skip(msg, va_arg(ap, size_t)));
    case TQ_MSG_SKIP_BLOCK:
      return step_of(tq_msg_skip_block(msg));
  }
  return field_step::next;  // not reached: codes are range-checked by the caller
}

}  // namespace

// --- creation and release ------------------------------------------------------

void tq_msg_pool_init() {
  if (g_msgs.ready) return;
  tq_mempool_init(&g_msgs.pool, "tq_msg_t", 0, 128, sizeof(tq_msg_t));
  g_msgs.ready = true;
}

void tq_msg_pool_deinit() {
  if (!g_msgs.ready) return;
  tq_mempool_deinit(&g_msgs.pool);
  g_msgs.ready = false;
}

uint32_t tq_msg_pool_used() { return g_msgs.ready ? tq_mempool_used(&g_msgs.pool) : 0; }

void tq_msg_init(tq_msg_t *msg, uint32_t type) {
  TQ_BUG_ON(msg == TQ_NULL, "");
  msg->type = type;
  msg->rpos = 0;
  msg->len = 0;
  msg->reserved = 0;
}

tq_msg_t *tq_msg_new(uint32_t type) {
  auto *msg = static_cast<tq_msg_t *>(tq_mempool_get(msg_pool_get()));
  if (msg == nullptr) return nullptr;
  tq_msg_init(msg, type);
  return msg;
}

tq_msg_t *tq_msg_dup(const tq_msg_t *msg) {
  TQ_BUG_ON(msg == TQ_NULL, "");
  tq_msg_t *copy = tq_msg_new(msg->type);
  if (copy == nullptr) return nullptr;
  std::memcpy(copy->data, msg->data, msg->len);
  copy->len = msg->len;
  copy->rpos = msg->rpos;
  return copy;
}

void tq_msg_free(tq_msg_t *msg) {
  if (msg == nullptr) return;
  tq_mempool_put(msg_pool_get(), msg);
}

// --- the field-list reader ---------------------------------------------------------

bool tq_msg_get_fields(tq_msg_t *msg, int code, ...) {
  TQ_BUG_ON(msg == TQ_NULL, "");
  va_list ap;
  va_start(ap, code);
  bool ok = true;
  for (;; code = va_arg(ap, int)) {
    if (code < TQ_MSG_END || code > TQ_MSG_SKIP_BLOCK) continue;  // unknown code: next one
    const field_step step = read_field(msg, static_cast<tq_msg_field>(code), ap);
    if (step == field_step::next) continue;
    ok = step == field_step::end;
    break;
  }
  va_end(ap);
  return ok;
}

// --- frames --------------------------------------------------------------------------

bool tq_msg_write_frame(tq_ringbuf_t *ring, const tq_msg_t *msg) {
  TQ_BUG_ON(msg == TQ_NULL, "");
  if (tq_ringbuf_free_space(ring) < msg->len + TQ_MSG_FRAME_HEADER) return false;
  std::array<uint8_t, TQ_MSG_FRAME_HEADER> raw{};
  const std::span<uint8_t, TQ_MSG_FRAME_HEADER> header(raw);
  tq::store_be32(header.first<4>(), msg->type);
  tq::store_be16(header.last<2>(), msg->len);
  (void)tq_ringbuf_write(ring, raw.data(), raw.size());
  (void)tq_ringbuf_write(ring, msg->data, msg->len);
  return true;
}

// The message is taken from the pool only once a whole frame is there, so
// that polling a ring that holds half a frame costs no allocation.
tq_msg_t *tq_msg_read_frame(tq_ringbuf_t *ring, bool *broken) {
  frame_header h{};
  if (!peek_frame_header(ring, &h)) return nullptr;
  if (h.len > TQ_MSG_MAX_DATA) {
    report_broken_frame(h.len);
    if (broken != nullptr) *broken = true;
    // The header counts among the bytes buffered but is not discarded on
    // top of L: the stream resynchronises by throwing bytes away.
    if (tq_ringbuf_used(ring) >= h.len) (void)tq_ringbuf_skip(ring, h.len);
    return nullptr;
  }
  if (!frame_is_whole(ring, h)) return nullptr;
  tq_msg_t *msg = tq_msg_new(h.type);
  if (msg == nullptr) return nullptr;
  take_frame(ring, h, msg);
  return msg;
}

bool tq_msg_read_frame_into(tq_ringbuf_t *ring, tq_msg_t *msg) {
  TQ_BUG_ON(msg == TQ_NULL, "");
  msg->rpos = 0;
  frame_header h{};
  if (!peek_frame_header(ring, &h)) return false;
  if (h.len > TQ_MSG_MAX_DATA) {
    report_broken_frame(h.len);
    // Unlike tq_msg_read_frame: header and payload go, and no flag is set.
    if (tq_ringbuf_used(ring) >= h.len) (void)tq_ringbuf_skip(ring, h.len + TQ_MSG_FRAME_HEADER);
    return false;
  }
  if (!frame_is_whole(ring, h)) return false;
  take_frame(ring, h, msg);
  return true;
}

bool tq_msg_frame_complete(tq_ringbuf_t *ring) {
  frame_header h{};
  if (!peek_frame_header(ring, &h)) return false;
  return tq_ringbuf_used(ring) + TQ_MSG_FRAME_HEADER >= h.len;
}
