// Dynamic live views (0x1ACxx), kept under resource "dynamicliveview" (23):
// edits need a transaction on it.
//
// The list answer is a tagged stream: tag 0 a view, 1 a distribution, 2 a
// filter, 3 a filter value, each part naming its view (and a value its
// filter). The client puts every record at the head of its list and finds
// a part's view (and filter) among those it already has, so views go last
// first, each followed by its parts, each kind last first, a filter's
// values right after the filter.
#include "ruleset_calls.h"
#include "tqdb_api_ruleset.h"
#include "util.h"

namespace tqsim {
namespace {

constexpr uint8_t kTagView = 0, kTagDistribution = 1, kTagFilter = 2, kTagValue = 3;

bool read_name(Body &in, LiveView &v) { return in.text(v.name); }

// Live views are named by number in texts; nothing refers to them.
constexpr NamedKind<LiveView, LiveViews> kViews{
    change_liveviews,
    &LiveViews::views,
    &LiveViews::last_view,
    [](uint32_t id) { return format("No live view %u", id); },
    [](const LiveViews &, const std::string &name, uint32_t other) {
      return format("A live view named '%s' already exists: live view %u", name.c_str(), other);
    },
    nullptr,
    read_name,
    nullptr,
};

template <class V, class F>
void reversed(const V &v, F f) {
  for (auto it = v.rbegin(); it != v.rend(); ++it) f(*it);
}

void list(Call &c) {
  if (!c.in.end()) return c.malformed();
  ListAnswer a(c);
  const LiveViews &lv = view_liveviews(c);
  for (auto it = lv.views.rbegin(); it != lv.views.rend(); ++it) {
    const LiveView &v = it->second;
    put_audit(a.out().u8(kTagView).u32(v.id).text(v.name), v.audit);
    a.next();
    reversed(v.distributions, [&](const LiveDistribution &d) {
      a.out().u8(kTagDistribution).u32(d.id).u32(v.id).text(d.distribution).text(d.argument);
      a.next();
    });
    reversed(v.filters, [&](const LiveFilter &f) {
      a.out().u8(kTagFilter).u32(f.id).u32(v.id).u8(f.op).text(f.key);
      a.next();
      reversed(f.values, [&](const LiveFilterValue &x) {
        a.out().u8(kTagValue).u32(x.id).u32(v.id).u32(f.id).text(x.value);
        a.next();
      });
    });
  }
  a.finish();
}

// Body: u32 id; u32 n, n times (string distribution, string argument);
// u32 m, m times (u8 operator, string key, u32 k, k strings). The parts
// replace the view's and get new ids.
void update(Call &c) {
  uint32_t id = 0, n = 0;
  LiveView fresh;
  if (!c.in.u32(id) || !c.in.u32(n)) return c.malformed();
  for (uint32_t i = 0; i < n; ++i) {
    LiveDistribution d;
    if (!c.in.text(d.distribution) || !c.in.text(d.argument)) return c.malformed();
    fresh.distributions.push_back(std::move(d));
  }
  if (!c.in.u32(n)) return c.malformed();
  for (uint32_t i = 0; i < n; ++i) {
    LiveFilter f;
    uint32_t k = 0;
    if (!c.in.u8(f.op) || !c.in.text(f.key) || !c.in.u32(k)) return c.malformed();
    for (uint32_t j = 0; j < k; ++j) {
      LiveFilterValue x;
      if (!c.in.text(x.value)) return c.malformed();
      f.values.push_back(std::move(x));
    }
    fresh.filters.push_back(std::move(f));
  }
  if (!c.in.end()) return c.malformed();
  LiveViews *lv = change_liveviews(c);
  LiveView *v = lv ? find_named(c, kViews, *lv, id) : nullptr;
  if (!v) return;
  std::string e;
  for (const LiveDistribution &d : fresh.distributions) {
    if (e.empty()) e = check_name("distribution", d.distribution);
    if (e.empty()) e = check_text("argument", d.argument, 255);
  }
  for (const LiveFilter &f : fresh.filters) {
    if (e.empty()) e = check_name("filter key", f.key);
    for (const LiveFilterValue &x : f.values)
      if (e.empty()) e = check_text("filter value", x.value, 63);
  }
  if (!e.empty()) return c.error(e);
  for (LiveDistribution &d : fresh.distributions) d.id = ++lv->last_part;
  for (LiveFilter &f : fresh.filters) {
    f.id = ++lv->last_part;
    for (LiveFilterValue &x : f.values) x.id = ++lv->last_part;
  }
  v->distributions = std::move(fresh.distributions);
  v->filters = std::move(fresh.filters);
  touch(c, *v);
  answer_stamp(c, v->audit.modification_date);
}

constexpr auto H = Header::kSessionCid;
constexpr auto S = Access::kSession;
constexpr Route kRoutes[] = {
    {TQDB_REQ_DYNAMICLIVEVIEW_ADD, "dynamicliveview_add", H, S,
     [](Call &c) { add_named(c, kViews); }},
    {TQDB_REQ_DYNAMICLIVEVIEW_REMOVE, "dynamicliveview_remove", H, S,
     [](Call &c) { remove_named(c, kViews); }},
    {TQDB_REQ_DYNAMICLIVEVIEW_LIST, "dynamicliveview_list", H, S, list},
    {TQDB_REQ_DYNAMICLIVEVIEW_UPDATE, "dynamicliveview_update", H, S, update},
    {TQDB_REQ_DYNAMICLIVEVIEW_RENAME, "dynamicliveview_rename", H, S,
     [](Call &c) { rename_named(c, kViews); }},
};

}  // namespace

std::span<const Route> family_dynamicliveview() { return kRoutes; }

}  // namespace tqsim
