#include "ruleset.h"

#include <arpa/inet.h>

#include <algorithm>
#include <charconv>
#include <cstring>
#include <ctime>

#include "util.h"

namespace tqsim {
namespace {

using W = Wire;

// --- item layouts, one row per field in wire order ---------------------------------------
constexpr ItemField kNet[] = {{"type", W::U8, 0}, {"value1", W::Text, 127},
                              {"value2", W::Text, 127}, {"exclude", W::U8, 0}};
constexpr ItemField kPort[] = {{"type", W::U8, 0}, {"value1", W::U16, 0},
                               {"value2", W::U16, 0}, {"exclude", W::U8, 0}};
constexpr ItemField kValue[] = {{"value", W::Text, 255}};
constexpr ItemField kProtocol[] = {{"protocol", W::U8, 0}};
constexpr ItemField kTime[] = {{"type", W::U8, 0},   {"value1", W::U32, 0},
                               {"value2", W::U32, 0}, {"days", W::U16, 0},
                               {"exclude", W::U8, 0}};
constexpr ItemField kBgp[] = {{"type", W::U8, 0}, {"asnumber", W::U32, 0}, {"value1", W::U32, 0}};
constexpr ItemField kProperty[] = {{"property", W::Text, 255}, {"value", W::Text, 255}};
constexpr ItemField kRewrite[] = {{"field", W::U32, 0}, {"direction", W::U8, 0},
                                  {"value", W::Text, 255}};
constexpr ItemField kValueExclude[] = {{"value", W::Text, 255}, {"exclude", W::U8, 0}};
constexpr ItemField kMpls[] = {{"type", W::U8, 0}, {"value1", W::U32, 0},
                               {"value2", W::U32, 0}, {"exclude", W::U8, 0}};
constexpr ItemField kDscp[] = {{"type", W::U8, 0}, {"value1", W::U8, 0},
                               {"value2", W::U8, 0}, {"exclude", W::U8, 0}};
constexpr ItemField kChannel[] = {{"type", W::U8, 0}, {"value", W::U32, 0},
                                  {"exclude", W::U8, 0}};
constexpr ItemField kByte[] = {{"value", W::U8, 0}};
constexpr ItemField kEnrich[] = {{"netobject", W::U32, 0}, {"keytype", W::U8, 0},
                                 {"key", W::Text, 255},    {"valuetype", W::U8, 0},
                                 {"value", W::Text, 255},  {"spoof", W::U8, 0},
                                 {"miss", W::U8, 0},       {"defaultvalue", W::Text, 255}};
constexpr ItemField kSessionContext[] = {{"schemaname", W::Text, 255},
                                         {"columnname", W::Text, 255},
                                         {"value", W::Text, 255},
                                         {"matchtype", W::U8, 0}};

struct TypeInfo {
  const char *noun;
  std::span<const ItemField> fields;
};
constexpr TypeInfo kTypes[kObjectTypes] = {
    {"net object", kNet},          {"port object", kPort},
    {"service object", kValue},    {"VLAN object", kPort},
    {"protocol object", kProtocol}, {"time object", kTime},
    {"BGP object", kBgp},          {"system object", kValue},
    {"property object", kProperty}, {"rewrite object", kRewrite},
    {"flag object", kValueExclude}, {"MPLS object", kMpls},
    {"DSCP object", kDscp},        {"channel object", kChannel},
    {"tunnel level object", kByte}, {"tunnel type object", kByte},
    {"Sorvik object", kValueExclude}, {"enrich object", kEnrich},
    {"session context object", kSessionContext},
};

// The object type each RULESET_CONDITION_TYPE_* names; kCond: a condition.
constexpr int kCond = -1;
constexpr int kConditionTargets[kConditionTypes] = {
    0,  0,  0,  1,  1,  2,  3,  4,  5,  6,  8,  7,  10, 11, 0, 3,
    11, 12, 12, 13, 13, 3,  11, 13, 12, 2, 14, 15, 16, kCond, 18};

constexpr const char *kRuleNouns[kRuleKinds] = {"firewall rule", "shaping rule",
                                                "statistics rule"};

std::string capitalized(std::string s) {
  if (!s.empty() && s[0] >= 'a' && s[0] <= 'z') s[0] = static_cast<char>(s[0] - 'a' + 'A');
  return s;
}

template <class Map>
const std::string *name_in(const Map &m, uint32_t id) {
  auto it = m.find(id);
  return it == m.end() ? nullptr : &it->second.name;
}

const std::string *name_of(const Ruleset &rs, Ref r) {
  switch (r.kind) {
    case Kind::kObject:
      return r.type < kObjectTypes ? name_in(rs.objects[r.type], r.id) : nullptr;
    case Kind::kShapingObject:
      return name_in(rs.shaping_objects, r.id);
    case Kind::kCondition:
      return name_in(rs.conditions, r.id);
    case Kind::kRule: {
      if (r.type >= kRuleKinds) return nullptr;
      const auto &rules = rs.rules[r.type];
      auto it = std::find_if(rules.begin(), rules.end(),
                             [&](const Rule &x) { return x.id == r.id; });
      return it == rules.end() ? nullptr : &it->name;
    }
    case Kind::kStatisticsObject:
      return name_in(rs.statistics_objects, r.id);
    case Kind::kIpfixObject:
      return name_in(rs.ipfix_objects, r.id);
  }
  return nullptr;
}

// --- item checks ---------------------------------------------------------------------
// Parsed address bytes (4 or 16); false when text is not one of the family.
bool parse_address(std::string_view text, bool v6, std::array<uint8_t, 16> &out) {
  const std::string s(text);
  out.fill(0);
  return inet_pton(v6 ? AF_INET6 : AF_INET, s.c_str(), out.data()) == 1;
}

std::string check_net(std::span<const ItemValue> f) {
  const uint32_t type = f[0].n;
  if (type < 1 || type > 6)
    return format("type %u is not a net item type (1-3: IPv4 address, network, range; "
                  "4-6: the same for IPv6)", type);
  const bool v6 = type >= 4;
  const char *family = v6 ? "IPv6" : "IPv4";
  const unsigned bits = v6 ? 128 : 32;
  const std::string &v1 = f[1].s, &v2 = f[2].s;
  std::array<uint8_t, 16> a{}, b{};
  switch ((type - 1) % 3) {
    case 0:  // address
      if (!parse_address(v1, v6, a)) return "'" + v1 + "' is not an " + family + " address";
      break;
    case 1: {  // network
      const auto slash = v1.find('/');
      unsigned prefix = 0;
      const char *end = v1.data() + v1.size();
      if (slash == std::string::npos ||
          std::from_chars(v1.data() + slash + 1, end, prefix).ptr != end || slash + 1 == v1.size() ||
          prefix > bits || !parse_address(std::string_view(v1).substr(0, slash), v6, a))
        return "'" + v1 + "' is not an " + family + " network such as " +
               (v6 ? "2001:db8::/32" : "10.0.0.0/8");
      for (unsigned bit = prefix; bit < bits; ++bit) {
        if (a[bit / 8] & (0x80 >> (bit % 8)))
          return format("'%s' has host bits set beyond /%u", v1.c_str(), prefix);
      }
      break;
    }
    case 2:  // range
      if (!parse_address(v1, v6, a)) return "'" + v1 + "' is not an " + family + " address";
      if (v2.empty()) return std::string("an ") + family + " range needs value2, its last address";
      if (!parse_address(v2, v6, b)) return "'" + v2 + "' is not an " + family + " address";
      if (std::memcmp(a.data(), b.data(), bits / 8) > 0)
        return "range " + v1 + " - " + v2 + " is reversed: value1 must not be above value2";
      return {};
  }
  if (!v2.empty()) return "value2 is only used by ranges (types 3 and 6); leave it empty";
  return {};
}

// A single value (type 1, value2 0 or equal to value1) or a range (type 2,
// value1 <= value2), each within 0..max.
std::string check_span(std::span<const ItemValue> f, uint32_t max, const char *what) {
  const uint32_t type = f[0].n, v1 = f[1].n, v2 = f[2].n;
  if (type != 1 && type != 2) return format("type %u is not 1 (single %s) or 2 (range)", type, what);
  if (v1 > max || v2 > max) return format("a %s is at most %u", what, max);
  if (type == 1 && v2 != 0 && v2 != v1)
    return format("a single %s uses value1 only; value2 must be 0", what);
  if (type == 2 && v1 > v2)
    return format("range %u - %u is reversed: value1 must not be above value2", v1, v2);
  return {};
}

std::string check_flag(uint32_t v, const char *what) {
  return v <= 1 ? std::string() : format("%s must be 0 or 1, not %u", what, v);
}

std::string check_at_most(uint32_t v, uint32_t max, const char *what) {
  return v <= max ? std::string() : format("%s %u is out of range (0 to %u)", what, v, max);
}

std::string check_filled(const std::string &s, const char *what) {
  return s.empty() ? format("%s must not be empty", what) : std::string();
}

bool is_decimal(std::string_view s, uint32_t max) {
  uint32_t v = 0;
  auto [end, ec] = std::from_chars(s.data(), s.data() + s.size(), v);
  return !s.empty() && ec == std::errc{} && end == s.data() + s.size() && v <= max;
}

bool is_mac(std::string_view s) {
  if (s.size() != 17) return false;
  for (size_t i = 0; i < s.size(); ++i) {
    const char c = s[i];
    if (i % 3 == 2 ? c != ':' : !std::isxdigit(static_cast<unsigned char>(c))) return false;
  }
  return true;
}

std::string check_rewrite(std::span<const ItemValue> f) {
  const uint32_t field = f[0].n;
  const std::string &v = f[2].s;
  if (field < 1 || field > 6)
    return format("field %u is not 1 to 6 (destip, destmac, dscp, srcip, vlanp, poolid)", field);
  if (auto e = check_at_most(f[1].n, 2, "direction"); !e.empty()) return e;
  if (auto e = check_filled(v, "value"); !e.empty()) return e;
  switch (field) {
    case 1:
    case 4:
      return is_ip_address(v) ? std::string() : "'" + v + "' is not an IP address";
    case 2:
      return is_mac(v) ? std::string() : "'" + v + "' is not a MAC address such as 00:11:22:33:44:55";
    case 3:
      return is_decimal(v, 63) ? std::string() : "'" + v + "' is not a DSCP value (0 to 63)";
    case 5:
      return is_decimal(v, 7) ? std::string() : "'" + v + "' is not a VLAN priority (0 to 7)";
  }
  return {};
}

std::string check_fields(const Ruleset &rs, uint32_t type, std::span<const ItemValue> f) {
  switch (type) {
    case 0:
      if (auto e = check_net(f); !e.empty()) return e;
      return check_flag(f[3].n, "exclude");
    case 1:
      if (auto e = check_span(f, 65535, "port"); !e.empty()) return e;
      return check_flag(f[3].n, "exclude");
    case 2:
    case 7:
      return check_filled(f[0].s, "value");
    case 3:
      if (auto e = check_span(f, 4095, "VLAN id"); !e.empty()) return e;
      return check_flag(f[3].n, "exclude");
    case 4:
    case 14:
      return {};
    case 5: {
      const uint32_t t = f[0].n, v1 = f[1].n, v2 = f[2].n, days = f[3].n;
      if (t != 1 && t != 2) return format("type %u is not 1 (daytime) or 2 (date range)", t);
      if (days > 127) return format("days %u is not a day mask (at most 127, every day)", days);
      if (t == 1 && (v1 >= 86400 || v2 >= 86400))
        return "a daytime item's value1 and value2 are seconds of the day (below 86400)";
      if (t == 1 && days == 0) return "a daytime item needs at least one day in days";
      if (t == 2 && v1 > v2)
        return format("date range %u - %u is reversed: value1 must not be above value2", v1, v2);
      return check_flag(f[4].n, "exclude");
    }
    case 6:
      return check_at_most(f[0].n, 2, "type");
    case 8:
      return check_filled(f[0].s, "property");
    case 9:
      return check_rewrite(f);
    case 10:
    case 16:
      if (auto e = check_filled(f[0].s, "value"); !e.empty()) return e;
      return check_flag(f[1].n, "exclude");
    case 11:
      if (auto e = check_span(f, (1u << 20) - 1, "MPLS label"); !e.empty()) return e;
      return check_flag(f[3].n, "exclude");
    case 12:
      if (auto e = check_span(f, 63, "DSCP value"); !e.empty()) return e;
      return check_flag(f[3].n, "exclude");
    case 13:
      if (f[0].n != 1) return format("type %u is not 1 (channel)", f[0].n);
      return check_flag(f[2].n, "exclude");
    case 15:
      return check_at_most(f[0].n, 6, "tunnel type");
    case 17: {
      const uint32_t net = f[0].n;
      if (net != 0 && !exists(rs, object_ref(kNetObject, net)))
        return format("netobject %u: no net object %u", net, net);
      if (auto e = check_at_most(f[1].n, 2, "keytype"); !e.empty()) return e;
      if (auto e = check_at_most(f[3].n, 1, "valuetype"); !e.empty()) return e;
      if (auto e = check_at_most(f[5].n, 1, "spoof"); !e.empty()) return e;
      return check_at_most(f[6].n, 1, "miss");
    }
    case 18:
      if (auto e = check_filled(f[0].s, "schemaname"); !e.empty()) return e;
      if (auto e = check_filled(f[1].s, "columnname"); !e.empty()) return e;
      return check_at_most(f[3].n, 0, "matchtype");
  }
  return format("unknown object type %u", type);
}

}  // namespace

std::span<const ItemField> item_fields(uint32_t type) {
  return type < kObjectTypes ? kTypes[type].fields : std::span<const ItemField>();
}

std::string noun(Ref r) {
  switch (r.kind) {
    case Kind::kObject:
      return r.type < kObjectTypes ? kTypes[r.type].noun : "object";
    case Kind::kShapingObject:
      return "shaping object";
    case Kind::kCondition:
      return "rule condition";
    case Kind::kRule:
      return r.type < kRuleKinds ? kRuleNouns[r.type] : "rule";
    case Kind::kStatisticsObject:
      return "statistics object";
    case Kind::kIpfixObject:
      return "IPFIX object";
  }
  return "record";
}

std::string label(const Ruleset &rs, Ref r, bool capital) {
  const std::string *name = name_of(rs, r);
  std::string s = format("%s %u (%s)", noun(r).c_str(), r.id, name ? name->c_str() : "?");
  return capital ? capitalized(std::move(s)) : s;
}

std::string missing_text(Ref r) { return format("No %s %u", noun(r).c_str(), r.id); }

bool exists(const Ruleset &rs, Ref r) { return name_of(rs, r) != nullptr; }

std::optional<Ref> condition_target(const ConditionItem &item) {
  if (item.type >= kConditionTypes) return std::nullopt;
  const int t = kConditionTargets[item.type];
  if (t == kCond) return Ref{Kind::kCondition, 0, item.object};
  return object_ref(static_cast<uint32_t>(t), item.object);
}

void for_each_reference(const Ruleset &rs, const std::function<void(Ref, Ref)> &f) {
  for (const auto &[id, c] : rs.conditions) {
    const Ref from{Kind::kCondition, 0, id};
    for (const ConditionItem &item : c.items)
      if (auto to = condition_target(item)) f(from, *to);
  }
  for (uint32_t k = 0; k < kRuleKinds; ++k) {
    for (const Rule &r : rs.rules[k]) {
      const Ref from = rule_ref(static_cast<RuleKind>(k), r.id);
      if (r.rulecondition) f(from, {Kind::kCondition, 0, r.rulecondition});
      if (r.rewriteobject) f(from, object_ref(kRewriteObject, r.rewriteobject));
      if (r.enrichobject) f(from, object_ref(kEnrichObject, r.enrichobject));
      for (uint32_t id : r.objects) f(from, {Kind::kShapingObject, 0, id});
      for (uint32_t id : r.statisticsobjects) f(from, {Kind::kStatisticsObject, 0, id});
      for (uint32_t id : r.ipfixobjects) f(from, {Kind::kIpfixObject, 0, id});
    }
  }
  for (const auto &[id, o] : rs.objects[kEnrichObject]) {
    for (const Item &item : o.items)
      if (item.fields[0].n) f(object_ref(kEnrichObject, id), object_ref(kNetObject, item.fields[0].n));
  }
  for (const auto &[id, so] : rs.shaping_objects) {
    for (uint32_t net : so.split_netobjects)
      f({Kind::kShapingObject, 0, id}, object_ref(kNetObject, net));
  }
}

std::map<Ref, uint32_t> reference_counts(const Ruleset &rs) {
  std::map<Ref, uint32_t> counts;
  for_each_reference(rs, [&](Ref, Ref to) { ++counts[to]; });
  return counts;
}

std::string in_use_text(const Ruleset &rs, Ref r) {
  std::optional<Ref> first;
  uint32_t others = 0;
  for_each_reference(rs, [&](Ref from, Ref to) {
    if (to != r || from == r) return;
    if (!first)
      first = from;
    else if (from != *first)
      ++others;
  });
  if (!first) return {};
  std::string text = label(rs, r, true) + " is used by " + label(rs, *first);
  if (others) text += format(" and %u more", others);
  return text;
}

void unlink(Ruleset &rs, Ref r) {
  for (auto &[id, c] : rs.conditions) {
    std::erase_if(c.items, [&](const ConditionItem &item) { return condition_target(item) == r; });
  }
  auto drop = [](std::vector<uint32_t> &ids, uint32_t id) { std::erase(ids, id); };
  for (uint32_t k = 0; k < kRuleKinds; ++k) {
    for (Rule &rule : rs.rules[k]) {
      switch (r.kind) {
        case Kind::kCondition:
          if (rule.rulecondition == r.id) rule.rulecondition = 0;
          break;
        case Kind::kObject:
          if (r.type == kRewriteObject && rule.rewriteobject == r.id) rule.rewriteobject = 0;
          if (r.type == kEnrichObject && rule.enrichobject == r.id) rule.enrichobject = 0;
          break;
        case Kind::kShapingObject:
          drop(rule.objects, r.id);
          break;
        case Kind::kStatisticsObject:
          drop(rule.statisticsobjects, r.id);
          break;
        case Kind::kIpfixObject:
          drop(rule.ipfixobjects, r.id);
          break;
        case Kind::kRule:
          break;
      }
    }
  }
  if (r.kind == Kind::kObject && r.type == kNetObject) {
    for (auto &[id, o] : rs.objects[kEnrichObject])
      for (Item &item : o.items)
        if (item.fields[0].n == r.id) item.fields[0].n = 0;
    for (auto &[id, so] : rs.shaping_objects) drop(so.split_netobjects, r.id);
  }
}

std::string check_text(std::string_view what, std::string_view text, std::size_t max) {
  if (text.size() <= max) return {};
  return format("%.*s is %zu characters long; at most %zu are kept", static_cast<int>(what.size()),
                what.data(), text.size(), max);
}

std::string check_name(std::string_view what, std::string_view name, std::size_t max) {
  if (name.empty())
    return capitalized(std::string(what)) + " must not be empty";
  return check_text(what, name, max);
}

std::string check_item(const Ruleset &rs, uint32_t type, const Item &item) {
  const auto fields = item_fields(type);
  if (fields.empty() || item.fields.size() != fields.size())
    return format("Unknown object type %u", type);
  std::string e;
  for (size_t i = 0; i < fields.size() && e.empty(); ++i) {
    if (fields[i].wire == Wire::Text) e = check_text(fields[i].key, item.fields[i].s, fields[i].max);
  }
  if (e.empty()) e = check_fields(rs, type, item.fields);
  return e.empty() ? e : "Bad " + std::string(kTypes[type].noun) + " item: " + e;
}

bool in_subtree(const std::map<uint32_t, Object> &tree, uint32_t id, uint32_t ancestor) {
  // The walk is bounded by the tree's size, so a damaged tree cannot loop.
  for (size_t steps = 0; id != 0 && steps <= tree.size(); ++steps) {
    if (id == ancestor) return true;
    auto it = tree.find(id);
    if (it == tree.end()) return false;
    id = it->second.parent;
  }
  return false;
}

bool condition_reaches(const Ruleset &rs, uint32_t from, uint32_t target) {
  std::vector<uint32_t> todo{from};
  std::vector<uint32_t> seen;
  while (!todo.empty()) {
    const uint32_t id = todo.back();
    todo.pop_back();
    if (id == target) return true;
    if (std::find(seen.begin(), seen.end(), id) != seen.end()) continue;
    seen.push_back(id);
    auto it = rs.conditions.find(id);
    if (it == rs.conditions.end()) continue;
    for (const ConditionItem &item : it->second.items)
      if (item.type == kConditionTypeRulecondition) todo.push_back(item.object);
  }
  return false;
}

bool is_ip_address(std::string_view text) {
  std::array<uint8_t, 16> a{};
  return parse_address(text, false, a) || parse_address(text, true, a);
}

std::string timestamp_text(uint64_t seconds) {
  const time_t t = static_cast<time_t>(seconds);
  tm utc{};
  gmtime_r(&t, &utc);
  char buf[32];
  std::strftime(buf, sizeof buf, "%Y-%m-%d %H:%M:%S", &utc);
  return buf;
}

void audit_create(Audit &a, std::string_view user, std::string_view when) {
  a.creator = a.modified_by = user;
  a.creation_date = a.modification_date = when;
}

void audit_change(Audit &a, std::string_view user, std::string_view when) {
  a.modified_by = user;
  a.modification_date = when;
}

}  // namespace tqsim
