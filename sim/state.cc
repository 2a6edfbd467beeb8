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

namespace {

void raise(uint32_t &counter, uint32_t id) { counter = std::max(counter, id); }

// Counters are never read back below an id in use, so ids are never handed
// out twice, whatever a hand-written file or an archive says.
void settle(Ruleset &rs) {
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
}

void settle(LiveViews &lv) {
  for (const auto &[id, v] : lv.views) {
    raise(lv.last_view, id);
    for (const auto &d : v.distributions) raise(lv.last_part, d.id);
    for (const auto &f : v.filters) {
      raise(lv.last_part, f.id);
      for (const auto &x : f.values) raise(lv.last_part, x.id);
    }
  }
}

}  // namespace

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
  if (s.loading()) settle(rs);
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
  if (s.loading()) settle(lv);
}

void io(Io &s, ArchiveHeader &h) {
  s.field("resource", h.resource);
  s.field("name", h.name);
  s.field("date", h.date);
  s.field("system", h.system);
}

namespace {

// One saved resource: its member in the document, how its contents are
// described, and how parsed contents replace the live ones.
struct Part {
  uint32_t resource;
  const char *key;
  void (*load)(Io &, const char *, ResourceData &);
  void (*save)(Io &, const char *, const ResourceData &);
  void (*adopt)(ResourceData &, ResourceData &);
};

template <auto M>
void load_part(Io &s, const char *key, ResourceData &d) {
  s.record(key, d.*M);
}
// The descriptions take their records by reference in both directions, so
// a save works on a copy of the one member.
template <auto M>
void save_part(Io &s, const char *key, const ResourceData &d) {
  auto copy = d.*M;
  s.record(key, copy);
}
template <auto M>
void adopt_part(ResourceData &to, ResourceData &from) {
  to.*M = std::move(from.*M);
}
template <auto M>
constexpr Part part(uint32_t resource, const char *key) {
  return {resource, key, load_part<M>, save_part<M>, adopt_part<M>};
}

constexpr Part kParts[] = {
    part<&ResourceData::ruleset>(TQDB_RESOURCE_RULESET, "ruleset"),
    part<&ResourceData::liveviews>(TQDB_RESOURCE_DYNAMICLIVEVIEW, "liveviews"),
    part<&ResourceData::users>(TQDB_RESOURCE_USERS, "users"),
    part<&ResourceData::levels>(TQDB_RESOURCE_SYSDIAG, "levels"),
    part<&ResourceData::channels>(TQDB_RESOURCE_CHANNELS, "channels"),
    part<&ResourceData::config>(TQDB_RESOURCE_CONFIG, "config"),
    part<&ResourceData::logs>(TQDB_RESOURCE_LOGS, "logs"),
    part<&ResourceData::hosttriggers>(TQDB_RESOURCE_HOSTTRIGGER, "hosttriggers"),
    part<&ResourceData::overview>(TQDB_RESOURCE_SYSTEM_OVERVIEW, "system_overview"),
    part<&ResourceData::connprot_triggers>(TQDB_RESOURCE_CONNPROT_TRIGGER, "connprot_triggers"),
};

const Part *find_part(uint32_t resource) {
  for (const Part &p : kParts)
    if (p.resource == resource) return &p;
  return nullptr;
}

const ResourceData &committed(const Resource &r) { return r.snapshot ? *r.snapshot : r.data; }

}  // namespace

bool is_saved(uint32_t resource) { return find_part(resource) != nullptr; }

std::vector<uint32_t> saved_resources() {
  std::vector<uint32_t> out;
  for (const Part &p : kParts) out.push_back(p.resource);
  std::sort(out.begin(), out.end());
  return out;
}

Json saved_document(const Store &store, uint32_t only, const ArchiveHeader *header) {
  Json doc;
  std::string error;  // writing never fails
  Io root(doc, false, error, "");
  uint64_t format_version = kFormat;
  root.field("format", format_version);
  if (header) {
    ArchiveHeader h = *header;
    root.record("backup", h);
  }
  for (const Part &p : kParts) {
    if (only != 0 && p.resource != only) continue;
    p.save(root, p.key, committed(*store.resource(p.resource)));
  }
  return doc;
}

bool read_document(Json &doc, ArchiveHeader *header, std::vector<SavedPart> &parts,
                   std::string &error) {
  parts.clear();
  Io root(doc, true, error, "");
  uint64_t format_version = kFormat;
  root.field("format", format_version);
  if (error.empty() && format_version != kFormat)
    root.fail(format("format %llu is not one this simulator reads (%llu)",
                     static_cast<unsigned long long>(format_version),
                     static_cast<unsigned long long>(kFormat)));
  if (header) {
    if (error.empty() && !doc.find("backup")) root.fail("no \"backup\" member: not a backup archive");
    root.record("backup", *header);
  }
  for (const Part &p : kParts) {
    // A state file may leave any part out (it starts empty); an archive
    // holds the parts it was dumped with.
    if (header && !doc.find(p.key)) continue;
    SavedPart sp{p.resource, {}};
    p.load(root, p.key, sp.data);
    parts.push_back(std::move(sp));
  }
  return error.empty();
}

void adopt(Resource &r, ResourceData &from) {
  if (const Part *p = find_part(r.id)) p->adopt(r.data, from);
}

bool load_state(Store &store, const std::string &path, std::string &why) {
  // A simulator killed while saving leaves its temporary file beside ours.
  const auto slash = path.rfind('/');
  remove_stale_temporaries(directory_of(path),
                           slash == std::string::npos ? path : path.substr(slash + 1));
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
  std::vector<SavedPart> parts;
  if (!read_document(doc, nullptr, parts, error)) {
    why = "state file " + path + ": " + error;
    return false;
  }
  for (SavedPart &p : parts) adopt(*store.resource(p.resource), p.data);
  return true;
}

bool save_state(const Store &store, const std::string &path, std::string &why) {
  if (!save_atomically(path, dump(saved_document(store, 0, nullptr)) + "\n", why)) {
    why = "cannot save state file " + path + ": " + why;
    return false;
  }
  return true;
}

}  // namespace tqsim
