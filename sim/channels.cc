#include "channels.h"

#include <algorithm>
#include <array>

#include "dispatch.h"
#include "options.h"
#include "tqdb_api.h"
#include "tqdb_api_channel.h"
#include "util.h"

namespace tqsim {
namespace {

constexpr uint32_t kCopperCaps = TQDB_CHANNEL_CAPS_AUTONEG | TQDB_CHANNEL_CAPS_10HD |
                                 TQDB_CHANNEL_CAPS_10FD | TQDB_CHANNEL_CAPS_100HD |
                                 TQDB_CHANNEL_CAPS_100FD | TQDB_CHANNEL_CAPS_1000FD |
                                 TQDB_CHANNEL_CAPS_10000FD | TQDB_CHANNEL_CAPS_LINK_TOGGLE;
constexpr uint32_t kFibreCaps = TQDB_CHANNEL_CAPS_40000FD | TQDB_CHANNEL_CAPS_100000FD;
constexpr uint32_t kRoleCaps = TQDB_CHANNEL_CAPS_TRAFFIC | TQDB_CHANNEL_CAPS_DIVERT |
                               TQDB_CHANNEL_CAPS_MONITOR | TQDB_CHANNEL_CAPS_FLOWSYNC;

constexpr std::array<std::string_view, 5> kRoles = {"NONE", "TRAFFIC", "DIVERT", "MONITOR",
                                                    "FLOWSYNC"};
constexpr std::array<std::string_view, 9> kMedia = {"AUTO",    "10HD",    "10FD",
                                                    "100HD",   "100FD",   "1000FD",
                                                    "10000FD", "40000FD", "100000FD"};

// The hardware of channel id (1-based).
void lay_hardware(Channel &ch) {
  const uint32_t k = ch.id - 1;
  ch.internal = format("eth%u", 2 * k);
  ch.external = format("eth%u", 2 * k + 1);
  ch.location = format("Slot %u, port pair %u", k / 4 + 1, k % 4 + 1);
  ch.type = TQDB_CHANNEL_TYPE_ENGINE;
  ch.caps = (ch.id % 4 == 0 ? kFibreCaps : kCopperCaps) | kRoleCaps;
}

Channels &seeded(Channels &c, uint32_t n) {
  if (!c.seeded) c.seed(n);
  return c;
}

}  // namespace

void Channels::seed(uint32_t n) {
  seeded = true;
  std::erase_if(channels, [n](const auto &e) { return e.first == 0 || e.first > n; });
  for (uint32_t id = 1; id <= n; ++id) {
    auto [it, added] = channels.try_emplace(id);
    Channel &ch = it->second;
    ch.id = id;
    if (added) ch.label = format("Channel %u", id);
    lay_hardware(ch);
  }
}

void io(Io &io, Channel &c) {
  io.field("id", c.id);
  io.field("active", c.active);
  io.field("label", c.label);
  io.field("internal_media", c.internal_media);
  io.field("external_media", c.external_media);
  io.field("role", c.role);
  io.field("direction", c.direction);
}

void io(Io &io, LabelChannel &e) {
  io.field("channel", e.channel);
  io.field("vlan", e.vlan);
  io.field("flags", e.flags);
  io.field("int_address", e.int_address);
  io.field("int_gateway", e.int_gateway);
  io.field("int_heartbeat", e.int_heartbeat);
  io.field("ext_address", e.ext_address);
  io.field("ext_gateway", e.ext_gateway);
  io.field("ext_heartbeat", e.ext_heartbeat);
}

void io(Io &io, ChannelLabel &l) {
  io.field("id", l.id);
  io.field("role", l.role);
  io.field("name", l.name);
  io.field("flags", l.flags);
  io.list("channels", l.channels);
}

void io(Io &io, Channels &c) {
  io.by_id("channels", c.channels);
  io.by_id("labels", c.labels);
  io.field("next_label_id", c.next_label_id);
  if (!io.loading()) return;
  c.seeded = false;
  if (!c.labels.empty()) c.next_label_id = std::max(c.next_label_id, c.labels.rbegin()->first + 1);
}

const Channels &view_channels(Call &c) {
  Resource &r = *c.store.resource(TQDB_RESOURCE_CHANNELS);
  const uint32_t n = c.hub.options().channels;
  seeded(r.data.channels, n);
  if (r.snapshot) seeded(r.snapshot->channels, n);
  return c.view(r).channels;
}

Channels *change_channels(Call &c) {
  view_channels(c);
  ResourceData *d = c.change(*c.store.resource(TQDB_RESOURCE_CHANNELS));
  return d ? &d->channels : nullptr;
}

const Channel *find_channel(Call &c, const Channels &all, uint32_t id) {
  const auto it = all.channels.find(id);
  if (it != all.channels.end()) return &it->second;
  c.error(format("Unknown channel %u (channels are 1 to %u)", id, c.hub.options().channels));
  return nullptr;
}

std::string channel_name(const Channel &ch) {
  return format("%u (%s/%s)", ch.id, ch.internal.c_str(), ch.external.c_str());
}

std::vector<MonitorIface> monitor_ifaces(uint32_t n) {
  std::vector<MonitorIface> out;
  for (uint32_t k = 0; k <= n; ++k) {
    MonitorIface m;
    m.id = k + 1;
    m.iface = format("mon%u", k);
    m.description = k < n ? format("Monitor port of channel %u", k + 1) : "Spare monitor port";
    m.media = k < n ? TQDB_CHANNEL_MEDIA_AUTO : TQDB_CHANNEL_MEDIA_1000FD;
    out.push_back(std::move(m));
  }
  return out;
}

std::string_view role_name(uint8_t role) { return role < kRoles.size() ? kRoles[role] : "?"; }
std::string_view media_name(uint8_t media) { return media < kMedia.size() ? kMedia[media] : "?"; }

}  // namespace tqsim
