// Test helpers for the client API: protocol bytes written out by hand,
// messages and envelopes made from them, and owners for library records.
#ifndef TQ_TEST_SUPPORT_WIRE_H
#define TQ_TEST_SUPPORT_WIRE_H

#include <cstdint>
#include <memory>
#include <span>
#include <string_view>
#include <vector>

#include "tqdb_api.h"

struct tq_msg_t;

namespace tqtest {

using Bytes = std::vector<uint8_t>;

// Big-endian fields appended by hand, independent of the library's puts, so
// that expected requests and canned replies are written from the protocol
// tables rather than from the code under test.
class Wire {
 public:
  Wire &u8(uint8_t v);
  Wire &u16(uint16_t v);
  Wire &u32(uint32_t v);
  Wire &u64(uint64_t v);
  // u32 count including the NUL, the bytes, the NUL.
  Wire &str(std::string_view s);
  // The null string: count 0, no bytes.
  Wire &null_str();
  Wire &raw(std::span<const uint8_t> b);
  Wire &raw(std::string_view s);

  const Bytes &bytes() const { return b_; }
  size_t size() const { return b_.size(); }
  // Used wherever bytes are expected.
  operator const Bytes &() const { return b_; }                  // NOLINT
  operator std::span<const uint8_t>() const { return b_; }      // NOLINT

 private:
  Bytes b_;
};

// u32 code, u16 payload length, payload.
Bytes frame(uint32_t code, std::span<const uint8_t> payload);

// A received message as the handle would take it from its ring: type set,
// the payload as data, read position 0, and every byte behind the payload
// poisoned (0xA5) so that a read past the body shows. Owned by the caller.
struct MsgDeleter {
  void operator()(tq_msg_t *m) const;
};
using MsgPtr = std::unique_ptr<tq_msg_t, MsgDeleter>;
MsgPtr make_msg(uint32_t code, std::span<const uint8_t> payload);

struct EnvDeleter {
  void operator()(tqdb_api_msg_t *e) const { tqdb_api_msg_free(e); }
};
using EnvPtr = std::unique_ptr<tqdb_api_msg_t, EnvDeleter>;
// The envelope of a message built from code and payload; nullptr when the
// envelope parser refuses it (the message is then freed here).
EnvPtr make_env(uint32_t code, std::span<const uint8_t> payload,
                tqdb_api_corrupt_cb_t cb = nullptr, void *data = nullptr);

struct HandleDeleter {
  void operator()(tqdb_api_handle_t *h) const { tqdb_api_handle_free(h); }
};
using HandlePtr = std::unique_ptr<tqdb_api_handle_t, HandleDeleter>;

// Everything the handle has queued, taken out of its send ring.
Bytes drain_wbuf(tqdb_api_handle_t *h);

// One frame cut out of a byte stream.
struct Frame {
  uint32_t code = 0;
  Bytes payload;
};

// Counts corrupt-message reports and remembers the last place named.
struct CorruptLog {
  int calls = 0;
  std::string_view function;
  std::string_view file;
  int line = 0;
  static void cb(tq_msg_t *msg, const char *function, const char *file, int line, void *data);
};

}  // namespace tqtest

#endif
