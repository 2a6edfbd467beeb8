// The simulator's ruleset: what resource "ruleset" (1) holds, and the live
// views of resource "dynamicliveview" (23).
//
//   objects[type]        trees of named objects per type (parent of the same
//                        type or 0), each with items, attributes, comments
//   shaping_objects      limits that shaping rules bind
//   conditions           named selectors: items naming objects or, nested,
//                        other conditions (never in a cycle)
//   rules[kind]          firewall, shaping and statistics rules, each family
//                        in position order
//   statistics_objects,  what statistics rules bind
//   ipfix_objects
//
// Every record keeps its audit fields. Ids come from counters that only
// grow (item ids from one counter for the whole database), so an id is
// never handed out twice, also across restarts (the counters are saved).
//
// How many references a record has is never stored: it is counted from the
// referrers whenever it is needed (for_each_reference), so it cannot drift.
// Everything here is plain values, so a transaction's snapshot is a copy.
#ifndef TQSIM_RULESET_H
#define TQSIM_RULESET_H

#include <array>
#include <cstdint>
#include <functional>
#include <map>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace tqsim {

inline constexpr uint32_t kObjectTypes = 19;  // OBJECT_TYPE_* 0..18
inline constexpr uint8_t kNetObject = 0, kRewriteObject = 9, kEnrichObject = 17;

struct Audit {
  std::string creator, creation_date, modified_by, modification_date;
};
// Kept sorted by key; sent so that clients, which put each pair at the head
// of their list, end with them in key order.
using Attributes = std::map<std::string, std::string>;

// --- object items --------------------------------------------------------------------
enum class Wire : uint8_t { U8, U16, U32, Text };
struct ItemField {
  const char *key;  // the item dictionary's key
  Wire wire;
  uint16_t max;     // Text: most characters
};
// The type-specific fields of an object type's items, in wire order; empty
// for a type outside 0..18.
std::span<const ItemField> item_fields(uint32_t type);

struct ItemValue {
  uint32_t n = 0;  // number fields
  std::string s;   // text fields
};
struct Item {
  uint32_t id = 0;
  std::vector<ItemValue> fields;  // one per item_fields(type) row
  Audit audit;
};

struct Object {
  uint32_t id = 0;
  std::string name;
  uint32_t parent = 0;
  uint8_t visible = 1;
  Audit audit;
  Attributes attributes;
  std::string comments;
  std::vector<Item> items;  // in the order they were added
};

// --- shaping objects ---------------------------------------------------------------------
struct Limit {
  uint8_t direction = 0;           // 1 inbound, 2 outbound, 0 bidir
  std::array<uint32_t, 6> v{};     // record order
};
struct ShapingObject {
  uint32_t id = 0;
  std::string name;
  uint8_t split = 0;
  uint32_t split_argument = 0;
  int32_t max_connections = 0;
  uint32_t flags = 0;
  std::array<uint8_t, 6> wfq{};
  uint8_t fairness_group = 0;
  uint32_t fairness_group_argument = 0;
  std::vector<Limit> limits;  // inbound, outbound, bidir; none of six zeros
  std::vector<uint32_t> split_netobjects;
  Audit audit;
  Attributes attributes;
  std::string comments;
};

// --- rule conditions ----------------------------------------------------------------------
inline constexpr uint8_t kConditionTypeRulecondition = 29;
inline constexpr uint8_t kConditionTypes = 31;  // RULESET_CONDITION_TYPE_* 0..30
struct ConditionItem {
  uint8_t type = 0;  // RULESET_CONDITION_TYPE_*
  uint32_t object = 0;
};
struct Condition {
  uint32_t id = 0;
  std::string name;
  uint8_t op = 0;  // RULECONDITION_AND / OR / NOT
  Audit audit;
  std::vector<ConditionItem> items;  // in the order they were set
};

// --- rules ----------------------------------------------------------------------------
// RULESET_RULE_TYPE_*: also the index of the family in Ruleset::rules.
enum class RuleKind : uint8_t { kFirewall = 0, kShaping = 1, kStatistics = 2 };
inline constexpr uint32_t kRuleKinds = 3;
// One record type for the three families; each family uses its own fields.
struct Rule {
  uint32_t id = 0;
  std::string name;
  uint8_t active = 1;
  uint32_t rulecondition = 0;
  // firewall
  uint32_t action = 0;
  uint8_t quick = 0, log = 0;
  uint32_t rewriteobject = 0, enrichobject = 0, monitor_iface = 0;
  std::string monitor_label, divert_label, inject_data, trigger;
  // shaping
  uint8_t priority = 0, precedence = 0, fair_factor = 0;
  std::vector<uint32_t> objects;
  // statistics
  uint8_t connlog = 0, insights_traffic = 0;
  std::vector<uint32_t> statisticsobjects, ipfixobjects;

  Audit audit;
  Attributes attributes;
  std::string comments;
};

