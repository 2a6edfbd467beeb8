// The connection log (api/connlog): searching the appliance's log of
// connections, the services and days it holds, and counting matches.
//
// A search answer is a run of items, each behind a kind byte, spread over
// one or more DATA replies and ended by OK:
//   1 a connection entry        3 one string of the string table (id, text)
//   2 the string table's start  4 the metadata, per-condition match counts
//                                 and warnings (ends the last DATA)
// Entries name their service and server host name by string-table id; the
// table comes before the entries that use it and grows over the replies of
// one answer, so one result record is handed every reply of the answer.
#ifndef TQDB_API_CONNLOG_H
#define TQDB_API_CONNLOG_H

#include <cstddef>
#include <cstdint>

#include "tqdb_api.h"

struct tq_list_t;

inline constexpr uint32_t TQDB_REQ_CONNLOG_SEARCH = 0x19B01;
inline constexpr uint32_t TQDB_REQ_CONNLOG_SERVICELIST = 0x19B02;
inline constexpr uint32_t TQDB_REQ_CONNLOG_DAYLIST = 0x19B03;
inline constexpr uint32_t TQDB_REQ_CONNLOG_COUNT = 0x19B04;

inline constexpr size_t TQDB_API_CONNLOG_ADDR_MAX = 63;   // address text of a filter
inline constexpr size_t TQDB_API_CONNLOG_TEXT_MAX = 255;  // service, host name, warning
inline constexpr size_t TQDB_API_CONNLOG_DAY_MAX = 10;    // "YYYY-MM-DD"
// The limit of the appliance when a search names none (max_hits 0).
inline constexpr uint32_t TQDB_API_CONNLOG_MAX_HITS = 10000;

enum tqdb_api_connlog_family : uint8_t {
  TQDB_API_CONNLOG_IPV4 = 0,
  TQDB_API_CONNLOG_IPV6 = 1,
};

// What a search or a count asks for. Zero and "" leave a condition out.
// Times are Unix seconds; an entry matches when its start lies in
// [starttime, endtime] (0: open). Addresses are texts ("192.0.2.1",
// "2001:db8::1"); serverhostname matches as a substring.
struct tqdb_api_connlog_filter_t {
  uint64_t starttime;
  uint64_t endtime;
  char server[TQDB_API_CONNLOG_ADDR_MAX + 1];
  uint32_t serverport;
  char client[TQDB_API_CONNLOG_ADDR_MAX + 1];
  uint32_t clientport;
  char service[TQDB_API_CONNLOG_TEXT_MAX + 1];
  char serverhostname[TQDB_API_CONNLOG_TEXT_MAX + 1];
  uint32_t protocol;
  uint32_t netobject;  // object id
  char natclient[TQDB_API_CONNLOG_ADDR_MAX + 1];
  uint32_t natclientport;
  char natserver[TQDB_API_CONNLOG_ADDR_MAX + 1];
  uint32_t natserverport;
  uint32_t max_hits;  // 0: TQDB_API_CONNLOG_MAX_HITS (the count ignores it)
  uint32_t offset;    // matches skipped before the first sent (the count ignores it)
};

// The filter's fields in wire order; the scripting keywords are the keys.
// Sender, scripting layer and simulator walk this one table.
enum class tqdb_api_connlog_filter_wire : uint8_t { U64, U32, Text };
struct tqdb_api_connlog_filter_field_t {
  const char *key;
  tqdb_api_connlog_filter_wire wire;
  uint16_t offset;
  uint16_t size;
};
#define TQDB_CONNLOG_FILTER_ROW(m, wire)                                              \
  tqdb_api_connlog_filter_field_t {                                                   \
    #m, tqdb_api_connlog_filter_wire::wire, offsetof(tqdb_api_connlog_filter_t, m),   \
        sizeof(tqdb_api_connlog_filter_t::m)                                          \
  }
inline constexpr tqdb_api_connlog_filter_field_t TQDB_API_CONNLOG_FILTER_FIELDS[] = {
    TQDB_CONNLOG_FILTER_ROW(starttime, U64),      TQDB_CONNLOG_FILTER_ROW(endtime, U64),
    TQDB_CONNLOG_FILTER_ROW(server, Text),        TQDB_CONNLOG_FILTER_ROW(serverport, U32),
    TQDB_CONNLOG_FILTER_ROW(client, Text),        TQDB_CONNLOG_FILTER_ROW(clientport, U32),
    TQDB_CONNLOG_FILTER_ROW(service, Text),       TQDB_CONNLOG_FILTER_ROW(serverhostname, Text),
    TQDB_CONNLOG_FILTER_ROW(protocol, U32),       TQDB_CONNLOG_FILTER_ROW(netobject, U32),
    TQDB_CONNLOG_FILTER_ROW(natclient, Text),     TQDB_CONNLOG_FILTER_ROW(natclientport, U32),
    TQDB_CONNLOG_FILTER_ROW(natserver, Text),     TQDB_CONNLOG_FILTER_ROW(natserverport, U32),
    TQDB_CONNLOG_FILTER_ROW(max_hits, U32),       TQDB_CONNLOG_FILTER_ROW(offset, U32),
};
#undef TQDB_CONNLOG_FILTER_ROW
// The conditions a search counts matches of: every field but the last two.
inline constexpr size_t TQDB_API_CONNLOG_CONDITIONS = 14;

