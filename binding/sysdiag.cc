// System diagnostics: rows of the Session methods and the fields of
// LevelList, TQSysDiagZoneList, TQSysDiagZoneValueList,
// TQSysDiagLogEntryList and TQSysDiagMallocUsageEntryList.
#include "rows.h"

#include <algorithm>
#include <cstring>
#include <string>
#include <string_view>

#include "tqdb_api_sysdiag.h"

namespace tqpy {

namespace {

using Level = tqdb_api_sysdiag_level_t;
using Zone = tqdb_api_sysdiag_zone_t;
using ValueDef = tqdb_api_sysdiag_zone_valuedef_t;
using ZoneValue = tqdb_api_sysdiag_zone_value_t;
using Log = tqdb_api_sysdiag_log_entry_t;
using MallocEntry = tqdb_api_sysdiag_malloc_usage_entry_t;
using Usage = tq_malloc_usage_t;
using Enum = tq_sysdiag_enum_value_t;

constexpr Field kLevelFields[] = {
    TQ_OID_FIELD(Level, oid_a, oid_b, "_oid"),
    TQ_FIELD(Level, minimum, U64, "minimum"),
    TQ_FIELD(Level, maximum, U64, "maximum"),
    TQ_FIELD(Level, minimum_rate, U64, "minimum_rate"),
    TQ_FIELD(Level, maximum_rate, U64, "maximum_rate"),
    TQ_FIELD(Level, comment, Text, "comment"),
    TQ_FIELD(Level, trigger, Text, "trigger"),
};
constexpr Field kValueDefFields[] = {
    TQ_FIELD(ValueDef, id, U32, "id"),
    TQ_FIELD(ValueDef, name, Text, "name"),
    TQ_FIELD(ValueDef, type, U32, "type"),
    TQ_FIELD(ValueDef, flags, U32, "flags"),
};
constexpr Field kZoneFields[] = {
    TQ_FIELD(Zone, oid, U32, "oid"),
    TQ_FIELD(Zone, name, Text, "name"),
    TQ_FIELD(Zone, systemid, U32, "systemid"),
    TQ_FIELD(Zone, flags, U32, "flags"),
    TQ_RECORDS_FIELD(Zone, values, n, ValueDef, kValueDefFields, "values"),
};
constexpr Field kZoneValueFields[] = {
    TQ_FIELD(ZoneValue, range, U32, "range"),
    TQ_FIELD(ZoneValue, level, U32, "level"),
    TQ_FIELD(ZoneValue, id, U32, "id"),
    TQ_FIELD(ZoneValue, systemid, U32, "systemid"),
    TQ_FIELD(ZoneValue, value, U64, "value"),
    TQ_FIELD(ZoneValue, rate, U64, "rate"),
    TQ_FIELD(ZoneValue, min, U64, "min"),
    TQ_FIELD(ZoneValue, max, U64, "max"),
    TQ_FIELD(ZoneValue, min_tstamp, U64, "min_tstamp"),
    TQ_FIELD(ZoneValue, max_tstamp, U64, "max_tstamp"),
    TQ_FIELD(ZoneValue, alert_flags, U32, "alert_flags"),
};
constexpr Field kLogFields[] = {
    TQ_FIELD(Log, id, U32, "id"),
    TQ_FIELD(Log, system, Text, "system"),
    TQ_FIELD(Log, systemid, U32, "systemid"),
    TQ_FIELD(Log, tstamp, U64, "tstamp"),
    TQ_FIELD(Log, is_new, Flag, "is_new"),
    TQ_FIELD(Log, severity, U32, "severity"),
    TQ_FIELD(Log, title, Text, "title"),
    TQ_FIELD(Log, body, Text, "body"),
};
constexpr Field kMallocEntryFields[] = {
    TQ_FIELD(MallocEntry, systemname, Text, "systemname"),
    TQ_FIELD(MallocEntry, zonename, Text, "zonename"),
};
constexpr Field kUsageFields[] = {
    TQ_FIELD(Usage, label, Text, "label"),
    TQ_FIELD(Usage, bytes, U64, "bytes"),
    TQ_FIELD(Usage, allocations, U32, "allocations"),
    TQ_FIELD(Usage, entries, U32, "entries"),
    TQ_FIELD(Usage, leak_bytes, U64, "leak_bytes"),
    TQ_FIELD(Usage, leak_count, U32, "leak_count"),
};
constexpr Field kEnumFields[] = {
    TQ_FIELD(Enum, value, U32, "value"),
    TQ_FIELD(Enum, name, Text, "name"),
};

// --- decoders that return values -----------------------------------------------------------

OwnedList decoded(tqdb_api_msg_t *env, ListFn fn) {
  return OwnedList(env ? fn(env, nullptr) : nullptr, ListDeleter{release_with_records});
}
OwnedRef dicts(const tq_list_t *l, std::span<const Field> fields) {
  auto out = OwnedRef::check(PyList_New(0));
  for (; l; l = l->next) {
    if (!l->data) continue;
    OwnedRef d = record_to_dict(fields, l->data);
    check_status(PyList_Append(out.get(), d.get()));
  }
  return out;
}

OwnedRef zone_version_handle(SessionObject *, PyObject *args, PyObject *kwds) {
  tqdb_api_msg_t *env = decoder_args(args, kwds, "sysdiag_zone_version_handle", ListId::ResultList,
                                     nullptr);
  uint32_t version = 0;
  if (!env || !tqdb_api_sysdiag_zone_version_handle(env, &version)) return none();
  return int_u64(version);
}

OwnedRef enum_values_handle(SessionObject *, PyObject *args, PyObject *kwds) {
  tqdb_api_msg_t *env = decoder_args(args, kwds, "sysdiag_zone_get_enum_values_handle",
                                     ListId::ResultList, nullptr);
  return dicts(decoded(env, tqdb_api_sysdiag_zone_get_enum_values_handle).get(), kEnumFields);
}

// typ 0: reply order; 1: largest bytes first (ties keep reply order).
OwnedRef malloc_usage_get_handle(SessionObject *, PyObject *args, PyObject *kwds) {
  static const char *const names[] = {"msg", "typ", nullptr};
  PyObject *a[2]{};
  parse_args(args, kwds, "sysdiag_malloc_usage_get_handle", names, 2, a);
  tqdb_api_msg_t *env = message_arg(a[0]);
  const int typ = arg_as_int(a[1]);
  OwnedList l = decoded(env, tqdb_api_sysdiag_malloc_usage_get_handle);
  if (typ == 1 && l) {
    std::vector<void *> recs;
    for (tq_list_t *n = l.get(); n; n = n->next) recs.push_back(n->data);
    std::stable_sort(recs.begin(), recs.end(), [](const void *x, const void *y) {
      return static_cast<const Usage *>(x)->bytes > static_cast<const Usage *>(y)->bytes;
    });
    size_t i = 0;
    for (tq_list_t *n = l.get(); n; n = n->next) n->data = recs[i++];
  }
  return dicts(l.get(), kUsageFields);
}

// --- requests with arguments the rows do not convert ----------------------------------------

// "A.B": two decimal u32 joined by one dot, nothing around them.
bool parse_oid(std::string_view s, uint32_t &a, uint32_t &b) {
  const size_t dot = s.find('.');
  if (dot == std::string_view::npos) return false;
  const auto number = [](std::string_view d, uint32_t &out) {
    if (d.empty() || d.size() > 10) return false;
    uint64_t v = 0;
    for (const char c : d) {
      if (c < '0' || c > '9') return false;
      v = v * 10 + static_cast<uint64_t>(c - '0');
    }
    if (v > UINT32_MAX) return false;
    out = static_cast<uint32_t>(v);
    return true;
  };
  return number(s.substr(0, dot), a) && number(s.substr(dot + 1), b);
}

uint32_t level_update(tqdb_api_handle_t *h, uint32_t session, const char *oid, uint64_t minimum,
                      uint64_t maximum, uint64_t minimum_rate, uint64_t maximum_rate,
                      const char *comment, const char *trigger) {
  uint32_t a = 0, b = 0;
  if (!parse_oid(oid, a, b))
    raise(PyExc_ValueError, "oid: expected \"A.B\" (two decimal numbers), got '%.100s'", oid);
  return tqdb_api_sysdiag_level_update(h, session, a, b, minimum, maximum, minimum_rate,
                                       maximum_rate, comment, trigger);
}

// A key of a zone dict; nullptr when absent and optional.
PyObject *zone_key(PyObject *d, const char *key, const char *where, bool required) {
  PyObject *v = dict_item(d, key);
  if (!v && required) raise(PyExc_ValueError, "%s: missing key '%s'", where, key);
  return v;
}
uint32_t zone_int(PyObject *d, const char *key, const char *where, uint32_t def) {
  PyObject *v = zone_key(d, key, where, false);
  return v ? arg_u32(v) : def;
}
void zone_name(PyObject *d, const char *where, char (&out)[64]) {
  const TextArg t(zone_key(d, "name", where, true), "name");
  if (t.view().size() >= sizeof out)
    raise(PyExc_ValueError, "%s: name longer than %d bytes", where, static_cast<int>(sizeof out - 1));
  std::memcpy(out, t.c_str(), t.view().size());
}

OwnedRef zone_register(SessionObject *self, PyObject *args, PyObject *kwds) {
  static const char *const names[] = {"zone", nullptr};
  PyObject *a[1]{};
  parse_args(args, kwds, "sysdiag_zone_register", names, 1, a);
  if (!PyDict_Check(a[0])) raise_text(PyExc_TypeError, "zone: expected a dict");
  Zone z{};
  z.oid = zone_int(a[0], "oid", "zone", 0);
  zone_name(a[0], "zone", z.name);
  z.systemid = zone_int(a[0], "systemid", "zone", 0);
  z.flags = zone_int(a[0], "flags", "zone", 0);
  auto seq = OwnedRef::check(PySequence_Fast(zone_key(a[0], "values", "zone", true),
                                             "zone: 'values' must be a sequence of dicts"));
  std::vector<ValueDef> values(static_cast<size_t>(PySequence_Fast_GET_SIZE(seq.get())));
  for (size_t i = 0; i < values.size(); ++i) {
    PyObject *v = PySequence_Fast_GET_ITEM(seq.get(), static_cast<Py_ssize_t>(i));
    const std::string where = "zone values[" + std::to_string(i) + "]";
    if (!PyDict_Check(v)) raise(PyExc_TypeError, "%s: expected a dict", where.c_str());
    values[i].id = zone_int(v, "id", where.c_str(), static_cast<uint32_t>(i + 1));
    zone_name(v, where.c_str(), values[i].name);
    values[i].type = arg_u32(zone_key(v, "type", where.c_str(), true));
    values[i].flags = zone_int(v, "flags", where.c_str(), 0);
  }
  z.n = static_cast<uint32_t>(values.size());
  z.values = values.data();
  if (!self->handle) return int_u64(0);
  return int_u64(tqdb_api_sysdiag_zone_register(self->handle, self->session_id, &z));
}

OwnedRef zone_update_values(SessionObject *self, PyObject *args, PyObject *kwds) {
  static const char *const names[] = {"zoneoid", "elapsedms", "values", nullptr};
  PyObject *a[3]{};
  parse_args(args, kwds, "sysdiag_zone_update_values", names, 3, a);
  const uint32_t oid = arg_u32(a[0]), elapsed = arg_u32(a[1]);
  auto seq = OwnedRef::check(PySequence_Fast(a[2], "values: expected a sequence of int"));
  std::vector<uint64_t> values;
  for (Py_ssize_t i = 0; i < PySequence_Fast_GET_SIZE(seq.get()); ++i)
    values.push_back(arg_u64(PySequence_Fast_GET_ITEM(seq.get(), i)));
  if (!self->handle) return int_u64(0);
  return int_u64(
      tqdb_api_sysdiag_zone_update_values(self->handle, self->session_id, oid, elapsed, values));
}

#define TQ_BODY(pyname, body, doc) \
  PyMethodDef { pyname, TQ_SESSION_ENTRY(pyname, &body), METH_VARARGS | METH_KEYWORDS, doc }

constexpr auto kZoneName = arg("zone", Conv::Text, 0);
constexpr auto kZoneOid = arg("zoneoid", Conv::U32, 0);

const PyMethodDef kRows[] = {
    TQ_REQUEST("sysdiag_level_list", &tqdb_api_sysdiag_level_list,
               "sysdiag_level_list() -> correlation id."),
    TQ_DECODE("sysdiag_level_list_handle",
              "sysdiag_level_list_handle(msg, l=None) -> l (a new LevelList when None) with the "
              "reply's levels.",
              append_list_body, ListId::LevelList,
              &tqdb_api_sysdiag_level_list_handle),
    TQ_REQUEST("sysdiag_level_update", &level_update,
               "sysdiag_level_update(oid, minimum, maximum, minimum_mom, maximum_mom, comment, "
               "trigger) -> correlation id; oid is \"A.B\".",
               arg("oid", Conv::Text, 0), arg("minimum", Conv::U64, 1),
               arg("maximum", Conv::U64, 2), arg("minimum_mom", Conv::U64, 3),
               arg("maximum_mom", Conv::U64, 4), arg("comment", Conv::Text, 5),
               arg("trigger", Conv::Text, 6)),
    TQ_REQUEST("sysdiag_malloc_usage_list", &tqdb_api_sysdiag_malloc_usage_list,
               "sysdiag_malloc_usage_list() -> correlation id."),
    TQ_DECODE("sysdiag_malloc_usage_list_handle",
              "sysdiag_malloc_usage_list_handle(msg, l=None) -> l (a new "
              "TQSysDiagMallocUsageEntryList when None) with the (systemname, zonename) entries.",
              append_list_body, ListId::TQSysDiagMallocUsageEntryList,
              &tqdb_api_sysdiag_malloc_usage_list_handle),
    TQ_REQUEST("sysdiag_malloc_usage_get", &tqdb_api_sysdiag_malloc_usage_get,
               "sysdiag_malloc_usage_get(systemname, zonename) -> correlation id.",
               arg("systemname", Conv::Text, 0), arg("zonename", Conv::Text, 1)),
    TQ_BODY("sysdiag_malloc_usage_get_handle", malloc_usage_get_handle,
            "sysdiag_malloc_usage_get_handle(msg, typ) -> [dict] of the allocator's labels; "
            "typ 0 in reply order, 1 largest bytes first."),
    TQ_BODY("sysdiag_zone_register", zone_register,
            "sysdiag_zone_register(zone) -> correlation id; zone is {\"name\", \"values\": "
            "[{\"name\", \"type\"}, ...]} with optional oid, systemid, flags, id."),
    TQ_BODY("sysdiag_zone_update_values", zone_update_values,
            "sysdiag_zone_update_values(zoneoid, elapsedms, values) -> correlation id; one int "
            "per value of the zone, in id order."),
    TQ_REQUEST("sysdiag_zone_list", &tqdb_api_sysdiag_zone_list,
               "sysdiag_zone_list() -> correlation id."),
    TQ_DECODE("sysdiag_zone_list_handle",
              "sysdiag_zone_list_handle(msg, l=None) -> l (a new TQSysDiagZoneList when None) "
              "with the reply's zones.",
              append_list_body, ListId::TQSysDiagZoneList,
              &tqdb_api_sysdiag_zone_list_handle),
    TQ_REQUEST("sysdiag_zone_get", &tqdb_api_sysdiag_zone_get,
               "sysdiag_zone_get(zone) -> correlation id; zone is its name.", kZoneName),
    TQ_DECODE("sysdiag_zone_get_handle",
              "sysdiag_zone_get_handle(msg, l=None) -> l (a new TQSysDiagZoneList when None) "
              "with the zone.",
              append_list_body, ListId::TQSysDiagZoneList,
              &tqdb_api_sysdiag_zone_get_handle),
    TQ_REQUEST("sysdiag_zone_value_get", &tqdb_api_sysdiag_zone_value_get,
               "sysdiag_zone_value_get(zone, value) -> correlation id; both by name.", kZoneName,
               arg("value", Conv::Text, 1)),
    TQ_DECODE("sysdiag_zone_value_get_handle",
              "sysdiag_zone_value_get_handle(msg, l=None) -> l (a new TQSysDiagZoneValueList "
              "when None) with the value.",
              append_list_body, ListId::TQSysDiagZoneValueList,
              &tqdb_api_sysdiag_zone_value_get_handle),
    TQ_REQUEST("sysdiag_zone_version", &tqdb_api_sysdiag_zone_version,
               "sysdiag_zone_version() -> correlation id."),
    TQ_BODY("sysdiag_zone_version_handle", zone_version_handle,
            "sysdiag_zone_version_handle(msg) -> the zone version, or None."),
    TQ_REQUEST("sysdiag_zone_system_name_set", &tqdb_api_sysdiag_zone_system_name_set,
               "sysdiag_zone_system_name_set(systemid, system_name) -> correlation id.",
               arg("systemid", Conv::U32, 0), arg("system_name", Conv::Text, 1)),
    TQ_REQUEST("sysdiag_zone_get_enum_values", &tqdb_api_sysdiag_zone_get_enum_values,
               "sysdiag_zone_get_enum_values(zoneoid) -> correlation id.", kZoneOid),
    TQ_BODY("sysdiag_zone_get_enum_values_handle", enum_values_handle,
            "sysdiag_zone_get_enum_values_handle(msg) -> [{\"value\", \"name\"}]."),
    TQ_REQUEST("sysdiag_log_post", &tqdb_api_sysdiag_log_post,
               "sysdiag_log_post(severity, title, body) -> correlation id.",
               arg("severity", Conv::Int, 0), arg("title", Conv::Text, 1),
               arg("body", Conv::Text, 2)),
    TQ_REQUEST("sysdiag_log_list", &tqdb_api_sysdiag_log_list,
               "sysdiag_log_list(only_new, min_id) -> correlation id.",
               arg("only_new", Conv::Truth, 0), arg("min_id", Conv::U32, 1)),
    TQ_DECODE("sysdiag_log_list_handle",
              "sysdiag_log_list_handle(msg, l=None) -> l (a new TQSysDiagLogEntryList when "
              "None) with the reply's entries.",
              append_list_body, ListId::TQSysDiagLogEntryList, &tqdb_api_sysdiag_log_list_handle),
    TQ_REQUEST("sysdiag_log_ack", &tqdb_api_sysdiag_log_ack,
               "sysdiag_log_ack(id) -> correlation id.", arg("id", Conv::U32, 0)),
};

#undef TQ_BODY

}  // namespace

const std::span<const PyMethodDef> g_sysdiag_rows{kRows};
const std::span<const Field> g_level_fields{kLevelFields};
const std::span<const Field> g_sysdiag_zone_fields{kZoneFields};
const std::span<const Field> g_sysdiag_zone_value_fields{kZoneValueFields};
const std::span<const Field> g_sysdiag_log_fields{kLogFields};
const std::span<const Field> g_sysdiag_malloc_fields{kMallocEntryFields};

}  // namespace tqpy
