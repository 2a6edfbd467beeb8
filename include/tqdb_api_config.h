// Appliance-wide administration: configuration values with their
// categories and flags, system services, the feature set, restart and
// reload, and the levels of the appliance's log facilities
// (api/config, api/services, api/features).
//
// Lists come back as DATA messages ended by OK; each decoder appends the
// records of one DATA message behind the list it is given, in wire order.
// Records are flat and released with tqdb_api_config_list_free.
//
// Restart and reload are made outside any session (session word 0). The
// appliance answers them, and tells every other connection, with a notice
// of type 9 (restarting) or 10 (reloading) that carries no header words, so
// it cannot be matched by correlation id: callers recognise it by type.
#ifndef TQDB_API_CONFIG_H
#define TQDB_API_CONFIG_H

#include <cstddef>
#include <cstdint>
#include <span>

#include "tqdb_api.h"

struct tq_list_t;

inline constexpr uint32_t TQDB_REQ_RESTART = 0x10002;
inline constexpr uint32_t TQDB_REQ_RELOAD = 0x10003;
inline constexpr uint32_t TQDB_REQ_CONFIG_LIST = 0x19400;
inline constexpr uint32_t TQDB_REQ_CONFIG_SET = 0x19401;
inline constexpr uint32_t TQDB_REQ_CONFIG_CATEGORY_LIST = 0x19403;
inline constexpr uint32_t TQDB_REQ_CONFIG_FLAGS_LIST = 0x19404;
inline constexpr uint32_t TQDB_REQ_SERVICES_CMD = 0x19600;
inline constexpr uint32_t TQDB_REQ_SERVICES_LIST = 0x19601;
inline constexpr uint32_t TQDB_REQ_SERVICES_PROP_LIST = 0x19602;
inline constexpr uint32_t TQDB_REQ_SERVICES_CMD_PROPS = 0x19603;
inline constexpr uint32_t TQDB_REQ_FEATURES_GET = 0x19700;
inline constexpr uint32_t TQDB_REQ_LOG_FACILITY_RESET = 0x1A102;
inline constexpr uint32_t TQDB_REQ_LOG_FACILITY_LIST = 0x1A103;
inline constexpr uint32_t TQDB_REQ_LOG_FACILITY_SET_LEVEL = 0x1A104;
inline constexpr uint32_t TQDB_REQ_SYSTEM_TIME = 0x1A401;

// The type of a configuration value, as the appliance checks it.
enum tqdb_api_config_type : uint32_t {
  TQDB_CONFIG_TYPE_STRING = 1,
  TQDB_CONFIG_TYPE_INTEGER = 2,
  TQDB_CONFIG_TYPE_IPADDRESS = 3,
  TQDB_CONFIG_TYPE_FLOAT = 4,
  TQDB_CONFIG_TYPE_BOOLEAN = 5,
  TQDB_CONFIG_TYPE_INVISIBLE = 128,  // never shown in the appliance's own interfaces
};

// Bits of the feature set.
enum tqdb_api_features : uint64_t {
  TQDB_FEATURES_BGP = 1,
  TQDB_FEATURES_FW = 2,
  TQDB_FEATURES_SHAPING = 4,
  TQDB_FEATURES_STATISTICS = 8,
  TQDB_FEATURES_CONNLOG = 16,
  TQDB_FEATURES_ENTERPRISE = 32,
  TQDB_FEATURES_MONITOR = 64,
  TQDB_FEATURES_ATS = 128,
  TQDB_FEATURES_VBS = 256,
  TQDB_FEATURES_SORVIK = 512,
  TQDB_FEATURES_SYMANTEC = 1024,
  TQDB_FEATURES_CGNAT = 2048,
};

inline constexpr size_t TQDB_API_CONFIG_TEXT_MAX = 255;   // characters
inline constexpr size_t TQDB_API_SERVICE_NAME_MAX = 64;   // characters
inline constexpr size_t TQDB_API_LOG_FACILITY_NAME_SIZE = 256;  // terminator included
// The most of a restart or reload reason that the notice decoders keep.
inline constexpr size_t TQDB_API_NOTICE_REASON_SIZE = 1024;  // terminator included

// Label "tqdb_api_configvalue_t".
struct tqdb_api_configvalue_t {
  char key[TQDB_API_CONFIG_TEXT_MAX + 1];
  char value[TQDB_API_CONFIG_TEXT_MAX + 1];  // as text, whatever the type
  char default_value[TQDB_API_CONFIG_TEXT_MAX + 1];
  char category[TQDB_API_CONFIG_TEXT_MAX + 1];
  char description[TQDB_API_CONFIG_TEXT_MAX + 1];
  uint32_t type;   // TQDB_CONFIG_TYPE_*
  uint32_t flags;  // bits of the flag list
};

// Label "tqdb_api_config_category_t".
struct tqdb_api_config_category_t {
  uint32_t id;
  char name[TQDB_API_CONFIG_TEXT_MAX + 1];
  char description[TQDB_API_CONFIG_TEXT_MAX + 1];
};

