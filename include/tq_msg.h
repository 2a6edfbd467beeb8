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
// strings and raw data are all-or-nothing. Gets return false, zero their
// destination and leave rpos where it was.
//
// Frame on a byte stream: u32 type, u16 payload length L (<= 32768), L bytes.
#ifndef TQ_MSG_H
#define TQ_MSG_H

#include <cstddef>
#include <cstdint>

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

bool tq_msg_is_empty(const tq_msg_t *msg);
uint32_t tq_msg_avail_bytes(const tq_msg_t *msg);  // len - rpos
uint32_t tq_msg_free_bytes(const tq_msg_t *msg);   // 32768 - len

// --- puts ----------------------------------------------------------------------------
void tq_msg_put_uint8(tq_msg_t *msg, uint8_t v);
void tq_msg_put_int8(tq_msg_t *msg, int8_t v);
void tq_msg_put_uint16(tq_msg_t *msg, uint16_t v);
void tq_msg_put_int16(tq_msg_t *msg, int16_t v);
void tq_msg_put_uint32(tq_msg_t *msg, uint32_t v);
void tq_msg_put_int32(tq_msg_t *msg, int32_t v);
void tq_msg_put_uint64(tq_msg_t *msg, uint64_t v);
void tq_msg_put_int64(tq_msg_t *msg, int64_t v);
void tq_msg_put_float(tq_msg_t *msg, float v);
void tq_msg_put_double(tq_msg_t *msg, double v);
// u32 count (strlen + 1) and the bytes with their NUL; nullptr puts count 0.
void tq_msg_put_string(tq_msg_t *msg, const char *s);
// A string of n bytes that need not be NUL-terminated: count n + 1, bytes, NUL.
void tq_msg_put_string_n(tq_msg_t *msg, const char *s, size_t n);
void tq_msg_put_data(tq_msg_t *msg, const void *buf, size_t n);
// Variable-length forms, exactly what the decoders accept.
void tq_msg_put_varuint32(tq_msg_t *msg, uint32_t v);
void tq_msg_put_varint32(tq_msg_t *msg, int32_t v);
void tq_msg_put_varuint64(tq_msg_t *msg, uint64_t v);
void tq_msg_put_varint64(tq_msg_t *msg, int64_t v);

// Reserve-and-patch: put a zero placeholder and get its slot (nullptr when it
// did not fit); patch stores the count big-endian, skipping a null slot.
uint8_t *tq_msg_reserve_uint16(tq_msg_t *msg);
uint8_t *tq_msg_reserve_uint32(tq_msg_t *msg);
void tq_msg_patch_uint16(uint8_t *slot, uint16_t v);
void tq_msg_patch_uint32(uint8_t *slot, uint32_t v);

// --- gets --------------------------------------------------------------------------
[[nodiscard]] bool tq_msg_get_uint8(tq_msg_t *msg, uint8_t *v);
[[nodiscard]] bool tq_msg_get_int8(tq_msg_t *msg, int8_t *v);
[[nodiscard]] bool tq_msg_get_uint16(tq_msg_t *msg, uint16_t *v);
[[nodiscard]] bool tq_msg_get_int16(tq_msg_t *msg, int16_t *v);
[[nodiscard]] bool tq_msg_get_uint32(tq_msg_t *msg, uint32_t *v);
[[nodiscard]] bool tq_msg_get_int32(tq_msg_t *msg, int32_t *v);
[[nodiscard]] bool tq_msg_get_uint64(tq_msg_t *msg, uint64_t *v);
[[nodiscard]] bool tq_msg_get_int64(tq_msg_t *msg, int64_t *v);
[[nodiscard]] bool tq_msg_get_float(tq_msg_t *msg, float *v);
[[nodiscard]] bool tq_msg_get_double(tq_msg_t *msg, double *v);
[[nodiscard]] bool tq_msg_get_data(tq_msg_t *msg, void *buf, size_t n);
// Keeps at most size - 1 bytes; buf[size - 1] is always NUL.
[[nodiscard]] bool tq_msg_get_string_len(tq_msg_t *msg, char *buf, size_t size);
[[nodiscard]] bool tq_msg_skip(tq_msg_t *msg, size_t n);
[[nodiscard]] bool tq_msg_get_varuint32(tq_msg_t *msg, uint32_t *v);
[[nodiscard]] bool tq_msg_get_varint32(tq_msg_t *msg, int32_t *v);
[[nodiscard]] bool tq_msg_get_varuint64(tq_msg_t *msg, uint64_t *v);
[[nodiscard]] bool tq_msg_get_varint64(tq_msg_t *msg, int64_t *v);
[[nodiscard]] bool tq_msg_skip_block(tq_msg_t *msg);

// Reads (code, args...) pairs up to TQ_MSG_END; false at the first field
// that fails. Sizes and counts are passed as size_t.
[[nodiscard]] bool tq_msg_get_fields(tq_msg_t *msg, int code, ...);

// Checked getters: a failed read is a fatal bug naming the caller's place.
// For replies where a short field can only mean a broken peer.
void _tq_msg_get_uint8_checked(tq_msg_t *msg, uint8_t *v, const char *file, int line);
void _tq_msg_get_int8_checked(tq_msg_t *msg, int8_t *v, const char *file, int line);
void _tq_msg_get_uint16_checked(tq_msg_t *msg, uint16_t *v, const char *file, int line);
void _tq_msg_get_int16_checked(tq_msg_t *msg, int16_t *v, const char *file, int line);
void _tq_msg_get_uint32_checked(tq_msg_t *msg, uint32_t *v, const char *file, int line);
void _tq_msg_get_int32_checked(tq_msg_t *msg, int32_t *v, const char *file, int line);
void _tq_msg_get_uint64_checked(tq_msg_t *msg, uint64_t *v, const char *file, int line);
void _tq_msg_get_int64_checked(tq_msg_t *msg, int64_t *v, const char *file, int line);
void _tq_msg_get_float_checked(tq_msg_t *msg, float *v, const char *file, int line);
void _tq_msg_get_double_checked(tq_msg_t *msg, double *v, const char *file, int line);
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
// The same into a caller-owned message; a broken frame discards L + 6 bytes.
[[nodiscard]] bool tq_msg_read_frame_into(tq_ringbuf_t *ring, tq_msg_t *msg);
// Generous on purpose: buffered + 6 >= L once the header is there.
bool tq_msg_frame_complete(tq_ringbuf_t *ring);

#endif
