// The ruleset families of the TQDB client API: objects and their items,
// shaping objects, statistics and IPFIX objects, firewall / shaping /
// statistics rules, rule conditions and dynamic live views.
//
// Requests follow the core rule (tqdb_api.h): build, queue, return the
// correlation id, 0 when nothing was queued. Decoders take the envelope and,
// for lists, the list built so far.
//
// List decoders return the list to keep. nullptr means "nothing": the list
// passed in is untouched and still the caller's, so a caller writes
//   if (tq_list_t *r = tqdb_api_fwrule_list_handle(env, l)) l = r;
// Records and their nested lists belong to the list; release a list with its
// family's tqdb_api_<family>_list_free (never tq_list_free_with_data: most
// records own lists of their own).
//
// Integer lists (shaping rule objects, statistics rule object ids, split net
// objects) hold the id itself in the node's data, as (void *)(uintptr_t)id.
//
// Text fields are char[N + 1] for a protocol maximum of N characters.
#ifndef TQDB_API_RULESET_H
#define TQDB_API_RULESET_H

#include <cstddef>
#include <cstdint>
#include <span>

#include "tqdb_api.h"

// --- request codes ----------------------------------------------------------------------
inline constexpr uint32_t TQDB_REQ_OBJECT_LIST = 0x11001;  // also fetch one, list by name
inline constexpr uint32_t TQDB_REQ_OBJECT_ADD = 0x11002;
inline constexpr uint32_t TQDB_REQ_OBJECT_REMOVE = 0x11003;
inline constexpr uint32_t TQDB_REQ_OBJECT_RENAME = 0x11004;
inline constexpr uint32_t TQDB_REQ_OBJECT_SET_VISIBLE = 0x11005;
inline constexpr uint32_t TQDB_REQ_OBJECT_MOVE = 0x11006;
inline constexpr uint32_t TQDB_REQ_OBJECT_COPY = 0x11007;
inline constexpr uint32_t TQDB_REQ_OBJECT_UNLINK = 0x11008;
inline constexpr uint32_t TQDB_REQ_OBJECT_COMMENTS_GET = 0x11009;
inline constexpr uint32_t TQDB_REQ_OBJECT_COMMENTS_SET = 0x1100A;
inline constexpr uint32_t TQDB_REQ_OBJECT_ATTR_LIST = 0x1100C;
inline constexpr uint32_t TQDB_REQ_OBJECT_ATTR_SET = 0x1100D;
inline constexpr uint32_t TQDB_REQ_OBJECT_ATTR_REMOVE = 0x1100E;
inline constexpr uint32_t TQDB_REQ_OBJECT_ITEM_ADD = 0x11010;
inline constexpr uint32_t TQDB_REQ_OBJECT_ITEM_UPDATE = 0x11011;
inline constexpr uint32_t TQDB_REQ_OBJECT_ITEM_REMOVE = 0x11012;
inline constexpr uint32_t TQDB_REQ_OBJECT_11013 = 0x11013;
inline constexpr uint32_t TQDB_REQ_OBJECT_11014 = 0x11014;

inline constexpr uint32_t TQDB_REQ_RULECONDITIONS_LIST = 0x11101;
inline constexpr uint32_t TQDB_REQ_RULECONDITIONS_ADD = 0x11102;
inline constexpr uint32_t TQDB_REQ_RULECONDITIONS_REMOVE = 0x11103;
inline constexpr uint32_t TQDB_REQ_RULECONDITIONS_RENAME = 0x11104;
inline constexpr uint32_t TQDB_REQ_RULECONDITIONS_SET_ITEMS = 0x11105;

// Rule attributes: one request group for the three rule families, the
// family named by a u8 RULESET_RULE_TYPE_* in the body.
inline constexpr uint32_t TQDB_REQ_RULE_ATTR_LIST = 0x11201;
inline constexpr uint32_t TQDB_REQ_RULE_ATTR_SET = 0x11202;
inline constexpr uint32_t TQDB_REQ_RULE_ATTR_REMOVE = 0x11203;

inline constexpr uint32_t TQDB_REQ_SHAPINGOBJECT_LIST = 0x16001;
inline constexpr uint32_t TQDB_REQ_SHAPINGOBJECT_ADD = 0x16002;
inline constexpr uint32_t TQDB_REQ_SHAPINGOBJECT_REMOVE = 0x16003;
inline constexpr uint32_t TQDB_REQ_SHAPINGOBJECT_RENAME = 0x16004;
inline constexpr uint32_t TQDB_REQ_SHAPINGOBJECT_MODIFY = 0x16005;
inline constexpr uint32_t TQDB_REQ_SHAPINGOBJECT_TSTAMP = 0x16009;
inline constexpr uint32_t TQDB_REQ_SHAPINGOBJECT_COMMENTS = 0x1600A;
inline constexpr uint32_t TQDB_REQ_SHAPINGOBJECT_ATTR_LIST = 0x1600B;
inline constexpr uint32_t TQDB_REQ_SHAPINGOBJECT_ATTR_SET = 0x1600C;
inline constexpr uint32_t TQDB_REQ_SHAPINGOBJECT_ATTR_REMOVE = 0x1600D;

