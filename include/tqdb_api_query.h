// The columnar statistics query: one query text out, a stream of typed rows
// back.
//
// The stream is a sequence of frames laid end to end over a chain of message
// buffers (each at most 32768 bytes, a frame may continue into the next):
//
//   +------+-----------------+----------------------+
//   | kind | u32 length L    | payload, L - 4 bytes |
//   | 1 B  | counts itself   |                      |
//   +------+-----------------+----------------------+
//
//   'Q'  query text (request) or notice text (reply), zero-terminated
//   'T'  row description: u16 count, per column name\0, u16 type, u16 aux
//   'D'  data row: per column a null byte, then (when 0) the value
//   'B'  opaque bytes            'C'  completion       'Z'  end
//
// Replies carry arbitrary slices of the stream, so the decoder keeps a state
// between replies: the buffers not yet consumed and the frame in progress.
// A frame is delivered only once all of its bytes have arrived; the reads of
// one frame then cross buffer boundaries freely, but never its own end.
//
// Ownership: the state owns its buffers, its row description and the column
// values; a reply fed to it is copied, the envelope stays the caller's.
#ifndef TQDB_API_QUERY_H
#define TQDB_API_QUERY_H

#include <cstddef>
#include <cstdint>
#include <deque>
#include <memory>

#include "tq_msg.h"
#include "tqdb_api.h"

inline constexpr uint32_t TQDB_REQ_STATREADER_QUERY = 0x19A21;

// Frame kinds.
inline constexpr uint8_t TQDB_QUERY_FRAME_QUERY = 'Q';  // also a notice in replies
inline constexpr uint8_t TQDB_QUERY_FRAME_ROW_DESC = 'T';
inline constexpr uint8_t TQDB_QUERY_FRAME_DATA_ROW = 'D';
inline constexpr uint8_t TQDB_QUERY_FRAME_BYTES = 'B';
inline constexpr uint8_t TQDB_QUERY_FRAME_COMPLETE = 'C';
inline constexpr uint8_t TQDB_QUERY_FRAME_END = 'Z';
inline constexpr size_t TQDB_QUERY_FRAME_HEADER = 5;  // kind + u32 length

// Column types.
enum tqdb_api_query_coltype : uint16_t {
  TQDB_QUERY_COL_BOOL = 0,   // one byte, 0 or 1
  TQDB_QUERY_COL_UINT8 = 1,  // one byte
  TQDB_QUERY_COL_INT8 = 2,
  TQDB_QUERY_COL_UINT16 = 3,
  TQDB_QUERY_COL_INT16 = 4,
  TQDB_QUERY_COL_UINT32 = 5,
  TQDB_QUERY_COL_INT32 = 6,
  TQDB_QUERY_COL_UINT64 = 7,
  TQDB_QUERY_COL_INT64 = 8,
  TQDB_QUERY_COL_FLOAT = 9,
  TQDB_QUERY_COL_DOUBLE = 10,
  TQDB_QUERY_COL_BYTES = 11,  // u32 length, then the bytes
  TQDB_QUERY_COL_NUM_TYPES = 12,
};

inline constexpr size_t TQDB_QUERY_COLNAME_SIZE = 64;

// One column of a row description: the name as sent, cut to 64 bytes (and
// then not NUL-terminated), its type and the second value sent with it.
struct tqdb_api_statreader_query_col_desc_t {
  char name[TQDB_QUERY_COLNAME_SIZE];
  uint16_t type;
  uint16_t aux;
};
static_assert(sizeof(tqdb_api_statreader_query_col_desc_t) == 68);

struct tqdb_api_statreader_query_row_desc_t {
  uint16_t count;
  tqdb_api_statreader_query_col_desc_t *cols;  // count entries
};

// One column of the current data row. The array is kept from row to row of
// one description; a byte string's buffer grows only for a longer value.
struct tqdb_api_statreader_query_value_t {
  uint8_t null;  // non-zero: no value in this row
  uint8_t pad_[3];
  uint32_t length;  // type 11: bytes used in v.bytes
  union {
    uint8_t u8;
    int8_t i8;
    uint16_t u16;
    int16_t i16;
    uint32_t u32;
    int32_t i32;
    uint64_t u64;
    int64_t i64;
    float f32;
    double f64;
    uint8_t *bytes;  // type 11, owned, capacity bytes
  } v;
  uint32_t capacity;
  uint32_t pad2_;
};
static_assert(sizeof(tqdb_api_statreader_query_value_t) == 24);

// The buffers of one direction of the stream, oldest first.
struct tqdb_api_query_msg_deleter {
  void operator()(tq_msg_t *m) const { tq_msg_free(m); }
};
struct tqdb_api_statreader_query_chain_t {
  std::deque<std::unique_ptr<tq_msg_t, tqdb_api_query_msg_deleter>> bufs;
};

