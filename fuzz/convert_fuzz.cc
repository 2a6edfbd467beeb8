// The Python side of every reply: an embedded interpreter with the module
// TQDBv17_1 built in, driven the way a script drives it. The first input
// byte picks a row (a decoder method of Session); the rest is cut in two
// (tqfuzz::split) and each half becomes a TQMessage holding one reply. A list
// row makes an empty object of the method's list class and decodes both
// messages into it (the method's l argument, as a script continues an
// answer over several replies), then converts it with convert(None); any
// other row decodes each message by itself. Every value that comes back is
// walked completely (len, iteration, indexing, dict items, attributes, repr
// and str) and dropped.
//
// Rows 0 to 80 are decoders_fuzz.cc's rows, in its order, so that its seeds
// reach the same decoder here; a decoder the module has no method for keeps
// its place with a null method. Rows are only ever appended.
//
// A Python exception from a call is an outcome, counted by type when the
// fuzzer exits ("PYTHON-EXCEPTION <count> <type>"). A deliberate abort inside
// a decoder throws out of the fatal path; the method's entry point turns it
// into SystemError and returns NULL, so the hook below remembers the report
// and the abort is counted like every target's.
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <map>
#include <span>
#include <string>

#include "harness.h"
#include "result_list.h"
#include "tq_list.h"
#include "tq_malloc.h"
#include "tqdb_api_ruleset.h"
#include "tqdb_objects.h"

PyMODINIT_FUNC PyInit_TQDBv17_1(void);
PyMODINIT_FUNC PyInit_TQvindelv17_1(void);
PyMODINIT_FUNC PyInit_TQdefsv17_1(void);

