// System diagnostics: levels, zones and their values, the diagnostic log,
// memory usage. Every record is a row table walked by one reader.
#include "tqdb_api_sysdiag.h"


#include "reply_reader.h"
#include "ruleset_rows.h"
#include "tq_list.h"
#include "tq_malloc.h"
#include "tq_msg.h"
#include "tqdb_api.h"

namespace {

using Field = tqdb_api_item_field_t;

using Level = tqdb_api_sysdiag_level_t;
constexpr Field kLevel[] = {
    TQ_ROW(Level, oid_a, U32),        TQ_ROW(Level, oid_b, U32),
    TQ_ROW(Level, minimum, U64),      TQ_ROW(Level, maximum, U64),
    TQ_ROW(Level, minimum_rate, U64), TQ_ROW(Level, maximum_rate, U64),
    TQ_ROW(Level, comment, Text),     TQ_ROW(Level, trigger, Text),
    TQ_ROW(Level, name, Text)};

using Zone = tqdb_api_sysdiag_zone_t;
constexpr Field kZone[] = {TQ_ROW(Zone, oid, U32), TQ_ROW(Zone, name, Text),
                           TQ_ROW(Zone, systemid, U32), TQ_ROW(Zone, flags, U32)};

using ValueDef = tqdb_api_sysdiag_zone_valuedef_t;
constexpr Field kValueDef[] = {TQ_ROW(ValueDef, id, U32), TQ_ROW(ValueDef, name, Text),
                               TQ_ROW(ValueDef, type, U32), TQ_ROW(ValueDef, flags, U32)};

using ZoneValue = tqdb_api_sysdiag_zone_value_t;
constexpr Field kZoneValue[] = {
    TQ_ROW(ZoneValue, range, U32),      TQ_ROW(ZoneValue, level, U32),
    TQ_ROW(ZoneValue, id, U32),         TQ_ROW(ZoneValue, systemid, U32),
    TQ_ROW(ZoneValue, value, U64),      TQ_ROW(ZoneValue, rate, U64),
    TQ_ROW(ZoneValue, min, U64),        TQ_ROW(ZoneValue, max, U64),
    TQ_ROW(ZoneValue, min_tstamp, U64), TQ_ROW(ZoneValue, max_tstamp, U64),
    TQ_ROW(ZoneValue, alert_flags, U32)};

using Log = tqdb_api_sysdiag_log_entry_t;
constexpr Field kLog[] = {TQ_ROW(Log, id, U32),     TQ_ROW(Log, system, Text),
                          TQ_ROW(Log, systemid, U32), TQ_ROW(Log, tstamp, U64),
                          TQ_ROW(Log, is_new, U8),  TQ_ROW(Log, severity, U32),
                          TQ_ROW(Log, title, Text), TQ_ROW(Log, body, Text)};

using MallocEntry = tqdb_api_sysdiag_malloc_usage_entry_t;
constexpr Field kMallocEntry[] = {TQ_ROW(MallocEntry, systemname, Text),
                                  TQ_ROW(MallocEntry, zonename, Text)};

using Usage = tq_malloc_usage_t;
constexpr Field kUsage[] = {TQ_ROW(Usage, label, Text),      TQ_ROW(Usage, bytes, U64),
                            TQ_ROW(Usage, allocations, U32), TQ_ROW(Usage, entries, U32),
                            TQ_ROW(Usage, leak_bytes, U64),  TQ_ROW(Usage, leak_count, U32)};

using Enum = tq_sysdiag_enum_value_t;
constexpr Field kEnum[] = {TQ_ROW(Enum, value, U32), TQ_ROW(Enum, name, Text)};


static_assert(tq::rows_fit(sizeof(Level), kLevel) && tq::rows_fit(sizeof(Zone), kZone) &&
              tq::rows_fit(sizeof(ValueDef), kValueDef) &&
              tq::rows_fit(sizeof(ZoneValue), kZoneValue) && tq::rows_fit(sizeof(Log), kLog) &&
              tq::rows_fit(sizeof(MallocEntry), kMallocEntry) &&
              tq::rows_fit(sizeof(Usage), kUsage) && tq::rows_fit(sizeof(Enum), kEnum));

constexpr tqdb_api_item_layout_t kLevelLayout{"tqdb_api_sysdiag_level_t", sizeof(Level), kLevel};
constexpr tqdb_api_item_layout_t kZoneValueLayout{"tqdb_api_sysdiag_zone_value_t",
                                                  sizeof(ZoneValue), kZoneValue};
constexpr tqdb_api_item_layout_t kLogLayout{"tqdb_api_sysdiag_log_entry_t", sizeof(Log), kLog};
constexpr tqdb_api_item_layout_t kMallocEntryLayout{"tqdb_api_sysdiag_malloc_usage_entry_t",
                                                    sizeof(MallocEntry), kMallocEntry};
constexpr tqdb_api_item_layout_t kUsageLayout{"tq_malloc_usage_t", sizeof(Usage), kUsage};
constexpr tqdb_api_item_layout_t kEnumLayout{"tq_sysdiag_enum_value_t", sizeof(Enum), kEnum};

// The least a zone value description takes on the wire: three u32 and an
// empty string's count.
constexpr uint32_t kValueDefMin = 16;

// One zone with its value descriptions in one block; nullptr when cut short.
void *read_zone(tq::ReplyReader &r) {
  Zone head{};
  tq::read_rows(r, kZone, &head);
  const uint32_t n = r.u32();
  if (!r.ok()) return nullptr;
  // A count the body cannot hold is a reply cut short, not an allocation.
  if (n > r.left() / kValueDefMin) {
    r.fail();
    return nullptr;
  }
  auto *z = static_cast<Zone *>(
      tq_zalloc("tqdb_api_sysdiag_zone_t", sizeof(Zone) + size_t{n} * sizeof(ValueDef)));
  *z = head;
  z->n = n;
  z->values = n != 0 ? reinterpret_cast<ValueDef *>(z + 1) : nullptr;
  for (uint32_t i = 0; i < n && r.ok(); ++i) tq::read_rows(r, kValueDef, &z->values[i]);
  if (r.ok()) return z;
  tq_free_flags(z);
  return nullptr;
}

// Zones one after the other while the body lasts, appended to list in reply
// order; a zone cut short is released, ends the reply and is reported once.
tq_list_t *read_zones(tqdb_api_msg_t *env, tq_list_t *list, const char *decoder) {
  if (tqdb_api_msg_get_type(env) != TQDB_API_MSG_TYPE_DATA) return list;
  tq::ReplyReader r(env, decoder);
  tq_list_t *fresh = nullptr;  // newest first
  while (r.ok() && r.left() > 0) {
    void *z = read_zone(r);
    if (z == nullptr || !tq::push_front(fresh, z)) break;
  }
  return tq_list_concat(list, tq_list_reverse(fresh));
}

}  // namespace

