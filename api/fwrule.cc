// Firewall rules: the ordered accept / reject / drop / rewrite / divert /
// inject / enrich rules of the ruleset.
#include "rule_common.h"

namespace {

constexpr const tqdb_api_rule_codes_t &kCodes = TQDB_FWRULE_CODES;

// The fields behind the name (add) or the id (update): both bodies agree
// from the rule condition on.
void put_fields_after_key(tq_msg_t *m, const tqdb_api_fwrule_t *r) {
  tq::put_fields(m, r->rulecondition, r->action, r->quick, r->log_level, r->rewriteobject,
                 r->enrichobject, r->monitor_iface, r->monitor_label, r->divert_label,
                 r->inject_data, r->trigger);
}

// The list reply sends `active` right behind the id, and its own order for
// the rest.
tq::rule::Read read_fwrule(tq_msg_t *m, tqdb_api_fwrule_t *r) {
  const bool whole =
      tq_msg_get_fields(m,                                                    //
                        TQ_MSG_UINT8, &r->active,                             //
                        TQ_MSG_STRING, sizeof r->name, r->name,               //
                        TQ_MSG_UINT8, &r->quick,                              //
                        TQ_MSG_UINT32, &r->action,                            //
                        TQ_MSG_UINT8, &r->log_level,                          //
                        TQ_MSG_UINT32, &r->position,                          //
                        TQ_MSG_UINT32, &r->orderby,                           //
                        TQ_MSG_UINT32, &r->rewriteobject,                     //
                        TQ_MSG_UINT32, &r->enrichobject,                      //
                        TQ_MSG_UINT32, &r->monitor_iface,                     //
                        TQ_MSG_STRING, sizeof r->monitor_label, r->monitor_label,
                        TQ_MSG_STRING, sizeof r->divert_label, r->divert_label,
                        TQ_MSG_STRING, sizeof r->inject_data, r->inject_data,
                        TQ_MSG_STRING, sizeof r->trigger, r->trigger,         //
                        TQ_MSG_UINT32, &r->rulecondition,                     //
                        TQ_MSG_END) &&
      tq::get_audit(m, r->audit);
  return whole ? tq::rule::Read::whole : tq::rule::Read::cut;
}

}  // namespace

TQ_RULE_COMMON_REQUESTS(fwrule, kCodes)

uint32_t tqdb_api_fwrule_add(tqdb_api_handle_t *h, uint32_t session, const tqdb_api_fwrule_t *r) {
  if (r == nullptr) return 0;
  return tqdb_api_request(h, kCodes.add, session, [r](tq_msg_t *m) {
    tqdb_api_put(m, r->name);
    put_fields_after_key(m, r);
  });
}

uint32_t tqdb_api_fwrule_update(tqdb_api_handle_t *h, uint32_t session,
                                const tqdb_api_fwrule_t *r) {
  if (r == nullptr) return 0;
  return tqdb_api_request(h, kCodes.update, session, [r](tq_msg_t *m) {
    tqdb_api_put(m, r->id);
    put_fields_after_key(m, r);
  });
}

uint32_t tqdb_api_fwrule_position_swap(tqdb_api_handle_t *h, uint32_t session, uint32_t rule1,
                                       uint32_t rule2) {
  return tqdb_api_send(h, kCodes.position_swap, session, rule1, rule2);
}

tq_list_t *tqdb_api_fwrule_list_handle(tqdb_api_msg_t *env, tq_list_t *list) {
  return tq::rule::list_decode(env, list, "tqdb_api_fwrule_t", read_fwrule,
                               tqdb_api_fwrule_list_free);
}

void tqdb_api_fwrule_list_free(tq_list_t *list) { tq_list_free_with_data(list); }

bool tqdb_api_fwrule_tstamp_handle(tqdb_api_msg_t *env, char *buf) {
  return tqdb_api_ruleset_timestamp_handle(env, buf);
}
bool tqdb_api_fwrule_copy_handle(tqdb_api_msg_t *env, uint32_t *id, char *buf) {
  return tqdb_api_ruleset_add_handle(env, id, buf);
}
bool tqdb_api_fwrule_comments_get_handle(tqdb_api_msg_t *env, char *buf, size_t size) {
  return tqdb_api_ruleset_text_handle(env, buf, size);
}
