// The system overview (api/system_overview): several appliances in one
// place. Each system announces itself (identity, software versions,
// configuration checksum, model) and posts its current values, one per
// value template; the overview keeps the systems with their latest values,
// the templates that say what is shown, a history of each system's values
// per template (its graph), and free-form system information: key/value
// pairs by system name.
//
// List decoders append the reply's records, in reply order, behind the
// list they are given and return the new head (the given list when the
// reply is not DATA). A record cut short is dropped with the rest of the
// body and reported once through the envelope's corrupt callback.
#ifndef TQDB_API_SYSTEM_OVERVIEW_H
#define TQDB_API_SYSTEM_OVERVIEW_H

#include <cstddef>
#include <cstdint>
#include <span>

#include "tqdb_api.h"

struct tq_list_t;

inline constexpr uint32_t TQDB_REQ_SYSTEM_OVERVIEW_VALUES_POST = 0x1A402;
inline constexpr uint32_t TQDB_REQ_SYSTEM_OVERVIEW_LIST = 0x1A403;
inline constexpr uint32_t TQDB_REQ_SYSTEM_OVERVIEW_ANNOUNCE = 0x1A404;
inline constexpr uint32_t TQDB_REQ_SYSTEM_OVERVIEW_TEMPLATE_LIST = 0x1A405;
inline constexpr uint32_t TQDB_REQ_SYSTEM_OVERVIEW_SYSTEM_GRAPH = 0x1A406;
inline constexpr uint32_t TQDB_REQ_SYSTEM_OVERVIEW_SYSTEM_GET = 0x1A407;
inline constexpr uint32_t TQDB_REQ_SYSTEM_OVERVIEW_SYSINFO_LIST_SYSTEMS = 0x1A408;
inline constexpr uint32_t TQDB_REQ_SYSTEM_OVERVIEW_SYSINFO_GET_SYSTEM = 0x1A409;
inline constexpr uint32_t TQDB_REQ_SYSTEM_OVERVIEW_SYSINFO_ADD_SYSTEM = 0x1A40A;
inline constexpr uint32_t TQDB_REQ_SYSTEM_OVERVIEW_SYSTEM_DELETE = 0x1A40B;

// Template kinds, value types and how a value is summed up
// (SYSTEM_OVERVIEW_* of the scripting module).
enum : uint32_t {
  TQDB_SYSTEM_OVERVIEW_TEMPLATE_TYPE_SYSDIAG = 0,
  TQDB_SYSTEM_OVERVIEW_TEMPLATE_TYPE_CHANNEL = 1,
};
enum : uint32_t {
  TQDB_SYSTEM_OVERVIEW_TYPE_STRING = 0,
  TQDB_SYSTEM_OVERVIEW_TYPE_INT = 1,
  TQDB_SYSTEM_OVERVIEW_TYPE_RATE = 2,
  TQDB_SYSTEM_OVERVIEW_TYPE_BANDWIDTH = 3,
  TQDB_SYSTEM_OVERVIEW_TYPE_TRANSFER = 4,
  TQDB_SYSTEM_OVERVIEW_TYPE_DURATION = 5,
  TQDB_SYSTEM_OVERVIEW_TYPE_TIMESTAMP = 6,
  TQDB_SYSTEM_OVERVIEW_TYPE_BITMASK = 7,
  TQDB_SYSTEM_OVERVIEW_TYPE_INT_K = 8,
};
enum : uint32_t {
  TQDB_SYSTEM_OVERVIEW_VTYPE_TOTAL = 0,
  TQDB_SYSTEM_OVERVIEW_VTYPE_RATE = 1,
  TQDB_SYSTEM_OVERVIEW_VTYPE_MAX = 2,
};
inline constexpr uint32_t TQDB_SYSTEM_OVERVIEW_FLAGS_SUMMARY = 1;

// Texts keep at most the size - 1 characters.
struct tqdb_api_system_overview_template_t {
  uint32_t templateid;
  char name[65];
  uint32_t type;   // TQDB_SYSTEM_OVERVIEW_TYPE_*
  uint32_t flags;  // TQDB_SYSTEM_OVERVIEW_FLAGS_*
  uint32_t vtype;  // TQDB_SYSTEM_OVERVIEW_VTYPE_*
  char zone[65];   // the diagnostic zone (or channel) the value comes from
  uint32_t id;     // the value's id in that zone (or the channel's number)
  char descstr[256];
  uint32_t ttype;  // TQDB_SYSTEM_OVERVIEW_TEMPLATE_TYPE_*
};

