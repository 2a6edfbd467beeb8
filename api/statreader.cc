// The statistics reader: requests addressing a node of the statistics tree
// and the decoders of their replies.
#include "tqdb_api_statreader.h"

#include <bit>
#include <cstring>

#include "reply_reader.h"
#include "ruleset_rows.h"
#include "tq_list.h"
#include "tq_log.h"
#include "tq_malloc.h"
#include "tq_msg.h"

using H = tqdb_api_handle_t;
using List = tqdb_api_statreader_list_t;
using Node = tqdb_api_statreader_list_node_t;
using Graph = tqdb_api_statreader_graph_t;
using Point = tqdb_api_statreader_graph_node_t;
using Where = tq::ReplyReader::Where;

namespace {

// Every addressed request: the node address, then the request's own fields.
template <class... F>
uint32_t addressed(H *h, uint32_t code, uint32_t session, const char *start, const char *end,
                   const char *path, uint16_t type, F... fields) {
  return tqdb_api_send(h, code, session, start, end, path, type, fields...);
}

template <class... F>
void put_fields(tq_msg_t *m, F... fields) {
  (tqdb_api_put(m, fields), ...);
}

// The id of the list to continue and its key/value pairs (the server reads
// pairs up to the end of the message), or a zero id.
void put_continuation(tq_msg_t *m, const List *cont) {
  if (cont == nullptr || cont->id == 0) {
    tq_msg_put_uint64(m, 0);
    return;
  }
  tq_msg_put_uint64(m, cont->id);
  for (unsigned i = 0; i < cont->count; ++i) {
    tq_msg_put_uint32(m, cont->keys[i]);
    tq_msg_put_uint32(m, cont->values[i]);
  }
}

bool is_data(const tqdb_api_msg_t *env) {
  if (tqdb_api_msg_get_type(env) != TQDB_API_MSG_TYPE_DATA) return false;
  TQ_BUG_ON_(env->msg == nullptr, "msg == ((void *)0)", "%s", "");
  return true;
}

// One tree node; mode 1 lists carry two more values. The node, its arrays
// and its name share one allocation. A field cut short reads as zero.
Node *read_node(tq::ReplyReader &r, bool mode1) {
  char name[TQDB_STAT_NAME_MAX + 1];
  r.text(name);
  Node h{};
  h.n_values = r.u8();
  h.n_extra = r.u8();
  h.type = r.u16();
  h.flags = r.u64();
  h.field_a = r.u16();
  h.field_b = r.u16();
  h.time = r.u64();
  if (mode1) {
    h.mode_value_1 = r.u64();
    h.mode_value_2 = r.u64();
  }
  const size_t n = size_t{h.n_values} + h.n_extra;
  const size_t len = std::strlen(name);
  auto *node = static_cast<Node *>(
      tq_zalloc("tqdb_api_statreader_list_node_t", sizeof(Node) + 8 * n + len + 8));
  *node = h;
  node->values = reinterpret_cast<uint64_t *>(node + 1);
  node->extra = node->values + h.n_values;
  node->name = reinterpret_cast<char *>(node->values + n);
  std::memcpy(node->name, name, len + 1);
  for (size_t i = 0; i < n; ++i) node->values[i] = r.u64();  // extra follows values
  return node;
}

// Nodes while at least four bytes remain, in reply order, behind list.
tq_list_t *read_nodes(tq::ReplyReader &r, bool mode1, tq_list_t *list) {
  tq_list_t *fresh = nullptr;  // newest first
  while (r.ok() && r.left() >= 4)
    if (!tq::push_front(fresh, read_node(r, mode1))) break;
  return tq_list_concat(list, tq_list_reverse(fresh));
}

// The node-list replies share one shape; each names itself when cut short.
tq_list_t *node_list(tqdb_api_msg_t *env, tq_list_t *list, const char *decoder) {
  if (!is_data(env)) return nullptr;
  tq::ReplyReader r(env, decoder);
  return read_nodes(r, false, list);
}

// One point; nullptr when it was cut short (it is then released).
Point *read_point(tq::ReplyReader &r, Graph *g) {
  g->point_mask = r.u64();
  g->n_u64 = r.u8();
  g->n_double = r.u8();
  g->point_time = r.u64();
  g->n_extra = r.u8();
  const size_t n = size_t{g->n_u64} + g->n_double + g->n_extra;
  auto *p = static_cast<Point *>(tq_zalloc("tqdb_api_statreader_graph_node_t", sizeof(Point) + 8 * n));
  p->point_mask = g->point_mask;
  p->point_time = g->point_time;
  p->n_u64 = g->n_u64;
  p->n_double = g->n_double;
  p->n_extra = g->n_extra;
  p->u64s = reinterpret_cast<uint64_t *>(p + 1);
  p->doubles = reinterpret_cast<double *>(p->u64s + p->n_u64);
  p->extra = reinterpret_cast<uint64_t *>(p->doubles + p->n_double);
  p->p1 = r.u32();
  p->p2 = r.u32();
  if (p->point_mask & TQDB_STAT_POINT_OPT1) p->opt1 = r.u64();
  if (p->point_mask & TQDB_STAT_POINT_OPT2) p->opt2 = r.u64();
  for (unsigned i = 0; i < p->n_u64; ++i) p->u64s[i] = r.u64();
  for (unsigned i = 0; i < p->n_double; ++i) p->doubles[i] = std::bit_cast<double>(r.u64());
  for (unsigned i = 0; i < p->n_extra; ++i) p->extra[i] = r.u64();
  if (r.ok()) return p;
  tq_free_flags(p);
  return nullptr;
}

// A graph's header (first reply only) and as many of its points as this
// reply holds, appended to the graph.
Graph *graph(tqdb_api_msg_t *env, Graph *g, const char *decoder) {
  if (!is_data(env)) return nullptr;
  tq::ReplyReader r(env, decoder);
  if (g == nullptr) {
    g = tq_new_record<Graph>("tqdb_api_statreader_graph_t");
    g->total_points = r.u32();
    g->g1 = r.u16();
    g->g2 = r.u16();
    g->g3 = r.u16();
    g->usage_count = r.u32();
    // The bitmap is ours, sized by the reply: a size no graph can have is
    // a broken reply, not an allocation to attempt.
    if (g->usage_count > TQDB_STAT_USAGE_MAX) {
      tqdb_api_msg_corrupt(env, decoder, __FILE__, __LINE__);
      tq_free_flags(g);
      return nullptr;
    }
    if (g->usage_count != 0)
      g->usage_bm = static_cast<uint16_t *>(
          tq_zalloc("tqdb_api_statreader_graph_t::usage_bm", sizeof(uint16_t) * g->usage_count));
  }
  tq_list_t *fresh = nullptr;  // newest first
  while (r.ok() && g->received < g->total_points && r.left() >= 8) {
    Point *p = read_point(r, g);
    if (p == nullptr || !tq::push_front(fresh, p)) break;
    ++g->received;
  }
  g->points = tq_list_concat(g->points, tq_list_reverse(fresh));
  return g;
}

}  // namespace