// --- requests -----------------------------------------------------------------------------

uint32_t tqdb_api_sysdiag_level_list(tqdb_api_handle_t *h, uint32_t session) {
  return tqdb_api_request(h, TQDB_REQ_SYSDIAG_LEVEL_LIST, session);
}

// A comment or trigger too long for the message is left out (the put is
// all or nothing); the fields before it are still sent.
uint32_t tqdb_api_sysdiag_level_update(tqdb_api_handle_t *h, uint32_t session, uint32_t oid_a,
                                       uint32_t oid_b, uint64_t minimum, uint64_t maximum,
                                       uint64_t minimum_rate, uint64_t maximum_rate,
                                       const char *comment, const char *trigger) {
  return tqdb_api_send(h, TQDB_REQ_SYSDIAG_LEVEL_UPDATE, session, oid_a, oid_b, minimum, maximum,
                       minimum_rate, maximum_rate, comment, trigger);
}

uint32_t tqdb_api_sysdiag_level_get(tqdb_api_handle_t *h, uint32_t session, uint32_t oid_a,
                                    uint32_t oid_b) {
  return tqdb_api_send(h, TQDB_REQ_SYSDIAG_LEVEL_GET, session, oid_a, oid_b);
}

uint32_t tqdb_api_sysdiag_malloc_usage_list(tqdb_api_handle_t *h, uint32_t session) {
  return tqdb_api_request(h, TQDB_REQ_SYSDIAG_MALLOC_USAGE_LIST, session);
}

uint32_t tqdb_api_sysdiag_malloc_usage_get(tqdb_api_handle_t *h, uint32_t session,
                                           const char *systemname, const char *zonename) {
  return tqdb_api_send(h, TQDB_REQ_SYSDIAG_MALLOC_USAGE_GET, session, systemname, zonename);
}

