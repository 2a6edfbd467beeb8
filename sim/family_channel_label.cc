// Channel labels (0x12011-0x12015): named groups of channels for the
// divert and monitor roles. Changes need the session's own transaction on
// resource 2 (channels).
#include <algorithm>
#include <cctype>
#include <set>
#include <utility>

#include "answer.h"
#include "channels.h"
#include "dispatch.h"
#include "tqdb_api.h"
#include "tqdb_api_channel.h"
#include "util.h"

namespace tqsim {
namespace {

constexpr uint32_t kVlanMax = 4095;

// Empty when labels may have this role, else the refusal.
std::string role_problem(uint8_t role) {
  if (role == TQDB_CHANNEL_ROLE_DIVERT || role == TQDB_CHANNEL_ROLE_MONITOR) return {};
  return format("Channel labels have the divert (2) or monitor (3) role, not %u", role);
}

std::string lower(std::string_view s) {
  std::string out(s);
  std::transform(out.begin(), out.end(), out.begin(), [](unsigned char ch) { return std::tolower(ch); });
  return out;
}

// Empty when a label `name` of `role` may be stored (in place of label id,
// if any), else the refusal. Names are unique per role.
std::string name_problem(const Channels &all, uint8_t role, const std::string &name, uint32_t id) {
  if (name.empty() || name.size() > kLabelNameMax)
    return format("A channel label name has 1 to %zu characters, not %zu", kLabelNameMax,
                  name.size());
  for (const auto &[other_id, l] : all.labels)
    if (other_id != id && l.role == role && l.name == name)
      return "A " + lower(role_name(role)) + " label named '" + name + "' exists already";
  return {};
}

void put_entry(Out &o, const LabelChannel &e) {
  o.u32(e.channel).u16(e.vlan).u32(e.flags).u32(e.int_address).u32(e.int_gateway);
  o.u32(e.int_heartbeat).u32(e.ext_address).u32(e.ext_gateway).u32(e.ext_heartbeat);
}

bool read_entry(Body &in, LabelChannel &e) {
  return in.u32(e.channel) && in.u16(e.vlan) && in.u32(e.flags) && in.u32(e.int_address) &&
         in.u32(e.int_gateway) && in.u32(e.int_heartbeat) && in.u32(e.ext_address) &&
         in.u32(e.ext_gateway) && in.u32(e.ext_heartbeat);
}

ChannelLabel *find_label(Call &c, Channels &all, uint32_t id) {
  const auto it = all.labels.find(id);
  if (it != all.labels.end()) return &it->second;
  c.error(format("Unknown channel label %u", id));
  return nullptr;
}

// Body: u8 role.
void list(Call &c) {
  uint8_t role = 0;
  if (!c.in.u8(role) || !c.in.end()) return c.malformed();
  if (std::string why = role_problem(role); !why.empty()) return c.error(why);
  const Channels &all = view_channels(c);
  const bool any = std::any_of(all.labels.begin(), all.labels.end(),
                               [role](const auto &e) { return e.second.role == role; });
  if (!any) return c.ok();
  ListAnswer a(c);
  for (const auto &[id, l] : all.labels) {
    if (l.role != role) continue;
    a.out().u32(l.id).text(l.name).u32(l.flags).u32(static_cast<uint32_t>(l.channels.size()));
    for (const LabelChannel &e : l.channels) put_entry(a.out(), e);
    a.next();
  }
  a.finish();
}

// Body: u8 role, name, u32 flags. Answer: the new label's id.
void add(Call &c) {
  ChannelLabel l;
  if (!c.in.u8(l.role) || !c.in.text(l.name) || !c.in.u32(l.flags) || !c.in.end())
    return c.malformed();
  if (std::string why = role_problem(l.role); !why.empty()) return c.error(why);
  Channels *all = change_channels(c);
  if (!all) return;
  if (std::string why = name_problem(*all, l.role, l.name, 0); !why.empty()) return c.error(why);
  while (all->next_label_id == 0 || all->labels.contains(all->next_label_id)) ++all->next_label_id;
  l.id = all->next_label_id++;
  const uint32_t id = l.id;
  all->labels.emplace(id, std::move(l));
  c.answer(Out().u32(id));
}

// Body: u32 id, name, u32 flags.
void rename(Call &c) {
  uint32_t id = 0, flags = 0;
  std::string name;
  if (!c.in.u32(id) || !c.in.text(name) || !c.in.u32(flags) || !c.in.end()) return c.malformed();
  Channels *all = change_channels(c);
  if (!all) return;
  ChannelLabel *l = find_label(c, *all, id);
  if (!l) return;
  if (std::string why = name_problem(*all, l->role, name, id); !why.empty()) return c.error(why);
  l->name = std::move(name);
  l->flags = flags;
  c.ok();
}

// Body: u32 id, u32 n, n entries. The entries replace the label's: each
// names a channel that can take the label's role, at most once per VLAN.
void channels_set(Call &c) {
  uint32_t id = 0, n = 0;
  if (!c.in.u32(id) || !c.in.u32(n)) return c.malformed();
  std::vector<LabelChannel> entries;
  for (uint32_t i = 0; i < n; ++i) {
    LabelChannel e;
    if (!read_entry(c.in, e)) return c.malformed();
    entries.push_back(e);
  }
  if (!c.in.end()) return c.malformed();
  Channels *all = change_channels(c);
  if (!all) return;
  ChannelLabel *l = find_label(c, *all, id);
  if (!l) return;
  const uint32_t need =
      l->role == TQDB_CHANNEL_ROLE_DIVERT ? TQDB_CHANNEL_CAPS_DIVERT : TQDB_CHANNEL_CAPS_MONITOR;
  std::set<std::pair<uint32_t, uint16_t>> seen;
  for (const LabelChannel &e : entries) {
    const Channel *ch = find_channel(c, *all, e.channel);
    if (!ch) return;
    if ((ch->caps & need) == 0)
      return c.error("Channel " + channel_name(*ch) + " cannot take the " +
                     std::string(role_name(l->role)) + " role of label " + format("%u", id));
    if (e.vlan > kVlanMax)
      return c.error(format("VLAN %u of channel %u is not 0 to %u", e.vlan, e.channel, kVlanMax));
    if (!seen.emplace(e.channel, e.vlan).second)
      return c.error(format("Channel %u VLAN %u appears twice in label %u", e.channel, e.vlan, id));
  }
  l->channels = std::move(entries);
  c.ok();
}

// Body: u32 id.
void remove(Call &c) {
  uint32_t id = 0;
  if (!c.in.u32(id) || !c.in.end()) return c.malformed();
  Channels *all = change_channels(c);
  if (!all || !find_label(c, *all, id)) return;
  all->labels.erase(id);
  c.ok();
}

constexpr auto H = Header::kSessionCid;
constexpr auto S = Access::kSession;
constexpr Route kRoutes[] = {
    {TQDB_REQ_CHANNEL_LABEL_LIST, "channel_label_list", H, S, list},
    {TQDB_REQ_CHANNEL_LABEL_ADD, "channel_label_add", H, S, add},
    {TQDB_REQ_CHANNEL_LABEL_RENAME, "channel_label_rename", H, S, rename},
    {TQDB_REQ_CHANNEL_LABEL_CHANNELS_SET, "channel_label_channels_set", H, S, channels_set},
    {TQDB_REQ_CHANNEL_LABEL_REMOVE, "channel_label_remove", H, S, remove},
};

}  // namespace

std::span<const Route> family_channel_label() { return kRoutes; }

}  // namespace tqsim
