// Shaping objects: the bandwidth limits per direction, the split into
// separately limited parts, the connection limit and the queueing weights
// that shaping rules apply.
#include <array>
#include <cstddef>
#include <memory>

#include "rule_common.h"

namespace {

// The directions a limit may belong to: the selector that names it on the
// wire and its list in the record, in the order bodies send them.
struct direction_t {
  uint8_t selector;
  tq_list_t *tqdb_api_shapingobject_t::*limits;
};
constexpr std::array<direction_t, 3> kDirections{{
    {1, &tqdb_api_shapingobject_t::inbound},
    {2, &tqdb_api_shapingobject_t::outbound},
    {0, &tqdb_api_shapingobject_t::bidir},
}};

const direction_t *direction_of(uint8_t selector) {
  for (const direction_t &d : kDirections)
    if (d.selector == selector) return &d;
  return nullptr;
}

// The record slot each wire position carries: the second and third values
// travel exchanged.
constexpr std::array<size_t, 6> kWireSlot{0, 2, 1, 3, 4, 5};

const char *const kLabel = "tqdb_api_shapingobject_t";
const char *const kLimitLabel = "tqdb_api_shapingobject_limit_t";

void put_limit(tq_msg_t *m, uint8_t selector, const tqdb_api_shapingobject_limit_t *l) {
  tqdb_api_put(m, selector);
  for (const size_t slot : kWireSlot) tqdb_api_put(m, l->v[slot]);
}

// Everything behind the name (add) or the id and name (modify).
void put_object(tq_msg_t *m, const tqdb_api_shapingobject_t *o, uint8_t fairness_group,
                uint32_t fairness_group_argument) {
  tq::put_fields(m, o->name, static_cast<uint8_t>(o->split), o->split_argument,
                 o->max_connections, o->flags);
  for (const uint8_t w : o->wfq) tqdb_api_put(m, w);
  tq::put_fields(m, fairness_group, fairness_group_argument);
  uint32_t count = 0;
  for (const direction_t &d : kDirections) count += tq_list_length(o->*d.limits);
  tqdb_api_put(m, count);
  for (const direction_t &d : kDirections)
    for (const tq_list_t *n = o->*d.limits; n != nullptr; n = n->next)
      put_limit(m, d.selector, static_cast<const tqdb_api_shapingobject_limit_t *>(n->data));
  tqdb_api_put(m, tq_list_length(o->split_netobjects));
  for (const tq_list_t *n = o->split_netobjects; n != nullptr; n = n->next)
    tqdb_api_put(m, tq::int_of(n));
}

void free_object(tqdb_api_shapingobject_t *o) {
  for (const direction_t &d : kDirections) tq_list_free_with_data(o->*d.limits);
  tqdb_api_int_list_free(o->split_netobjects);
  tq_free_flags(o);
}

struct ObjectDeleter {
  void operator()(tqdb_api_shapingobject_t *o) const { free_object(o); }
};
using ObjectPtr = std::unique_ptr<tqdb_api_shapingobject_t, ObjectDeleter>;

bool read_fixed(tq_msg_t *m, tqdb_api_shapingobject_t *o, uint32_t *limit_count) {
  uint8_t split = 0;
  uint8_t fairness_group = 0;
  const bool whole =
      tq_msg_get_fields(m,                                       //
                        TQ_MSG_STRING, sizeof o->name, o->name,  //
                        TQ_MSG_UINT8, &split,                    //
                        TQ_MSG_UINT32, &o->split_argument,       //
                        TQ_MSG_INT32, &o->max_connections,       //
                        TQ_MSG_UINT32, &o->flags,                //
                        TQ_MSG_UINT32, &o->extra,                //
                        TQ_MSG_END) &&
      tq::get_audit(m, o->audit) &&
      tq_msg_get_fields(m,                                              //
                        TQ_MSG_DATA, sizeof o->wfq, o->wfq,             //
                        TQ_MSG_UINT8, &fairness_group,                  //
                        TQ_MSG_UINT32, &o->fairness_group_argument,     //
                        TQ_MSG_UINT32, limit_count,                     //
                        TQ_MSG_END);
  o->split = split;
  o->fairness_group = fairness_group;
  return whole;
}

// One limit behind its selector, added to its direction's list (at the
// head: the lists are turned round once all are read). false for a selector
// that names no direction or a limit cut short.
bool read_limit(tq_msg_t *m, tqdb_api_shapingobject_t *o) {
  uint8_t selector = 0;
  if (!tq_msg_get_uint8(m, &selector)) return false;
  const direction_t *d = direction_of(selector);
  if (d == nullptr || tq_msg_avail_bytes(m) < sizeof(tqdb_api_shapingobject_limit_t)) return false;
  auto *l = tq_new_record<tqdb_api_shapingobject_limit_t>(kLimitLabel);
  for (const size_t slot : kWireSlot) (void)tq_msg_get_uint32(m, &l->v[slot]);
  tq_list_t *node = tq_list_new(0, o->*d->limits, l);
  if (node == nullptr) {
    tq_free_flags(l);
    return false;
  }
  o->*d->limits = node;
  return true;
}

enum class Outcome : uint8_t { whole, fixed_cut, broken };

Outcome read_object(tq_msg_t *m, tqdb_api_shapingobject_t *o) {
  (void)tq_msg_get_int32(m, &o->id);  // the caller saw 4 bytes
  uint32_t limits = 0;
  if (!read_fixed(m, o, &limits)) return Outcome::fixed_cut;
  for (uint32_t i = 0; i < limits; ++i)
    if (!read_limit(m, o)) return Outcome::broken;
  // Each direction in wire order; one with no limit holds one of zeros,
  // which means "no limit".
  for (const direction_t &d : kDirections) {
    tq_list_t *&list = o->*d.limits;
    list = tq_list_reverse(list);
    if (list != nullptr) continue;
    auto *zero = tq_new_record<tqdb_api_shapingobject_limit_t>(kLimitLabel);
    list = tq_list_new(0, nullptr, zero);
    if (list == nullptr) {
      tq_free_flags(zero);
      return Outcome::broken;
    }
  }
  uint32_t ids = 0;
  if (!tq_msg_get_uint32(m, &ids) || !tq::get_ids(m, ids, &o->split_netobjects))
    return Outcome::broken;
  o->split_netobjects = tq_list_reverse(o->split_netobjects);
  return Outcome::whole;
}

}  // namespace