uint32_t tqdb_api_sysdiag_zone_register(tqdb_api_handle_t *h, uint32_t session, const Zone *zone) {
  if (zone == nullptr || (zone->n != 0 && zone->values == nullptr)) return 0;
  return tqdb_api_request(h, TQDB_REQ_SYSDIAG_ZONE_REGISTER, session, [zone](tq_msg_t *m) {
    tqdb_api_put(m, zone->oid);
    tq_msg_put_string_n(m, zone->name, strnlen(zone->name, sizeof zone->name - 1));
    tqdb_api_put(m, zone->systemid);
    tqdb_api_put(m, zone->flags);
    tqdb_api_put(m, zone->n);
    for (const ValueDef &v : std::span(zone->values, zone->n)) {
      tqdb_api_put(m, v.id);
      tq_msg_put_string_n(m, v.name, strnlen(v.name, sizeof v.name - 1));
      tqdb_api_put(m, v.type);
      tqdb_api_put(m, v.flags);
    }
  });
}

uint32_t tqdb_api_sysdiag_zone_update_values(tqdb_api_handle_t *h, uint32_t session,
                                             uint32_t zoneoid, uint32_t elapsedms,
                                             std::span<const uint64_t> values) {
  // Header, oid, elapsed time and count take 20 bytes.
  if (values.size() > (TQ_MSG_MAX_DATA - 20) / 8) return 0;
  return tqdb_api_request(h, TQDB_REQ_SYSDIAG_ZONE_UPDATE_VALUES, session, [&](tq_msg_t *m) {
    tqdb_api_put(m, zoneoid);
    tqdb_api_put(m, elapsedms);
    tqdb_api_put(m, static_cast<uint32_t>(values.size()));
    for (const uint64_t v : values) tqdb_api_put(m, v);
  });
}

uint32_t tqdb_api_sysdiag_zone_unregister(tqdb_api_handle_t *h, uint32_t session, uint32_t zoneoid) {
  return tqdb_api_send(h, TQDB_REQ_SYSDIAG_ZONE_UNREGISTER, session, zoneoid);
}
uint32_t tqdb_api_sysdiag_zone_list(tqdb_api_handle_t *h, uint32_t session) {
  return tqdb_api_request(h, TQDB_REQ_SYSDIAG_ZONE_LIST, session);
}
uint32_t tqdb_api_sysdiag_zone_get(tqdb_api_handle_t *h, uint32_t session, const char *zone) {
  return tqdb_api_send(h, TQDB_REQ_SYSDIAG_ZONE_GET, session, zone);
}
uint32_t tqdb_api_sysdiag_zone_value_get(tqdb_api_handle_t *h, uint32_t session, const char *zone,
                                         const char *value) {
  return tqdb_api_send(h, TQDB_REQ_SYSDIAG_ZONE_VALUE_GET, session, zone, value);
}
uint32_t tqdb_api_sysdiag_zone_version(tqdb_api_handle_t *h, uint32_t session) {
  return tqdb_api_request(h, TQDB_REQ_SYSDIAG_ZONE_VERSION, session);
}
uint32_t tqdb_api_sysdiag_zone_system_name_get(tqdb_api_handle_t *h, uint32_t session,
                                               uint32_t systemid) {
  return tqdb_api_send(h, TQDB_REQ_SYSDIAG_ZONE_SYSTEM_NAME_GET, session, systemid);
}
uint32_t tqdb_api_sysdiag_zone_system_name_set(tqdb_api_handle_t *h, uint32_t session,
                                               uint32_t systemid, const char *system_name) {
  return tqdb_api_send(h, TQDB_REQ_SYSDIAG_ZONE_SYSTEM_NAME_SET, session, systemid, system_name);
}
uint32_t tqdb_api_sysdiag_zone_alerted_zones(tqdb_api_handle_t *h, uint32_t session) {
  return tqdb_api_request(h, TQDB_REQ_SYSDIAG_ZONE_ALERTED, session);
}
uint32_t tqdb_api_sysdiag_log_post(tqdb_api_handle_t *h, uint32_t session, uint32_t severity,
                                   const char *title, const char *body) {
  return tqdb_api_send(h, TQDB_REQ_SYSDIAG_LOG_POST, session, severity, title, body);
}
uint32_t tqdb_api_sysdiag_log_list(tqdb_api_handle_t *h, uint32_t session, uint8_t only_new,
                                   uint32_t min_id) {
  return tqdb_api_send(h, TQDB_REQ_SYSDIAG_LOG_LIST, session, only_new, min_id);
}
uint32_t tqdb_api_sysdiag_log_ack(tqdb_api_handle_t *h, uint32_t session, uint32_t id) {
  return tqdb_api_send(h, TQDB_REQ_SYSDIAG_LOG_ACK, session, id);
}
uint32_t tqdb_api_sysdiag_log_ack_all(tqdb_api_handle_t *h, uint32_t session) {
  return tqdb_api_request(h, TQDB_REQ_SYSDIAG_LOG_ACK_ALL, session);
}
uint32_t tqdb_api_sysdiag_zone_get_enum_values(tqdb_api_handle_t *h, uint32_t session,
                                               uint32_t zoneoid) {
  return tqdb_api_send(h, TQDB_REQ_SYSDIAG_ZONE_ENUM_VALUES, session, zoneoid);
}