// --- requests -------------------------------------------------------------------------
uint32_t tqdb_api_statreader_date_list(H *h, uint32_t s) {
  return tqdb_api_request(h, TQDB_REQ_STAT_DATE_LIST, s);
}
uint32_t tqdb_api_statreader_list(H *h, uint32_t s, const char *start, const char *end,
                                  const char *path, uint16_t type, uint64_t replymask,
                                  const List *cont) {
  return tqdb_api_request(h, TQDB_REQ_STAT_LIST, s, [&](tq_msg_t *m) {
    put_fields(m, start, end, path, type, replymask);
    put_continuation(m, cont);
  });
}
uint32_t tqdb_api_statreader_graph(H *h, uint32_t s, const char *start, const char *end,
                                   const char *path, uint16_t type, uint32_t numvals,
                                   uint8_t mode, uint64_t replymask, bool usage_rate,
                                   uint8_t further, uint32_t trailer) {
  return addressed(h, TQDB_REQ_STAT_GRAPH, s, start, end, path, type, numvals, mode, replymask,
                   uint8_t{usage_rate}, further, trailer);
}
uint32_t tqdb_api_statreader_transfer_get(H *h, uint32_t s, const char *f, const char *to,
                                          const char *path, uint16_t type, uint64_t replymask) {
  return addressed(h, TQDB_REQ_STAT_TRANSFER_GET, s, f, to, path, type, replymask);
}
uint32_t tqdb_api_statreader_top_list(H *h, uint32_t s, const char *start, const char *end,
                                      const char *path, uint32_t max, uint16_t type,
                                      uint64_t replymask, uint32_t offset, const List *cont) {
  return tqdb_api_request(h, TQDB_REQ_STAT_TOP_LIST, s, [&](tq_msg_t *m) {
    put_fields(m, start, end, path, max, type, replymask, uint64_t{0}, offset);
    put_continuation(m, cont);
  });
}
uint32_t tqdb_api_statreader_subitem_count(H *h, uint32_t s, const char *start, const char *end,
                                           const char *path, uint16_t type) {
  return addressed(h, TQDB_REQ_STAT_SUBITEM_COUNT, s, start, end, path, type);
}
uint32_t tqdb_api_statreader_peak_list(H *h, uint32_t s, const char *start, const char *end,
                                       const char *path, uint16_t type, uint64_t replymask) {
  return addressed(h, TQDB_REQ_STAT_PEAK_LIST, s, start, end, path, type, replymask);
}
uint32_t tqdb_api_statreader_writer_status(H *h, uint32_t s) {
  return tqdb_api_request(h, TQDB_REQ_STAT_WRITER_STATUS, s);
}
uint32_t tqdb_api_statreader_list_duration(H *h, uint32_t s, const char *start, const char *end,
                                           const char *path, uint16_t type, bool threshold) {
  return addressed(h, TQDB_REQ_STAT_LIST_DURATION, s, start, end, path, type, uint8_t{threshold});
}
uint32_t tqdb_api_statreader_subscriber_count(H *h, uint32_t s, const char *start, const char *end,
                                              const char *path, uint16_t type) {
  return addressed(h, TQDB_REQ_STAT_SUBSCRIBER_COUNT, s, start, end, path, type);
}
uint32_t tqdb_api_statreader_subscriber_count_list(H *h, uint32_t s, const char *start,
                                                   const char *end, const char *path,
                                                   uint16_t type) {
  return addressed(h, TQDB_REQ_STAT_SUBSCRIBER_COUNT_LIST, s, start, end, path, type);
}
uint32_t tqdb_api_statreader_subscriber_count_graph(H *h, uint32_t s, const char *start,
                                                    const char *end, const char *path,
                                                    uint16_t type, uint32_t numvals) {
  return addressed(h, TQDB_REQ_STAT_SUBSCRIBER_COUNT_GRAPH, s, start, end, path, type, numvals);
}
uint32_t tqdb_api_statreader_get_flags(H *h, uint32_t s, const char *start, const char *end,
                                       const char *path, uint16_t type) {
  return addressed(h, TQDB_REQ_STAT_GET_FLAGS, s, start, end, path, type);
}
uint32_t tqdb_api_statreader_list_graph(H *h, uint32_t s, const char *start, const char *end,
                                        const char *path, uint16_t type, uint32_t numvals,
                                        uint8_t mode, uint64_t replymask) {
  return addressed(h, TQDB_REQ_STAT_LIST_GRAPH, s, start, end, path, type, numvals, mode, replymask);
}
uint32_t tqdb_api_statreader_recursive_list(H *h, uint32_t s, const char *start, const char *end,
                                            const char *path, uint16_t type) {
  return addressed(h, TQDB_REQ_STAT_RECURSIVE_LIST, s, start, end, path, type);
}
uint32_t tqdb_api_statreader_data_invalidate(H *h, uint32_t s, const char *start, const char *end,
                                             const char *path, uint16_t type, bool deleteroot) {
  return addressed(h, TQDB_REQ_STAT_DATA_INVALIDATE, s, start, end, path, type, uint8_t{deleteroot});
}
uint32_t tqdb_api_statreader_graph_invalidate(H *h, uint32_t s, const char *start, const char *end,
                                              const char *path, uint16_t type, bool deleteroot) {
  return addressed(h, TQDB_REQ_STAT_GRAPH_INVALIDATE, s, start, end, path, type, uint8_t{deleteroot});
}
uint32_t tqdb_api_statreader_subitem_count_list(H *h, uint32_t s, const char *start,
                                                const char *end, const char *path, uint16_t type) {
  return addressed(h, TQDB_REQ_STAT_SUBITEM_COUNT_LIST, s, start, end, path, type);
}
uint32_t tqdb_api_statreader_subscribers(H *h, uint32_t s, const char *start, const char *end,
                                         const char *path, uint16_t type, int32_t max,
                                         uint64_t replymask) {
  return addressed(h, TQDB_REQ_STAT_SUBSCRIBERS, s, start, end, path, type, max, replymask);
}
uint32_t tqdb_api_statreader_subitems_list(H *h, uint32_t s, const char *start, const char *end,
                                           const char *path, uint16_t type, int32_t max,
                                           uint64_t replymask) {
  return addressed(h, TQDB_REQ_STAT_SUBITEMS_LIST, s, start, end, path, type, max, replymask);
}
uint32_t tqdb_api_statreader_subscribers_activity(H *h, uint32_t s, const char *start,
                                                  const char *end, const char *path, uint16_t type,
                                                  uint32_t numvals) {
  return addressed(h, TQDB_REQ_STAT_SUBSCRIBERS_ACTIVITY, s, start, end, path, type, numvals);
}
uint32_t tqdb_api_statreader_list_activity(H *h, uint32_t s, const char *start, const char *end,
                                           const char *path, uint16_t type, uint32_t numvals) {
  return addressed(h, TQDB_REQ_STAT_LIST_ACTIVITY, s, start, end, path, type, numvals);
}
uint32_t tqdb_api_statreader_list_subscribers(H *h, uint32_t s, const char *start, const char *end,
                                              const char *path, uint16_t type, int32_t max,
                                              uint64_t replymask) {
  return addressed(h, TQDB_REQ_STAT_LIST_SUBSCRIBERS, s, start, end, path, type, max, replymask);
}
uint32_t tqdb_api_statreader_list_search(H *h, uint32_t s, const char *start, const char *end,
                                         const char *path, uint16_t type, int32_t max,
                                         const char *searchstr, int32_t recursiondepth,
                                         uint64_t replymask) {
  return addressed(h, TQDB_REQ_STAT_LIST_SEARCH, s, start, end, path, type, max, searchstr,
                   recursiondepth, replymask);
}
uint32_t tqdb_api_statreader_names_list(H *h, uint32_t s, const char *start, const char *end,
                                        const char *path, uint16_t type, const char *matchstr) {
  return addressed(h, TQDB_REQ_STAT_NAMES_LIST, s, start, end, path, type, matchstr);
}
uint32_t tqdb_api_statreader_string_table(H *h, uint32_t s, uint32_t table) {
  return tqdb_api_send(h, TQDB_REQ_STAT_STRING_TABLE, s, table);
}
uint32_t tqdb_api_statreader_protocol_version(H *h, uint32_t s) {
  return tqdb_api_request(h, TQDB_REQ_STAT_PROTOCOL_VERSION, s);
}

