#include "state.h"

#include <algorithm>
#include <concepts>

#include "json.h"
#include "state_io.h"
#include "statefile.h"
#include "tqdb_api.h"
#include "util.h"

namespace tqsim {
namespace {
constexpr uint64_t kFormat = 1;
}  // namespace

// The saved records, found by the Io templates through the records' namespace.

void io(Io &s, Audit &a) {
  s.field("creator", a.creator);
  s.field("creation_date", a.creation_date);
  s.field("modified_by", a.modified_by);
  s.field("modification_date", a.modification_date);
}

// Items know their fields only through their object's type: the type is
// passed through this wrapper.
struct TypedItem {
  uint32_t type = 0;
  Item item;
};

void io(Io &s, TypedItem &t) {
  s.field("id", t.item.id);
  s.record("audit", t.item.audit);
  const auto fields = item_fields(t.type);
  t.item.fields.resize(fields.size());
  for (std::size_t i = 0; i < fields.size(); ++i) {
    if (fields[i].wire == Wire::Text)
      s.field(fields[i].key, t.item.fields[i].s);
    else
      s.field(fields[i].key, t.item.fields[i].n);
  }
}

struct TypedObject {
  uint32_t type = 0;
  Object o;
};

void io(Io &s, TypedObject &t) {
  Object &o = t.o;
  s.field("type", t.type);
  if (t.type >= kObjectTypes) return s.fail(format("object type %u is not 0 to 18", t.type));
  s.field("id", o.id);
  s.field("name", o.name);
  s.field("parent", o.parent);
  s.field("visible", o.visible);
  s.record("audit", o.audit);
  s.attributes("attributes", o.attributes);
  s.field("comments", o.comments);
  std::vector<TypedItem> items;
  for (Item &item : o.items) items.push_back({t.type, item});
  s.list("items", items, TypedItem{t.type, {}});
  o.items.clear();
  for (TypedItem &ti : items) o.items.push_back(std::move(ti.item));
}

void io(Io &s, Limit &l) {
  s.field("direction", l.direction);
  std::vector<uint32_t> v(l.v.begin(), l.v.end());
  s.list("values", v);
  if (s.loading()) {
    if (v.size() != l.v.size()) return s.fail("a limit has six values");
    std::copy(v.begin(), v.end(), l.v.begin());
  }
}

void io(Io &s, ShapingObject &o) {
  s.field("id", o.id);
  s.field("name", o.name);
  s.field("split", o.split);
  s.field("split_argument", o.split_argument);
  s.field("max_connections", o.max_connections);
  s.field("flags", o.flags);
  std::vector<uint8_t> wfq(o.wfq.begin(), o.wfq.end());
  s.list("wfq", wfq);
  if (s.loading() && wfq.size() == o.wfq.size()) std::copy(wfq.begin(), wfq.end(), o.wfq.begin());
  s.field("fairness_group", o.fairness_group);
  s.field("fairness_group_argument", o.fairness_group_argument);
  s.list("limits", o.limits);
  s.list("split_netobjects", o.split_netobjects);
  s.record("audit", o.audit);
  s.attributes("attributes", o.attributes);
  s.field("comments", o.comments);
}

void io(Io &s, ConditionItem &i) {
  s.field("conditiontype", i.type);
  s.field("objectid", i.object);
}

void io(Io &s, Condition &c) {
  s.field("id", c.id);
  s.field("name", c.name);
  s.field("operator", c.op);
  s.record("audit", c.audit);
  s.list("items", c.items);
}

struct TypedRule {
  uint32_t kind = 0;
  Rule r;
};

void io(Io &s, TypedRule &t) {
  Rule &r = t.r;
  s.field("kind", t.kind);
  if (t.kind >= kRuleKinds) return s.fail(format("rule kind %u is not 0 to 2", t.kind));
  s.field("id", r.id);
  s.field("name", r.name);
  s.field("active", r.active);
  s.field("rulecondition", r.rulecondition);
  s.field("action", r.action);
  s.field("quick", r.quick);
  s.field("log", r.log);
  s.field("rewriteobject", r.rewriteobject);
  s.field("enrichobject", r.enrichobject);
  s.field("monitor_iface", r.monitor_iface);
  s.field("monitor_label", r.monitor_label);
  s.field("divert_label", r.divert_label);
  s.field("inject_data", r.inject_data);
  s.field("trigger", r.trigger);
  s.field("priority", r.priority);
  s.field("precedence", r.precedence);
  s.field("fair_factor", r.fair_factor);
  s.list("objects", r.objects);
  s.field("connlog", r.connlog);
  s.field("insights_traffic", r.insights_traffic);
  s.list("statisticsobjects", r.statisticsobjects);
  s.list("ipfixobjects", r.ipfixobjects);
  s.record("audit", r.audit);
  s.attributes("attributes", r.attributes);
  s.field("comments", r.comments);
}

void io(Io &s, StatisticsObject &o) {
  s.field("id", o.id);
  s.field("name", o.name);
  s.field("split", o.split);
  s.field("split_argument", o.split_argument);
  s.field("fields", o.fields);
  s.field("interval", o.interval);
  s.record("audit", o.audit);
}

void io(Io &s, IpfixObject &o) {
  s.field("id", o.id);
  s.field("name", o.name);
  s.field("collector", o.collector);
  s.field("port", o.port);
  s.field("protocol", o.protocol);
  s.field("interval", o.interval);
  s.record("audit", o.audit);
}

struct RulesetCounters {
  Ruleset &rs;
};

void io(Io &s, RulesetCounters &c) {
  s.numbers("objects", c.rs.last_object);
  s.field("item", c.rs.last_item);
  s.field("shaping_object", c.rs.last_shaping_object);
  s.field("condition", c.rs.last_condition);
  s.numbers("rules", c.rs.last_rule);
  s.field("statistics_object", c.rs.last_statistics_object);
  s.field("ipfix_object", c.rs.last_ipfix_object);
}

void io(Io &s, Ruleset &rs) {
  RulesetCounters counters{rs};
  s.record("counters", counters);
  // Objects of every type in one array, each naming its type; rules of
  // every kind in one array, each naming its kind, in position order.
  std::vector<TypedObject> objects;
  std::vector<TypedRule> rules;
  for (uint32_t t = 0; t < kObjectTypes && !s.loading(); ++t)
    for (auto &[id, o] : rs.objects[t]) objects.push_back({t, o});
  for (uint32_t k = 0; k < kRuleKinds && !s.loading(); ++k)
    for (const Rule &r : rs.rules[k]) rules.push_back({k, r});
  s.list("objects", objects);
  s.by_id("shaping_objects", rs.shaping_objects);
  s.by_id("conditions", rs.conditions);
  s.list("rules", rules);
  if (s.loading()) {
    for (TypedObject &to : objects) {
      if (to.type < kObjectTypes && !rs.objects[to.type].emplace(to.o.id, to.o).second)
        s.fail(format("objects: %s appears twice", missing_text(object_ref(to.type, to.o.id)).substr(3).c_str()));
    }
    for (TypedRule &tr : rules) {
      if (tr.kind >= kRuleKinds) continue;
      auto &family = rs.rules[tr.kind];
      if (std::any_of(family.begin(), family.end(), [&](const Rule &r) { return r.id == tr.r.id; }))
        s.fail(format("rules: %s appears twice", missing_text(rule_ref(static_cast<RuleKind>(tr.kind), tr.r.id)).substr(3).c_str()));
      family.push_back(std::move(tr.r));
    }
  }
  s.by_id("statistics_objects", rs.statistics_objects);
  s.by_id("ipfix_objects", rs.ipfix_objects);
}

void io(Io &s, LiveDistribution &d) {
  s.field("id", d.id);
  s.field("distribution", d.distribution);
  s.field("argument", d.argument);
}

void io(Io &s, LiveFilterValue &v) {
  s.field("id", v.id);
  s.field("value", v.value);
}

void io(Io &s, LiveFilter &f) {
  s.field("id", f.id);
  s.field("operator", f.op);
  s.field("key", f.key);
  s.list("values", f.values);
}

void io(Io &s, LiveView &v) {
  s.field("id", v.id);
  s.field("name", v.name);
  s.record("audit", v.audit);
  s.list("distributions", v.distributions);
  s.list("filters", v.filters);
}

struct LiveCounters {
  LiveViews &lv;
};

void io(Io &s, LiveCounters &c) {
  s.field("view", c.lv.last_view);
  s.field("part", c.lv.last_part);
}

void io(Io &s, LiveViews &lv) {
  LiveCounters counters{lv};
  s.record("counters", counters);
  s.by_id("views", lv.views);
}

namespace {

struct State {
  Ruleset rs;
  LiveViews lv;
};

void io(Io &s, State &st) {
  uint64_t format_version = kFormat;
  s.field("format", format_version);
  if (s.loading() && format_version != kFormat)
    s.fail(format("format %llu is not one this simulator reads (%llu)",
                  static_cast<unsigned long long>(format_version),
                  static_cast<unsigned long long>(kFormat)));
  s.record("ruleset", st.rs);
  s.record("liveviews", st.lv);
}

// Counters never below an id in use.
void settle_counters(State &st) {
  auto raise = [](uint32_t &counter, uint32_t id) { counter = std::max(counter, id); };
  Ruleset &rs = st.rs;
  for (uint32_t t = 0; t < kObjectTypes; ++t) {
    for (const auto &[id, o] : rs.objects[t]) {
      raise(rs.last_object[t], id);
      for (const Item &item : o.items) raise(rs.last_item, item.id);
    }
  }
  for (const auto &[id, o] : rs.shaping_objects) raise(rs.last_shaping_object, id);
  for (const auto &[id, o] : rs.conditions) raise(rs.last_condition, id);
  for (uint32_t k = 0; k < kRuleKinds; ++k)
    for (const Rule &r : rs.rules[k]) raise(rs.last_rule[k], r.id);
  for (const auto &[id, o] : rs.statistics_objects) raise(rs.last_statistics_object, id);
  for (const auto &[id, o] : rs.ipfix_objects) raise(rs.last_ipfix_object, id);
  for (const auto &[id, v] : st.lv.views) {
    raise(st.lv.last_view, id);
    for (const auto &d : v.distributions) raise(st.lv.last_part, d.id);
    for (const auto &f : v.filters) {
      raise(st.lv.last_part, f.id);
      for (const auto &x : f.values) raise(st.lv.last_part, x.id);
    }
  }
}

const ResourceData &committed(const Resource &r) { return r.snapshot ? *r.snapshot : r.data; }

}  // namespace

bool load_state(Store &store, const std::string &path, std::string &why) {
  std::string text;
  bool missing = false;
  if (!load_file(path, text, missing, why)) {
    why = "cannot read state file " + path + ": " + why;
    return false;
  }
  if (missing) return true;
  Json doc;
  std::string error;
  if (!parse(text, doc, error)) {
    why = "state file " + path + " is not valid JSON: " + error;
    return false;
  }
  State st;
  Io root(doc, true, error, "");
  io(root, st);
  if (!error.empty()) {
    why = "state file " + path + ": " + error;
    return false;
  }
  settle_counters(st);
  store.resource(TQDB_RESOURCE_RULESET)->data.ruleset = std::move(st.rs);
  store.resource(TQDB_RESOURCE_DYNAMICLIVEVIEW)->data.liveviews = std::move(st.lv);
  return true;
}

bool save_state(const Store &store, const std::string &path, std::string &why) {
  State st{committed(*store.resource(TQDB_RESOURCE_RULESET)).ruleset,
           committed(*store.resource(TQDB_RESOURCE_DYNAMICLIVEVIEW)).liveviews};
  Json doc;
  std::string error;
  Io root(doc, false, error, "");
  io(root, st);
  if (!save_atomically(path, dump(doc) + "\n", why)) {
    why = "cannot save state file " + path + ": " + why;
    return false;
  }
  return true;
}

}  // namespace tqsim
