// Configuration values, their categories and flags, and the levels of the
// appliance's log facilities.
#include "tqdb_api_config.h"

#include "reply_reader.h"
#include "ruleset_rows.h"
#include "tq_list.h"
#include "tq_malloc.h"
#include "tq_msg.h"

namespace {

using Value = tqdb_api_configvalue_t;
using Category = tqdb_api_config_category_t;
using Flag = tqdb_api_config_flag_t;

// The records in wire order.
constexpr tqdb_api_item_field_t kValueRows[]{
    TQ_ROW(Value, key, Text),         TQ_ROW(Value, value, Text),
    TQ_ROW(Value, default_value, Text), TQ_ROW(Value, category, Text),
    TQ_ROW(Value, description, Text), TQ_ROW(Value, type, U32),
    TQ_ROW(Value, flags, U32)};
constexpr tqdb_api_item_field_t kCategoryRows[]{
    TQ_ROW(Category, id, U32), TQ_ROW(Category, name, Text), TQ_ROW(Category, description, Text)};
constexpr tqdb_api_item_field_t kFlagRows[]{
    TQ_ROW(Flag, flag, U32), TQ_ROW(Flag, name, Text), TQ_ROW(Flag, description, Text)};

constexpr tqdb_api_item_layout_t kValue{"tqdb_api_configvalue_t", sizeof(Value), kValueRows};
constexpr tqdb_api_item_layout_t kCategory{"tqdb_api_config_category_t", sizeof(Category),
                                           kCategoryRows};
constexpr tqdb_api_item_layout_t kFlag{"tqdb_api_config_flag_t", sizeof(Flag), kFlagRows};
static_assert(tq::rows_fit(kValue.size, kValue.fields));
static_assert(tq::rows_fit(kCategory.size, kCategory.fields));
static_assert(tq::rows_fit(kFlag.size, kFlag.fields));

constexpr char kLogLevelLabel[] = "tqdb_api_log_level_t";

}  // namespace

uint32_t tqdb_api_config_list(tqdb_api_handle_t *h, uint32_t session) {
  return tqdb_api_send(h, TQDB_REQ_CONFIG_LIST, session);
}

uint32_t tqdb_api_config_set(tqdb_api_handle_t *h, uint32_t session, const char *key,
                             const char *value) {
  return tqdb_api_send(h, TQDB_REQ_CONFIG_SET, session, key, value);
}

uint32_t tqdb_api_config_category_list(tqdb_api_handle_t *h, uint32_t session) {
  return tqdb_api_send(h, TQDB_REQ_CONFIG_CATEGORY_LIST, session);
}

uint32_t tqdb_api_config_flags_list(tqdb_api_handle_t *h, uint32_t session) {
  return tqdb_api_send(h, TQDB_REQ_CONFIG_FLAGS_LIST, session);
}

uint32_t tqdb_api_log_facility_reset(tqdb_api_handle_t *h, uint32_t session) {
  return tqdb_api_send(h, TQDB_REQ_LOG_FACILITY_RESET, session);
}

uint32_t tqdb_api_log_facility_list(tqdb_api_handle_t *h, uint32_t session) {
  return tqdb_api_send(h, TQDB_REQ_LOG_FACILITY_LIST, session);
}

uint32_t tqdb_api_log_facility_set_level(tqdb_api_handle_t *h, uint32_t session,
                                         const char *facility, uint32_t level) {
  return tqdb_api_send(h, TQDB_REQ_LOG_FACILITY_SET_LEVEL, session, facility, level);
}

uint32_t tqdb_api_system_time(tqdb_api_handle_t *h, uint32_t session) {
  return tqdb_api_send(h, TQDB_REQ_SYSTEM_TIME, session);
}

tq_list_t *tqdb_api_config_list_handle(tqdb_api_msg_t *env, tq_list_t *list) {
  return tq::reply_records(env, list, "tqdb_api_config_list_handle", kValue, 4);
}

tq_list_t *tqdb_api_config_category_list_handle(tqdb_api_msg_t *env, tq_list_t *list) {
  return tq::reply_records(env, list, "tqdb_api_config_category_list_handle", kCategory, 4);
}

tq_list_t *tqdb_api_config_flags_list_handle(tqdb_api_msg_t *env, tq_list_t *list) {
  return tq::reply_records(env, list, "tqdb_api_config_flags_list_handle", kFlag, 4);
}

tq_list_t *tqdb_api_log_facility_list_handle(tqdb_api_msg_t *env, tq_list_t *list) {
  if (tqdb_api_msg_get_type(env) != TQDB_API_MSG_TYPE_DATA) return list;
  tq_msg_t *m = env->msg;
  uint32_t index = tq_list_length(list);
  tq_list_t *fresh = nullptr;  // newest first
  for (;;) {
    auto *rec = tq_new_record<tqdb_api_log_level_t>(kLogLevelLabel);
    if (rec == nullptr) break;
    if (!tq_msg_get_string_len(m, rec->name, sizeof rec->name) ||
        !tq_msg_get_uint32(m, &rec->level)) {
      tq_free_flags(rec);
      break;
    }
    rec->index = index++;
    if (!tq::push_front(fresh, rec)) break;
  }
  return tq_list_concat(list, tq_list_reverse(fresh));
}

uint64_t tqdb_api_system_time_handle(tqdb_api_msg_t *env) {
  if (tqdb_api_msg_get_type(env) != TQDB_API_MSG_TYPE_DATA) return 0;
  tq::ReplyReader r(env, "tqdb_api_system_time_handle");
  return r.u64();
}

void tqdb_api_config_list_free(tq_list_t *list) { tq_list_free_with_data(list); }
