// Shaping rules: they bind the traffic their condition selects to shaping
// objects.
#include <span>

#include "rule_common.h"

namespace {

constexpr const tqdb_api_rule_codes_t &kCodes = TQDB_SHAPINGRULE_CODES;

void put_fields_after_key(tq_msg_t *m, const tqdb_api_shapingrule_t *r) {
  tq::put_fields(m, r->rulecondition, r->priority, r->precedence, r->fair_factor);
}

// The object ids close the record, in wire order; a count the body cannot
// hold means the reply is broken.
tq::rule::Read read_shapingrule(tq_msg_t *m, tqdb_api_shapingrule_t *r) {
  uint32_t n = 0;
  const bool fixed = tq_msg_get_fields(m,                                       //
                                       TQ_MSG_UINT8, &r->active,                //
                                       TQ_MSG_STRING, sizeof r->name, r->name,  //
                                       TQ_MSG_UINT8, &r->priority,              //
                                       TQ_MSG_UINT8, &r->precedence,            //
                                       TQ_MSG_UINT8, &r->fair_factor,           //
                                       TQ_MSG_UINT32, &r->rulecondition,        //
                                       TQ_MSG_END) &&
                     tq::get_audit(m, r->audit) && tq_msg_get_uint32(m, &n);
  if (!fixed || !tq::get_ids(m, n, &r->objects)) return tq::rule::Read::cut;
  r->objects = tq_list_reverse(r->objects);
  return tq::rule::Read::whole;
}

void free_objects(tqdb_api_shapingrule_t *r) { tqdb_api_int_list_free(r->objects); }

}  // namespace

TQ_RULE_COMMON_REQUESTS(shapingrule, kCodes)

uint32_t tqdb_api_shapingrule_add(tqdb_api_handle_t *h, uint32_t session,
                                  const tqdb_api_shapingrule_t *r) {
  if (r == nullptr) return 0;
  return tqdb_api_request(h, kCodes.add, session, [r](tq_msg_t *m) {
    tqdb_api_put(m, r->name);
    put_fields_after_key(m, r);
  });
}

uint32_t tqdb_api_shapingrule_update(tqdb_api_handle_t *h, uint32_t session,
                                     const tqdb_api_shapingrule_t *r) {
  if (r == nullptr) return 0;
  return tqdb_api_request(h, kCodes.update, session, [r](tq_msg_t *m) {
    tqdb_api_put(m, r->id);
    put_fields_after_key(m, r);
  });
}

// No count: the body ends with the last id.
uint32_t tqdb_api_shapingrule_set_objects(tqdb_api_handle_t *h, uint32_t session, uint32_t rule,
                                          std::span<const uint32_t> objects) {
  return tqdb_api_request(h, kCodes.set_objects, session, [=](tq_msg_t *m) {
    tqdb_api_put(m, rule);
    for (const uint32_t id : objects) tqdb_api_put(m, id);
  });
}

tq_list_t *tqdb_api_shapingrule_list_handle(tqdb_api_msg_t *env, tq_list_t *list) {
  return tq::rule::list_decode(env, list, "tqdb_api_shapingrule_t", read_shapingrule,
                               tqdb_api_shapingrule_list_free);
}

void tqdb_api_shapingrule_list_free(tq_list_t *list) {
  tq::rule::list_free<tqdb_api_shapingrule_t>(list, free_objects);
}

bool tqdb_api_shapingrule_tstamp_handle(tqdb_api_msg_t *env, char *buf) {
  return tqdb_api_ruleset_timestamp_handle(env, buf);
}
bool tqdb_api_shapingrule_copy_handle(tqdb_api_msg_t *env, uint32_t *id, char *buf) {
  return tqdb_api_ruleset_add_handle(env, id, buf);
}
bool tqdb_api_shapingrule_comments_get_handle(tqdb_api_msg_t *env, char *buf, size_t size) {
  return tqdb_api_ruleset_text_handle(env, buf, size);
}
