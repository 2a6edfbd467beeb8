// User accounts and their public keys.
#include "tqdb_api_user.h"

#include "reply_reader.h"
#include "ruleset_rows.h"
#include "tq_list.h"
#include "tq_msg.h"
#include "tq_str.h"
#include "tqdb_api.h"

namespace {

using User = tqdb_api_user_t;
// The user record in wire order.
constexpr tqdb_api_item_field_t kRows[]{
    TQ_ROW(User, id, U32),      TQ_ROW(User, name, Text),    TQ_ROW(User, readbm, U32),
    TQ_ROW(User, writebm, U32), TQ_ROW(User, survbm, U32),   TQ_ROW(User, timeout, U32),
    TQ_ROW(User, flags, U32),   TQ_ROW(User, hosts, Text)};
constexpr tqdb_api_item_layout_t kRecord{"tqdb_api_user_t", sizeof(User), kRows};
static_assert(tq::rows_fit(kRecord.size, kRecord.fields));

constexpr char kPubkeyLabel[] = "user::pubkey";

// The single u32 of a DATA reply.
uint32_t u32_answer(tqdb_api_msg_t *env, const char *decoder) {
  if (tqdb_api_msg_get_type(env) != TQDB_API_MSG_TYPE_DATA) return 0;
  tq::ReplyReader r(env, decoder);
  return r.u32();
}

}  // namespace

uint32_t tqdb_api_user_list(tqdb_api_handle_t *h, uint32_t session) {
  return tqdb_api_send(h, TQDB_REQ_USER_LIST, session);
}

uint32_t tqdb_api_user_get(tqdb_api_handle_t *h, uint32_t session, const char *name) {
  return tqdb_api_send(h, TQDB_REQ_USER_GET, session, name);
}

uint32_t tqdb_api_user_add(tqdb_api_handle_t *h, uint32_t session, const char *name,
                           const char *password, uint32_t readbm, uint32_t writebm,
                           uint32_t survbm, uint32_t timeout, uint32_t flags, const char *hosts) {
  return tqdb_api_send(h, TQDB_REQ_USER_ADD, session, name, password, readbm, writebm, survbm,
                       timeout, flags, hosts);
}

uint32_t tqdb_api_user_modify(tqdb_api_handle_t *h, uint32_t session, uint32_t id,
                              const char *name, const char *password, uint32_t readbm,
                              uint32_t writebm, uint32_t survbm, uint32_t timeout, uint32_t flags,
                              const char *hosts) {
  return tqdb_api_send(h, TQDB_REQ_USER_MODIFY, session, id, name, password, readbm, writebm,
                       survbm, timeout, flags, hosts);
}

uint32_t tqdb_api_user_remove(tqdb_api_handle_t *h, uint32_t session, uint32_t id) {
  return tqdb_api_send(h, TQDB_REQ_USER_REMOVE, session, id);
}

uint32_t tqdb_api_user_auth(tqdb_api_handle_t *h, uint32_t session, const char *username,
                            const char *password, const char *ipaddress) {
  return tqdb_api_send(h, TQDB_REQ_USER_AUTH, session, username, password, ipaddress);
}

uint32_t tqdb_api_user_pubkey_list(tqdb_api_handle_t *h, uint32_t session, const char *username) {
  return tqdb_api_send(h, TQDB_REQ_USER_PUBKEY_LIST, session, username);
}

uint32_t tqdb_api_user_pubkey_add(tqdb_api_handle_t *h, uint32_t session, const char *username,
                                  const char *pubkey) {
  return tqdb_api_send(h, TQDB_REQ_USER_PUBKEY_ADD, session, username, pubkey);
}

uint32_t tqdb_api_user_pubkey_remove(tqdb_api_handle_t *h, uint32_t session,
                                     const char *username, const char *pubkey) {
  return tqdb_api_send(h, TQDB_REQ_USER_PUBKEY_REMOVE, session, username, pubkey);
}

uint32_t tqdb_api_user_pubkey_clear(tqdb_api_handle_t *h, uint32_t session, const char *username) {
  return tqdb_api_send(h, TQDB_REQ_USER_PUBKEY_CLEAR, session, username);
}

tq_list_t *tqdb_api_user_list_handle(tqdb_api_msg_t *env, tq_list_t *list) {
  return tq::reply_records(env, list, "tqdb_api_user_list_handle", kRecord, 4);
}

void tqdb_api_user_list_free(tq_list_t *list) { tq_list_free_with_data(list); }

uint32_t tqdb_api_user_add_handle(tqdb_api_msg_t *env) {
  return u32_answer(env, "tqdb_api_user_add_handle");
}

uint32_t tqdb_api_user_auth_handle(tqdb_api_msg_t *env) {
  return u32_answer(env, "tqdb_api_user_auth_handle");
}

tq_list_t *tqdb_api_user_pubkey_list_handle(tqdb_api_msg_t *env, tq_list_t *list) {
  if (tqdb_api_msg_get_type(env) != TQDB_API_MSG_TYPE_DATA) return list;
  tq::ReplyReader r(env, "tqdb_api_user_pubkey_list_handle");
  tq_list_t *fresh = nullptr;  // newest first
  char line[TQDB_API_USER_PUBKEY_MAX + 1];
  while (r.ok() && r.left() >= 4) {
    r.text(line);
    if (!r.ok() || !tq::push_front(fresh, tq_strdup(kPubkeyLabel, line))) break;
  }
  return tq_list_concat(list, tq_list_reverse(fresh));
}
