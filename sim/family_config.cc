// Configuration values with their categories and flags (0x194xx), the log
// facility levels (0x1A102 to 0x1A104) and the appliance's clock (0x1A401).
// Values change in the session's own transaction on resource 4 (config),
// levels in one on resource 9 (logs); lists show what the session sees.
#include "answer.h"
#include "config.h"
#include "dispatch.h"
#include "tq_log.h"
#include "tqdb_api.h"
#include "tqdb_api_config.h"
#include "util.h"

namespace tqsim {
namespace {

const Config &view_config(Call &c) {
  return c.view(*c.store.resource(TQDB_RESOURCE_CONFIG)).config;
}
const LogLevels &view_logs(Call &c) { return c.view(*c.store.resource(TQDB_RESOURCE_LOGS)).logs; }
LogLevels *change_logs(Call &c) {
  ResourceData *d = c.change(*c.store.resource(TQDB_RESOURCE_LOGS));
  return d ? &d->logs : nullptr;
}

// A list answer of one record per row of rows, put by put.
template <class Row, class Put>
void list_of(Call &c, std::span<const Row> rows, Put put) {
  if (!c.in.end()) return c.malformed();
  ListAnswer a(c);
  for (const Row &r : rows) {
    put(a.out(), r);
    a.next();
  }
  a.finish();
}

void config_list(Call &c) {
  const Config &cfg = view_config(c);
  list_of(c, config_keys(), [&](Out &o, const ConfigKey &k) {
    o.text(k.key).text(cfg.value(k)).text(k.default_value).text(k.category).text(k.description);
    o.u32(k.type).u32(k.flags);
  });
}

void category_list(Call &c) {
  list_of(c, config_categories(), [](Out &o, const ConfigCategory &k) {
    o.u32(k.id).text(k.name).text(k.description);
  });
}

void flags_list(Call &c) {
  list_of(c, config_flags(), [](Out &o, const ConfigFlag &f) {
    o.u32(f.flag).text(f.name).text(f.description);
  });
}

void config_set(Call &c) {
  std::string key, text;
  if (!c.in.text(key) || !c.in.text(text) || !c.in.end()) return c.malformed();
  ResourceData *d = c.change(*c.store.resource(TQDB_RESOURCE_CONFIG));
  if (!d) return;
  const ConfigKey *k = find_config_key(key);
  if (!k) return c.error("Unknown configuration key '" + key + "'");
  std::string value;
  if (std::string why = config_value_problem(*k, text, value); !why.empty()) return c.error(why);
  d->config.values[k->key] = std::move(value);
  c.ok();
}

void log_facility_list(Call &c) {
  if (!c.in.end()) return c.malformed();
  const LogLevels &logs = view_logs(c);
  ListAnswer a(c);
  for (unsigned f = 0; f < TQ_LOG_NUM_FACILITIES; ++f) {
    a.out().text(tq_log_facility_name(f)).u32(logs.level(f));
    a.next();
  }
  a.finish();
}

void log_facility_set_level(Call &c) {
  std::string name;
  uint32_t level = 0;
  if (!c.in.text(name) || !c.in.u32(level) || !c.in.end()) return c.malformed();
  if (tq_log_facility_lookup(name.c_str()) < 0)
    return c.error("Unknown log facility '" + name + "'");
  if (level >= TQ_LOG_NUM_LEVELS)
    return c.error(format("Log level %u is out of range (0 Emergency to 8 Verbose)", level));
  LogLevels *logs = change_logs(c);
  if (!logs) return;
  logs->levels[name] = level;
  c.ok();
}

void log_facility_reset(Call &c) {
  if (!c.in.end()) return c.malformed();
  LogLevels *logs = change_logs(c);
  if (!logs) return;
  logs->levels.clear();
  c.ok();
}

void system_time(Call &c) {
  if (!c.in.end()) return c.malformed();
  Msg m = c.data();
  if (m) tq_msg_put_uint64(m.get(), c.hub.now());
  c.reply(std::move(m));
}

constexpr auto H = Header::kSessionCid;
constexpr auto S = Access::kSession;
constexpr Route kRoutes[] = {
    {TQDB_REQ_CONFIG_LIST, "config_list", H, S, config_list},
    {TQDB_REQ_CONFIG_SET, "config_set", H, S, config_set},
    {TQDB_REQ_CONFIG_CATEGORY_LIST, "config_category_list", H, S, category_list},
    {TQDB_REQ_CONFIG_FLAGS_LIST, "config_flags_list", H, S, flags_list},
    {TQDB_REQ_LOG_FACILITY_RESET, "log_facility_reset", H, S, log_facility_reset},
    {TQDB_REQ_LOG_FACILITY_LIST, "log_facility_list", H, S, log_facility_list},
    {TQDB_REQ_LOG_FACILITY_SET_LEVEL, "log_facility_set_level", H, S, log_facility_set_level},
    {TQDB_REQ_SYSTEM_TIME, "system_time", H, S, system_time},
};

}  // namespace

std::span<const Route> family_config() { return kRoutes; }

}  // namespace tqsim
