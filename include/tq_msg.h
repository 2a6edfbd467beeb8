// tq_msg_t: one message of the TQDB protocol.
//
//   +------+------+-----+----------+--------------------------------------+
//   | type | rpos | len | reserved | data[32768]                          |
//   | u32  | u16  | u16 | 64 bits  |                                      |
//   +------+------+-----+----------+--------------------------------------+
//                                   0 ........ rpos ........ len ... 32768
//                                   |  read    |  to read   |  free  |
//
// Invariant: rpos <= len <= TQ_MSG_MAX_DATA. Puts append at len, gets read at
// rpos. All multi-byte fields are big-endian on the wire.
//
// Puts that do not fit are dropped silently (the message goes out short);
// strings and raw data are all-or-nothing. Fixed-width gets and raw data gets
// that fail return false, zero their destination and leave rpos where it was.
// A string or block get reads its count first; when the bytes behind the
// count are missing it fails with the count consumed.
//
// Field encodings:
//   u8..u64, float, double   big-endian, IEEE-754 bits for the floats
//   string                   u32 count N including the NUL, then N bytes;
//                            a null string is N = 0 with no bytes
//   raw data                 the bytes alone
//   varuint32 / varuint64    7-bit groups, most significant first, bit 7 set
//                            on every byte but the last; at most 5 / 10 bytes
//   varint32 / varint64      the varuint of the zigzag value
//   block                    u32 count, then that many bytes
//
// Frame on a byte stream: u32 type, u16 payload length L (<= 32768), L bytes.
//
// The primitives are inline: every put and get is a bounds test and a copy.
// A null message, or a null destination of a raw read, is a fatal bug.
#ifndef TQ_MSG_H
#define TQ_MSG_H

#include <algorithm>
#include <bit>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <span>

#include "tq_log.h"

struct tq_ringbuf_t;

inline constexpr uint32_t TQ_MSG_MAX_DATA = 32768;
inline constexpr size_t TQ_MSG_FRAME_HEADER = 6;

struct tq_msg_t {
  uint32_t type;      // host order in memory
  uint16_t rpos;      // next byte to read
  uint16_t len;       // valid bytes; the write position
  uint64_t reserved;  // link word, zeroed at creation, never touched
  uint8_t data[TQ_MSG_MAX_DATA];
};
static_assert(sizeof(tq_msg_t) == 32784, "a message is one 32784-byte pool item");

// Field codes of tq_msg_get_fields.
enum tq_msg_field : int {
  TQ_MSG_END = 0,
  TQ_MSG_UINT8 = 1,
  TQ_MSG_INT8 = 2,
  TQ_MSG_UINT16 = 3,
  TQ_MSG_INT16 = 4,
  TQ_MSG_UINT32 = 5,
  TQ_MSG_INT32 = 6,
  TQ_MSG_UINT64 = 7,
  TQ_MSG_INT64 = 8,
  TQ_MSG_STRING = 9,       // size_t size, char *buf
  TQ_MSG_DATA = 10,        // size_t n, void *buf
  TQ_MSG_VARUINT32 = 11,
  TQ_MSG_VARINT32 = 12,
  TQ_MSG_VARUINT64 = 13,
  TQ_MSG_VARINT64 = 14,
  TQ_MSG_SKIP = 15,        // size_t n
  TQ_MSG_SKIP_BLOCK = 16,  // u32 count, then that many bytes
};

