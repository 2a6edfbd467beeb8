// The statistics reader of the TQDB client API: requests that address a node
// of the statistics tree (time range, path, value type) and the decoders of
// their replies; the statistics field list and value types.
//
// Requests follow the core rule (tqdb_api.h): build, queue, return the
// correlation id, 0 when nothing was queued. Strings may be nullptr (the
// null string).
//
// Decoders take the envelope and, where a result grows across replies, the
// result built so far. They return the result to keep; nullptr (or 0) means
// "nothing": a reply of another type than DATA, and what was passed in is
// untouched and still the caller's:
//   if (auto *r = tqdb_api_statreader_list_handle(env, l)) l = r;
// A reply cut short reads its missing fields as zero and tells the
// envelope's corrupt-message callback once.
//
// Release list records with tqdb_api_statreader_list_free, graphs with
// tqdb_api_statreader_graph_free, field lists with
// tqdb_api_statistics_fields_free; every other list holds flat records:
// tq_list_free_with_data.
#ifndef TQDB_API_STATREADER_H
#define TQDB_API_STATREADER_H

#include <cstddef>
#include <cstdint>

#include "tqdb_api.h"

// --- request codes ----------------------------------------------------------------------
// A graph reply announcing a usage bitmap larger than this is broken.
inline constexpr uint32_t TQDB_STAT_USAGE_MAX = 1u << 20;
inline constexpr uint32_t TQDB_REQ_STAT_DATE_LIST = 0x19A01;
inline constexpr uint32_t TQDB_REQ_STAT_LIST = 0x19A02;
inline constexpr uint32_t TQDB_REQ_STAT_GRAPH = 0x19A03;
inline constexpr uint32_t TQDB_REQ_STAT_TRANSFER_GET = 0x19A05;
inline constexpr uint32_t TQDB_REQ_STAT_TOP_LIST = 0x19A06;
inline constexpr uint32_t TQDB_REQ_STAT_LIST_FIELDS = 0x19A07;
inline constexpr uint32_t TQDB_REQ_STAT_SUBITEM_COUNT = 0x19A09;
inline constexpr uint32_t TQDB_REQ_STAT_PEAK_LIST = 0x19A0A;
inline constexpr uint32_t TQDB_REQ_STAT_WRITER_STATUS = 0x19A0B;
inline constexpr uint32_t TQDB_REQ_STAT_LIST_DURATION = 0x19A0C;
inline constexpr uint32_t TQDB_REQ_STAT_SUBSCRIBER_COUNT = 0x19A0E;
inline constexpr uint32_t TQDB_REQ_STAT_SUBSCRIBER_COUNT_LIST = 0x19A0F;
inline constexpr uint32_t TQDB_REQ_STAT_SUBSCRIBER_COUNT_GRAPH = 0x19A10;
inline constexpr uint32_t TQDB_REQ_STAT_GET_FLAGS = 0x19A11;
inline constexpr uint32_t TQDB_REQ_STAT_LIST_GRAPH = 0x19A12;
inline constexpr uint32_t TQDB_REQ_STAT_RECURSIVE_LIST = 0x19A13;
inline constexpr uint32_t TQDB_REQ_STAT_DATA_INVALIDATE = 0x19A14;
inline constexpr uint32_t TQDB_REQ_STAT_GRAPH_INVALIDATE = 0x19A15;
inline constexpr uint32_t TQDB_REQ_STAT_SUBITEM_COUNT_LIST = 0x19A16;
inline constexpr uint32_t TQDB_REQ_STAT_SUBSCRIBERS = 0x19A17;
inline constexpr uint32_t TQDB_REQ_STAT_SUBITEMS_LIST = 0x19A18;
inline constexpr uint32_t TQDB_REQ_STAT_SUBSCRIBERS_ACTIVITY = 0x19A19;
inline constexpr uint32_t TQDB_REQ_STAT_LIST_ACTIVITY = 0x19A1A;
inline constexpr uint32_t TQDB_REQ_STAT_LIST_SUBSCRIBERS = 0x19A1B;
inline constexpr uint32_t TQDB_REQ_STAT_LIST_SEARCH = 0x19A1C;
inline constexpr uint32_t TQDB_REQ_STAT_NAMES_LIST = 0x19A1E;
inline constexpr uint32_t TQDB_REQ_STAT_STRING_TABLE = 0x19A1F;
inline constexpr uint32_t TQDB_REQ_STAT_PROTOCOL_VERSION = 0x19A20;
// 0x19A21, the columnar query: TQDB_REQ_STATREADER_QUERY (tqdb_api_query.h).

