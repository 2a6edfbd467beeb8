// Host triggers: a name, a script, and the thresholds that start it.
#include <array>
#include <iterator>

#include "tq_list.h"
#include "tqdb_api_trigger.h"
#include "trigger_family.h"

namespace {

using Limits = tqdb_api_hosttrigger_limits_t;
using Trigger = tqdb_api_hosttrigger_t;

// The thresholds and what they watch, in wire order: written by add and
// update, read back in every record behind its id, name and script.
constexpr tqdb_api_item_field_t kLimitRows[]{
    TQ_ROW(Limits, in_bw, U32),       TQ_ROW(Limits, out_bw, U32),
    TQ_ROW(Limits, in_cps, U32),      TQ_ROW(Limits, out_cps, U32),
    TQ_ROW(Limits, conns, U32),       TQ_ROW(Limits, uconns, U32),
    TQ_ROW(Limits, uconn_rate, U32),  TQ_ROW(Limits, out_ttls, U32),
    TQ_ROW(Limits, qoe_in_int, U32),  TQ_ROW(Limits, qoe_in_ext, U32),
    TQ_ROW(Limits, qoe_out_int, U32), TQ_ROW(Limits, qoe_out_ext, U32),
    TQ_ROW(Limits, netobject, U32),   TQ_ROW(Limits, trigtype, U32)};
static_assert(tq::rows_fit(sizeof(Limits), kLimitRows));

constexpr auto kRows = [] {
  std::array<tqdb_api_item_field_t, 3 + std::size(kLimitRows)> rows{
      TQ_ROW(Trigger, id, U32), TQ_ROW(Trigger, name, Text), TQ_ROW(Trigger, script, Text)};
  for (size_t i = 0; i < std::size(kLimitRows); ++i) {
    rows[3 + i] = kLimitRows[i];
    rows[3 + i].offset += offsetof(Trigger, limits);
  }
  return rows;
}();
constexpr tqdb_api_item_layout_t kRecord{"tqdb_api_hosttrigger_t", sizeof(Trigger), kRows};
static_assert(tq::rows_fit(kRecord.size, kRecord.fields));

// Thresholds left out are not watched.
void put_limits(tq_msg_t *m, const Limits *limits) {
  static constexpr Limits kNone{};
  tq::write_rows(m, kLimitRows, limits != nullptr ? limits : &kNone);
}

}  // namespace

uint32_t tqdb_api_hosttrigger_list(tqdb_api_handle_t *h, uint32_t session) {
  return tqdb_api_send(h, TQDB_REQ_HOSTTRIGGER_LIST, session);
}

uint32_t tqdb_api_hosttrigger_add(tqdb_api_handle_t *h, uint32_t session, const char *name,
                                  const char *script, const Limits *limits) {
  return tqdb_api_request(h, TQDB_REQ_HOSTTRIGGER_ADD, session, [&](tq_msg_t *m) {
    tqdb_api_put(m, name);
    tqdb_api_put(m, script);
    put_limits(m, limits);
  });
}

uint32_t tqdb_api_hosttrigger_remove(tqdb_api_handle_t *h, uint32_t session, uint32_t id) {
  return tqdb_api_send(h, TQDB_REQ_HOSTTRIGGER_REMOVE, session, id);
}

uint32_t tqdb_api_hosttrigger_update(tqdb_api_handle_t *h, uint32_t session, uint32_t id,
                                     const char *script, const Limits *limits) {
  return tqdb_api_request(h, TQDB_REQ_HOSTTRIGGER_UPDATE, session, [&](tq_msg_t *m) {
    tqdb_api_put(m, id);
    tqdb_api_put(m, script);
    put_limits(m, limits);
  });
}

uint32_t tqdb_api_hosttrigger_rename(tqdb_api_handle_t *h, uint32_t session, uint32_t id,
                                     const char *name) {
  return tqdb_api_send(h, TQDB_REQ_HOSTTRIGGER_RENAME, session, id, name);
}

tq_list_t *tqdb_api_hosttrigger_list_handle(tqdb_api_msg_t *env, tq_list_t *list) {
  return tq::trigger::list_handle(env, list, kRecord, "tqdb_api_hosttrigger_list_handle");
}

void tqdb_api_trigger_list_free(tq_list_t *list) { tq_list_free_with_data(list); }

uint32_t tqdb_api_hosttrigger_add_handle(tqdb_api_msg_t *env) {
  return tq::trigger::add_handle(env, "tqdb_api_hosttrigger_add_handle");
}
