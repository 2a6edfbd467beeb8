// The reply envelope and the request header.
//
// A received message becomes an envelope: its wire code is mapped to a
// message type, the header words that type carries (session, correlation id)
// are taken off, and error-like types keep their text. The body is left in
// the message, read position just behind the header, for the operation's
// decoder. Requests start with code, session word and a fresh correlation id.
#include <algorithm>
#include <array>

#include "tq_malloc.h"
#include "tq_msg.h"
#include "tq_ringbuf.h"
#include "tqdb_api.h"

namespace {

struct code_entry {
  uint32_t code;
  tqdb_api_msg_type type;
};

// The appliance's numbering: type 10 is 0x20010, and 0x2000A..0x2000F and
// 0x20011 are not codes at all.
constexpr std::array<code_entry, 12> kCodes{{
    {TQDB_REPLY_AUTH, TQDB_API_MSG_TYPE_AUTH},
    {TQDB_REPLY_BCAST_COMMIT, TQDB_API_MSG_TYPE_BCAST_COMMIT},
    {TQDB_REPLY_OK, TQDB_API_MSG_TYPE_OK},
    {TQDB_REPLY_ERROR, TQDB_API_MSG_TYPE_ERROR},
    {TQDB_REPLY_CRITICAL, TQDB_API_MSG_TYPE_CRITICAL},
    {TQDB_REPLY_LOCK, TQDB_API_MSG_TYPE_LOCK},
    {TQDB_REPLY_DATA, TQDB_API_MSG_TYPE_DATA},
    {TQDB_REPLY_VERSION, TQDB_API_MSG_TYPE_VERSION},
    {TQDB_REPLY_NOTICE, TQDB_API_MSG_TYPE_NOTICE},
    {TQDB_REPLY_RESTARTING, TQDB_API_MSG_TYPE_RESTARTING},
    {TQDB_REPLY_RELOADING, TQDB_API_MSG_TYPE_RELOADING},
    {TQDB_REPLY_DETACHED, TQDB_API_MSG_TYPE_DETACHED},
}};

// What follows the code on the wire, per type.
struct header_shape {
  bool session;
  bool cid;
  bool text;
};

constexpr header_shape shape_of(tqdb_api_msg_type type) {
  switch (type) {
    case TQDB_API_MSG_TYPE_AUTH:
    case TQDB_API_MSG_TYPE_VERSION:
    case TQDB_API_MSG_TYPE_RESTARTING:
    case TQDB_API_MSG_TYPE_RELOADING:
      return {false, false, false};
    case TQDB_API_MSG_TYPE_BCAST_COMMIT:
      return {true, false, false};
    case TQDB_API_MSG_TYPE_OK:
    case TQDB_API_MSG_TYPE_DATA:
      return {true, true, false};
    case TQDB_API_MSG_TYPE_ERROR:
    case TQDB_API_MSG_TYPE_CRITICAL:
    case TQDB_API_MSG_TYPE_LOCK:
      return {true, true, true};
    case TQDB_API_MSG_TYPE_NOTICE:
    case TQDB_API_MSG_TYPE_DETACHED:
      return {true, false, true};
  }
  return {false, false, false};
}

// The text keeps at most 511 bytes; the rest of a longer one is skipped so
// that the body starts right behind it. false when the text runs past the
// end of the message (the kept part is then zero-filled).
bool read_text(tq_msg_t *msg, char (&error)[TQDB_API_ERROR_MAX]) {
  uint32_t wire_len = 0;
  if (!tq_msg_get_uint32(msg, &wire_len)) return false;
  if (wire_len == 0) return true;
  const uint32_t kept = std::min<uint32_t>(wire_len, TQDB_API_ERROR_MAX - 1);
  if (!tq_msg_get_data(msg, error, kept)) return false;
  return wire_len == kept || tq_msg_skip(msg, wire_len - kept);
}

}  // namespace

bool tqdb_api_msg_code_to_type(uint32_t code, uint32_t *type) {
  const auto *it = std::find_if(kCodes.begin(), kCodes.end(),
                                [code](const code_entry &e) { return e.code == code; });
  if (it == kCodes.end()) return false;
  if (type != nullptr) *type = it->type;
  return true;
}

