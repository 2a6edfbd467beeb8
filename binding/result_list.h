// Result lists: decoded C lists handed to scripts unconverted.
//
// A reply decoder fills a C linked list (tq_list_t) with records; the
// scripting object that receives it owns the list and every record in it,
// and turns it into Python values only when the script calls convert().
// A script can decode several replies into one list object and convert once.
//
// Every list class is a row of one table (ListClass): its name, how a node
// becomes a Python value (convert_node), how the list is released, and for
// record lists the record's fields as rows (key, offset, kind). A family
// adds a list class by adding a field table and a row, not a function.
//
//   ResultListObject ---> ListClass (class's operations: convert_node first)
//        | list
//        v
//   tq_list_t -> tq_list_t -> ... -> nullptr      (data: record / text / int)
#ifndef TQ_BINDING_RESULT_LIST_H
#define TQ_BINDING_RESULT_LIST_H

#include "py_entry.h"

#include <cstddef>
#include <cstdint>
#include <span>
#include <string>
#include <vector>

#include "tq_list.h"

namespace tqpy {

// How one field of a C record becomes a Python value.
enum class FieldKind {
  Text,     // char[size], up to the first NUL -> str
  Flag,     // u8 -> bool (any nonzero byte is True)
  U8,       // -> int
  U16,      // -> int
  I32,      // -> int
  U32,      // -> int (long where needed)
  U64,      // -> int (long)
  IPv4,     // u32 in host order -> "a.b.c.d"
  IPv6,     // u32[4] in host order -> eight groups of hex, no "::"
  IntList,  // tq_list_t * of integers -> [int, ...]
  FlagBit,  // u8 & mask -> bool
  U8Array,  // u8[size] -> [int, ...]
  Items,    // tq_list_t * of object item records -> [dict, ...] (by the item layout table)
  Limits,   // tq_list_t * of shaping limits -> [6-tuple, ...]
  CondItems,      // tq_list_t * of rule condition items -> [Item, ...]
  Distributions,  // tq_list_t * of live view distributions -> [Distribution, ...]
  Filters,        // tq_list_t * of live view filters -> [Filter, ...], values as [str, ...]
  TextPtr,        // char * (nullptr: "") -> str
  U64s,           // uint64_t *, u8 count at count_at -> [int, ...]
  F64s,           // double *, u8 count at count_at -> [float, ...]
  OidPair,        // u32 here and u32 at count_at -> "A.B" in decimal
  Records,        // records of `stride` bytes at a pointer, u32 count at count_at ->
                  // [dict, ...] by the `nested` field table
};

struct Field {
  const char *key;  // dict key
  size_t offset;    // offsetof in the record
  FieldKind kind;
  size_t size;      // sizeof the member (bounds Text)
  uint32_t mask = 0;  // FlagBit: the bit
  size_t count_at = 0;  // U64s, F64s, Records: offsetof the count; OidPair: of the second u32
  std::span<const Field> nested{};  // Records: the field table of one record
  size_t stride = 0;                // Records: the size of one record
};

#define TQ_FIELD(Record, member, kind, key) \
  ::tqpy::Field { key, offsetof(Record, member), ::tqpy::FieldKind::kind, sizeof(Record::member) }
#define TQ_ARRAY_FIELD(Record, member, kind, count, key)                                 \
  ::tqpy::Field {                                                                      \
    key, offsetof(Record, member), ::tqpy::FieldKind::kind, sizeof(Record::member), 0, \
        offsetof(Record, count)                                                        \
  }
#define TQ_FLAG_BIT(Record, member, bit, key)                                      \
  ::tqpy::Field {                                                                \
    key, offsetof(Record, member), ::tqpy::FieldKind::FlagBit, sizeof(Record::member), bit \
  }

// An identifier of two u32 members shown as one "A.B" text.
#define TQ_OID_FIELD(Record, first, second, key)                                          \
  ::tqpy::Field {                                                                          \
    key, offsetof(Record, first), ::tqpy::FieldKind::OidPair, sizeof(Record::first), 0,    \
        offsetof(Record, second)                                                           \
  }
// An array of nested records (member: a pointer to them, count: their number).
#define TQ_RECORDS_FIELD(Record, member, count, Nested, nested_fields, key)               \
  ::tqpy::Field {                                                                          \
    key, offsetof(Record, member), ::tqpy::FieldKind::Records, sizeof(Record::member), 0,  \
        offsetof(Record, count), nested_fields, sizeof(Nested)                             \
  }

struct ListClass;
// The value of one node; throws with a Python error set on failure.
using ConvertNode = OwnedRef (*)(const ListClass &cls, const tq_list_t *node);
using ReleaseList = void (*)(tq_list_t *list);
// The whole list's value, for classes whose list is not one value per node.
using ConvertAll = OwnedRef (*)(const ListClass &cls, const tq_list_t *list);

enum class ListId;

struct ListClass {
  ListId id;
  const char *name;  // short name, also the module attribute
  const char *doc;
  ConvertNode convert_node;
  ReleaseList release;
  std::span<const Field> fields;  // record lists only
  ConvertAll convert_all = nullptr;  // when set, convert() is this
  // Filled at module initialisation:
  PyTypeObject type{};
  std::string qualname{};        // "TQDBv17_1.<name>"
  std::vector<PyObject *> keys{};  // interned dict keys, one per field, kept for the process
};

struct ResultListObject {
  PyObject_HEAD
  const ListClass *cls;  // the class's operations
  tq_list_t *list;       // owned, with its records; nullptr when empty
  // The last node of list, kept by the decoders that append so that an
  // answer of many replies is decoded in one pass; nullptr when not known.
  tq_list_t *tail;
};

// The list classes, by the names the module exports.
enum class ListId {
  TQResList,
  LevelList,
  TQObjList,
  TQShapingObjList,
  TQStatisticsObjList,
  TQIpfixObjList,
  TQDynamicLiveViewList,
  TQRuleConditionList,
  TQIntList,
  TQFwList,
  TQMonitorIfaceList,
  TQShapingList,
  TQStatisticsList,
  TQGraphList,
  TQConnlogList,
  TQServicesList,
  TQConfigList,
  TQConfigCategoryList,
  TQConfigFlagList,
  TQBackupList,
  TQConnprotTriggerList,
  TQSystemOverviewSystemList,
  TQSystemOverviewTemplateList,
  TQSystemOverviewSystemGraph,
  TQLogFacilityList,
  TQChannelList,
  TQChannelLabelList,
  TQStatreaderList,
  TQSubscribercountList,
  TQSubscribercountGraph,
  TQStatreaderDurationList,
  TQSubitemcountList,
  TQStatreaderNamesList,
  ResultList,
  TQStringList,
  TQFileservTypeList,
  TQFileservList,
  TQUserList,
  TQUserPubkeyList,
  TQHostTriggerList,
  TQSysDiagZoneList,
  TQSysDiagZoneValueList,
  TQSysDiagLogEntryList,
  TQSysDiagMallocUsageEntryList,
};

ListClass &list_class(ListId id);
// Fills the list classes' type objects and interns their keys.
void list_types_fill();

// The list object a decoder appends to: `l` itself when it is an instance of
// the class (TypeError "Argument 'l' ..." otherwise), a new empty one when l
// is None or not given.
OwnedRef list_arg(PyObject *l, ListId id);
inline ResultListObject *as_result_list(PyObject *o) {
  return reinterpret_cast<ResultListObject *>(o);
}

// The str of a record's text field of at most max bytes. While a convert()
// runs, short texts seen again (audit names and dates, empty values) are
// the same str object instead of a new one each time: a large list repeats
// them on every record.
OwnedRef record_text(const char *s, size_t max);
// A dict with one key per field (the keys interned, so lookups are cheap).
inline OwnedRef record_dict(size_t fields) {
  return OwnedRef::check(compat::dict_presized(static_cast<Py_ssize_t>(fields)));
}
// The dict of a record that is not a class's own (nested records), by the
// field table given.
OwnedRef record_to_dict(std::span<const Field> fields, const void *record);

// Conversions shared by the list classes.
std::string ipv4_text(uint32_t addr);
std::string ipv6_text(const uint32_t (&words)[4]);
OwnedRef intlisttopython(const tq_list_t *list);

// Module-level functions: intlisttopython(l), ipv4tostr(addr), ipv6tostr(words).
extern PyMethodDef g_result_list_functions[];

}  // namespace tqpy

#endif
