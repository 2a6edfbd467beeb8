// System diagnostics: levels (limits on monitored values), zones (named
// groups of values that a client registers and keeps updated), the
// diagnostic log and the allocator's memory usage.
//
// Records are flat, zero-filled blocks of the tracked allocator under their
// type's name, so a list of them is released with tq_list_free_with_data.
// A zone's value descriptions live in the same block behind the zone
// (values points there), so a zone is flat too.
//
// Every list decoder appends the reply's records, in reply order, behind
// the list it is given and returns the new head (the given list when the
// reply is not DATA). A record cut short is dropped with the rest of the
// body and reported once through the envelope's corrupt callback; the level
// list only stops.
#ifndef TQDB_API_SYSDIAG_H
#define TQDB_API_SYSDIAG_H

#include <cstddef>
#include <cstdint>
#include <span>

#include "tqdb_api.h"

struct tq_list_t;

inline constexpr uint32_t TQDB_REQ_SYSDIAG_LEVEL_LIST = 0x19E01;
inline constexpr uint32_t TQDB_REQ_SYSDIAG_LEVEL_UPDATE = 0x19E02;
inline constexpr uint32_t TQDB_REQ_SYSDIAG_LEVEL_GET = 0x19E10;
inline constexpr uint32_t TQDB_REQ_SYSDIAG_MALLOC_USAGE_LIST = 0x19E11;
inline constexpr uint32_t TQDB_REQ_SYSDIAG_MALLOC_USAGE_GET = 0x19E12;
inline constexpr uint32_t TQDB_REQ_SYSDIAG_ZONE_REGISTER = 0x19E20;
inline constexpr uint32_t TQDB_REQ_SYSDIAG_ZONE_UPDATE_VALUES = 0x19E21;
inline constexpr uint32_t TQDB_REQ_SYSDIAG_ZONE_UNREGISTER = 0x19E22;
inline constexpr uint32_t TQDB_REQ_SYSDIAG_ZONE_LIST = 0x19E23;
inline constexpr uint32_t TQDB_REQ_SYSDIAG_ZONE_GET = 0x19E24;
inline constexpr uint32_t TQDB_REQ_SYSDIAG_ZONE_VALUE_GET = 0x19E25;
inline constexpr uint32_t TQDB_REQ_SYSDIAG_ZONE_VERSION = 0x19E26;
inline constexpr uint32_t TQDB_REQ_SYSDIAG_ZONE_SYSTEM_NAME_GET = 0x19E27;
inline constexpr uint32_t TQDB_REQ_SYSDIAG_ZONE_SYSTEM_NAME_SET = 0x19E28;
inline constexpr uint32_t TQDB_REQ_SYSDIAG_ZONE_ALERTED = 0x19E29;
inline constexpr uint32_t TQDB_REQ_SYSDIAG_LOG_POST = 0x19E30;
inline constexpr uint32_t TQDB_REQ_SYSDIAG_LOG_LIST = 0x19E31;
inline constexpr uint32_t TQDB_REQ_SYSDIAG_LOG_ACK = 0x19E32;
inline constexpr uint32_t TQDB_REQ_SYSDIAG_LOG_ACK_ALL = 0x19E33;
inline constexpr uint32_t TQDB_REQ_SYSDIAG_ZONE_ENUM_VALUES = 0x19E35;

enum tqdb_api_sysdiag_zone_type : uint32_t {
  TQDB_SYSDIAG_ZONE_TYPE_MOMENT = 0,
  TQDB_SYSDIAG_ZONE_TYPE_SIZE = 1,
  TQDB_SYSDIAG_ZONE_TYPE_SPEED = 2,
  TQDB_SYSDIAG_ZONE_TYPE_TIMESPAN = 3,
  TQDB_SYSDIAG_ZONE_TYPE_PERCENT = 4,
  TQDB_SYSDIAG_ZONE_TYPE_TIME = 5,
  TQDB_SYSDIAG_ZONE_TYPE_BITMASK = 6,
  TQDB_SYSDIAG_ZONE_TYPE_MEMORY = 7,
  TQDB_SYSDIAG_ZONE_TYPE_ENUM = 8,
  TQDB_SYSDIAG_ZONE_TYPE_UNFORMATTED = 9,
};
inline constexpr uint32_t TQDB_SYSDIAG_ZONE_FLAGS_DEBUG_ONLY = 1;
inline constexpr uint32_t TQDB_SYSDIAG_ZONE_FLAGS_SINGLE_INSTANCE = 2;
inline constexpr uint32_t TQDB_SYSDIAG_ZONE_FLAGS_HIDDEN = 4;
inline constexpr uint32_t TQDB_SYSDIAG_LOG_SEVERITY_INFO = 0;
inline constexpr uint32_t TQDB_SYSDIAG_LOG_SEVERITY_WARNING = 1;
inline constexpr uint32_t TQDB_SYSDIAG_LOG_SEVERITY_CRITICAL = 2;

