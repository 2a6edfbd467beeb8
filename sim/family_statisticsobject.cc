// Statistics objects (0x1B0xx): what statistics rules count and how often.
#include "ruleset_calls.h"
#include "tqdb_api_ruleset.h"
#include "util.h"

namespace tqsim {
namespace {

constexpr uint8_t kSplits = 10;  // SHAPINGOBJECT_SPLIT_* 0..9

Ref ref(uint32_t id) { return {Kind::kStatisticsObject, 0, id}; }

template <class RS>
auto find(Call &c, RS &rs, uint32_t id) -> decltype(&rs.statistics_objects.begin()->second) {
  auto it = rs.statistics_objects.find(id);
  if (it != rs.statistics_objects.end()) return &it->second;
  c.error(missing_text(ref(id)));
  return nullptr;
}

bool read_fields(Body &in, StatisticsObject &o) {
  return in.text(o.name) && in.u8(o.split) && in.u32(o.split_argument) && in.u32(o.fields) &&
         in.u32(o.interval);
}

std::string check(const Ruleset &rs, const StatisticsObject &o, uint32_t id) {
  if (auto e = check_name("name", o.name); !e.empty()) return e;
  for (const auto &[other, so] : rs.statistics_objects)
    if (other != id && so.name == o.name)
      return "A statistics object named '" + o.name + "' already exists: " + label(rs, ref(other));
  if (o.split >= kSplits) return format("Split %u is not one of 0 to %u", o.split, kSplits - 1);
  if (o.interval == 0) return "The interval is the seconds between samples: at least 1";
  return {};
}

void list(Call &c) {
  if (!c.in.end()) return c.malformed();
  ListAnswer a(c);
  for (const auto &[id, o] : view_ruleset(c).statistics_objects) {
    a.out().u32(o.id).text(o.name).u8(o.split).u32(o.split_argument).u32(o.fields).u32(o.interval);
    a.out().text(o.audit.creator).text(o.audit.creation_date);
    a.out().text(o.audit.modified_by).text(o.audit.modification_date);
    a.next();
  }
  a.finish();
}

void add(Call &c) {
  StatisticsObject o;
  if (!read_fields(c.in, o) || !c.in.end()) return c.malformed();
  Ruleset *rs = change_ruleset(c);
  if (!rs) return;
  if (auto e = check(*rs, o, 0); !e.empty()) return c.error(e);
  o.id = ++rs->last_statistics_object;
  const std::string now = now_text(c);
  audit_create(o.audit, user_of(c), now);
  rs->statistics_objects[o.id] = std::move(o);
  answer_added(c, rs->last_statistics_object, now);
}

void modify(Call &c) {
  uint32_t id = 0;
  StatisticsObject fresh;
  if (!c.in.u32(id) || !read_fields(c.in, fresh) || !c.in.end()) return c.malformed();
  Ruleset *rs = change_ruleset(c);
  StatisticsObject *o = rs ? find(c, *rs, id) : nullptr;
  if (!o) return;
  if (auto e = check(*rs, fresh, id); !e.empty()) return c.error(e);
  fresh.id = id;
  fresh.audit = o->audit;
  *o = std::move(fresh);
  audit_change(o->audit, user_of(c), now_text(c));
  answer_stamp(c, o->audit.modification_date);
}

void remove(Call &c) {
  uint32_t id = 0;
  if (!c.in.u32(id) || !c.in.end()) return c.malformed();
  Ruleset *rs = change_ruleset(c);
  if (!rs || !find(c, *rs, id)) return;
  if (auto e = in_use_text(*rs, ref(id)); !e.empty()) return c.error(e);
  rs->statistics_objects.erase(id);
  answer_stamp(c, now_text(c));
}

void rename(Call &c) {
  uint32_t id = 0;
  std::string name;
  if (!c.in.u32(id) || !c.in.text(name) || !c.in.end()) return c.malformed();
  Ruleset *rs = change_ruleset(c);
  StatisticsObject *o = rs ? find(c, *rs, id) : nullptr;
  if (!o) return;
  StatisticsObject probe = *o;
  probe.name = name;
  if (auto e = check(*rs, probe, id); !e.empty()) return c.error(e);
  o->name = std::move(name);
  audit_change(o->audit, user_of(c), now_text(c));
  answer_stamp(c, o->audit.modification_date);
}

constexpr auto H = Header::kSessionCid;
constexpr auto S = Access::kSession;
constexpr Route kRoutes[] = {
    {TQDB_REQ_STATISTICSOBJECT_LIST, "statisticsobject_list", H, S, list},
    {TQDB_REQ_STATISTICSOBJECT_ADD, "statisticsobject_add", H, S, add},
    {TQDB_REQ_STATISTICSOBJECT_REMOVE, "statisticsobject_remove", H, S, remove},
    {TQDB_REQ_STATISTICSOBJECT_RENAME, "statisticsobject_rename", H, S, rename},
    {TQDB_REQ_STATISTICSOBJECT_MODIFY, "statisticsobject_modify", H, S, modify},
};

}  // namespace

std::span<const Route> family_statisticsobject() { return kRoutes; }

}  // namespace tqsim
