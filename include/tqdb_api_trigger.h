// Triggers: scripts the appliance runs when traffic crosses thresholds
// (api/hosttrigger, api/connprot_trigger).
//
// A host trigger watches a host, the hosts of a net object, a net object as
// a whole or each of its children (trigtype, TQDB_HOSTTRIGGER_TRIGTYPE_*)
// and runs its script when one of its thresholds is passed; a threshold of
// 0 is not watched. A connection-protection trigger is a named script that
// connection protection runs. Both are kept on the appliance and changed
// inside a transaction on their resource (TQDB_RESOURCE_HOSTTRIGGER,
// TQDB_RESOURCE_CONNPROT_TRIGGER).
#ifndef TQDB_API_TRIGGER_H
#define TQDB_API_TRIGGER_H

#include <cstddef>
#include <cstdint>

#include "tqdb_api.h"

struct tq_list_t;

inline constexpr uint32_t TQDB_REQ_HOSTTRIGGER_LIST = 0x1A301;
inline constexpr uint32_t TQDB_REQ_HOSTTRIGGER_ADD = 0x1A302;
inline constexpr uint32_t TQDB_REQ_HOSTTRIGGER_REMOVE = 0x1A303;
inline constexpr uint32_t TQDB_REQ_HOSTTRIGGER_UPDATE = 0x1A304;
inline constexpr uint32_t TQDB_REQ_HOSTTRIGGER_RENAME = 0x1A305;
inline constexpr uint32_t TQDB_REQ_CONNPROT_TRIGGER_LIST = 0x1AA01;
inline constexpr uint32_t TQDB_REQ_CONNPROT_TRIGGER_ADD = 0x1AA02;
inline constexpr uint32_t TQDB_REQ_CONNPROT_TRIGGER_REMOVE = 0x1AA03;
inline constexpr uint32_t TQDB_REQ_CONNPROT_TRIGGER_UPDATE = 0x1AA04;
inline constexpr uint32_t TQDB_REQ_CONNPROT_TRIGGER_RENAME = 0x1AA05;

// What a host trigger watches.
enum : int32_t {
  TQDB_HOSTTRIGGER_TRIGTYPE_HOST = 0,               // every host on its own
  TQDB_HOSTTRIGGER_TRIGTYPE_HOST_IN_NETOBJECT = 1,  // each host inside netobject
  TQDB_HOSTTRIGGER_TRIGTYPE_NETOBJECT = 2,          // netobject as a whole
  TQDB_HOSTTRIGGER_TRIGTYPE_NETOBJECT_CHILD = 3,    // each child of netobject
};

inline constexpr size_t TQDB_API_TRIGGER_TEXT_MAX = 255;  // name and script, characters

// The thresholds of a host trigger and what it watches, in wire order.
struct tqdb_api_hosttrigger_limits_t {
  uint32_t in_bw;
  uint32_t out_bw;
  uint32_t in_cps;
  uint32_t out_cps;
  uint32_t conns;
  uint32_t uconns;
  uint32_t uconn_rate;
  int32_t out_ttls;
  int32_t qoe_in_int;
  int32_t qoe_in_ext;
  int32_t qoe_out_int;
  int32_t qoe_out_ext;
  uint32_t netobject;  // a net object's id; 0 for TQDB_HOSTTRIGGER_TRIGTYPE_HOST
  int32_t trigtype;    // TQDB_HOSTTRIGGER_TRIGTYPE_*
};

struct tqdb_api_hosttrigger_t {
  uint32_t id;
  char name[TQDB_API_TRIGGER_TEXT_MAX + 1];
  char script[TQDB_API_TRIGGER_TEXT_MAX + 1];
  tqdb_api_hosttrigger_limits_t limits;
};

struct tqdb_api_connprot_trigger_t {
  uint32_t id;
  char name[TQDB_API_TRIGGER_TEXT_MAX + 1];
  char script[TQDB_API_TRIGGER_TEXT_MAX + 1];
};

uint32_t tqdb_api_hosttrigger_list(tqdb_api_handle_t *h, uint32_t session);
// limits nullptr: nothing is watched.
uint32_t tqdb_api_hosttrigger_add(tqdb_api_handle_t *h, uint32_t session, const char *name,
                                  const char *script, const tqdb_api_hosttrigger_limits_t *limits);
uint32_t tqdb_api_hosttrigger_remove(tqdb_api_handle_t *h, uint32_t session, uint32_t id);
// Replaces the script and the thresholds of trigger id; the name stays.
uint32_t tqdb_api_hosttrigger_update(tqdb_api_handle_t *h, uint32_t session, uint32_t id,
                                     const char *script,
                                     const tqdb_api_hosttrigger_limits_t *limits);
uint32_t tqdb_api_hosttrigger_rename(tqdb_api_handle_t *h, uint32_t session, uint32_t id,
                                     const char *name);

uint32_t tqdb_api_connprot_trigger_list(tqdb_api_handle_t *h, uint32_t session);
uint32_t tqdb_api_connprot_trigger_add(tqdb_api_handle_t *h, uint32_t session, const char *name,
                                       const char *script);
uint32_t tqdb_api_connprot_trigger_remove(tqdb_api_handle_t *h, uint32_t session, uint32_t id);
uint32_t tqdb_api_connprot_trigger_update(tqdb_api_handle_t *h, uint32_t session, uint32_t id,
                                          const char *script);
uint32_t tqdb_api_connprot_trigger_rename(tqdb_api_handle_t *h, uint32_t session, uint32_t id,
                                          const char *newname);

// Append the reply's records in wire order (labels "tqdb_api_hosttrigger_t",
// "tqdb_api_connprot_trigger_t"). Released with tqdb_api_trigger_list_free.
tq_list_t *tqdb_api_hosttrigger_list_handle(tqdb_api_msg_t *env, tq_list_t *list);
tq_list_t *tqdb_api_connprot_trigger_list_handle(tqdb_api_msg_t *env, tq_list_t *list);
void tqdb_api_trigger_list_free(tq_list_t *list);
// The new trigger's id from a DATA reply; 0 for any other reply or one cut
// short.
uint32_t tqdb_api_hosttrigger_add_handle(tqdb_api_msg_t *env);
uint32_t tqdb_api_connprot_trigger_add_handle(tqdb_api_msg_t *env);

#endif
