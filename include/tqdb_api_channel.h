// Channels, channel labels and monitor interfaces (api/channel,
// api/channel_label, api/monitoriface).
//
// A channel is one traffic path through the appliance: an internal and an
// external interface with their media settings, a role and a direction.
// Labels name groups of channels for the divert and monitor roles, each
// entry with its VLAN and the addresses used on either side. Monitor
// interfaces are the interfaces a monitor label may copy traffic to.
//
// Decoded records are zero-filled blocks of the tracked allocator under
// their type's name. A label's channel entries are one block of their own
// ("tqdb_api_channel_label_channel_t"), so a label list is released with
// tqdb_api_channel_label_list_free; the other lists are flat.
#ifndef TQDB_API_CHANNEL_H
#define TQDB_API_CHANNEL_H

#include <cstddef>
#include <cstdint>
#include <span>

#include "tqdb_api.h"

struct tq_list_t;

inline constexpr uint32_t TQDB_REQ_CHANNEL_LIST = 0x12001;
inline constexpr uint32_t TQDB_REQ_CHANNEL_UPDATE = 0x12002;
inline constexpr uint32_t TQDB_REQ_CHANNEL_SET_ACTIVE = 0x12003;
inline constexpr uint32_t TQDB_REQ_CHANNEL_GET = 0x12004;
inline constexpr uint32_t TQDB_REQ_CHANNEL_STATS = 0x12005;
inline constexpr uint32_t TQDB_REQ_CHANNEL_LABEL_LIST = 0x12011;
inline constexpr uint32_t TQDB_REQ_CHANNEL_LABEL_ADD = 0x12012;
inline constexpr uint32_t TQDB_REQ_CHANNEL_LABEL_RENAME = 0x12013;
inline constexpr uint32_t TQDB_REQ_CHANNEL_LABEL_CHANNELS_SET = 0x12014;
inline constexpr uint32_t TQDB_REQ_CHANNEL_LABEL_REMOVE = 0x12015;
inline constexpr uint32_t TQDB_REQ_MONITORIFACE_LIST = 0x12021;
inline constexpr uint32_t TQDB_REQ_CHANNEL_LINK_STATES = 0x1A001;
inline constexpr uint32_t TQDB_REQ_CHANNEL_LINK_TOGGLE = 0x1A101;

// Capability bits of a channel (CHANNEL_CAPS_*).
enum tqdb_api_channel_caps : uint32_t {
  TQDB_CHANNEL_CAPS_AUTONEG = 1u << 0,
  TQDB_CHANNEL_CAPS_10HD = 1u << 1,
  TQDB_CHANNEL_CAPS_10FD = 1u << 2,
  TQDB_CHANNEL_CAPS_100HD = 1u << 3,
  TQDB_CHANNEL_CAPS_100FD = 1u << 4,
  TQDB_CHANNEL_CAPS_1000FD = 1u << 5,
  TQDB_CHANNEL_CAPS_10000FD = 1u << 6,
  TQDB_CHANNEL_CAPS_40000FD = 1u << 7,
  TQDB_CHANNEL_CAPS_100000FD = 1u << 8,
  TQDB_CHANNEL_CAPS_TRAFFIC = 1u << 16,
  TQDB_CHANNEL_CAPS_DIVERT = 1u << 17,
  TQDB_CHANNEL_CAPS_MONITOR = 1u << 18,
  TQDB_CHANNEL_CAPS_FLOWSYNC = 1u << 19,
  TQDB_CHANNEL_CAPS_LINK_TOGGLE = 1u << 20,
};
// Media setting of one side (CHANNEL_MEDIA_*): AUTO, then one per speed.
enum tqdb_api_channel_media : uint8_t {
  TQDB_CHANNEL_MEDIA_AUTO = 0,
  TQDB_CHANNEL_MEDIA_10HD = 1,
  TQDB_CHANNEL_MEDIA_10FD = 2,
  TQDB_CHANNEL_MEDIA_100HD = 3,
  TQDB_CHANNEL_MEDIA_100FD = 4,
  TQDB_CHANNEL_MEDIA_1000FD = 5,
  TQDB_CHANNEL_MEDIA_10000FD = 6,
  TQDB_CHANNEL_MEDIA_40000FD = 7,
  TQDB_CHANNEL_MEDIA_100000FD = 8,
};
enum tqdb_api_channel_role : uint8_t {
  TQDB_CHANNEL_ROLE_NONE = 0,
  TQDB_CHANNEL_ROLE_TRAFFIC = 1,
  TQDB_CHANNEL_ROLE_DIVERT = 2,
  TQDB_CHANNEL_ROLE_MONITOR = 3,
  TQDB_CHANNEL_ROLE_FLOWSYNC = 4,
};
enum tqdb_api_channel_type : uint32_t {
  TQDB_CHANNEL_TYPE_ENGINE = 0,
  TQDB_CHANNEL_TYPE_EXT = 1,
  TQDB_CHANNEL_TYPE_PARTIAL = 2,
  TQDB_CHANNEL_TYPE_EXT_DEBUG = 3,
};
enum tqdb_api_channel_direction : uint8_t {
  TQDB_CHANNEL_DIRECTION_DEFAULT = 0,
  TQDB_CHANNEL_DIRECTION_REVERSE = 1,
  TQDB_CHANNEL_DIRECTION_INTERNAL = 2,
  TQDB_CHANNEL_DIRECTION_EXTERNAL = 3,
};

