// The columnar statistics query: framing of the query, the stream decoder
// and the column writer.
//
// A reply carries any slice of the stream, so nothing here assumes that a
// frame, or even a frame header, sits in one buffer: a frame waits in the
// chain until all of its bytes are there, and is then read across the
// buffers as one run of bytes bounded by its own length.
#include <algorithm>
#include <array>
#include <cstring>
#include <new>
#include <vector>

#include "tq_malloc.h"
#include "tq_msg.h"
#include "tqdb_api_query.h"

namespace {

using state_t = tqdb_api_statreader_query_state_t;
using chain_t = tqdb_api_statreader_query_chain_t;
using value_t = tqdb_api_statreader_query_value_t;
using desc_t = tqdb_api_statreader_query_row_desc_t;
using col_t = tqdb_api_statreader_query_col_desc_t;

constexpr const char *kStateLabel = "tqdb_api_statreader_query";
constexpr const char *kDescLabel = "tqdb_api_statreader_query_row_desc_t";
constexpr const char *kColsLabel = "tqdb_api_statreader_query_col_desc_t";
constexpr const char *kValuesLabel = "tqdb_api_statreader_query_value_t";
constexpr const char *kBytesLabel = "tqdb_api_statreader_query_value_t::bytes";

// Wire size of each column type's value, and the name its failed read is
// reported under. A byte string's size is that of its length word.
struct ColType {
  uint8_t size;
  const char *read_name;
};
constexpr std::array<ColType, TQDB_QUERY_COL_NUM_TYPES> kColTypes{{
    {1, "int8"},   {1, "int8"},   {1, "int8"},   {2, "uint16"}, {2, "int16"}, {4, "int32"},
    {4, "int32"},  {8, "uint64"}, {8, "int64"},  {4, "float"},  {8, "double"}, {4, "int32"},
}};

tq_msg_t *chain_append(chain_t *chain) {
  tq_msg_t *m = tq_msg_new(0);
  TQ_BUG_ON(m == TQ_NULL, "Out of message buffers");
  chain->bufs.emplace_back(m);
  return m;
}

// The last buffer when it still has room for n bytes, else a new one.
tq_msg_t *chain_room(chain_t *chain, size_t n) {
  if (!chain->bufs.empty() && tq_msg_free_bytes(chain->bufs.back().get()) >= n)
    return chain->bufs.back().get();
  return chain_append(chain);
}

size_t chain_unread(const chain_t &chain) {
  size_t n = 0;
  for (const auto &b : chain.bufs) n += tq_msg_avail_bytes(b.get());
  return n;
}

// Copies up to n unread bytes without consuming them; the count copied.
size_t chain_peek(const chain_t &chain, uint8_t *out, size_t n) {
  size_t got = 0;
  for (const auto &b : chain.bufs) {
    const size_t k = std::min<size_t>(n - got, tq_msg_avail_bytes(b.get()));
    std::memcpy(out + got, b->data + b->rpos, k);
    if ((got += k) == n) break;
  }
  return got;
}

// Consumes n bytes (into out unless nullptr); the caller has checked they
// are there. Buffers read to the end are given back.
void chain_take(chain_t *chain, uint8_t *out, size_t n) {
  while (n > 0) {
    tq_msg_t *b = chain->bufs.front().get();
    const size_t k = std::min<size_t>(n, tq_msg_avail_bytes(b));
    if (out != nullptr) {
      std::memcpy(out, b->data + b->rpos, k);
      out += k;
    }
    b->rpos = static_cast<uint16_t>(b->rpos + k);
    n -= k;
    if (tq_msg_avail_bytes(b) == 0) chain->bufs.pop_front();
  }
}

// The payload of one complete frame. Reads never pass the frame's end.
class FrameReader {
 public:
  FrameReader(chain_t *chain, uint32_t left) : chain_(chain), left_(left) {}
  uint32_t left() const { return left_; }
  // n bytes, or false with out zero-filled and nothing consumed.
  bool bytes(void *out, size_t n) {
    if (n > left_) {
      std::memset(out, 0, n);
      return false;
    }
    chain_take(chain_, static_cast<uint8_t *>(out), n);
    left_ -= static_cast<uint32_t>(n);
    return true;
  }
  template <class T>
  T be() {
    std::array<uint8_t, sizeof(T)> raw;
    (void)bytes(raw.data(), raw.size());
    if constexpr (sizeof(T) == 1) return std::bit_cast<T>(raw[0]);
    if constexpr (sizeof(T) == 2) return std::bit_cast<T>(tq::load_be16(raw));
    if constexpr (sizeof(T) == 4) return std::bit_cast<T>(tq::load_be32(raw));
    if constexpr (sizeof(T) == 8) return std::bit_cast<T>(tq::load_be64(raw));
  }
  // A value that must be there: a row cut inside its frame is a broken
  // writer, not a short reply.
  void need(void *out, size_t n, const char *name, int line) {
    need_room(n, name, line);
    (void)bytes(out, n);
  }
  // The same verdict before the value is read, so that a size announced
  // beyond the frame is refused before anything is allocated for it.
  void need_room(size_t n, const char *name, int line) {
    if (n > left_)
      tq_bug_fatal(__FILE__, line, "tqdb_api_statreader_query_handle_msg", "!r",
                   "Failed to read %s from message at %s:%d", name, __FILE__, line);
  }
  void skip_rest() {
    chain_take(chain_, nullptr, left_);
    left_ = 0;
  }

