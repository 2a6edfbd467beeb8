// System diagnostics (0x19Exx): levels in resource 7, zones, system names,
// the diagnostic log and the allocator's memory usage.
#include "answer.h"
#include "dispatch.h"
#include "tq_malloc.h"
#include "tqdb_api_sysdiag.h"
#include "util.h"

namespace tqsim {
namespace {

constexpr size_t kNameMax = 63;      // zone, value and system names
constexpr size_t kCommentMax = 1023;
constexpr size_t kTriggerMax = 255;
constexpr size_t kTitleMax = 255;
constexpr size_t kBodyMax = 4095;
constexpr uint32_t kTypes = 10;      // SYSDIAG_ZONE_TYPE_* 0..9
constexpr uint32_t kZoneFlags = 7;   // SYSDIAG_ZONE_FLAGS_*
constexpr uint32_t kSeverities = 3;  // SYSDIAG_LOG_SEVERITY_*
constexpr uint32_t kValueDefMin = 16;  // id, empty name, type, flags

Out &u64(Out &o, uint64_t v) {
  return o.u32(static_cast<uint32_t>(v >> 32)).u32(static_cast<uint32_t>(v));
}

Resource &levels_resource(Call &c) { return *c.store.resource(TQDB_RESOURCE_SYSDIAG); }
// The levels in force: the committed ones, whoever is editing.
const Levels &committed(Call &c) {
  const Resource &r = levels_resource(c);
  return (r.snapshot ? *r.snapshot : r.data).levels;
}
Diagnostics &diag(Call &c) { return c.store.diagnostics; }

// A list answer; an empty list is the OK alone.
template <class Range, class Put>
void list_answer(Call &c, const Range &items, Put put) {
  ListAnswer a(c);
  bool any = false;
  for (const auto &x : items) {
    if (!put(a.out(), x)) continue;
    a.next();
    any = true;
  }
  if (any) a.finish();
  else c.ok();
}

void put_level(Out &o, const Level &l) {
  o.u32(l.oid_a).u32(l.oid_b);
  u64(o, l.minimum), u64(o, l.maximum), u64(o, l.minimum_rate), u64(o, l.maximum_rate);
  o.text(l.comment).text(l.trigger).text(l.name);
}
void put_zone(Out &o, const Zone &z) {
  o.u32(z.oid).text(z.name).u32(z.systemid).u32(z.flags).u32(static_cast<uint32_t>(z.values.size()));
  for (const ZoneValue &v : z.values) o.u32(v.id).text(v.name).u32(v.type).u32(v.flags);
}

Zone *zone_by_oid(Call &c, uint32_t oid) {
  auto it = diag(c).zones.find(oid);
  if (it != diag(c).zones.end()) return &it->second;
  c.error(format("Unknown zone %u", oid));
  return nullptr;
}
Zone *zone_by_name(Call &c, const std::string &name) {
  if (Zone *z = diag(c).zone_named(name)) return z;
  c.error(format("Unknown zone '%s'", name.c_str()));
  return nullptr;
}
bool too_long(Call &c, const char *what, const std::string &s, size_t max) {
  if (s.size() <= max) return false;
  c.error(format("The %s is at most %zu bytes; %zu given", what, max, s.size()));
  return true;
}

void level_list(Call &c) {
  if (!c.in.end()) return c.malformed();
  list_answer(c, c.view(levels_resource(c)).levels.by_oid, [](Out &o, const auto &kv) {
    put_level(o, kv.second);
    return true;
  });
}

void level_get(Call &c) {
  uint32_t a, b;
  if (!c.in.u32(a) || !c.in.u32(b) || !c.in.end()) return c.malformed();
  const auto &levels = c.view(levels_resource(c)).levels.by_oid;
  const auto it = levels.find({a, b});
  if (it == levels.end()) return c.error(format("No level %u.%u", a, b));
  Out o;
  put_level(o, it->second);
  c.answer(o);
}

void level_update(Call &c) {
  Level l;
  if (!c.in.u32(l.oid_a) || !c.in.u32(l.oid_b) || !c.in.u64(l.minimum) || !c.in.u64(l.maximum) ||
      !c.in.u64(l.minimum_rate) || !c.in.u64(l.maximum_rate) || !c.in.text(l.comment) ||
      !c.in.text(l.trigger) || !c.in.end())
    return c.malformed();
  const Zone *z = zone_by_oid(c, l.oid_a);
  if (!z) return;
  if (l.oid_b == 0 || l.oid_b > z->values.size())
    return c.error(format("Zone %u (%s) has no value %u", z->oid, z->name.c_str(), l.oid_b));
  if (too_long(c, "comment", l.comment, kCommentMax) || too_long(c, "trigger", l.trigger, kTriggerMax))
    return;
  if (l.maximum != 0 && l.minimum > l.maximum)
    return c.error(format("The minimum %llu is above the maximum %llu",
                          static_cast<unsigned long long>(l.minimum),
                          static_cast<unsigned long long>(l.maximum)));
  ResourceData *d = c.change(levels_resource(c));
  if (!d) return;
  l.name = z->name + "/" + z->values[l.oid_b - 1].name;
  d->levels.by_oid[{l.oid_a, l.oid_b}] = l;
  c.ok();
}

// This appliance's allocator is the one zone with memory usage.
const char *kMallocZone = "tqdbsim";

void malloc_usage_list(Call &c) {
  if (!c.in.end()) return c.malformed();
  Out o;
  o.text(diag(c).system_names[0]).text(kMallocZone);
  ListAnswer a(c);
  a.out() = o;
  a.next();
  a.finish();
}

void malloc_usage_get(Call &c) {
  std::string system, zone;
  if (!c.in.text(system) || !c.in.text(zone) || !c.in.end()) return c.malformed();
  if (system != diag(c).system_names[0] || zone != kMallocZone)
    return c.error(format("No memory usage for system '%s' zone '%s'", system.c_str(), zone.c_str()));
  std::vector<tq_malloc_stat_t> stats(tq_malloc_stat_count());
  for (size_t i = 0; i < stats.size(); ++i)
    if (!tq_malloc_stat_at(i, &stats[i])) stats.resize(i);
  list_answer(c, stats, [](Out &o, const tq_malloc_stat_t &s) {
    o.text(std::string_view(s.label).substr(0, kNameMax));
    u64(o, s.bytes).u32(s.allocations).u32(s.entries);
    u64(o, s.leak_bytes).u32(s.leak_count);
    return true;
  });
}

void zone_register(Call &c) {
  Zone z;
  uint32_t oid, n;
  if (!c.in.u32(oid) || !c.in.text(z.name) || !c.in.u32(z.systemid) || !c.in.u32(z.flags) ||
      !c.in.u32(n))
    return c.malformed();
  if (n > c.in.left() / kValueDefMin) {
    (void)c.in.fail("body too short");
    return c.malformed();
  }
  z.values.resize(n);
  for (ZoneValue &v : z.values)
    if (!c.in.u32(v.id) || !c.in.text(v.name) || !c.in.u32(v.type) || !c.in.u32(v.flags))
      return c.malformed();
  if (!c.in.end()) return c.malformed();
  if (z.name.empty()) return c.error("A zone needs a name");
  if (too_long(c, "zone name", z.name, kNameMax)) return;
  if (z.flags & ~kZoneFlags) return c.error(format("Zone flags 0x%x: only 1, 2 and 4 exist", z.flags));
  for (uint32_t i = 0; i < n; ++i) {
    ZoneValue &v = z.values[i];
    const char *zn = z.name.c_str();
    if (v.id != 0 && v.id != i + 1)
      return c.error(format("Value %u of zone '%s' has id %u: ids run from 1 in order", i + 1, zn, v.id));
    v.id = i + 1;
    if (v.name.empty()) return c.error(format("Value %u of zone '%s' needs a name", i + 1, zn));
    if (too_long(c, "value name", v.name, kNameMax)) return;
    if (v.type >= kTypes) return c.error(format("Value '%s': type %u is not one of 0 to 9", v.name.c_str(), v.type));
    if (v.flags & ~kZoneFlags) return c.error(format("Value '%s': flags 0x%x: only 1, 2 and 4 exist", v.name.c_str(), v.flags));
    for (uint32_t j = 0; j < i; ++j)
      if (z.values[j].name == v.name)
        return c.error(format("Zone '%s' names value '%s' twice", zn, v.name.c_str()));
  }
  Diagnostics &d = diag(c);
  if (Zone *old = d.zone_named(z.name)) {
    z.oid = old->oid;
    *old = std::move(z);
  } else {
    z.oid = d.next_zone++;
    d.zones.emplace(z.oid, std::move(z));
  }
  ++d.version;
  c.ok();
}

void zone_update_values(Call &c) {
  uint32_t oid, elapsed, n;
  if (!c.in.u32(oid) || !c.in.u32(elapsed) || !c.in.u32(n)) return c.malformed();
  if (n > c.in.left() / 8) {
    (void)c.in.fail("body too short");
    return c.malformed();
  }
  std::vector<uint64_t> values(n);
  for (uint64_t &v : values)
    if (!c.in.u64(v)) return c.malformed();
  if (!c.in.end()) return c.malformed();
  Zone *z = zone_by_oid(c, oid);
  if (!z) return;
  if (n != z->values.size())
    return c.error(format("Zone %u (%s) has %zu values; %u given", oid, z->name.c_str(), z->values.size(), n));
  diag(c).update(*z, values, elapsed, c.hub.now(), committed(c));
  c.ok();
}

void zone_unregister(Call &c) {
  uint32_t oid;
  if (!c.in.u32(oid) || !c.in.end()) return c.malformed();
  if (!zone_by_oid(c, oid)) return;
  diag(c).zones.erase(oid);
  ++diag(c).version;
  c.ok();
}

void zone_list(Call &c) {
  if (!c.in.end()) return c.malformed();
  list_answer(c, diag(c).zones, [](Out &o, const auto &kv) {
    put_zone(o, kv.second);
    return true;
  });
}

void zone_get(Call &c) {
  std::string name;
  if (!c.in.text(name) || !c.in.end()) return c.malformed();
  const Zone *z = zone_by_name(c, name);
  if (!z) return;
  ListAnswer a(c);
  put_zone(a.out(), *z);
  a.next();
  a.finish();
}

void zone_value_get(Call &c) {
  std::string zone, value;
  if (!c.in.text(zone) || !c.in.text(value) || !c.in.end()) return c.malformed();
  Zone *z = zone_by_name(c, zone);
  if (!z) return;
  for (ZoneValue &v : z->values) {
    if (v.name != value) continue;
    const auto &levels = committed(c).by_oid;
    const auto it = levels.find({z->oid, v.id});
    const Level *l = it == levels.end() ? nullptr : &it->second;
    Diagnostics::judge(v, l);  // the levels may have changed since the update
    ListAnswer a(c);
    Out &o = a.out();
    o.u32(v.range).u32(l ? 1 : 0).u32(v.id).u32(z->systemid);
    u64(o, v.value), u64(o, v.rate), u64(o, v.min), u64(o, v.max);
    u64(o, v.min_tstamp), u64(o, v.max_tstamp);
    o.u32(v.alert_flags);
    a.next();
    a.finish();
    return;
  }
  c.error(format("Zone '%s' has no value '%s'", zone.c_str(), value.c_str()));
}

void zone_version(Call &c) {
  if (!c.in.end()) return c.malformed();
  Out o;
  o.u32(diag(c).version);
  c.answer(o);
}

void system_name_get(Call &c) {
  uint32_t id;
  if (!c.in.u32(id) || !c.in.end()) return c.malformed();
  const auto &names = diag(c).system_names;
  const auto it = names.find(id);
  if (it == names.end()) return c.error(format("System %u has no name", id));
  Out o;
  o.text(it->second);
  c.answer(o);
}

void system_name_set(Call &c) {
  uint32_t id;
  std::string name;
  if (!c.in.u32(id) || !c.in.text(name) || !c.in.end()) return c.malformed();
  if (name.empty()) return c.error("A system name cannot be empty");
  if (too_long(c, "system name", name, kNameMax)) return;
  diag(c).system_names[id] = name;
  c.ok();
}

void alerted_zones(Call &c) {
  if (!c.in.end()) return c.malformed();
  const auto &levels = committed(c).by_oid;
  list_answer(c, diag(c).zones, [&levels](Out &o, auto &kv) {
    Zone &z = const_cast<Zone &>(kv.second);
    bool alerted = false;
    for (ZoneValue &v : z.values) {
      const auto it = levels.find({z.oid, v.id});
      Diagnostics::judge(v, it == levels.end() ? nullptr : &it->second);
      alerted = alerted || v.alert_flags != 0;
    }
    if (alerted) put_zone(o, z);
    return alerted;
  });
}

void log_post(Call &c) {
  uint32_t severity;
  std::string title, body;
  if (!c.in.u32(severity) || !c.in.text(title) || !c.in.text(body) || !c.in.end())
    return c.malformed();
  if (severity >= kSeverities) return c.error(format("Severity %u is not one of 0 to 2", severity));
  if (too_long(c, "title", title, kTitleMax) || too_long(c, "body", body, kBodyMax)) return;
  diag(c).post(severity, std::move(title), std::move(body), c.hub.now());
  c.ok();
}

void log_list(Call &c) {
  uint8_t only_new;
  uint32_t min_id;
  if (!c.in.u8(only_new) || !c.in.u32(min_id) || !c.in.end()) return c.malformed();
  Diagnostics &d = diag(c);
  list_answer(c, d.log, [&](Out &o, const LogEntry &e) {
    if (e.id < min_id || (only_new && !e.is_new)) return false;
    const auto name = d.system_names.find(e.systemid);
    o.u32(e.id).text(name == d.system_names.end() ? "" : name->second).u32(e.systemid);
    u64(o, e.tstamp).u8(e.is_new ? 1 : 0).u32(e.severity).text(e.title).text(e.body);
    return true;
  });
}

void log_ack(Call &c) {
  uint32_t id;
  if (!c.in.u32(id) || !c.in.end()) return c.malformed();
  for (LogEntry &e : diag(c).log) {
    if (e.id != id) continue;
    e.is_new = false;
    return c.ok();
  }
  c.error(format("No log entry %u", id));
}

void log_ack_all(Call &c) {
  if (!c.in.end()) return c.malformed();
  for (LogEntry &e : diag(c).log) e.is_new = false;
  c.ok();
}

// The states an enumerated value of this appliance reports.
struct EnumName {
  uint32_t value;
  const char *name;
};
constexpr EnumName kEnumNames[] = {{0, "unknown"}, {1, "ok"}, {2, "warning"}, {3, "failed"}};

void enum_values(Call &c) {
  uint32_t oid;
  if (!c.in.u32(oid) || !c.in.end()) return c.malformed();
  const Zone *z = zone_by_oid(c, oid);
  if (!z) return;
  bool has_enum = false;
  for (const ZoneValue &v : z->values) has_enum = has_enum || v.type == TQDB_SYSDIAG_ZONE_TYPE_ENUM;
  list_answer(c, kEnumNames, [has_enum](Out &o, const EnumName &e) {
    if (has_enum) o.u32(e.value).text(e.name);
    return has_enum;
  });
}

constexpr auto H = Header::kSessionCid;
constexpr auto S = Access::kSession;
constexpr Route kRoutes[] = {
    {TQDB_REQ_SYSDIAG_LEVEL_LIST, "sysdiag_level_list", H, S, level_list},
    {TQDB_REQ_SYSDIAG_LEVEL_UPDATE, "sysdiag_level_update", H, S, level_update},
    {TQDB_REQ_SYSDIAG_LEVEL_GET, "sysdiag_level_get", H, S, level_get},
    {TQDB_REQ_SYSDIAG_MALLOC_USAGE_LIST, "sysdiag_malloc_usage_list", H, S, malloc_usage_list},
    {TQDB_REQ_SYSDIAG_MALLOC_USAGE_GET, "sysdiag_malloc_usage_get", H, S, malloc_usage_get},
    {TQDB_REQ_SYSDIAG_ZONE_REGISTER, "sysdiag_zone_register", H, S, zone_register},
    {TQDB_REQ_SYSDIAG_ZONE_UPDATE_VALUES, "sysdiag_zone_update_values", H, S, zone_update_values},
    {TQDB_REQ_SYSDIAG_ZONE_UNREGISTER, "sysdiag_zone_unregister", H, S, zone_unregister},
    {TQDB_REQ_SYSDIAG_ZONE_LIST, "sysdiag_zone_list", H, S, zone_list},
    {TQDB_REQ_SYSDIAG_ZONE_GET, "sysdiag_zone_get", H, S, zone_get},
    {TQDB_REQ_SYSDIAG_ZONE_VALUE_GET, "sysdiag_zone_value_get", H, S, zone_value_get},
    {TQDB_REQ_SYSDIAG_ZONE_VERSION, "sysdiag_zone_version", H, S, zone_version},
    {TQDB_REQ_SYSDIAG_ZONE_SYSTEM_NAME_GET, "sysdiag_zone_system_name_get", H, S, system_name_get},
    {TQDB_REQ_SYSDIAG_ZONE_SYSTEM_NAME_SET, "sysdiag_zone_system_name_set", H, S, system_name_set},
    {TQDB_REQ_SYSDIAG_ZONE_ALERTED, "sysdiag_zone_alerted_zones", H, S, alerted_zones},
    {TQDB_REQ_SYSDIAG_LOG_POST, "sysdiag_log_post", H, S, log_post},
    {TQDB_REQ_SYSDIAG_LOG_LIST, "sysdiag_log_list", H, S, log_list},
    {TQDB_REQ_SYSDIAG_LOG_ACK, "sysdiag_log_ack", H, S, log_ack},
    {TQDB_REQ_SYSDIAG_LOG_ACK_ALL, "sysdiag_log_ack_all", H, S, log_ack_all},
    {TQDB_REQ_SYSDIAG_ZONE_ENUM_VALUES, "sysdiag_zone_get_enum_values", H, S, enum_values},
};

}  // namespace

std::span<const Route> family_sysdiag() { return kRoutes; }

}  // namespace tqsim