// --- decoders ----------------------------------------------------------------------------
List *tqdb_api_statreader_list_handle(tqdb_api_msg_t *env, List *prev) {
  if (!is_data(env)) return nullptr;
  tq::ReplyReader r(env, "tqdb_api_statreader_list_handle_2");
  const uint8_t mode = r.u8();
  const uint64_t id = r.u64();
  const uint8_t count = r.u8();
  auto *l = static_cast<List *>(tq_zalloc("tqdb_api_statreader_list_t", sizeof(List) + 8u * count));
  l->mode = mode;
  l->id = id;
  l->count = count;
  l->keys = reinterpret_cast<uint32_t *>(l + 1);
  l->values = l->keys + count;
  for (unsigned i = 0; i < count; ++i) {
    l->keys[i] = r.u32();
    l->values[i] = r.u32();
  }
  if (prev != nullptr) {
    l->nodes = prev->nodes;
    prev->nodes = nullptr;
    tqdb_api_statreader_list_free(prev);
  }
  l->nodes = read_nodes(r, mode == 1, l->nodes);
  return l;
}

void tqdb_api_statreader_list_free(List *l) {
  if (l == nullptr) return;
  tq_list_free_with_data(l->nodes);
  tq_free_flags(l);
}

Graph *tqdb_api_statreader_graph_handle(tqdb_api_msg_t *env, Graph *g) { return graph(env, g, __func__); }
Graph *tqdb_api_statreader_subscriber_count_graph_handle(tqdb_api_msg_t *env, Graph *g) {
  return graph(env, g, __func__);
}

