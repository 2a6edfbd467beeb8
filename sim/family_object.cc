// Objects and their items (0x11001-0x11014): trees of named objects per
// type, items checked per type, attributes, comments, copies.
//
// The object list answer is a tagged stream: tag 0 an object, tag 1 one of
// its items. Items are records of their own, so a long object's items may
// continue in the next message; the client attaches them to the last
// object it has.
#include <algorithm>

#include "ruleset_calls.h"
#include "tqdb_api_ruleset.h"
#include "util.h"

namespace tqsim {
namespace {

using Tree = std::map<uint32_t, Object>;

constexpr uint8_t kTagObject = 0, kTagItem = 1;
constexpr std::size_t kCopyMax = 2000;  // objects one copy answer can name

bool read_item(Body &in, uint32_t type, Item &item) {
  const auto fields = item_fields(type);
  item.fields.assign(fields.size(), {});
  for (std::size_t i = 0; i < fields.size(); ++i) {
    ItemValue &v = item.fields[i];
    uint8_t b = 0;
    uint16_t w = 0;
    bool ok = false;
    switch (fields[i].wire) {
      case Wire::U8:
        ok = in.u8(b);
        v.n = b;
        break;
      case Wire::U16:
        ok = in.u16(w);
        v.n = w;
        break;
      case Wire::U32:
        ok = in.u32(v.n);
        break;
      case Wire::Text:
        ok = in.text(v.s);
        break;
    }
    if (!ok) return false;
  }
  return true;
}

void put_item(Out &out, uint32_t type, const Item &item) {
  out.u8(kTagItem).u8(static_cast<uint8_t>(type)).u32(item.id);
  const auto fields = item_fields(type);
  for (std::size_t i = 0; i < fields.size(); ++i) {
    const ItemValue &v = item.fields[i];
    switch (fields[i].wire) {
      case Wire::U8:
        out.u8(static_cast<uint8_t>(v.n));
        break;
      case Wire::U16:
        out.u16(static_cast<uint16_t>(v.n));
        break;
      case Wire::U32:
        out.u32(v.n);
        break;
      case Wire::Text:
        out.text(v.s);
        break;
    }
  }
  put_audit(out, item.audit);
}

void put_object(ListAnswer &a, uint32_t type, const Object &o, uint32_t referenced) {
  Out &out = a.out();
  out.u8(kTagObject).u32(o.id).text(o.name).u32(o.parent).u32(referenced);
  put_audit(out, o.audit);
  out.u8(o.visible).u32(0).u32(static_cast<uint32_t>(o.attributes.size()));
  put_attributes(out, o.attributes);
  a.next();
  for (const Item &item : o.items) {
    put_item(a.out(), type, item);
    a.next();
  }
}

template <class RS>
auto find_object(Call &c, RS &rs, uint8_t type, uint32_t id) -> decltype(&rs.objects[0].begin()->second) {
  auto &tree = rs.objects[type];
  auto it = tree.find(id);
  if (it != tree.end()) return &it->second;
  c.error(missing_text(object_ref(type, id)));
  return nullptr;
}

// The object id of type for a change: checks the type, opens the change and
// finds the object; null after answering the refusal.
Object *changed_object(Call &c, Ruleset *&rs, uint8_t type, uint32_t id) {
  if (!object_type_ok(c, type)) return nullptr;
  rs = change_ruleset(c);
  return rs ? find_object(c, *rs, type, id) : nullptr;
}

// The item with id in the objects of type, with its object; answers the
// refusal when there is none.
std::pair<Object *, Item *> find_item(Call &c, Ruleset &rs, uint8_t type, uint32_t id) {
  for (auto &[oid, o] : rs.objects[type]) {
    for (Item &item : o.items)
      if (item.id == id) return {&o, &item};
  }
  c.error(format("No %s item %u", noun(object_ref(type, 0)).c_str(), id));
  return {nullptr, nullptr};
}

// Refusal when another object under parent already has name.
std::string name_clash(const Ruleset &rs, uint8_t type, uint32_t parent, std::string_view name,
                       uint32_t except) {
  for (const auto &[id, o] : rs.objects[type]) {
    if (id == except || o.parent != parent || o.name != name) continue;
    return format("A %s named '%.*s' already exists ", noun(object_ref(type, 0)).c_str(),
                  static_cast<int>(name.size()), name.data()) +
           (parent ? "under " + label(rs, object_ref(type, parent)) : "at the top level");
  }
  return {};
}

std::string parent_problem(const Ruleset &rs, uint8_t type, uint32_t parent) {
  if (parent == 0 || rs.objects[type].contains(parent)) return {};
  return missing_text(object_ref(type, parent)) + " to be the parent";
}

// --- handlers ---------------------------------------------------------------------------

// Body: u8 type; u32 id; u8 flag; with id 0 and more body, u32 count and
// that many names. Id 0: every object of the type (or those named); else
// the one object.
void list(Call &c) {
  uint8_t type = 0, flag = 0;
  uint32_t id = 0, count = 0;
  std::vector<std::string> names;
  if (!c.in.u8(type) || !c.in.u32(id) || !c.in.u8(flag)) return c.malformed();
  if (id == 0 && c.in.left() > 0) {
    if (!c.in.u32(count)) return c.malformed();
    for (uint32_t i = 0; i < count; ++i) {
      std::string name;
      if (!c.in.text(name)) return c.malformed();
      names.push_back(std::move(name));
    }
  }
  if (!c.in.end()) return c.malformed();
  if (!object_type_ok(c, type)) return;
  const Ruleset &rs = view_ruleset(c);
  if (id != 0 && !find_object(c, rs, type, id)) return;
  const auto refs = reference_counts(rs);
  ListAnswer a(c);
  for (const auto &[oid, o] : rs.objects[type]) {
    if (id != 0 && oid != id) continue;
    if (count && std::find(names.begin(), names.end(), o.name) == names.end()) continue;
    auto r = refs.find(object_ref(type, oid));
    put_object(a, type, o, r == refs.end() ? 0 : r->second);
  }
  a.finish();
}

// Body: u8 type; string name; u32 parent.
void add(Call &c) {
  uint8_t type = 0;
  std::string name;
  uint32_t parent = 0;
  if (!c.in.u8(type) || !c.in.text(name) || !c.in.u32(parent) || !c.in.end())
    return c.malformed();
  if (!object_type_ok(c, type)) return;
  Ruleset *rs = change_ruleset(c);
  if (!rs) return;
  std::string e = check_name("name", name);
  if (e.empty()) e = parent_problem(*rs, type, parent);
  if (e.empty()) e = name_clash(*rs, type, parent, name, 0);
  if (!e.empty()) return c.error(e);
  const uint32_t id = ++rs->last_object[type];
  Object &o = rs->objects[type][id];
  o.id = id;
  o.name = std::move(name);
  o.parent = parent;
  const std::string now = now_text(c);
  audit_create(o.audit, user_of(c), now);
  answer_added(c, id, now);
}

// Body: u8 type; u32 id.
void remove(Call &c) {
  uint8_t type = 0;
  uint32_t id = 0;
  if (!c.in.u8(type) || !c.in.u32(id) || !c.in.end()) return c.malformed();
  Ruleset *rs = nullptr;
  if (!changed_object(c, rs, type, id)) return;
  Tree &tree = rs->objects[type];
  for (const auto &[child, o] : tree) {
    if (o.parent == id)
      return c.error(label(*rs, object_ref(type, id), true) + " has child objects, such as " +
                     label(*rs, object_ref(type, child)) + ": remove or move them first");
  }
  if (auto e = in_use_text(*rs, object_ref(type, id)); !e.empty()) return c.error(e);
  tree.erase(id);
  answer_stamp(c, now_text(c));
}

// Body: u8 type; u32 id; string name.
void rename(Call &c) {
  uint8_t type = 0;
  uint32_t id = 0;
  std::string name;
  if (!c.in.u8(type) || !c.in.u32(id) || !c.in.text(name) || !c.in.end()) return c.malformed();
  Ruleset *rs = nullptr;
  Object *o = changed_object(c, rs, type, id);
  if (!o) return;
  std::string e = check_name("name", name);
  if (e.empty()) e = name_clash(*rs, type, o->parent, name, id);
  if (!e.empty()) return c.error(e);
  o->name = std::move(name);
  touch(c, *o);
  answer_stamp(c, o->audit.modification_date);
}

// Body: u8 type; u32 id; u8 visible.
void set_visible(Call &c) {
  uint8_t type = 0, visible = 0;
  uint32_t id = 0;
  if (!c.in.u8(type) || !c.in.u32(id) || !c.in.u8(visible) || !c.in.end()) return c.malformed();
  Ruleset *rs = nullptr;
  Object *o = changed_object(c, rs, type, id);
  if (!o) return;
  o->visible = visible ? 1 : 0;
  touch(c, *o);
  c.ok();
}

// Body: u8 type; u32 id; u32 new parent.
void move(Call &c) {
  uint8_t type = 0;
  uint32_t id = 0, parent = 0;
  if (!c.in.u8(type) || !c.in.u32(id) || !c.in.u32(parent) || !c.in.end()) return c.malformed();
  Ruleset *rs = nullptr;
  Object *o = changed_object(c, rs, type, id);
  if (!o) return;
  std::string e = parent_problem(*rs, type, parent);
  if (e.empty() && in_subtree(rs->objects[type], parent, id))
    e = "Cannot move " + label(*rs, object_ref(type, id)) +
        (parent == id ? " under itself" : " under its own descendant " +
                                              label(*rs, object_ref(type, parent)));
  if (e.empty()) e = name_clash(*rs, type, parent, o->name, id);
  if (!e.empty()) return c.error(e);
  o->parent = parent;
  touch(c, *o);
  answer_stamp(c, o->audit.modification_date);
}

// Body: u8 type; u32 id; u32 new parent. The object and everything below
// it are copied with their items; a copy whose name is taken under the new
// parent is named "<name> (copy)", "<name> (copy 2)", ...
void copy(Call &c) {
  uint8_t type = 0;
  uint32_t id = 0, parent = 0;
  if (!c.in.u8(type) || !c.in.u32(id) || !c.in.u32(parent) || !c.in.end()) return c.malformed();
  Ruleset *rs = nullptr;
  if (!changed_object(c, rs, type, id)) return;
  Tree &tree = rs->objects[type];
  if (auto e = parent_problem(*rs, type, parent); !e.empty()) return c.error(e);
  if (in_subtree(tree, parent, id))
    return c.error("Cannot copy " + label(*rs, object_ref(type, id)) + " into itself or below it");
  // Sources in an order that puts every parent before its children.
  std::vector<uint32_t> sources{id};
  for (std::size_t i = 0; i < sources.size(); ++i) {
    for (const auto &[child, o] : tree)
      if (o.parent == sources[i]) sources.push_back(child);
  }
  if (sources.size() > kCopyMax)
    return c.error(format("Cannot copy %zu objects at once (at most %zu)", sources.size(), kCopyMax));
  const std::string now = now_text(c);
  std::map<uint32_t, uint32_t> copies;  // source -> copy
  Out out;
  out.u32(0).text(format("%zu objects copied", sources.size())).u8(1);
  for (uint32_t src : sources) {
    Object o = tree.at(src);
    o.id = ++rs->last_object[type];
    o.parent = src == id ? parent : copies.at(o.parent);
    if (src == id) {
      const std::string base = o.name;
      for (int n = 1; !name_clash(*rs, type, o.parent, o.name, 0).empty(); ++n)
        o.name = base + (n == 1 ? std::string(" (copy)") : format(" (copy %d)", n));
      if (auto e = check_text("name", o.name, 255); !e.empty()) return c.error(e);
    }
    audit_create(o.audit, user_of(c), now);
    for (Item &item : o.items) {
      item.id = ++rs->last_item;
      audit_create(item.audit, user_of(c), now);
    }
    copies[src] = o.id;
    out.u32(src).u32(o.id).u32(o.parent).u8(type);
    tree[o.id] = std::move(o);
  }
  c.answer(out);
}

// Body: u8 type; u32 id. Every reference to the object is dropped.
void unlink_object(Call &c) {
  uint8_t type = 0;
  uint32_t id = 0;
  if (!c.in.u8(type) || !c.in.u32(id) || !c.in.end()) return c.malformed();
  Ruleset *rs = nullptr;
  if (!changed_object(c, rs, type, id)) return;
  unlink(*rs, object_ref(type, id));
  c.ok();
}

// Body: u8 type; u32 id.
void comments_get(Call &c) {
  uint8_t type = 0;
  uint32_t id = 0;
  if (!c.in.u8(type) || !c.in.u32(id) || !c.in.end()) return c.malformed();
  if (!object_type_ok(c, type)) return;
  if (const Object *o = find_object(c, view_ruleset(c), type, id)) answer_text(c, o->comments);
}

// Body: u8 type; u32 id; string comments; u32 0.
void comments_set(Call &c) {
  uint8_t type = 0;
  uint32_t id = 0, zero = 0;
  std::string text;
  if (!c.in.u8(type) || !c.in.u32(id) || !c.in.text(text) || !c.in.u32(zero) || !c.in.end())
    return c.malformed();
  Ruleset *rs = nullptr;
  Object *o = changed_object(c, rs, type, id);
  if (!o) return;
  if (auto e = check_text("comments", text, kCommentsMax); !e.empty()) return c.error(e);
  o->comments = std::move(text);
  touch(c, *o);
  answer_stamp(c, o->audit.modification_date);
}

// Body: u8 type; u32 id.
void attr_list(Call &c) {
  uint8_t type = 0;
  uint32_t id = 0;
  if (!c.in.u8(type) || !c.in.u32(id) || !c.in.end()) return c.malformed();
  if (!object_type_ok(c, type)) return;
  if (const Object *o = find_object(c, view_ruleset(c), type, id)) answer_attributes(c, o->attributes);
}

// Body: u8 type; u32 id; string key; string value.
void attr_set(Call &c) {
  uint8_t type = 0;
  uint32_t id = 0;
  std::string key, value;
  if (!c.in.u8(type) || !c.in.u32(id) || !c.in.text(key) || !c.in.text(value) || !c.in.end())
    return c.malformed();
  Ruleset *rs = nullptr;
  Object *o = changed_object(c, rs, type, id);
  if (!o) return;
  const std::string whose = label(*rs, object_ref(type, id), true);
  if (auto e = set_attribute(o->attributes, whose, std::move(key), std::move(value)); !e.empty())
    return c.error(e);
  touch(c, *o);
  c.ok();
}

// Body: u8 type; u32 id; string key.
void attr_remove(Call &c) {
  uint8_t type = 0;
  uint32_t id = 0;
  std::string key;
  if (!c.in.u8(type) || !c.in.u32(id) || !c.in.text(key) || !c.in.end()) return c.malformed();
  Ruleset *rs = nullptr;
  Object *o = changed_object(c, rs, type, id);
  if (!o) return;
  if (auto e = remove_attribute(o->attributes, label(*rs, object_ref(type, id), true), key);
      !e.empty())
    return c.error(e);
  touch(c, *o);
  c.ok();
}

// Body: u8 type; u32 object id; the item's fields.
void item_add(Call &c) {
  uint8_t type = 0;
  uint32_t id = 0;
  Item item;
  if (!c.in.u8(type) || !c.in.u32(id)) return c.malformed();
  if (!object_type_ok(c, type)) return;
  if (!read_item(c.in, type, item) || !c.in.end()) return c.malformed();
  Ruleset *rs = nullptr;
  Object *o = changed_object(c, rs, type, id);
  if (!o) return;
  if (auto e = check_item(*rs, type, item); !e.empty()) return c.error(e);
  const std::string now = now_text(c);
  item.id = ++rs->last_item;
  audit_create(item.audit, user_of(c), now);
  audit_change(o->audit, user_of(c), now);
  o->items.push_back(std::move(item));
  answer_added(c, o->items.back().id, now);
}

// Body: u8 type; u32 item id; the item's fields.
void item_update(Call &c) {
  uint8_t type = 0;
  uint32_t id = 0;
  Item fresh;
  if (!c.in.u8(type) || !c.in.u32(id)) return c.malformed();
  if (!object_type_ok(c, type)) return;
  if (!read_item(c.in, type, fresh) || !c.in.end()) return c.malformed();
  Ruleset *rs = change_ruleset(c);
  if (!rs) return;
  auto [o, item] = find_item(c, *rs, type, id);
  if (!item) return;
  if (auto e = check_item(*rs, type, fresh); !e.empty()) return c.error(e);
  item->fields = std::move(fresh.fields);
  touch(c, *item);
  touch(c, *o);
  answer_stamp(c, item->audit.modification_date);
}

// Body: u8 type; u32 item id.
void item_remove(Call &c) {
  uint8_t type = 0;
  uint32_t id = 0;
  if (!c.in.u8(type) || !c.in.u32(id) || !c.in.end()) return c.malformed();
  if (!object_type_ok(c, type)) return;
  Ruleset *rs = change_ruleset(c);
  if (!rs) return;
  auto [o, item] = find_item(c, *rs, type, id);
  if (!item) return;
  std::erase_if(o->items, [id](const Item &x) { return x.id == id; });
  touch(c, *o);
  answer_stamp(c, o->audit.modification_date);
}

// Body: u8 type; u32; u32. Their meaning is the appliance's own; the type
// is checked and the request acknowledged.
void object_pair(Call &c) {
  uint8_t type = 0;
  uint32_t a = 0, b = 0;
  if (!c.in.u8(type) || !c.in.u32(a) || !c.in.u32(b) || !c.in.end()) return c.malformed();
  if (object_type_ok(c, type)) c.ok();
}

constexpr auto H = Header::kSessionCid;
constexpr auto S = Access::kSession;
constexpr Route kRoutes[] = {
    {TQDB_REQ_OBJECT_LIST, "object_list", H, S, list},
    {TQDB_REQ_OBJECT_ADD, "object_add", H, S, add},
    {TQDB_REQ_OBJECT_REMOVE, "object_remove", H, S, remove},
    {TQDB_REQ_OBJECT_RENAME, "object_rename", H, S, rename},
    {TQDB_REQ_OBJECT_SET_VISIBLE, "object_set_visible", H, S, set_visible},
    {TQDB_REQ_OBJECT_MOVE, "object_move", H, S, move},
    {TQDB_REQ_OBJECT_COPY, "object_copy", H, S, copy},
    {TQDB_REQ_OBJECT_UNLINK, "object_unlink", H, S, unlink_object},
    {TQDB_REQ_OBJECT_COMMENTS_GET, "object_comments_get", H, S, comments_get},
    {TQDB_REQ_OBJECT_COMMENTS_SET, "object_comments_set", H, S, comments_set},
    {TQDB_REQ_OBJECT_ATTR_LIST, "object_attr_list", H, S, attr_list},
    {TQDB_REQ_OBJECT_ATTR_SET, "object_attr_set", H, S, attr_set},
    {TQDB_REQ_OBJECT_ATTR_REMOVE, "object_attr_remove", H, S, attr_remove},
    {TQDB_REQ_OBJECT_ITEM_ADD, "object_item_add", H, S, item_add},
    {TQDB_REQ_OBJECT_ITEM_UPDATE, "object_item_update", H, S, item_update},
    {TQDB_REQ_OBJECT_ITEM_REMOVE, "object_item_remove", H, S, item_remove},
    {TQDB_REQ_OBJECT_11013, "object_11013", H, S, object_pair},
    {TQDB_REQ_OBJECT_11014, "object_11014", H, S, object_pair},
};

}  // namespace

std::span<const Route> family_object() { return kRoutes; }

}  // namespace tqsim