// --- big-endian access ------------------------------------------------------------
// Byte order in the name, fixed extents in the type: a load or store can only
// touch the bytes it was handed.
namespace tq {

constexpr uint16_t load_be16(std::span<const uint8_t, 2> b) noexcept {
  return static_cast<uint16_t>(b[0] << 8 | b[1]);
}
constexpr uint32_t load_be32(std::span<const uint8_t, 4> b) noexcept {
  return uint32_t{b[0]} << 24 | uint32_t{b[1]} << 16 | uint32_t{b[2]} << 8 | uint32_t{b[3]};
}
constexpr uint64_t load_be64(std::span<const uint8_t, 8> b) noexcept {
  return uint64_t{load_be32(b.first<4>())} << 32 | load_be32(b.last<4>());
}
constexpr void store_be16(std::span<uint8_t, 2> b, uint16_t v) noexcept {
  b[0] = static_cast<uint8_t>(v >> 8);
  b[1] = static_cast<uint8_t>(v);
}
constexpr void store_be32(std::span<uint8_t, 4> b, uint32_t v) noexcept {
  store_be16(b.first<2>(), static_cast<uint16_t>(v >> 16));
  store_be16(b.last<2>(), static_cast<uint16_t>(v));
}
constexpr void store_be64(std::span<uint8_t, 8> b, uint64_t v) noexcept {
  store_be32(b.first<4>(), static_cast<uint32_t>(v >> 32));
  store_be32(b.last<4>(), static_cast<uint32_t>(v));
}

// Zigzag maps small magnitudes of either sign to small unsigned values.
constexpr uint32_t zigzag32(int32_t v) noexcept {
  return static_cast<uint32_t>(v) << 1 ^ static_cast<uint32_t>(v >> 31);
}
constexpr uint64_t zigzag64(int64_t v) noexcept {
  return static_cast<uint64_t>(v) << 1 ^ static_cast<uint64_t>(v >> 63);
}
constexpr int32_t unzigzag32(uint32_t u) noexcept {
  return static_cast<int32_t>(u >> 1 ^ (0u - (u & 1u)));
}
constexpr int64_t unzigzag64(uint64_t u) noexcept {
  return static_cast<int64_t>(u >> 1 ^ (uint64_t{0} - (u & 1u)));
}

namespace detail {

// Claims n bytes at the write position, or nothing (nullptr) when they do
// not all fit.
inline uint8_t *msg_claim(tq_msg_t *msg, size_t n) noexcept {
  if (n > TQ_MSG_MAX_DATA - msg->len) return nullptr;
  uint8_t *slot = msg->data + msg->len;
  msg->len = static_cast<uint16_t>(msg->len + n);
  return slot;
}

// Turns the wire bytes just copied into *v into the host value, in place.
template <class T>
inline void msg_from_be(T *v) noexcept {
  uint8_t raw[sizeof(T)];
  std::memcpy(raw, v, sizeof(T));
  if constexpr (sizeof(T) == 2)
    *v = std::bit_cast<T>(load_be16(raw));
  else if constexpr (sizeof(T) == 4)
    *v = std::bit_cast<T>(load_be32(raw));
  else if constexpr (sizeof(T) == 8)
    *v = std::bit_cast<T>(load_be64(raw));
}

// MaxBytes groups of 7 bits; a run that is cut or still continues after
// MaxBytes bytes fails and consumes nothing.
template <class U, unsigned MaxBytes>
inline bool msg_get_var(tq_msg_t *msg, U *v) noexcept {
  U acc = 0;
  const unsigned avail = static_cast<unsigned>(msg->len - msg->rpos);
  for (unsigned i = 0; i < MaxBytes && i < avail; ++i) {
    const uint8_t b = msg->data[msg->rpos + i];
    acc = static_cast<U>(static_cast<U>(acc << 7) | (b & 0x7Fu));
    if ((b & 0x80u) == 0) {
      msg->rpos = static_cast<uint16_t>(msg->rpos + i + 1);
      *v = acc;
      return true;
    }
  }
  *v = 0;
  return false;
}

template <class U>
inline void msg_put_var(tq_msg_t *msg, U v) noexcept {
  uint8_t out[10];
  size_t first = sizeof out;
  uint8_t more = 0;  // the last byte carries no continuation bit
  do {
    out[--first] = static_cast<uint8_t>((v & 0x7Fu) | more);
    more = 0x80;
    v = static_cast<U>(v >> 7);
  } while (v != 0);
  if (uint8_t *slot = msg_claim(msg, sizeof out - first))
    std::memcpy(slot, out + first, sizeof out - first);
}

// u32 count n + 1, the n bytes of s, NUL; all or nothing.
inline void msg_put_counted(tq_msg_t *msg, const char *s, size_t n) noexcept {
  if (n > TQ_MSG_MAX_DATA - 5) return;
  if (uint8_t *slot = msg_claim(msg, 4 + n + 1)) {
    store_be32(std::span<uint8_t, 4>(slot, 4), static_cast<uint32_t>(n + 1));
    std::memcpy(slot + 4, s, n);
    slot[4 + n] = '\0';
  }
}

}  // namespace detail
}  // namespace tq