tqdb_api_msg_t *tqdb_api_msg_new(tq_msg_t *msg, tqdb_api_corrupt_cb_t cb, void *data) {
  if (msg == nullptr) return nullptr;
  auto *env = tq_new_record<tqdb_api_msg_t>("tqdb_api_msg_t");
  if (env == nullptr) return nullptr;

  uint32_t type = 0;
  if (!tqdb_api_msg_code_to_type(msg->type, &type)) {
    tq_free_flags(env);
    return nullptr;
  }
  env->type = type;
  const header_shape shape = shape_of(static_cast<tqdb_api_msg_type>(type));
  if ((shape.session && !tq_msg_get_uint32(msg, &env->session)) ||
      (shape.cid && !tq_msg_get_uint32(msg, &env->cid))) {
    tq_free_flags(env);
    return nullptr;
  }
  env->msg = msg;
  env->corrupt_cb = cb;
  env->corrupt_cb_data = data;

  if (shape.text && !read_text(msg, env->error))
    tqdb_api_msg_corrupt(env, "tqdb_api_msg_new", "msg.c", 88);
  return env;
}

void tqdb_api_msg_corrupt(tqdb_api_msg_t *env, const char *function, const char *file, int line) {
  if (env == nullptr || env->corrupt_cb == nullptr) return;
  // Cleared before the call: one report per envelope, even if the callback
  // ends up decoding the same envelope again.
  const tqdb_api_corrupt_cb_t cb = env->corrupt_cb;
  void *data = env->corrupt_cb_data;
  env->corrupt_cb = nullptr;
  env->corrupt_cb_data = nullptr;
  cb(env->msg, function, file, line, data);
}

void tqdb_api_msg_free(tqdb_api_msg_t *env) {
  if (env == nullptr) return;
  tq_msg_free(env->msg);
  tq_free_flags(env);
}

// A missing reply reads as a critical failure.
uint32_t tqdb_api_msg_get_type(const tqdb_api_msg_t *env) {
  return env != nullptr ? env->type : TQDB_API_MSG_TYPE_CRITICAL;
}

uint32_t tqdb_api_msg_get_session(const tqdb_api_msg_t *env) {
  return env != nullptr ? env->session : 0;
}

uint32_t tqdb_api_msg_get_cid(const tqdb_api_msg_t *env) { return env != nullptr ? env->cid : 0; }

const char *tqdb_api_msg_get_error(const tqdb_api_msg_t *env) { return env->error; }

tq_msg_t *tqdb_api_msg_get_msg(const tqdb_api_msg_t *env) {
  return env != nullptr ? env->msg : nullptr;
}

// --- requests ---------------------------------------------------------------

tq_msg_t *tqdb_api_request_new(tqdb_api_handle_t *h, uint32_t code, uint32_t session,
                               uint32_t *cid) {
  if (h == nullptr) return nullptr;
  tq_msg_t *req = tq_msg_new(code);
  if (req == nullptr) return nullptr;
  tq_msg_put_uint32(req, session);
  // 0 means "no request" to every caller, so the counter skips it on wrap.
  const uint32_t id = h->cid;
  h->cid = id + 1 != 0 ? id + 1 : 1;
  if (cid != nullptr) *cid = id;
  tq_msg_put_uint32(req, id);
  return req;
}

bool tqdb_api_handle_send(tqdb_api_handle_t *h, const tq_msg_t *req) {
  if (h == nullptr || req == nullptr || h->wbuf == nullptr) return false;
  return tq_msg_write_frame(h->wbuf, req);
}

uint32_t tqdb_api_request_finish(tqdb_api_handle_t *h, tq_msg_t *req, uint32_t cid) {
  if (req == nullptr) return 0;
  const bool queued = tqdb_api_handle_send(h, req);
  tq_msg_free(req);
  return queued ? cid : 0;
}

void tqdb_api_put(tq_msg_t *m, uint8_t v) { tq_msg_put_uint8(m, v); }
void tqdb_api_put(tq_msg_t *m, uint16_t v) { tq_msg_put_uint16(m, v); }
void tqdb_api_put(tq_msg_t *m, uint32_t v) { tq_msg_put_uint32(m, v); }
void tqdb_api_put(tq_msg_t *m, uint64_t v) { tq_msg_put_uint64(m, v); }
void tqdb_api_put(tq_msg_t *m, int32_t v) { tq_msg_put_int32(m, v); }
void tqdb_api_put(tq_msg_t *m, const char *s) { tq_msg_put_string(m, s); }
