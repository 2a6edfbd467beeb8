// Firewall rules (0x13xxx): the family's fields and checks; the handlers
// are the shared rule handlers (rules.h).
#include "rules.h"
#include "util.h"

namespace tqsim {
namespace {

constexpr uint32_t kActionRewrite = 4, kActionEnrich = 7, kActions = 7;

constexpr RuleField kBody[] = {
    rule_u32("rulecondition", &Rule::rulecondition),
    rule_u32("action", &Rule::action),
    rule_bool("quick", &Rule::quick),
    rule_u8("log", &Rule::log),
    rule_u32("rewriteobject", &Rule::rewriteobject),
    rule_u32("enrichobject", &Rule::enrichobject),
    rule_u32("monitor_iface", &Rule::monitor_iface),
    rule_text("monitor_label", &Rule::monitor_label, 127),
    rule_text("divert_label", &Rule::divert_label, 127),
    rule_text("inject_data", &Rule::inject_data, 511),
    rule_text("trigger", &Rule::trigger, 127),
};

constexpr RuleField kRecord[] = {
    rule_u8("active", &Rule::active),
    rule_field(RuleWire::Name),
    rule_u8("quick", &Rule::quick),
    rule_u32("action", &Rule::action),
    rule_u8("log_level", &Rule::log),
    rule_field(RuleWire::Position),
    rule_field(RuleWire::Position),  // orderby: the firewall order itself
    rule_u32("rewriteobject", &Rule::rewriteobject),
    rule_u32("enrichobject", &Rule::enrichobject),
    rule_u32("monitor_iface", &Rule::monitor_iface),
    rule_text("monitor_label", &Rule::monitor_label, 127),
    rule_text("divert_label", &Rule::divert_label, 127),
    rule_text("inject_data", &Rule::inject_data, 511),
    rule_text("trigger", &Rule::trigger, 127),
    rule_u32("rulecondition", &Rule::rulecondition),
    rule_field(RuleWire::Audit),
};

// An object a rule names must exist and be of its type; the rewrite and
// enrich actions need theirs.
std::string check_object(const Ruleset &rs, uint32_t id, uint8_t type, bool needed,
                         const char *action) {
  if (id == 0)
    return needed ? format("The %s action needs a %s object", action, action) : std::string();
  return exists(rs, object_ref(type, id)) ? std::string() : missing_text(object_ref(type, id));
}

std::string check(const Ruleset &rs, const Rule &r) {
  if (r.action < 1 || r.action > kActions)
    return format("Action %u is not a firewall action (1 accept, 2 reject, 3 drop, 4 rewrite, "
                  "5 divert, 6 inject, 7 enrich)", r.action);
  if (auto e = check_object(rs, r.rewriteobject, kRewriteObject, r.action == kActionRewrite,
                            "rewrite");
      !e.empty())
    return e;
  return check_object(rs, r.enrichobject, kEnrichObject, r.action == kActionEnrich, "enrich");
}

constexpr RuleFamily kFirewall{RuleKind::kFirewall, TQDB_FWRULE_CODES, kBody, kRecord, check,
                               nullptr};

}  // namespace

std::span<const Route> family_fwrule() { return rule_routes<kFirewall>(); }

}  // namespace tqsim
