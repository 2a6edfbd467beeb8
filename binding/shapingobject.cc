// Shaping objects: rows, TQShapingObjList fields, and the limits dict.
//
// The limits dict has the optional keys "inbound", "outbound" and "bidir",
// each a list of 6-tuples in record order: exactly what TQShapingObjList
// converts, so a listed object can be sent back unchanged.
#include "rows.h"

#include <cstring>

namespace tqpy {

namespace {

using SO = tqdb_api_shapingobject_t;

struct Direction {
  const char *key;
  size_t offset;
};
constexpr Direction kDirections[] = {
    {"inbound", offsetof(SO, inbound)},
    {"outbound", offsetof(SO, outbound)},
    {"bidir", offsetof(SO, bidir)},
};

using Limit = tqdb_api_shapingobject_limit_t;

OwnedList limit_list(PyObject *limits, const char *key) {
  auto seq = OwnedRef::check(PySequence_Fast(limits, "limits: expected a list of 6-tuples"));
  OwnedList l(nullptr, ListDeleter{release_with_records});
  for (Py_ssize_t i = PySequence_Fast_GET_SIZE(seq.get()); i-- > 0;) {
    const std::vector<uint32_t> v = int_sequence(PySequence_Fast_GET_ITEM(seq.get(), i), key);
    if (v.size() != 6) raise(PyExc_ValueError, "%s: a limit has six values", key);
    RecordPtr<Limit> limit(tq_new_record<Limit>("pythonapi"));
    std::copy(v.begin(), v.end(), limit->v);
    prepend(l, limit.get());
    (void)limit.release();
  }
  return l;
}

}  // namespace

void shaping_limits_into(PyObject *limits, std::byte *record, CallState &st) {
  if (!PyDict_Check(limits)) raise_text(PyExc_TypeError, "limits must be a dict");
  for (const Direction &d : kDirections) {
    PyObject *v = dict_item(limits, d.key);  // borrowed
    if (!v) continue;
    tq_list_t *l = st.keep(limit_list(v, d.key));
    std::memcpy(record + d.offset, &l, sizeof l);
  }
}

void wfq_into(PyObject *wfq, std::byte *dest) {
  const std::vector<uint32_t> v = int_sequence(wfq, "wfq");
  if (v.size() != 6) raise_text(PyExc_ValueError, "wfq has six values");
  for (size_t i = 0; i < 6; ++i) dest[i] = static_cast<std::byte>(v[i]);
}

namespace {

constexpr Field kShapingObjectFields[] = {
    TQ_FIELD(SO, id, I32, "id"),
    TQ_FIELD(SO, name, Text, "name"),
    TQ_FIELD(SO, vbs_hours, U32, "vbs_hours"),
    TQ_FIELD(SO, max_connections, I32, "max_connections"),
    TQ_FIELD(SO, split_argument, U32, "split_argument"),
    TQ_FIELD(SO, inbound, Limits, "inbound"),
    TQ_FIELD(SO, outbound, Limits, "outbound"),
    TQ_FIELD(SO, bidir, Limits, "bidir"),
    TQ_FIELD(SO, split, U32, "split"),
    TQ_AUDIT_FIELDS(SO),
    TQ_FIELD(SO, wfq, U8Array, "wfq"),
    TQ_FIELD(SO, flags, U32, "flags"),
    TQ_FIELD(SO, split_netobjects, IntList, "split_netobjects"),
    TQ_FIELD(SO, fairness_group, U32, "fairness_group"),
    TQ_FIELD(SO, fairness_group_argument, U32, "fairness_group_argument"),
};

constexpr auto kId = arg("id", Conv::Int, 0);
// The fields add and modify share, after the name.
#define TQ_SHAPING_FIELDS                                                               \
  field("limits", Conv::Limits, 0, 0), field("split", Conv::Int, TQ_AT(SO, split)),      \
      field("max_connections", Conv::Int, TQ_AT(SO, max_connections)),                  \
      field("split_argument", Conv::Int, TQ_AT(SO, split_argument)),                    \
      field("intflags", Conv::U32, TQ_AT(SO, flags)), field("wfq", Conv::Wfq, TQ_AT(SO, wfq)), \
      field("split_netobjects", Conv::IntSeq, TQ_AT(SO, split_netobjects))

const PyMethodDef kRows[] = {
    TQ_REQUEST("shaping_object_list", &tqdb_api_shapingobject_list,
               "shaping_object_list() -> correlation id."),
    TQ_DECODE("shaping_object_list_handle",
              "shaping_object_list_handle(msg, l=None) -> l (a new TQShapingObjList when None) "
              "with the reply's objects appended.",
              append_list_body, ListId::TQShapingObjList, &tqdb_api_shapingobject_list_handle),
    TQ_REQUEST("shaping_object_add", &tqdb_api_shapingobject_add,
               "shaping_object_add(name, limits, split, max_connections, split_argument, "
               "intflags, wfq, split_netobjects) -> correlation id.",
               field("name", Conv::Text, TQ_AT(SO, name)), TQ_SHAPING_FIELDS),
    TQ_DECODE("shaping_object_add_handle", "shaping_object_add_handle(msg) -> (new id, timestamp).",
              add_body, &tqdb_api_ruleset_add_handle),
    TQ_REQUEST("shaping_object_modify", &tqdb_api_shapingobject_modify,
               "shaping_object_modify(id, name, limits, split, max_connections, split_argument, "
               "intflags, wfq, split_netobjects, fairness_group, fairness_group_argument) -> "
               "correlation id.",
               field("id", Conv::Int, TQ_AT(SO, id)), field("name", Conv::Text, TQ_AT(SO, name)),
               TQ_SHAPING_FIELDS, field("fairness_group", Conv::Int, TQ_AT(SO, fairness_group)),
               field("fairness_group_argument", Conv::Int, TQ_AT(SO, fairness_group_argument))),
    TQ_DECODE("shaping_object_modify_handle", "shaping_object_modify_handle(msg) -> timestamp.",
              timestamp_body, &tqdb_api_ruleset_timestamp_handle),
    TQ_REQUEST("shaping_object_rename", &tqdb_api_shapingobject_rename,
               "shaping_object_rename(i, newname) -> correlation id.", arg("i", Conv::Int, 0),
               arg("newname", Conv::Text, 1)),
    TQ_DECODE("shaping_object_rename_handle", "shaping_object_rename_handle(msg) -> timestamp.",
              timestamp_body, &tqdb_api_ruleset_timestamp_handle),
    TQ_REQUEST("shaping_object_remove", &tqdb_api_shapingobject_remove,
               "shaping_object_remove(id) -> correlation id.", kId),
    TQ_DECODE("shaping_object_remove_handle", "shaping_object_remove_handle(msg) -> timestamp.",
              timestamp_body, &tqdb_api_ruleset_timestamp_handle),
    TQ_REQUEST("shapingobject_attr_set", &tqdb_api_shapingobject_attr_set,
               "shapingobject_attr_set(id, key, value) -> correlation id.", kId,
               arg("key", Conv::Text, 1), arg("value", Conv::Text, 2)),
    TQ_REQUEST("shapingobject_attr_remove", &tqdb_api_shapingobject_attr_remove,
               "shapingobject_attr_remove(id, key) -> correlation id.", kId,
               arg("key", Conv::Text, 1)),
    TQ_REQUEST("shapingobject_attr_list", &tqdb_api_shapingobject_attr_list,
               "shapingobject_attr_list(id) -> correlation id.", kId),
    TQ_DECODE("shapingobject_attr_list_handle",
              "shapingobject_attr_list_handle(msg) -> [(key, value), ...].", attrs_body,
              &_tqdb_api_ruleset_attr_list_handle),
};

}  // namespace

const std::span<const PyMethodDef> g_shapingobject_rows{kRows};
const std::span<const Field> g_shapingobject_fields{kShapingObjectFields};

}  // namespace tqpy