// Zone value record: range values and alert bits.
inline constexpr uint32_t TQDB_SYSDIAG_RANGE_WITHIN = 0;
inline constexpr uint32_t TQDB_SYSDIAG_RANGE_BELOW = 1;
inline constexpr uint32_t TQDB_SYSDIAG_RANGE_ABOVE = 2;
inline constexpr uint32_t TQDB_SYSDIAG_ALERT_VALUE = 1;
inline constexpr uint32_t TQDB_SYSDIAG_ALERT_RATE = 2;

// --- records ----------------------------------------------------------------------------
struct tqdb_api_sysdiag_level_t {
  uint32_t oid_a;  // the zone's oid
  uint32_t oid_b;  // the value's id in the zone
  uint64_t minimum;
  uint64_t maximum;
  uint64_t minimum_rate;
  uint64_t maximum_rate;
  char comment[1024];
  char trigger[256];
  char name[256];
};

// One value of a zone as registered.
struct tqdb_api_sysdiag_zone_valuedef_t {
  uint32_t id;  // from 1, in order
  char name[64];
  uint32_t type;   // TQDB_SYSDIAG_ZONE_TYPE_*
  uint32_t flags;  // TQDB_SYSDIAG_ZONE_FLAGS_*
};

struct tqdb_api_sysdiag_zone_t {
  uint32_t oid;  // 0 when registering: the appliance assigns it
  char name[64];
  uint32_t systemid;
  uint32_t flags;
  uint32_t n;  // values
  // n descriptions; in a decoded zone they follow the zone in its block.
  tqdb_api_sysdiag_zone_valuedef_t *values;
};

struct tqdb_api_sysdiag_zone_value_t {
  uint32_t range;  // TQDB_SYSDIAG_RANGE_*
  uint32_t level;  // 1 when the value has a level
  uint32_t id;
  uint32_t systemid;
  uint64_t value;
  uint64_t rate;  // per second
  uint64_t min;
  uint64_t max;
  uint64_t min_tstamp;  // Unix seconds
  uint64_t max_tstamp;
  uint32_t alert_flags;  // TQDB_SYSDIAG_ALERT_*
};

struct tqdb_api_sysdiag_log_entry_t {
  uint32_t id;
  char system[64];
  uint32_t systemid;
  uint64_t tstamp;
  uint8_t is_new;
  uint32_t severity;  // TQDB_SYSDIAG_LOG_SEVERITY_*
  char title[256];
  char body[4096];
};

// A (system, zone) whose allocator can be asked for its usage.
struct tqdb_api_sysdiag_malloc_usage_entry_t {
  char systemname[64];
  char zonename[64];
};

// The allocator's statistics of one label.
struct tq_malloc_usage_t {
  char label[64];
  uint64_t bytes;
  uint32_t allocations;
  uint32_t entries;
  uint64_t leak_bytes;
  uint32_t leak_count;
};

struct tq_sysdiag_enum_value_t {
  uint32_t value;
  char name[64];
};

// --- requests (correlation id, or 0) ----------------------------------------------------
uint32_t tqdb_api_sysdiag_level_list(tqdb_api_handle_t *h, uint32_t session);
uint32_t tqdb_api_sysdiag_level_update(tqdb_api_handle_t *h, uint32_t session, uint32_t oid_a,
                                       uint32_t oid_b, uint64_t minimum, uint64_t maximum,
                                       uint64_t minimum_rate, uint64_t maximum_rate,
                                       const char *comment, const char *trigger);
uint32_t tqdb_api_sysdiag_level_get(tqdb_api_handle_t *h, uint32_t session, uint32_t oid_a,
                                    uint32_t oid_b);
uint32_t tqdb_api_sysdiag_malloc_usage_list(tqdb_api_handle_t *h, uint32_t session);
uint32_t tqdb_api_sysdiag_malloc_usage_get(tqdb_api_handle_t *h, uint32_t session,
                                           const char *systemname, const char *zonename);
