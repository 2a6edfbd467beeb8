// TQDBv17_1: module initialisation.
//
// In this order: the module and its __builtins__; the interned names; the
// fifty classes made ready; the Vindel class imported from TQvindelv17_1
// and checked against the layout we were built with; the client library
// started (quiet: only errors are logged from a script); then `select`, the
// integer constants, the classes and the module functions as attributes.
#include "constants.h"
#include "result_list.h"
#include "rows.h"
#include "tqdb_objects.h"
#include "transfer.h"
#include "vindel_object.h"

#include <cstring>
#include <iterator>

#include "tq_log.h"

namespace tqpy {

PyTypeObject *g_vindel_type = nullptr;

namespace {

// The fifty classes in the order they are made ready; each is also a module
// attribute under its short name.
PyTypeObject *ordered_type(size_t i) {
  using L = ListId;
  auto list = [](L id) { return &list_class(id).type; };
  PyTypeObject *const order[] = {
      &g_message_type,
      list(L::TQResList),
      list(L::LevelList),
      list(L::TQObjList),
      list(L::TQShapingObjList),
      list(L::TQStatisticsObjList),
      list(L::TQIpfixObjList),
      list(L::TQDynamicLiveViewList),
      list(L::TQRuleConditionList),
      list(L::TQIntList),
      list(L::TQFwList),
      list(L::TQMonitorIfaceList),
      list(L::TQShapingList),
      list(L::TQStatisticsList),
      list(L::TQGraphList),
      &g_stat_query_state_type,
      list(L::TQConnlogList),
      list(L::TQServicesList),
      list(L::TQConfigList),
      list(L::TQConfigCategoryList),
      list(L::TQConfigFlagList),
      list(L::TQBackupList),
      list(L::TQConnprotTriggerList),
      list(L::TQSystemOverviewSystemList),
      list(L::TQSystemOverviewTemplateList),
      list(L::TQSystemOverviewSystemGraph),
      list(L::TQLogFacilityList),
      list(L::TQChannelList),
      list(L::TQChannelLabelList),
      list(L::TQStatreaderList),
      list(L::TQSubscribercountList),
      list(L::TQSubscribercountGraph),
      list(L::TQStatreaderDurationList),
      list(L::TQSubitemcountList),
      list(L::TQStatreaderNamesList),
      list(L::ResultList),
      list(L::TQStringList),
      list(L::TQFileservTypeList),
      list(L::TQFileservList),
      list(L::TQUserList),
      list(L::TQUserPubkeyList),
      list(L::TQHostTriggerList),
      list(L::TQSysDiagZoneList),
      list(L::TQSysDiagZoneValueList),
      list(L::TQSysDiagLogEntryList),
      list(L::TQSysDiagMallocUsageEntryList),
      &g_file_serve_type,
      &g_backup_type,
      &g_session_type,
      &g_handle_type,
  };
  static_assert(std::size(order) == 50, "the module has fifty classes");
  return i < std::size(order) ? order[i] : nullptr;
}

const char *short_name(const PyTypeObject *t) {
  const char *dot = std::strrchr(t->tp_name, '.');
  return dot ? dot + 1 : t->tp_name;
}

// TQvindelv17_1.Vindel, checked: a type whose objects have our layout.
PyTypeObject *import_vindel_type() {
  auto module = OwnedRef::check(PyImport_ImportModule(kVindelModule));
  auto attr = OwnedRef::check(PyObject_GetAttrString(module.get(), kVindelType));
  if (!PyType_Check(attr.get()))
    raise(PyExc_TypeError, "%s.%s is not a type object", kVindelModule, kVindelType);
  auto *type = reinterpret_cast<PyTypeObject *>(attr.get());
  if (type->tp_basicsize != static_cast<Py_ssize_t>(sizeof(VindelObject)))
    raise(PyExc_ValueError, "%s.%s does not appear to be the correct type object",
          kVindelModule, kVindelType);
  // Kept for the life of the process, like the module that defines it.
  return reinterpret_cast<PyTypeObject *>(attr.release());
}

compat::ModuleDef g_module_def;

OwnedRef module_body() {
  // 1. The module.
  auto m = OwnedRef::check(compat::module_new(
      g_module_def, kModuleName, "The TQDB client: handle, sessions, messages and results.",
      g_result_list_functions));
  module_add(m.get(), "__builtins__", OwnedRef::incref(PyEval_GetBuiltins()));

  // 2 and 3. The classes (interning the record keys on the way).
  message_type_fill();
  list_types_fill();
  file_serve_type_fill();
  backup_type_fill();
  stat_query_state_type_fill();
  session_type_fill();
  handle_type_fill();
  value_types_fill();
  for (size_t i = 0; PyTypeObject *t = ordered_type(i); ++i) type_ready(*t);

  // 4. The transport's class.
  if (!g_vindel_type) g_vindel_type = import_vindel_type();
  auto defs = OwnedRef::check(PyImport_ImportModule("TQdefsv17_1"));

  // 5. The library.
  if (!tq_lib_init(TQ_INIT_THREAD | TQ_INIT_QUIET))
    raise_text(PyExc_ImportError, "the TQDB client library failed to start");

  // 6. The module body.
  auto select_module = OwnedRef::check(PyImport_ImportModule("select"));
  module_add(m.get(), "select",
             OwnedRef::check(PyObject_GetAttrString(select_module.get(), "select")));
  for (const tq_py_constant &c : tq_py_constants)
    module_add(m.get(), c.name, int_i64(c.value));
  for (size_t i = 0; PyTypeObject *t = ordered_type(i); ++i)
    module_add(m.get(), short_name(t), OwnedRef::incref(reinterpret_cast<PyObject *>(t)));
  // The value classes of the ruleset lists (Item, Distribution, Filter).
  value_types_ready(m.get());
  // The module functions (intlisttopython, ipv4tostr, ipv6tostr) came with
  // the module itself.
  return m;
}

}  // namespace
}  // namespace tqpy

TQ_PY_MODINIT(TQDBv17_1) {
  PyObject *m = tqpy::module_entry(tqpy::module_body);
  TQ_PY_MODINIT_RETURN(m);
}
