// Statistics fields and value types: what the appliance can report for a
// node, and the value types of its statistics tree.
#include <cstddef>

#include "reply_reader.h"
#include "ruleset_rows.h"
#include "tq_list.h"
#include "tq_log.h"
#include "tq_malloc.h"
#include "tqdb_api_statreader.h"

namespace {

using Field = tqdb_api_statistics_fieldnode_t;
using ValueType = tqdb_api_statistics_valuetype_t;

// A value type in reply order: u16 id, name, short name, u32 flags.
constexpr tqdb_api_item_field_t kValueTypeRows[] = {
    TQ_ROW(ValueType, id, U16),
    TQ_ROW(ValueType, name, Text),
    TQ_ROW(ValueType, short_name, Text),
    TQ_ROW(ValueType, flags, U32),
};
static_assert(tq::rows_fit(sizeof(ValueType), kValueTypeRows));

}  // namespace

uint32_t tqdb_api_statistics_list_fields(tqdb_api_handle_t *h, uint32_t session) {
  return tqdb_api_request(h, TQDB_REQ_STAT_LIST_FIELDS, session);
}

tqdb_api_statistics_fields_t *tqdb_api_statistics_list_fields_handle(tqdb_api_msg_t *env) {
  if (tqdb_api_msg_get_type(env) != TQDB_API_MSG_TYPE_DATA) return nullptr;
  TQ_BUG_ON_(env->msg == nullptr, "msg == ((void *)0)", "%s", "");
  tq::ReplyReader r(env, __func__);
  auto *f = tq_new_record<tqdb_api_statistics_fields_t>("tqdb_api_statistics_fields_t");
  f->count_a = r.u8();
  f->count_b = r.u8();
  tq_list_t *fresh = nullptr;  // newest first
  // A node cut short keeps its zero tail; nothing behind it is read.
  for (unsigned i = 0; r.ok() && i < unsigned{f->count_a} + f->count_b; ++i) {
    auto *n = tq_new_record<Field>("tqdb_api_statistics_fieldnode_t");
    n->field_id = r.u64();
    n->kind = r.u8();
    n->subkind = r.u8();
    r.text(n->name);
    if (!tq::push_front(fresh, n)) break;
  }
  f->nodes = tq_list_reverse(fresh);
  return f;
}

void tqdb_api_statistics_fields_free(tqdb_api_statistics_fields_t *f) {
  if (f == nullptr) return;
  tq_list_free_with_data(f->nodes);
  tq_free_flags(f);
}

tq_list_t *tqdb_api_statistics_list_valuetypes_handle(tqdb_api_msg_t *env, tq_list_t *list) {
  if (tqdb_api_msg_get_type(env) != TQDB_API_MSG_TYPE_DATA) return nullptr;
  TQ_BUG_ON_(env->msg == nullptr, "msg == ((void *)0)", "%s", "");
  tq::ReplyReader r(env, __func__);
  const uint16_t count = r.u16();
  tq_list_t *fresh = nullptr;  // newest first
  for (unsigned i = 0; r.ok() && i < count; ++i) {
    auto *v = tq_new_record<ValueType>("tqdb_api_statistics_valuetype_t");
    tq::read_rows(r, kValueTypeRows, v);
    if (!r.ok()) {  // a value type cut short is not kept
      tq_free_flags(v);
      break;
    }
    if (!tq::push_front(fresh, v)) break;
  }
  return tq_list_concat(list, tq_list_reverse(fresh));
}
