// Dynamic live views: rows, TQDynamicLiveViewList fields, and the filter
// and distribution lists an update sends (records under "pythonapi", in
// the order given, released after the call).
#include "rows.h"

#include <cstring>

namespace tqpy {

namespace {

void copy_text(PyObject *o, const char *attr, char *dest, size_t size) {
  auto v = get_attr(o, attr);
  const TextArg t(v.get(), attr);
  std::memcpy(dest, t.c_str(), std::min(t.view().size(), size - 1));
}

using Filter = tqdb_api_dynamicliveview_filter_t;
using Value = tqdb_api_dynamicliveview_filter_value_t;
using Dist = tqdb_api_dynamicliveview_distribution_t;

// A filter record owns its values.
struct FilterFree {
  void operator()(Filter *f) const {
    tq_list_free_with_data(f->values);
    tq_free_flags(f);
  }
};

// Walks an iterable, building one record per element; the list keeps the
// iteration order.
template <class Build>
OwnedList build_list(PyObject *iterable, void (*release)(tq_list_t *), Build build) {
  auto it = OwnedRef::check(PyObject_GetIter(iterable));
  OwnedList l(nullptr, ListDeleter{release});
  while (auto o = OwnedRef::steal(PyIter_Next(it.get()))) build(o.get(), l);
  if (PyErr_Occurred()) throw_python_error();
  tq_list_t *head = l.release();
  return OwnedList(head ? tq_list_reverse(head) : nullptr, ListDeleter{release});
}

}  // namespace

OwnedList filter_list(PyObject *filters) {
  return build_list(filters, tqdb_api_dynamicliveview_filters_free, [](PyObject *o, OwnedList &l) {
    std::unique_ptr<Filter, FilterFree> f(tq_new_record<Filter>("pythonapi"));
    copy_text(o, "key", f->key, sizeof f->key);
    auto op = get_attr(o, "operator");
    f->op = static_cast<uint8_t>(arg_as_int(op.get()));
    auto values = get_attr(o, "values");
    OwnedList vl = build_list(values.get(), release_with_records, [](PyObject *v, OwnedList &vs) {
      RecordPtr<Value> value(tq_new_record<Value>("pythonapi"));
      const TextArg t(v, "values");
      std::memcpy(value->value, t.c_str(), std::min(t.view().size(), sizeof value->value - 1));
      prepend(vs, value.get());
      (void)value.release();
    });
    f->values = vl.release();
    prepend(l, f.get());
    (void)f.release();
  });
}

OwnedList distribution_list(PyObject *distributions) {
  return build_list(distributions, release_with_records, [](PyObject *o, OwnedList &l) {
    RecordPtr<Dist> d(tq_new_record<Dist>("pythonapi"));
    copy_text(o, "distribution", d->distribution, sizeof d->distribution);
    copy_text(o, "argument", d->argument, sizeof d->argument);
    prepend(l, d.get());
    (void)d.release();
  });
}

namespace {

using DLV = tqdb_api_dynamicliveview_t;
constexpr Field kFields[] = {
    TQ_FIELD(DLV, id, U32, "id"),
    TQ_FIELD(DLV, name, Text, "name"),
    TQ_AUDIT_FIELDS(DLV),
    TQ_FIELD(DLV, distributions, Distributions, "distribution"),
    TQ_FIELD(DLV, filters, Filters, "filter"),
};

constexpr auto kId = arg("id", Conv::Int, 0);

const PyMethodDef kRows[] = {
    TQ_REQUEST("dynamicliveview_list", &tqdb_api_dynamicliveview_list,
               "dynamicliveview_list() -> correlation id."),
    TQ_DECODE("dynamicliveview_list_handle",
              "dynamicliveview_list_handle(msg, l=None) -> l (a new TQDynamicLiveViewList when "
              "None) with the reply's views.",
              list_body, ListId::TQDynamicLiveViewList, &tqdb_api_dynamicliveview_list_handle),
    TQ_REQUEST("dynamicliveview_add", &tqdb_api_dynamicliveview_add,
               "dynamicliveview_add(name) -> correlation id.", arg("name", Conv::Text, 0)),
    TQ_DECODE("dynamicliveview_add_handle",
              "dynamicliveview_add_handle(msg) -> (new id, timestamp).", add_body,
              &tqdb_api_ruleset_add_handle),
    TQ_REQUEST("dynamicliveview_remove", &tqdb_api_dynamicliveview_remove,
               "dynamicliveview_remove(id) -> correlation id.", kId),
    // Scripts know the remove decoder by this spelling.
    TQ_DECODE("dynamiceliveview_remove_handle",
              "dynamiceliveview_remove_handle(msg) -> timestamp.", timestamp_body,
              &tqdb_api_ruleset_timestamp_handle),
    TQ_REQUEST("dynamicliveview_rename", &tqdb_api_dynamicliveview_rename,
               "dynamicliveview_rename(id, name) -> correlation id.", kId,
               arg("name", Conv::Text, 1)),
    TQ_DECODE("dynamicliveview_rename_handle",
              "dynamicliveview_rename_handle(msg) -> timestamp.", timestamp_body,
              &tqdb_api_ruleset_timestamp_handle),
    TQ_REQUEST("dynamicliveview_update", &tqdb_api_dynamicliveview_update,
               "dynamicliveview_update(id, filters, distributions) -> correlation id; filters "
               "have key, operator and values, distributions distribution and argument.",
               kId, arg("filters", Conv::Filters, 1), arg("distributions", Conv::Dists, 2)),
    TQ_DECODE("dynamicliveview_update_handle",
              "dynamicliveview_update_handle(msg) -> timestamp.", timestamp_body,
              &tqdb_api_ruleset_timestamp_handle),
};

}  // namespace

const std::span<const PyMethodDef> g_dynamicliveview_rows{kRows};
const std::span<const Field> g_dynamicliveview_fields{kFields};

}  // namespace tqpy
