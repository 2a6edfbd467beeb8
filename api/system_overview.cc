// The system overview: systems with their values, templates, graphs and
// system information. Each record is a row table walked by one reader.
#include "tqdb_api_system_overview.h"

#include <algorithm>
#include <cstring>

#include "reply_reader.h"
#include "ruleset_rows.h"
#include "tq_list.h"
#include "tq_malloc.h"
#include "tq_msg.h"
#include "tq_str.h"
#include "tqdb_api.h"

namespace {

using Template = tqdb_api_system_overview_template_t;
using System = tqdb_api_system_overview_system_t;
using Value = tqdb_api_system_overview_value_t;
using Point = tqdb_api_system_overview_graph_value_t;
using Pair = tqdb_api_system_overview_sysinfo_value_t;

constexpr tqdb_api_item_field_t kTemplate[] = {
    TQ_ROW(Template, templateid, U32), TQ_ROW(Template, name, Text),
    TQ_ROW(Template, type, U32),       TQ_ROW(Template, flags, U32),
    TQ_ROW(Template, vtype, U32),      TQ_ROW(Template, zone, Text),
    TQ_ROW(Template, id, U32),         TQ_ROW(Template, descstr, Text),
    TQ_ROW(Template, ttype, U32)};
// The system's fields before its values.
constexpr tqdb_api_item_field_t kSystem[] = {
    TQ_ROW(System, systemid, U32),     TQ_ROW(System, name, Text),
    TQ_ROW(System, host, Text),        TQ_ROW(System, lastupdate, U64),
    TQ_ROW(System, firstupdate, U64),  TQ_ROW(System, distversion, Text),
    TQ_ROW(System, drdlrevision, Text), TQ_ROW(System, configmd5, Text),
    TQ_ROW(System, model, Text),       TQ_ROW(System, n, U32)};
constexpr tqdb_api_item_field_t kValue[] = {TQ_ROW(Value, templateid, U32), TQ_ROW(Value, value, U64),
                          TQ_ROW(Value, text, Text)};
constexpr tqdb_api_item_field_t kPoint[] = {TQ_ROW(Point, time, U64), TQ_ROW(Point, value, U64)};
constexpr tqdb_api_item_field_t kPair[] = {TQ_ROW(Pair, key, Text), TQ_ROW(Pair, value, Text)};
static_assert(tq::rows_fit(sizeof(Template), kTemplate) && tq::rows_fit(sizeof(System), kSystem) &&
              tq::rows_fit(sizeof(Value), kValue) && tq::rows_fit(sizeof(Point), kPoint) &&
              tq::rows_fit(sizeof(Pair), kPair));

// The least a value takes on the wire: a count the body cannot hold is a
// reply cut short, never an allocation of that size.
constexpr uint32_t kValueMin = 16;

// A flat record of one row table; nullptr when cut short.
template <class T, size_t N>
T *read_flat(tq::ReplyReader &r, const char *label, const tqdb_api_item_field_t (&rows)[N],
             tq::ReplyReader::Where w) {
  auto *rec = tq_new_record<T>(label);
  tq::read_rows(r, rows, rec, w);
  if (r.ok()) return rec;
  tq_free_flags(rec);
  return nullptr;
}

// n records of one row table in one block, read until the first short
// one; the reader then tells whether all n were read. No body can hold
// more than left / least records, so the block is never made larger than
// one record beyond that: a count cut short or forged costs no more than
// the body could fill.
template <class T, size_t N>
T *read_block(tq::ReplyReader &r, uint32_t n, uint32_t least, const char *label,
              const tqdb_api_item_field_t (&rows)[N], tq::ReplyReader::Where w) {
  if (n == 0) return nullptr;
  const uint32_t room = std::min(n, r.left() / least + 1);
  auto *block = static_cast<T *>(tq_zalloc(label, size_t{room} * sizeof(T)));
  for (uint32_t i = 0; i < room && r.ok(); ++i) tq::read_rows(r, rows, &block[i], w);
  return block;
}

void free_system(void *rec) {
  auto *s = static_cast<System *>(rec);
  if (s == nullptr) return;
  tq_free_flags(s->values);
  tq_free_flags(s);
}

System *read_system(tq::ReplyReader &r, tq::ReplyReader::Where w) {
  auto *s = tq_new_record<System>("tqdb_api_system_overview_system_t");
  tq::read_rows(r, kSystem, s, w);
  if (r.ok())
    s->values =
        read_block<Value>(r, s->n, kValueMin, "tqdb_api_system_overview_value_t", kValue, w);
  if (r.ok()) return s;
  free_system(s);
  return nullptr;
}

// Records one after the other while the body lasts, appended to list in
// reply order. A record cut short is released and ends the reply.
template <class ReadOne>
tq_list_t *read_list(tqdb_api_msg_t *env, tq_list_t *list, const char *decoder, ReadOne read_one,
                     void (*release)(void *),
                     tq::ReplyReader::Where w = tq::ReplyReader::Where::current()) {
  if (tqdb_api_msg_get_type(env) != TQDB_API_MSG_TYPE_DATA) return list;
  tq::ReplyReader r(env, decoder);
  tq_list_t *fresh = nullptr;  // newest first
  while (r.left() > 0) {
    void *rec = read_one(r, w);
    if (rec == nullptr) break;
    tq_list_t *node = tq_list_new(0, fresh, rec);
    if (node == nullptr) {
      release(rec);
      break;
    }
    fresh = node;
  }
  return tq_list_concat(list, tq_list_reverse(fresh));
}

template <class T, size_t N>
auto flat(const char *label, const tqdb_api_item_field_t (&rows)[N]) {
  return [label, &rows](tq::ReplyReader &r, tq::ReplyReader::Where w) -> void * {
    return read_flat<T>(r, label, rows, w);
  };
}

constexpr char kSystemNameLabel[] = "system_overview::system";
constexpr size_t kSystemNameMax = 255;

}  // namespace

