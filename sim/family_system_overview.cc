// The system overview (0x1A402 to 0x1A40B), resource 13. Announcing and
// posting values are what systems do all the time: they reach the
// committed contents at once (or the session's own transaction when it
// holds 13) and are refused with LOCK while another session holds it.
// Deleting a system and adding system information need the session's own
// transaction. Lists and gets read what the session sees.
#include <algorithm>
#include <cstdio>

#include "answer.h"
#include "dispatch.h"
#include "options.h"
#include "overview.h"
#include "state.h"
#include "tqdb_api.h"
#include "tqdb_api_system_overview.h"
#include "users.h"
#include "util.h"

namespace tqsim {
namespace {

constexpr uint32_t kOverviewResource = TQDB_RESOURCE_SYSTEM_OVERVIEW;
constexpr std::size_t kSysinfoKeyMax = 255;
constexpr std::size_t kSysinfoValueMax = 1023;
constexpr std::size_t kSysinfoSystemMax = 255;

Resource &overview_resource(Call &c) { return *c.store.resource(kOverviewResource); }
const SystemOverview &view(Call &c) { return c.view(overview_resource(c)).overview; }

Out &u64(Out &o, uint64_t v) {
  return o.u32(static_cast<uint32_t>(v >> 32)).u32(static_cast<uint32_t>(v));
}

void put_system(Out &o, const OverviewSystem &s) {
  o.u32(s.id).text(s.name).text(s.host);
  u64(o, s.lastupdate);
  u64(o, s.firstupdate);
  o.text(s.distversion).text(s.drdlrevision).text(s.configmd5).text(s.model);
  const auto values = s.current();
  o.u32(static_cast<uint32_t>(values.size()));
  for (const auto &[templateid, value] : values) {
    u64(o.u32(templateid), value);
    const OverviewTemplate *t = overview_template(templateid);
    o.text(t ? overview_value_text(*t, value) : std::string());
  }
}

const OverviewSystem *find_system(Call &c, const SystemOverview &o, uint32_t id) {
  auto it = o.systems.find(id);
  if (it == o.systems.end()) {
    c.error(format("Unknown system %u", id));
    return nullptr;
  }
  return &it->second;
}

// Empty when every text fits its field, else the refusal.
struct TextLimit {
  const char *what;
  std::size_t max;
};
std::string too_long(std::initializer_list<std::pair<TextLimit, const std::string *>> texts) {
  for (const auto &[limit, text] : texts)
    if (text->size() > limit.max)
      return format("%s has at most %zu bytes, not %zu", limit.what, limit.max, text->size());
  return {};
}

// Announcing and posting change the overview without a transaction, so
// they ask for the write permission that beginning one would.
ResourceData *live_overview(Call &c) {
  if (!permitted(c, kOverviewResource, Permission::kWrite)) return nullptr;
  return c.edit(overview_resource(c));
}

// Systems announce and post outside transactions; the state file keeps an
// announcement made so even when no commit follows.
void keep_announcement(Call &c) {
  const std::string &path = c.hub.options().state_file;
  std::string why;
  if (overview_resource(c).holder == 0 && !path.empty() && !save_state(c.store, path, why))
    std::fprintf(stderr, "tqdbsim: %s\n", why.c_str());
}

// Body: u32 systemid, name, distversion, drdlrevision, configmd5, model.
void announce(Call &c) {
  OverviewSystem s;
  if (!c.in.u32(s.id) || !c.in.text(s.name) || !c.in.text(s.distversion) ||
      !c.in.text(s.drdlrevision) || !c.in.text(s.configmd5) || !c.in.text(s.model) || !c.in.end())
    return c.malformed();
  if (s.id == 0) return c.error("A system id cannot be 0");
  if (std::string why = too_long({{{"A system name", 64}, &s.name},
                                  {{"A distversion", 64}, &s.distversion},
                                  {{"A drdlrevision", 64}, &s.drdlrevision},
                                  {{"A configmd5", 32}, &s.configmd5},
                                  {{"A model", 64}, &s.model}});
      !why.empty())
    return c.error(why);
  ResourceData *d = live_overview(c);
  if (!d) return;
  const uint64_t now = c.hub.now();
  s.host = c.hub.peer_host(c.conn);
  s.lastupdate = now;
  auto [it, fresh] = d->overview.systems.try_emplace(s.id);
  s.firstupdate = fresh ? now : it->second.firstupdate;
  s.history = std::move(it->second.history);
  it->second = std::move(s);
  c.ok();
  keep_announcement(c);
}

// Body: u32 systemid, u32 n, n x (u32 templateid, u64 value). All or
// nothing: one unknown template refuses the whole post.
void values_post(Call &c) {
  uint32_t id = 0, n = 0;
  if (!c.in.u32(id) || !c.in.u32(n)) return c.malformed();
  std::vector<OverviewPoint> points;  // grows with what the body holds, not with n
  for (uint32_t i = 0; i < n; ++i) {
    OverviewPoint &p = points.emplace_back();
    if (!c.in.u32(p.templateid) || !c.in.u64(p.value)) return c.malformed();
  }
  if (!c.in.end()) return c.malformed();
  for (const OverviewPoint &p : points)
    if (!overview_template(p.templateid))
      return c.error(format("Unknown template %u", p.templateid));
  ResourceData *d = live_overview(c);
  if (!d) return;
  auto it = d->overview.systems.find(id);
  if (it == d->overview.systems.end())
    return c.error(format("Unknown system %u: it must announce itself first", id));
  const uint64_t now = c.hub.now();
  for (const OverviewPoint &p : points) it->second.post(p.templateid, p.value, now);
  it->second.lastupdate = now;
  c.ok();
}

void list(Call &c) {
  if (!c.in.end()) return c.malformed();
  const SystemOverview &o = view(c);
  if (o.systems.empty()) return c.ok();
  ListAnswer a(c);
  for (const auto &[id, s] : o.systems) {
    put_system(a.out(), s);
    a.next();
  }
  a.finish();
}

void system_get(Call &c) {
  uint32_t id = 0;
  if (!c.in.u32(id) || !c.in.end()) return c.malformed();
  const OverviewSystem *s = find_system(c, view(c), id);
  if (!s) return;
  Out o;
  put_system(o, *s);
  c.answer(o);
}

void template_list(Call &c) {
  if (!c.in.end()) return c.malformed();
  ListAnswer a(c);
  for (const OverviewTemplate &t : overview_templates()) {
    a.out().u32(t.templateid).text(t.name).u32(t.type).u32(t.flags).u32(t.vtype).text(t.zone);
    a.out().u32(t.id).text(t.descstr).u32(t.ttype);
    a.next();
  }
  a.finish();
}

// Body: u32 systemid, u32 templateid. The points of the template, oldest
// first.
void system_graph(Call &c) {
  uint32_t id = 0, templateid = 0;
  if (!c.in.u32(id) || !c.in.u32(templateid) || !c.in.end()) return c.malformed();
  const OverviewSystem *s = find_system(c, view(c), id);
  if (!s) return;
  if (!overview_template(templateid)) return c.error(format("Unknown template %u", templateid));
  const auto of_template = [&](const OverviewPoint &p) { return p.templateid == templateid; };
  if (std::none_of(s->history.begin(), s->history.end(), of_template)) return c.ok();
  ListAnswer a(c);
  for (const OverviewPoint &p : s->history) {
    if (!of_template(p)) continue;
    u64(u64(a.out(), p.time), p.value);
    a.next();
  }
  a.finish();
}

void system_delete(Call &c) {
  uint32_t id = 0;
  if (!c.in.u32(id) || !c.in.end()) return c.malformed();
  ResourceData *d = c.change(overview_resource(c));
  if (!d || !find_system(c, d->overview, id)) return;
  d->overview.systems.erase(id);
  c.ok();
}

void sysinfo_list_systems(Call &c) {
  if (!c.in.end()) return c.malformed();
  const SystemOverview &o = view(c);
  if (o.sysinfo.empty()) return c.ok();
  ListAnswer a(c);
  for (const auto &[name, r] : o.sysinfo) {
    a.out().text(name);
    a.next();
  }
  a.finish();
}

void sysinfo_get_system(Call &c) {
  std::string name;
  if (!c.in.text(name) || !c.in.end()) return c.malformed();
  const SystemOverview &o = view(c);
  auto it = o.sysinfo.find(name);
  if (it == o.sysinfo.end()) return c.error("No system information for '" + name + "'");
  Out out;
  out.u32(static_cast<uint32_t>(it->second.data.size()));
  for (const auto &[key, value] : it->second.data) out.text(key).text(value);
  c.answer(out);
}

// Body: system, u32 n, n x (key, value): replaces the system's
// information; a key given twice keeps its last value.
void sysinfo_add_system(Call &c) {
  SysinfoRecord r;
  uint32_t n = 0;
  if (!c.in.text(r.system) || !c.in.u32(n)) return c.malformed();
  std::string why;
  for (uint32_t i = 0; i < n; ++i) {
    std::string key, value;
    if (!c.in.text(key) || !c.in.text(value)) return c.malformed();
    if (why.empty() && key.empty()) why = "A system information key cannot be empty";
    if (why.empty())
      why = too_long({{{"A system information key", kSysinfoKeyMax}, &key},
                      {{"A system information value", kSysinfoValueMax}, &value}});
    r.data[key] = std::move(value);
  }
  if (!c.in.end()) return c.malformed();
  if (r.system.empty()) return c.error("A system name cannot be empty");
  if (why.empty()) why = too_long({{{"A system name", kSysinfoSystemMax}, &r.system}});
  if (!why.empty()) return c.error(why);
  ResourceData *d = c.change(overview_resource(c));
  if (!d) return;
  d->overview.sysinfo[r.system] = std::move(r);
  c.ok();
}

constexpr auto H = Header::kSessionCid;
constexpr auto S = Access::kSession;
constexpr Route kRoutes[] = {
    {TQDB_REQ_SYSTEM_OVERVIEW_VALUES_POST, "system_overview_values_post", H, S, values_post},
    {TQDB_REQ_SYSTEM_OVERVIEW_LIST, "system_overview_list", H, S, list},
    {TQDB_REQ_SYSTEM_OVERVIEW_ANNOUNCE, "system_overview_announce", H, S, announce},
    {TQDB_REQ_SYSTEM_OVERVIEW_TEMPLATE_LIST, "system_overview_template_list", H, S, template_list},
    {TQDB_REQ_SYSTEM_OVERVIEW_SYSTEM_GRAPH, "system_overview_system_graph", H, S, system_graph},
    {TQDB_REQ_SYSTEM_OVERVIEW_SYSTEM_GET, "system_overview_system_get", H, S, system_get},
    {TQDB_REQ_SYSTEM_OVERVIEW_SYSINFO_LIST_SYSTEMS, "system_overview_sysinfo_list_systems", H, S,
     sysinfo_list_systems},
    {TQDB_REQ_SYSTEM_OVERVIEW_SYSINFO_GET_SYSTEM, "system_overview_sysinfo_get_system", H, S,
     sysinfo_get_system},
    {TQDB_REQ_SYSTEM_OVERVIEW_SYSINFO_ADD_SYSTEM, "system_overview_sysinfo_add_system", H, S,
     sysinfo_add_system},
    {TQDB_REQ_SYSTEM_OVERVIEW_SYSTEM_DELETE, "system_overview_system_delete", H, S, system_delete},
};

}  // namespace

std::span<const Route> family_system_overview() { return kRoutes; }

}  // namespace tqsim
