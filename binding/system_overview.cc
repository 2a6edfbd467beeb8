// The system overview: rows of the Session methods and the fields of
// TQSystemOverviewSystemList, TQSystemOverviewTemplateList and
// TQSystemOverviewSystemGraph.
#include "rows.h"

#include <cstring>
#include <vector>

#include "tqdb_api_system_overview.h"

namespace tqpy {

namespace {

using Template = tqdb_api_system_overview_template_t;
using System = tqdb_api_system_overview_system_t;
using Value = tqdb_api_system_overview_value_t;
using Point = tqdb_api_system_overview_graph_value_t;
using Pair = tqdb_api_system_overview_sysinfo_value_t;

constexpr Field kTemplateFields[] = {
    TQ_FIELD(Template, templateid, U32, "templateid"),
    TQ_FIELD(Template, name, Text, "name"),
    TQ_FIELD(Template, type, U32, "type"),
    TQ_FIELD(Template, flags, U32, "flags"),
    TQ_FIELD(Template, vtype, U32, "vtype"),
    TQ_FIELD(Template, zone, Text, "zone"),
    TQ_FIELD(Template, id, U32, "id"),
    TQ_FIELD(Template, descstr, Text, "descstr"),
    TQ_FIELD(Template, ttype, U32, "ttype"),
};

constexpr Field kValueFields[] = {
    TQ_FIELD(Value, templateid, U32, "templateid"),
    TQ_FIELD(Value, value, U64, "value"),
    TQ_FIELD(Value, text, Text, "text"),
};

constexpr Field kSystemFields[] = {
    TQ_FIELD(System, systemid, U32, "systemid"),
    TQ_FIELD(System, name, Text, "name"),
    TQ_FIELD(System, host, Text, "host"),
    TQ_FIELD(System, lastupdate, U64, "lastupdate"),
    TQ_FIELD(System, firstupdate, U64, "firstupdate"),
    TQ_FIELD(System, distversion, Text, "distversion"),
    TQ_FIELD(System, drdlrevision, Text, "drdlrevision"),
    TQ_FIELD(System, configmd5, Text, "configmd5"),
    TQ_FIELD(System, model, Text, "model"),
    TQ_RECORDS_FIELD(System, values, n, Value, kValueFields, "values"),
};

constexpr Field kPointFields[] = {
    TQ_FIELD(Point, time, U64, "time"),
    TQ_FIELD(Point, value, U64, "value"),
};

// sysinfo_list_systems_handle(msg, lst): the list argument has its own
// name, else it is decoded as every appending list is.
OwnedRef sysinfo_list_systems_handle(SessionObject *, PyObject *args, PyObject *kwds) {
  static const char *const names[] = {"msg", "lst", nullptr};
  PyObject *a[2]{};
  parse_args(args, kwds, "system_overview_sysinfo_list_systems_handle", names, 1, a);
  tqdb_api_msg_t *env = message_arg(a[0]);
  ListClass &cls = list_class(ListId::TQStringList);
  if (a[1] != nullptr) check_arg_type(a[1], &cls.type, "lst", true);
  OwnedRef l = list_arg(a[1], ListId::TQStringList);
  ResultListObject *list = as_result_list(l.get());
  if (!env) return l;
  if (list->list != nullptr && list->tail == nullptr) list->tail = tq_list_last(list->list);
  if (tq_list_t *r = tqdb_api_system_overview_sysinfo_list_systems_handle(env, list->tail)) {
    if (list->list == nullptr) list->list = r;
    list->tail = tq_list_last(list->tail != nullptr ? list->tail : r);
  }
  return l;
}

// {key: value} of one system's information; {} when the reply carries none.
OwnedRef sysinfo_get_system_handle(SessionObject *, PyObject *args, PyObject *kwds) {
  tqdb_api_msg_t *env = decoder_args(args, kwds, "system_overview_sysinfo_get_system_handle",
                                     ListId::ResultList, nullptr);
  const OwnedList pairs(env ? tqdb_api_system_overview_sysinfo_get_system_handle(env) : nullptr,
                        ListDeleter{release_with_records});
  auto out = OwnedRef::check(PyDict_New());
  for (const tq_list_t *n = pairs.get(); n; n = n->next) {
    const auto *p = static_cast<const Pair *>(n->data);
    OwnedRef key = text_field(p->key, sizeof p->key), value = text_field(p->value, sizeof p->value);
    check_status(PyDict_SetItem(out.get(), key.get(), value.get()));
  }
  return out;
}

// A text of data into a fixed field; ValueError when it does not fit.
template <size_t N>
void pair_text(PyObject *o, const char *what, char (&out)[N]) {
  const TextArg t(o, "data");
  if (t.view().size() >= N)
    raise(PyExc_ValueError, "data: a %s has at most %d bytes, not %d", what,
          static_cast<int>(N - 1), static_cast<int>(t.view().size()));
  std::memcpy(out, t.c_str(), t.view().size());
}

// sysinfo_add_system(system, data): data is {str: str}, sent in key order
// so that the request does not depend on the dict's history.
OwnedRef sysinfo_add_system(SessionObject *self, PyObject *args, PyObject *kwds) {
  static const char *const names[] = {"system", "data", nullptr};
  PyObject *a[2]{};
  parse_args(args, kwds, "system_overview_sysinfo_add_system", names, 2, a);
  const TextArg system(a[0], "system");
  if (!PyDict_Check(a[1])) raise_text(PyExc_TypeError, "data: expected a dict of str to str");
  auto keys = OwnedRef::check(PyDict_Keys(a[1]));
  check_status(PyList_Sort(keys.get()));
  std::vector<Pair> data(static_cast<size_t>(PyList_GET_SIZE(keys.get())));
  for (size_t i = 0; i < data.size(); ++i) {
    PyObject *k = PyList_GET_ITEM(keys.get(), static_cast<Py_ssize_t>(i));
    pair_text(k, "key", data[i].key);
    pair_text(PyDict_GetItem(a[1], k), "value", data[i].value);
  }
  if (!self->handle) return int_u64(0);
  return int_u64(tqdb_api_system_overview_sysinfo_add_system(self->handle, self->session_id,
                                                             system.c_str(), data));
}

#define TQ_BODY(pyname, body, doc) \
  PyMethodDef { pyname, TQ_SESSION_ENTRY(pyname, &body), METH_VARARGS | METH_KEYWORDS, doc }

constexpr auto kSystemId = arg("systemid", Conv::U32, 0);

const PyMethodDef kRows[] = {
    TQ_REQUEST("system_overview_template_list", &tqdb_api_system_overview_template_list,
               "system_overview_template_list() -> correlation id."),
    TQ_DECODE("system_overview_template_list_handle",
              "system_overview_template_list_handle(msg, l=None) -> l (a new "
              "TQSystemOverviewTemplateList when None) with the reply's templates.",
              append_list_body, ListId::TQSystemOverviewTemplateList,
              &tqdb_api_system_overview_template_list_handle),
    TQ_REQUEST("system_overview_list", &tqdb_api_system_overview_list,
               "system_overview_list() -> correlation id."),
    TQ_DECODE("system_overview_list_handle",
              "system_overview_list_handle(msg, l=None) -> l (a new TQSystemOverviewSystemList "
              "when None) with the reply's systems and their values.",
              append_list_body, ListId::TQSystemOverviewSystemList,
              &tqdb_api_system_overview_list_handle),
    TQ_REQUEST("system_overview_announce", &tqdb_api_system_overview_announce,
               "system_overview_announce(systemid, name, distversion, drdlrevision, configmd5, "
               "model) -> correlation id.",
               kSystemId, arg("name", Conv::Text, 1), arg("distversion", Conv::Text, 2),
               arg("drdlrevision", Conv::Text, 3), arg("configmd5", Conv::Text, 4),
               arg("model", Conv::Text, 5)),
    TQ_REQUEST("system_overview_system_graph", &tqdb_api_system_overview_system_graph,
               "system_overview_system_graph(systemid, templateid) -> correlation id.", kSystemId,
               arg("templateid", Conv::U32, 1)),
    TQ_DECODE("system_overview_system_graph_handle",
              "system_overview_system_graph_handle(msg, l=None) -> l (a new "
              "TQSystemOverviewSystemGraph when None) with the reply's points, oldest first.",
              append_list_body, ListId::TQSystemOverviewSystemGraph,
              &tqdb_api_system_overview_system_graph_handle),
    TQ_REQUEST("system_overview_system_delete", &tqdb_api_system_overview_system_delete,
               "system_overview_system_delete(systemid) -> correlation id.", kSystemId),
    TQ_BODY("system_overview_sysinfo_add_system", sysinfo_add_system,
            "system_overview_sysinfo_add_system(system, data) -> correlation id; data is "
            "{str: str} and replaces the system's information."),
    TQ_REQUEST("system_overview_sysinfo_list_systems",
               &tqdb_api_system_overview_sysinfo_list_systems,
               "system_overview_sysinfo_list_systems() -> correlation id."),
    TQ_BODY("system_overview_sysinfo_list_systems_handle", sysinfo_list_systems_handle,
            "system_overview_sysinfo_list_systems_handle(msg, lst=None) -> lst (a new "
            "TQStringList when None) with the names of the systems that have information."),
    TQ_REQUEST("system_overview_sysinfo_get_system", &tqdb_api_system_overview_sysinfo_get_system,
               "system_overview_sysinfo_get_system(system) -> correlation id.",
               arg("system", Conv::Text, 0)),
    TQ_BODY("system_overview_sysinfo_get_system_handle", sysinfo_get_system_handle,
            "system_overview_sysinfo_get_system_handle(msg) -> {key: value} of the system's "
            "information ({} when the reply carries none)."),
};

}  // namespace

const std::span<const PyMethodDef> g_system_overview_rows{kRows};
const std::span<const Field> g_system_overview_system_fields{kSystemFields};
const std::span<const Field> g_system_overview_template_fields{kTemplateFields};
const std::span<const Field> g_system_overview_graph_fields{kPointFields};

}  // namespace tqpy
