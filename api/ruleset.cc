// Pieces every ruleset family shares: attribute lists, the timestamp, add
// and text answers of edits, the rule attribute requests, integer lists.
#include "reply_reader.h"
#include "ruleset_rows.h"
#include "tq_list.h"
#include "tqdb_api.h"
#include "tqdb_api_ruleset.h"

namespace {

bool is_data(const tqdb_api_msg_t *env) {
  return tqdb_api_msg_get_type(env) == TQDB_API_MSG_TYPE_DATA;
}

}  // namespace

// The answer has no count: pairs follow each other to the end of the body.
tq_list_t *_tqdb_api_ruleset_attr_list_handle(tqdb_api_msg_t *env, tq_list_t *list) {
  if (!is_data(env)) return list;
  tq::ReplyReader r(env, "_tqdb_api_ruleset_attr_list_handle");
  while (r.ok() && r.left() > 0) {
    tqdb_api_ruleset_attr_t *a = tq::read_attr(r);
    if (a == nullptr || !tq::push_front(list, a)) break;
  }
  return list;
}

bool tqdb_api_ruleset_timestamp_handle(tqdb_api_msg_t *env, char *buf) {
  if (buf == nullptr) return false;
  buf[0] = '\0';
  if (!is_data(env)) return false;
  tq::ReplyReader r(env, "tqdb_api_ruleset_timestamp_handle");
  r.text(buf, TQDB_API_TIMESTAMP_SIZE);
  return r.ok();
}

bool tqdb_api_ruleset_add_handle(tqdb_api_msg_t *env, uint32_t *id, char *buf) {
  uint32_t id_scratch = 0;
  char buf_scratch[TQDB_API_TIMESTAMP_SIZE];
  if (id == nullptr) id = &id_scratch;
  if (buf == nullptr) buf = buf_scratch;
  *id = 0;
  buf[0] = '\0';
  if (!is_data(env)) return false;
  tq::ReplyReader r(env, "tqdb_api_ruleset_add_handle");
  *id = r.u32();
  r.text(buf, TQDB_API_TIMESTAMP_SIZE);
  return r.ok();
}

bool tqdb_api_ruleset_text_handle(tqdb_api_msg_t *env, char *buf, size_t size) {
  if (buf == nullptr || size == 0) return false;
  buf[0] = '\0';
  if (!is_data(env)) return false;
  tq::ReplyReader r(env, "tqdb_api_ruleset_text_handle");
  r.text(buf, size);
  return r.ok();
}

// --- rule attributes: the rule family travels as a type byte ----------------------------

uint32_t tqdb_api_rule_attr_list(tqdb_api_handle_t *h, uint32_t session, uint8_t ruletype,
                                 uint32_t id) {
  return tqdb_api_send(h, TQDB_REQ_RULE_ATTR_LIST, session, ruletype, id);
}

uint32_t tqdb_api_rule_attr_set(tqdb_api_handle_t *h, uint32_t session, uint8_t ruletype,
                                uint32_t id, const char *key, const char *value) {
  return tqdb_api_send(h, TQDB_REQ_RULE_ATTR_SET, session, ruletype, id, key, value);
}

uint32_t tqdb_api_rule_attr_remove(tqdb_api_handle_t *h, uint32_t session, uint8_t ruletype,
                                   uint32_t id, const char *key) {
  return tqdb_api_send(h, TQDB_REQ_RULE_ATTR_REMOVE, session, ruletype, id, key);
}

// The ids live in the nodes themselves: there is no data to release.
void tqdb_api_int_list_free(tq_list_t *list) { tq_list_free(list); }