struct tqdb_api_statreader_query_state_t {
  tqdb_api_statreader_query_chain_t chain;  // unconsumed buffers
  uint8_t kind;     // frame in progress, 0 for none
  uint32_t length;  // its length word
  tqdb_api_statreader_query_row_desc_t *desc;  // current description, or nullptr
  tqdb_api_statreader_query_value_t *values;   // desc->count entries once a row came
};

// Callbacks, in the order of the table the binding fills. Any may be
// nullptr: its frames are then skipped. Pointers handed to a callback are
// valid during the call only.
struct tqdb_api_statreader_query_cb_t {
  void *user;
  void (*notice_cb)(void *user, const char *text);
  void (*bytes_cb)(void *user, const uint8_t *bytes, uint32_t n);
  void (*row_desc_cb)(void *user, const tqdb_api_statreader_query_row_desc_t *desc);
  void (*row_data_cb)(void *user, const tqdb_api_statreader_query_state_t *state);
  void (*complete_cb)(void *user);
  void (*end_cb)(void *user);
  void (*unknown_cb)(void *user, uint8_t kind, uint32_t length);
};

// A state with nothing in it, allocated under "tqdb_api_statreader_query".
tqdb_api_statreader_query_state_t *tqdb_api_statreader_query_state_new();
void tqdb_api_statreader_query_state_free(tqdb_api_statreader_query_state_t *state);  // nullptr ignored

struct tqdb_api_statreader_query_state_deleter {
  void operator()(tqdb_api_statreader_query_state_t *s) const { tqdb_api_statreader_query_state_free(s); }
};
using tqdb_api_statreader_query_state_ptr =
    std::unique_ptr<tqdb_api_statreader_query_state_t, tqdb_api_statreader_query_state_deleter>;

// Sends the query and keeps a new state in *state_out. Returns the
// correlation id; 0 (and *state_out nullptr) when it could not be queued,
// which includes a framed query that does not fit the request body.
uint32_t tqdb_api_statreader_query(tqdb_api_statreader_query_state_t **state_out,
                                   tqdb_api_handle_t *h, uint32_t session, const char *query);

// Appends a 'Q' frame, in a fresh buffer unless the last one is empty.
// Fatal ("Too large query.") when it could not fit one buffer.
void tqdb_api_statreader_query_msg_query(tqdb_api_statreader_query_chain_t *chain, const char *query);

// Writes one non-null column value: the null byte 0, then value in the
// encoding of type (value points at the host value; for type 11 at
// value_length bytes). A new buffer is chained first when fewer than
// needed + 1 bytes remain in the last one.
void tqdb_api_statreader_query_msg_data_row_col(tqdb_api_statreader_query_chain_t *chain,
                                                const void *value, uint32_t value_length,
                                                uint32_t needed, uint16_t type);

// Feeds one reply: its body is appended to the chain and every complete
// frame is delivered in order. A null reply does nothing; a reply of another
// type than data is not part of the stream and is left alone (false).
bool tqdb_api_statreader_query_handle_msg(tqdb_api_statreader_query_state_t *state,
                                          const tqdb_api_statreader_query_cb_t *cb,
                                          const tqdb_api_msg_t *reply);

// --- the current row, for row_data_cb -------------------------------------------------
// 0 when col is not below the column count, else 1 and the null byte.
int tqdb_api_statreader_query_col_is_null(const tqdb_api_statreader_query_state_t *state,
                                          unsigned col, uint8_t *null_out);
// Typed getters: the column must be of the getter's type (fatal otherwise)
// and in range; a null column reads as 0.
uint8_t tqdb_api_statreader_query_get_bool(const tqdb_api_statreader_query_state_t *s, unsigned col);
uint8_t tqdb_api_statreader_query_get_uint8(const tqdb_api_statreader_query_state_t *s, unsigned col);
int8_t tqdb_api_statreader_query_get_int8(const tqdb_api_statreader_query_state_t *s, unsigned col);
uint16_t tqdb_api_statreader_query_get_uint16(const tqdb_api_statreader_query_state_t *s, unsigned col);
int16_t tqdb_api_statreader_query_get_int16(const tqdb_api_statreader_query_state_t *s, unsigned col);
uint32_t tqdb_api_statreader_query_get_uint32(const tqdb_api_statreader_query_state_t *s, unsigned col);
int32_t tqdb_api_statreader_query_get_int32(const tqdb_api_statreader_query_state_t *s, unsigned col);
uint64_t tqdb_api_statreader_query_get_uint64(const tqdb_api_statreader_query_state_t *s, unsigned col);
int64_t tqdb_api_statreader_query_get_int64(const tqdb_api_statreader_query_state_t *s, unsigned col);
float tqdb_api_statreader_query_get_float(const tqdb_api_statreader_query_state_t *s, unsigned col);
double tqdb_api_statreader_query_get_double(const tqdb_api_statreader_query_state_t *s, unsigned col);
// The bytes (nullptr for null or empty) and their count in *length.
const uint8_t *tqdb_api_statreader_query_get_bytes(const tqdb_api_statreader_query_state_t *s,
                                                   unsigned col, uint32_t *length);

#endif
