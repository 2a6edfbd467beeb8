#include "result_list.h"

#include "rows.h"
#include "tqdb_objects.h"

#include <array>
#include <cinttypes>
#include <cstdio>
#include <cstring>
#include <optional>
#include <string_view>
#include <unordered_map>
#include <utility>

#include "tq_malloc.h"
#include "tqdb_api_channel.h"
#include "tqdb_api_system_overview.h"

namespace tqpy {

void release_with_records(tq_list_t *list) { tq_list_free_with_data(list); }
void release_nodes(tq_list_t *list) { tq_list_free(list); }

namespace {

// --- record fields -------------------------------------------------------------------------

template <class T>
T load(const std::byte *p) {
  T v;
  std::memcpy(&v, p, sizeof v);
  return v;
}

// One element of a nested list of a record.
OwnedRef nested_value(FieldKind kind, const void *data) {
  switch (kind) {
    case FieldKind::Items:
      return item_to_dict(static_cast<const tqdb_api_object_item_t *>(data));
    case FieldKind::Limits: {
      const auto *limit = static_cast<const tqdb_api_shapingobject_limit_t *>(data);
      auto t = OwnedRef::check(PyTuple_New(6));
      for (Py_ssize_t i = 0; i < 6; ++i)
        PyTuple_SET_ITEM(t.get(), i, int_u64(limit->v[i]).release());
      return t;
    }
    case FieldKind::CondItems: {
      const auto *item = static_cast<const tqdb_api_rule_condition_item_t *>(data);
      return make_value(ValueId::Item, int_u64(item->conditiontype), int_u64(item->objectid));
    }
    case FieldKind::Distributions: {
      const auto *d = static_cast<const tqdb_api_dynamicliveview_distribution_t *>(data);
      return make_value(ValueId::Distribution, text_field(d->distribution, sizeof d->distribution),
                        text_field(d->argument, sizeof d->argument));
    }
    case FieldKind::Filters: {
      const auto *f = static_cast<const tqdb_api_dynamicliveview_filter_t *>(data);
      auto values = OwnedRef::check(PyList_New(0));
      for (const tq_list_t *n = f->values; n; n = n->next) {
        const auto *v = static_cast<const tqdb_api_dynamicliveview_filter_value_t *>(n->data);
        if (!v) continue;
        OwnedRef t = text_field(v->value, sizeof v->value);
        check_status(PyList_Append(values.get(), t.get()));
      }
      return make_value(ValueId::Filter, text_field(f->key, sizeof f->key), int_u64(f->op),
                        std::move(values));
    }
    default:
      break;
  }
  raise_text(PyExc_SystemError, "not a nested list kind");
}

// --- repeated texts -----------------------------------------------------------------------

// Recently converted short texts, by content: a direct-mapped table whose
// slots own their str. It lives while one convert() runs.
class TextCache {
 public:
  static constexpr size_t kSlots = 512;
  static constexpr size_t kMaxLen = 31;  // audit names and dates fit

  ~TextCache() {
    for (Slot &s : slots_) Py_XDECREF(s.str);
  }
  OwnedRef get(std::string_view text) {
    uint32_t h = 2166136261u;  // FNV-1a
    for (const char c : text) h = (h ^ static_cast<uint8_t>(c)) * 16777619u;
    Slot &s = slots_[h % kSlots];
    if (s.str && s.len == text.size() && std::memcmp(s.bytes, text.data(), text.size()) == 0)
      return OwnedRef::incref(s.str);
    OwnedRef fresh = text_of(text);
    Py_XDECREF(s.str);
    s.str = OwnedRef::incref(fresh.get()).release();
    s.len = static_cast<uint8_t>(text.size());
    std::memcpy(s.bytes, text.data(), text.size());
    return fresh;
  }

