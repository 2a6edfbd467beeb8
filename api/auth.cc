// Connection-level operations: the server's version announcement,
// authentication, opening a session, and the session's ping and diag.
#include <cstring>
#include <span>

#include "tq_list.h"
#include "tq_malloc.h"
#include "tq_msg.h"
#include "tqdb_api.h"

namespace {

// Reads one string into buf (at most buf.size() - 1 characters kept, the rest
// skipped); an absent buffer skips the string whole.
bool read_string(tq_msg_t *msg, std::span<char> buf) {
  if (buf.empty()) return tq_msg_skip_block(msg);
  buf[0] = '\0';
  return tq_msg_get_string_len(msg, buf.data(), buf.size());
}

}  // namespace

// The word has had three forms over the years: a plain number, then two
// digits (major, minor), then the packed form with 11 added to the top nibble.
tqdb_api_version_t tqdb_api_version_decode(uint32_t word) {
  const unsigned w = word & 0xFFFF;
  if (w < 12) return {w, 0, 0};
  if (w < 125) return {w / 10, w % 10, 0};
  return {w >= 4096 ? (w >> 12) + 11 : 0, (w >> 7) & 31, w & 127};
}

uint32_t tqdb_api_version_handle(tqdb_api_msg_t *env, char *buf1, char *buf2, size_t size) {
  if (tqdb_api_msg_get_type(env) != TQDB_API_MSG_TYPE_VERSION) return 0;
  tq_msg_t *msg = env->msg;
  uint32_t word = 0;
  if (!tq_msg_get_uint32(msg, &word)) return 0;
  const std::span<char> first{buf1, buf1 != nullptr ? size : 0};
  const std::span<char> second{buf2, buf2 != nullptr ? size : 0};
  if (!second.empty()) second[0] = '\0';  // stays empty when the first is cut
  if (read_string(msg, first)) (void)read_string(msg, second);
  return word;
}

// --- authentication -----------------------------------------------------------

// The one request without header words: the server has no session to name
// yet, and the reply is recognised by its type.
int tqdb_api_auth(tqdb_api_handle_t *h, const char *user, const char *password) {
  if (h == nullptr) return 0;
  tq_msg_t *req = tq_msg_new(TQDB_REQ_AUTH);
  if (req == nullptr) return 0;
  tq_msg_put_string(req, user);
  tq_msg_put_string(req, password);
  std::memset(h->user, 0, sizeof h->user);
  if (user != nullptr) std::strncpy(h->user, user, sizeof h->user - 1);
  const bool queued = tqdb_api_handle_send(h, req);
  tq_msg_free(req);
  return queued ? 1 : 0;
}

int tqdb_api_auth_handle(tqdb_api_msg_t *env, tqdb_api_auth_result *out) {
  if (tqdb_api_msg_get_type(env) != TQDB_API_MSG_TYPE_AUTH) return 0;
  tq_msg_t *msg = env->msg;
  const auto corrupt = [env](int line) {
    tqdb_api_msg_corrupt(env, "tqdb_api_auth_handle", "auth.c", line);
  };
  uint8_t accepted = 0;
  if (!tq_msg_get_uint8(msg, &accepted)) corrupt(32);
  if (accepted == 0) return 0;
  if (out == nullptr) return 1;
  if (!tq_msg_get_uint64(msg, &out->value0)) corrupt(41);
  if (!tq_msg_get_uint64(msg, &out->value1)) corrupt(42);
  // The later fields are optional: a missing one reads as 0, unreported.
  (void)tq_msg_get_uint64(msg, &out->value2);
  (void)tq_msg_get_uint32(msg, &out->value3);
  return 1;
}

// --- sessions --------------------------------------------------------------------

uint32_t tqdb_api_session_new(tqdb_api_handle_t *h) {
  return tqdb_api_request(h, TQDB_REQ_SESSION_NEW, 0);
}

uint32_t tqdb_api_session_new_handle(tqdb_api_msg_t *env) {
  if (tqdb_api_msg_get_type(env) != TQDB_API_MSG_TYPE_DATA) return 0;
  uint32_t session = 0;
  return tq_msg_get_uint32(env->msg, &session) ? session : 0;
}

uint32_t tqdb_api_session_10102(tqdb_api_handle_t *h, uint32_t arg) {
  return tqdb_api_request(h, TQDB_REQ_SESSION_10102, 0,
                          [arg](tq_msg_t *m) { tq_msg_put_uint32(m, arg); });
}

uint32_t tqdb_api_session_10104(tqdb_api_handle_t *h, uint32_t session) {
  return tqdb_api_request(h, TQDB_REQ_SESSION_10104, session);
}

uint32_t tqdb_api_ping(tqdb_api_handle_t *h, uint32_t session, const char *text) {
  return tqdb_api_request(h, TQDB_REQ_PING, session,
                          [text](tq_msg_t *m) { tq_msg_put_string(m, text); });
}

char *tqdb_api_ping_handle(tqdb_api_msg_t *env, char *buf, size_t size) {
  if (tqdb_api_msg_get_type(env) != TQDB_API_MSG_TYPE_DATA) return nullptr;
  if (buf == nullptr || size == 0) return nullptr;
  return read_string(env->msg, {buf, size}) ? buf : nullptr;
}

uint32_t tqdb_api_session_diag(tqdb_api_handle_t *h, uint32_t session) {
  return tqdb_api_request(h, TQDB_REQ_SESSION_DIAG, session);
}

tq_list_t *tqdb_api_session_diag_handle(tqdb_api_msg_t *env, tq_list_t *list) {
  if (tqdb_api_msg_get_type(env) != TQDB_API_MSG_TYPE_DATA) return list;
  tq_msg_t *msg = env->msg;
  char line[255];  // 254 characters kept
  while (tq_msg_avail_bytes(msg) >= 4) {
    if (!read_string(msg, line)) break;
    const size_t n = std::strlen(line) + 1;
    auto *copy = static_cast<char *>(tq_zalloc("tqdb_api_session_diag_handle", n));
    std::memcpy(copy, line, n);
    tq_list_t *head = tq_list_append(list, copy);
    if (head == nullptr) {
      tq_free_flags(copy);
      break;
    }
    list = head;
  }
  return list;
}
