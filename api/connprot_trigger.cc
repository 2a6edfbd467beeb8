// Connection-protection triggers: a name and the script it runs.
#include "tqdb_api_trigger.h"
#include "trigger_family.h"

namespace {

using Trigger = tqdb_api_connprot_trigger_t;
constexpr tqdb_api_item_field_t kRows[]{
    TQ_ROW(Trigger, id, U32), TQ_ROW(Trigger, name, Text), TQ_ROW(Trigger, script, Text)};
constexpr tqdb_api_item_layout_t kRecord{"tqdb_api_connprot_trigger_t", sizeof(Trigger), kRows};
static_assert(tq::rows_fit(kRecord.size, kRecord.fields));

}  // namespace

uint32_t tqdb_api_connprot_trigger_list(tqdb_api_handle_t *h, uint32_t session) {
  return tqdb_api_send(h, TQDB_REQ_CONNPROT_TRIGGER_LIST, session);
}

uint32_t tqdb_api_connprot_trigger_add(tqdb_api_handle_t *h, uint32_t session, const char *name,
                                       const char *script) {
  return tqdb_api_send(h, TQDB_REQ_CONNPROT_TRIGGER_ADD, session, name, script);
}

uint32_t tqdb_api_connprot_trigger_remove(tqdb_api_handle_t *h, uint32_t session, uint32_t id) {
  return tqdb_api_send(h, TQDB_REQ_CONNPROT_TRIGGER_REMOVE, session, id);
}

uint32_t tqdb_api_connprot_trigger_update(tqdb_api_handle_t *h, uint32_t session, uint32_t id,
                                          const char *script) {
  return tqdb_api_send(h, TQDB_REQ_CONNPROT_TRIGGER_UPDATE, session, id, script);
}

uint32_t tqdb_api_connprot_trigger_rename(tqdb_api_handle_t *h, uint32_t session, uint32_t id,
                                          const char *newname) {
  return tqdb_api_send(h, TQDB_REQ_CONNPROT_TRIGGER_RENAME, session, id, newname);
}

tq_list_t *tqdb_api_connprot_trigger_list_handle(tqdb_api_msg_t *env, tq_list_t *list) {
  return tq::trigger::list_handle(env, list, kRecord, "tqdb_api_connprot_trigger_list_handle");
}

uint32_t tqdb_api_connprot_trigger_add_handle(tqdb_api_msg_t *env) {
  return tq::trigger::add_handle(env, "tqdb_api_connprot_trigger_add_handle");
}