inline constexpr size_t TQDB_API_CHANNEL_TEXT_MAX = 255;   // label, location, description
inline constexpr size_t TQDB_API_CHANNEL_IFACE_MAX = 15;   // an interface name
inline constexpr size_t TQDB_API_CHANNEL_LABEL_NAME_MAX = 64;
inline constexpr size_t TQDB_API_CHANNEL_STATS_FIELDS = 8;  // CHANNELSTATS_TFIELDS_* order

struct tqdb_api_channel_t {
  uint32_t id;
  uint8_t active;  // 0 or 1
  char label[TQDB_API_CHANNEL_TEXT_MAX + 1];
  char location[TQDB_API_CHANNEL_TEXT_MAX + 1];
  char internal[TQDB_API_CHANNEL_IFACE_MAX + 1];
  uint8_t internal_media;  // tqdb_api_channel_media
  char external[TQDB_API_CHANNEL_IFACE_MAX + 1];
  uint8_t external_media;
  uint32_t type;  // tqdb_api_channel_type
  uint32_t caps;  // tqdb_api_channel_caps bits
  uint8_t role;   // tqdb_api_channel_role
  uint8_t direction;  // tqdb_api_channel_direction
};

// One channel of a label. Addresses are IPv4 in host order, 0: none.
struct tqdb_api_channel_label_channel_t {
  uint32_t channel;
  uint16_t vlan;
  uint32_t flags;
  uint32_t int_address;
  uint32_t int_gateway;
  uint32_t int_heartbeat;
  uint32_t ext_address;
  uint32_t ext_gateway;
  uint32_t ext_heartbeat;
};

struct tqdb_api_channel_label_t {
  uint32_t id;
  char name[TQDB_API_CHANNEL_LABEL_NAME_MAX + 1];
  uint32_t flags;
  uint32_t n;
  // n entries in a block of their own, owned by the label; nullptr when n is 0.
  tqdb_api_channel_label_channel_t *channels;
};

struct tqdb_api_monitoriface_t {
  uint32_t id;
  char description[TQDB_API_CHANNEL_TEXT_MAX + 1];
  char iface[TQDB_API_CHANNEL_IFACE_MAX + 1];
  uint8_t media;  // tqdb_api_channel_media
};

// Whether each side of a channel has its link up.
struct tqdb_api_channel_link_t {
  uint32_t channel;
  uint8_t internal_up;
  uint8_t external_up;
};

