// IPFIX objects: where a statistics rule exports its flow records.
#include "reply_reader.h"
#include "ruleset_rows.h"
#include "tq_list.h"
#include "tq_msg.h"
#include "tqdb_api.h"
#include "tqdb_api_ruleset.h"

namespace {

using Ipfix = tqdb_api_ipfixobject_t;
// The listed record in wire order; add sends the fields from the name to
// the interval.
constexpr tqdb_api_item_field_t kRows[]{
    TQ_ROW(Ipfix, id, U32),   TQ_ROW(Ipfix, name, Text),    TQ_ROW(Ipfix, collector, Text),
    TQ_ROW(Ipfix, port, U16), TQ_ROW(Ipfix, protocol, U8),  TQ_ROW(Ipfix, interval, U32),
    TQ_AUDIT_ROWS(Ipfix)};
constexpr tqdb_api_item_layout_t kRecord{"tqdb_api_ipfixobject_t", sizeof(Ipfix), kRows};
constexpr tq::Rows kAdded = tq::Rows(kRows).subspan(1, 5);
static_assert(tq::rows_fit(kRecord.size, kRecord.fields));

}  // namespace

uint32_t tqdb_api_ipfixobject_list(tqdb_api_handle_t *h, uint32_t session) {
  return tqdb_api_request(h, TQDB_REQ_IPFIXOBJECT_LIST, session);
}

uint32_t tqdb_api_ipfixobject_add(tqdb_api_handle_t *h, uint32_t session, const Ipfix *o) {
  if (o == nullptr) return 0;
  return tqdb_api_request(h, TQDB_REQ_IPFIXOBJECT_ADD, session,
                          [o](tq_msg_t *m) { tq::write_rows(m, kAdded, o); });
}

uint32_t tqdb_api_ipfixobject_remove(tqdb_api_handle_t *h, uint32_t session, uint32_t id) {
  return tqdb_api_send(h, TQDB_REQ_IPFIXOBJECT_REMOVE, session, id);
}

uint32_t tqdb_api_ipfixobject_rename(tqdb_api_handle_t *h, uint32_t session, uint32_t id,
                                     const char *name) {
  return tqdb_api_send(h, TQDB_REQ_IPFIXOBJECT_RENAME, session, id, name);
}

tq_list_t *tqdb_api_ipfixobject_list_handle(tqdb_api_msg_t *env, tq_list_t *list) {
  return tq::reply_records(env, list, "tqdb_api_ipfixobject_list_handle", kRecord, 4);
}

void tqdb_api_ipfixobject_list_free(tq_list_t *list) { tq_list_free_with_data(list); }
