// Shaping rules (0x17xxx): the family's fields and its bindings to shaping
// objects; the handlers are the shared rule handlers (rules.h).
#include "rules.h"

namespace tqsim {
namespace {

constexpr RuleField kBody[] = {
    rule_u32("rulecondition", &Rule::rulecondition),
    rule_u8("priority", &Rule::priority),
    rule_u8("precedence", &Rule::precedence),
    rule_u8("fair_factor", &Rule::fair_factor),
};

constexpr RuleField kRecord[] = {
    rule_u8("active", &Rule::active),
    rule_field(RuleWire::Name),
    rule_u8("priority", &Rule::priority),
    rule_u8("precedence", &Rule::precedence),
    rule_u8("fair_factor", &Rule::fair_factor),
    rule_u32("rulecondition", &Rule::rulecondition),
    rule_field(RuleWire::Audit),
    rule_ids(RuleWire::IdsU32, &Rule::objects),
};

// One u32 shaping object id after another until the body ends.
bool read_bindings(Body &in, Rule &r) {
  while (in.left() > 0) {
    uint32_t id = 0;
    if (!in.u32(id)) return false;
    r.objects.push_back(id);
  }
  return true;
}

constexpr RuleFamily kShaping{RuleKind::kShaping, TQDB_SHAPINGRULE_CODES, kBody, kRecord, nullptr,
                              read_bindings};

}  // namespace

std::span<const Route> family_shapingrule() { return rule_routes<kShaping>(); }

}  // namespace tqsim