// Bit of the flags word that marks a node with children.
inline constexpr uint16_t TQDB_STAT_FLAGS_EXPANDABLE = 2;
// Longest node name kept, NUL not counted.
inline constexpr size_t TQDB_STAT_NAME_MAX = 2047;

// --- records ----------------------------------------------------------------------------
// One list reply, and the continuation handle of the next request. The
// record and its two arrays are one allocation (40 + 8 * count bytes).
struct tqdb_api_statreader_list_t {
  uint8_t mode;  // 1: every node carries mode_value_1 and mode_value_2
  uint8_t count;
  uint64_t id;  // 0: nothing to continue
  uint32_t *keys;
  uint32_t *values;
  tq_list_t *nodes;  // tqdb_api_statreader_list_node_t, reply order
};
static_assert(sizeof(tqdb_api_statreader_list_t) == 40);

// One tree node. The node, its name and both arrays are one allocation
// (72 + strlen(name) + 8 * (n_values + n_extra) bytes).
struct tqdb_api_statreader_list_node_t {
  char *name;
  uint64_t *values;  // the totals the reply mask selected
  uint64_t *extra;
  uint8_t n_values;
  uint8_t n_extra;
  uint16_t type;  // STATISTICS_VALUETYPE_*
  uint16_t field_a;
  uint16_t field_b;
  uint64_t flags;  // STATISTICS_FLAG_*
  uint64_t time;
  uint64_t mode_value_1;
  uint64_t mode_value_2;
};
static_assert(sizeof(tqdb_api_statreader_list_node_t) == 64);

// One graph point: the node and its three arrays are one allocation
// (72 + 8 * (n_u64 + n_double + n_extra) bytes).
struct tqdb_api_statreader_graph_node_t {
  uint64_t point_mask;
  uint64_t point_time;
  uint32_t p1;
  uint32_t p2;
  uint64_t opt1;  // present when bit 24 of point_mask is set
  uint64_t opt2;  // present when bit 25 of point_mask is set
  uint8_t n_u64;
  uint8_t n_double;
  uint8_t n_extra;
  uint64_t *u64s;
  double *doubles;
  uint64_t *extra;
};
inline constexpr uint64_t TQDB_STAT_POINT_OPT1 = uint64_t{1} << 24;
inline constexpr uint64_t TQDB_STAT_POINT_OPT2 = uint64_t{1} << 25;

// One graph, filled by as many replies as it takes (received < total_points).
struct tqdb_api_statreader_graph_t {
  uint32_t total_points;
  uint16_t g1;
  uint16_t g2;
  uint16_t g3;
  uint32_t usage_count;
  uint16_t *usage_bm;  // usage_count entries, zeroed, or nullptr
  uint32_t received;
  // The header of the point read last.
  uint64_t point_mask;
  uint8_t n_u64;
  uint8_t n_double;
  uint8_t n_extra;
  uint64_t point_time;
  tq_list_t *points;  // tqdb_api_statreader_graph_node_t, reply order
};

// --- requests -------------------------------------------------------------------------
// Every addressed request starts with start, end, path (strings) and the
// node's value type (u16).
uint32_t tqdb_api_statreader_date_list(tqdb_api_handle_t *h, uint32_t session);
// cont: the previous list reply to continue, or nullptr (sends a zero id).
uint32_t tqdb_api_statreader_list(tqdb_api_handle_t *h, uint32_t session, const char *start,
                                  const char *end, const char *path, uint16_t type,
                                  uint64_t replymask, const tqdb_api_statreader_list_t *cont);
// further: the byte behind usage_rate; trailer: the closing u32 (0 for a
// plain graph).
uint32_t tqdb_api_statreader_graph(tqdb_api_handle_t *h, uint32_t session, const char *start,
                                   const char *end, const char *path, uint16_t type,
                                   uint32_t numvals, uint8_t mode, uint64_t replymask,
                                   bool usage_rate, uint8_t further, uint32_t trailer);
uint32_t tqdb_api_statreader_transfer_get(tqdb_api_handle_t *h, uint32_t session, const char *f,
                                          const char *to, const char *path, uint16_t type,
                                          uint64_t replymask);
