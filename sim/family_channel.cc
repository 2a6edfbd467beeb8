// Channels (0x12001-0x12005) and their link states (0x1A001, 0x1A101).
// Settings change in the session's own transaction on resource 2
// (channels); links are toggled at once, as on the running appliance.
#include "answer.h"
#include "channels.h"
#include "dispatch.h"
#include "options.h"
#include "tqdb_api.h"
#include "tqdb_api_channel.h"
#include "util.h"

namespace tqsim {
namespace {

void put_channel(Out &o, const Channel &ch) {
  o.u32(ch.id).u8(ch.active).text(ch.label).text(ch.location).text(ch.internal);
  o.u8(ch.internal_media).text(ch.external).u8(ch.external_media).u32(ch.type).u32(ch.caps);
  o.u8(ch.role).u8(ch.direction);
}

void list(Call &c) {
  if (!c.in.end()) return c.malformed();
  const Channels &all = view_channels(c);
  if (all.channels.empty()) return c.ok();
  ListAnswer a(c);
  for (const auto &[id, ch] : all.channels) {
    put_channel(a.out(), ch);
    a.next();
  }
  a.finish();
}

void get(Call &c) {
  uint32_t id = 0;
  if (!c.in.u32(id) || !c.in.end()) return c.malformed();
  const Channel *ch = find_channel(c, view_channels(c), id);
  if (!ch) return;
  Out o;
  put_channel(o, *ch);
  c.answer(o);
}

std::string active_problem(uint8_t active) {
  return active <= 1 ? std::string() : format("active is 0 or 1, not %u", active);
}

// Empty when the channel's hardware can run side `side` at media m.
std::string media_problem(const Channel &ch, const char *side, uint8_t m) {
  if (m > TQDB_CHANNEL_MEDIA_100000FD)
    return format("Media %u is not one of CHANNEL_MEDIA_* (0 to 8)", m);
  const uint32_t need = m == TQDB_CHANNEL_MEDIA_AUTO ? TQDB_CHANNEL_CAPS_AUTONEG : 1u << m;
  if ((ch.caps & need) != 0) return {};
  return "Channel " + channel_name(ch) + " cannot run its " + side + " side at media " +
         std::string(media_name(m));
}

// The capability a role needs; 0 for NONE.
uint32_t role_cap(uint8_t role) {
  switch (role) {
    case TQDB_CHANNEL_ROLE_TRAFFIC: return TQDB_CHANNEL_CAPS_TRAFFIC;
    case TQDB_CHANNEL_ROLE_DIVERT: return TQDB_CHANNEL_CAPS_DIVERT;
    case TQDB_CHANNEL_ROLE_MONITOR: return TQDB_CHANNEL_CAPS_MONITOR;
    case TQDB_CHANNEL_ROLE_FLOWSYNC: return TQDB_CHANNEL_CAPS_FLOWSYNC;
    default: return 0;
  }
}

std::string role_problem(const Channel &ch, uint8_t role) {
  if (role > TQDB_CHANNEL_ROLE_FLOWSYNC)
    return format("Role %u is not one of CHANNEL_ROLE_* (0 to 4)", role);
  if ((ch.caps & role_cap(role)) == role_cap(role)) return {};
  return "Channel " + channel_name(ch) + " cannot take the " + std::string(role_name(role)) +
         " role";
}

// Body: u32 id, u8 active, label, u8 internal media, u8 external media,
// u8 role, u8 direction. The label may be left out (a client leaves out
// one too long for its message): the channel keeps its label.
void update(Call &c) {
  uint32_t id = 0;
  uint8_t active = 0, imedia = 0, emedia = 0, role = 0, direction = 0;
  std::string label;
  if (!c.in.u32(id) || !c.in.u8(active)) return c.malformed();
  const bool has_label = c.in.left() > 4;
  if (has_label && !c.in.text(label)) return c.malformed();
  if (!c.in.u8(imedia) || !c.in.u8(emedia) || !c.in.u8(role) || !c.in.u8(direction) ||
      !c.in.end())
    return c.malformed();
  Channels *all = change_channels(c);
  if (!all) return;
  const Channel *found = find_channel(c, *all, id);
  if (!found) return;
  Channel ch = *found;
  std::string why = active_problem(active);
  if (why.empty() && label.size() > kChannelLabelMax)
    why = format("A channel label has at most %zu bytes, not %zu", kChannelLabelMax, label.size());
  if (why.empty()) why = media_problem(ch, "internal", imedia);
  if (why.empty()) why = media_problem(ch, "external", emedia);
  if (why.empty()) why = role_problem(ch, role);
  if (why.empty() && direction > TQDB_CHANNEL_DIRECTION_EXTERNAL)
    why = format("Direction %u is not one of CHANNEL_DIRECTION_* (0 to 3)", direction);
  if (!why.empty()) return c.error(why);
  ch.active = active;
  if (has_label) ch.label = label;
  ch.internal_media = imedia;
  ch.external_media = emedia;
  ch.role = role;
  ch.direction = direction;
  all->channels[id] = std::move(ch);
  c.ok();
}

void set_active(Call &c) {
  uint32_t id = 0;
  uint8_t active = 0;
  if (!c.in.u32(id) || !c.in.u8(active) || !c.in.end()) return c.malformed();
  Channels *all = change_channels(c);
  if (!all || !find_channel(c, *all, id)) return;
  if (std::string why = active_problem(active); !why.empty()) return c.error(why);
  all->channels[id].active = active;
  c.ok();
}

// Totals made up from the channel's id so that they are the same on every
// run; an inactive channel has no speed.
void stats(Call &c) {
  uint32_t id = 0;
  if (!c.in.u32(id) || !c.in.end()) return c.malformed();
  const Channel *ch = find_channel(c, view_channels(c), id);
  if (!ch) return;
  const uint64_t base = uint64_t{id} * 1000003u;
  const uint64_t speed = ch->active ? uint64_t{id} * 100000000u : 0;
  const uint64_t totals[TQDB_API_CHANNEL_STATS_FIELDS] = {
      base * 7, base * 5, speed, speed / 2, id, 0, uint64_t{id} * 3, uint64_t{id} * 2};
  Out o;
  for (const uint64_t v : totals) o.u32(static_cast<uint32_t>(v >> 32)).u32(static_cast<uint32_t>(v));
  c.answer(o);
}

void link_states(Call &c) {
  if (!c.in.end()) return c.malformed();
  const Channels &all = view_channels(c);
  if (all.channels.empty()) return c.ok();
  ListAnswer a(c);
  for (const auto &[id, ch] : all.channels) {
    a.out().u32(id).u8(ch.internal_up).u8(ch.external_up);
    a.next();
  }
  a.finish();
}

// Links are not part of a transaction: a toggle shows in the live contents
// and in the snapshot alike, so neither a commit nor a rollback undoes it.
// Another session holding resource 2 keeps others out.
void link_toggle(Call &c) {
  uint32_t id = 0;
  if (!c.in.u32(id) || !c.in.end()) return c.malformed();
  Resource &r = *c.store.resource(TQDB_RESOURCE_CHANNELS);
  const Channel *ch = find_channel(c, view_channels(c), id);
  if (!ch) return;
  if ((ch->caps & TQDB_CHANNEL_CAPS_LINK_TOGGLE) == 0)
    return c.error("Channel " + channel_name(*ch) + " cannot toggle its links");
  if (!c.edit(r)) return;
  for (ResourceData *d : {&r.data, r.snapshot ? &*r.snapshot : nullptr}) {
    if (!d) continue;
    Channel &live = d->channels.channels[id];
    live.internal_up ^= 1u;
    live.external_up ^= 1u;
  }
  c.ok();
}

constexpr auto H = Header::kSessionCid;
constexpr auto S = Access::kSession;
constexpr Route kRoutes[] = {
    {TQDB_REQ_CHANNEL_LIST, "channel_list", H, S, list},
    {TQDB_REQ_CHANNEL_UPDATE, "channel_update", H, S, update},
    {TQDB_REQ_CHANNEL_SET_ACTIVE, "channel_set_active", H, S, set_active},
    {TQDB_REQ_CHANNEL_GET, "channel_get", H, S, get},
    {TQDB_REQ_CHANNEL_STATS, "channel_stats", H, S, stats},
    {TQDB_REQ_CHANNEL_LINK_STATES, "channel_link_states", H, S, link_states},
    {TQDB_REQ_CHANNEL_LINK_TOGGLE, "channel_link_toggle", H, S, link_toggle},
};

}  // namespace

std::span<const Route> family_channel() { return kRoutes; }

}  // namespace tqsim