// The request codes of one rule family; 0 where the family has no such
// request. The three families share every body that they have in common.
struct tqdb_api_rule_codes_t {
  uint32_t list, add, update, remove, rename, set_active, position_swap, set_objects, tstamp,
      copy, comments;
};
inline constexpr tqdb_api_rule_codes_t TQDB_FWRULE_CODES{
    0x13001, 0x13002, 0x13003, 0x13004, 0x13005, 0x13007, 0x13006, 0, 0x13008, 0x1300A, 0x1300B};
inline constexpr tqdb_api_rule_codes_t TQDB_SHAPINGRULE_CODES{
    0x17001, 0x17002, 0x17005, 0x17003, 0x17004, 0x17006, 0, 0x17007, 0x17008, 0x1700A, 0x1700B};
inline constexpr tqdb_api_rule_codes_t TQDB_STATISTICSRULE_CODES{
    0x18001, 0x18002, 0x18005, 0x18003, 0x18004, 0x18006, 0, 0x1800B, 0x18007, 0x18009, 0x1800A};

inline constexpr uint32_t TQDB_REQ_STATISTICSOBJECT_LIST = 0x1B001;
inline constexpr uint32_t TQDB_REQ_STATISTICSOBJECT_ADD = 0x1B002;
inline constexpr uint32_t TQDB_REQ_STATISTICSOBJECT_REMOVE = 0x1B003;
inline constexpr uint32_t TQDB_REQ_STATISTICSOBJECT_RENAME = 0x1B004;
inline constexpr uint32_t TQDB_REQ_STATISTICSOBJECT_MODIFY = 0x1B005;
inline constexpr uint32_t TQDB_REQ_IPFIXOBJECT_LIST = 0x1B101;
inline constexpr uint32_t TQDB_REQ_IPFIXOBJECT_ADD = 0x1B102;
inline constexpr uint32_t TQDB_REQ_IPFIXOBJECT_REMOVE = 0x1B103;
inline constexpr uint32_t TQDB_REQ_IPFIXOBJECT_RENAME = 0x1B104;

inline constexpr uint32_t TQDB_REQ_DYNAMICLIVEVIEW_ADD = 0x1AC01;
inline constexpr uint32_t TQDB_REQ_DYNAMICLIVEVIEW_REMOVE = 0x1AC02;
inline constexpr uint32_t TQDB_REQ_DYNAMICLIVEVIEW_LIST = 0x1AC03;
inline constexpr uint32_t TQDB_REQ_DYNAMICLIVEVIEW_UPDATE = 0x1AC04;
inline constexpr uint32_t TQDB_REQ_DYNAMICLIVEVIEW_RENAME = 0x1AC05;

// --- shared pieces (api/ruleset) ---------------------------------------------------------
inline constexpr size_t TQDB_API_TIMESTAMP_SIZE = 23;  // 22 characters
inline constexpr size_t TQDB_API_COMMENTS_SIZE = 1024;  // 1023 characters

inline constexpr uint32_t TQDB_OBJECT_TYPE_COUNT = 19;  // OBJECT_TYPE_* 0..18

// The audit fields every ruleset record ends with, in wire order.
struct tqdb_api_audit_t {
  char creator[32];
  char creation_date[23];
  char modified_by[32];
  char modification_date[23];
};

struct tqdb_api_ruleset_attr_t {
  char key[256];
  char value[1024];
};

// Attribute list reply (objects, shaping objects, rules): pairs until the
// body ends, each put at the head of list (reverse wire order); a pair cut
// short ends the list. Returns the new head.
tq_list_t *_tqdb_api_ruleset_attr_list_handle(tqdb_api_msg_t *env, tq_list_t *list);
// The timestamp of an edit (buf of TQDB_API_TIMESTAMP_SIZE); false for a
// reply of another type than DATA or a body cut short (buf then empty).
bool tqdb_api_ruleset_timestamp_handle(tqdb_api_msg_t *env, char *buf);
// The reply to an add (or copy): u32 new id (0 when absent), timestamp.
// false as above; *id and buf are always set.
bool tqdb_api_ruleset_add_handle(tqdb_api_msg_t *env, uint32_t *id, char *buf);
// A text reply (comments), cut to size - 1 characters.
bool tqdb_api_ruleset_text_handle(tqdb_api_msg_t *env, char *buf, size_t size);

