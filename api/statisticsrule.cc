// Statistics rules: they bind the traffic their condition selects to
// statistics and IPFIX objects.
#include <span>

#include "rule_common.h"

namespace {

constexpr const tqdb_api_rule_codes_t &kCodes = TQDB_STATISTICSRULE_CODES;

// The kinds of object a set-objects body names, each id behind its kind.
constexpr uint8_t kStatisticsObject = 1;
constexpr uint8_t kIpfixObject = 2;

// The record keeps the flag byte whole; `active` is its bit 0.
tq::rule::Read read_statisticsrule(tq_msg_t *m, tqdb_api_statisticsrule_t *r) {
  const bool fixed = tq_msg_get_fields(m,                                       //
                                       TQ_MSG_UINT8, &r->flags,                 //
                                       TQ_MSG_STRING, sizeof r->name, r->name,  //
                                       TQ_MSG_UINT32, &r->rulecondition,        //
                                       TQ_MSG_END) &&
                     tq::get_audit(m, r->audit);
  if (!fixed) return tq::rule::Read::cut;
  // Each id list is a u8 count and the ids, put at the head of their list.
  // A body ending where a count belongs ends the listing with this rule.
  for (tq_list_t **ids : {&r->statisticsobjects, &r->ipfixobjects}) {
    uint8_t n = 0;
    if (!tq_msg_get_uint8(m, &n)) return tq::rule::Read::ended;
    if (!tq::get_ids(m, n, ids)) return tq::rule::Read::cut;
  }
  return tq::rule::Read::whole;
}

void free_ids(tqdb_api_statisticsrule_t *r) {
  tqdb_api_int_list_free(r->statisticsobjects);
  tqdb_api_int_list_free(r->ipfixobjects);
}

}  // namespace

TQ_RULE_COMMON_REQUESTS(statisticsrule, kCodes)

uint32_t tqdb_api_statisticsrule_add(tqdb_api_handle_t *h, uint32_t session, const char *name,
                                     uint32_t rulecondition, uint8_t connlog,
                                     uint8_t insights_traffic) {
  return tqdb_api_send(h, kCodes.add, session, name, rulecondition, connlog, insights_traffic);
}

uint32_t tqdb_api_statisticsrule_update(tqdb_api_handle_t *h, uint32_t session, uint32_t id,
                                        uint32_t rulecondition, uint8_t connlog,
                                        uint8_t insights_traffic) {
  return tqdb_api_send(h, kCodes.update, session, id, rulecondition, connlog, insights_traffic);
}

// No counts: each id is preceded by its kind.
uint32_t tqdb_api_statisticsrule_set_objects(tqdb_api_handle_t *h, uint32_t session,
                                             uint32_t rule,
                                             std::span<const uint32_t> statisticsobjects,
                                             std::span<const uint32_t> ipfixobjects) {
  return tqdb_api_request(h, kCodes.set_objects, session, [=](tq_msg_t *m) {
    tqdb_api_put(m, rule);
    for (const uint32_t id : statisticsobjects) tq::put_fields(m, kStatisticsObject, id);
    for (const uint32_t id : ipfixobjects) tq::put_fields(m, kIpfixObject, id);
  });
}

tq_list_t *tqdb_api_statisticsrule_list_handle(tqdb_api_msg_t *env, tq_list_t *list) {
  return tq::rule::list_decode(env, list, "tqdb_api_statisticsrule_t", read_statisticsrule,
                               tqdb_api_statisticsrule_list_free);
}

void tqdb_api_statisticsrule_list_free(tq_list_t *list) {
  tq::rule::list_free<tqdb_api_statisticsrule_t>(list, free_ids);
}

bool tqdb_api_statisticsrule_tstamp_handle(tqdb_api_msg_t *env, char *buf) {
  return tqdb_api_ruleset_timestamp_handle(env, buf);
}
bool tqdb_api_statisticsrule_copy_handle(tqdb_api_msg_t *env, uint32_t *id, char *buf) {
  return tqdb_api_ruleset_add_handle(env, id, buf);
}
bool tqdb_api_statisticsrule_comments_get_handle(tqdb_api_msg_t *env, char *buf, size_t size) {
  return tqdb_api_ruleset_text_handle(env, buf, size);
}
