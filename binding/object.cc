// Objects and their items: the rows of the family, the TQObjList fields,
// and items between dicts and records through the shared layout table.
#include "rows.h"

#include <array>
#include <cstring>
#include <vector>

namespace tqpy {

namespace {

// The header keys every item dict starts with.
struct HeaderKey {
  const char *key;
  size_t offset;
  size_t size;
};
#define TQ_ITEM_AUDIT(member)                                                              \
  HeaderKey {                                                                              \
    #member, offsetof(tqdb_api_object_item_t, audit) + offsetof(tqdb_api_audit_t, member), \
        sizeof(tqdb_api_audit_t::member)                                                   \
  }
constexpr HeaderKey kItemAudit[] = {TQ_ITEM_AUDIT(creator), TQ_ITEM_AUDIT(creation_date),
                                    TQ_ITEM_AUDIT(modified_by), TQ_ITEM_AUDIT(modification_date)};

const tqdb_api_item_layout_t &layout_of(long long type) {
  const tqdb_api_item_layout_t *layout =
      type < 0 || type > UINT32_MAX ? nullptr
                                    : tqdb_api_object_item_layout(static_cast<uint32_t>(type));
  if (!layout) raise_text(PyExc_RuntimeError, "Unknown object item type");
  return *layout;
}

// The keys of an item dict of each object type, interned once and kept for
// the process: "id", the audit keys, then the layout's keys.
const std::vector<PyObject *> &item_keys(const tqdb_api_item_layout_t &layout, uint32_t type) {
  static std::array<std::vector<PyObject *>, TQDB_OBJECT_TYPE_COUNT> cache;
  std::vector<PyObject *> &keys = cache[type];
  if (keys.empty()) {
    const auto intern = [&keys](const char *k) {
      PyObject *key = compat::text_intern(k);
      if (!key) throw_python_error();
      keys.push_back(key);
    };
    intern("id");
    for (const HeaderKey &h : kItemAudit) intern(h.key);
    for (const tqdb_api_item_field_t &f : layout.fields) intern(f.key);
  }
  return keys;
}

void set_key(PyObject *dict, PyObject *key, OwnedRef value) {
  check_status(PyDict_SetItem(dict, key, value.get()));
}

}  // namespace

ItemPtr item_from_dict(long long type, PyObject *dict) {
  const tqdb_api_item_layout_t &layout = layout_of(type);
  ItemPtr item(tqdb_api_object_item_new(static_cast<uint32_t>(type), "pythonapi"));
  if (!item) raise_text(PyExc_RuntimeError, "Unknown object item type");
  auto *record = reinterpret_cast<std::byte *>(item.get());
  for (const tqdb_api_item_field_t &f : layout.fields) {
    // KeyError for a missing key, TypeError for a wrong kind: the ordinary errors.
    auto key = OwnedRef::check(
        compat::text_from_bytes(f.key, static_cast<Py_ssize_t>(std::strlen(f.key))));
    auto value = OwnedRef::check(PyObject_GetItem(dict, key.get()));
    std::byte *p = record + f.offset;
    if (f.wire == tqdb_api_wire::Text) {
      const TextArg t(value.get(), f.key);
      std::memcpy(p, t.c_str(), std::min<size_t>(t.view().size(), f.size - 1u));
      continue;
    }
    uint32_t v;
    if (std::strcmp(f.key, "exclude") == 0) {
      const int truth = PyObject_IsTrue(value.get());
      check_status(truth);
      v = static_cast<uint32_t>(truth);
    } else {
      v = arg_u32(value.get());
    }
    const auto store = [p](auto x) { std::memcpy(p, &x, sizeof x); };
    switch (f.wire) {
      case tqdb_api_wire::U8: store(static_cast<uint8_t>(v)); break;
      case tqdb_api_wire::U8AsU32: store(static_cast<uint32_t>(static_cast<uint8_t>(v))); break;
      case tqdb_api_wire::U16: store(static_cast<uint16_t>(v)); break;
      case tqdb_api_wire::U32: store(v); break;
      case tqdb_api_wire::U64: store(uint64_t{v}); break;
      case tqdb_api_wire::Text: break;
    }
  }
  return item;
}

OwnedRef item_to_dict(const tqdb_api_object_item_t *item) {
  const tqdb_api_item_layout_t &layout = layout_of(item->type);
  const auto *record = reinterpret_cast<const std::byte *>(item);
  const std::vector<PyObject *> &keys = item_keys(layout, item->type);
  OwnedRef dict = record_dict(keys.size());
  PyObject *const *key = keys.data();
  set_key(dict.get(), *key++, int_u64(item->id));
  for (const HeaderKey &h : kItemAudit)
    set_key(dict.get(), *key++,
            record_text(reinterpret_cast<const char *>(record + h.offset), h.size));
  for (const tqdb_api_item_field_t &f : layout.fields) {
    const std::byte *p = record + f.offset;
    const auto load = [p](auto x) {
      std::memcpy(&x, p, sizeof x);
      return x;
    };
    OwnedRef value;
    switch (f.wire) {
      case tqdb_api_wire::U8: value = int_u64(load(uint8_t{})); break;
      case tqdb_api_wire::U8AsU32:
      case tqdb_api_wire::U32: value = int_u64(load(uint32_t{})); break;
      case tqdb_api_wire::U16: value = int_u64(load(uint16_t{})); break;
      case tqdb_api_wire::U64: value = int_u64(load(uint64_t{})); break;
      case tqdb_api_wire::Text:
        value = record_text(reinterpret_cast<const char *>(p), f.size);
        break;
    }
    set_key(dict.get(), *key++, std::move(value));
  }
  return dict;
}

OwnedRef fn_setup_item(PyObject *args, PyObject *kwds) {
  static const char *const names[] = {"type", "item", nullptr};
  PyObject *a[2]{};
  parse_args(args, kwds, "setup_item", names, 2, a);
  const ItemPtr item = item_from_dict(arg_as_int(a[0]), a[1]);
  return item_to_dict(item.get());
}

namespace {

using Obj = tqdb_api_object_t;
constexpr Field kObjectFields[] = {
    TQ_FIELD(Obj, id, U32, "id"),
    TQ_FIELD(Obj, name, Text, "name"),
    TQ_FIELD(Obj, parent, U32, "parent"),
    TQ_FIELD(Obj, visible, Flag, "visible"),
    TQ_AUDIT_FIELDS(Obj),
    TQ_FIELD(Obj, referenced, U32, "referenced"),
    TQ_FIELD(Obj, items, Items, "items"),
};

constexpr auto kType = arg("type", Conv::Int, 0);
constexpr auto kId = arg("id", Conv::Int, 1);

const PyMethodDef kRows[] = {
    TQ_REQUEST("object_list", &tqdb_api_object_list, "object_list(type) -> correlation id.", kType),
    TQ_DECODE("object_list_handle",
              "object_list_handle(msg, l=None) -> l (a new TQObjList when None) with the "
              "reply's objects appended.",
              append_list_body, ListId::TQObjList, &tqdb_api_object_list_handle),
    TQ_REQUEST("object_add", &tqdb_api_object_add,
               "object_add(type, name, parent) -> correlation id.", kType,
               arg("name", Conv::Text, 1), arg("parent", Conv::Int, 2)),
    TQ_DECODE("object_add_handle", "object_add_handle(msg) -> (new id, timestamp).", add_body,
              &tqdb_api_ruleset_add_handle),
    TQ_REQUEST("object_rename", &tqdb_api_object_rename,
               "object_rename(type, id, name) -> correlation id.", kType, kId,
               arg("name", Conv::Text, 2)),
    TQ_DECODE("object_rename_handle", "object_rename_handle(msg) -> timestamp or None.",
              timestamp_body, &tqdb_api_object_timestamp_handle),
    TQ_REQUEST("object_move", &tqdb_api_object_move,
               "object_move(type, id, newparent) -> correlation id.", kType, kId,
               arg("newparent", Conv::Int, 2)),
    TQ_DECODE("object_move_handle", "object_move_handle(msg) -> timestamp or None.", timestamp_body,
              &tqdb_api_object_timestamp_handle),
    TQ_REQUEST("object_remove", &tqdb_api_object_remove,
               "object_remove(type, id) -> correlation id.", kType, kId),
    TQ_DECODE("object_remove_handle", "object_remove_handle(msg) -> timestamp or None.",
              timestamp_body, &tqdb_api_object_timestamp_handle),
    TQ_REQUEST("object_unlink", &tqdb_api_object_unlink,
               "object_unlink(type, id) -> correlation id.", kType, kId),
    TQ_REQUEST("object_set_visible", &tqdb_api_object_set_visible,
               "object_set_visible(type, id, visible) -> correlation id; sends the truth of "
               "visible.",
               kType, kId, arg("visible", Conv::Truth, 2)),
    TQ_REQUEST("object_item_add", &tqdb_api_object_item_add,
               "object_item_add(type, objid, item) -> correlation id; item is a dict.", kType,
               arg("objid", Conv::Int, 1), item_arg("item", 0, 2)),
    TQ_DECODE("object_item_add_handle", "object_item_add_handle(msg) -> (new id, timestamp).",
              add_body, &tqdb_api_ruleset_add_handle),
    TQ_REQUEST("object_item_update", &tqdb_api_object_item_update,
               "object_item_update(type, id, item) -> correlation id; item is a dict.", kType, kId,
               item_arg("item", 0, 2)),
    TQ_DECODE("object_item_update_handle", "object_item_update_handle(msg) -> timestamp or None.",
              timestamp_body, &tqdb_api_object_timestamp_handle),
    // The object's id is accepted for symmetry; the item id alone names the item.
    TQ_REQUEST("object_item_remove", &tqdb_api_object_item_remove,
               "object_item_remove(type, id, itemid) -> correlation id; id is not sent.", kType,
               arg("id", Conv::Ignored, -1), arg("itemid", Conv::Int, 1)),
    TQ_DECODE("object_item_remove_handle", "object_item_remove_handle(msg) -> timestamp or None.",
              timestamp_body, &tqdb_api_object_timestamp_handle),
    TQ_REQUEST("object_attr_set", &tqdb_api_object_attr_set,
               "object_attr_set(type, id, key, value) -> correlation id.", kType, kId,
               arg("key", Conv::Text, 2), arg("value", Conv::Text, 3)),
    TQ_REQUEST("object_attr_remove", &tqdb_api_object_attr_remove,
               "object_attr_remove(type, id, key) -> correlation id.", kType, kId,
               arg("key", Conv::Text, 2)),
    TQ_REQUEST("object_attr_list", &tqdb_api_object_attr_list,
               "object_attr_list(type, id) -> correlation id.", kType, kId),
    TQ_DECODE("object_attr_list_handle", "object_attr_list_handle(msg) -> [(key, value), ...].",
              attrs_body, &_tqdb_api_ruleset_attr_list_handle),
};

}  // namespace

const std::span<const PyMethodDef> g_object_rows{kRows};
const std::span<const Field> g_object_fields{kObjectFields};

}  // namespace tqpy