uint32_t tqdb_api_rule_attr_list(tqdb_api_handle_t *h, uint32_t session, uint8_t ruletype,
                                 uint32_t id);
uint32_t tqdb_api_rule_attr_set(tqdb_api_handle_t *h, uint32_t session, uint8_t ruletype,
                                uint32_t id, const char *key, const char *value);
uint32_t tqdb_api_rule_attr_remove(tqdb_api_handle_t *h, uint32_t session, uint8_t ruletype,
                                   uint32_t id, const char *key);

// Releases a list of integers (nodes only) / of flat records.
void tqdb_api_int_list_free(tq_list_t *list);

// --- object items (api/object) ------------------------------------------------------------
// Every item record starts with this header; the type-specific fields follow
// it. A record may be viewed through its header: it is the first member.
struct tqdb_api_object_item_t {
  uint32_t type;  // OBJECT_TYPE_* of the holding object: selects the layout
  uint32_t id;
  tqdb_api_audit_t audit;
};

// nullptr for a type outside 0..18.
const tqdb_api_item_layout_t *tqdb_api_object_item_layout(uint32_t type);

struct tqdb_api_netobject_item_t {
  tqdb_api_object_item_t hdr;
  uint32_t type;  // NETOBJECT_ITEM_TYPE_*
  char value1[128];
  char value2[128];
  uint8_t exclude;
};
struct tqdb_api_portobject_item_t {
  tqdb_api_object_item_t hdr;
  uint32_t type;
  uint16_t value1;
  uint16_t value2;
  uint8_t exclude;
};
struct tqdb_api_serviceobject_item_t {
  tqdb_api_object_item_t hdr;
  char value[256];
};
struct tqdb_api_vlanobject_item_t {
  tqdb_api_object_item_t hdr;
  uint32_t type;
  uint16_t value1;
  uint16_t value2;
  uint8_t exclude;
};
struct tqdb_api_protocolobject_item_t {
  tqdb_api_object_item_t hdr;
  uint8_t protocol;
};
struct tqdb_api_timeobject_item_t {
  tqdb_api_object_item_t hdr;
  uint32_t type;
  uint32_t value1;
  uint32_t value2;
  uint16_t days;
  uint8_t exclude;
};
struct tqdb_api_bgpobject_item_t {
  tqdb_api_object_item_t hdr;
  uint32_t type;
  uint32_t asnumber;
  uint32_t value1;
};
struct tqdb_api_systemobject_item_t {
  tqdb_api_object_item_t hdr;
  char value[256];
};
struct tqdb_api_propertyobject_item_t {
  tqdb_api_object_item_t hdr;
  char property[256];
  char value[256];
};
// The record keeps direction first; the wire sends field first.
struct tqdb_api_rewriteobject_item_t {
  tqdb_api_object_item_t hdr;
  uint8_t direction;
  uint32_t field;
  char value[256];
};
struct tqdb_api_xfbobject_item_t {
  tqdb_api_object_item_t hdr;
  char value[256];
  uint8_t exclude;
};
struct tqdb_api_mplsobject_item_t {
  tqdb_api_object_item_t hdr;
  uint32_t type;
  uint32_t value1;
  uint32_t value2;
  uint8_t exclude;
};
struct tqdb_api_dscpobject_item_t {
  tqdb_api_object_item_t hdr;
  uint32_t type;
  uint8_t value1;
  uint8_t value2;
  uint8_t exclude;
};
struct tqdb_api_channelobject_item_t {
  tqdb_api_object_item_t hdr;
  uint32_t type;
  uint32_t value;
  uint8_t exclude;
};
struct tqdb_api_tunnellvlobject_item_t {
  tqdb_api_object_item_t hdr;
  uint8_t value;
};
struct tqdb_api_tunneltypeobject_item_t {
  tqdb_api_object_item_t hdr;
  uint8_t value;
};
struct tqdb_api_sorvikobject_item_t {
  tqdb_api_object_item_t hdr;
  char value[256];
  uint8_t exclude;
};
struct tqdb_api_enrichobject_item_t {
  tqdb_api_object_item_t hdr;
  uint32_t netobject;
  uint8_t keytype;
  char key[256];
  uint8_t valuetype;
  char value[256];
  uint8_t spoof;
  uint8_t miss;
  char defaultvalue[256];
};
struct tqdb_api_sessioncontextobject_item_t {
  tqdb_api_object_item_t hdr;
  char schemaname[256];
  char columnname[256];
  char value[256];
  uint8_t matchtype;
};