// The u64 behind replymask is sent as 0.
uint32_t tqdb_api_statreader_top_list(tqdb_api_handle_t *h, uint32_t session, const char *start,
                                      const char *end, const char *path, uint32_t max,
                                      uint16_t type, uint64_t replymask, uint32_t offset,
                                      const tqdb_api_statreader_list_t *cont);
uint32_t tqdb_api_statreader_subitem_count(tqdb_api_handle_t *h, uint32_t session, const char *start,
                                           const char *end, const char *path, uint16_t type);
uint32_t tqdb_api_statreader_peak_list(tqdb_api_handle_t *h, uint32_t session, const char *start,
                                       const char *end, const char *path, uint16_t type,
                                       uint64_t replymask);
uint32_t tqdb_api_statreader_writer_status(tqdb_api_handle_t *h, uint32_t session);
uint32_t tqdb_api_statreader_list_duration(tqdb_api_handle_t *h, uint32_t session, const char *start,
                                           const char *end, const char *path, uint16_t type,
                                           bool threshold);
uint32_t tqdb_api_statreader_subscriber_count(tqdb_api_handle_t *h, uint32_t session,
                                              const char *start, const char *end,
                                              const char *path, uint16_t type);
uint32_t tqdb_api_statreader_subscriber_count_list(tqdb_api_handle_t *h, uint32_t session,
                                                   const char *start, const char *end,
                                                   const char *path, uint16_t type);
uint32_t tqdb_api_statreader_subscriber_count_graph(tqdb_api_handle_t *h, uint32_t session,
                                                    const char *start, const char *end,
                                                    const char *path, uint16_t type,
                                                    uint32_t numvals);
uint32_t tqdb_api_statreader_get_flags(tqdb_api_handle_t *h, uint32_t session, const char *start,
                                       const char *end, const char *path, uint16_t type);
uint32_t tqdb_api_statreader_list_graph(tqdb_api_handle_t *h, uint32_t session, const char *start,
                                        const char *end, const char *path, uint16_t type,
                                        uint32_t numvals, uint8_t mode, uint64_t replymask);
uint32_t tqdb_api_statreader_recursive_list(tqdb_api_handle_t *h, uint32_t session,
                                            const char *start, const char *end, const char *path,
                                            uint16_t type);
uint32_t tqdb_api_statreader_data_invalidate(tqdb_api_handle_t *h, uint32_t session,
                                             const char *start, const char *end, const char *path,
                                             uint16_t type, bool deleteroot);
uint32_t tqdb_api_statreader_graph_invalidate(tqdb_api_handle_t *h, uint32_t session,
                                              const char *start, const char *end, const char *path,
                                              uint16_t type, bool deleteroot);
uint32_t tqdb_api_statreader_subitem_count_list(tqdb_api_handle_t *h, uint32_t session,
                                                const char *start, const char *end,
                                                const char *path, uint16_t type);
uint32_t tqdb_api_statreader_subscribers(tqdb_api_handle_t *h, uint32_t session, const char *start,
                                         const char *end, const char *path, uint16_t type,
                                         int32_t max, uint64_t replymask);
uint32_t tqdb_api_statreader_subitems_list(tqdb_api_handle_t *h, uint32_t session,
                                           const char *start, const char *end, const char *path,
                                           uint16_t type, int32_t max, uint64_t replymask);
uint32_t tqdb_api_statreader_subscribers_activity(tqdb_api_handle_t *h, uint32_t session,
                                                  const char *start, const char *end,
                                                  const char *path, uint16_t type,
                                                  uint32_t numvals);
uint32_t tqdb_api_statreader_list_activity(tqdb_api_handle_t *h, uint32_t session,
                                           const char *start, const char *end, const char *path,
                                           uint16_t type, uint32_t numvals);
uint32_t tqdb_api_statreader_list_subscribers(tqdb_api_handle_t *h, uint32_t session,
                                              const char *start, const char *end,
                                              const char *path, uint16_t type, int32_t max,
                                              uint64_t replymask);
uint32_t tqdb_api_statreader_list_search(tqdb_api_handle_t *h, uint32_t session, const char *start,
                                         const char *end, const char *path, uint16_t type,
                                         int32_t max, const char *searchstr,
                                         int32_t recursiondepth, uint64_t replymask);
uint32_t tqdb_api_statreader_names_list(tqdb_api_handle_t *h, uint32_t session, const char *start,
                                        const char *end, const char *path, uint16_t type,
                                        const char *matchstr);