// --- creation and release ------------------------------------------------------
// The message pool ("tq_msg_t", item size 32784, grow step 128) lives from
// tq_lib_init to tq_lib_deinit; tq_msg_new starts it on first use.
void tq_msg_pool_init();    // idempotent
void tq_msg_pool_deinit();  // reports messages still taken
tq_msg_t *tq_msg_new(uint32_t type);  // nullptr when the pool refuses
void tq_msg_init(tq_msg_t *msg, uint32_t type);
tq_msg_t *tq_msg_dup(const tq_msg_t *msg);
void tq_msg_free(tq_msg_t *msg);  // nullptr is ignored
uint32_t tq_msg_pool_used();      // messages currently taken from the pool

inline bool tq_msg_is_empty(const tq_msg_t *msg) {
  TQ_BUG_ON(msg == TQ_NULL, "");
  return msg->len == 0;
}
inline uint32_t tq_msg_avail_bytes(const tq_msg_t *msg) {  // len - rpos
  TQ_BUG_ON(msg == TQ_NULL, "");
  return static_cast<uint32_t>(msg->len - msg->rpos);
}
inline uint32_t tq_msg_free_bytes(const tq_msg_t *msg) {  // 32768 - len
  TQ_BUG_ON(msg == TQ_NULL, "");
  return TQ_MSG_MAX_DATA - msg->len;
}

// --- puts ----------------------------------------------------------------------------
// Each value is written whole or not at all.
inline void tq_msg_put_uint8(tq_msg_t *msg, uint8_t v) {
  TQ_BUG_ON(msg == TQ_NULL, "");
  if (uint8_t *slot = tq::detail::msg_claim(msg, 1)) *slot = v;
}
inline void tq_msg_put_uint16(tq_msg_t *msg, uint16_t v) {
  TQ_BUG_ON(msg == TQ_NULL, "");
  if (uint8_t *slot = tq::detail::msg_claim(msg, 2)) tq::store_be16(std::span<uint8_t, 2>(slot, 2), v);
}
inline void tq_msg_put_uint32(tq_msg_t *msg, uint32_t v) {
  TQ_BUG_ON(msg == TQ_NULL, "");
  if (uint8_t *slot = tq::detail::msg_claim(msg, 4)) tq::store_be32(std::span<uint8_t, 4>(slot, 4), v);
}
inline void tq_msg_put_uint64(tq_msg_t *msg, uint64_t v) {
  TQ_BUG_ON(msg == TQ_NULL, "");
  if (uint8_t *slot = tq::detail::msg_claim(msg, 8)) tq::store_be64(std::span<uint8_t, 8>(slot, 8), v);
}
inline void tq_msg_put_int8(tq_msg_t *msg, int8_t v) { tq_msg_put_uint8(msg, std::bit_cast<uint8_t>(v)); }
inline void tq_msg_put_int16(tq_msg_t *msg, int16_t v) { tq_msg_put_uint16(msg, std::bit_cast<uint16_t>(v)); }
inline void tq_msg_put_int32(tq_msg_t *msg, int32_t v) { tq_msg_put_uint32(msg, std::bit_cast<uint32_t>(v)); }
inline void tq_msg_put_int64(tq_msg_t *msg, int64_t v) { tq_msg_put_uint64(msg, std::bit_cast<uint64_t>(v)); }
inline void tq_msg_put_float(tq_msg_t *msg, float v) { tq_msg_put_uint32(msg, std::bit_cast<uint32_t>(v)); }
inline void tq_msg_put_double(tq_msg_t *msg, double v) { tq_msg_put_uint64(msg, std::bit_cast<uint64_t>(v)); }

