// System services (0x196xx), restart (0x10002) and reload (0x10003).
//
// Services belong to resource 4 (config): commanding them needs the write
// bit of 4 and applies at once while 4 is free, inside the transaction of
// the session that holds it (LOCK for the others). A command list is
// checked whole before any of it applies.
//
// Restart and reload are made outside sessions and need the write bit of
// 4 too. Every connection is told (notice of type 9 / 10 with the reason);
// a restart then closes every connection, rolling back what was not
// committed, and the simulator takes new connections on the same port.
#include <utility>
#include <vector>

#include "answer.h"
#include "config.h"
#include "dispatch.h"
#include "tqdb_api.h"
#include "tqdb_api_config.h"
#include "users.h"

namespace tqsim {
namespace {

constexpr uint32_t kConfigResource = TQDB_RESOURCE_CONFIG;

const Config &view_config(Call &c) { return c.view(*c.store.resource(kConfigResource)).config; }

void services_list(Call &c) {
  if (!c.in.end()) return c.malformed();
  const Config &cfg = view_config(c);
  ListAnswer a(c);
  for (const ServiceDef &s : service_defs()) {
    const ServiceState st = cfg.service(s);
    a.out().text(s.name).text(s.description).u8(st.running).u8(st.enabled);
    a.next();
  }
  a.finish();
}

void prop_list(Call &c) {
  if (!c.in.end()) return c.malformed();
  const Config &cfg = view_config(c);
  ListAnswer a(c);
  for (const ServiceDef &s : service_defs()) {
    for (const ServiceProperty &p : s.properties) {
      a.out().text(s.name).text(p.name).text(cfg.property(s, p));
      a.next();
    }
  }
  a.finish();
}

// What a command does to a service's state.
struct Command {
  const char *name;
  uint8_t ServiceState::*field;
  uint8_t value;
};
constexpr Command kCommands[] = {
    {"start", &ServiceState::running, 1},   {"stop", &ServiceState::running, 0},
    {"restart", &ServiceState::running, 1}, {"enable", &ServiceState::enabled, 1},
    {"disable", &ServiceState::enabled, 0},
};

struct Step {
  const ServiceDef *service;
  const Command *command;
};
struct Setting {
  const ServiceDef *service;
  std::string property;
  std::string value;
};

// Body: u32 n, n x (service, command)[, u32 m, m x (service, property,
// value) for 0x19603].
void services_cmd(Call &c) {
  std::vector<Step> steps;
  std::vector<Setting> settings;
  std::vector<std::string> refusals;  // answered after the permission and lock checks
  uint32_t n = 0;
  if (!c.in.u32(n)) return c.malformed();
  for (uint32_t i = 0; i < n; ++i) {
    std::string service, command;
    if (!c.in.text(service) || !c.in.text(command)) return c.malformed();
    const ServiceDef *s = find_service(service);
    const Command *cmd = nullptr;
    for (const Command &k : kCommands)
      if (command == k.name) cmd = &k;
    if (!s) refusals.push_back("Unknown service '" + service + "'");
    if (!cmd)
      refusals.push_back("Unknown command '" + command + "' for service '" + service +
                        "' (commands: start, stop, restart, enable, disable)");
    steps.push_back({s, cmd});
  }
  if (c.code == TQDB_REQ_SERVICES_CMD_PROPS) {
    if (!c.in.u32(n)) return c.malformed();
    for (uint32_t i = 0; i < n; ++i) {
      std::string service;
      Setting set;
      if (!c.in.text(service) || !c.in.text(set.property) || !c.in.text(set.value))
        return c.malformed();
      set.service = find_service(service);
      bool known = false;
      if (set.service)
        for (const ServiceProperty &p : set.service->properties) known |= set.property == p.name;
      if (!set.service)
        refusals.push_back("Unknown service '" + service + "'");
      else if (!known)
        refusals.push_back("Service '" + service + "' has no property '" + set.property + "'");
      else if (set.value.size() > kConfigTextMax)
        refusals.push_back("A property value has at most 255 bytes");
      settings.push_back(std::move(set));
    }
  }
  if (!c.in.end()) return c.malformed();
  if (!permitted(c, kConfigResource, Permission::kWrite)) return;
  ResourceData *d = c.edit(*c.store.resource(kConfigResource));
  if (!d) return;
  if (!refusals.empty()) return c.error(refusals.front());
  Config &cfg = d->config;
  const auto state = [&](const ServiceDef &s) -> ServiceState & {
    return cfg.services.try_emplace(s.name, cfg.service(s)).first->second;
  };
  for (const Step &st : steps) state(*st.service).*(st.command->field) = st.command->value;
  for (Setting &set : settings) state(*set.service).properties[set.property] = std::move(set.value);
  c.ok();
}

// Body: empty, or the reason.
bool notice_reason(Call &c, std::string &reason) {
  reason.clear();
  if (c.in.left() > 0 && !c.in.text(reason)) return false;
  return c.in.end();
}

void restart(Call &c) {
  std::string reason;
  if (!notice_reason(c, reason)) return c.malformed();
  if (!permitted(c, kConfigResource, Permission::kWrite)) return;
  c.hub.restart(reason);
}

void reload(Call &c) {
  std::string reason;
  if (!notice_reason(c, reason)) return c.malformed();
  if (!permitted(c, kConfigResource, Permission::kWrite)) return;
  c.hub.reload(reason);
}

constexpr auto H = Header::kSessionCid;
constexpr auto S = Access::kSession;
constexpr Route kRoutes[] = {
    {TQDB_REQ_RESTART, "restart", H, Access::kLoggedIn, restart},
    {TQDB_REQ_RELOAD, "reload", H, Access::kLoggedIn, reload},
    {TQDB_REQ_SERVICES_CMD, "services_cmd", H, S, services_cmd},
    {TQDB_REQ_SERVICES_LIST, "services_list", H, S, services_list},
    {TQDB_REQ_SERVICES_PROP_LIST, "services_prop_list", H, S, prop_list},
    {TQDB_REQ_SERVICES_CMD_PROPS, "services_cmd_props", H, S, services_cmd},
};

}  // namespace

std::span<const Route> family_services() { return kRoutes; }

}  // namespace tqsim
