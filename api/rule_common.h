// What the three rule families (firewall, shaping, statistics) share: the
// requests every family has, told apart only by the family's codes, and the
// skeleton of the list decoders, into which each family plugs the reader of
// its own fields. Also the small pieces the other ruleset decoders use.
#ifndef TQDB_API_RULE_COMMON_H
#define TQDB_API_RULE_COMMON_H

#include <cstdint>

#include "tq_list.h"
#include "tq_malloc.h"
#include "tq_msg.h"
#include "tqdb_api.h"
#include "tqdb_api_ruleset.h"

namespace tq {

// Request fields in order, each put by its type (see tqdb_api_send).
template <class... Fields>
void put_fields(tq_msg_t *m, Fields... fields) {
  (tqdb_api_put(m, fields), ...);
}

// The four audit texts that end every ruleset record; false when one is cut.
inline bool get_audit(tq_msg_t *m, tqdb_api_audit_t &a) {
  return tq_msg_get_fields(m,                                                          //
                           TQ_MSG_STRING, sizeof a.creator, a.creator,                 //
                           TQ_MSG_STRING, sizeof a.creation_date, a.creation_date,     //
                           TQ_MSG_STRING, sizeof a.modified_by, a.modified_by,         //
                           TQ_MSG_STRING, sizeof a.modification_date, a.modification_date,
                           TQ_MSG_END);
}

// Integer lists keep the id in the node itself.
inline void *int_node(uint32_t id) { return reinterpret_cast<void *>(static_cast<uintptr_t>(id)); }
inline uint32_t int_of(const tq_list_t *n) {
  return static_cast<uint32_t>(reinterpret_cast<uintptr_t>(n->data));
}

// n u32 ids, each put at the head of *list; false when the body cannot
// hold them all (nothing is read then) or a node is refused.
inline bool get_ids(tq_msg_t *m, uint32_t n, tq_list_t **list) {
  if (n > tq_msg_avail_bytes(m) / 4) return false;
  for (uint32_t i = 0; i < n; ++i) {
    uint32_t id = 0;
    (void)tq_msg_get_uint32(m, &id);  // the count was checked against the body
    tq_list_t *node = tq_list_new(0, *list, int_node(id));
    if (node == nullptr) return false;
    *list = node;
  }
  return true;
}

// --- the requests every rule family has -------------------------------------------------

namespace rule {

inline uint32_t list(const tqdb_api_rule_codes_t &c, tqdb_api_handle_t *h, uint32_t session) {
  return tqdb_api_request(h, c.list, session);
}
inline uint32_t remove(const tqdb_api_rule_codes_t &c, tqdb_api_handle_t *h, uint32_t session,
                       uint32_t id) {
  return tqdb_api_send(h, c.remove, session, id);
}
inline uint32_t rename(const tqdb_api_rule_codes_t &c, tqdb_api_handle_t *h, uint32_t session,
                       uint32_t id, const char *name) {
  return tqdb_api_send(h, c.rename, session, id, name);
}
inline uint32_t set_active(const tqdb_api_rule_codes_t &c, tqdb_api_handle_t *h,
                           uint32_t session, uint32_t id, uint8_t active) {
  return tqdb_api_send(h, c.set_active, session, id, active);
}
inline uint32_t tstamp(const tqdb_api_rule_codes_t &c, tqdb_api_handle_t *h, uint32_t session,
                       uint32_t id) {
  return tqdb_api_send(h, c.tstamp, session, id);
}
inline uint32_t copy(const tqdb_api_rule_codes_t &c, tqdb_api_handle_t *h, uint32_t session,
                     uint32_t id) {
  return tqdb_api_send(h, c.copy, session, id);
}
// One code for both: the id alone asks, the id and a text set.
inline uint32_t comments_get(const tqdb_api_rule_codes_t &c, tqdb_api_handle_t *h,
                             uint32_t session, uint32_t id) {
  return tqdb_api_send(h, c.comments, session, id);
}
inline uint32_t comments_set(const tqdb_api_rule_codes_t &c, tqdb_api_handle_t *h,
                             uint32_t session, uint32_t id, const char *comments) {
  return tqdb_api_send(h, c.comments, session, id, comments);
}

// --- the list decoders' skeleton ---------------------------------------------------------

// How far a family reader got with one record.
enum class Read : uint8_t {
  whole,  // every field: go on with the next record
  cut,    // a field the body cannot hold: the reply is given up
  ended,  // the body ended where the record may end: keep it and stop
};

// While a record id fits in what is left: a zeroed record under label, the
// id, then the family's fields. Records are put at the head of list, so a
// reply's rules end in reverse wire order. The reply's records are gathered
// apart first, so that giving the reply up leaves list exactly as it was.
template <class Rec>
tq_list_t *list_decode(tqdb_api_msg_t *env, tq_list_t *list, const char *label,
                       Read (*read)(tq_msg_t *, Rec *), void (*list_free)(tq_list_t *)) {
  if (tqdb_api_msg_get_type(env) != TQDB_API_MSG_TYPE_DATA) return list;
  tq_msg_t *m = env->msg;
  tq_list_t *fresh = nullptr;
  while (tq_msg_avail_bytes(m) >= 4) {
    auto *rec = tq_new_record<Rec>(label);
    tq_list_t *node = tq_list_new(0, fresh, rec);
    if (node == nullptr) {
      tq_free_flags(rec);
      list_free(fresh);
      return nullptr;
    }
    fresh = node;
    (void)tq_msg_get_uint32(m, &rec->id);
    const Read r = read(m, rec);
    if (r == Read::cut) {
      list_free(fresh);
      return nullptr;
    }
    if (r == Read::ended) break;
  }
  return tq_list_concat(fresh, list);
}

// Frees a rule list: each record's own lists first (free_own), then the
// record and the nodes.
template <class Rec>
void list_free(tq_list_t *list, void (*free_own)(Rec *)) {
  for (tq_list_t *n = list; n != nullptr; n = n->next) {
    auto *rec = static_cast<Rec *>(n->data);
    if (rec != nullptr && free_own != nullptr) free_own(rec);
  }
  tq_list_free_with_data(list);
}

}  // namespace rule
}  // namespace tq