namespace {

using tqpy::OwnedRef;
using tqpy::ResultListObject;

constexpr uint32_t kData = TQDB_REPLY_DATA;

// A list object made by the target may start with records of its own.
using Start = tq_list_t *(*)();

// The live-view decoder puts each view in front of the list it is given,
// and its abort leaves the views of that reply in a list it never returned.
// Started on a placeholder view, they stay reachable from it (prev links)
// and the target gives them back to the list object after the abort.
tq_list_t *placeholder_view() {
  auto *v = static_cast<tqdb_api_dynamicliveview_t *>(
      tq_zalloc("tqdb_api_dynamicliveview_t", sizeof(tqdb_api_dynamicliveview_t)));
  v->id = 0xFFFFFFFF;
  return tq_list_new(0, nullptr, v);
}

struct Row {
  const char *method;  // Session's method; nullptr: the module has none
  uint32_t code = kData;
  int extra = -1;        // >= 0: an int second argument (instead of l)
  Start start = nullptr;
};

constexpr Row kRows[] = {
    // ruleset families
    {"object_list_handle"},
    {"object_attr_list_handle"},
    {"shaping_object_list_handle"},
    {"statistics_object_list_handle"},
    {"ipfix_object_list_handle"},
    {"fwrule_list_handle"},
    {"shapingrule_list_handle"},
    {"statisticsrule_list_handle"},
    {"ruleconditions_list_handle"},
    {"dynamicliveview_list_handle", kData, -1, placeholder_view},
    {"fwrule_update_handle"},
    {"object_add_handle"},
    {nullptr},  // ruleset text
    {nullptr},  // object copy
    // statistics reader
    {"stat_list_handle"},
    {"stat_graph_handle"},
    {"stat_subscriber_count_graph_handle"},
    {"stat_transfer_get_handle"},
    {"stat_list_duration_handle"},
    {"stat_subscriber_count_list_handle"},
    {"stat_subitem_count_handle"},
    {"stat_subitem_count_list_handle"},
    {"stat_names_list_handle"},
    {"stat_writer_status_handle"},
    {nullptr},  // peak list
    {nullptr},  // activity
    {"stat_date_list_handle"},
    {"stat_subscriber_count_handle"},
    {"stat_is_expandable_handle"},
    {"stat_list_fields_handle"},
    {nullptr},  // value types
    // system diagnostics
    {"sysdiag_level_list_handle"},
    {"sysdiag_malloc_usage_list_handle"},
    {"sysdiag_malloc_usage_get_handle", kData, 1},  // largest first
    {"sysdiag_zone_list_handle"},
    {"sysdiag_zone_get_handle"},
    {nullptr},  // alerted zones
    {"sysdiag_zone_value_get_handle"},
    {"sysdiag_log_list_handle"},
    {"sysdiag_zone_get_enum_values_handle"},
    {"sysdiag_zone_version_handle"},
    {nullptr},  // system name
    // users
    {"user_list_handle"},
    {"user_pubkey_list_handle"},
    {"user_add_handle"},
    {"user_auth_handle"},
    // file service and backups (the downloads write into a script's file)
    {"fileserv_types_handle"},
    {"fileserv_list_handle"},
    {nullptr},  // file download
    {nullptr},  // area usage
    {"backup_list_handle"},
    {nullptr},  // backup download
    {"backup_dump_handle"},
    // channels, labels, monitor interfaces
    {"channel_list_handle"},
    {nullptr},  // link states
    {"channel_label_list_handle"},
    {"monitoriface_list_handle"},
    {nullptr},  // channel statistics
    {"channel_label_add_handle"},
    // configuration, services, features, log facilities
    {"config_list_handle"},
    {"config_category_list_handle"},
    {"config_flags_list_handle"},
    {"log_facility_list_handle"},
    {"services_list_handle"},
    {nullptr},  // service properties
    {nullptr},  // system time
    {"features_get_handle"},
    {"restarting_handle", TQDB_REPLY_RESTARTING},
    {"reloading_handle", TQDB_REPLY_RELOADING},
    // system overview
    {"system_overview_template_list_handle"},
    {"system_overview_list_handle"},
    {"system_overview_system_graph_handle"},
    {"system_overview_sysinfo_list_systems_handle"},
    {"system_overview_sysinfo_get_system_handle"},
    // triggers
    {"hosttrigger_list_handle"},
    {"connprot_trigger_list_handle"},
    {"hosttrigger_add_handle"},
    {"connprot_trigger_add_handle"},
    // connection log
    {"connlog_servicelist_handle"},
    {nullptr},  // day list
    {nullptr},  // count
    // --- the module's own rows from here on
    {"connlog_search_handle"},
    {"diag_handle"},
    {"resource_resource_list_handle"},
    {"ping_handle"},
    {"sysdiag_malloc_usage_get_handle", kData, 0},  // reply order
    {"TQIntList"},  // no reply: the class made from the input's words
};
constexpr size_t kIntListRow = std::size(kRows) - 1;

// --- outcomes -----------------------------------------------------------------------

[[noreturn]] void fail(const char *what) {
  std::fprintf(stderr, "convert_fuzz: %s\n", what);
  if (PyErr_Occurred()) PyErr_Print();
  __builtin_trap();
}

void require(bool ok, const char *what) {
  if (!ok) fail(what);
}

OwnedRef require_ref(PyObject *p, const char *what) {
  if (p == nullptr) fail(what);
  return OwnedRef::steal(p);
}

// The report of the abort that cut the running call short.
std::string g_abort;

[[noreturn]] void remember_abort(const char *report) {
  g_abort = report;
  tqfuzz::throw_abort(report);
}

std::map<std::string, unsigned long> &exception_counts() {
  static std::map<std::string, unsigned long> counts;
  return counts;
}

void print_exception_summary() {
  for (const auto &[type, n] : exception_counts())
    std::fprintf(stderr, "PYTHON-EXCEPTION %lu %s\n", n, type.c_str());
}

// fn(args); nullptr when it raised, after counting why.
OwnedRef call(PyObject *fn, PyObject *args) {
  OwnedRef r = OwnedRef::steal(PyObject_Call(fn, args, nullptr));
  if (r) {
    require(g_abort.empty(), "an aborted call returned a value");
    return r;
  }
  require(PyErr_Occurred() != nullptr, "NULL without an exception");
  if (!g_abort.empty()) {
    require(PyErr_ExceptionMatches(PyExc_SystemError), "an abort surfaced as another error");
    ++tqfuzz::abort_counts()[tqfuzz::abort_key(g_abort)];
    g_abort.clear();
  } else {
    ++exception_counts()[Py_TYPE(PyErr_Occurred())->tp_name];
  }
  PyErr_Clear();
  return r;
}

// --- walking a converted value ------------------------------------------------------

bool is_plain(PyObject *o) {
  return o == Py_None || PyBool_Check(o) || PyLong_Check(o) || PyFloat_Check(o) ||
         PyUnicode_Check(o);
}

void walk(PyObject *o, int depth = 0) {
  require(depth < 16, "a value nested too deep");
  require_ref(PyObject_Repr(o), "repr failed");
  require_ref(PyObject_Str(o), "str failed");
  // == without the identity shortcut: the value classes' own comparison runs.
  OwnedRef eq = require_ref(PyObject_RichCompare(o, o, Py_EQ), "== failed");
  require(eq.get() == Py_True || PyFloat_Check(o), "a value unequal to itself");  // NaN is
  if (PyDict_Check(o)) {
    Py_ssize_t pos = 0, n = 0;
    PyObject *key, *value;
    while (PyDict_Next(o, &pos, &key, &value)) {
      require(PyDict_GetItemWithError(o, key) == value, "a dict key that finds another value");
      walk(key, depth + 1);
      walk(value, depth + 1);
      ++n;
    }
    require(n == PyDict_Size(o), "dict items and len disagree");
  } else if (PyList_Check(o) || PyTuple_Check(o)) {
    const Py_ssize_t n = PySequence_Size(o);
    OwnedRef it = require_ref(PyObject_GetIter(o), "iter failed");
    Py_ssize_t i = 0;
    while (OwnedRef item = OwnedRef::steal(PyIter_Next(it.get()))) {
      OwnedRef at = require_ref(PySequence_GetItem(o, i++), "indexing failed");
      require(at.get() == item.get(), "iteration and indexing disagree");
      walk(item.get(), depth + 1);
    }
    require(!PyErr_Occurred() && i == n, "iteration and len disagree");
  } else if (!is_plain(o)) {
    // The module's value classes (Item, Distribution, Filter): their fields.
    OwnedRef names = require_ref(PyObject_Dir(o), "dir failed");
    for (Py_ssize_t i = 0; i < PyList_GET_SIZE(names.get()); ++i) {
      PyObject *name = PyList_GET_ITEM(names.get(), i);
      if (PyUnicode_READ_CHAR(name, 0) == '_') continue;
      OwnedRef v = require_ref(PyObject_GetAttr(o, name), "getattr failed");
      if (!PyCallable_Check(v.get())) walk(v.get(), depth + 1);
    }
  }
}

// --- the interpreter ----------------------------------------------------------------

struct Module {
  PyObject *session;  // a Session of no handle: decoders need none
  PyObject *methods[std::size(kRows)];
  PyTypeObject *list_type[std::size(kRows)];  // the row's list class, or nullptr
  PyObject *int_list;                         // TQIntList
  PyObject *intlisttopython;
  // Made once: a name made for each lookup would stay in the interpreter's
  // attribute cache, and the input would look as if it leaked.
  PyObject *convert;   // "convert", interned
  PyObject *none_arg;  // (None,)
};
Module g_module;

PyObject *attr(PyObject *o, const char *name) {
  return require_ref(PyObject_GetAttrString(o, name), name).release();
}

// A TQMessage holding the reply (a DATA reply gets a zero header in front of
// its body, a notice has none); nullptr when the envelope parser refuses it.
OwnedRef message(uint32_t code, tqfuzz::Span body) {
  tqfuzz::EnvPtr env = code == kData ? tqfuzz::make_data_env(body) : tqfuzz::make_env(body, code);
  if (!env) return {};
  OwnedRef m = require_ref(PyObject_CallNoArgs(reinterpret_cast<PyObject *>(&tqpy::g_message_type)),
                           "TQMessage()");
  reinterpret_cast<tqpy::MessageObject *>(m.get())->env.reset(env.release());
  return m;
}

void start_interpreter() {
  PyPreConfig pre;
  PyPreConfig_InitIsolatedConfig(&pre);
  // Every object through malloc: the sanitizers see each one.
  pre.allocator = PYMEM_ALLOCATOR_MALLOC;
  PyStatus st = Py_PreInitialize(&pre);
  if (PyStatus_Exception(st)) Py_ExitStatusException(st);
  PyImport_AppendInittab("TQvindelv17_1", PyInit_TQvindelv17_1);
  PyImport_AppendInittab("TQdefsv17_1", PyInit_TQdefsv17_1);
  PyImport_AppendInittab("TQDBv17_1", PyInit_TQDBv17_1);
  PyConfig config;
  PyConfig_InitIsolatedConfig(&config);
  config.install_signal_handlers = 0;  // the fuzzer's own stay
  config.site_import = 0;
  config.write_bytecode = 0;
  st = Py_InitializeFromConfig(&config);
  PyConfig_Clear(&config);
  if (PyStatus_Exception(st)) Py_ExitStatusException(st);

  OwnedRef m = require_ref(PyImport_ImportModule("TQDBv17_1"), "import TQDBv17_1");
  OwnedRef session_type = OwnedRef::steal(attr(m.get(), "Session"));
  g_module.session = require_ref(PyObject_CallNoArgs(session_type.get()), "Session()").release();
  g_module.int_list = attr(m.get(), "TQIntList");
  g_module.intlisttopython = attr(m.get(), "intlisttopython");
  g_module.convert = require_ref(PyUnicode_InternFromString("convert"), "convert").release();
  g_module.none_arg = require_ref(PyTuple_Pack(1, Py_None), "(None,)").release();
  // Which rows are list rows: what the method makes of an empty TQMessage.
  PyTypeObject *base = &tqpy::list_class(tqpy::ListId::ResultList).type;
  OwnedRef empty = require_ref(
      PyObject_CallNoArgs(reinterpret_cast<PyObject *>(&tqpy::g_message_type)), "TQMessage()");
  for (size_t i = 0; i < kIntListRow; ++i) {
    const Row &row = kRows[i];
    if (row.method == nullptr) continue;
    g_module.methods[i] = attr(g_module.session, row.method);
    OwnedRef args = require_ref(row.extra >= 0 ? Py_BuildValue("(Oi)", empty.get(), row.extra)
                                               : PyTuple_Pack(1, empty.get()),
                                "arguments");
    OwnedRef probe = require_ref(PyObject_Call(g_module.methods[i], args.get(), nullptr),
                                 row.method);
    if (PyObject_TypeCheck(probe.get(), base) && row.extra < 0)
      g_module.list_type[i] = Py_TYPE(probe.get());
    require(row.start == nullptr || g_module.list_type[i] != nullptr, "a start for no list");
  }
}

// --- one input ----------------------------------------------------------------------

// convert(None) gives one value per node, in order: a dict with every
// field of the class's table for a record (none for an empty node).
void check_conversion(const ResultListObject *l, PyObject *values) {
  const tqpy::ListClass &cls = *l->cls;
  if (cls.convert_all == nullptr) {
    require(PyList_Check(values), "convert() is no list");
    Py_ssize_t i = 0;
    for (const tq_list_t *n = l->list; n != nullptr; n = n->next, ++i) {
      require(i < PyList_GET_SIZE(values), "fewer values than nodes");
      PyObject *v = PyList_GET_ITEM(values, i);
      if (!cls.fields.empty())
        require(PyDict_Check(v) && static_cast<size_t>(PyDict_GET_SIZE(v)) ==
                                       (n->data != nullptr ? cls.fields.size() : 0),
                "a record's dict without one key per field");
    }
    require(i == PyList_GET_SIZE(values), "more values than nodes");
  }
  walk(values);
}

void decode_into_list(size_t r, std::span<const OwnedRef> msgs) {
  const Row &row = kRows[r];
  OwnedRef l = require_ref(PyObject_CallNoArgs(reinterpret_cast<PyObject *>(g_module.list_type[r])),
                           "a new list object");
  auto *list = reinterpret_cast<ResultListObject *>(l.get());
  if (row.start != nullptr) list->list = row.start();
  for (const OwnedRef &m : msgs) {
    OwnedRef args = require_ref(PyTuple_Pack(2, m.get(), l.get()), "arguments");
    if (OwnedRef back = call(g_module.methods[r], args.get())) {
      require(back.get() == l.get(), "l came back as another object");
      continue;
    }
    // Cut short: records put in front of the head go back to the object.
    while (list->list != nullptr && list->list->prev != nullptr) list->list = list->list->prev;
    list->tail = nullptr;
  }
  OwnedRef convert = require_ref(PyObject_GetAttr(l.get(), g_module.convert), "convert");
  if (OwnedRef values = call(convert.get(), g_module.none_arg)) check_conversion(list, values.get());
}

void decode_each(size_t r, std::span<const OwnedRef> msgs) {
  const Row &row = kRows[r];
  for (const OwnedRef &m : msgs) {
    OwnedRef args = require_ref(row.extra >= 0 ? Py_BuildValue("(Oi)", m.get(), row.extra)
                                               : PyTuple_Pack(1, m.get()),
                                "arguments");
    if (OwnedRef v = call(g_module.methods[r], args.get())) walk(v.get());
  }
}

// TQIntList(words) converts back to exactly the words (signed 32-bit, in
// order), by convert() and by intlisttopython().
void int_list(tqfuzz::Span data) {
  OwnedRef words = require_ref(PyList_New(0), "a list");
  for (size_t i = 0; i + 4 <= data.size(); i += 4) {
    int32_t w;
    std::memcpy(&w, data.data() + i, sizeof w);
    OwnedRef v = require_ref(PyLong_FromLong(w), "an int");
    require(PyList_Append(words.get(), v.get()) == 0, "append");
  }
  OwnedRef args = require_ref(PyTuple_Pack(1, words.get()), "arguments");
  OwnedRef l = require_ref(PyObject_Call(g_module.int_list, args.get(), nullptr), "TQIntList()");
  OwnedRef convert = require_ref(PyObject_GetAttr(l.get(), g_module.convert), "convert");
  OwnedRef back = require_ref(PyObject_Call(convert.get(), g_module.none_arg, nullptr), "convert()");
  OwnedRef l_arg = require_ref(PyTuple_Pack(1, l.get()), "arguments");
  OwnedRef again =
      require_ref(PyObject_Call(g_module.intlisttopython, l_arg.get(), nullptr), "intlisttopython");
  require(PyObject_RichCompareBool(back.get(), words.get(), Py_EQ) == 1 &&
              PyObject_RichCompareBool(again.get(), words.get(), Py_EQ) == 1,
          "TQIntList does not give its words back");
  check_conversion(reinterpret_cast<ResultListObject *>(l.get()), back.get());
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int *, char ***) {
  tqfuzz::install_bug_hook();
  tq_set_bug_hook(remember_abort);
  (void)exception_counts();
  std::atexit(print_exception_summary);
  start_interpreter();
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  if (size == 0) return 0;
  const size_t r = data[0] % std::size(kRows);
  const Row &row = kRows[r];
  const tqfuzz::Span rest = tqfuzz::Span(data, size).subspan(1);
  if (r == kIntListRow) {
    int_list(rest);
    return 0;
  }
  if (row.method == nullptr) return 0;
  const auto [first, second] = tqfuzz::split(rest);
  // An envelope the parser refused is no reply; the other one still counts.
  OwnedRef got[2];
  size_t n = 0;
  for (const tqfuzz::Span half : {first, second})
    if (OwnedRef m = message(row.code, half)) got[n++] = std::move(m);
  if (g_module.list_type[r] != nullptr) {
    decode_into_list(r, std::span(got, n));
  } else {
    decode_each(r, std::span(got, n));
  }
  return 0;
}