uint32_t tqdb_api_statreader_string_table(tqdb_api_handle_t *h, uint32_t session, uint32_t table);
uint32_t tqdb_api_statreader_protocol_version(tqdb_api_handle_t *h, uint32_t session);

// --- decoders ----------------------------------------------------------------------------
// List, top-list, search and subscriber replies. With prev, the returned
// record holds prev's nodes followed by the reply's and prev is released; the
// returned record's id continues the list.
tqdb_api_statreader_list_t *tqdb_api_statreader_list_handle(tqdb_api_msg_t *env,
                                                            tqdb_api_statreader_list_t *prev);
void tqdb_api_statreader_list_free(tqdb_api_statreader_list_t *l);

// Graph replies; pass the graph of the previous reply to continue it. A point
// cut short is discarded (and reported); decoding stops there.
tqdb_api_statreader_graph_t *tqdb_api_statreader_graph_handle(tqdb_api_msg_t *env,
                                                              tqdb_api_statreader_graph_t *g);
tqdb_api_statreader_graph_t *tqdb_api_statreader_subscriber_count_graph_handle(
    tqdb_api_msg_t *env, tqdb_api_statreader_graph_t *g);
void tqdb_api_statreader_graph_free(tqdb_api_statreader_graph_t *g);

// Node-list replies: nodes as in a list of mode 0, one after the other while
// four bytes remain, appended to list in reply order.
tq_list_t *tqdb_api_statreader_transfer_get_handle(tqdb_api_msg_t *env, tq_list_t *list);
tq_list_t *tqdb_api_statreader_list_duration_handle(tqdb_api_msg_t *env, tq_list_t *list);
tq_list_t *tqdb_api_statreader_subscriber_count_list_handle(tqdb_api_msg_t *env, tq_list_t *list);
tq_list_t *tqdb_api_statreader_subitem_count_handle(tqdb_api_msg_t *env, tq_list_t *list);
tq_list_t *tqdb_api_statreader_subitem_count_list_handle(tqdb_api_msg_t *env, tq_list_t *list);
tq_list_t *tqdb_api_statreader_names_list_handle(tqdb_api_msg_t *env, tq_list_t *list);
tq_list_t *tqdb_api_statreader_writer_status_handle(tqdb_api_msg_t *env, tq_list_t *list);
tq_list_t *tqdb_api_statreader_peak_list_handle(tqdb_api_msg_t *env, tq_list_t *list);
tq_list_t *tqdb_api_statreader_activity_handle(tqdb_api_msg_t *env, tq_list_t *list);
// Date strings (char *, label "tqdb_api_statreader_date_t", at most
// TQDB_STAT_NAME_MAX characters) while four bytes remain.
tq_list_t *tqdb_api_statreader_date_list_handle(tqdb_api_msg_t *env, tq_list_t *list);
// One u64; 0 for another type or a short reply.
uint64_t tqdb_api_statreader_subscriber_count_handle(tqdb_api_msg_t *env);
// 1 when the node's flags word has TQDB_STAT_FLAGS_EXPANDABLE, else 0.
int tqdb_api_statreader_get_flags_handle(tqdb_api_msg_t *env);

// --- statistics fields and value types (api/statisticsfs) --------------------------------
inline constexpr size_t TQDB_STAT_FIELD_NAME_MAX = 255;

struct tqdb_api_statistics_fieldnode_t {
  uint64_t field_id;
  uint8_t kind;
  uint8_t subkind;
  char name[TQDB_STAT_FIELD_NAME_MAX + 1];
};
struct tqdb_api_statistics_fields_t {
  uint8_t count_a;
  uint8_t count_b;
  tq_list_t *nodes;  // count_a + count_b fieldnodes, reply order
};

struct tqdb_api_statistics_valuetype_t {
  uint16_t id;  // STATISTICS_VALUETYPE_*
  char name[32];
  char short_name[4];
  uint32_t flags;
};

uint32_t tqdb_api_statistics_list_fields(tqdb_api_handle_t *h, uint32_t session);
tqdb_api_statistics_fields_t *tqdb_api_statistics_list_fields_handle(tqdb_api_msg_t *env);
void tqdb_api_statistics_fields_free(tqdb_api_statistics_fields_t *f);
// Value types (flat records, label "tqdb_api_statistics_valuetype_t")
// appended to list in reply order.
tq_list_t *tqdb_api_statistics_list_valuetypes_handle(tqdb_api_msg_t *env, tq_list_t *list);

#endif