// --- requests -----------------------------------------------------------------------------

uint32_t tqdb_api_system_overview_template_list(tqdb_api_handle_t *h, uint32_t session) {
  return tqdb_api_request(h, TQDB_REQ_SYSTEM_OVERVIEW_TEMPLATE_LIST, session);
}
uint32_t tqdb_api_system_overview_list(tqdb_api_handle_t *h, uint32_t session) {
  return tqdb_api_request(h, TQDB_REQ_SYSTEM_OVERVIEW_LIST, session);
}
uint32_t tqdb_api_system_overview_system_get(tqdb_api_handle_t *h, uint32_t session,
                                             uint32_t systemid) {
  return tqdb_api_send(h, TQDB_REQ_SYSTEM_OVERVIEW_SYSTEM_GET, session, systemid);
}
uint32_t tqdb_api_system_overview_announce(tqdb_api_handle_t *h, uint32_t session,
                                           uint32_t systemid, const char *name,
                                           const char *distversion, const char *drdlrevision,
                                           const char *configmd5, const char *model) {
  return tqdb_api_send(h, TQDB_REQ_SYSTEM_OVERVIEW_ANNOUNCE, session, systemid, name, distversion,
                       drdlrevision, configmd5, model);
}
uint32_t tqdb_api_system_overview_values_post(tqdb_api_handle_t *h, uint32_t session,
                                              uint32_t systemid, std::span<const Value> values) {
  // Header, system id and count take 16 bytes; a value 12.
  if (values.size() > (TQ_MSG_MAX_DATA - 16) / 12) return 0;
  return tqdb_api_request(h, TQDB_REQ_SYSTEM_OVERVIEW_VALUES_POST, session, [&](tq_msg_t *m) {
    tqdb_api_put(m, systemid);
    tqdb_api_put(m, static_cast<uint32_t>(values.size()));
    for (const Value &v : values) {
      tqdb_api_put(m, v.templateid);
      tqdb_api_put(m, v.value);
    }
  });
}
uint32_t tqdb_api_system_overview_system_graph(tqdb_api_handle_t *h, uint32_t session,
                                               uint32_t systemid, uint32_t templateid) {
  return tqdb_api_send(h, TQDB_REQ_SYSTEM_OVERVIEW_SYSTEM_GRAPH, session, systemid, templateid);
}
uint32_t tqdb_api_system_overview_system_delete(tqdb_api_handle_t *h, uint32_t session,
                                                uint32_t systemid) {
  return tqdb_api_send(h, TQDB_REQ_SYSTEM_OVERVIEW_SYSTEM_DELETE, session, systemid);
}
uint32_t tqdb_api_system_overview_sysinfo_list_systems(tqdb_api_handle_t *h, uint32_t session) {
  return tqdb_api_request(h, TQDB_REQ_SYSTEM_OVERVIEW_SYSINFO_LIST_SYSTEMS, session);
}
uint32_t tqdb_api_system_overview_sysinfo_get_system(tqdb_api_handle_t *h, uint32_t session,
                                                     const char *system) {
  return tqdb_api_send(h, TQDB_REQ_SYSTEM_OVERVIEW_SYSINFO_GET_SYSTEM, session, system);
}
uint32_t tqdb_api_system_overview_sysinfo_add_system(tqdb_api_handle_t *h, uint32_t session,
                                                     const char *system,
                                                     std::span<const Pair> data) {
  // Every text goes out whole or not at all: a request that would lose one
  // is not sent.
  size_t bytes = 8 + (system ? std::strlen(system) + 5 : 4) + 4;
  for (const Pair &p : data)
    bytes += strnlen(p.key, sizeof p.key - 1) + strnlen(p.value, sizeof p.value - 1) + 10;
  if (bytes > TQ_MSG_MAX_DATA) return 0;
  return tqdb_api_request(h, TQDB_REQ_SYSTEM_OVERVIEW_SYSINFO_ADD_SYSTEM, session,
                          [&](tq_msg_t *m) {
                            tqdb_api_put(m, system);
                            tqdb_api_put(m, static_cast<uint32_t>(data.size()));
                            for (const Pair &p : data) {
                              tq_msg_put_string_n(m, p.key, strnlen(p.key, sizeof p.key - 1));
                              tq_msg_put_string_n(m, p.value, strnlen(p.value, sizeof p.value - 1));
                            }
                          });
}

