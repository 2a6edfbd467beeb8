// The statistics reader: rows of the stat_* requests and their decoders,
// and the fields of the statistics list classes.
//
// Three kinds of result:
//   - node lists (duration, subscriber count, subitem count, names): plain
//     record lists of list nodes, by g_statreader_node_fields;
//   - the list record (TQStatreaderList) and the graphs (TQGraphList,
//     TQSubscribercountGraph): the object's C list is one node whose data is
//     the record; a decoder given the record returns its continuation, which
//     replaces it (the list decoder releases the record it was given, the
//     graph decoder returns the same one);
//   - decoders without a list argument give their Python value at once.
#include "rows.h"

#include "tqdb_api_statreader.h"

namespace tqpy {

namespace {

using Node = tqdb_api_statreader_list_node_t;
using ListRec = tqdb_api_statreader_list_t;
using Graph = tqdb_api_statreader_graph_t;
using Point = tqdb_api_statreader_graph_node_t;
using FieldNode = tqdb_api_statistics_fieldnode_t;

// A node; the two mode values are there only in lists of mode 1.
constexpr Field kNodeFields[] = {
    TQ_FIELD(Node, name, TextPtr, "name"),
    TQ_FIELD(Node, type, U16, "type"),
    TQ_FIELD(Node, flags, U64, "flags"),
    TQ_FIELD(Node, time, U64, "time"),
    TQ_ARRAY_FIELD(Node, values, U64s, n_values, "values"),
    TQ_ARRAY_FIELD(Node, extra, U64s, n_extra, "extra"),
    TQ_FIELD(Node, field_a, U16, "field_a"),
    TQ_FIELD(Node, field_b, U16, "field_b"),
    TQ_FIELD(Node, mode_value_1, U64, "mode_value_1"),
    TQ_FIELD(Node, mode_value_2, U64, "mode_value_2"),
};
constexpr size_t kMode0Fields = 8;

// A graph's header; "points" follows.
constexpr Field kGraphFields[] = {
    TQ_FIELD(Graph, total_points, U32, "total_points"),
    TQ_FIELD(Graph, g1, U16, "g1"),
    TQ_FIELD(Graph, g2, U16, "g2"),
    TQ_FIELD(Graph, g3, U16, "g3"),
    TQ_FIELD(Graph, usage_count, U32, "usage_count"),
    TQ_FIELD(Graph, received, U32, "received"),
};

// opt1 and opt2 read 0 unless their bit of the mask is set.
constexpr Field kPointFields[] = {
    TQ_FIELD(Point, point_mask, U64, "mask"),
    TQ_FIELD(Point, point_time, U64, "time"),
    TQ_FIELD(Point, p1, U32, "p1"),
    TQ_FIELD(Point, p2, U32, "p2"),
    TQ_FIELD(Point, opt1, U64, "opt1"),
    TQ_FIELD(Point, opt2, U64, "opt2"),
    TQ_ARRAY_FIELD(Point, u64s, U64s, n_u64, "values"),
    TQ_ARRAY_FIELD(Point, doubles, F64s, n_double, "doubles"),
    TQ_ARRAY_FIELD(Point, extra, U64s, n_extra, "extra"),
};

constexpr Field kFieldNodeFields[] = {
    TQ_FIELD(FieldNode, field_id, U64, "id"),
    TQ_FIELD(FieldNode, kind, U8, "kind"),
    TQ_FIELD(FieldNode, subkind, U8, "subkind"),
    TQ_FIELD(FieldNode, name, Text, "name"),
};

OwnedRef dicts_of(std::span<const Field> fields, const tq_list_t *list) {
  auto out = OwnedRef::check(PyList_New(0));
  for (const tq_list_t *n = list; n; n = n->next) {
    if (!n->data) continue;
    OwnedRef d = record_to_dict(fields, n->data);
    check_status(PyList_Append(out.get(), d.get()));
  }
  return out;
}

// --- decoder shapes ------------------------------------------------------------------------

// (msg, <kw>=None): the envelope (nullptr for an empty TQMessage) and the
// list object of class Id to fill.
tqdb_api_msg_t *msg_and_list(PyObject *args, PyObject *kwds, const char *func, const char *kw,
                             ListId id, OwnedRef &l) {
  const char *const names[] = {"msg", kw, nullptr};
  PyObject *a[2]{};
  parse_args(args, kwds, func, names, 1, a);
  tqdb_api_msg_t *env = message_arg(a[0]);
  l = list_arg(a[1], id);
  return env;
}

tqdb_api_msg_t *msg_only(PyObject *args, PyObject *kwds, const char *func) {
  static const char *const names[] = {"msg", nullptr};
  PyObject *a[1]{};
  parse_args(args, kwds, func, names, 1, a);
  return message_arg(a[0]);
}

// Makes `data` the one record of l, the record a continuing decoder
// returned (the record l held before is released by then, or is `data`).
void keep_record(ResultListObject *l, void *data) {
  if (l->list) {
    l->list->data = data;
    return;
  }
  l->list = tq_list_new(0, nullptr, data);
  if (!l->list) throw std::bad_alloc();
}

// lst (a new TQStatreaderList when None) continued by the reply.
using ListRecFn = ListRec *(*)(tqdb_api_msg_t *, ListRec *);
template <Name N, ListRecFn Fn>
OwnedRef stat_list_body(SessionObject *, PyObject *args, PyObject *kwds) {
  OwnedRef l;
  tqdb_api_msg_t *env = msg_and_list(args, kwds, N.s, "lst", ListId::TQStatreaderList, l);
  ResultListObject *obj = as_result_list(l.get());
  auto *prev = obj->list ? static_cast<ListRec *>(obj->list->data) : nullptr;
  // The reply is decoded on its own and its nodes spliced behind the tail
  // kept on the object: handing the decoder the previous record would walk
  // every node gathered so far on each reply of a long answer.
  ListRec *r = env ? Fn(env, nullptr) : nullptr;
  if (!r) return l;
  tq_list_t *fresh = r->nodes;
  tq_list_t *fresh_tail = fresh ? tq_list_last(fresh) : nullptr;
  if (prev && prev->nodes) {
    tq_list_t *tail = obj->tail ? obj->tail : tq_list_last(prev->nodes);
    if (fresh) {
      tail->next = fresh;
      fresh->prev = tail;
    } else {
      fresh_tail = tail;
    }
    r->nodes = prev->nodes;
    prev->nodes = nullptr;
  }
  if (prev) {
    obj->list->data = nullptr;
    tqdb_api_statreader_list_free(prev);
  }
  obj->tail = fresh_tail;
  try {
    keep_record(obj, r);
  } catch (...) {
    obj->tail = nullptr;
    tqdb_api_statreader_list_free(r);
    throw;
  }
  return l;
}

using GraphFn = Graph *(*)(tqdb_api_msg_t *, Graph *);
// The graph object (a new one when None) continued by the reply.
template <Name N, Name Kw, ListId Id, GraphFn Fn>
OwnedRef graph_body(SessionObject *, PyObject *args, PyObject *kwds) {
  OwnedRef l;
  tqdb_api_msg_t *env = msg_and_list(args, kwds, N.s, Kw.s, Id, l);
  ResultListObject *obj = as_result_list(l.get());
  auto *prev = obj->list ? static_cast<Graph *>(obj->list->data) : nullptr;
  if (Graph *g = env ? Fn(env, prev) : nullptr) {
    try {
      keep_record(obj, g);
    } catch (...) {
      if (g != prev) tqdb_api_statreader_graph_free(g);
      throw;
    }
  }
  return l;
}

// lst (a new list of class Id when None) with the reply's nodes behind its own.
template <Name N, ListId Id, ListFn Fn>
OwnedRef node_list_body(SessionObject *, PyObject *args, PyObject *kwds) {
  OwnedRef l;
  tqdb_api_msg_t *env = msg_and_list(args, kwds, N.s, "lst", Id, l);
  ResultListObject *obj = as_result_list(l.get());
  if (tq_list_t *r = env ? Fn(env, obj->list) : nullptr) {
    obj->list = r;
    obj->tail = nullptr;
  }
  return l;
}

// The reply's nodes as a list of dicts, at once.
template <Name N, ListFn Fn>
OwnedRef nodes_body(SessionObject *, PyObject *args, PyObject *kwds) {
  tqdb_api_msg_t *env = msg_only(args, kwds, N.s);
  const OwnedList nodes(env ? Fn(env, nullptr) : nullptr, ListDeleter{release_with_records});
  return dicts_of(std::span(kNodeFields).first(kMode0Fields), nodes.get());
}

// The reply's dates as a list of str.
template <Name N, ListFn Fn>
OwnedRef dates_body(SessionObject *, PyObject *args, PyObject *kwds) {
  tqdb_api_msg_t *env = msg_only(args, kwds, N.s);
  const OwnedList dates(env ? Fn(env, nullptr) : nullptr,
                        ListDeleter{release_with_records});
  auto out = OwnedRef::check(PyList_New(0));
  for (const tq_list_t *n = dates.get(); n; n = n->next) {
    OwnedRef t = text_field(static_cast<const char *>(n->data), TQDB_STAT_NAME_MAX + 1);
    check_status(PyList_Append(out.get(), t.get()));
  }
  return out;
}

// One integer; 0 for a reply that does not carry it.
template <Name N, auto Fn>
OwnedRef number_body(SessionObject *, PyObject *args, PyObject *kwds) {
  tqdb_api_msg_t *env = msg_only(args, kwds, N.s);
  return int_u64(env ? static_cast<unsigned long long>(Fn(env)) : 0);
}

// {"count_a", "count_b", "fields": [{"id", "kind", "subkind", "name"}, ...]},
// None for a reply that does not carry the list.
template <Name N, auto Fn>
OwnedRef fields_body(SessionObject *, PyObject *args, PyObject *kwds) {
  tqdb_api_msg_t *env = msg_only(args, kwds, N.s);
  struct Free {
    void operator()(tqdb_api_statistics_fields_t *f) const { tqdb_api_statistics_fields_free(f); }
  };
  const std::unique_ptr<tqdb_api_statistics_fields_t, Free> f(
      env ? Fn(env) : nullptr);
  if (!f) return none();
  OwnedRef a = int_u64(f->count_a), b = int_u64(f->count_b);
  OwnedRef fields = dicts_of(kFieldNodeFields, f->nodes);
  OwnedRef d = record_dict(3);
  check_status(PyDict_SetItemString(d.get(), "count_a", a.get()));
  check_status(PyDict_SetItemString(d.get(), "count_b", b.get()));
  check_status(PyDict_SetItemString(d.get(), "fields", fields.get()));
  return d;
}

// --- rows ------------------------------------------------------------------------------------

constexpr auto kStart = arg("start", Conv::Text, 0);
constexpr auto kEnd = arg("end", Conv::Text, 1);
constexpr auto kPath = arg("path", Conv::Text, 2);
constexpr auto kType = arg("type", Conv::Int, 3);
#define TQ_NODE kStart, kEnd, kPath, kType

#define TQ_STAT_LIST_DECODE(pyname)                                                        \
  TQ_DECODE(pyname, pyname "(msg, lst=None) -> lst (a new TQStatreaderList when None) "     \
                           "continued by the reply's nodes.",                                \
            stat_list_body, &tqdb_api_statreader_list_handle)
#define TQ_NODE_LIST_DECODE(pyname, cls, fn)                                                \
  TQ_DECODE(pyname, pyname "(msg, lst=None) -> lst (a new " #cls " when None) with the "    \
                           "reply's nodes appended.",                                        \
            node_list_body, ListId::cls, fn)

const PyMethodDef kRows[] = {
    TQ_REQUEST("stat_date_list", &tqdb_api_statreader_date_list,
               "stat_date_list() -> correlation id."),
    TQ_DECODE("stat_date_list_handle", "stat_date_list_handle(msg) -> [date str, ...].",
              dates_body, &tqdb_api_statreader_date_list_handle),
    TQ_REQUEST("stat_list", &tqdb_api_statreader_list,
               "stat_list(start, end, path, type, replymask) -> correlation id.", TQ_NODE,
               arg("replymask", Conv::U64, 4)),
    TQ_STAT_LIST_DECODE("stat_list_handle"),
    TQ_REQUEST("stat_top_list", &tqdb_api_statreader_top_list,
               "stat_top_list(start, end, path, max, type, replymask, offset) -> correlation id.",
               kStart, kEnd, kPath, arg("max", Conv::Int, 3), arg("type", Conv::Int, 4),
               arg("replymask", Conv::U64, 5), arg("offset", Conv::U32, 6)),
    TQ_STAT_LIST_DECODE("stat_top_list_handle"),
    TQ_REQUEST("stat_list_subscribers", &tqdb_api_statreader_list_subscribers,
               "stat_list_subscribers(start, end, path, type, max, replymask) -> correlation id.",
               TQ_NODE, arg("max", Conv::Int, 4), arg("replymask", Conv::U64, 5)),
    TQ_STAT_LIST_DECODE("stat_list_subscribers_handle"),
    TQ_REQUEST("stat_list_search", &tqdb_api_statreader_list_search,
               "stat_list_search(start, end, path, type, max, searchstr, recursiondepth, "
               "replymask) -> correlation id.",
               TQ_NODE, arg("max", Conv::Int, 4), arg("searchstr", Conv::Text, 5),
               arg("recursiondepth", Conv::Int, 6), arg("replymask", Conv::U64, 7)),
    TQ_STAT_LIST_DECODE("stat_list_search_handle"),
    TQ_REQUEST("stat_graph", &tqdb_api_statreader_graph,
               "stat_graph(start, end, path, typ, numvals, mode, replymask, usage_rate) -> "
               "correlation id.",
               kStart, kEnd, kPath, arg("typ", Conv::Int, 3), arg("numvals", Conv::Int, 4),
               arg("mode", Conv::Int, 5), arg("replymask", Conv::U64, 6),
               arg("usage_rate", Conv::Truth, 7)),
    TQ_DECODE("stat_graph_handle",
              "stat_graph_handle(msg, l=None) -> l (a new TQGraphList when None) continued by "
              "the reply's points.",
              graph_body, ::tqpy::Name("l"),
              ListId::TQGraphList, &tqdb_api_statreader_graph_handle),
    TQ_REQUEST("stat_transfer_get", &tqdb_api_statreader_transfer_get,
               "stat_transfer_get(f, to, path, type, replymask) -> correlation id.",
               arg("f", Conv::Text, 0), arg("to", Conv::Text, 1), kPath, kType,
               arg("replymask", Conv::U64, 4)),
    TQ_DECODE("stat_transfer_get_handle", "stat_transfer_get_handle(msg) -> [node dict, ...].",
              nodes_body, &tqdb_api_statreader_transfer_get_handle),
    TQ_REQUEST("stat_subitem_count", &tqdb_api_statreader_subitem_count,
               "stat_subitem_count(start, end, path, type) -> correlation id.", TQ_NODE),
    TQ_DECODE("stat_subitem_count_handle", "stat_subitem_count_handle(msg) -> [node dict, ...].",
              nodes_body, &tqdb_api_statreader_subitem_count_handle),
    TQ_REQUEST("stat_writer_status", &tqdb_api_statreader_writer_status,
               "stat_writer_status() -> correlation id."),
    TQ_DECODE("stat_writer_status_handle", "stat_writer_status_handle(msg) -> [node dict, ...].",
              nodes_body, &tqdb_api_statreader_writer_status_handle),
    TQ_REQUEST("stat_list_duration", &tqdb_api_statreader_list_duration,
               "stat_list_duration(start, end, path, type, threshold) -> correlation id.",
               TQ_NODE, arg("threshold", Conv::Truth, 4)),
    TQ_NODE_LIST_DECODE("stat_list_duration_handle", TQStatreaderDurationList,
                        &tqdb_api_statreader_list_duration_handle),
    TQ_REQUEST("stat_subscriber_count", &tqdb_api_statreader_subscriber_count,
               "stat_subscriber_count(start, end, path, type) -> correlation id.", TQ_NODE),
    TQ_DECODE("stat_subscriber_count_handle",
              "stat_subscriber_count_handle(msg) -> the count (0 when the reply has none).",
              number_body, &tqdb_api_statreader_subscriber_count_handle),
    TQ_REQUEST("stat_subscriber_count_list", &tqdb_api_statreader_subscriber_count_list,
               "stat_subscriber_count_list(start, end, path, type) -> correlation id.", TQ_NODE),
    TQ_NODE_LIST_DECODE("stat_subscriber_count_list_handle", TQSubscribercountList,
                        &tqdb_api_statreader_subscriber_count_list_handle),
    TQ_REQUEST("stat_subscriber_count_graph", &tqdb_api_statreader_subscriber_count_graph,
               "stat_subscriber_count_graph(start, end, path, type, numvals) -> correlation id.",
               TQ_NODE, arg("numvals", Conv::U32, 4)),
    TQ_DECODE("stat_subscriber_count_graph_handle",
              "stat_subscriber_count_graph_handle(msg, gl=None) -> gl (a new "
              "TQSubscribercountGraph when None) continued by the reply's points.",
              graph_body, ::tqpy::Name("gl"),
              ListId::TQSubscribercountGraph, &tqdb_api_statreader_subscriber_count_graph_handle),
    TQ_REQUEST("stat_is_expandable", &tqdb_api_statreader_get_flags,
               "stat_is_expandable(start, end, path, type) -> correlation id.", TQ_NODE),
    TQ_DECODE("stat_is_expandable_handle",
              "stat_is_expandable_handle(msg) -> 1 when the node has children, else 0.",
              number_body, &tqdb_api_statreader_get_flags_handle),
    TQ_REQUEST("stat_data_invalidate", &tqdb_api_statreader_data_invalidate,
               "stat_data_invalidate(start, end, path, type, deleteroot) -> correlation id.",
               TQ_NODE, arg("deleteroot", Conv::Truth, 4)),
    TQ_REQUEST("stat_graph_invalidate", &tqdb_api_statreader_graph_invalidate,
               "stat_graph_invalidate(start, end, path, type, deleteroot) -> correlation id.",
               TQ_NODE, arg("deleteroot", Conv::Truth, 4)),
    TQ_REQUEST("stat_subitem_count_list", &tqdb_api_statreader_subitem_count_list,
               "stat_subitem_count_list(start, end, path, type) -> correlation id.", TQ_NODE),
    TQ_NODE_LIST_DECODE("stat_subitem_count_list_handle", TQSubitemcountList,
                        &tqdb_api_statreader_subitem_count_list_handle),
    TQ_REQUEST("stat_names_list", &tqdb_api_statreader_names_list,
               "stat_names_list(start, end, path, type, matchstr) -> correlation id.", TQ_NODE,
               arg("matchstr", Conv::Text, 4)),
    TQ_NODE_LIST_DECODE("stat_names_list_handle", TQStatreaderNamesList,
                        &tqdb_api_statreader_names_list_handle),
    TQ_REQUEST("stat_list_fields", &tqdb_api_statistics_list_fields,
               "stat_list_fields() -> correlation id."),
    TQ_DECODE("stat_list_fields_handle",
              "stat_list_fields_handle(msg) -> {'count_a', 'count_b', 'fields': [{'id', 'kind', "
              "'subkind', 'name'}, ...]}, or None.",
              fields_body, &tqdb_api_statistics_list_fields_handle),
};

#undef TQ_NODE
#undef TQ_STAT_LIST_DECODE
#undef TQ_NODE_LIST_DECODE

}  // namespace

const std::span<const PyMethodDef> g_statreader_rows{kRows};
const std::span<const Field> g_statreader_node_fields{std::span(kNodeFields).first(kMode0Fields)};

OwnedRef convert_stat_list(const ListClass &, const tq_list_t *list) {
  const auto *rec = list ? static_cast<const ListRec *>(list->data) : nullptr;
  if (!rec) return OwnedRef::check(PyList_New(0));
  const size_t n = rec->mode == 1 ? std::size(kNodeFields) : kMode0Fields;
  return dicts_of(std::span(kNodeFields).first(n), rec->nodes);
}

OwnedRef convert_stat_graph(const ListClass &, const tq_list_t *node) {
  const auto *g = static_cast<const Graph *>(node->data);
  if (!g) return record_dict(0);
  OwnedRef d = record_to_dict(kGraphFields, g);
  OwnedRef points = dicts_of(kPointFields, g->points);
  check_status(PyDict_SetItemString(d.get(), "points", points.get()));
  return d;
}

void release_stat_list(tq_list_t *list) {
  for (tq_list_t *n = list; n; n = n->next)
    tqdb_api_statreader_list_free(static_cast<ListRec *>(n->data));
  tq_list_free(list);
}

void release_stat_graph(tq_list_t *list) {
  for (tq_list_t *n = list; n; n = n->next)
    tqdb_api_statreader_graph_free(static_cast<Graph *>(n->data));
  tq_list_free(list);
}

uint64_t arg_u64(PyObject *o) {
  const long long v = compat::int_as_ll(o);
  if (!(v == -1 && PyErr_Occurred())) return static_cast<uint64_t>(v);
  if (!PyErr_ExceptionMatches(PyExc_OverflowError)) throw_python_error();
  PyErr_Clear();
  // Beyond a long long: the index is a long, which may still fit 64 bits.
  auto idx = OwnedRef::check(PyNumber_Index(o));
  const unsigned long long u = PyLong_AsUnsignedLongLong(idx.get());
  if (u == static_cast<unsigned long long>(-1) && PyErr_Occurred()) {
    PyErr_Clear();
    raise_text(PyExc_OverflowError, "Python int too large to convert to a 64-bit word");
  }
  return u;
}

}  // namespace tqpy
