// Channel labels: named groups of channels for the divert and monitor roles.
#include <algorithm>

#include "reply_reader.h"
#include "ruleset_rows.h"
#include "tq_list.h"
#include "tq_malloc.h"
#include "tq_msg.h"
#include "tqdb_api.h"
#include "tqdb_api_channel.h"

namespace {

using Label = tqdb_api_channel_label_t;
using Entry = tqdb_api_channel_label_channel_t;

constexpr char kLabelLabel[] = "tqdb_api_channel_label_t";
constexpr char kEntryLabel[] = "tqdb_api_channel_label_channel_t";

// A label's head; its n entries follow it on the wire.
constexpr tqdb_api_item_field_t kHeadRows[]{TQ_ROW(Label, id, U32), TQ_ROW(Label, name, Text),
                                            TQ_ROW(Label, flags, U32), TQ_ROW(Label, n, U32)};
static_assert(tq::rows_fit(sizeof(Label), kHeadRows));
// One entry, in the same order both ways.
constexpr tqdb_api_item_field_t kEntryRows[]{
    TQ_ROW(Entry, channel, U32),       TQ_ROW(Entry, vlan, U16),
    TQ_ROW(Entry, flags, U32),         TQ_ROW(Entry, int_address, U32),
    TQ_ROW(Entry, int_gateway, U32),   TQ_ROW(Entry, int_heartbeat, U32),
    TQ_ROW(Entry, ext_address, U32),   TQ_ROW(Entry, ext_gateway, U32),
    TQ_ROW(Entry, ext_heartbeat, U32)};
static_assert(tq::rows_fit(sizeof(Entry), kEntryRows));
constexpr uint32_t kEntryBytes = 34;  // on the wire

void free_label(Label *l) {
  if (l == nullptr) return;
  if (l->channels != nullptr) tq_free_flags(l->channels);
  tq_free_flags(l);
}

// One label with its entries; nullptr when cut short (released).
Label *read_label(tq::ReplyReader &r) {
  auto *l = tq_new_record<Label>(kLabelLabel);
  tq::read_rows(r, kHeadRows, l);
  if (r.ok() && l->n != 0) {
    // A count larger than the body can hold is a label cut short: its
    // entries run out one past what the body holds, so no more are
    // allocated than that.
    const uint32_t room = std::min(l->n, r.left() / kEntryBytes + 1);
    l->channels = static_cast<Entry *>(tq_zalloc(kEntryLabel, size_t{room} * sizeof(Entry)));
    for (uint32_t i = 0; i < room && r.ok(); ++i) tq::read_rows(r, kEntryRows, &l->channels[i]);
  }
  if (r.ok()) return l;
  free_label(l);
  return nullptr;
}

}  // namespace

uint32_t tqdb_api_channel_label_list(tqdb_api_handle_t *h, uint32_t session, uint8_t role) {
  return tqdb_api_send(h, TQDB_REQ_CHANNEL_LABEL_LIST, session, role);
}

uint32_t tqdb_api_channel_divert_label_list(tqdb_api_handle_t *h, uint32_t session) {
  return tqdb_api_channel_label_list(h, session, TQDB_CHANNEL_ROLE_DIVERT);
}

uint32_t tqdb_api_channel_monitor_label_list(tqdb_api_handle_t *h, uint32_t session) {
  return tqdb_api_channel_label_list(h, session, TQDB_CHANNEL_ROLE_MONITOR);
}

uint32_t tqdb_api_channel_label_add(tqdb_api_handle_t *h, uint32_t session, uint8_t role,
                                    const char *name, uint32_t flags) {
  return tqdb_api_send(h, TQDB_REQ_CHANNEL_LABEL_ADD, session, role, name, flags);
}

uint32_t tqdb_api_channel_label_rename(tqdb_api_handle_t *h, uint32_t session, uint32_t id,
                                       const char *name, uint32_t flags) {
  return tqdb_api_send(h, TQDB_REQ_CHANNEL_LABEL_RENAME, session, id, name, flags);
}

uint32_t tqdb_api_channel_label_channels_set(tqdb_api_handle_t *h, uint32_t session, uint32_t id,
                                             std::span<const Entry> channels) {
  // Header, id and count take 16 bytes; entries that do not all fit would
  // leave a count the body does not hold.
  if (channels.size() > (TQ_MSG_MAX_DATA - 16) / kEntryBytes) return 0;
  return tqdb_api_request(h, TQDB_REQ_CHANNEL_LABEL_CHANNELS_SET, session, [&](tq_msg_t *m) {
    tqdb_api_put(m, id);
    tqdb_api_put(m, static_cast<uint32_t>(channels.size()));
    for (const Entry &e : channels) tq::write_rows(m, kEntryRows, &e);
  });
}

uint32_t tqdb_api_channel_label_remove(tqdb_api_handle_t *h, uint32_t session, uint32_t id) {
  return tqdb_api_send(h, TQDB_REQ_CHANNEL_LABEL_REMOVE, session, id);
}

tq_list_t *tqdb_api_channel_label_list_handle(tqdb_api_msg_t *env, tq_list_t *list) {
  if (tqdb_api_msg_get_type(env) != TQDB_API_MSG_TYPE_DATA) return list;
  tq::ReplyReader r(env, "tqdb_api_channel_label_list_handle");
  tq_list_t *fresh = nullptr;  // newest first
  while (r.left() > 0) {
    Label *l = read_label(r);
    if (l == nullptr) break;
    tq_list_t *node = tq_list_new(0, fresh, l);
    if (node == nullptr) {
      free_label(l);
      break;
    }
    fresh = node;
  }
  return tq_list_concat(list, tq_list_reverse(fresh));
}

void tqdb_api_channel_label_list_free(tq_list_t *list) {
  for (tq_list_t *n = list; n != nullptr; n = n->next) {
    free_label(static_cast<Label *>(n->data));
    n->data = nullptr;
  }
  tq_list_free(list);
}

uint32_t tqdb_api_channel_label_add_handle(tqdb_api_msg_t *env) {
  if (tqdb_api_msg_get_type(env) != TQDB_API_MSG_TYPE_DATA) return 0;
  tq::ReplyReader r(env, "tqdb_api_channel_label_add_handle");
  return r.u32();
}
