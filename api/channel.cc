// Channels: list, get, update, activation, totals and link states.
#include "tqdb_api_channel.h"

#include <algorithm>

#include "reply_reader.h"
#include "ruleset_rows.h"
#include "tq_list.h"
#include "tq_msg.h"
#include "tqdb_api.h"

namespace {

using Channel = tqdb_api_channel_t;
using Link = tqdb_api_channel_link_t;

// The channel record in wire order; texts keep what their arrays hold and
// the rest of a longer one is skipped.
constexpr tqdb_api_item_field_t kChannelRows[]{
    TQ_ROW(Channel, id, U32),         TQ_ROW(Channel, active, U8),
    TQ_ROW(Channel, label, Text),     TQ_ROW(Channel, location, Text),
    TQ_ROW(Channel, internal, Text),  TQ_ROW(Channel, internal_media, U8),
    TQ_ROW(Channel, external, Text),  TQ_ROW(Channel, external_media, U8),
    TQ_ROW(Channel, type, U32),       TQ_ROW(Channel, caps, U32),
    TQ_ROW(Channel, role, U8),        TQ_ROW(Channel, direction, U8)};
constexpr tqdb_api_item_layout_t kChannel{"tqdb_api_channel_t", sizeof(Channel), kChannelRows};
static_assert(tq::rows_fit(kChannel.size, kChannel.fields));

constexpr tqdb_api_item_field_t kLinkRows[]{TQ_ROW(Link, channel, U32),
                                            TQ_ROW(Link, internal_up, U8),
                                            TQ_ROW(Link, external_up, U8)};
constexpr tqdb_api_item_layout_t kLink{"tqdb_api_channel_link_t", sizeof(Link), kLinkRows};
static_assert(tq::rows_fit(kLink.size, kLink.fields));

}  // namespace

uint32_t tqdb_api_channel_list(tqdb_api_handle_t *h, uint32_t session) {
  return tqdb_api_send(h, TQDB_REQ_CHANNEL_LIST, session);
}

uint32_t tqdb_api_channel_get(tqdb_api_handle_t *h, uint32_t session, uint32_t id) {
  return tqdb_api_send(h, TQDB_REQ_CHANNEL_GET, session, id);
}

uint32_t tqdb_api_channel_update(tqdb_api_handle_t *h, uint32_t session, const Channel *channel,
                                 const char *label, uint8_t internal_media,
                                 uint8_t external_media, uint8_t role, uint8_t direction) {
  if (channel == nullptr || session == 0) return 0;
  // A string put that does not fit is dropped whole: the label is left out
  // and the four bytes behind it still go.
  return tqdb_api_send(h, TQDB_REQ_CHANNEL_UPDATE, session, channel->id, channel->active, label,
                       internal_media, external_media, role, direction);
}

uint32_t tqdb_api_channel_set_active(tqdb_api_handle_t *h, uint32_t session, uint32_t id,
                                     uint8_t active) {
  return tqdb_api_send(h, TQDB_REQ_CHANNEL_SET_ACTIVE, session, id, active);
}

uint32_t tqdb_api_channel_stats(tqdb_api_handle_t *h, uint32_t session, uint32_t id) {
  return tqdb_api_send(h, TQDB_REQ_CHANNEL_STATS, session, id);
}

uint32_t tqdb_api_channel_link_states(tqdb_api_handle_t *h, uint32_t session) {
  return tqdb_api_send(h, TQDB_REQ_CHANNEL_LINK_STATES, session);
}

uint32_t tqdb_api_channel_link_toggle(tqdb_api_handle_t *h, uint32_t session, uint32_t channel) {
  return tqdb_api_send(h, TQDB_REQ_CHANNEL_LINK_TOGGLE, session, channel);
}

tq_list_t *tqdb_api_channel_list_handle(tqdb_api_msg_t *env, tq_list_t *list) {
  return tq::reply_records(env, list, "tqdb_api_channel_list_handle", kChannel);
}

bool tqdb_api_channel_stats_handle(tqdb_api_msg_t *env,
                                   uint64_t (&out)[TQDB_API_CHANNEL_STATS_FIELDS]) {
  std::fill(std::begin(out), std::end(out), 0);
  if (tqdb_api_msg_get_type(env) != TQDB_API_MSG_TYPE_DATA) return false;
  tq::ReplyReader r(env, "tqdb_api_channel_stats_handle");
  for (uint64_t &v : out) v = r.u64();
  if (r.ok()) return true;
  std::fill(std::begin(out), std::end(out), 0);
  return false;
}

tq_list_t *tqdb_api_channel_link_states_handle(tqdb_api_msg_t *env, tq_list_t *list) {
  return tq::reply_records(env, list, "tqdb_api_channel_link_states_handle", kLink);
}