// A zeroed item record of the type's layout, hdr.type set, allocated under
// label (the layout's own when nullptr); nullptr for an unknown type.
tqdb_api_object_item_t *tqdb_api_object_item_new(uint32_t type, const char *label);
// Reads one item after its tag: u8 object type, u32 id, the type's fields,
// the audit texts. nullptr for an unknown type code. Short fields read as
// zero / empty and report the envelope corrupt (once).
tqdb_api_object_item_t *tqdb_api_object_item_read(tqdb_api_msg_t *env);
// Appends item's type-specific fields in the layout of `type`.
void tqdb_api_object_item_write(tq_msg_t *req, uint32_t type, const tqdb_api_object_item_t *item);

// --- objects (api/object) --------------------------------------------------------------------
struct tqdb_api_object_t {
  uint32_t id;
  char name[256];
  uint32_t parent;
  uint32_t referenced;
  uint8_t visible;
  tqdb_api_audit_t audit;
  uint32_t extra;
  tq_list_t *items;       // tqdb_api_object_item_t records, wire order
  tq_list_t *attributes;  // tqdb_api_ruleset_attr_t, reverse wire order
};

uint32_t tqdb_api_object_list(tqdb_api_handle_t *h, uint32_t session, uint8_t type);
uint32_t tqdb_api_object_get(tqdb_api_handle_t *h, uint32_t session, uint8_t type, uint32_t id);
uint32_t tqdb_api_object_list_by_name(tqdb_api_handle_t *h, uint32_t session, uint8_t type,
                                      std::span<const char *const> names);
uint32_t tqdb_api_object_add(tqdb_api_handle_t *h, uint32_t session, uint8_t type,
                             const char *name, uint32_t parent);
uint32_t tqdb_api_object_remove(tqdb_api_handle_t *h, uint32_t session, uint8_t type, uint32_t id);
uint32_t tqdb_api_object_rename(tqdb_api_handle_t *h, uint32_t session, uint8_t type, uint32_t id,
                                const char *name);
uint32_t tqdb_api_object_set_visible(tqdb_api_handle_t *h, uint32_t session, uint8_t type,
                                     uint32_t id, uint8_t visible);
uint32_t tqdb_api_object_move(tqdb_api_handle_t *h, uint32_t session, uint8_t type, uint32_t id,
                              uint32_t newparent);
uint32_t tqdb_api_object_copy(tqdb_api_handle_t *h, uint32_t session, uint8_t type, uint32_t id,
                              uint32_t newparent);
uint32_t tqdb_api_object_unlink(tqdb_api_handle_t *h, uint32_t session, uint8_t type, uint32_t id);
uint32_t tqdb_api_object_comments_get(tqdb_api_handle_t *h, uint32_t session, uint8_t type,
                                      uint32_t id);
uint32_t tqdb_api_object_comments_set(tqdb_api_handle_t *h, uint32_t session, uint8_t type,
                                      uint32_t id, const char *comments);
uint32_t tqdb_api_object_attr_list(tqdb_api_handle_t *h, uint32_t session, uint8_t type,
                                   uint32_t id);
uint32_t tqdb_api_object_attr_set(tqdb_api_handle_t *h, uint32_t session, uint8_t type,
                                  uint32_t id, const char *key, const char *value);
uint32_t tqdb_api_object_attr_remove(tqdb_api_handle_t *h, uint32_t session, uint8_t type,
                                     uint32_t id, const char *key);
uint32_t tqdb_api_object_item_add(tqdb_api_handle_t *h, uint32_t session, uint8_t type,
                                  uint32_t objid, const tqdb_api_object_item_t *item);
uint32_t tqdb_api_object_item_update(tqdb_api_handle_t *h, uint32_t session, uint8_t type,
                                     uint32_t itemid, const tqdb_api_object_item_t *item);
uint32_t tqdb_api_object_item_remove(tqdb_api_handle_t *h, uint32_t session, uint8_t type,
                                     uint32_t itemid);
uint32_t tqdb_api_object_11013(tqdb_api_handle_t *h, uint32_t session, uint8_t type, uint32_t a,
                               uint32_t b);
uint32_t tqdb_api_object_11014(tqdb_api_handle_t *h, uint32_t session, uint8_t type, uint32_t a,
                               uint32_t b);

// The tagged object stream; items may continue the last object of list.
tq_list_t *tqdb_api_object_list_handle(tqdb_api_msg_t *env, tq_list_t *list);
void tqdb_api_object_list_free(tq_list_t *list);
// Edits of the family answer with a timestamp; add and item add with id and
// timestamp (tqdb_api_ruleset_add_handle).
bool tqdb_api_object_timestamp_handle(tqdb_api_msg_t *env, char *buf);