// --- decoders -----------------------------------------------------------------------------

// The level list stops at the first record the body cannot give and keeps
// the ones before it; it reports nothing.
tq_list_t *tqdb_api_sysdiag_level_list_handle(tqdb_api_msg_t *env, tq_list_t *list) {
  if (tqdb_api_msg_get_type(env) != TQDB_API_MSG_TYPE_DATA) return list;
  auto r = tq::ReplyReader::quiet(env);
  return tq::read_records(r, kLevelLayout, list, 1);
}
tq_list_t *tqdb_api_sysdiag_malloc_usage_list_handle(tqdb_api_msg_t *env, tq_list_t *list) {
  return tq::reply_records(env, list, "tqdb_api_sysdiag_malloc_usage_list_handle", kMallocEntryLayout);
}
tq_list_t *tqdb_api_sysdiag_malloc_usage_get_handle(tqdb_api_msg_t *env, tq_list_t *list) {
  return tq::reply_records(env, list, "tqdb_api_sysdiag_malloc_usage_get_handle", kUsageLayout);
}
tq_list_t *tqdb_api_sysdiag_zone_list_handle(tqdb_api_msg_t *env, tq_list_t *list) {
  return read_zones(env, list, "tqdb_api_sysdiag_zone_list_handle");
}
tq_list_t *tqdb_api_sysdiag_zone_get_handle(tqdb_api_msg_t *env, tq_list_t *list) {
  return read_zones(env, list, "tqdb_api_sysdiag_zone_get_handle");
}
tq_list_t *tqdb_api_sysdiag_zone_alerted_zones_handle(tqdb_api_msg_t *env, tq_list_t *list) {
  return read_zones(env, list, "tqdb_api_sysdiag_zone_alerted_zones_handle");
}
tq_list_t *tqdb_api_sysdiag_zone_value_get_handle(tqdb_api_msg_t *env, tq_list_t *list) {
  return tq::reply_records(env, list, "tqdb_api_sysdiag_zone_value_get_handle", kZoneValueLayout);
}
tq_list_t *tqdb_api_sysdiag_log_list_handle(tqdb_api_msg_t *env, tq_list_t *list) {
  return tq::reply_records(env, list, "tqdb_api_sysdiag_log_list_handle", kLogLayout);
}
tq_list_t *tqdb_api_sysdiag_zone_get_enum_values_handle(tqdb_api_msg_t *env, tq_list_t *list) {
  return tq::reply_records(env, list, "tqdb_api_sysdiag_zone_get_enum_values_handle", kEnumLayout);
}

bool tqdb_api_sysdiag_zone_version_handle(tqdb_api_msg_t *env, uint32_t *version) {
  *version = 0;
  if (tqdb_api_msg_get_type(env) != TQDB_API_MSG_TYPE_DATA) return false;
  if (tq_msg_get_uint32(env->msg, version)) return true;
  tqdb_api_msg_corrupt(env, "tqdb_api_sysdiag_zone_version_handle", "api/sysdiag.cc", __LINE__);
  return false;
}

bool tqdb_api_sysdiag_zone_system_name_get_handle(tqdb_api_msg_t *env, char *buf, size_t size) {
  buf[0] = '\0';
  if (tqdb_api_msg_get_type(env) != TQDB_API_MSG_TYPE_DATA) return false;
  if (tq_msg_get_string_len(env->msg, buf, size)) return true;
  buf[0] = '\0';
  tqdb_api_msg_corrupt(env, "tqdb_api_sysdiag_zone_system_name_get_handle", "api/sysdiag.cc",
                       __LINE__);
  return false;
}