 private:
  chain_t *chain_;
  uint32_t left_;
};

void values_free(state_t *s) {
  if (s->values == nullptr) return;
  for (uint16_t i = 0; i < s->desc->count; ++i)
    if (s->desc->cols[i].type == TQDB_QUERY_COL_BYTES) tq_free_flags(s->values[i].v.bytes);
  tq_free_flags(s->values);
  s->values = nullptr;
}

void desc_free(state_t *s) {
  values_free(s);
  if (s->desc == nullptr) return;
  tq_free_flags(s->desc->cols);
  tq_free_flags(s->desc);
  s->desc = nullptr;
}

using cb_t = tqdb_api_statreader_query_cb_t;

void on_notice(state_t *, const cb_t *cb, FrameReader &f) {
  if (cb->notice_cb == nullptr) return;
  std::vector<char> text(f.left() + 1, '\0');  // a text without its NUL still ends
  (void)f.bytes(text.data(), f.left());
  cb->notice_cb(cb->user, text.data());
}

void on_bytes(state_t *, const cb_t *cb, FrameReader &f) {
  if (cb->bytes_cb == nullptr) return;
  std::vector<uint8_t> copy(f.left());
  (void)f.bytes(copy.data(), copy.size());
  cb->bytes_cb(cb->user, copy.data(), static_cast<uint32_t>(copy.size()));
}

// A new description always replaces the old one, whether or not anyone is
// told, so that the rows after it are read by their own columns.
void on_row_desc(state_t *s, const cb_t *cb, FrameReader &f) {
  desc_free(s);
  s->desc = tq_new_record<desc_t>(kDescLabel);
  s->desc->count = f.be<uint16_t>();
  s->desc->cols = static_cast<col_t *>(tq_zalloc(kColsLabel, sizeof(col_t) * s->desc->count));
  for (uint16_t i = 0; i < s->desc->count; ++i) {
    col_t &c = s->desc->cols[i];
    size_t n = 0;
    for (char ch; f.bytes(&ch, 1) && ch != '\0'; ++n)
      if (n < sizeof c.name) c.name[n] = ch;
    c.type = f.be<uint16_t>();
    c.aux = f.be<uint16_t>();
  }
  if (cb->row_desc_cb != nullptr) cb->row_desc_cb(cb->user, s->desc);
}

// The union holds a byte string's buffer, so its length word is read beside
// it; every other value is read into the union.
void read_value(value_t &v, uint16_t type, FrameReader &f) {
  f.need(&v.null, 1, "uint8", __LINE__);
  v.length = 0;
  if (type != TQDB_QUERY_COL_BYTES) v.v.u64 = 0;
  if (v.null != 0 || type >= TQDB_QUERY_COL_NUM_TYPES) return;
  const ColType &t = kColTypes[type];
  std::array<uint8_t, 8> raw{};
  f.need(raw.data(), t.size, t.read_name, __LINE__);
  const std::span<const uint8_t, 8> r(raw);
  const uint64_t word = t.size == 1   ? raw[0]
                        : t.size == 2 ? tq::load_be16(r.first<2>())
                        : t.size == 4 ? tq::load_be32(r.first<4>())
                                      : tq::load_be64(r);
  if (type != TQDB_QUERY_COL_BYTES) {
    if (t.size == 1) v.v.u8 = static_cast<uint8_t>(word);
    if (t.size == 2) v.v.u16 = static_cast<uint16_t>(word);
    if (t.size == 4) v.v.u32 = static_cast<uint32_t>(word);
    if (t.size == 8) v.v.u64 = word;
    return;
  }
  const auto n = static_cast<uint32_t>(word);
  f.need_room(n, "data", __LINE__);  // a length word is no reason to allocate gigabytes
  if (n > v.capacity) {  // grown only for a longer value, then kept
    tq_free_flags(v.v.bytes);
    v.v.bytes = static_cast<uint8_t *>(tq_malloc_flags(kBytesLabel, n, 0));
    v.capacity = n;
  }
  if (n > 0) f.need(v.v.bytes, n, "data", __LINE__);
  v.length = n;
}

void on_data_row(state_t *s, const cb_t *cb, FrameReader &f) {
  if (cb->row_data_cb == nullptr || s->desc == nullptr) return;
  if (s->values == nullptr)
    s->values = static_cast<value_t *>(tq_zalloc(kValuesLabel, sizeof(value_t) * s->desc->count));
  for (uint16_t i = 0; i < s->desc->count; ++i) read_value(s->values[i], s->desc->cols[i].type, f);
  cb->row_data_cb(cb->user, s);
}

void on_complete(state_t *, const cb_t *cb, FrameReader &) {
  if (cb->complete_cb != nullptr) cb->complete_cb(cb->user);
}

void on_end(state_t *, const cb_t *cb, FrameReader &) {
  if (cb->end_cb != nullptr) cb->end_cb(cb->user);
}

struct FrameKind {
  uint8_t kind;
  void (*deliver)(state_t *, const cb_t *, FrameReader &);
};
constexpr std::array<FrameKind, 6> kFrameKinds{{
    {TQDB_QUERY_FRAME_QUERY, on_notice},
    {TQDB_QUERY_FRAME_ROW_DESC, on_row_desc},
    {TQDB_QUERY_FRAME_DATA_ROW, on_data_row},
    {TQDB_QUERY_FRAME_BYTES, on_bytes},
    {TQDB_QUERY_FRAME_COMPLETE, on_complete},
    {TQDB_QUERY_FRAME_END, on_end},
}};

// Every frame whose bytes are all in the chain, in order. The header is only
// looked at until the frame is whole, so a frame in progress costs nothing
// to resume.
void deliver_frames(state_t *s, const cb_t *cb) {
  for (;;) {
    std::array<uint8_t, TQDB_QUERY_FRAME_HEADER> hdr;
    const size_t unread = chain_unread(s->chain);
    if (chain_peek(s->chain, hdr.data(), hdr.size()) < hdr.size()) return;
    const uint32_t length = tq::load_be32(std::span(hdr).last<4>());
    const uint32_t payload = length > 4 ? length - 4 : 0;  // a length below 4 carries nothing
    s->kind = hdr[0];
    s->length = length;
    if (unread - hdr.size() < payload) return;
    chain_take(&s->chain, nullptr, hdr.size());
    FrameReader f(&s->chain, payload);
    const auto *k = std::find_if(kFrameKinds.begin(), kFrameKinds.end(),
                                 [&](const FrameKind &fk) { return fk.kind == hdr[0]; });
    if (k != kFrameKinds.end())
      k->deliver(s, cb, f);
    else if (cb->unknown_cb != nullptr)
      cb->unknown_cb(cb->user, hdr[0], length);
    f.skip_rest();
    s->kind = 0;
    s->length = 0;
  }
}

template <class T, uint16_t Type>
T get_col(const state_t *s, unsigned col, const char *getter) {
  TQ_BUG_ON(s == TQ_NULL, "");
  TQ_BUG_ON(s->desc == TQ_NULL || s->values == TQ_NULL, "No data row");
  TQ_BUG_ON(col >= s->desc->count, "Column %u of %u", col, unsigned{s->desc->count});
  const unsigned type = s->desc->cols[col].type;
  if (type != Type) TQ_BUG("Calling %s with incorrect type %u", getter, type);
  const value_t &v = s->values[col];
  T out{};
  if (v.null == 0) std::memcpy(&out, &v.v, sizeof out);
  return out;
}

}  // namespace