struct tqdb_api_object_copy_t {
  uint32_t source;  // the object copied
  uint32_t id;      // its copy
  uint32_t parent;  // the copy's parent
  uint8_t type;
};
struct tqdb_api_object_copy_res_t {
  uint32_t status;  // 0: copied
  char message[512];
  uint8_t flag;        // 1 when the items were copied too
  tq_list_t *entries;  // tqdb_api_object_copy_t, wire order; the caller frees them
};
bool tqdb_api_object_copy_handle(tqdb_api_msg_t *env, tqdb_api_object_copy_res_t *out);

// --- shaping objects (api/shapingobject) -----------------------------------------------
struct tqdb_api_shapingobject_limit_t {
  uint32_t v[6];  // record order; the wire exchanges v[1] and v[2]
};
struct tqdb_api_shapingobject_t {
  int32_t id;
  char name[256];
  uint32_t flags;
  int32_t max_connections;
  uint32_t split;
  uint32_t split_argument;
  uint32_t fairness_group;
  uint32_t fairness_group_argument;
  tq_list_t *inbound;  // tqdb_api_shapingobject_limit_t, wire order
  tq_list_t *outbound;
  tq_list_t *bidir;
  tq_list_t *split_netobjects;  // integer list
  uint8_t wfq[6];
  uint32_t extra;      // the word after flags
  uint32_t vbs_hours;  // never sent: always 0
  tqdb_api_audit_t audit;
};

uint32_t tqdb_api_shapingobject_list(tqdb_api_handle_t *h, uint32_t session);
// add sends 0 and 0 for the fairness group and its argument; modify sends
// o->id first. Both send o's limits inbound, outbound, bidir, in list order.
uint32_t tqdb_api_shapingobject_add(tqdb_api_handle_t *h, uint32_t session,
                                    const tqdb_api_shapingobject_t *o);
uint32_t tqdb_api_shapingobject_modify(tqdb_api_handle_t *h, uint32_t session,
                                       const tqdb_api_shapingobject_t *o);
uint32_t tqdb_api_shapingobject_remove(tqdb_api_handle_t *h, uint32_t session, uint32_t id);
uint32_t tqdb_api_shapingobject_rename(tqdb_api_handle_t *h, uint32_t session, uint32_t id,
                                       const char *name);
uint32_t tqdb_api_shapingobject_tstamp(tqdb_api_handle_t *h, uint32_t session, uint32_t id);
uint32_t tqdb_api_shapingobject_comments_get(tqdb_api_handle_t *h, uint32_t session, uint32_t id);
uint32_t tqdb_api_shapingobject_comments_set(tqdb_api_handle_t *h, uint32_t session, uint32_t id,
                                             const char *comments);
uint32_t tqdb_api_shapingobject_attr_list(tqdb_api_handle_t *h, uint32_t session, uint32_t id);
uint32_t tqdb_api_shapingobject_attr_set(tqdb_api_handle_t *h, uint32_t session, uint32_t id,
                                         const char *key, const char *value);
uint32_t tqdb_api_shapingobject_attr_remove(tqdb_api_handle_t *h, uint32_t session, uint32_t id,
                                            const char *key);
tq_list_t *tqdb_api_shapingobject_list_handle(tqdb_api_msg_t *env, tq_list_t *list);
void tqdb_api_shapingobject_list_free(tq_list_t *list);

// --- statistics and IPFIX objects (api/statisticsobject, api/ipfixobject) ---------------
struct tqdb_api_statisticsobject_t {
  uint32_t id;
  char name[256];
  uint32_t split;           // SHAPINGOBJECT_SPLIT_*: what the counters are kept per
  uint32_t split_argument;
  uint32_t fields;          // bit mask of the counters kept
  uint32_t interval;        // seconds between samples
  tqdb_api_audit_t audit;
};
uint32_t tqdb_api_statisticsobject_list(tqdb_api_handle_t *h, uint32_t session);
uint32_t tqdb_api_statisticsobject_add(tqdb_api_handle_t *h, uint32_t session,
                                       const tqdb_api_statisticsobject_t *o);
uint32_t tqdb_api_statisticsobject_modify(tqdb_api_handle_t *h, uint32_t session,
                                          const tqdb_api_statisticsobject_t *o);
uint32_t tqdb_api_statisticsobject_remove(tqdb_api_handle_t *h, uint32_t session, uint32_t id);
uint32_t tqdb_api_statisticsobject_rename(tqdb_api_handle_t *h, uint32_t session, uint32_t id,
                                          const char *name);
