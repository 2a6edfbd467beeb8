#include "rules.h"

#include <algorithm>

#include "ruleset_calls.h"
#include "util.h"

namespace tqsim {
namespace rules_detail {
namespace {

// A statistics rule's id lists travel with a u8 count.
constexpr std::size_t kMaxStatisticsBindings = 255;

std::vector<Rule> &rules_of(Ruleset &rs, const RuleFamily &f) {
  return rs.rules[static_cast<uint32_t>(f.kind)];
}
const std::vector<Rule> &rules_of(const Ruleset &rs, const RuleFamily &f) {
  return rs.rules[static_cast<uint32_t>(f.kind)];
}

template <class Rules>
auto find_rule(Call &c, Rules &rules, const RuleFamily &f, uint32_t id) -> decltype(&rules[0]) {
  auto it = std::find_if(rules.begin(), rules.end(), [id](const Rule &r) { return r.id == id; });
  if (it != rules.end()) return &*it;
  c.error(missing_text(rule_ref(f.kind, id)));
  return nullptr;
}

bool read_fields(Body &in, std::span<const RuleField> fields, Rule &r) {
  for (const RuleField &fd : fields) {
    bool ok = true;
    switch (fd.wire) {
      case RuleWire::U8:
      case RuleWire::Bool:
        ok = in.u8(r.*fd.u8);
        if (fd.wire == RuleWire::Bool) r.*fd.u8 = r.*fd.u8 ? 1 : 0;
        break;
      case RuleWire::U32:
        ok = in.u32(r.*fd.u32);
        break;
      case RuleWire::Text:
        ok = in.text(r.*fd.text);
        break;
      case RuleWire::Name:
      case RuleWire::Position:
      case RuleWire::Audit:
      case RuleWire::Flags:
      case RuleWire::IdsU32:
      case RuleWire::IdsU8Rev:
        break;  // list records only
    }
    if (!ok) return false;
  }
  return true;
}

void put_record(Out &out, std::span<const RuleField> fields, const Rule &r, uint32_t position) {
  out.u32(r.id);
  for (const RuleField &fd : fields) {
    switch (fd.wire) {
      case RuleWire::U8:
      case RuleWire::Bool:
        out.u8(r.*fd.u8);
        break;
      case RuleWire::U32:
        out.u32(r.*fd.u32);
        break;
      case RuleWire::Text:
        out.text(r.*fd.text);
        break;
      case RuleWire::Name:
        out.text(r.name);
        break;
      case RuleWire::Position:
        out.u32(position);
        break;
      case RuleWire::Audit:
        put_audit(out, r.audit);
        break;
      case RuleWire::Flags:
        out.u8(static_cast<uint8_t>(r.active | r.connlog << 2 | r.insights_traffic << 4));
        break;
      case RuleWire::IdsU32:
        out.u32(static_cast<uint32_t>((r.*fd.ids).size()));
        for (uint32_t id : r.*fd.ids) out.u32(id);
        break;
      case RuleWire::IdsU8Rev: {
        const auto &ids = r.*fd.ids;
        out.u8(static_cast<uint8_t>(ids.size()));
        for (auto it = ids.rbegin(); it != ids.rend(); ++it) out.u32(*it);
        break;
      }
    }
  }
}

// Bound ids must name records that exist, each once.
std::string check_bindings(const Ruleset &rs, const std::vector<uint32_t> &ids, Kind kind,
                           std::size_t max) {
  if (ids.size() > max) return format("At most %zu %ss may be bound to one rule", max,
                                      noun({kind, 0, 0}).c_str());
  for (std::size_t i = 0; i < ids.size(); ++i) {
    const Ref r{kind, 0, ids[i]};
    if (!exists(rs, r)) return missing_text(r);
    if (std::find(ids.begin(), ids.begin() + static_cast<std::ptrdiff_t>(i), ids[i]) !=
        ids.begin() + static_cast<std::ptrdiff_t>(i))
      return label(rs, r, true) + " is named twice";
  }
  return {};
}

std::string check_rule(const Ruleset &rs, const RuleFamily &f, const Rule &r) {
  if (auto e = check_name("name", r.name); !e.empty()) return e;
  for (const RuleField &fd : f.body)
    if (fd.wire == RuleWire::Text)
      if (auto e = check_text(fd.what, r.*fd.text, fd.max); !e.empty()) return e;
  if (r.rulecondition != 0 && !exists(rs, {Kind::kCondition, 0, r.rulecondition}))
    return missing_text({Kind::kCondition, 0, r.rulecondition});
  constexpr std::size_t kAny = static_cast<std::size_t>(-1);
  if (auto e = check_bindings(rs, r.objects, Kind::kShapingObject, kAny); !e.empty()) return e;
  if (auto e = check_bindings(rs, r.statisticsobjects, Kind::kStatisticsObject,
                              kMaxStatisticsBindings);
      !e.empty())
    return e;
  if (auto e = check_bindings(rs, r.ipfixobjects, Kind::kIpfixObject, kMaxStatisticsBindings);
      !e.empty())
    return e;
  return f.check ? f.check(rs, r) : std::string();
}

// The rule named by the u32 id that opens the body, for a change.
Rule *changed_rule(Call &c, const RuleFamily &f, Ruleset *&rs, uint32_t id) {
  rs = change_ruleset(c);
  return rs ? find_rule(c, rules_of(*rs, f), f, id) : nullptr;
}

}  // namespace

void list(Call &c, const RuleFamily &f) {
  if (!c.in.end()) return c.malformed();
  const auto &rules = rules_of(view_ruleset(c), f);
  ListAnswer a(c);
  for (std::size_t i = rules.size(); i-- > 0;) {
    put_record(a.out(), f.record, rules[i], static_cast<uint32_t>(i + 1));
    a.next();
  }
  a.finish();
}

// Body: string name, then the family's fields.
void add(Call &c, const RuleFamily &f) {
  Rule r;
  if (!c.in.text(r.name) || !read_fields(c.in, f.body, r) || !c.in.end()) return c.malformed();
  Ruleset *rs = change_ruleset(c);
  if (!rs) return;
  if (auto e = check_rule(*rs, f, r); !e.empty()) return c.error(e);
  r.id = ++rs->last_rule[static_cast<uint32_t>(f.kind)];
  const std::string now = now_text(c);
  audit_create(r.audit, user_of(c), now);
  rules_of(*rs, f).push_back(std::move(r));
  answer_added(c, rules_of(*rs, f).back().id, now);
}

// Body: u32 id, then the family's fields.
void update(Call &c, const RuleFamily &f) {
  uint32_t id = 0;
  Rule fresh;
  if (!c.in.u32(id) || !read_fields(c.in, f.body, fresh) || !c.in.end()) return c.malformed();
  Ruleset *rs = nullptr;
  Rule *r = changed_rule(c, f, rs, id);
  if (!r) return;
  Rule next = *r;
  for (const RuleField &fd : f.body) {
    if (fd.u8) next.*fd.u8 = fresh.*fd.u8;
    if (fd.u32) next.*fd.u32 = fresh.*fd.u32;
    if (fd.text) next.*fd.text = fresh.*fd.text;
  }
  if (auto e = check_rule(*rs, f, next); !e.empty()) return c.error(e);
  *r = std::move(next);
  touch(c, *r);
  answer_stamp(c, r->audit.modification_date);
}

// Body: u32 id.
void remove(Call &c, const RuleFamily &f) {
  uint32_t id = 0;
  if (!c.in.u32(id) || !c.in.end()) return c.malformed();
  Ruleset *rs = nullptr;
  if (!changed_rule(c, f, rs, id)) return;
  std::erase_if(rules_of(*rs, f), [id](const Rule &r) { return r.id == id; });
  c.ok();
}

// Body: u32 id; string name.
void rename(Call &c, const RuleFamily &f) {
  uint32_t id = 0;
  std::string name;
  if (!c.in.u32(id) || !c.in.text(name) || !c.in.end()) return c.malformed();
  Ruleset *rs = nullptr;
  Rule *r = changed_rule(c, f, rs, id);
  if (!r) return;
  if (auto e = check_name("name", name); !e.empty()) return c.error(e);
  r->name = std::move(name);
  touch(c, *r);
  answer_stamp(c, r->audit.modification_date);
}

// Body: u32 id; u8 active (anything but 0 is active).
void set_active(Call &c, const RuleFamily &f) {
  uint32_t id = 0;
  uint8_t active = 0;
  if (!c.in.u32(id) || !c.in.u8(active) || !c.in.end()) return c.malformed();
  Ruleset *rs = nullptr;
  Rule *r = changed_rule(c, f, rs, id);
  if (!r) return;
  r->active = active ? 1 : 0;
  touch(c, *r);
  answer_stamp(c, r->audit.modification_date);
}

// Body: u32 rule1; u32 rule2. The two exchange their positions.
void position_swap(Call &c, const RuleFamily &f) {
  uint32_t id1 = 0, id2 = 0;
  if (!c.in.u32(id1) || !c.in.u32(id2) || !c.in.end()) return c.malformed();
  Ruleset *rs = nullptr;
  Rule *a = changed_rule(c, f, rs, id1);
  Rule *b = a ? find_rule(c, rules_of(*rs, f), f, id2) : nullptr;
  if (!b) return;
  std::swap(*a, *b);
  touch(c, *a);
  touch(c, *b);
  answer_stamp(c, a->audit.modification_date);
}

// Body: u32 rule id, then the family's bindings until the body ends. The
// bindings replace the rule's.
void set_objects(Call &c, const RuleFamily &f) {
  uint32_t id = 0;
  Rule fresh;
  if (!c.in.u32(id) || !f.read_bindings(c.in, fresh) || !c.in.end()) return c.malformed();
  Ruleset *rs = nullptr;
  Rule *r = changed_rule(c, f, rs, id);
  if (!r) return;
  Rule next = *r;
  next.objects = std::move(fresh.objects);
  next.statisticsobjects = std::move(fresh.statisticsobjects);
  next.ipfixobjects = std::move(fresh.ipfixobjects);
  if (auto e = check_rule(*rs, f, next); !e.empty()) return c.error(e);
  *r = std::move(next);
  touch(c, *r);
  answer_stamp(c, r->audit.modification_date);
}

// Body: u32 id. Answers the rule's modification date.
void tstamp(Call &c, const RuleFamily &f) {
  uint32_t id = 0;
  if (!c.in.u32(id) || !c.in.end()) return c.malformed();
  if (const Rule *r = find_rule(c, rules_of(view_ruleset(c), f), f, id)) answer_stamp(c, r->audit.modification_date);
}

// Body: u32 id. The copy goes last, named "<name> (copy)", without its
// comments.
void copy(Call &c, const RuleFamily &f) {
  uint32_t id = 0;
  if (!c.in.u32(id) || !c.in.end()) return c.malformed();
  Ruleset *rs = nullptr;
  Rule *r = changed_rule(c, f, rs, id);
  if (!r) return;
  Rule dup = *r;
  dup.name += " (copy)";
  if (auto e = check_text("name", dup.name, 255); !e.empty()) return c.error(e);
  dup.id = ++rs->last_rule[static_cast<uint32_t>(f.kind)];
  dup.comments.clear();
  const std::string now = now_text(c);
  audit_create(dup.audit, user_of(c), now);
  rules_of(*rs, f).push_back(std::move(dup));
  answer_added(c, rules_of(*rs, f).back().id, now);
}

// Body: u32 id (get: answers the comments), or u32 id and the comments
// (set: answers the timestamp).
void comments(Call &c, const RuleFamily &f) {
  uint32_t id = 0;
  std::string text;
  if (!c.in.u32(id)) return c.malformed();
  if (c.in.left() == 0) {
    if (const Rule *r = find_rule(c, rules_of(view_ruleset(c), f), f, id)) answer_text(c, r->comments);
    return;
  }
  if (!c.in.text(text) || !c.in.end()) return c.malformed();
  Ruleset *rs = nullptr;
  Rule *r = changed_rule(c, f, rs, id);
  if (!r) return;
  if (auto e = check_text("comments", text, kCommentsMax); !e.empty()) return c.error(e);
  r->comments = std::move(text);
  touch(c, *r);
  answer_stamp(c, r->audit.modification_date);
}

}  // namespace rules_detail

namespace {

// Rule attributes: u8 RULESET_RULE_TYPE_*, u32 id, then the request's own
// fields. The rule of a change, or null after answering the refusal.
Rule *attr_rule(Call &c, uint8_t kind, uint32_t id, bool changing) {
  if (kind >= kRuleKinds) {
    c.error(format("Unknown rule type %u (0 firewall, 1 shaping, 2 statistics)", kind));
    return nullptr;
  }
  Ruleset *rs = changing ? change_ruleset(c) : const_cast<Ruleset *>(&view_ruleset(c));
  if (!rs) return nullptr;
  auto &rules = rs->rules[kind];
  auto it = std::find_if(rules.begin(), rules.end(), [id](const Rule &r) { return r.id == id; });
  if (it != rules.end()) return &*it;
  c.error(missing_text(rule_ref(static_cast<RuleKind>(kind), id)));
  return nullptr;
}

std::string rule_label(uint8_t kind, const Rule &r) {
  const Ref ref = rule_ref(static_cast<RuleKind>(kind), r.id);
  std::string s = noun(ref);
  s[0] = static_cast<char>(s[0] - 'a' + 'A');
  return format("%s %u (%s)", s.c_str(), r.id, r.name.c_str());
}

void attr_list(Call &c) {
  uint8_t kind = 0;
  uint32_t id = 0;
  if (!c.in.u8(kind) || !c.in.u32(id) || !c.in.end()) return c.malformed();
  if (const Rule *r = attr_rule(c, kind, id, false)) answer_attributes(c, r->attributes);
}

void attr_set(Call &c) {
  uint8_t kind = 0;
  uint32_t id = 0;
  std::string key, value;
  if (!c.in.u8(kind) || !c.in.u32(id) || !c.in.text(key) || !c.in.text(value) || !c.in.end())
    return c.malformed();
  Rule *r = attr_rule(c, kind, id, true);
  if (!r) return;
  if (auto e = set_attribute(r->attributes, rule_label(kind, *r), std::move(key), std::move(value));
      !e.empty())
    return c.error(e);
  touch(c, *r);
  c.ok();
}

void attr_remove(Call &c) {
  uint8_t kind = 0;
  uint32_t id = 0;
  std::string key;
  if (!c.in.u8(kind) || !c.in.u32(id) || !c.in.text(key) || !c.in.end()) return c.malformed();
  Rule *r = attr_rule(c, kind, id, true);
  if (!r) return;
  if (auto e = remove_attribute(r->attributes, rule_label(kind, *r), key); !e.empty())
    return c.error(e);
  touch(c, *r);
  c.ok();
}

constexpr auto H = Header::kSessionCid;
constexpr auto S = Access::kSession;
constexpr Route kAttrRoutes[] = {
    {TQDB_REQ_RULE_ATTR_LIST, "rule_attr_list", H, S, attr_list},
    {TQDB_REQ_RULE_ATTR_SET, "rule_attr_set", H, S, attr_set},
    {TQDB_REQ_RULE_ATTR_REMOVE, "rule_attr_remove", H, S, attr_remove},
};

}  // namespace

std::span<const Route> family_ruleattr() { return kAttrRoutes; }

}  // namespace tqsim