tqdb_api_statreader_query_state_t *tqdb_api_statreader_query_state_new() {
  void *mem = tq_zalloc(kStateLabel, sizeof(state_t));
  return new (mem) state_t{};
}

void tqdb_api_statreader_query_state_free(tqdb_api_statreader_query_state_t *state) {
  if (state == nullptr) return;
  desc_free(state);
  state->~state_t();
  tq_free_flags(state);
}

void tqdb_api_statreader_query_msg_query(tqdb_api_statreader_query_chain_t *chain, const char *query) {
  TQ_BUG_ON(chain == TQ_NULL, "");
  if (query == nullptr) query = "";
  const size_t n = std::strlen(query);
  if (n + 6 > TQ_MSG_MAX_DATA) TQ_BUG("Too large query.");
  // A query always starts a buffer of its own, so that its header is the
  // first thing in it.
  tq_msg_t *m = !chain->bufs.empty() && tq_msg_is_empty(chain->bufs.back().get())
                    ? chain->bufs.back().get()
                    : chain_append(chain);
  tq_msg_put_uint8(m, TQDB_QUERY_FRAME_QUERY);
  tq_msg_put_uint32(m, static_cast<uint32_t>(n + 5));
  tq_msg_put_data(m, query, n + 1);
}

void tqdb_api_statreader_query_msg_data_row_col(tqdb_api_statreader_query_chain_t *chain,
                                                const void *value, uint32_t value_length,
                                                uint32_t needed, uint16_t type) {
  TQ_BUG_ON(chain == TQ_NULL, "");
  TQ_BUG_ON(value == TQ_NULL, "");
  TQ_BUG_ON(type >= TQDB_QUERY_COL_NUM_TYPES, "Column type %u", unsigned{type});
  tq_msg_t *m = chain_room(chain, size_t{needed} + 1);
  tq_msg_put_uint8(m, 0);
  const ColType &t = kColTypes[type];
  if (type == TQDB_QUERY_COL_BYTES) {
    tq_msg_put_uint32(m, value_length);
    tq_msg_put_data(m, value, value_length);
    return;
  }
  uint64_t host = 0;
  std::memcpy(&host, value, t.size);
  switch (t.size) {
    case 1: tq_msg_put_uint8(m, static_cast<uint8_t>(host)); break;
    case 2: tq_msg_put_uint16(m, static_cast<uint16_t>(host)); break;
    case 4: tq_msg_put_uint32(m, static_cast<uint32_t>(host)); break;
    default: tq_msg_put_uint64(m, host); break;
  }
}