// u32 count (strlen + 1) and the bytes with their NUL; nullptr puts count 0.
inline void tq_msg_put_string(tq_msg_t *msg, const char *s) {
  TQ_BUG_ON(msg == TQ_NULL, "");
  if (s == nullptr) {
    tq_msg_put_uint32(msg, 0);
    return;
  }
  tq::detail::msg_put_counted(msg, s, std::strlen(s));
}
// A string of n bytes that need not be NUL-terminated: count n + 1, bytes, NUL.
// nullptr puts count 0, as for tq_msg_put_string.
inline void tq_msg_put_string_n(tq_msg_t *msg, const char *s, size_t n) {
  TQ_BUG_ON(msg == TQ_NULL, "");
  if (s == nullptr) {
    tq_msg_put_uint32(msg, 0);
    return;
  }
  tq::detail::msg_put_counted(msg, s, n);
}
inline void tq_msg_put_data(tq_msg_t *msg, const void *buf, size_t n) {
  TQ_BUG_ON(msg == TQ_NULL, "");
  if (n == 0) return;
  TQ_BUG_ON(buf == TQ_NULL, "");
  if (uint8_t *slot = tq::detail::msg_claim(msg, n)) std::memcpy(slot, buf, n);
}
// Variable-length forms, exactly what the decoders accept (shortest form).
inline void tq_msg_put_varuint32(tq_msg_t *msg, uint32_t v) {
  TQ_BUG_ON(msg == TQ_NULL, "");
  tq::detail::msg_put_var(msg, v);
}
inline void tq_msg_put_varint32(tq_msg_t *msg, int32_t v) { tq_msg_put_varuint32(msg, tq::zigzag32(v)); }
inline void tq_msg_put_varuint64(tq_msg_t *msg, uint64_t v) {
  TQ_BUG_ON(msg == TQ_NULL, "");
  tq::detail::msg_put_var(msg, v);
}
inline void tq_msg_put_varint64(tq_msg_t *msg, int64_t v) { tq_msg_put_varuint64(msg, tq::zigzag64(v)); }

// Reserve-and-patch: put a zero placeholder and get its slot (nullptr when it
// did not fit); patch stores the count big-endian, skipping a null slot.
// A slot stays valid while the message lives.
inline uint8_t *tq_msg_reserve_uint16(tq_msg_t *msg) {
  TQ_BUG_ON(msg == TQ_NULL, "");
  uint8_t *slot = tq::detail::msg_claim(msg, 2);
  if (slot != nullptr) tq::store_be16(std::span<uint8_t, 2>(slot, 2), 0);
  return slot;
}
inline uint8_t *tq_msg_reserve_uint32(tq_msg_t *msg) {
  TQ_BUG_ON(msg == TQ_NULL, "");
  uint8_t *slot = tq::detail::msg_claim(msg, 4);
  if (slot != nullptr) tq::store_be32(std::span<uint8_t, 4>(slot, 4), 0);
  return slot;
}
inline void tq_msg_patch_uint16(uint8_t *slot, uint16_t v) {
  if (slot != nullptr) tq::store_be16(std::span<uint8_t, 2>(slot, 2), v);
}
inline void tq_msg_patch_uint32(uint8_t *slot, uint32_t v) {
  if (slot != nullptr) tq::store_be32(std::span<uint8_t, 4>(slot, 4), v);
}

// --- gets --------------------------------------------------------------------------
// n raw bytes, or false with buf zero-filled over n bytes and rpos kept.
[[nodiscard]] inline bool tq_msg_get_data(tq_msg_t *msg, void *buf, size_t n) {
  TQ_BUG_ON(msg == TQ_NULL, "");
  TQ_BUG_ON(buf == TQ_NULL, "");
  if (n > static_cast<size_t>(msg->len - msg->rpos)) {
    std::memset(buf, 0, n);
    return false;
  }
  std::memcpy(buf, msg->data + msg->rpos, n);
  msg->rpos = static_cast<uint16_t>(msg->rpos + n);
  return true;
}

