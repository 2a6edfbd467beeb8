// Rule conditions (0x111xx). A condition's items name objects, or with
// RULESET_CONDITION_TYPE_RULECONDITION another condition; nesting never
// makes a cycle. The list answer sends conditions by descending id and each
// condition's items last first, because the client puts each at the head of
// its list.
#include <algorithm>

#include "ruleset_calls.h"
#include "tqdb_api_ruleset.h"
#include "util.h"

namespace tqsim {
namespace {

constexpr uint8_t kTagCondition = 0, kTagItem = 1;
constexpr uint8_t kOperators = 3;  // AND, OR, NOT

Ref ref(uint32_t id) { return {Kind::kCondition, 0, id}; }

// Body: string name; u8 operator.
bool read_fields(Body &in, Condition &cond) { return in.text(cond.name) && in.u8(cond.op); }

// The operator is checked when a condition is added only: a rename checks
// the name alone.
constexpr auto kConditions = ruleset_kind<Kind::kCondition>(
    &Ruleset::conditions, &Ruleset::last_condition, read_fields);

template <class RS>
auto find(Call &c, RS &rs, uint32_t id) {
  return find_named(c, kConditions, rs, id);
}

void list(Call &c) {
  if (!c.in.end()) return c.malformed();
  const Ruleset &rs = view_ruleset(c);
  ListAnswer a(c);
  for (auto it = rs.conditions.rbegin(); it != rs.conditions.rend(); ++it) {
    const Condition &cond = it->second;
    put_audit(a.out().u8(kTagCondition).u32(cond.id).text(cond.name).u8(cond.op), cond.audit);
    a.next();
    for (auto item = cond.items.rbegin(); item != cond.items.rend(); ++item) {
      a.out().u8(kTagItem).u8(item->type).u32(item->object);
      a.next();
    }
  }
  a.finish();
}

void add(Call &c) {
  Condition cond;
  if (!read_fields(c.in, cond) || !c.in.end()) return c.malformed();
  Ruleset *rs = change_ruleset(c);
  if (!rs) return;
  std::string e = check_named(kConditions, *rs, cond, 0);
  if (e.empty() && cond.op >= kOperators)
    e = format("Operator %u is not 0 (and), 1 (or) or 2 (not)", cond.op);
  if (!e.empty()) return c.error(e);
  keep_new(c, kConditions, *rs, std::move(cond));
}

// Body: u32 id; u16 count; per item u8 condition type, u32 object id. The
// items replace the condition's.
void set_items(Call &c) {
  uint32_t id = 0;
  uint16_t count = 0;
  std::vector<ConditionItem> items;
  if (!c.in.u32(id) || !c.in.u16(count)) return c.malformed();
  for (uint16_t i = 0; i < count; ++i) {
    ConditionItem item;
    if (!c.in.u8(item.type) || !c.in.u32(item.object)) return c.malformed();
    items.push_back(item);
  }
  if (!c.in.end()) return c.malformed();
  Ruleset *rs = change_ruleset(c);
  Condition *cond = rs ? find(c, *rs, id) : nullptr;
  if (!cond) return;
  for (std::size_t i = 0; i < items.size(); ++i) {
    const auto target = condition_target(items[i]);
    if (!target)
      return c.error(format("Item %zu: condition type %u is not one of 0 to %u", i + 1,
                            items[i].type, kConditionTypes - 1));
    if (!exists(*rs, *target))
      return c.error(format("Item %zu: ", i + 1) + missing_text(*target));
    if (target->kind == Kind::kCondition && condition_reaches(*rs, target->id, id))
      return c.error(format("Item %zu: ", i + 1) + label(*rs, *target, true) +
                     (target->id == id ? " cannot contain itself"
                                       : " already contains " + label(*rs, ref(id)) +
                                             ", so this would make a cycle"));
  }
  cond->items = std::move(items);
  touch(c, *cond);
  answer_stamp(c, cond->audit.modification_date);
}

constexpr auto H = Header::kSessionCid;
constexpr auto S = Access::kSession;
constexpr Route kRoutes[] = {
    {TQDB_REQ_RULECONDITIONS_LIST, "ruleconditions_list", H, S, list},
    {TQDB_REQ_RULECONDITIONS_ADD, "ruleconditions_add", H, S, add},
    {TQDB_REQ_RULECONDITIONS_REMOVE, "ruleconditions_remove", H, S,
     [](Call &c) { remove_named(c, kConditions); }},
    {TQDB_REQ_RULECONDITIONS_RENAME, "ruleconditions_rename", H, S,
     [](Call &c) { rename_named(c, kConditions); }},
    {TQDB_REQ_RULECONDITIONS_SET_ITEMS, "ruleconditions_set_items", H, S, set_items},
};

}  // namespace

std::span<const Route> family_ruleconditions() { return kRoutes; }

}  // namespace tqsim