uint32_t tqdb_api_statreader_query(tqdb_api_statreader_query_state_t **state_out,
                                   tqdb_api_handle_t *h, uint32_t session, const char *query) {
  TQ_BUG_ON(state_out == TQ_NULL, "");
  tqdb_api_statreader_query_state_ptr state(tqdb_api_statreader_query_state_new());
  *state_out = nullptr;
  tqdb_api_statreader_query_msg_query(&state->chain, query);
  uint32_t cid = 0;
  tq_msg_t *req = tqdb_api_request_new(h, TQDB_REQ_STATREADER_QUERY, session, &cid);
  if (req == nullptr) return 0;
  // The stream's buffers are the replies' from now on.
  const tq_msg_t *framed = state->chain.bufs.front().get();
  if (tq_msg_free_bytes(req) < framed->len) {
    tq_msg_free(req);
    return 0;
  }
  tq_msg_put_data(req, framed->data, framed->len);
  state->chain.bufs.clear();
  cid = tqdb_api_request_finish(h, req, cid);
  if (cid != 0) *state_out = state.release();
  return cid;
}

bool tqdb_api_statreader_query_handle_msg(tqdb_api_statreader_query_state_t *state,
                                          const tqdb_api_statreader_query_cb_t *cb,
                                          const tqdb_api_msg_t *reply) {
  TQ_BUG_ON(state == TQ_NULL, "");
  if (reply == nullptr || reply->msg == nullptr) return false;
  if (reply->msg->reserved != 0) tq_bug_fatal(__FILE__, __LINE__, __func__, "amsg->next", "");
  if (reply->type != TQDB_API_MSG_TYPE_DATA) return false;
  if (tq_msg_avail_bytes(reply->msg) > 0) {
    tq_msg_t *copy = tq_msg_dup(reply->msg);
    TQ_BUG_ON(copy == TQ_NULL, "Out of message buffers");
    state->chain.bufs.emplace_back(copy);
  }
  static constexpr cb_t kNone{};
  deliver_frames(state, cb != nullptr ? cb : &kNone);
  return true;
}