void tqdb_api_statreader_graph_free(Graph *g) {
  if (g == nullptr) return;
  tq_list_free_with_data(g->points);
  tq_free_flags(g->usage_bm);
  tq_free_flags(g);
}

#define TQ_NODE_LIST_DECODER(op)                                                      \
  tq_list_t *tqdb_api_statreader_##op##_handle(tqdb_api_msg_t *env, tq_list_t *list) { \
    return node_list(env, list, __func__);                                           \
  }
TQ_NODE_LIST_DECODER(transfer_get)
TQ_NODE_LIST_DECODER(list_duration)
TQ_NODE_LIST_DECODER(subscriber_count_list)
TQ_NODE_LIST_DECODER(subitem_count)
TQ_NODE_LIST_DECODER(subitem_count_list)
TQ_NODE_LIST_DECODER(names_list)
TQ_NODE_LIST_DECODER(writer_status)
TQ_NODE_LIST_DECODER(peak_list)
TQ_NODE_LIST_DECODER(activity)
#undef TQ_NODE_LIST_DECODER

tq_list_t *tqdb_api_statreader_date_list_handle(tqdb_api_msg_t *env, tq_list_t *list) {
  if (!is_data(env)) return nullptr;
  tq::ReplyReader r(env, __func__);
  tq_list_t *fresh = nullptr;  // newest first
  while (r.left() >= 4) {
    char date[TQDB_STAT_NAME_MAX + 1];
    r.text(date);
    if (!r.ok()) break;
    const size_t len = std::strlen(date);
    auto *copy = static_cast<char *>(tq_zalloc("tqdb_api_statreader_date_t", len + 1));
    std::memcpy(copy, date, len + 1);
    if (!tq::push_front(fresh, copy)) break;
  }
  return tq_list_concat(list, tq_list_reverse(fresh));
}

uint64_t tqdb_api_statreader_subscriber_count_handle(tqdb_api_msg_t *env) {
  if (!is_data(env)) return 0;
  tq::ReplyReader r(env, __func__);
  return r.u64();
}

int tqdb_api_statreader_get_flags_handle(tqdb_api_msg_t *env) {
  if (!is_data(env)) return 0;
  tq::ReplyReader r(env, __func__);
  return (r.u16() & TQDB_STAT_FLAGS_EXPANDABLE) != 0 ? 1 : 0;
}
