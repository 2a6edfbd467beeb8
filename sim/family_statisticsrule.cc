// Statistics rules (0x18xxx): the family's fields and its bindings to
// statistics and IPFIX objects; the handlers are the shared rule handlers
// (rules.h). The list record carries active, connlog and insights_traffic
// in one flag byte and the id lists last first (the client prepends).
#include "rules.h"
#include "util.h"

namespace tqsim {
namespace {

constexpr uint8_t kStatisticsTag = 1, kIpfixTag = 2;

constexpr RuleField kBody[] = {
    rule_u32("rulecondition", &Rule::rulecondition),
    rule_bool("connlog", &Rule::connlog),
    rule_bool("insights_traffic", &Rule::insights_traffic),
};

constexpr RuleField kRecord[] = {
    rule_field(RuleWire::Flags),
    rule_field(RuleWire::Name),
    rule_u32("rulecondition", &Rule::rulecondition),
    rule_field(RuleWire::Audit),
    rule_ids(RuleWire::IdsU8Rev, &Rule::statisticsobjects),
    rule_ids(RuleWire::IdsU8Rev, &Rule::ipfixobjects),
};

// u8 1 and a statistics object id, or u8 2 and an IPFIX object id, until
// the body ends.
bool read_bindings(Body &in, Rule &r) {
  while (in.left() > 0) {
    uint8_t tag = 0;
    uint32_t id = 0;
    if (!in.u8(tag) || !in.u32(id)) return false;
    if (tag == kStatisticsTag)
      r.statisticsobjects.push_back(id);
    else if (tag == kIpfixTag)
      r.ipfixobjects.push_back(id);
    else
      return in.fail(format("binding kind %u is not 1 (statistics object) or 2 (IPFIX object)",
                            tag));
  }
  return true;
}

constexpr RuleFamily kStatistics{RuleKind::kStatistics, TQDB_STATISTICSRULE_CODES, kBody, kRecord,
                                 nullptr, read_bindings};

}  // namespace

std::span<const Route> family_statisticsrule() { return rule_routes<kStatistics>(); }

}  // namespace tqsim