// --- statistics and IPFIX objects -------------------------------------------------------
struct StatisticsObject {
  uint32_t id = 0;
  std::string name;
  uint8_t split = 0;
  uint32_t split_argument = 0;
  uint32_t fields = 0;
  uint32_t interval = 60;
  Audit audit;
};
struct IpfixObject {
  uint32_t id = 0;
  std::string name;
  std::string collector;
  uint16_t port = 4739;
  uint8_t protocol = 17;
  uint32_t interval = 60;
  Audit audit;
};

struct Ruleset {
  std::array<std::map<uint32_t, Object>, kObjectTypes> objects;
  std::array<uint32_t, kObjectTypes> last_object{};
  uint32_t last_item = 0;
  std::map<uint32_t, ShapingObject> shaping_objects;
  uint32_t last_shaping_object = 0;
  std::map<uint32_t, Condition> conditions;
  uint32_t last_condition = 0;
  std::array<std::vector<Rule>, kRuleKinds> rules;  // position order
  std::array<uint32_t, kRuleKinds> last_rule{};
  std::map<uint32_t, StatisticsObject> statistics_objects;
  uint32_t last_statistics_object = 0;
  std::map<uint32_t, IpfixObject> ipfix_objects;
  uint32_t last_ipfix_object = 0;
};

// --- dynamic live views ---------------------------------------------------------------------
struct LiveDistribution {
  uint32_t id = 0;
  std::string distribution, argument;
};
struct LiveFilterValue {
  uint32_t id = 0;
  std::string value;
};
struct LiveFilter {
  uint32_t id = 0;
  uint8_t op = 0;
  std::string key;
  std::vector<LiveFilterValue> values;
};
struct LiveView {
  uint32_t id = 0;
  std::string name;
  Audit audit;
  std::vector<LiveDistribution> distributions;
  std::vector<LiveFilter> filters;
};
struct LiveViews {
  std::map<uint32_t, LiveView> views;
  uint32_t last_view = 0;
  uint32_t last_part = 0;  // distributions, filters and filter values
};

// --- references ------------------------------------------------------------------------
enum class Kind : uint8_t {
  kObject, kShapingObject, kCondition, kRule, kStatisticsObject, kIpfixObject
};
// A record of the ruleset: type is the object type for kObject, the
// RuleKind for kRule, 0 otherwise.
struct Ref {
  Kind kind = Kind::kObject;
  uint8_t type = 0;
  uint32_t id = 0;
  auto operator<=>(const Ref &) const = default;
};
inline Ref object_ref(uint32_t type, uint32_t id) {
  return {Kind::kObject, static_cast<uint8_t>(type), id};
}
inline Ref rule_ref(RuleKind k, uint32_t id) {
  return {Kind::kRule, static_cast<uint8_t>(k), id};
}

// "net object", "VLAN object", "rule condition", "firewall rule", ...
std::string noun(Ref r);
// "Net object 5 (lan)"; capital for the start of a sentence.
std::string label(const Ruleset &rs, Ref r, bool capital = false);
// "No net object 42"
std::string missing_text(Ref r);
bool exists(const Ruleset &rs, Ref r);
// What a condition item names; nullopt for a type outside 0..30.
std::optional<Ref> condition_target(const ConditionItem &item);

// Calls f(from, to) for every reference in the ruleset: condition items,
// rule fields and bindings, enrich items' net objects, shaping objects'
// split net objects.
void for_each_reference(const Ruleset &rs, const std::function<void(Ref from, Ref to)> &f);
std::map<Ref, uint32_t> reference_counts(const Ruleset &rs);
// "Net object 5 (lan) is used by rule condition 3 (web)"; empty when r is
// not referenced.
std::string in_use_text(const Ruleset &rs, Ref r);
// Drops every reference to r (condition items naming it, rule fields
// naming it set to 0, bindings and split net objects removed).
void unlink(Ruleset &rs, Ref r);

// --- checks: an empty text means fine, otherwise the refusal ------------------------------
// A name that must not be empty and may have at most max characters.
std::string check_name(std::string_view what, std::string_view name, std::size_t max = 255);
std::string check_text(std::string_view what, std::string_view text, std::size_t max);
std::string check_item(const Ruleset &rs, uint32_t type, const Item &item);
// true when id is ancestor or lies below it in the tree of objects.
bool in_subtree(const std::map<uint32_t, Object> &tree, uint32_t id, uint32_t ancestor);
// true when condition from names (maybe through others) condition target.
bool condition_reaches(const Ruleset &rs, uint32_t from, uint32_t target);
// An IPv4 or IPv6 address in text form.
bool is_ip_address(std::string_view text);

// --- audit ------------------------------------------------------------------------------
// "YYYY-MM-DD HH:MM:SS" in UTC.
std::string timestamp_text(uint64_t seconds);
void audit_create(Audit &a, std::string_view user, std::string_view when);
void audit_change(Audit &a, std::string_view user, std::string_view when);

}  // namespace tqsim

#endif
