// Monitor interfaces: the interfaces a monitor label may copy traffic to.
#include "reply_reader.h"
#include "ruleset_rows.h"
#include "tq_list.h"
#include "tqdb_api.h"
#include "tqdb_api_channel.h"

namespace {

using Iface = tqdb_api_monitoriface_t;
constexpr tqdb_api_item_field_t kRows[]{TQ_ROW(Iface, id, U32), TQ_ROW(Iface, description, Text),
                                        TQ_ROW(Iface, iface, Text), TQ_ROW(Iface, media, U8)};
constexpr tqdb_api_item_layout_t kIface{"tqdb_api_monitoriface_t", sizeof(Iface), kRows};
static_assert(tq::rows_fit(kIface.size, kIface.fields));

}  // namespace

uint32_t tqdb_api_monitoriface_list(tqdb_api_handle_t *h, uint32_t session) {
  return tqdb_api_send(h, TQDB_REQ_MONITORIFACE_LIST, session);
}

tq_list_t *tqdb_api_monitoriface_list_handle(tqdb_api_msg_t *env, tq_list_t *list) {
  return tq::reply_records(env, list, "tqdb_api_monitoriface_list_handle", kIface);
}
