// System services and their properties; restart and reload of the appliance.
#include "tqdb_api_config.h"

#include <cstring>

#include "reply_reader.h"
#include "ruleset_rows.h"
#include "tq_msg.h"

namespace {

using Service = tqdb_api_service_t;
using Prop = tqdb_api_service_prop_t;

constexpr tqdb_api_item_field_t kServiceRows[]{
    TQ_ROW(Service, name, Text), TQ_ROW(Service, description, Text),
    TQ_ROW(Service, running, U8), TQ_ROW(Service, enabled, U8)};
constexpr tqdb_api_item_field_t kPropRows[]{
    TQ_ROW(Prop, service, Text), TQ_ROW(Prop, property, Text), TQ_ROW(Prop, value, Text)};
constexpr tqdb_api_item_layout_t kService{"tqdb_api_service_t", sizeof(Service), kServiceRows};
constexpr tqdb_api_item_layout_t kProp{"tqdb_api_service_prop_t", sizeof(Prop), kPropRows};
static_assert(tq::rows_fit(kService.size, kService.fields));
static_assert(tq::rows_fit(kProp.size, kProp.fields));

// Restart and reload differ only in their code. The reason goes only when
// it fits whole behind the header: an appliance told half a reason would
// log a wrong one.
uint32_t notice_request(tqdb_api_handle_t *h, uint32_t code, const char *reason) {
  return tqdb_api_request(h, code, 0, [&](tq_msg_t *m) {
    if (reason == nullptr) return;
    const size_t n = std::strlen(reason);
    if (n + 1 + 4 <= tq_msg_free_bytes(m)) tq_msg_put_string(m, reason);
  });
}

bool notice_reason(tqdb_api_msg_t *env, uint32_t type, const char *decoder, char *buf,
                   size_t size) {
  if (tqdb_api_msg_get_type(env) != type) return false;
  tq::ReplyReader r(env, decoder);
  r.text(buf, size);
  return r.ok();
}

}  // namespace

uint32_t tqdb_api_services_cmd(tqdb_api_handle_t *h, uint32_t session,
                               std::span<const tqdb_api_service_cmd_t> cmds,
                               std::span<const tqdb_api_service_setting_t> settings) {
  const uint32_t code = settings.empty() ? TQDB_REQ_SERVICES_CMD : TQDB_REQ_SERVICES_CMD_PROPS;
  return tqdb_api_request(h, code, session, [&](tq_msg_t *m) {
    tqdb_api_put(m, static_cast<uint32_t>(cmds.size()));
    for (const tqdb_api_service_cmd_t &c : cmds) {
      tqdb_api_put(m, c.service);
      tqdb_api_put(m, c.command);
    }
    if (settings.empty()) return;
    tqdb_api_put(m, static_cast<uint32_t>(settings.size()));
    for (const tqdb_api_service_setting_t &s : settings) {
      tqdb_api_put(m, s.service);
      tqdb_api_put(m, s.property);
      tqdb_api_put(m, s.value);
    }
  });
}

uint32_t tqdb_api_services_list(tqdb_api_handle_t *h, uint32_t session) {
  return tqdb_api_send(h, TQDB_REQ_SERVICES_LIST, session);
}

uint32_t tqdb_api_services_prop_list(tqdb_api_handle_t *h, uint32_t session) {
  return tqdb_api_send(h, TQDB_REQ_SERVICES_PROP_LIST, session);
}

tq_list_t *tqdb_api_services_list_handle(tqdb_api_msg_t *env, tq_list_t *list) {
  return tq::reply_records(env, list, "tqdb_api_services_list_handle", kService, 4);
}

tq_list_t *tqdb_api_services_prop_list_handle(tqdb_api_msg_t *env, tq_list_t *list) {
  return tq::reply_records(env, list, "tqdb_api_services_prop_list_handle", kProp, 4);
}

uint32_t tqdb_api_restart(tqdb_api_handle_t *h, const char *reason) {
  return notice_request(h, TQDB_REQ_RESTART, reason);
}

uint32_t tqdb_api_reload(tqdb_api_handle_t *h, const char *reason) {
  return notice_request(h, TQDB_REQ_RELOAD, reason);
}

bool tqdb_api_restarting_handle(tqdb_api_msg_t *env, char *buf, size_t size) {
  return notice_reason(env, TQDB_API_MSG_TYPE_RESTARTING, "tqdb_api_restarting_handle", buf,
                       size);
}

bool tqdb_api_reloading_handle(tqdb_api_msg_t *env, char *buf, size_t size) {
  return notice_reason(env, TQDB_API_MSG_TYPE_RELOADING, "tqdb_api_reloading_handle", buf, size);
}