tq_list_t *tqdb_api_statisticsobject_list_handle(tqdb_api_msg_t *env, tq_list_t *list);
void tqdb_api_statisticsobject_list_free(tq_list_t *list);  // flat records

struct tqdb_api_ipfixobject_t {
  uint32_t id;
  char name[256];
  char collector[128];  // address of the collector
  uint16_t port;
  uint8_t protocol;     // 6 TCP, 17 UDP
  uint32_t interval;    // active timeout in seconds
  tqdb_api_audit_t audit;
};
uint32_t tqdb_api_ipfixobject_list(tqdb_api_handle_t *h, uint32_t session);
uint32_t tqdb_api_ipfixobject_add(tqdb_api_handle_t *h, uint32_t session,
                                  const tqdb_api_ipfixobject_t *o);
uint32_t tqdb_api_ipfixobject_remove(tqdb_api_handle_t *h, uint32_t session, uint32_t id);
uint32_t tqdb_api_ipfixobject_rename(tqdb_api_handle_t *h, uint32_t session, uint32_t id,
                                     const char *name);
tq_list_t *tqdb_api_ipfixobject_list_handle(tqdb_api_msg_t *env, tq_list_t *list);
void tqdb_api_ipfixobject_list_free(tq_list_t *list);  // flat records

// --- rules (api/fwrule, api/shapingrule, api/statisticsrule) ----------------------------------
struct tqdb_api_fwrule_t {
  uint32_t id;
  char name[256];
  uint32_t rulecondition;
  uint8_t active;
  uint32_t action;  // FWRULE_ACTION_*
  uint8_t quick;
  uint8_t log_level;
  uint32_t rewriteobject;
  uint32_t enrichobject;
  uint32_t monitor_iface;
  char monitor_label[128];
  char divert_label[128];
  uint32_t position;
  uint32_t orderby;
  char trigger[128];
  char inject_data[512];
  tqdb_api_audit_t audit;
};
struct tqdb_api_shapingrule_t {
  uint32_t id;
  char name[256];
  uint8_t active;
  uint8_t priority;
  uint8_t precedence;
  uint8_t fair_factor;
  uint32_t rulecondition;
  tqdb_api_audit_t audit;
  tq_list_t *objects;  // integer list of shaping object ids, wire order
};
inline constexpr uint8_t TQDB_STATISTICSRULE_ACTIVE = 1;
inline constexpr uint8_t TQDB_STATISTICSRULE_CONNLOG = 4;
inline constexpr uint8_t TQDB_STATISTICSRULE_INSIGHTS_TRAFFIC = 16;
struct tqdb_api_statisticsrule_t {
  uint32_t id;
  char name[256];
  uint8_t flags;  // TQDB_STATISTICSRULE_* bits
  uint32_t rulecondition;
  tqdb_api_audit_t audit;
  tq_list_t *statisticsobjects;  // integer lists, reverse wire order
  tq_list_t *ipfixobjects;
};

// Requests every rule family has (codes from its tqdb_api_rule_codes_t).
uint32_t tqdb_api_fwrule_list(tqdb_api_handle_t *h, uint32_t session);
uint32_t tqdb_api_fwrule_remove(tqdb_api_handle_t *h, uint32_t session, uint32_t id);
uint32_t tqdb_api_fwrule_rename(tqdb_api_handle_t *h, uint32_t session, uint32_t id,
                                const char *name);
uint32_t tqdb_api_fwrule_set_active(tqdb_api_handle_t *h, uint32_t session, uint32_t id,
                                    uint8_t active);
uint32_t tqdb_api_fwrule_tstamp(tqdb_api_handle_t *h, uint32_t session, uint32_t id);
uint32_t tqdb_api_fwrule_copy(tqdb_api_handle_t *h, uint32_t session, uint32_t id);
uint32_t tqdb_api_fwrule_comments_get(tqdb_api_handle_t *h, uint32_t session, uint32_t id);
uint32_t tqdb_api_fwrule_comments_set(tqdb_api_handle_t *h, uint32_t session, uint32_t id,
                                      const char *comments);
uint32_t tqdb_api_shapingrule_list(tqdb_api_handle_t *h, uint32_t session);
uint32_t tqdb_api_shapingrule_remove(tqdb_api_handle_t *h, uint32_t session, uint32_t id);
uint32_t tqdb_api_shapingrule_rename(tqdb_api_handle_t *h, uint32_t session, uint32_t id,
                                     const char *name);
uint32_t tqdb_api_shapingrule_set_active(tqdb_api_handle_t *h, uint32_t session, uint32_t id,
                                         uint8_t active);
