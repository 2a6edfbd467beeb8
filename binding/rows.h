// Session methods as rows.
//
// A request method is one row: its Python name, the C request function and
// its arguments in order, each with its conversion, its place (a parameter
// of the C function after handle and session, or a field of the record the
// C function takes) and its default. One template (request_body) turns a
// row into a method; one walker (send_request) parses, converts and calls.
// The C function's own parameter types say how a converted argument is
// passed (invoke): integers are cast to the parameter's width, texts go as
// C strings, sequences as spans or lists, a `const R *` gets the record.
//
//   TQ_REQUEST("object_rename", &tqdb_api_object_rename, "doc",
//              arg("type", Conv::Int, 0), arg("id", Conv::Int, 1),
//              arg("name", Conv::Text, 2)),
//
// A decoder method is one row too, of one of a few shapes: timestamp,
// (id, timestamp), text, list into `l`, attribute pairs.
//
//   TQ_DECODE("object_rename_handle", "doc", timestamp_body,
//             &tqdb_api_object_timestamp_handle),
//
// Each family keeps its rows in binding/<family>.cc and exports them as a
// span; session.cc puts the spans together into Session's method table.
//
// Everything built for a request (texts, item and shaping records, lists
// under the label "pythonapi") lives in a CallState and is released when
// the call returns.
#ifndef TQ_BINDING_ROWS_H
#define TQ_BINDING_ROWS_H

#include "result_list.h"
#include "tqdb_objects.h"

#include <algorithm>
#include <array>
#include <cstddef>
#include <memory>
#include <optional>
#include <span>
#include <type_traits>
#include <utility>
#include <vector>

#include "tq_malloc.h"
#include "tqdb_api_ruleset.h"

namespace tqpy {

// A name fixed at compile time: template arguments cannot point at literals.
struct Name {
  char s[40]{};
  constexpr Name() = default;
  template <size_t N>
  consteval Name(const char (&n)[N]) {
    static_assert(N <= sizeof(s), "name too long");
    std::copy_n(n, N, s);
  }
};

// How a Python argument becomes C.
enum class Conv : uint8_t {
  Int,      // a C int (OverflowError beyond), cast to the destination's width
  U32,      // -2**31 .. 2**32-1, for bit masks
  U64,      // -2**63 .. 2**64-1, for 64-bit masks
  Truth,    // the truth of any value, as 1 or 0
  Text,     // str (or bytes), no NUL inside
  IntSeq,   // a sequence of ints: a span parameter, or an integer list field
  Item,     // an item dict of the object type given by argument `ref`
  Limits,   // {"inbound"|"outbound"|"bidir": [6-tuple, ...]} (shaping object)
  Wfq,      // six ints into a u8[6] field
  Conds,    // Items, or (conditiontype, objectid) pairs
  Filters,  // objects with key, operator, values
  Dists,    // objects with distribution, argument
  Ignored,  // accepted, not sent
};

struct ArgSpec {
  Name name;
  Conv conv = Conv::Int;
  int8_t param = -1;     // C parameter after (handle, session); -1: a record field
  uint16_t offset = 0;   // the record field's place and size
  uint16_t size = 0;
  bool optional = false;
  long long def = 0;     // an optional Int's default (an optional Text's is "")
  uint8_t ref = 0;       // Item: the argument that holds the object type

  // The same argument, optional with default d.
  consteval ArgSpec opt(long long d = 0) const {
    ArgSpec a = *this;
    a.optional = true;
    a.def = d;
    return a;
  }
};

// An argument passed as the C function's parameter `param`.
template <size_t N>
consteval ArgSpec arg(const char (&name)[N], Conv conv, int param) {
  ArgSpec a;
  a.name = Name(name);
  a.conv = conv;
  a.param = static_cast<int8_t>(param);
  return a;
}
// An argument stored into the record the C function takes.
template <size_t N>
consteval ArgSpec field(const char (&name)[N], Conv conv, size_t offset, size_t size) {
  ArgSpec a;
  a.name = Name(name);
  a.conv = conv;
  a.offset = static_cast<uint16_t>(offset);
  a.size = static_cast<uint16_t>(size);
  return a;
}
// An item dict whose object type is argument `ref`.
template <size_t N>
consteval ArgSpec item_arg(const char (&name)[N], int ref, int param) {
  ArgSpec a = arg(name, Conv::Item, param);
  a.ref = static_cast<uint8_t>(ref);
  return a;
}
#define TQ_AT(Record, member) offsetof(Record, member), sizeof(Record::member)

// --- what a call builds -------------------------------------------------------------------
struct ListDeleter {
  void (*release)(tq_list_t *);
  void operator()(tq_list_t *l) const { release(l); }
};
using OwnedList = std::unique_ptr<tq_list_t, ListDeleter>;
struct TqFree {
  void operator()(void *p) const { tq_free_flags(p); }
};
template <class T>
using RecordPtr = std::unique_ptr<T, TqFree>;
using ItemPtr = RecordPtr<tqdb_api_object_item_t>;

inline constexpr size_t kMaxArgs = 16;
inline constexpr size_t kMaxParams = 10;
inline constexpr size_t kRecordBytes = 4096;

struct CallState {
  struct Param {
    long long i = 0;
    std::optional<TextArg> text;
    std::vector<uint32_t> ints;
    const tq_list_t *list = nullptr;
  };
  std::array<Param, kMaxParams> params{};
  alignas(8) std::byte record[kRecordBytes]{};
  ItemPtr item;
  std::vector<tqdb_api_rule_condition_item_t> conds;
  std::vector<OwnedList> lists;  // lists that the record or the parameters borrow