// One connection (label "tqdb_api_connlog_recv_entry_t"). Addresses are in
// host order; an IPv4 address is word 0. NAT addresses are IPv4, 0 when the
// connection was not translated.
struct tqdb_api_connlog_recv_entry_t {
  uint32_t start;  // Unix seconds
  uint32_t end;
  uint8_t family;  // tqdb_api_connlog_family
  uint8_t protocol;  // IP protocol number
  uint32_t client[4];
  uint32_t server[4];
  uint16_t clientport;
  uint16_t serverport;
  uint64_t bytes_in;  // client to server
  uint64_t bytes_out;
  uint32_t service;         // string-table id, 0: none
  uint32_t serverhostname;  // string-table id, 0: none
  uint32_t netobject;
  uint32_t natclient;
  uint16_t natclientport;
  uint32_t natserver;
  uint16_t natserverport;
  tq_list_t *vnos;  // the values as integers (node data), wire order
};

// The kind-4 item.
struct tqdb_api_connlog_meta_t {
  uint32_t total;     // entries matching
  uint32_t returned;  // entries sent
  uint32_t n_matches;
  uint64_t searched_from;
  uint64_t searched_to;
  uint8_t complete;  // 1 when max_hits cut nothing
  uint32_t elapsed_ms;
  uint64_t *matches;    // n_matches counts, one per condition given, in filter order
  tq_list_t *warnings;  // texts, wire order
};

inline constexpr size_t TQDB_API_CONNLOG_ERROR_MAX = 64;

// What the replies of one search answer decode into (label
// "tqdb_api_connlog_result_t"); made by tqdb_api_connlog_result_new.
struct tqdb_api_connlog_result_t {
  tq_list_t *entries;       // tqdb_api_connlog_recv_entry_t, reply order
  tq_list_t *entries_tail;  // the last node of entries
  tq_list_t *strings;       // node tag: the id, data: the text; newest first
  uint32_t strings_announced;  // the sum of the table starts' counts
  uint8_t has_meta;
  tqdb_api_connlog_meta_t meta;
  // "No error", or the text of the last reply that failed.
  char error[TQDB_API_CONNLOG_ERROR_MAX];
};

uint32_t tqdb_api_connlog_search(tqdb_api_handle_t *h, uint32_t session,
                                 const tqdb_api_connlog_filter_t *filter);
uint32_t tqdb_api_connlog_count(tqdb_api_handle_t *h, uint32_t session,
                                const tqdb_api_connlog_filter_t *filter);
// day: "YYYY-MM-DD".
uint32_t tqdb_api_connlog_servicelist(tqdb_api_handle_t *h, uint32_t session, const char *day);
uint32_t tqdb_api_connlog_daylist(tqdb_api_handle_t *h, uint32_t session);

tqdb_api_connlog_result_t *tqdb_api_connlog_result_new();
void tqdb_api_connlog_result_free(tqdb_api_connlog_result_t *r);
// The text of a string-table id; "" for 0 or an id the table lacks.
const char *tqdb_api_connlog_string(const tqdb_api_connlog_result_t *r, uint32_t id);

// Continues r with one reply of a search answer. 1: the body was read to
// its end (an empty body, or a string table start cut short, included);
// the reply's entries are then appended to r->entries. 0: a reply that is
// not DATA (r unchanged), or an item that failed, whose text goes into
// r->error; the reply's entries are then dropped. Never aborts.
int tqdb_api_connlog_search_handle(tqdb_api_msg_t *env, tqdb_api_connlog_result_t *r);

// Append the reply's texts (label "tqdb_api_connlog_text") in wire order;
// released with tqdb_api_connlog_list_free.
tq_list_t *tqdb_api_connlog_servicelist_handle(tqdb_api_msg_t *env, tq_list_t *list);
tq_list_t *tqdb_api_connlog_daylist_handle(tqdb_api_msg_t *env, tq_list_t *list);
void tqdb_api_connlog_list_free(tq_list_t *list);
// The count of a DATA reply; 0 for any other reply or one cut short.
uint64_t tqdb_api_connlog_count_handle(tqdb_api_msg_t *env);

#endif