// The requests every rule family has, under the family's names: one row
// per family.
#define TQ_RULE_COMMON_REQUESTS(family, codes)                                                   \
  uint32_t tqdb_api_##family##_list(tqdb_api_handle_t *h, uint32_t session) {                    \
    return tq::rule::list(codes, h, session);                                                   \
  }                                                                                             \
  uint32_t tqdb_api_##family##_remove(tqdb_api_handle_t *h, uint32_t session, uint32_t id) {     \
    return tq::rule::remove(codes, h, session, id);                                             \
  }                                                                                             \
  uint32_t tqdb_api_##family##_rename(tqdb_api_handle_t *h, uint32_t session, uint32_t id,       \
                                      const char *name) {                                       \
    return tq::rule::rename(codes, h, session, id, name);                                       \
  }                                                                                             \
  uint32_t tqdb_api_##family##_set_active(tqdb_api_handle_t *h, uint32_t session, uint32_t id,   \
                                          uint8_t active) {                                     \
    return tq::rule::set_active(codes, h, session, id, active);                                 \
  }                                                                                             \
  uint32_t tqdb_api_##family##_tstamp(tqdb_api_handle_t *h, uint32_t session, uint32_t id) {     \
    return tq::rule::tstamp(codes, h, session, id);                                             \
  }                                                                                             \
  uint32_t tqdb_api_##family##_copy(tqdb_api_handle_t *h, uint32_t session, uint32_t id) {       \
    return tq::rule::copy(codes, h, session, id);                                               \
  }                                                                                             \
  uint32_t tqdb_api_##family##_comments_get(tqdb_api_handle_t *h, uint32_t session,              \
                                            uint32_t id) {                                      \
    return tq::rule::comments_get(codes, h, session, id);                                       \
  }                                                                                             \
  uint32_t tqdb_api_##family##_comments_set(tqdb_api_handle_t *h, uint32_t session, uint32_t id, \
                                            const char *comments) {                             \
    return tq::rule::comments_set(codes, h, session, id, comments);                             \
  }

#endif