  tq_list_t *keep(OwnedList l) {
    lists.push_back(std::move(l));
    return lists.back().get();
  }
};

// Passes converted arguments by the C parameter's type.
template <class P>
P param_from(CallState &st, size_t i) {
  using T = std::remove_cv_t<std::remove_pointer_t<P>>;
  if constexpr (std::is_integral_v<P>) {
    return static_cast<P>(st.params[i].i);
  } else if constexpr (std::is_same_v<P, const char *>) {
    return st.params[i].text ? st.params[i].text->c_str() : "";
  } else if constexpr (std::is_same_v<P, std::span<const uint32_t>>) {
    return st.params[i].ints;
  } else if constexpr (std::is_same_v<P, std::span<const tqdb_api_rule_condition_item_t>>) {
    return st.conds;
  } else if constexpr (std::is_same_v<P, const tqdb_api_object_item_t *>) {
    return st.item.get();
  } else if constexpr (std::is_same_v<P, const tq_list_t *>) {
    return st.params[i].list;
  } else {
    static_assert(std::is_pointer_v<P> && std::is_class_v<T> && sizeof(T) <= kRecordBytes,
                  "a record parameter");
    return reinterpret_cast<P>(st.record);
  }
}

template <class... P>
uint32_t call_with(uint32_t (*fn)(tqdb_api_handle_t *, uint32_t, P...), tqdb_api_handle_t *h,
                   uint32_t session, CallState &st) {
  static_assert(sizeof...(P) <= kMaxParams, "too many parameters");
  return [&]<size_t... I>(std::index_sequence<I...>) {
    return fn(h, session, param_from<P>(st, I)...);
  }(std::index_sequence_for<P...>{});
}

using Invoke = uint32_t (*)(tqdb_api_handle_t *, uint32_t, CallState &);
template <auto Fn>
uint32_t invoke(tqdb_api_handle_t *h, uint32_t session, CallState &st) {
  return call_with(Fn, h, session, st);
}

// Parses (by position or keyword), converts, calls; the correlation id, 0
// for a Session without a handle.
OwnedRef send_request(SessionObject *self, PyObject *args, PyObject *kwds, const char *func,
                      std::span<const ArgSpec> specs, Invoke call);

template <Name N, auto Fn, ArgSpec... A>
OwnedRef request_body(SessionObject *self, PyObject *args, PyObject *kwds) {
  static_assert(sizeof...(A) <= kMaxArgs, "too many arguments");
  static constexpr std::array<ArgSpec, sizeof...(A)> specs{A...};
  return send_request(self, args, kwds, N.s, specs, &invoke<Fn>);
}

#define TQ_SESSION_ENTRY(pyname, ...)                                                    \
  ::tqpy::as_cfunction(&::tqpy::method_entry<TQ_SITE("TQDBv17_1.Session." pyname),         \
                                             ::tqpy::SessionObject, __VA_ARGS__>)
#define TQ_REQUEST(pyname, fn, doc, ...)                                                        \
  PyMethodDef {                                                                                 \
    pyname,                                                                                     \
        TQ_SESSION_ENTRY(pyname, &::tqpy::request_body<::tqpy::Name(pyname), fn __VA_OPT__(, ) \
                                                           __VA_ARGS__>),                       \
        METH_VARARGS | METH_KEYWORDS, doc                                                       \
  }
// shape: timestamp_body, add_body, text_body, list_body, attrs_body.
#define TQ_DECODE(pyname, doc, shape, ...)                                                  \
  PyMethodDef {                                                                            \
    pyname, TQ_SESSION_ENTRY(pyname, &::tqpy::shape<::tqpy::Name(pyname), __VA_ARGS__>), \
        METH_VARARGS | METH_KEYWORDS, doc                                                  \
  }

// --- decoder shapes ----------------------------------------------------------------------
using TimestampFn = bool (*)(tqdb_api_msg_t *, char *);
using AddFn = bool (*)(tqdb_api_msg_t *, uint32_t *, char *);
using ListFn = tq_list_t *(*)(tqdb_api_msg_t *, tq_list_t *);

// The envelope of x_handle(msg) / x_handle(msg, l=None); nullptr for an
// empty TQMessage. *l (when asked for) is the list object to fill.
tqdb_api_msg_t *decoder_args(PyObject *args, PyObject *kwds, const char *func, ListId id,
                             OwnedRef *l);

OwnedRef decode_timestamp(PyObject *args, PyObject *kwds, const char *func, TimestampFn fn);
OwnedRef decode_add(PyObject *args, PyObject *kwds, const char *func, AddFn fn);
OwnedRef decode_list(PyObject *args, PyObject *kwds, const char *func, ListId id, ListFn fn,
                     bool appends);
OwnedRef decode_attrs(PyObject *args, PyObject *kwds, const char *func, ListFn fn);

// The timestamp str, None when the reply does not carry it.
template <Name N, TimestampFn Fn>
OwnedRef timestamp_body(SessionObject *, PyObject *args, PyObject *kwds) {
  return decode_timestamp(args, kwds, N.s, Fn);
}
// (new id, timestamp); (0, None) when the reply does not carry them.
template <Name N, AddFn Fn>
OwnedRef add_body(SessionObject *, PyObject *args, PyObject *kwds) {
  return decode_add(args, kwds, N.s, Fn);
}
// A text of at most Size - 1 bytes, None when the reply does not carry it.
template <Name N, auto Fn, size_t Size>
OwnedRef text_body(SessionObject *, PyObject *args, PyObject *kwds) {
  tqdb_api_msg_t *env = decoder_args(args, kwds, N.s, ListId::ResultList, nullptr);
  char buf[Size]{};
  if (!env || !Fn(env, buf, sizeof buf)) return none();
  return text_field(buf, sizeof buf);
}
// l (a new list object when None) with the reply's records: for decoders
// that put records in front of the list they are given (or look through
// it), the whole list goes in.
template <Name N, ListId Id, ListFn Fn>
OwnedRef list_body(SessionObject *, PyObject *args, PyObject *kwds) {
  return decode_list(args, kwds, N.s, Id, Fn, false);
}
// The same for decoders that append behind the last node of the list they
// are given and continue it (object items): they are given l's tail.
template <Name N, ListId Id, ListFn Fn>
OwnedRef append_list_body(SessionObject *, PyObject *args, PyObject *kwds) {
  return decode_list(args, kwds, N.s, Id, Fn, true);
}
// [(key, value), ...] in the decoded list's order.
template <Name N, ListFn Fn>
OwnedRef attrs_body(SessionObject *, PyObject *args, PyObject *kwds) {
  return decode_attrs(args, kwds, N.s, Fn);
}

// --- conversions the families provide ------------------------------------------------------
// A C int / a u32 (-2**31 .. 2**32-1) of an argument.
uint32_t arg_u32(PyObject *o);
// A u64 (-2**63 .. 2**64-1) of an argument.
uint64_t arg_u64(PyObject *o);
// The ints of a sequence, as u32.
std::vector<uint32_t> int_sequence(PyObject *seq, const char *argname);
// Puts data in front of l; bad_alloc (data still the caller's) when no node.
void prepend(OwnedList &l, void *data);
// An integer list of the values, in order.
OwnedList int_list(std::span<const uint32_t> values);
void release_with_records(tq_list_t *list);
void release_nodes(tq_list_t *list);

// object.cc: item dict <-> item record, through the shared layout table.
ItemPtr item_from_dict(long long type, PyObject *dict);
OwnedRef item_to_dict(const tqdb_api_object_item_t *item);
// shapingobject.cc: the limits dict and the wfq values into a
// tqdb_api_shapingobject_t.
void shaping_limits_into(PyObject *limits, std::byte *record, CallState &st);
void wfq_into(PyObject *wfq, std::byte *dest);
// ruleconditions.cc / dynamicliveview.cc
std::vector<tqdb_api_rule_condition_item_t> condition_items(PyObject *items);
OwnedList filter_list(PyObject *filters);
OwnedList distribution_list(PyObject *distributions);

// values.cc: Item, Distribution, Filter.
enum class ValueId { Item, Distribution, Filter };
OwnedRef make_value(ValueId id, OwnedRef a, OwnedRef b, OwnedRef c = {});
void value_types_fill();
void value_types_ready(PyObject *module);

// setup_item(type, item) as a module function.
OwnedRef fn_setup_item(PyObject *args, PyObject *kwds);

// The rows of each family, and the record field tables of its list classes.
extern const std::span<const PyMethodDef> g_object_rows;
extern const std::span<const PyMethodDef> g_shapingobject_rows;
extern const std::span<const PyMethodDef> g_rule_rows;
extern const std::span<const PyMethodDef> g_ruleconditions_rows;
extern const std::span<const PyMethodDef> g_dynamicliveview_rows;
extern const std::span<const PyMethodDef> g_statisticsobject_rows;
extern const std::span<const PyMethodDef> g_statreader_rows;
extern const std::span<const PyMethodDef> g_stat_query_rows;
extern const std::span<const PyMethodDef> g_sysdiag_rows;
extern const std::span<const PyMethodDef> g_user_rows;
extern const std::span<const PyMethodDef> g_fileserv_rows;
extern const std::span<const PyMethodDef> g_backup_rows;
extern const std::span<const PyMethodDef> g_channel_rows;
extern const std::span<const PyMethodDef> g_channel_label_rows;
extern const std::span<const PyMethodDef> g_monitoriface_rows;
extern const std::span<const PyMethodDef> g_config_rows;
extern const std::span<const PyMethodDef> g_services_rows;
extern const std::span<const PyMethodDef> g_features_rows;
extern const std::span<const PyMethodDef> g_connlog_rows;
extern const std::span<const PyMethodDef> g_system_overview_rows;
extern const std::span<const PyMethodDef> g_hosttrigger_rows;
extern const std::span<const PyMethodDef> g_connprot_trigger_rows;

extern const std::span<const Field> g_object_fields;
extern const std::span<const Field> g_shapingobject_fields;
extern const std::span<const Field> g_fwrule_fields;
extern const std::span<const Field> g_shapingrule_fields;
extern const std::span<const Field> g_statisticsrule_fields;
extern const std::span<const Field> g_rulecondition_fields;
extern const std::span<const Field> g_dynamicliveview_fields;
extern const std::span<const Field> g_statisticsobject_fields;
extern const std::span<const Field> g_ipfixobject_fields;
// sysdiag.cc, user.cc, fileserv.cc, backup.cc
extern const std::span<const Field> g_level_fields;
extern const std::span<const Field> g_sysdiag_zone_fields;
extern const std::span<const Field> g_sysdiag_zone_value_fields;
extern const std::span<const Field> g_sysdiag_log_fields;
extern const std::span<const Field> g_sysdiag_malloc_fields;
extern const std::span<const Field> g_user_fields;
extern const std::span<const Field> g_fileserv_type_fields;
extern const std::span<const Field> g_fileserv_file_fields;
extern const std::span<const Field> g_backup_fields;
// channel.cc ... connprot_trigger.cc
extern const std::span<const Field> g_channel_fields;
extern const std::span<const Field> g_channel_label_fields;
extern const std::span<const Field> g_monitoriface_fields;
extern const std::span<const Field> g_config_fields;
extern const std::span<const Field> g_config_category_fields;
extern const std::span<const Field> g_config_flag_fields;
extern const std::span<const Field> g_log_facility_fields;
extern const std::span<const Field> g_services_fields;
extern const std::span<const Field> g_connlog_fields;
extern const std::span<const Field> g_system_overview_system_fields;
extern const std::span<const Field> g_system_overview_template_fields;
extern const std::span<const Field> g_system_overview_graph_fields;
extern const std::span<const Field> g_hosttrigger_fields;
extern const std::span<const Field> g_connprot_trigger_fields;
// statreader.cc: a node of the node lists, and the list record and graph
// classes, whose list holds one node: the record the decoders continue.
extern const std::span<const Field> g_statreader_node_fields;
OwnedRef convert_stat_list(const ListClass &cls, const tq_list_t *list);
OwnedRef convert_stat_graph(const ListClass &cls, const tq_list_t *node);
void release_stat_list(tq_list_t *list);
void release_stat_graph(tq_list_t *list);

// The four audit fields that end every ruleset record.
#define TQ_AUDIT_FIELD(Record, member)                                                     \
  ::tqpy::Field {                                                                          \
    #member, offsetof(Record, audit) + offsetof(tqdb_api_audit_t, member),                 \
        ::tqpy::FieldKind::Text, sizeof(tqdb_api_audit_t::member)                          \
  }
#define TQ_AUDIT_FIELDS(Record)                                                        \
  TQ_AUDIT_FIELD(Record, creator), TQ_AUDIT_FIELD(Record, creation_date),              \
      TQ_AUDIT_FIELD(Record, modified_by), TQ_AUDIT_FIELD(Record, modification_date)

}  // namespace tqpy

#endif