// One current value of a system. A value posted by a system carries no
// text: only templateid and value travel in a post.
struct tqdb_api_system_overview_value_t {
  uint32_t templateid;
  uint64_t value;
  char text[256];
};

struct tqdb_api_system_overview_system_t {
  uint32_t systemid;
  char name[65];
  char host[65];         // the address the system announced itself from
  uint64_t lastupdate;   // Unix seconds
  uint64_t firstupdate;  // Unix seconds
  char distversion[65];
  char drdlrevision[65];
  char configmd5[33];
  char model[65];
  uint32_t n;  // values
  // n values, one block of their own (label "tqdb_api_system_overview_value_t");
  // nullptr when n is 0.
  tqdb_api_system_overview_value_t *values;
};

struct tqdb_api_system_overview_graph_value_t {
  uint64_t time;  // Unix seconds
  uint64_t value;
};

// One pair of a system information record.
struct tqdb_api_system_overview_sysinfo_value_t {
  char key[256];
  char value[1024];
};

uint32_t tqdb_api_system_overview_template_list(tqdb_api_handle_t *h, uint32_t session);
uint32_t tqdb_api_system_overview_list(tqdb_api_handle_t *h, uint32_t session);
uint32_t tqdb_api_system_overview_system_get(tqdb_api_handle_t *h, uint32_t session,
                                             uint32_t systemid);
uint32_t tqdb_api_system_overview_announce(tqdb_api_handle_t *h, uint32_t session,
                                           uint32_t systemid, const char *name,
                                           const char *distversion, const char *drdlrevision,
                                           const char *configmd5, const char *model);
// The system's current values by template (the texts are not sent). 0
// (nothing sent) when they cannot fit one message.
uint32_t tqdb_api_system_overview_values_post(
    tqdb_api_handle_t *h, uint32_t session, uint32_t systemid,
    std::span<const tqdb_api_system_overview_value_t> values);
uint32_t tqdb_api_system_overview_system_graph(tqdb_api_handle_t *h, uint32_t session,
                                               uint32_t systemid, uint32_t templateid);
uint32_t tqdb_api_system_overview_system_delete(tqdb_api_handle_t *h, uint32_t session,
                                                uint32_t systemid);
uint32_t tqdb_api_system_overview_sysinfo_list_systems(tqdb_api_handle_t *h, uint32_t session);
uint32_t tqdb_api_system_overview_sysinfo_get_system(tqdb_api_handle_t *h, uint32_t session,
                                                     const char *system);
// Replaces the system's information by the pairs given. 0 (nothing sent)
// when they cannot fit one message.
uint32_t tqdb_api_system_overview_sysinfo_add_system(
    tqdb_api_handle_t *h, uint32_t session, const char *system,
    std::span<const tqdb_api_system_overview_sysinfo_value_t> data);

// Template records (label "tqdb_api_system_overview_template_t"); released
// with tq_list_free_with_data.
tq_list_t *tqdb_api_system_overview_template_list_handle(tqdb_api_msg_t *env, tq_list_t *list);
// System records (label "tqdb_api_system_overview_system_t") with their
// values; serves the list and the get answers. Released with
// tqdb_api_system_overview_list_free.
tq_list_t *tqdb_api_system_overview_list_handle(tqdb_api_msg_t *env, tq_list_t *list);
void tqdb_api_system_overview_list_free(tq_list_t *list);
// Graph points (label "tqdb_api_system_overview_graph_value_t"), oldest
// first; released with tq_list_free_with_data.
tq_list_t *tqdb_api_system_overview_system_graph_handle(tqdb_api_msg_t *env, tq_list_t *list);
// System names (NUL-terminated texts, label "system_overview::system");
// released with tq_list_free_with_data.
tq_list_t *tqdb_api_system_overview_sysinfo_list_systems_handle(tqdb_api_msg_t *env,
                                                                tq_list_t *list);
// The pairs of one system's information (label
// "tqdb_api_system_overview_sysinfo_value_t") in reply order; released with
// tq_list_free_with_data. nullptr for any other reply; pairs cut short end
// the list and are reported once.
tq_list_t *tqdb_api_system_overview_sysinfo_get_system_handle(tqdb_api_msg_t *env);

#endif