// --- decoders -----------------------------------------------------------------------------

tq_list_t *tqdb_api_system_overview_template_list_handle(tqdb_api_msg_t *env, tq_list_t *list) {
  return read_list(env, list, "tqdb_api_system_overview_template_list_handle",
                   flat<Template>("tqdb_api_system_overview_template_t", kTemplate), tq_free_flags);
}

tq_list_t *tqdb_api_system_overview_list_handle(tqdb_api_msg_t *env, tq_list_t *list) {
  return read_list(env, list, "tqdb_api_system_overview_list_handle", read_system, free_system);
}

void tqdb_api_system_overview_list_free(tq_list_t *list) {
  for (tq_list_t *n = list; n; n = n->next) {
    free_system(n->data);
    n->data = nullptr;
  }
  tq_list_free(list);
}

tq_list_t *tqdb_api_system_overview_system_graph_handle(tqdb_api_msg_t *env, tq_list_t *list) {
  return read_list(env, list, "tqdb_api_system_overview_system_graph_handle",
                   flat<Point>("tqdb_api_system_overview_graph_value_t", kPoint), tq_free_flags);
}

tq_list_t *tqdb_api_system_overview_sysinfo_list_systems_handle(tqdb_api_msg_t *env,
                                                                tq_list_t *list) {
  const auto name = [](tq::ReplyReader &r, tq::ReplyReader::Where w) -> void * {
    char buf[kSystemNameMax + 1];
    r.text(buf, w);
    return r.ok() ? tq_strdup(kSystemNameLabel, buf) : nullptr;
  };
  return read_list(env, list, "tqdb_api_system_overview_sysinfo_list_systems_handle", name,
                   tq_free_flags);
}

tq_list_t *tqdb_api_system_overview_sysinfo_get_system_handle(tqdb_api_msg_t *env) {
  if (tqdb_api_msg_get_type(env) != TQDB_API_MSG_TYPE_DATA) return nullptr;
  tq::ReplyReader r(env, "tqdb_api_system_overview_sysinfo_get_system_handle");
  const uint32_t n = r.u32();
  tq_list_t *fresh = nullptr;  // newest first
  for (uint32_t i = 0; i < n && r.ok(); ++i) {
    Pair *p = read_flat<Pair>(r, "tqdb_api_system_overview_sysinfo_value_t", kPair,
                              tq::ReplyReader::Where::current());
    if (p == nullptr) break;
    tq_list_t *node = tq_list_new(0, fresh, p);
    if (node == nullptr) {
      tq_free_flags(p);
      break;
    }
    fresh = node;
  }
  return tq_list_reverse(fresh);
}