// Label "tqdb_api_config_flag_t".
struct tqdb_api_config_flag_t {
  uint32_t flag;  // its bit value
  char name[TQDB_API_CONFIG_TEXT_MAX + 1];
  char description[TQDB_API_CONFIG_TEXT_MAX + 1];
};

// Label "tqdb_api_service_t".
struct tqdb_api_service_t {
  char name[TQDB_API_SERVICE_NAME_MAX + 1];
  char description[TQDB_API_CONFIG_TEXT_MAX + 1];
  uint8_t running;
  uint8_t enabled;
};

// Label "tqdb_api_service_prop_t".
struct tqdb_api_service_prop_t {
  char service[TQDB_API_SERVICE_NAME_MAX + 1];
  char property[TQDB_API_SERVICE_NAME_MAX + 1];
  char value[TQDB_API_CONFIG_TEXT_MAX + 1];
};

// Label "tqdb_api_log_level_t". `index` is not on the wire: the record's
// place in the answer, from 0, counted across the replies decoded into one
// list.
struct tqdb_api_log_level_t {
  char name[TQDB_API_LOG_FACILITY_NAME_SIZE];
  uint32_t level;
  uint32_t index;
};

// One command of services_cmd, and one property setting (borrowed texts).
struct tqdb_api_service_cmd_t {
  const char *service;
  const char *command;  // "start", "stop", "restart", "enable", "disable"
};
struct tqdb_api_service_setting_t {
  const char *service;
  const char *property;
  const char *value;
};

// --- configuration and log facilities (api/config) -----------------------------------
uint32_t tqdb_api_config_list(tqdb_api_handle_t *h, uint32_t session);
// The value goes as text whatever the key's type; the appliance checks it.
uint32_t tqdb_api_config_set(tqdb_api_handle_t *h, uint32_t session, const char *key,
                             const char *value);
uint32_t tqdb_api_config_category_list(tqdb_api_handle_t *h, uint32_t session);
uint32_t tqdb_api_config_flags_list(tqdb_api_handle_t *h, uint32_t session);
uint32_t tqdb_api_log_facility_reset(tqdb_api_handle_t *h, uint32_t session);
uint32_t tqdb_api_log_facility_list(tqdb_api_handle_t *h, uint32_t session);
uint32_t tqdb_api_log_facility_set_level(tqdb_api_handle_t *h, uint32_t session,
                                         const char *facility, uint32_t level);
uint32_t tqdb_api_system_time(tqdb_api_handle_t *h, uint32_t session);

// Records cut short end the list and are reported once.
tq_list_t *tqdb_api_config_list_handle(tqdb_api_msg_t *env, tq_list_t *list);
tq_list_t *tqdb_api_config_category_list_handle(tqdb_api_msg_t *env, tq_list_t *list);
tq_list_t *tqdb_api_config_flags_list_handle(tqdb_api_msg_t *env, tq_list_t *list);
// Reads (name, level) records until a read fails; the record that failed is
// dropped and nothing is reported: the end of the body ends the list.
tq_list_t *tqdb_api_log_facility_list_handle(tqdb_api_msg_t *env, tq_list_t *list);
// The appliance's clock in Unix seconds; 0 for another reply or one cut
// short (reported).
uint64_t tqdb_api_system_time_handle(tqdb_api_msg_t *env);
void tqdb_api_config_list_free(tq_list_t *list);

// --- services, restart and reload (api/services) --------------------------------------
// Without settings: 0x19600; with at least one: 0x19603. Entries go in the
// order given.
uint32_t tqdb_api_services_cmd(tqdb_api_handle_t *h, uint32_t session,
                               std::span<const tqdb_api_service_cmd_t> cmds,
                               std::span<const tqdb_api_service_setting_t> settings);
uint32_t tqdb_api_services_list(tqdb_api_handle_t *h, uint32_t session);
uint32_t tqdb_api_services_prop_list(tqdb_api_handle_t *h, uint32_t session);
tq_list_t *tqdb_api_services_list_handle(tqdb_api_msg_t *env, tq_list_t *list);
tq_list_t *tqdb_api_services_prop_list_handle(tqdb_api_msg_t *env, tq_list_t *list);

// Session word 0. reason nullptr: an empty body; otherwise the reason as a
// string when it fits in the message, else an empty body.
uint32_t tqdb_api_restart(tqdb_api_handle_t *h, const char *reason);
uint32_t tqdb_api_reload(tqdb_api_handle_t *h, const char *reason);
// The reason of a restarting (type 9) / reloading (type 10) notice, cut to
// size - 1 characters. false for any other type, or a body without its
// string (reported once).
bool tqdb_api_restarting_handle(tqdb_api_msg_t *env, char *buf, size_t size);
bool tqdb_api_reloading_handle(tqdb_api_msg_t *env, char *buf, size_t size);

// --- the feature set (api/features) ---------------------------------------------------
uint32_t tqdb_api_features_get(tqdb_api_handle_t *h, uint32_t session);
// Every bit set for a reply that is not DATA (deliberate: callers that test
// a feature of a failed reply see it offered); 0 and one report named
// "tqdb_api_features_get_handle" for a body shorter than 8 bytes.
uint64_t tqdb_api_features_get_handle(tqdb_api_msg_t *env);

#endif