uint32_t tqdb_api_shapingrule_tstamp(tqdb_api_handle_t *h, uint32_t session, uint32_t id);
uint32_t tqdb_api_shapingrule_copy(tqdb_api_handle_t *h, uint32_t session, uint32_t id);
uint32_t tqdb_api_shapingrule_comments_get(tqdb_api_handle_t *h, uint32_t session, uint32_t id);
uint32_t tqdb_api_shapingrule_comments_set(tqdb_api_handle_t *h, uint32_t session, uint32_t id,
                                           const char *comments);
uint32_t tqdb_api_statisticsrule_list(tqdb_api_handle_t *h, uint32_t session);
uint32_t tqdb_api_statisticsrule_remove(tqdb_api_handle_t *h, uint32_t session, uint32_t id);
uint32_t tqdb_api_statisticsrule_rename(tqdb_api_handle_t *h, uint32_t session, uint32_t id,
                                        const char *name);
uint32_t tqdb_api_statisticsrule_set_active(tqdb_api_handle_t *h, uint32_t session, uint32_t id,
                                            uint8_t active);
uint32_t tqdb_api_statisticsrule_tstamp(tqdb_api_handle_t *h, uint32_t session, uint32_t id);
uint32_t tqdb_api_statisticsrule_copy(tqdb_api_handle_t *h, uint32_t session, uint32_t id);
uint32_t tqdb_api_statisticsrule_comments_get(tqdb_api_handle_t *h, uint32_t session,
                                              uint32_t id);
uint32_t tqdb_api_statisticsrule_comments_set(tqdb_api_handle_t *h, uint32_t session, uint32_t id,
                                              const char *comments);

// Family bodies. add sends r's add fields (name first), update r->id and the
// update fields; see the layouts in docs/protocol.md.
uint32_t tqdb_api_fwrule_add(tqdb_api_handle_t *h, uint32_t session, const tqdb_api_fwrule_t *r);
uint32_t tqdb_api_fwrule_update(tqdb_api_handle_t *h, uint32_t session,
                                const tqdb_api_fwrule_t *r);
uint32_t tqdb_api_fwrule_position_swap(tqdb_api_handle_t *h, uint32_t session, uint32_t rule1,
                                       uint32_t rule2);
uint32_t tqdb_api_shapingrule_add(tqdb_api_handle_t *h, uint32_t session,
                                  const tqdb_api_shapingrule_t *r);
uint32_t tqdb_api_shapingrule_update(tqdb_api_handle_t *h, uint32_t session,
                                     const tqdb_api_shapingrule_t *r);
uint32_t tqdb_api_shapingrule_set_objects(tqdb_api_handle_t *h, uint32_t session, uint32_t rule,
                                          std::span<const uint32_t> objects);
// connlog and insights_traffic are sent as given (0 or 1).
uint32_t tqdb_api_statisticsrule_add(tqdb_api_handle_t *h, uint32_t session, const char *name,
                                     uint32_t rulecondition, uint8_t connlog,
                                     uint8_t insights_traffic);
uint32_t tqdb_api_statisticsrule_update(tqdb_api_handle_t *h, uint32_t session, uint32_t id,
                                        uint32_t rulecondition, uint8_t connlog,
                                        uint8_t insights_traffic);
uint32_t tqdb_api_statisticsrule_set_objects(tqdb_api_handle_t *h, uint32_t session,
                                             uint32_t rule,
                                             std::span<const uint32_t> statisticsobjects,
                                             std::span<const uint32_t> ipfixobjects);

// Each reply's rules are put at the head of list (reverse wire order).
// nullptr when a record cannot be read whole: that reply's records are freed
// and list is untouched.
tq_list_t *tqdb_api_fwrule_list_handle(tqdb_api_msg_t *env, tq_list_t *list);
tq_list_t *tqdb_api_shapingrule_list_handle(tqdb_api_msg_t *env, tq_list_t *list);
tq_list_t *tqdb_api_statisticsrule_list_handle(tqdb_api_msg_t *env, tq_list_t *list);
void tqdb_api_fwrule_list_free(tq_list_t *list);
void tqdb_api_shapingrule_list_free(tq_list_t *list);
void tqdb_api_statisticsrule_list_free(tq_list_t *list);
// The rule timestamp / copy / comments replies.
bool tqdb_api_fwrule_tstamp_handle(tqdb_api_msg_t *env, char *buf);
bool tqdb_api_fwrule_copy_handle(tqdb_api_msg_t *env, uint32_t *id, char *buf);
bool tqdb_api_fwrule_comments_get_handle(tqdb_api_msg_t *env, char *buf, size_t size);
bool tqdb_api_shapingrule_tstamp_handle(tqdb_api_msg_t *env, char *buf);
bool tqdb_api_shapingrule_copy_handle(tqdb_api_msg_t *env, uint32_t *id, char *buf);
bool tqdb_api_shapingrule_comments_get_handle(tqdb_api_msg_t *env, char *buf, size_t size);
bool tqdb_api_statisticsrule_tstamp_handle(tqdb_api_msg_t *env, char *buf);
bool tqdb_api_statisticsrule_copy_handle(tqdb_api_msg_t *env, uint32_t *id, char *buf);
bool tqdb_api_statisticsrule_comments_get_handle(tqdb_api_msg_t *env, char *buf, size_t size);

