// Shaping objects (0x16xxx): limits per direction, split, connection limit,
// weighted fair queueing, fairness group, split net objects, attributes
// and comments. Shaping rules bind them.
//
// Limits travel with their second and third values exchanged (record slots
// 1, 3, 2, 4, 5, 6). A limit of six zeros means "no limit" and is not kept,
// so an object listed and sent back unchanged stays the same.
#include <algorithm>

#include "ruleset_calls.h"
#include "tqdb_api_ruleset.h"
#include "util.h"

namespace tqsim {
namespace {

constexpr uint8_t kSplits = 10;  // SHAPINGOBJECT_SPLIT_* 0..9
// Wire position i carries record slot kWireSlot[i].
constexpr std::size_t kWireSlot[6] = {0, 2, 1, 3, 4, 5};
// Limits are kept inbound, outbound, bidir: the rank of each direction.
constexpr int kDirectionRank[3] = {2, 0, 1};

Ref ref(uint32_t id) { return {Kind::kShapingObject, 0, id}; }

// The fields of add (and of modify after the id) into o; the limits in the
// order they came.
bool read_fields(Body &in, ShapingObject &o) {
  uint32_t limits = 0, nets = 0;
  if (!in.text(o.name) || !in.u8(o.split) || !in.u32(o.split_argument) ||
      !in.i32(o.max_connections) || !in.u32(o.flags))
    return false;
  for (uint8_t &w : o.wfq)
    if (!in.u8(w)) return false;
  if (!in.u8(o.fairness_group) || !in.u32(o.fairness_group_argument) || !in.u32(limits))
    return false;
  for (uint32_t i = 0; i < limits; ++i) {
    Limit l;
    if (!in.u8(l.direction)) return false;
    for (std::size_t slot : kWireSlot)
      if (!in.u32(l.v[slot])) return false;
    o.limits.push_back(l);
  }
  if (!in.u32(nets)) return false;
  for (uint32_t i = 0; i < nets; ++i) {
    uint32_t id = 0;
    if (!in.u32(id)) return false;
    o.split_netobjects.push_back(id);
  }
  return true;
}

// Checks o after its name and puts its limits in the kept order.
std::string settle(const Ruleset &rs, ShapingObject &o) {
  if (o.split >= kSplits) return format("Split %u is not one of 0 to %u", o.split, kSplits - 1);
  for (const Limit &l : o.limits)
    if (l.direction > 2)
      return format("Limit direction %u is not 1 (inbound), 2 (outbound) or 0 (bidir)",
                    l.direction);
  for (std::size_t i = 0; i < o.split_netobjects.size(); ++i) {
    const uint32_t net = o.split_netobjects[i];
    if (!exists(rs, object_ref(kNetObject, net)))
      return "Split net objects: " + missing_text(object_ref(kNetObject, net));
    if (std::count(o.split_netobjects.begin(), o.split_netobjects.end(), net) > 1)
      return "Split net objects: " + label(rs, object_ref(kNetObject, net)) + " is named twice";
  }
  std::erase_if(o.limits, [](const Limit &l) {
    return std::all_of(l.v.begin(), l.v.end(), [](uint32_t v) { return v == 0; });
  });
  std::stable_sort(o.limits.begin(), o.limits.end(), [](const Limit &a, const Limit &b) {
    return kDirectionRank[a.direction] < kDirectionRank[b.direction];
  });
  return {};
}

void put_object(Out &out, const ShapingObject &o) {
  out.i32(static_cast<int32_t>(o.id)).text(o.name).u8(o.split).u32(o.split_argument);
  out.i32(o.max_connections).u32(o.flags).u32(0);
  put_audit(out, o.audit);
  for (uint8_t w : o.wfq) out.u8(w);
  out.u8(o.fairness_group).u32(o.fairness_group_argument);
  out.u32(static_cast<uint32_t>(o.limits.size()));
  for (const Limit &l : o.limits) {
    out.u8(l.direction);
    for (std::size_t slot : kWireSlot) out.u32(l.v[slot]);
  }
  out.u32(static_cast<uint32_t>(o.split_netobjects.size()));
  for (uint32_t id : o.split_netobjects) out.u32(id);
}

constexpr auto kShaping = ruleset_kind<Kind::kShapingObject>(
    &Ruleset::shaping_objects, &Ruleset::last_shaping_object, read_fields, settle);

template <class RS>
auto find(Call &c, RS &rs, uint32_t id) {
  return find_named(c, kShaping, rs, id);
}

void list(Call &c) {
  if (!c.in.end()) return c.malformed();
  ListAnswer a(c);
  for (const auto &[id, o] : view_ruleset(c).shaping_objects) {
    put_object(a.out(), o);
    a.next();
  }
  a.finish();
}

void tstamp(Call &c) {
  uint32_t id = 0;
  if (!c.in.u32(id) || !c.in.end()) return c.malformed();
  if (const ShapingObject *o = find(c, view_ruleset(c), id))
    answer_stamp(c, o->audit.modification_date);
}

// Body: u32 id (get), or u32 id and the comments (set).
void comments(Call &c) {
  uint32_t id = 0;
  std::string text;
  if (!c.in.u32(id)) return c.malformed();
  if (c.in.left() == 0) {
    if (const ShapingObject *o = find(c, view_ruleset(c), id)) answer_text(c, o->comments);
    return;
  }
  if (!c.in.text(text) || !c.in.end()) return c.malformed();
  Ruleset *rs = change_ruleset(c);
  ShapingObject *o = rs ? find(c, *rs, id) : nullptr;
  if (!o) return;
  if (auto e = check_text("comments", text, kCommentsMax); !e.empty()) return c.error(e);
  o->comments = std::move(text);
  touch(c, *o);
  answer_stamp(c, o->audit.modification_date);
}

void attr_list(Call &c) {
  uint32_t id = 0;
  if (!c.in.u32(id) || !c.in.end()) return c.malformed();
  if (const ShapingObject *o = find(c, view_ruleset(c), id)) answer_attributes(c, o->attributes);
}

void attr_set(Call &c) {
  uint32_t id = 0;
  std::string key, value;
  if (!c.in.u32(id) || !c.in.text(key) || !c.in.text(value) || !c.in.end()) return c.malformed();
  Ruleset *rs = change_ruleset(c);
  ShapingObject *o = rs ? find(c, *rs, id) : nullptr;
  if (!o) return;
  if (auto e = set_attribute(o->attributes, label(*rs, ref(id), true), std::move(key),
                             std::move(value));
      !e.empty())
    return c.error(e);
  touch(c, *o);
  c.ok();
}

void attr_remove(Call &c) {
  uint32_t id = 0;
  std::string key;
  if (!c.in.u32(id) || !c.in.text(key) || !c.in.end()) return c.malformed();
  Ruleset *rs = change_ruleset(c);
  ShapingObject *o = rs ? find(c, *rs, id) : nullptr;
  if (!o) return;
  if (auto e = remove_attribute(o->attributes, label(*rs, ref(id), true), key); !e.empty())
    return c.error(e);
  touch(c, *o);
  c.ok();
}

constexpr auto H = Header::kSessionCid;
constexpr auto S = Access::kSession;
constexpr Route kRoutes[] = {
    {TQDB_REQ_SHAPINGOBJECT_LIST, "shapingobject_list", H, S, list},
    {TQDB_REQ_SHAPINGOBJECT_ADD, "shapingobject_add", H, S,
     [](Call &c) { add_named(c, kShaping); }},
    {TQDB_REQ_SHAPINGOBJECT_REMOVE, "shapingobject_remove", H, S,
     [](Call &c) { remove_named(c, kShaping); }},
    {TQDB_REQ_SHAPINGOBJECT_RENAME, "shapingobject_rename", H, S,
     [](Call &c) { rename_named(c, kShaping); }},
    {TQDB_REQ_SHAPINGOBJECT_MODIFY, "shapingobject_modify", H, S,
     [](Call &c) { modify_named(c, kShaping); }},
    {TQDB_REQ_SHAPINGOBJECT_TSTAMP, "shapingobject_tstamp", H, S, tstamp},
    {TQDB_REQ_SHAPINGOBJECT_COMMENTS, "shapingobject_comments", H, S, comments},
    {TQDB_REQ_SHAPINGOBJECT_ATTR_LIST, "shapingobject_attr_list", H, S, attr_list},
    {TQDB_REQ_SHAPINGOBJECT_ATTR_SET, "shapingobject_attr_set", H, S, attr_set},
    {TQDB_REQ_SHAPINGOBJECT_ATTR_REMOVE, "shapingobject_attr_remove", H, S, attr_remove},
};

}  // namespace

std::span<const Route> family_shapingobject() { return kRoutes; }

}  // namespace tqsim
