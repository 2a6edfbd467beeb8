// System services, restart and reload: rows and the fields of TQServicesList.
#include <algorithm>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "rows.h"
#include "tqdb_api_config.h"

namespace tqpy {

namespace {

using Service = tqdb_api_service_t;

constexpr Field kServiceFields[] = {
    TQ_FIELD(Service, name, Text, "name"),
    TQ_FIELD(Service, description, Text, "description"),
    TQ_FIELD(Service, running, Flag, "running"),
    TQ_FIELD(Service, enabled, Flag, "enabled"),
};

std::string text_of(PyObject *o, const char *argname) {
  return std::string(TextArg(o, argname).view());
}

// The (key, value) pairs of a dict, sorted by key, so that the same dict
// always makes the same request.
template <class Key>
std::vector<std::pair<Key, std::string>> sorted_items(PyObject *dict, const char *argname,
                                                      Key (*key_of)(PyObject *)) {
  if (!PyDict_Check(dict))
    raise(PyExc_TypeError, "%s: expected a dict, got %s", argname, Py_TYPE(dict)->tp_name);
  std::vector<std::pair<Key, std::string>> items;
  Py_ssize_t pos = 0;
  PyObject *key, *value;
  while (PyDict_Next(dict, &pos, &key, &value))
    items.emplace_back(key_of(key), text_of(value, argname));
  std::sort(items.begin(), items.end());
  return items;
}

std::string service_key(PyObject *o) { return text_of(o, "services"); }
std::pair<std::string, std::string> property_key(PyObject *o) {
  if (!PyTuple_Check(o) || PyTuple_GET_SIZE(o) != 2)
    raise_text(PyExc_TypeError, "props: keys are (service, property) tuples");
  return {text_of(PyTuple_GET_ITEM(o, 0), "props"), text_of(PyTuple_GET_ITEM(o, 1), "props")};
}

// services_cmd(services, props=None): {service: command} and
// {(service, property): value}.
// (The unused int lets a row name it like any other decoder shape.)
template <Name N, int = 0>
OwnedRef services_cmd_body(SessionObject *self, PyObject *args, PyObject *kwds) {
  static const char *const names[] = {"services", "props", nullptr};
  PyObject *a[2]{};
  parse_args(args, kwds, N.s, names, 1, a);
  const auto cmds = sorted_items(a[0], "services", service_key);
  std::vector<std::pair<std::pair<std::string, std::string>, std::string>> props;
  if (a[1] && a[1] != Py_None) props = sorted_items(a[1], "props", property_key);
  std::vector<tqdb_api_service_cmd_t> c;
  for (const auto &[service, command] : cmds) c.push_back({service.c_str(), command.c_str()});
  std::vector<tqdb_api_service_setting_t> s;
  for (const auto &[where, value] : props)
    s.push_back({where.first.c_str(), where.second.c_str(), value.c_str()});
  if (!self->handle) return int_u64(0);
  return int_u64(tqdb_api_services_cmd(self->handle, self->session_id, c, s));
}

// restart(reason=None) / reload(reason=None): made outside the session.
template <Name N, uint32_t (*Fn)(tqdb_api_handle_t *, const char *)>
OwnedRef notice_body(SessionObject *self, PyObject *args, PyObject *kwds) {
  static const char *const names[] = {"reason", nullptr};
  PyObject *a[1]{};
  parse_args(args, kwds, N.s, names, 0, a);
  std::optional<TextArg> reason;
  if (a[0] && a[0] != Py_None) reason.emplace(a[0], "reason");
  if (!self->handle) return int_u64(0);
  return int_u64(Fn(self->handle, reason ? reason->c_str() : nullptr));
}

#define TQ_NOTICE_ROWS(request, alias, notice, fn, decoder)                                  \
  TQ_DECODE(request, request "(reason=None) -> correlation id; the answer is a " notice      \
            " notice (no correlation id: recognise it by type).",                            \
            notice_body, fn),                                                                \
      TQ_DECODE(alias, alias "(reason=None) -> correlation id; the same as " request "().", \
                notice_body, fn),                                                            \
      TQ_DECODE(alias "_handle",                                                             \
                alias "_handle(msg) -> the notice's reason, or None when msg is not a "      \
                      notice " notice.",                                                     \
                text_body, decoder, TQDB_API_NOTICE_REASON_SIZE)

const PyMethodDef kRows[] = {
    TQ_DECODE("services_cmd",
              "services_cmd(services, props=None) -> correlation id. services: {service: "
              "command}; props: {(service, property): value} or None.",
              services_cmd_body, 0),
    TQ_REQUEST("services_list", &tqdb_api_services_list, "services_list() -> correlation id."),
    TQ_DECODE("services_list_handle",
              "services_list_handle(msg, l=None) -> l (a new TQServicesList when None) with the "
              "reply's services.",
              append_list_body, ListId::TQServicesList, &tqdb_api_services_list_handle),
    TQ_REQUEST("services_prop_list", &tqdb_api_services_prop_list,
               "services_prop_list() -> correlation id."),
    TQ_NOTICE_ROWS("restart", "restarting", "restarting", &tqdb_api_restart,
                   &tqdb_api_restarting_handle),
    TQ_NOTICE_ROWS("reload", "reloading", "reloading", &tqdb_api_reload,
                   &tqdb_api_reloading_handle),
};

}  // namespace

const std::span<const PyMethodDef> g_services_rows{kRows};
const std::span<const Field> g_services_fields{kServiceFields};

}  // namespace tqpy