// --- rule conditions (api/ruleconditions) ---------------------------------------------------
struct tqdb_api_rule_condition_item_t {
  uint8_t conditiontype;  // RULESET_CONDITION_TYPE_*
  uint32_t objectid;
};
struct tqdb_api_rule_condition_t {
  uint32_t id;
  char name[256];
  uint8_t op;  // the condition's `operator`: RULECONDITION_AND / OR / NOT
  tqdb_api_audit_t audit;
  tq_list_t *items;  // tqdb_api_rule_condition_item_t, reverse wire order
};

uint32_t tqdb_api_ruleconditions_list(tqdb_api_handle_t *h, uint32_t session);
uint32_t tqdb_api_ruleconditions_add(tqdb_api_handle_t *h, uint32_t session, const char *name,
                                     uint8_t op);
uint32_t tqdb_api_ruleconditions_remove(tqdb_api_handle_t *h, uint32_t session, uint32_t id);
uint32_t tqdb_api_ruleconditions_rename(tqdb_api_handle_t *h, uint32_t session, uint32_t id,
                                        const char *name);
// Not sent at all (returns 0) when the items do not fit in one message.
uint32_t tqdb_api_ruleconditions_set_items(tqdb_api_handle_t *h, uint32_t session, uint32_t id,
                                           std::span<const tqdb_api_rule_condition_item_t> items);

// The list built so far and the condition that items attach to; an answer
// spanning several replies is decoded with the same state.
struct tqdb_api_ruleconditions_state_t {
  tq_list_t *list;  // conditions, reverse wire order
  tqdb_api_rule_condition_t *current;
};
// false when an item arrives with no current condition (what was read
// before stays in the state). A reply of another type changes nothing.
bool tqdb_api_ruleconditions_list_handle(tqdb_api_msg_t *env,
                                         tqdb_api_ruleconditions_state_t *state);
void tqdb_api_ruleconditions_list_free(tq_list_t *list);
bool tqdb_api_ruleconditions_timestamp_handle(tqdb_api_msg_t *env, char *buf);

// --- dynamic live views (api/dynamicliveview) ------------------------------------------------
struct tqdb_api_dynamicliveview_filter_value_t {
  uint32_t id;
  char value[64];
};
struct tqdb_api_dynamicliveview_filter_t {
  uint32_t id;
  uint8_t op;  // the filter's `operator`
  char key[256];
  tq_list_t *values;  // filter values, reverse wire order
};
struct tqdb_api_dynamicliveview_distribution_t {
  uint32_t id;
  char distribution[256];
  char argument[256];
};
struct tqdb_api_dynamicliveview_t {
  uint32_t id;
  char name[256];
  tqdb_api_audit_t audit;
  tq_list_t *distributions;  // reverse wire order
  tq_list_t *filters;        // reverse wire order
};

uint32_t tqdb_api_dynamicliveview_add(tqdb_api_handle_t *h, uint32_t session, const char *name);
uint32_t tqdb_api_dynamicliveview_remove(tqdb_api_handle_t *h, uint32_t session, uint32_t id);
uint32_t tqdb_api_dynamicliveview_list(tqdb_api_handle_t *h, uint32_t session);
// filters: tqdb_api_dynamicliveview_filter_t records (values: filter value
// records), distributions: distribution records, each sent in list order;
// the distributions go first on the wire.
uint32_t tqdb_api_dynamicliveview_update(tqdb_api_handle_t *h, uint32_t session, uint32_t id,
                                         const tq_list_t *filters,
                                         const tq_list_t *distributions);
uint32_t tqdb_api_dynamicliveview_rename(tqdb_api_handle_t *h, uint32_t session, uint32_t id,
                                         const char *name);
// A tag above 3 is a fatal bug (the appliance's place: dynamicliveview.c 160).
tq_list_t *tqdb_api_dynamicliveview_list_handle(tqdb_api_msg_t *env, tq_list_t *list);
void tqdb_api_dynamicliveview_list_free(tq_list_t *list);
// Frees filter records with their values (lists the binding builds).
void tqdb_api_dynamicliveview_filters_free(tq_list_t *filters);

#endif
