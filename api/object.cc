// Objects of the nineteen types, their items and attributes.
//
// Items are described by one table, a layout per object type: the reader,
// the writer and the scripting conversions all walk it, so an item type is
// a row of that table and nothing else.
#include <algorithm>
#include <array>
#include <cstring>

#include "reply_reader.h"
#include "ruleset_rows.h"
#include "tq_list.h"
#include "tq_malloc.h"
#include "tq_msg.h"
#include "tqdb_api.h"
#include "tqdb_api_ruleset.h"

namespace {

// --- the item layouts -------------------------------------------------------------------

#define ITEM(n, m, wire) TQ_ROW(tqdb_api_##n##_item_t, m, wire)

// Each in wire order. An item's u8 `type` is held as a u32 in the record.
constexpr tqdb_api_item_field_t kNet[]{ITEM(netobject, type, U8AsU32),
                                       ITEM(netobject, value1, Text),
                                       ITEM(netobject, value2, Text),
                                       ITEM(netobject, exclude, U8)};
constexpr tqdb_api_item_field_t kPort[]{ITEM(portobject, type, U8AsU32),
                                        ITEM(portobject, value1, U16),
                                        ITEM(portobject, value2, U16),
                                        ITEM(portobject, exclude, U8)};
constexpr tqdb_api_item_field_t kService[]{ITEM(serviceobject, value, Text)};
constexpr tqdb_api_item_field_t kVlan[]{ITEM(vlanobject, type, U8AsU32),
                                        ITEM(vlanobject, value1, U16),
                                        ITEM(vlanobject, value2, U16),
                                        ITEM(vlanobject, exclude, U8)};
constexpr tqdb_api_item_field_t kProtocol[]{ITEM(protocolobject, protocol, U8)};
constexpr tqdb_api_item_field_t kTime[]{ITEM(timeobject, type, U8AsU32),
                                        ITEM(timeobject, value1, U32),
                                        ITEM(timeobject, value2, U32),
                                        ITEM(timeobject, days, U16),
                                        ITEM(timeobject, exclude, U8)};
constexpr tqdb_api_item_field_t kBgp[]{ITEM(bgpobject, type, U8AsU32),
                                       ITEM(bgpobject, asnumber, U32),
                                       ITEM(bgpobject, value1, U32)};
constexpr tqdb_api_item_field_t kSystem[]{ITEM(systemobject, value, Text)};
constexpr tqdb_api_item_field_t kProperty[]{ITEM(propertyobject, property, Text),
                                            ITEM(propertyobject, value, Text)};
// The record keeps direction first, but the field travels first.
constexpr tqdb_api_item_field_t kRewrite[]{ITEM(rewriteobject, field, U32),
                                           ITEM(rewriteobject, direction, U8),
                                           ITEM(rewriteobject, value, Text)};
constexpr tqdb_api_item_field_t kFlag[]{ITEM(xfbobject, value, Text),
                                        ITEM(xfbobject, exclude, U8)};
constexpr tqdb_api_item_field_t kMpls[]{ITEM(mplsobject, type, U8AsU32),
                                        ITEM(mplsobject, value1, U32),
                                        ITEM(mplsobject, value2, U32),
                                        ITEM(mplsobject, exclude, U8)};
constexpr tqdb_api_item_field_t kDscp[]{ITEM(dscpobject, type, U8AsU32),
                                        ITEM(dscpobject, value1, U8),
                                        ITEM(dscpobject, value2, U8),
                                        ITEM(dscpobject, exclude, U8)};
constexpr tqdb_api_item_field_t kChannel[]{ITEM(channelobject, type, U8AsU32),
                                           ITEM(channelobject, value, U32),
                                           ITEM(channelobject, exclude, U8)};
constexpr tqdb_api_item_field_t kTunnelLvl[]{ITEM(tunnellvlobject, value, U8)};
constexpr tqdb_api_item_field_t kTunnelType[]{ITEM(tunneltypeobject, value, U8)};
constexpr tqdb_api_item_field_t kSorvik[]{ITEM(sorvikobject, value, Text),
                                          ITEM(sorvikobject, exclude, U8)};
constexpr tqdb_api_item_field_t kEnrich[]{
    ITEM(enrichobject, netobject, U32), ITEM(enrichobject, keytype, U8),
    ITEM(enrichobject, key, Text),      ITEM(enrichobject, valuetype, U8),
    ITEM(enrichobject, value, Text),    ITEM(enrichobject, spoof, U8),
    ITEM(enrichobject, miss, U8),       ITEM(enrichobject, defaultvalue, Text)};
constexpr tqdb_api_item_field_t kSessionContext[]{ITEM(sessioncontextobject, schemaname, Text),
                                                  ITEM(sessioncontextobject, columnname, Text),
                                                  ITEM(sessioncontextobject, value, Text),
                                                  ITEM(sessioncontextobject, matchtype, U8)};
#undef ITEM

#define LAYOUT(n, rows) \
  tqdb_api_item_layout_t { "tqdb_api_" #n "_item_t", sizeof(tqdb_api_##n##_item_t), rows }

// Indexed by OBJECT_TYPE_*.
constexpr std::array<tqdb_api_item_layout_t, TQDB_OBJECT_TYPE_COUNT> kLayouts{{
    LAYOUT(netobject, kNet),
    LAYOUT(portobject, kPort),
    LAYOUT(serviceobject, kService),
    LAYOUT(vlanobject, kVlan),
    LAYOUT(protocolobject, kProtocol),
    LAYOUT(timeobject, kTime),
    LAYOUT(bgpobject, kBgp),
    LAYOUT(systemobject, kSystem),
    LAYOUT(propertyobject, kProperty),
    LAYOUT(rewriteobject, kRewrite),
    LAYOUT(xfbobject, kFlag),
    LAYOUT(mplsobject, kMpls),
    LAYOUT(dscpobject, kDscp),
    LAYOUT(channelobject, kChannel),
    LAYOUT(tunnellvlobject, kTunnelLvl),
    LAYOUT(tunneltypeobject, kTunnelType),
    LAYOUT(sorvikobject, kSorvik),
    LAYOUT(enrichobject, kEnrich),
    LAYOUT(sessioncontextobject, kSessionContext),
}};
#undef LAYOUT

// The type-specific fields lie behind the common header, inside the record.
static_assert(std::ranges::all_of(kLayouts, [](const tqdb_api_item_layout_t &l) {
  return tq::rows_fit(l.size, l.fields) &&
         std::ranges::all_of(l.fields, [](const tqdb_api_item_field_t &f) {
           return f.offset >= sizeof(tqdb_api_object_item_t);
         });
}));

// --- the object record and the copy answer ----------------------------------------------

using Object = tqdb_api_object_t;
// What precedes an object's attributes, in wire order.
constexpr tqdb_api_item_field_t kObject[]{
    TQ_ROW(Object, id, U32),      TQ_ROW(Object, name, Text),     TQ_ROW(Object, parent, U32),
    TQ_ROW(Object, referenced, U32), TQ_AUDIT_ROWS(Object),       TQ_ROW(Object, visible, U8),
    TQ_ROW(Object, extra, U32)};
static_assert(tq::rows_fit(sizeof(Object), kObject));

using CopyRes = tqdb_api_object_copy_res_t;
constexpr tqdb_api_item_field_t kCopyRes[]{TQ_ROW(CopyRes, status, U32),
                                           TQ_ROW(CopyRes, message, Text),
                                           TQ_ROW(CopyRes, flag, U8)};
static_assert(tq::rows_fit(sizeof(CopyRes), kCopyRes));

using Copy = tqdb_api_object_copy_t;
constexpr tqdb_api_item_field_t kCopyRows[]{TQ_ROW(Copy, source, U32), TQ_ROW(Copy, id, U32),
                                            TQ_ROW(Copy, parent, U32), TQ_ROW(Copy, type, U8)};
constexpr tqdb_api_item_layout_t kCopy{"tqdb_api_object_copy_t", sizeof(Copy), kCopyRows};
static_assert(tq::rows_fit(kCopy.size, kCopy.fields));

// --- reading --------------------------------------------------------------------------

constexpr uint8_t kTagObject = 0;
constexpr uint8_t kTagItem = 1;

tqdb_api_object_item_t *read_item(tq::ReplyReader &r) {
  const uint8_t code = r.u8();
  const uint32_t id = r.u32();
  tqdb_api_object_item_t *item = tqdb_api_object_item_new(code, nullptr);
  if (item == nullptr) return nullptr;
  item->id = id;
  tq::read_rows(r, kLayouts[code].fields, item);
  r.audit(item->audit);
  return item;
}

// Fills o, which is already on a list. The attributes go to the head of its
// list one by one: the last on the wire comes first.
void read_object(tq::ReplyReader &r, Object *o) {
  tq::read_rows(r, kObject, o);
  const uint32_t count = r.u32();
  for (uint32_t i = 0; i < count && r.ok(); ++i) {
    tqdb_api_ruleset_attr_t *a = tq::read_attr(r);
    if (a == nullptr || !tq::push_front(o->attributes, a)) break;
  }
}

void free_object(Object *o) {
  tq_list_free_with_data(o->items);
  tq_list_free_with_data(o->attributes);
  tq_free_flags(o);
}

// --- requests ---------------------------------------------------------------------------

uint32_t send_item(tqdb_api_handle_t *h, uint32_t code, uint32_t session, uint8_t type,
                   uint32_t id, const tqdb_api_object_item_t *item) {
  if (item == nullptr || tqdb_api_object_item_layout(type) == nullptr) return 0;
  return tqdb_api_request(h, code, session, [&](tq_msg_t *m) {
    tqdb_api_put(m, type);
    tqdb_api_put(m, id);
    tqdb_api_object_item_write(m, type, item);
  });
}

}  // namespace

// --- items ------------------------------------------------------------------------------

const tqdb_api_item_layout_t *tqdb_api_object_item_layout(uint32_t type) {
  return type < kLayouts.size() ? &kLayouts[type] : nullptr;
}

tqdb_api_object_item_t *tqdb_api_object_item_new(uint32_t type, const char *label) {
  const tqdb_api_item_layout_t *layout = tqdb_api_object_item_layout(type);
  if (layout == nullptr) return nullptr;
  auto *item = static_cast<tqdb_api_object_item_t *>(
      tq_zalloc(label != nullptr ? label : layout->label, layout->size));
  item->type = type;
  return item;
}

tqdb_api_object_item_t *tqdb_api_object_item_read(tqdb_api_msg_t *env) {
  tq::ReplyReader r(env, "tqdb_api_object_item_read");
  return read_item(r);
}

void tqdb_api_object_item_write(tq_msg_t *req, uint32_t type, const tqdb_api_object_item_t *item) {
  const tqdb_api_item_layout_t *layout = tqdb_api_object_item_layout(type);
  if (req == nullptr || item == nullptr || layout == nullptr) return;
  tq::write_rows(req, layout->fields, item);
}

// --- object requests --------------------------------------------------------------------

uint32_t tqdb_api_object_list(tqdb_api_handle_t *h, uint32_t session, uint8_t type) {
  return tqdb_api_send(h, TQDB_REQ_OBJECT_LIST, session, type, uint32_t{0}, uint8_t{1});
}

uint32_t tqdb_api_object_get(tqdb_api_handle_t *h, uint32_t session, uint8_t type, uint32_t id) {
  return tqdb_api_send(h, TQDB_REQ_OBJECT_LIST, session, type, id, uint8_t{0});
}

uint32_t tqdb_api_object_list_by_name(tqdb_api_handle_t *h, uint32_t session, uint8_t type,
                                      std::span<const char *const> names) {
  return tqdb_api_request(h, TQDB_REQ_OBJECT_LIST, session, [&](tq_msg_t *m) {
    tqdb_api_put(m, type);
    tqdb_api_put(m, uint32_t{0});
    tqdb_api_put(m, uint8_t{1});
    tqdb_api_put(m, static_cast<uint32_t>(names.size()));
    for (const char *name : names) tqdb_api_put(m, name);
  });
}

uint32_t tqdb_api_object_add(tqdb_api_handle_t *h, uint32_t session, uint8_t type,
                             const char *name, uint32_t parent) {
  return tqdb_api_send(h, TQDB_REQ_OBJECT_ADD, session, type, name, parent);
}

uint32_t tqdb_api_object_remove(tqdb_api_handle_t *h, uint32_t session, uint8_t type, uint32_t id) {
  return tqdb_api_send(h, TQDB_REQ_OBJECT_REMOVE, session, type, id);
}

uint32_t tqdb_api_object_rename(tqdb_api_handle_t *h, uint32_t session, uint8_t type, uint32_t id,
                                const char *name) {
  return tqdb_api_send(h, TQDB_REQ_OBJECT_RENAME, session, type, id, name);
}

uint32_t tqdb_api_object_set_visible(tqdb_api_handle_t *h, uint32_t session, uint8_t type,
                                     uint32_t id, uint8_t visible) {
  return tqdb_api_send(h, TQDB_REQ_OBJECT_SET_VISIBLE, session, type, id, visible);
}

uint32_t tqdb_api_object_move(tqdb_api_handle_t *h, uint32_t session, uint8_t type, uint32_t id,
                              uint32_t newparent) {
  return tqdb_api_send(h, TQDB_REQ_OBJECT_MOVE, session, type, id, newparent);
}

uint32_t tqdb_api_object_copy(tqdb_api_handle_t *h, uint32_t session, uint8_t type, uint32_t id,
                              uint32_t newparent) {
  return tqdb_api_send(h, TQDB_REQ_OBJECT_COPY, session, type, id, newparent);
}

uint32_t tqdb_api_object_unlink(tqdb_api_handle_t *h, uint32_t session, uint8_t type, uint32_t id) {
  return tqdb_api_send(h, TQDB_REQ_OBJECT_UNLINK, session, type, id);
}

uint32_t tqdb_api_object_comments_get(tqdb_api_handle_t *h, uint32_t session, uint8_t type,
                                      uint32_t id) {
  return tqdb_api_send(h, TQDB_REQ_OBJECT_COMMENTS_GET, session, type, id);
}

// The trailing word carries nothing yet: always 0.
uint32_t tqdb_api_object_comments_set(tqdb_api_handle_t *h, uint32_t session, uint8_t type,
                                      uint32_t id, const char *comments) {
  return tqdb_api_send(h, TQDB_REQ_OBJECT_COMMENTS_SET, session, type, id, comments, uint32_t{0});
}

uint32_t tqdb_api_object_attr_list(tqdb_api_handle_t *h, uint32_t session, uint8_t type,
                                   uint32_t id) {
  return tqdb_api_send(h, TQDB_REQ_OBJECT_ATTR_LIST, session, type, id);
}

uint32_t tqdb_api_object_attr_set(tqdb_api_handle_t *h, uint32_t session, uint8_t type,
                                  uint32_t id, const char *key, const char *value) {
  return tqdb_api_send(h, TQDB_REQ_OBJECT_ATTR_SET, session, type, id, key, value);
}

uint32_t tqdb_api_object_attr_remove(tqdb_api_handle_t *h, uint32_t session, uint8_t type,
                                     uint32_t id, const char *key) {
  return tqdb_api_send(h, TQDB_REQ_OBJECT_ATTR_REMOVE, session, type, id, key);
}

// Item edits need the type's layout: an item of an unknown type is not sent.
uint32_t tqdb_api_object_item_add(tqdb_api_handle_t *h, uint32_t session, uint8_t type,
                                  uint32_t objid, const tqdb_api_object_item_t *item) {
  return send_item(h, TQDB_REQ_OBJECT_ITEM_ADD, session, type, objid, item);
}

uint32_t tqdb_api_object_item_update(tqdb_api_handle_t *h, uint32_t session, uint8_t type,
                                     uint32_t itemid, const tqdb_api_object_item_t *item) {
  return send_item(h, TQDB_REQ_OBJECT_ITEM_UPDATE, session, type, itemid, item);
}

// Item ids are unique over the database: the object is not named.
uint32_t tqdb_api_object_item_remove(tqdb_api_handle_t *h, uint32_t session, uint8_t type,
                                     uint32_t itemid) {
  return tqdb_api_send(h, TQDB_REQ_OBJECT_ITEM_REMOVE, session, type, itemid);
}

uint32_t tqdb_api_object_11013(tqdb_api_handle_t *h, uint32_t session, uint8_t type, uint32_t a,
                               uint32_t b) {
  return tqdb_api_send(h, TQDB_REQ_OBJECT_11013, session, type, a, b);
}

uint32_t tqdb_api_object_11014(tqdb_api_handle_t *h, uint32_t session, uint8_t type, uint32_t a,
                               uint32_t b) {
  return tqdb_api_send(h, TQDB_REQ_OBJECT_11014, session, type, a, b);
}

// --- the object list ----------------------------------------------------------------------

// A tagged stream: 0 starts an object, 1 is an item of the current object,
// anything else is passed over. An answer may break between an object and
// its items, so items that open a reply belong to the last object of the
// list so far. Objects and items keep wire order: each is gathered at the
// head of a pending list, turned around once and appended.
//
// Decoding stops at the first short field (the rest of the body cannot be
// placed) or at an item of an unknown type (its length is unknown); what was
// read is kept.
tq_list_t *tqdb_api_object_list_handle(tqdb_api_msg_t *env, tq_list_t *list) {
  if (tqdb_api_msg_get_type(env) != TQDB_API_MSG_TYPE_DATA) return list;
  tq::ReplyReader r(env, "tqdb_api_object_list_handle");
  tq::ReplyReader items(env, "tqdb_api_object_item_read");
  tq_list_t *objects = nullptr;  // this reply's, newest first
  tq_list_t *pending = nullptr;  // items of current, newest first
  Object *current = nullptr;
  const auto settle = [&] {
    if (current != nullptr) current->items = tq_list_concat(current->items, tq_list_reverse(pending));
    pending = nullptr;
  };

  bool more = true;
  while (more && r.ok() && items.ok() && r.left() > 0) {
    switch (r.u8()) {
      case kTagObject: {
        settle();
        auto *o = tq_new_record<Object>("tqdb_api_object_t");
        if (!tq::push_front(objects, o)) {
          more = false;
          break;
        }
        read_object(r, o);
        current = o;
        break;
      }
      case kTagItem: {
        if (current == nullptr) {
          tq_list_t *last = tq_list_last(list);
          if (last == nullptr) return nullptr;  // nothing to hang the items on
          current = static_cast<Object *>(last->data);
        }
        tqdb_api_object_item_t *item = read_item(items);
        if (item == nullptr) {
          tqdb_api_msg_corrupt(env, "tqdb_api_object_list_handle", __FILE__, __LINE__);
          more = false;
        } else if (!tq::push_front(pending, item)) {
          more = false;
        }
        break;
      }
      default:
        break;
    }
  }
  settle();
  return tq_list_concat(list, tq_list_reverse(objects));
}

void tqdb_api_object_list_free(tq_list_t *list) {
  for (tq_list_t *n = list; n != nullptr; n = n->next) {
    free_object(static_cast<Object *>(n->data));
    n->data = nullptr;
  }
  tq_list_free(list);
}

bool tqdb_api_object_timestamp_handle(tqdb_api_msg_t *env, char *buf) {
  return tqdb_api_ruleset_timestamp_handle(env, buf);
}

// Status, message and flag, then one entry per object copied until the body
// ends; an entry cut short is dropped.
bool tqdb_api_object_copy_handle(tqdb_api_msg_t *env, tqdb_api_object_copy_res_t *out) {
  if (out == nullptr) return false;
  *out = {};
  if (tqdb_api_msg_get_type(env) != TQDB_API_MSG_TYPE_DATA) return false;
  tq::ReplyReader r(env, "tqdb_api_object_copy_handle");
  tq::read_rows(r, kCopyRes, out);
  out->entries = tq::read_records(r, kCopy, nullptr, 1);
  return r.ok();
}