// zone->values holds zone->n descriptions; 0 for a null zone.
uint32_t tqdb_api_sysdiag_zone_register(tqdb_api_handle_t *h, uint32_t session,
                                        const tqdb_api_sysdiag_zone_t *zone);
// 0 (nothing sent) when the values cannot fit one message.
uint32_t tqdb_api_sysdiag_zone_update_values(tqdb_api_handle_t *h, uint32_t session,
                                             uint32_t zoneoid, uint32_t elapsedms,
                                             std::span<const uint64_t> values);
uint32_t tqdb_api_sysdiag_zone_unregister(tqdb_api_handle_t *h, uint32_t session, uint32_t zoneoid);
uint32_t tqdb_api_sysdiag_zone_list(tqdb_api_handle_t *h, uint32_t session);
uint32_t tqdb_api_sysdiag_zone_get(tqdb_api_handle_t *h, uint32_t session, const char *zone);
uint32_t tqdb_api_sysdiag_zone_value_get(tqdb_api_handle_t *h, uint32_t session, const char *zone,
                                         const char *value);
uint32_t tqdb_api_sysdiag_zone_version(tqdb_api_handle_t *h, uint32_t session);
uint32_t tqdb_api_sysdiag_zone_system_name_get(tqdb_api_handle_t *h, uint32_t session,
                                               uint32_t systemid);
uint32_t tqdb_api_sysdiag_zone_system_name_set(tqdb_api_handle_t *h, uint32_t session,
                                               uint32_t systemid, const char *system_name);
uint32_t tqdb_api_sysdiag_zone_alerted_zones(tqdb_api_handle_t *h, uint32_t session);
uint32_t tqdb_api_sysdiag_log_post(tqdb_api_handle_t *h, uint32_t session, uint32_t severity,
                                   const char *title, const char *body);
uint32_t tqdb_api_sysdiag_log_list(tqdb_api_handle_t *h, uint32_t session, uint8_t only_new,
                                   uint32_t min_id);
uint32_t tqdb_api_sysdiag_log_ack(tqdb_api_handle_t *h, uint32_t session, uint32_t id);
uint32_t tqdb_api_sysdiag_log_ack_all(tqdb_api_handle_t *h, uint32_t session);
uint32_t tqdb_api_sysdiag_zone_get_enum_values(tqdb_api_handle_t *h, uint32_t session,
                                               uint32_t zoneoid);

// --- decoders ---------------------------------------------------------------------------------
// Levels (level list and level get): "tqdb_api_sysdiag_level_t".
tq_list_t *tqdb_api_sysdiag_level_list_handle(tqdb_api_msg_t *env, tq_list_t *list);
// "tqdb_api_sysdiag_malloc_usage_entry_t"
tq_list_t *tqdb_api_sysdiag_malloc_usage_list_handle(tqdb_api_msg_t *env, tq_list_t *list);
// "tq_malloc_usage_t"
tq_list_t *tqdb_api_sysdiag_malloc_usage_get_handle(tqdb_api_msg_t *env, tq_list_t *list);
// Zones (zone list, zone get, alerted zones): "tqdb_api_sysdiag_zone_t".
tq_list_t *tqdb_api_sysdiag_zone_list_handle(tqdb_api_msg_t *env, tq_list_t *list);
tq_list_t *tqdb_api_sysdiag_zone_get_handle(tqdb_api_msg_t *env, tq_list_t *list);
tq_list_t *tqdb_api_sysdiag_zone_alerted_zones_handle(tqdb_api_msg_t *env, tq_list_t *list);
// "tqdb_api_sysdiag_zone_value_t"
tq_list_t *tqdb_api_sysdiag_zone_value_get_handle(tqdb_api_msg_t *env, tq_list_t *list);
// "tqdb_api_sysdiag_log_entry_t"
tq_list_t *tqdb_api_sysdiag_log_list_handle(tqdb_api_msg_t *env, tq_list_t *list);
// "tq_sysdiag_enum_value_t"
tq_list_t *tqdb_api_sysdiag_zone_get_enum_values_handle(tqdb_api_msg_t *env, tq_list_t *list);
// The zone version; false (version 0) unless the reply is DATA carrying it.
bool tqdb_api_sysdiag_zone_version_handle(tqdb_api_msg_t *env, uint32_t *version);
// The system name, cut to size - 1; false unless DATA carrying it.
bool tqdb_api_sysdiag_zone_system_name_get_handle(tqdb_api_msg_t *env, char *buf, size_t size);

#endif