// The typed getters: one row per column type; each names itself in the
// TQ-BUG text when a column of another type is asked for.
#define TQ_QUERY_GETTER(T, name, coltype)                                                     \
  T tqdb_api_statreader_query_get_##name(const tqdb_api_statreader_query_state_t *s, unsigned col) { \
    return get_col<T, coltype>(s, col, __func__);                                              \
  }
TQ_QUERY_GETTER(uint8_t, bool, TQDB_QUERY_COL_BOOL)
TQ_QUERY_GETTER(uint8_t, uint8, TQDB_QUERY_COL_UINT8)
TQ_QUERY_GETTER(int8_t, int8, TQDB_QUERY_COL_INT8)
TQ_QUERY_GETTER(uint16_t, uint16, TQDB_QUERY_COL_UINT16)
TQ_QUERY_GETTER(int16_t, int16, TQDB_QUERY_COL_INT16)
TQ_QUERY_GETTER(uint32_t, uint32, TQDB_QUERY_COL_UINT32)
TQ_QUERY_GETTER(int32_t, int32, TQDB_QUERY_COL_INT32)
TQ_QUERY_GETTER(uint64_t, uint64, TQDB_QUERY_COL_UINT64)
TQ_QUERY_GETTER(int64_t, int64, TQDB_QUERY_COL_INT64)
TQ_QUERY_GETTER(float, float, TQDB_QUERY_COL_FLOAT)
TQ_QUERY_GETTER(double, double, TQDB_QUERY_COL_DOUBLE)
#undef TQ_QUERY_GETTER

const uint8_t *tqdb_api_statreader_query_get_bytes(const tqdb_api_statreader_query_state_t *s,
                                                   unsigned col, uint32_t *length) {
  uint8_t *bytes = get_col<uint8_t *, TQDB_QUERY_COL_BYTES>(s, col, __func__);
  const uint32_t n = s->values[col].null == 0 ? s->values[col].length : 0;
  if (length != nullptr) *length = n;
  return n > 0 ? bytes : nullptr;
}

int tqdb_api_statreader_query_col_is_null(const tqdb_api_statreader_query_state_t *state,
                                          unsigned col, uint8_t *null_out) {
  if (state == nullptr || state->desc == nullptr || state->values == nullptr ||
      col >= state->desc->count)
    return 0;
  if (null_out != nullptr) *null_out = state->values[col].null;
  return 1;
}