// The fixed-width gets copy the wire bytes through tq_msg_get_data (which
// zeroes the destination on failure) and then convert them in place.
[[nodiscard]] inline bool tq_msg_get_uint8(tq_msg_t *msg, uint8_t *v) { return tq_msg_get_data(msg, v, 1); }
[[nodiscard]] inline bool tq_msg_get_int8(tq_msg_t *msg, int8_t *v) { return tq_msg_get_data(msg, v, 1); }
#define TQ_MSG_GET_BE_(kind, T)                                  \
  [[nodiscard]] inline bool tq_msg_get_##kind(tq_msg_t *msg, T *v) { \
    if (!tq_msg_get_data(msg, v, sizeof(T))) return false;       \
    tq::detail::msg_from_be(v);                                  \
    return true;                                                 \
  }
TQ_MSG_GET_BE_(uint16, uint16_t)
TQ_MSG_GET_BE_(int16, int16_t)
TQ_MSG_GET_BE_(uint32, uint32_t)
TQ_MSG_GET_BE_(int32, int32_t)
TQ_MSG_GET_BE_(uint64, uint64_t)
TQ_MSG_GET_BE_(int64, int64_t)
TQ_MSG_GET_BE_(float, float)
TQ_MSG_GET_BE_(double, double)
#undef TQ_MSG_GET_BE_

// Advances rpos by n; false (nothing consumed) when fewer than n remain.
[[nodiscard]] inline bool tq_msg_skip(tq_msg_t *msg, size_t n) {
  TQ_BUG_ON(msg == TQ_NULL, "");
  if (n > static_cast<size_t>(msg->len - msg->rpos)) return false;
  msg->rpos = static_cast<uint16_t>(msg->rpos + n);
  return true;
}

// Keeps at most size - 1 bytes; buf[size - 1] is always NUL. The sender's
// count includes its NUL, so a string that fits ends with its own; a longer
// one is cut, the forced NUL ends it, and the rest is skipped so that the
// next field is read from the right place.
[[nodiscard]] inline bool tq_msg_get_string_len(tq_msg_t *msg, char *buf, size_t size) {
  TQ_BUG_ON(msg == TQ_NULL, "");
  TQ_BUG_ON(buf == TQ_NULL, "");
  TQ_BUG_ON(size == 0, "No room for the terminating NUL");
  buf[size - 1] = '\0';
  uint32_t count;
  if (!tq_msg_get_uint32(msg, &count)) return false;
  if (count == 0) {
    buf[0] = '\0';
    return true;
  }
  const size_t keep = std::min<size_t>(count, size - 1);
  if (!tq_msg_get_data(msg, buf, keep)) return false;
  if (count > keep) return tq_msg_skip(msg, count - keep);
  return true;
}

[[nodiscard]] inline bool tq_msg_get_varuint32(tq_msg_t *msg, uint32_t *v) {
  TQ_BUG_ON(msg == TQ_NULL, "");
  TQ_BUG_ON(v == TQ_NULL, "");
  return tq::detail::msg_get_var<uint32_t, 5>(msg, v);
}
[[nodiscard]] inline bool tq_msg_get_varuint64(tq_msg_t *msg, uint64_t *v) {
  TQ_BUG_ON(msg == TQ_NULL, "");
  TQ_BUG_ON(v == TQ_NULL, "");
  return tq::detail::msg_get_var<uint64_t, 10>(msg, v);
}
[[nodiscard]] inline bool tq_msg_get_varint32(tq_msg_t *msg, int32_t *v) {
  TQ_BUG_ON(v == TQ_NULL, "");
  uint32_t u;
  const bool ok = tq_msg_get_varuint32(msg, &u);
  *v = tq::unzigzag32(u);
  return ok;
}
[[nodiscard]] inline bool tq_msg_get_varint64(tq_msg_t *msg, int64_t *v) {
  TQ_BUG_ON(v == TQ_NULL, "");
  uint64_t u;
  const bool ok = tq_msg_get_varuint64(msg, &u);
  *v = tq::unzigzag64(u);
  return ok;
}

