// The simulator's configuration, services and log facility levels.
//
// The keys, categories, flags and services an appliance offers are fixed
// tables (config.cc); what a resource keeps is only what has been set or
// changed, so a value never set reads as its default, and a state file
// written by an older simulator stays readable.
//
//   resource 4 ("config"):  configuration values (changed by config_set in
//                           the session's own transaction) and the state of
//                           the services (changed by services_cmd: at once
//                           while 4 is free, inside the transaction of the
//                           session that holds it)
//   resource 9 ("logs"):    the levels of the library's 65 log facilities
#ifndef TQSIM_CONFIG_H
#define TQSIM_CONFIG_H

#include <cstdint>
#include <map>
#include <span>
#include <string>
#include <string_view>

#include "state_io.h"

namespace tqsim {

inline constexpr std::size_t kConfigTextMax = 255;

struct ConfigKey {
  const char *key;
  uint32_t type;  // CONFIG_TYPE_*
  const char *default_value;
  const char *category;
  uint32_t flags;  // ConfigFlag bits
  const char *description;
};
struct ConfigCategory {
  uint32_t id;
  const char *name;
  const char *description;
};
struct ConfigFlag {
  uint32_t flag;
  const char *name;
  const char *description;
};
inline constexpr uint32_t kConfigReadOnly = 4;

struct ServiceProperty {
  const char *name;
  const char *default_value;
};
struct ServiceDef {
  const char *name;
  const char *description;
  bool running;  // at start
  bool enabled;
  std::span<const ServiceProperty> properties;
};

std::span<const ConfigKey> config_keys();
std::span<const ConfigCategory> config_categories();
std::span<const ConfigFlag> config_flags();
std::span<const ServiceDef> service_defs();
const ConfigKey *find_config_key(std::string_view key);
const ServiceDef *find_service(std::string_view name);

// Empty when text is a value of key's type (kept as canonical stores it,
// e.g. "true" for "1"), else the refusal.
std::string config_value_problem(const ConfigKey &key, std::string_view text,
                                 std::string &canonical);

struct ServiceState {
  std::string name;
  uint8_t running = 0;
  uint8_t enabled = 0;
  std::map<std::string, std::string> properties;  // the ones set
};

// Resource "config" (4).
struct Config {
  std::map<std::string, std::string> values;      // key -> value as set
  std::map<std::string, ServiceState> services;   // the services touched

  std::string value(const ConfigKey &k) const;
  // The state of a service as it stands (its defaults when never touched).
  ServiceState service(const ServiceDef &s) const;
  std::string property(const ServiceDef &s, const ServiceProperty &p) const;
};
void io(Io &io, ServiceState &s);
void io(Io &io, Config &c);

// Resource "logs" (9).
struct LogLevels {
  std::map<std::string, uint32_t> levels;  // facility name -> level, the ones set

  uint32_t level(unsigned facility) const;
};
void io(Io &io, LogLevels &l);
// The level a facility has before anyone sets it.
uint32_t default_log_level(unsigned facility);

}  // namespace tqsim

#endif
