// Rule conditions: named selectors, a logical operator over items that each
// name an object in a role, which rules refer to by id.
#include <span>

#include "reply_reader.h"
#include "rule_common.h"

namespace {

// The request header (session and correlation id), the condition id and the
// item count come before the items.
constexpr size_t kItemsAt = 4 + 4 + 4 + 2;
constexpr size_t kItemSize = 1 + 4;
constexpr size_t kMaxItems = (TQ_MSG_MAX_DATA - kItemsAt) / kItemSize;

enum tag_t : uint8_t { kCondition = 0, kItem = 1 };

constexpr const char *kDecoder = "tqdb_api_ruleconditions_list_handle";

void free_items(tqdb_api_rule_condition_t *c) { tq_list_free_with_data(c->items); }

}  // namespace

uint32_t tqdb_api_ruleconditions_list(tqdb_api_handle_t *h, uint32_t session) {
  return tqdb_api_request(h, TQDB_REQ_RULECONDITIONS_LIST, session);
}
uint32_t tqdb_api_ruleconditions_add(tqdb_api_handle_t *h, uint32_t session, const char *name,
                                     uint8_t op) {
  return tqdb_api_send(h, TQDB_REQ_RULECONDITIONS_ADD, session, name, op);
}
uint32_t tqdb_api_ruleconditions_remove(tqdb_api_handle_t *h, uint32_t session, uint32_t id) {
  return tqdb_api_send(h, TQDB_REQ_RULECONDITIONS_REMOVE, session, id);
}
uint32_t tqdb_api_ruleconditions_rename(tqdb_api_handle_t *h, uint32_t session, uint32_t id,
                                        const char *name) {
  return tqdb_api_send(h, TQDB_REQ_RULECONDITIONS_RENAME, session, id, name);
}

// A condition's items are replaced whole: a message that would drop some of
// them is not sent at all.
uint32_t tqdb_api_ruleconditions_set_items(tqdb_api_handle_t *h, uint32_t session, uint32_t id,
                                           std::span<const tqdb_api_rule_condition_item_t> items) {
  if (items.size() > kMaxItems) return 0;
  return tqdb_api_request(h, TQDB_REQ_RULECONDITIONS_SET_ITEMS, session, [=](tq_msg_t *m) {
    tq::put_fields(m, id, static_cast<uint16_t>(items.size()));
    for (const tqdb_api_rule_condition_item_t &i : items)
      tq::put_fields(m, i.conditiontype, i.objectid);
  });
}

// Conditions and items are put at the head of their lists. The state
// carries the current condition from one reply of an answer to the next.
// A field that runs past the body ends it: what is left of a text cut short
// is never read as the next tag.
bool tqdb_api_ruleconditions_list_handle(tqdb_api_msg_t *env,
                                         tqdb_api_ruleconditions_state_t *state) {
  if (state == nullptr || tqdb_api_msg_get_type(env) != TQDB_API_MSG_TYPE_DATA) return false;
  tq::ReplyReader r(env, kDecoder);
  while (r.ok() && r.left() >= 1) {
    switch (r.u8()) {
      case kCondition: {
        auto *c = tq_new_record<tqdb_api_rule_condition_t>("tqdb_api_rule_condition_t");
        c->id = r.u32();
        r.text(c->name);
        c->op = r.u8();
        r.audit(c->audit);
        tq_list_t *node = tq_list_new(0, state->list, c);
        if (node == nullptr) {
          tq_free_flags(c);
          return false;
        }
        state->list = node;
        state->current = c;
        break;
      }
      case kItem: {
        tqdb_api_rule_condition_t *c = state->current;
        if (c == nullptr) return false;
        auto *i = tq_new_record<tqdb_api_rule_condition_item_t>("tqdb_api_rule_condition_item_t");
        i->conditiontype = r.u8();
        i->objectid = r.u32();
        tq_list_t *node = tq_list_new(0, c->items, i);
        if (node == nullptr) {
          tq_free_flags(i);
          return false;
        }
        c->items = node;
        break;
      }
      default:  // a tag of a later version: passed over
        break;
    }
  }
  return true;
}

void tqdb_api_ruleconditions_list_free(tq_list_t *list) {
  tq::rule::list_free<tqdb_api_rule_condition_t>(list, free_items);
}

bool tqdb_api_ruleconditions_timestamp_handle(tqdb_api_msg_t *env, char *buf) {
  return tqdb_api_ruleset_timestamp_handle(env, buf);
}
