// Statistics objects: what a statistics rule counts, per what, how often.
#include "reply_reader.h"
#include "ruleset_rows.h"
#include "tq_list.h"
#include "tq_msg.h"
#include "tqdb_api.h"
#include "tqdb_api_ruleset.h"

namespace {

using Stat = tqdb_api_statisticsobject_t;
// The listed record in wire order; add sends the fields from the name to
// the interval, modify the id and those.
constexpr tqdb_api_item_field_t kRows[]{
    TQ_ROW(Stat, id, U32),     TQ_ROW(Stat, name, Text),     TQ_ROW(Stat, split, U8AsU32),
    TQ_ROW(Stat, split_argument, U32), TQ_ROW(Stat, fields, U32), TQ_ROW(Stat, interval, U32),
    TQ_AUDIT_ROWS(Stat)};
constexpr tqdb_api_item_layout_t kRecord{"tqdb_api_statisticsobject_t", sizeof(Stat), kRows};
constexpr tq::Rows kEdited = tq::Rows(kRows).subspan(1, 5);
static_assert(tq::rows_fit(kRecord.size, kRecord.fields));

}  // namespace

uint32_t tqdb_api_statisticsobject_list(tqdb_api_handle_t *h, uint32_t session) {
  return tqdb_api_request(h, TQDB_REQ_STATISTICSOBJECT_LIST, session);
}

uint32_t tqdb_api_statisticsobject_add(tqdb_api_handle_t *h, uint32_t session, const Stat *o) {
  if (o == nullptr) return 0;
  return tqdb_api_request(h, TQDB_REQ_STATISTICSOBJECT_ADD, session,
                          [o](tq_msg_t *m) { tq::write_rows(m, kEdited, o); });
}

uint32_t tqdb_api_statisticsobject_modify(tqdb_api_handle_t *h, uint32_t session, const Stat *o) {
  if (o == nullptr) return 0;
  return tqdb_api_request(h, TQDB_REQ_STATISTICSOBJECT_MODIFY, session, [o](tq_msg_t *m) {
    tqdb_api_put(m, o->id);
    tq::write_rows(m, kEdited, o);
  });
}

uint32_t tqdb_api_statisticsobject_remove(tqdb_api_handle_t *h, uint32_t session, uint32_t id) {
  return tqdb_api_send(h, TQDB_REQ_STATISTICSOBJECT_REMOVE, session, id);
}

uint32_t tqdb_api_statisticsobject_rename(tqdb_api_handle_t *h, uint32_t session, uint32_t id,
                                          const char *name) {
  return tqdb_api_send(h, TQDB_REQ_STATISTICSOBJECT_RENAME, session, id, name);
}

tq_list_t *tqdb_api_statisticsobject_list_handle(tqdb_api_msg_t *env, tq_list_t *list) {
  return tq::reply_records(env, list, "tqdb_api_statisticsobject_list_handle", kRecord, 4);
}

void tqdb_api_statisticsobject_list_free(tq_list_t *list) { tq_list_free_with_data(list); }