// A u32 count and that many bytes, passed over unread.
[[nodiscard]] inline bool tq_msg_skip_block(tq_msg_t *msg) {
  uint32_t count;
  return tq_msg_get_uint32(msg, &count) && tq_msg_skip(msg, count);
}

// Reads (code, args...) pairs up to TQ_MSG_END; false at the first field
// that fails, with the fields before it read. Sizes and counts are passed as
// size_t, destinations as pointers. Codes above 16 are passed over.
[[nodiscard]] bool tq_msg_get_fields(tq_msg_t *msg, int code, ...);

// Checked getters: a failed read is a fatal bug naming the caller's place.
// For replies where a short field can only mean a broken peer.
#define TQ_MSG_CHECKED_(kind, T)                                                          \
  inline void _tq_msg_get_##kind##_checked(tq_msg_t *msg, T *v, const char *file, int line) { \
    const bool r = tq_msg_get_##kind(msg, v);                                             \
    TQ_BUG_ON(!r, "Failed to read " #kind " from message at %s:%d", file, line);           \
  }
TQ_MSG_CHECKED_(uint8, uint8_t)
TQ_MSG_CHECKED_(int8, int8_t)
TQ_MSG_CHECKED_(uint16, uint16_t)
TQ_MSG_CHECKED_(int16, int16_t)
TQ_MSG_CHECKED_(uint32, uint32_t)
TQ_MSG_CHECKED_(int32, int32_t)
TQ_MSG_CHECKED_(uint64, uint64_t)
TQ_MSG_CHECKED_(int64, int64_t)
TQ_MSG_CHECKED_(float, float)
TQ_MSG_CHECKED_(double, double)
#undef TQ_MSG_CHECKED_
#define tq_msg_get_uint8_checked(m, v) _tq_msg_get_uint8_checked(m, v, __FILE__, __LINE__)
#define tq_msg_get_int8_checked(m, v) _tq_msg_get_int8_checked(m, v, __FILE__, __LINE__)
#define tq_msg_get_uint16_checked(m, v) _tq_msg_get_uint16_checked(m, v, __FILE__, __LINE__)
#define tq_msg_get_int16_checked(m, v) _tq_msg_get_int16_checked(m, v, __FILE__, __LINE__)
#define tq_msg_get_uint32_checked(m, v) _tq_msg_get_uint32_checked(m, v, __FILE__, __LINE__)
#define tq_msg_get_int32_checked(m, v) _tq_msg_get_int32_checked(m, v, __FILE__, __LINE__)
#define tq_msg_get_uint64_checked(m, v) _tq_msg_get_uint64_checked(m, v, __FILE__, __LINE__)
#define tq_msg_get_int64_checked(m, v) _tq_msg_get_int64_checked(m, v, __FILE__, __LINE__)
#define tq_msg_get_float_checked(m, v) _tq_msg_get_float_checked(m, v, __FILE__, __LINE__)
#define tq_msg_get_double_checked(m, v) _tq_msg_get_double_checked(m, v, __FILE__, __LINE__)

// --- frames ------------------------------------------------------------------------
// All or nothing: false when the ring lacks len + 6 bytes of room.
[[nodiscard]] bool tq_msg_write_frame(tq_ringbuf_t *ring, const tq_msg_t *msg);
// A new message, or nullptr (incomplete frame, pool refused, broken frame).
// A frame announcing more than 32768 bytes sets *broken (when given) and
// discards L bytes once at least L are buffered.
tq_msg_t *tq_msg_read_frame(tq_ringbuf_t *ring, bool *broken);
// The same into a caller-owned message (rpos is reset to 0 first); a broken
// frame discards L + 6 bytes and sets no flag.
[[nodiscard]] bool tq_msg_read_frame_into(tq_ringbuf_t *ring, tq_msg_t *msg);
// Generous on purpose: buffered + 6 >= L once the header is there.
bool tq_msg_frame_complete(tq_ringbuf_t *ring);

#endif
