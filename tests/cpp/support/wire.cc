#include "support/wire.h"

#include <algorithm>

#include "tq_msg.h"
#include "tq_ringbuf.h"

namespace tqtest {

// --- Wire ------------------------------------------------------------------------------

Wire &Wire::u8(uint8_t v) {
  b_.push_back(v);
  return *this;
}

Wire &Wire::u16(uint16_t v) { return u8(static_cast<uint8_t>(v >> 8)).u8(static_cast<uint8_t>(v)); }

Wire &Wire::u32(uint32_t v) {
  return u16(static_cast<uint16_t>(v >> 16)).u16(static_cast<uint16_t>(v));
}

Wire &Wire::u64(uint64_t v) {
  return u32(static_cast<uint32_t>(v >> 32)).u32(static_cast<uint32_t>(v));
}

Wire &Wire::str(std::string_view s) { return u32(static_cast<uint32_t>(s.size() + 1)).raw(s).u8(0); }

Wire &Wire::null_str() { return u32(0); }

Wire &Wire::raw(std::span<const uint8_t> b) {
  b_.insert(b_.end(), b.begin(), b.end());
  return *this;
}

Wire &Wire::raw(std::string_view s) {
  b_.insert(b_.end(), s.begin(), s.end());
  return *this;
}

Bytes frame(uint32_t code, std::span<const uint8_t> payload) {
  return Wire().u32(code).u16(static_cast<uint16_t>(payload.size())).raw(payload).bytes();
}

// --- messages, envelopes, handles -------------------------------------------------------

void MsgDeleter::operator()(tq_msg_t *m) const { tq_msg_free(m); }

MsgPtr make_msg(uint32_t code, std::span<const uint8_t> payload) {
  MsgPtr m(tq_msg_new(code));
  if (m && payload.size() <= TQ_MSG_MAX_DATA) {
    std::copy(payload.begin(), payload.end(), m->data);
    std::fill(m->data + payload.size(), m->data + TQ_MSG_MAX_DATA, 0xA5);
    m->len = static_cast<uint16_t>(payload.size());
  }
  return m;
}

EnvPtr make_env(uint32_t code, std::span<const uint8_t> payload, tqdb_api_corrupt_cb_t cb,
                void *data) {
  MsgPtr m = make_msg(code, payload);
  EnvPtr env(tqdb_api_msg_new(m.get(), cb, data));
  if (env) (void)m.release();  // the envelope owns it now
  return env;
}

Bytes drain_wbuf(tqdb_api_handle_t *h) {
  Bytes b(tq_ringbuf_used(h->wbuf));
  b.resize(tq_ringbuf_read(h->wbuf, b.data(), b.size()));
  return b;
}

void CorruptLog::cb(tq_msg_t *, const char *function, const char *file, int line, void *data) {
  auto *log = static_cast<CorruptLog *>(data);
  ++log->calls;
  log->function = function;
  log->file = file;
  log->line = line;
}

}  // namespace tqtest