// --- channels (api/channel) ----------------------------------------------------------------
uint32_t tqdb_api_channel_list(tqdb_api_handle_t *h, uint32_t session);
uint32_t tqdb_api_channel_get(tqdb_api_handle_t *h, uint32_t session, uint32_t id);
// Sends channel's id and active byte with the new settings; 0 at once (no
// correlation id used) for a null channel or session 0. A label too long
// for the message is left out.
uint32_t tqdb_api_channel_update(tqdb_api_handle_t *h, uint32_t session,
                                 const tqdb_api_channel_t *channel, const char *label,
                                 uint8_t internal_media, uint8_t external_media, uint8_t role,
                                 uint8_t direction);
uint32_t tqdb_api_channel_set_active(tqdb_api_handle_t *h, uint32_t session, uint32_t id,
                                     uint8_t active);
uint32_t tqdb_api_channel_stats(tqdb_api_handle_t *h, uint32_t session, uint32_t id);
uint32_t tqdb_api_channel_link_states(tqdb_api_handle_t *h, uint32_t session);
uint32_t tqdb_api_channel_link_toggle(tqdb_api_handle_t *h, uint32_t session, uint32_t channel);

// Appends the reply's channels (label "tqdb_api_channel_t") in wire order;
// serves the list and the get answers. A channel cut short is released and
// ends the list. Released with tq_list_free_with_data.
tq_list_t *tqdb_api_channel_list_handle(tqdb_api_msg_t *env, tq_list_t *list);
// The totals of one channel; false (out zeroed) for any other reply or one
// cut short.
bool tqdb_api_channel_stats_handle(tqdb_api_msg_t *env,
                                   uint64_t (&out)[TQDB_API_CHANNEL_STATS_FIELDS]);
// Appends the reply's link states (label "tqdb_api_channel_link_t").
tq_list_t *tqdb_api_channel_link_states_handle(tqdb_api_msg_t *env, tq_list_t *list);

// --- channel labels (api/channel_label) ----------------------------------------------------
// role: TQDB_CHANNEL_ROLE_DIVERT or _MONITOR.
uint32_t tqdb_api_channel_label_list(tqdb_api_handle_t *h, uint32_t session, uint8_t role);
uint32_t tqdb_api_channel_divert_label_list(tqdb_api_handle_t *h, uint32_t session);
uint32_t tqdb_api_channel_monitor_label_list(tqdb_api_handle_t *h, uint32_t session);
uint32_t tqdb_api_channel_label_add(tqdb_api_handle_t *h, uint32_t session, uint8_t role,
                                    const char *name, uint32_t flags);
uint32_t tqdb_api_channel_label_rename(tqdb_api_handle_t *h, uint32_t session, uint32_t id,
                                       const char *name, uint32_t flags);
// Replaces the label's channels. 0 when the entries do not fit in one message.
uint32_t tqdb_api_channel_label_channels_set(
    tqdb_api_handle_t *h, uint32_t session, uint32_t id,
    std::span<const tqdb_api_channel_label_channel_t> channels);
uint32_t tqdb_api_channel_label_remove(tqdb_api_handle_t *h, uint32_t session, uint32_t id);

// Appends the reply's labels (label "tqdb_api_channel_label_t", entries
// "tqdb_api_channel_label_channel_t") in wire order. A label cut short,
// entries included, is released and ends the list.
tq_list_t *tqdb_api_channel_label_list_handle(tqdb_api_msg_t *env, tq_list_t *list);
// Releases the labels, their entries and the nodes.
void tqdb_api_channel_label_list_free(tq_list_t *list);
// The new label's id from a DATA reply; 0 for any other reply or one cut short.
uint32_t tqdb_api_channel_label_add_handle(tqdb_api_msg_t *env);

// --- monitor interfaces (api/monitoriface) -------------------------------------------------
uint32_t tqdb_api_monitoriface_list(tqdb_api_handle_t *h, uint32_t session);
// Appends the reply's interfaces (label "tqdb_api_monitoriface_t") in wire
// order. Released with tq_list_free_with_data.
tq_list_t *tqdb_api_monitoriface_list_handle(tqdb_api_msg_t *env, tq_list_t *list);

#endif
