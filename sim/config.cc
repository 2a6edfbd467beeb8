#include "config.h"

#include <arpa/inet.h>
#include <cerrno>
#include <cmath>
#include <cstdlib>
#include <string_view>
#include <vector>

#include "tq_log.h"
#include "tqdb_api_config.h"
#include "util.h"

namespace tqsim {
namespace {

constexpr uint32_t kRestart = 1, kReboot = 2, kExpert = 8;

constexpr ConfigCategory kCategories[] = {
    {1, "system", "The appliance itself"},
    {2, "network", "Management network and name service"},
    {3, "shaping", "Traffic shaping"},
    {4, "statistics", "Statistics collection"},
    {5, "logging", "Logging and connection log"},
};

constexpr ConfigFlag kFlags[] = {
    {kRestart, "restart", "Changing it restarts the services that use it"},
    {kReboot, "reboot", "Takes effect after the next reboot"},
    {kConfigReadOnly, "readonly", "Set by the appliance; cannot be changed"},
    {kExpert, "expert", "Shown in expert mode only"},
};

constexpr auto S = TQDB_CONFIG_TYPE_STRING, I = TQDB_CONFIG_TYPE_INTEGER,
               A = TQDB_CONFIG_TYPE_IPADDRESS, F = TQDB_CONFIG_TYPE_FLOAT,
               B = TQDB_CONFIG_TYPE_BOOLEAN, H = TQDB_CONFIG_TYPE_INVISIBLE;

constexpr ConfigKey kKeys[] = {
    {"system.hostname", S, "tqdbsim", "system", kRestart, "Name of the appliance"},
    {"system.timezone", S, "UTC", "system", kReboot, "Time zone of the appliance's clock"},
    {"system.serial", S, "TQSIM-0001", "system", kConfigReadOnly, "Serial number"},
    {"system.support_token", H, "", "system", kExpert, "Token of the support channel"},
    {"system.dns", A, "192.0.2.53", "network", kRestart, "Name server"},
    {"system.ntp_server", A, "192.0.2.123", "network", kRestart, "Time server"},
    {"network.mgmt_address", A, "192.0.2.10", "network", kReboot, "Management address"},
    {"network.mtu", I, "1500", "network", kReboot, "MTU of the management interface"},
    {"shaping.enabled", B, "true", "shaping", 0, "Traffic shaping on"},
    {"shaping.max_rate", I, "10000000", "shaping", 0, "Largest shaping rate in kbps"},
    {"shaping.burst_ratio", F, "1.5", "shaping", kExpert, "Burst allowance over the rate"},
    {"stats.enabled", B, "true", "statistics", 0, "Statistics collection on"},
    {"stats.retention_days", I, "30", "statistics", 0, "Days statistics are kept"},
    {"stats.sample_ratio", F, "0.25", "statistics", kExpert, "Share of flows sampled"},
    {"connlog.enabled", B, "false", "logging", kRestart, "Connection log on"},
    {"logging.remote_syslog", A, "0.0.0.0", "logging", kRestart,
     "Remote syslog server (0.0.0.0: none)"},
};

constexpr ServiceProperty kSshd[] = {{"port", "22"}, {"permit_root", "no"}};
constexpr ServiceProperty kSnmpd[] = {{"community", "public"}, {"port", "161"}};
constexpr ServiceProperty kNtpd[] = {{"server", "192.0.2.123"}};
constexpr ServiceProperty kHttpd[] = {{"port", "443"}, {"redirect_http", "yes"}};
constexpr ServiceProperty kSyslog[] = {{"target", "0.0.0.0"}, {"facility", "local0"}};
constexpr ServiceProperty kTqsd[] = {{"interval", "60"}};

constexpr ServiceDef kServices[] = {
    {"httpd", "Web interface", true, true, kHttpd},
    {"ntpd", "Network time", true, true, kNtpd},
    {"snmpd", "SNMP agent", false, false, kSnmpd},
    {"sshd", "Secure shell server", true, true, kSshd},
    {"syslog", "Remote syslog forwarder", false, false, kSyslog},
    {"tqsd", "Statistics collector", true, true, kTqsd},
};

// The facilities that start quieter or louder than "Info".
struct LevelException {
  std::string_view name;
  uint32_t level;
};
constexpr LevelException kLevelExceptions[] = {
    {"Audit Modify", TQ_LOG_WARNING},          {"Audit View", TQ_LOG_WARNING},
    {"Database Audit Modify", TQ_LOG_WARNING}, {"Database Audit View", TQ_LOG_WARNING},
    {"DEBUG", TQ_LOG_DEBUG},
};

bool lower_is(std::string_view text, std::string_view want) {
  if (text.size() != want.size()) return false;
  for (std::size_t i = 0; i < text.size(); ++i)
    if ((text[i] | 0x20) != want[i]) return false;
  return true;
}

}  // namespace

std::span<const ConfigKey> config_keys() { return kKeys; }
std::span<const ConfigCategory> config_categories() { return kCategories; }
std::span<const ConfigFlag> config_flags() { return kFlags; }
std::span<const ServiceDef> service_defs() { return kServices; }

const ConfigKey *find_config_key(std::string_view key) {
  for (const ConfigKey &k : kKeys)
    if (key == k.key) return &k;
  return nullptr;
}

const ServiceDef *find_service(std::string_view name) {
  for (const ServiceDef &s : kServices)
    if (name == s.name) return &s;
  return nullptr;
}

std::string config_value_problem(const ConfigKey &key, std::string_view text,
                                 std::string &canonical) {
  canonical.assign(text);
  if (text.size() > kConfigTextMax)
    return format("A configuration value has at most %zu bytes, not %zu", kConfigTextMax,
                  text.size());
  if (key.flags & kConfigReadOnly) return format("Configuration key '%s' is read-only", key.key);
  const std::string s(text);
  const auto refuse = [&](const char *what) {
    return format("Configuration key '%s' takes %s, not '%s'", key.key, what, s.c_str());
  };
  switch (key.type) {
    case TQDB_CONFIG_TYPE_INTEGER: {
      char *end = nullptr;
      errno = 0;
      std::strtoll(s.c_str(), &end, 10);
      if (s.empty() || *end != '\0' || errno == ERANGE || s[0] == ' ' || s[0] == '+')
        return refuse("an integer");
      return {};
    }
    case TQDB_CONFIG_TYPE_FLOAT: {
      char *end = nullptr;
      const double v = std::strtod(s.c_str(), &end);
      if (s.empty() || *end != '\0' || !std::isfinite(v) || s[0] == ' ') return refuse("a number");
      return {};
    }
    case TQDB_CONFIG_TYPE_BOOLEAN:
      if (lower_is(text, "true") || text == "1") {
        canonical = "true";
      } else if (lower_is(text, "false") || text == "0") {
        canonical = "false";
      } else {
        return refuse("true or false");
      }
      return {};
    case TQDB_CONFIG_TYPE_IPADDRESS: {
      unsigned char buf[16];
      if (inet_pton(AF_INET, s.c_str(), buf) != 1 && inet_pton(AF_INET6, s.c_str(), buf) != 1)
        return refuse("an IPv4 or IPv6 address");
      return {};
    }
    default:  // STRING, INVISIBLE: any text
      return {};
  }
}

std::string Config::value(const ConfigKey &k) const {
  auto it = values.find(k.key);
  return it != values.end() ? it->second : k.default_value;
}

ServiceState Config::service(const ServiceDef &s) const {
  if (auto it = services.find(s.name); it != services.end()) return it->second;
  return {s.name, static_cast<uint8_t>(s.running), static_cast<uint8_t>(s.enabled), {}};
}

std::string Config::property(const ServiceDef &s, const ServiceProperty &p) const {
  if (auto it = services.find(s.name); it != services.end())
    if (auto v = it->second.properties.find(p.name); v != it->second.properties.end())
      return v->second;
  return p.default_value;
}

void io(Io &io, ServiceState &s) {
  io.field("name", s.name);
  io.field("running", s.running);
  io.field("enabled", s.enabled);
  io.attributes("properties", s.properties);
}

void io(Io &io, Config &c) {
  io.attributes("values", c.values);
  std::vector<ServiceState> services;
  for (auto &[name, st] : c.services) services.push_back(st);
  io.list("services", services);
  if (!io.loading()) return;
  c.services.clear();
  for (ServiceState &st : services) c.services[st.name] = std::move(st);
}

uint32_t LogLevels::level(unsigned facility) const {
  const char *name = tq_log_facility_name(facility);
  if (name == nullptr) return 0;
  auto it = levels.find(name);
  return it != levels.end() ? it->second : default_log_level(facility);
}

namespace {
// One facility whose level has been set, as the state file keeps it.
struct FacilityLevel {
  std::string name;
  uint32_t level = 0;
};
void io(Io &io, FacilityLevel &f) {
  io.field("name", f.name);
  io.field("level", f.level);
}
}  // namespace

void io(Io &io, LogLevels &l) {
  std::vector<FacilityLevel> set;
  for (auto &[name, level] : l.levels) set.push_back({name, level});
  io.list("levels", set);
  if (!io.loading()) return;
  l.levels.clear();
  for (const FacilityLevel &f : set) {
    if (tq_log_facility_lookup(f.name.c_str()) < 0 || f.level >= TQ_LOG_NUM_LEVELS)
      return io.fail("levels: '" + f.name + "' is not a facility with a level 0 to 8");
    l.levels[f.name] = f.level;
  }
}

uint32_t default_log_level(unsigned facility) {
  const char *name = tq_log_facility_name(facility);
  if (name == nullptr) return 0;
  for (const LevelException &e : kLevelExceptions)
    if (e.name == name) return e.level;
  return TQ_LOG_INFO;
}

}  // namespace tqsim