uint32_t tqdb_api_shapingobject_list(tqdb_api_handle_t *h, uint32_t session) {
  return tqdb_api_request(h, TQDB_REQ_SHAPINGOBJECT_LIST, session);
}

// A new object starts in no fairness group.
uint32_t tqdb_api_shapingobject_add(tqdb_api_handle_t *h, uint32_t session,
                                    const tqdb_api_shapingobject_t *o) {
  if (o == nullptr) return 0;
  return tqdb_api_request(h, TQDB_REQ_SHAPINGOBJECT_ADD, session,
                          [o](tq_msg_t *m) { put_object(m, o, 0, 0); });
}

uint32_t tqdb_api_shapingobject_modify(tqdb_api_handle_t *h, uint32_t session,
                                       const tqdb_api_shapingobject_t *o) {
  if (o == nullptr) return 0;
  return tqdb_api_request(h, TQDB_REQ_SHAPINGOBJECT_MODIFY, session, [o](tq_msg_t *m) {
    tqdb_api_put(m, o->id);
    put_object(m, o, static_cast<uint8_t>(o->fairness_group), o->fairness_group_argument);
  });
}

uint32_t tqdb_api_shapingobject_remove(tqdb_api_handle_t *h, uint32_t session, uint32_t id) {
  return tqdb_api_send(h, TQDB_REQ_SHAPINGOBJECT_REMOVE, session, id);
}
uint32_t tqdb_api_shapingobject_rename(tqdb_api_handle_t *h, uint32_t session, uint32_t id,
                                       const char *name) {
  return tqdb_api_send(h, TQDB_REQ_SHAPINGOBJECT_RENAME, session, id, name);
}
uint32_t tqdb_api_shapingobject_tstamp(tqdb_api_handle_t *h, uint32_t session, uint32_t id) {
  return tqdb_api_send(h, TQDB_REQ_SHAPINGOBJECT_TSTAMP, session, id);
}
uint32_t tqdb_api_shapingobject_comments_get(tqdb_api_handle_t *h, uint32_t session, uint32_t id) {
  return tqdb_api_send(h, TQDB_REQ_SHAPINGOBJECT_COMMENTS, session, id);
}
uint32_t tqdb_api_shapingobject_comments_set(tqdb_api_handle_t *h, uint32_t session, uint32_t id,
                                             const char *comments) {
  return tqdb_api_send(h, TQDB_REQ_SHAPINGOBJECT_COMMENTS, session, id, comments);
}
uint32_t tqdb_api_shapingobject_attr_list(tqdb_api_handle_t *h, uint32_t session, uint32_t id) {
  return tqdb_api_send(h, TQDB_REQ_SHAPINGOBJECT_ATTR_LIST, session, id);
}
uint32_t tqdb_api_shapingobject_attr_set(tqdb_api_handle_t *h, uint32_t session, uint32_t id,
                                         const char *key, const char *value) {
  return tqdb_api_send(h, TQDB_REQ_SHAPINGOBJECT_ATTR_SET, session, id, key, value);
}
uint32_t tqdb_api_shapingobject_attr_remove(tqdb_api_handle_t *h, uint32_t session, uint32_t id,
                                            const char *key) {
  return tqdb_api_send(h, TQDB_REQ_SHAPINGOBJECT_ATTR_REMOVE, session, id, key);
}

// Objects are kept in wire order. An object whose fixed fields are cut ends
// the reply with what came before it; a broken limit or id list gives the
// whole reply up, leaving list as it was.
tq_list_t *tqdb_api_shapingobject_list_handle(tqdb_api_msg_t *env, tq_list_t *list) {
  if (tqdb_api_msg_get_type(env) != TQDB_API_MSG_TYPE_DATA) return list;
  tq_msg_t *m = env->msg;
  tq_list_t *fresh = nullptr;  // this reply's objects, newest first
  while (tq_msg_avail_bytes(m) >= 4) {
    ObjectPtr o(tq_new_record<tqdb_api_shapingobject_t>(kLabel));
    const Outcome r = read_object(m, o.get());
    if (r == Outcome::fixed_cut) break;
    tq_list_t *node = r == Outcome::whole ? tq_list_new(0, fresh, o.get()) : nullptr;
    if (node == nullptr) {
      tqdb_api_shapingobject_list_free(fresh);
      return nullptr;
    }
    (void)o.release();  // the list owns it now
    fresh = node;
  }
  return tq_list_concat(list, tq_list_reverse(fresh));
}

void tqdb_api_shapingobject_list_free(tq_list_t *list) {
  for (tq_list_t *n = list; n != nullptr; n = n->next) {
    free_object(static_cast<tqdb_api_shapingobject_t *>(n->data));
    n->data = nullptr;
  }
  tq_list_free(list);
}
