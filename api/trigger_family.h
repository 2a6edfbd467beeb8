// What the two trigger families share: their records are flat rows read
// by one reader, their lists and add answers are decoded alike. A family
// is its record layout; host triggers add their thresholds to the rows.
#ifndef TQDB_API_TRIGGER_FAMILY_H
#define TQDB_API_TRIGGER_FAMILY_H

#include <cstdint>

#include "reply_reader.h"
#include "ruleset_rows.h"
#include "tq_list.h"
#include "tqdb_api.h"

namespace tq::trigger {

// Records of the family's layout appended to list in wire order; a record
// cut short ends the reply (reported once).
inline tq_list_t *list_handle(tqdb_api_msg_t *env, tq_list_t *list,
                              const tqdb_api_item_layout_t &kind, const char *decoder) {
  return reply_records(env, list, decoder, kind, 4);
}

// The new trigger's id of an add answer.
inline uint32_t add_handle(tqdb_api_msg_t *env, const char *decoder) {
  if (tqdb_api_msg_get_type(env) != TQDB_API_MSG_TYPE_DATA) return 0;
  ReplyReader r(env, decoder);
  return r.u32();
}

}  // namespace tq::trigger

#endif