 private:
  static OwnedRef text_of(std::string_view t) { return text(t); }
  struct Slot {
    PyObject *str = nullptr;
    uint8_t len = 0;
    char bytes[kMaxLen];
  };
  std::array<Slot, kSlots> slots_{};
};

// The cache of the convert() running now; nullptr outside one. One thread
// at a time runs in the module (the interpreter's lock), and a conversion
// runs no Python code, so convert() calls never interleave.
TextCache *g_text_cache = nullptr;

}  // namespace

OwnedRef record_text(const char *s, size_t max) {
  const std::string_view t(s, strnlen(s, max));
  if (g_text_cache == nullptr || t.size() > TextCache::kMaxLen) return text(t);
  return g_text_cache->get(t);
}

namespace {

OwnedRef field_value(const Field &f, const std::byte *record) {
  const std::byte *p = record + f.offset;
  switch (f.kind) {
    case FieldKind::Text:
      return record_text(reinterpret_cast<const char *>(p), f.size);
    case FieldKind::Flag:
      return boolean(load<uint8_t>(p) != 0);
    case FieldKind::U8:
      return int_u64(load<uint8_t>(p));
    case FieldKind::U16:
      return int_u64(load<uint16_t>(p));
    case FieldKind::I32:
      return int_i64(load<int32_t>(p));
    case FieldKind::U32:
      return int_u64(load<uint32_t>(p));
    case FieldKind::U64:
      return int_u64(load<uint64_t>(p));
    case FieldKind::IPv4:
      return text(ipv4_text(load<uint32_t>(p)));
    case FieldKind::IPv6: {
      uint32_t words[4];
      std::memcpy(words, p, sizeof words);
      return text(ipv6_text(words));
    }
    case FieldKind::IntList:
      return intlisttopython(load<const tq_list_t *>(p));
    case FieldKind::FlagBit:
      return boolean((load<uint8_t>(p) & f.mask) != 0);
    case FieldKind::U8Array: {
      auto out = OwnedRef::check(PyList_New(0));
      for (size_t i = 0; i < f.size; ++i) {
        OwnedRef v = int_u64(load<uint8_t>(p + i));
        check_status(PyList_Append(out.get(), v.get()));
      }
      return out;
    }
    case FieldKind::TextPtr: {
      const char *t = load<const char *>(p);
      return text(t ? std::string_view(t) : std::string_view());
    }
    case FieldKind::U64s:
    case FieldKind::F64s: {
      const auto n = load<uint8_t>(record + f.count_at);
      const auto *a = load<const std::byte *>(p);
      const size_t count = a ? n : 0;
      auto out = OwnedRef::check(PyList_New(static_cast<Py_ssize_t>(count)));
      for (size_t i = 0; i < count; ++i) {
        OwnedRef v = f.kind == FieldKind::U64s
                         ? int_u64(load<uint64_t>(a + 8 * i))
                         : OwnedRef::check(PyFloat_FromDouble(load<double>(a + 8 * i)));
        PyList_SET_ITEM(out.get(), static_cast<Py_ssize_t>(i), v.release());
      }
      return out;
    }
    case FieldKind::OidPair: {
      char oid[24];
      std::snprintf(oid, sizeof oid, "%" PRIu32 ".%" PRIu32, load<uint32_t>(p),
                    load<uint32_t>(record + f.count_at));
      return text(oid);
    }
    case FieldKind::Records: {
      const auto *a = load<const std::byte *>(p);
      const size_t count = a ? load<uint32_t>(record + f.count_at) : 0;
      auto out = OwnedRef::check(PyList_New(static_cast<Py_ssize_t>(count)));
      for (size_t i = 0; i < count; ++i)
        PyList_SET_ITEM(out.get(), static_cast<Py_ssize_t>(i),
                        record_to_dict(f.nested, a + i * f.stride).release());
      return out;
    }
    case FieldKind::Items:
    case FieldKind::Limits:
    case FieldKind::CondItems:
    case FieldKind::Distributions:
    case FieldKind::Filters: {
      auto out = OwnedRef::check(PyList_New(0));
      for (const tq_list_t *n = load<const tq_list_t *>(p); n; n = n->next) {
        if (!n->data) continue;
        OwnedRef v = nested_value(f.kind, n->data);
        check_status(PyList_Append(out.get(), v.get()));
      }
      return out;
    }
  }
  raise_text(PyExc_SystemError, "unknown field kind");
}

// --- convert_node of each kind of list ----------------------------------------------------

OwnedRef convert_abstract(const ListClass &, const tq_list_t *) {
  PyErr_SetNone(PyExc_NotImplementedError);
  throw_python_error();
}

OwnedRef convert_text(const ListClass &, const tq_list_t *node) {
  const char *s = static_cast<const char *>(node->data);
  return text(s ? std::string_view(s) : std::string_view());
}

OwnedRef convert_int(const ListClass &, const tq_list_t *node) {
  return int_i64(static_cast<long long>(reinterpret_cast<intptr_t>(node->data)));
}

// A dict with one key per field, in the order of the class's table.
OwnedRef convert_record(const ListClass &cls, const tq_list_t *node) {
  const auto *record = static_cast<const std::byte *>(node->data);
  OwnedRef dict = record_dict(cls.fields.size());
  if (!record) return dict;
  for (size_t i = 0; i < cls.fields.size(); ++i) {
    OwnedRef value = field_value(cls.fields[i], record);
    check_status(PyDict_SetItem(dict.get(), cls.keys[i], value.get()));
  }
  return dict;
}

}  // namespace

namespace {
// The interned str of a field table's key. Field tables are static, so a
// key's address names it for the life of the process; the strs are kept as
// long (like the list classes' own keys).
PyObject *interned_key(const char *key) {
  static std::unordered_map<const char *, PyObject *> keys;
  auto [it, fresh] = keys.try_emplace(key, nullptr);
  if (fresh) {
    it->second = compat::text_intern(key);
    if (!it->second) {
      keys.erase(it);
      throw_python_error();
    }
  }
  return it->second;
}
}  // namespace

OwnedRef record_to_dict(std::span<const Field> fields, const void *record) {
  OwnedRef dict = record_dict(fields.size());
  for (const Field &f : fields) {
    OwnedRef value = field_value(f, static_cast<const std::byte *>(record));
    check_status(PyDict_SetItem(dict.get(), interned_key(f.key), value.get()));
  }
  return dict;
}

// connlog.cc: TQConnlogList holds the one result record of a search.
OwnedRef convert_connlog(const ListClass &cls, const tq_list_t *list);
void release_connlog(tq_list_t *list);

namespace {

// --- field tables
// ---------------------------------------------------------------------------------

using Res = tqdb_api_resource_real_t;
constexpr Field kResourceFields[] = {
    TQ_FIELD(Res, id, U32, "id"),
    TQ_FIELD(Res, name, Text, "name"),
    TQ_FIELD(Res, proxyaddress, Text, "proxyaddress"),
    TQ_FIELD(Res, proxyuser, Text, "proxyuser"),
    TQ_FIELD(Res, proxypassword, Text, "proxypassword"),
    TQ_FIELD(Res, proxy, Flag, "proxy"),
    TQ_FIELD(Res, enterprise, Flag, "enterprise"),
    TQ_FIELD(Res, locker, Text, "locker"),
    TQ_FIELD(Res, last_query, Text, "last_query"),
    TQ_FIELD(Res, avg_query_time, U32, "avg_query_time"),
    TQ_FIELD(Res, queries, U64, "queries"),
    TQ_FIELD(Res, status, Text, "status"),
};

// Record lists of the families whose decoders are not wired yet: their
// classes exist and convert through convert_record; each family fills in
// its field table.

ListClass record_list(ListId id, const char *name, std::span<const Field> fields,
                      ReleaseList release = release_with_records) {
  return ListClass{.id = id,
                   .name = name,
                   .doc = "A decoded list; convert(unused) gives a list of dicts.",
                   .convert_node = convert_record,
                   .release = release,
                   .fields = fields};
}

// The statistics list record and the graphs: one node, the record that the
// decoders continue from reply to reply.
ListClass stat_record_list(ListId id, const char *name) {
  const bool graph = id != ListId::TQStatreaderList;
  return ListClass{.id = id,
                   .name = name,
                   .doc = graph ? "A decoded graph; convert(unused) gives [dict] with its points."
                                : "A decoded statistics list; convert(unused) gives a list of "
                                  "node dicts.",
                   .convert_node = graph ? convert_stat_graph : convert_abstract,
                   .release = graph ? release_stat_graph : release_stat_list,
                   .fields = {},
                   .convert_all = graph ? nullptr : convert_stat_list};
}

// In ListId order.
std::array<ListClass, 44> g_classes = {
    record_list(ListId::TQResList, "TQResList", kResourceFields),
    record_list(ListId::LevelList, "LevelList", g_level_fields),
    record_list(ListId::TQObjList, "TQObjList", g_object_fields, tqdb_api_object_list_free),
    record_list(ListId::TQShapingObjList, "TQShapingObjList", g_shapingobject_fields,
                tqdb_api_shapingobject_list_free),
    record_list(ListId::TQStatisticsObjList, "TQStatisticsObjList", g_statisticsobject_fields,
                tqdb_api_statisticsobject_list_free),
    record_list(ListId::TQIpfixObjList, "TQIpfixObjList", g_ipfixobject_fields,
                tqdb_api_ipfixobject_list_free),
    record_list(ListId::TQDynamicLiveViewList, "TQDynamicLiveViewList", g_dynamicliveview_fields,
                tqdb_api_dynamicliveview_list_free),
    record_list(ListId::TQRuleConditionList, "TQRuleConditionList", g_rulecondition_fields,
                tqdb_api_ruleconditions_list_free),
    ListClass{.id = ListId::TQIntList,
              .name = "TQIntList",
              .doc = "TQIntList(values=()) -> a C list of integers; convert(unused) gives "
                     "them back as a list of int.",
              .convert_node = convert_int,
              .release = release_nodes,
              .fields = {}},
    record_list(ListId::TQFwList, "TQFwList", g_fwrule_fields, tqdb_api_fwrule_list_free),
    record_list(ListId::TQMonitorIfaceList, "TQMonitorIfaceList", g_monitoriface_fields),
    record_list(ListId::TQShapingList, "TQShapingList", g_shapingrule_fields,
                tqdb_api_shapingrule_list_free),
    record_list(ListId::TQStatisticsList, "TQStatisticsList", g_statisticsrule_fields,
                tqdb_api_statisticsrule_list_free),
    stat_record_list(ListId::TQGraphList, "TQGraphList"),
    ListClass{.id = ListId::TQConnlogList,
              .name = "TQConnlogList",
              .doc = "A decoded connection log search; convert(unused) gives one dict: "
                     "entries, metadata, matches, warnings and error.",
              .convert_node = convert_abstract,
              .release = release_connlog,
              .fields = {},
              .convert_all = convert_connlog},
    record_list(ListId::TQServicesList, "TQServicesList", g_services_fields),
    record_list(ListId::TQConfigList, "TQConfigList", g_config_fields),
    record_list(ListId::TQConfigCategoryList, "TQConfigCategoryList", g_config_category_fields),
    record_list(ListId::TQConfigFlagList, "TQConfigFlagList", g_config_flag_fields),
    record_list(ListId::TQBackupList, "TQBackupList", g_backup_fields),
    record_list(ListId::TQConnprotTriggerList, "TQConnprotTriggerList", g_connprot_trigger_fields),
    record_list(ListId::TQSystemOverviewSystemList, "TQSystemOverviewSystemList",
                g_system_overview_system_fields, tqdb_api_system_overview_list_free),
    record_list(ListId::TQSystemOverviewTemplateList, "TQSystemOverviewTemplateList", g_system_overview_template_fields),
    record_list(ListId::TQSystemOverviewSystemGraph, "TQSystemOverviewSystemGraph", g_system_overview_graph_fields),
    record_list(ListId::TQLogFacilityList, "TQLogFacilityList", g_log_facility_fields),
    record_list(ListId::TQChannelList, "TQChannelList", g_channel_fields),
    record_list(ListId::TQChannelLabelList, "TQChannelLabelList", g_channel_label_fields,
                tqdb_api_channel_label_list_free),
    stat_record_list(ListId::TQStatreaderList, "TQStatreaderList"),
    record_list(ListId::TQSubscribercountList, "TQSubscribercountList", g_statreader_node_fields),
    stat_record_list(ListId::TQSubscribercountGraph, "TQSubscribercountGraph"),
    record_list(ListId::TQStatreaderDurationList, "TQStatreaderDurationList",
                g_statreader_node_fields),
    record_list(ListId::TQSubitemcountList, "TQSubitemcountList", g_statreader_node_fields),
    record_list(ListId::TQStatreaderNamesList, "TQStatreaderNamesList", g_statreader_node_fields),
    ListClass{.id = ListId::ResultList,
              .name = "ResultList",
              .doc = "Base of the list classes: owns a decoded C list; convert(unused) turns "
                     "it into a list of Python values.",
              .convert_node = convert_abstract,
              .release = release_with_records,
              .fields = {}},
    ListClass{.id = ListId::TQStringList,
              .name = "TQStringList",
              .doc = "A decoded list of strings; convert(unused) gives a list of str.",
              .convert_node = convert_text,
              .release = release_with_records,
              .fields = {}},
    record_list(ListId::TQFileservTypeList, "TQFileservTypeList", g_fileserv_type_fields),
    record_list(ListId::TQFileservList, "TQFileservList", g_fileserv_file_fields),
    record_list(ListId::TQUserList, "TQUserList", g_user_fields),
    ListClass{.id = ListId::TQUserPubkeyList,
              .name = "TQUserPubkeyList",
              .doc = "A decoded list of a user's public keys; convert(unused) gives the key "
                     "lines as a list of str.",
              .convert_node = convert_text,
              .release = release_with_records,
              .fields = {}},
    record_list(ListId::TQHostTriggerList, "TQHostTriggerList", g_hosttrigger_fields),
    record_list(ListId::TQSysDiagZoneList, "TQSysDiagZoneList", g_sysdiag_zone_fields),
    record_list(ListId::TQSysDiagZoneValueList, "TQSysDiagZoneValueList", g_sysdiag_zone_value_fields),
    record_list(ListId::TQSysDiagLogEntryList, "TQSysDiagLogEntryList", g_sysdiag_log_fields),
    record_list(ListId::TQSysDiagMallocUsageEntryList, "TQSysDiagMallocUsageEntryList",
                g_sysdiag_malloc_fields),
};

// The class whose operations objects of `type` use: type itself or the
// nearest of its bases that is one of ours (scripts may subclass).
const ListClass &class_of_type(PyTypeObject *type) {
  for (PyTypeObject *t = type; t; t = t->tp_base)
    for (const ListClass &c : g_classes)
      if (&c.type == t) return c;
  raise_text(PyExc_TypeError, "not a result list class");
}

// Builds a C list of the integers of an iterable, in order.
tq_list_t *int_list_from(PyObject *iterable) {
  auto seq = OwnedRef::check(PySequence_Fast(iterable, "TQIntList() takes an iterable of int"));
  struct Nodes {
    tq_list_t *head = nullptr;
    ~Nodes() { tq_list_free(head); }
  } nodes;
  // Prepending from the back keeps the order and costs one step per value.
  for (Py_ssize_t i = PySequence_Fast_GET_SIZE(seq.get()); i-- > 0;) {
    const long long v = compat::int_as_ll(PySequence_Fast_GET_ITEM(seq.get(), i));
    if (v == -1 && PyErr_Occurred()) throw_python_error();
    if (v < INTPTR_MIN || v > INTPTR_MAX) raise_text(PyExc_OverflowError, "int too large");
    tq_list_t *n = tq_list_new(0, nodes.head, reinterpret_cast<void *>(static_cast<intptr_t>(v)));
    if (!n) throw std::bad_alloc();
    nodes.head = n;
  }
  return std::exchange(nodes.head, nullptr);
}

OwnedRef result_list_new(PyTypeObject *type, PyObject *args, PyObject *kwds) {
  const ListClass &cls = class_of_type(type);
  tq_list_t *initial = nullptr;
  if (&cls == &list_class(ListId::TQIntList)) {
    static const char *const names[] = {"values", nullptr};
    PyObject *a[1]{};
    parse_args(args, kwds, cls.name, names, 0, a);
    if (a[0] && a[0] != Py_None) initial = int_list_from(a[0]);
  } else {
    static const char *const names[] = {nullptr};
    parse_args(args, kwds, cls.name, names, 0, {});
  }
  auto obj = OwnedRef::steal(type->tp_alloc(type, 0));
  if (!obj) {
    cls.release(initial);
    throw_python_error();
  }
  as_result_list(obj.get())->cls = &cls;
  as_result_list(obj.get())->list = initial;
  as_result_list(obj.get())->tail = nullptr;
  return obj;
}

void result_list_dealloc(PyObject *self) {
  ResultListObject *l = as_result_list(self);
  if (l->list) l->cls->release(l->list);
  l->list = nullptr;
  Py_TYPE(self)->tp_free(self);
}

OwnedRef result_list_convert(ResultListObject *self, PyObject *args, PyObject *kwds) {
  static const char *const names[] = {"unused", nullptr};
  PyObject *a[1]{};
  parse_args(args, kwds, "convert", names, 1, a);
  auto out = OwnedRef::check(PyList_New(0));
  // The outermost convert() keeps the text cache; conversions of nested
  // lists (object items) share it.
  std::optional<TextCache> cache;
  if (g_text_cache == nullptr) cache.emplace();
  TextCache *const outer = g_text_cache;
  g_text_cache = outer != nullptr ? outer : &*cache;
  struct Restore {
    TextCache *outer;
    ~Restore() { g_text_cache = outer; }
  } restore{outer};
  if (self->cls->convert_all) return self->cls->convert_all(*self->cls, self->list);
  for (const tq_list_t *node = self->list; node; node = node->next) {
    OwnedRef value = self->cls->convert_node(*self->cls, node);
    check_status(PyList_Append(out.get(), value.get()));
  }
  return out;
}

PyMethodDef g_result_list_methods[] = {
    TQ_METHOD("TQDBv17_1.ResultList.convert", "convert", ResultListObject, result_list_convert,
              "convert(unused) -> a new list with one Python value per record, in order."),
    TQ_METHOD_END,
};

// --- module functions -------------------------------------------------------------------------

OwnedRef fn_intlisttopython(PyObject *args, PyObject *kwds) {
  static const char *const names[] = {"l", nullptr};
  PyObject *a[1]{};
  parse_args(args, kwds, "intlisttopython", names, 1, a);
  check_arg_type(a[0], &list_class(ListId::TQIntList).type, "l", false);
  return intlisttopython(as_result_list(a[0])->list);
}

uint32_t address_word(PyObject *o) {
  const long long v = compat::int_as_ll(o);
  if (v == -1 && PyErr_Occurred()) throw_python_error();
  if (v < 0 || v > UINT32_MAX) raise_text(PyExc_OverflowError, "address word out of range");
  return static_cast<uint32_t>(v);
}

OwnedRef fn_ipv4tostr(PyObject *args, PyObject *kwds) {
  static const char *const names[] = {"addr", nullptr};
  PyObject *a[1]{};
  parse_args(args, kwds, "ipv4tostr", names, 1, a);
  return text(ipv4_text(address_word(a[0])));
}

OwnedRef fn_ipv6tostr(PyObject *args, PyObject *kwds) {
  static const char *const names[] = {"words", nullptr};
  PyObject *a[1]{};
  parse_args(args, kwds, "ipv6tostr", names, 1, a);
  auto seq = OwnedRef::check(PySequence_Fast(a[0], "ipv6tostr() takes four words"));
  if (PySequence_Fast_GET_SIZE(seq.get()) != 4)
    raise_text(PyExc_ValueError, "ipv6tostr() takes four words");
  uint32_t words[4];
  for (Py_ssize_t i = 0; i < 4; ++i)
    words[i] = address_word(PySequence_Fast_GET_ITEM(seq.get(), i));
  return text(ipv6_text(words));
}

}  // namespace

PyMethodDef g_result_list_functions[] = {
    TQ_FUNCTION("TQDBv17_1.intlisttopython", "intlisttopython", fn_intlisttopython,
                "intlisttopython(l) -> the integers of a TQIntList as a list of int."),
    TQ_FUNCTION("TQDBv17_1.ipv4tostr", "ipv4tostr", fn_ipv4tostr,
                "ipv4tostr(addr) -> 'a.b.c.d' for an address as a 32-bit integer."),
    TQ_FUNCTION("TQDBv17_1.ipv6tostr", "ipv6tostr", fn_ipv6tostr,
                "ipv6tostr(words) -> eight hex groups for four 32-bit words, without '::'."),
    TQ_FUNCTION("TQDBv17_1.setup_item", "setup_item", fn_setup_item,
                "setup_item(type, item) -> the item dict as an object of that type keeps it "
                "(the record object_item_add and object_item_update send)."),
    TQ_METHOD_END,
};

std::string ipv4_text(uint32_t addr) {
  std::array<char, 32> buf{};
  std::snprintf(buf.data(), buf.size(), "%u.%u.%u.%u", (addr >> 24) & 0xFFu, (addr >> 16) & 0xFFu,
                (addr >> 8) & 0xFFu, addr & 0xFFu);
  return buf.data();
}

std::string ipv6_text(const uint32_t (&w)[4]) {
  std::array<char, 42> buf{};
  std::snprintf(buf.data(), buf.size(), "%x:%x:%x:%x:%x:%x:%x:%x", w[0] >> 16, w[0] & 0xFFFFu,
                w[1] >> 16, w[1] & 0xFFFFu, w[2] >> 16, w[2] & 0xFFFFu, w[3] >> 16,
                w[3] & 0xFFFFu);
  return buf.data();
}

OwnedRef intlisttopython(const tq_list_t *list) {
  auto out = OwnedRef::check(PyList_New(0));
  for (const tq_list_t *node = list; node; node = node->next) {
    OwnedRef v = int_i64(static_cast<long long>(reinterpret_cast<intptr_t>(node->data)));
    check_status(PyList_Append(out.get(), v.get()));
  }
  return out;
}

ListClass &list_class(ListId id) { return g_classes[static_cast<size_t>(id)]; }

void list_types_fill() {
  PyTypeObject *base = &list_class(ListId::ResultList).type;
  for (size_t i = 0; i < g_classes.size(); ++i)
    if (static_cast<size_t>(g_classes[i].id) != i)
      raise(PyExc_SystemError, "list class %s out of order", g_classes[i].name);
  for (ListClass &c : g_classes) {
    if (c.qualname.empty()) c.qualname = std::string(kModuleName) + "." + c.name;
    const bool is_base = &c.type == base;
    type_fill(
        c.type,
        TypeDesc{.name = c.qualname.c_str(),
                 .doc = c.doc,
                 .basicsize = sizeof(ResultListObject),
                 .base = is_base ? nullptr : base,
                 .subclassable = true,
                 .tp_new = is_base
                               ? new_entry<TQ_SITE("TQDBv17_1.ResultList.__new__"), result_list_new>
                               : nullptr,
                 .tp_dealloc = is_base ? result_list_dealloc : nullptr,
                 .methods = is_base ? g_result_list_methods : nullptr});
    if (c.keys.size() != c.fields.size()) {
      c.keys.clear();
      for (const Field &f : c.fields) {
        PyObject *key = compat::text_intern(f.key);
        if (!key) throw_python_error();
        c.keys.push_back(key);
      }
    }
  }
}

OwnedRef list_arg(PyObject *l, ListId id) {
  ListClass &cls = list_class(id);
  if (l && l != Py_None) {
    check_arg_type(l, &cls.type, "l", true);
    return OwnedRef::incref(l);
  }
  auto empty = OwnedRef::check(PyTuple_New(0));
  return OwnedRef::check(cls.type.tp_new(&cls.type, empty.get(), nullptr));
}

}  // namespace tqpy
