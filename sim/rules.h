// The three rule families (firewall, shaping, statistics) as one piece:
// each family is a RuleFamily, a table of its request codes and of the
// fields of its bodies and list records, and the handlers here walk it.
// A family file describes its family and returns rule_routes<family>().
//
// Rules keep positions: a family's rules are held in position order, new
// rules and copies go last, a firewall position swap exchanges two. The
// list answer sends rules from the last position to the first, because the
// client puts each rule at the head of its list.
#ifndef TQSIM_RULES_H
#define TQSIM_RULES_H

#include <array>
#include <span>
#include <string>
#include <vector>

#include "dispatch.h"
#include "ruleset.h"
#include "tqdb_api_ruleset.h"

namespace tqsim {

class Out;

enum class RuleWire : uint8_t {
  U8,        // a byte as it is
  Bool,      // a byte; anything but 0 is kept as 1
  U32,
  Text,      // at most max characters
  Name,      // the rule's name (list record)
  Position,  // u32: the rule's place, from 1 (list record)
  Audit,     // the four audit texts (list record)
  Flags,     // u8: active | connlog << 2 | insights_traffic << 4 (list record)
  IdsU32,    // u32 count, the ids in order (list record)
  IdsU8Rev,  // u8 count, the ids last first (list record)
};

struct RuleField {
  RuleWire wire;
  const char *what = "";
  uint8_t Rule::*u8 = nullptr;
  uint32_t Rule::*u32 = nullptr;
  std::string Rule::*text = nullptr;
  std::vector<uint32_t> Rule::*ids = nullptr;
  uint16_t max = 0;
};
constexpr RuleField rule_u8(const char *what, uint8_t Rule::*m) { return {RuleWire::U8, what, m}; }
constexpr RuleField rule_bool(const char *what, uint8_t Rule::*m) {
  return {RuleWire::Bool, what, m};
}
constexpr RuleField rule_u32(const char *what, uint32_t Rule::*m) {
  return {RuleWire::U32, what, nullptr, m};
}
constexpr RuleField rule_text(const char *what, std::string Rule::*m, uint16_t max) {
  return {RuleWire::Text, what, nullptr, nullptr, m, nullptr, max};
}
constexpr RuleField rule_ids(RuleWire w, std::vector<uint32_t> Rule::*m) {
  return {w, "", nullptr, nullptr, nullptr, m};
}
constexpr RuleField rule_field(RuleWire w) { return {w}; }

struct RuleFamily {
  RuleKind kind;
  tqdb_api_rule_codes_t codes;
  // The add body after the name, which is also the update body after the id.
  std::span<const RuleField> body;
  // The list record after the id.
  std::span<const RuleField> record;
  // The family's own checks of a rule about to be kept; empty when fine.
  std::string (*check)(const Ruleset &rs, const Rule &r);
  // Reads the set-objects body after the rule id into r's bindings.
  bool (*read_bindings)(Body &in, Rule &r);
};

namespace rules_detail {
void list(Call &c, const RuleFamily &f);
void add(Call &c, const RuleFamily &f);
void update(Call &c, const RuleFamily &f);
void remove(Call &c, const RuleFamily &f);
void rename(Call &c, const RuleFamily &f);
void set_active(Call &c, const RuleFamily &f);
void position_swap(Call &c, const RuleFamily &f);
void set_objects(Call &c, const RuleFamily &f);
void tstamp(Call &c, const RuleFamily &f);
void copy(Call &c, const RuleFamily &f);
void comments(Call &c, const RuleFamily &f);
}  // namespace rules_detail

// The routes of family F: one per request code the family has.
template <const RuleFamily &F>
std::span<const Route> rule_routes() {
  using namespace rules_detail;
  constexpr auto H = Header::kSessionCid;
  constexpr auto S = Access::kSession;
  static constexpr Route all[] = {
      {F.codes.list, "rule_list", H, S, [](Call &c) { list(c, F); }},
      {F.codes.add, "rule_add", H, S, [](Call &c) { add(c, F); }},
      {F.codes.update, "rule_update", H, S, [](Call &c) { update(c, F); }},
      {F.codes.remove, "rule_remove", H, S, [](Call &c) { remove(c, F); }},
      {F.codes.rename, "rule_rename", H, S, [](Call &c) { rename(c, F); }},
      {F.codes.set_active, "rule_set_active", H, S, [](Call &c) { set_active(c, F); }},
      {F.codes.position_swap, "rule_position_swap", H, S, [](Call &c) { position_swap(c, F); }},
      {F.codes.set_objects, "rule_set_objects", H, S, [](Call &c) { set_objects(c, F); }},
      {F.codes.tstamp, "rule_tstamp", H, S, [](Call &c) { tstamp(c, F); }},
      {F.codes.copy, "rule_copy", H, S, [](Call &c) { copy(c, F); }},
      {F.codes.comments, "rule_comments", H, S, [](Call &c) { comments(c, F); }},
  };
  struct Table {
    std::array<Route, std::size(all)> routes{};
    std::size_t n = 0;
  };
  static constexpr Table table = [] {
    Table t;
    for (const Route &r : all)
      if (r.code != 0) t.routes[t.n++] = r;
    return t;
  }();
  return std::span<const Route>(table.routes.data(), table.n);
}

}  // namespace tqsim

#endif
