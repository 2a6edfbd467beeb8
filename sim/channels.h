// The simulator's channels, channel labels and monitor interfaces.
//
// The hardware comes from --channels N: channel K (1..N) pairs the
// interfaces "eth<2K-2>" (internal) and "eth<2K-1>" (external); every
// fourth channel is a 40/100G fibre pair without autonegotiation and
// without link toggling, the others are copper pairs up to 10G. Each
// channel has one monitor interface "mon<K-1>", and there is one spare,
// "mon<N>".
//
// What a channel does with its hardware (active, label, media, role,
// direction) and the labels of the divert and monitor roles are the
// contents of resource 2 ("channels"): changed in a transaction and saved.
// Link states are the running appliance's: not transactional, not saved,
// all up at start.
#ifndef TQSIM_CHANNELS_H
#define TQSIM_CHANNELS_H

#include <cstdint>
#include <map>
#include <string>
#include <string_view>
#include <vector>

#include "state_io.h"

namespace tqsim {

struct Call;

inline constexpr std::size_t kChannelLabelMax = 255;  // a channel's label, in bytes
inline constexpr std::size_t kLabelNameMax = 64;      // a channel label's name

struct Channel {
  uint32_t id = 0;
  // Hardware, from --channels (not saved).
  std::string internal, external, location;
  uint32_t type = 0;
  uint32_t caps = 0;
  // Settings (saved).
  uint8_t active = 1;
  std::string label;
  uint8_t internal_media = 0;
  uint8_t external_media = 0;
  uint8_t role = 1;  // traffic
  uint8_t direction = 0;
  // Link states (running state).
  uint8_t internal_up = 1;
  uint8_t external_up = 1;
};

// One channel of a label; addresses are IPv4 in host order.
struct LabelChannel {
  uint32_t channel = 0;
  uint16_t vlan = 0;
  uint32_t flags = 0;
  uint32_t int_address = 0, int_gateway = 0, int_heartbeat = 0;
  uint32_t ext_address = 0, ext_gateway = 0, ext_heartbeat = 0;
};

struct ChannelLabel {
  uint32_t id = 0;
  uint8_t role = 0;  // divert (2) or monitor (3)
  std::string name;
  uint32_t flags = 0;
  std::vector<LabelChannel> channels;
};

struct MonitorIface {
  uint32_t id = 0;
  std::string description;
  std::string iface;
  uint8_t media = 0;
};

// Resource "channels" (2): the channels and their labels.
struct Channels {
  std::map<uint32_t, Channel> channels;
  std::map<uint32_t, ChannelLabel> labels;  // ids shared by both roles
  uint32_t next_label_id = 1;
  // The hardware of --channels has been laid over the saved settings (not
  // saved: a state file or a backup brings settings only).
  bool seeded = false;

  // Channels 1..n with their hardware; saved settings of other ids are dropped.
  void seed(uint32_t n);
};

void io(Io &io, Channel &c);
void io(Io &io, LabelChannel &e);
void io(Io &io, ChannelLabel &l);
void io(Io &io, Channels &c);

// What the calling session sees of the channels / its own transaction's
// channels to change (nullptr: answered already). Both with the hardware
// laid over.
const Channels &view_channels(Call &c);
Channels *change_channels(Call &c);
// The channel, or nullptr after answering "Unknown channel 9 (channels are
// 1 to 4)".
const Channel *find_channel(Call &c, const Channels &all, uint32_t id);
// "2 (eth2/eth3)"
std::string channel_name(const Channel &ch);
// The monitor interfaces of --channels N.
std::vector<MonitorIface> monitor_ifaces(uint32_t n);
// "MONITOR", "1000FD": the names the constants carry.
std::string_view role_name(uint8_t role);
std::string_view media_name(uint8_t media);

}  // namespace tqsim

#endif
