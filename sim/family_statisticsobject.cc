// Statistics objects (0x1B0xx): what statistics rules count and how often.
#include "ruleset_calls.h"
#include "tqdb_api_ruleset.h"
#include "util.h"

namespace tqsim {
namespace {

constexpr uint8_t kSplits = 10;  // SHAPINGOBJECT_SPLIT_* 0..9

bool read_fields(Body &in, StatisticsObject &o) {
  return in.text(o.name) && in.u8(o.split) && in.u32(o.split_argument) && in.u32(o.fields) &&
         in.u32(o.interval);
}

std::string check(const Ruleset &, StatisticsObject &o) {
  if (o.split >= kSplits) return format("Split %u is not one of 0 to %u", o.split, kSplits - 1);
  if (o.interval == 0) return "The interval is the seconds between samples: at least 1";
  return {};
}

constexpr auto kStatistics = ruleset_kind<Kind::kStatisticsObject>(
    &Ruleset::statistics_objects, &Ruleset::last_statistics_object, read_fields, check);

void list(Call &c) {
  if (!c.in.end()) return c.malformed();
  ListAnswer a(c);
  for (const auto &[id, o] : view_ruleset(c).statistics_objects) {
    a.out().u32(o.id).text(o.name).u8(o.split).u32(o.split_argument).u32(o.fields).u32(o.interval);
    put_audit(a.out(), o.audit);
    a.next();
  }
  a.finish();
}

constexpr auto H = Header::kSessionCid;
constexpr auto S = Access::kSession;
constexpr Route kRoutes[] = {
    {TQDB_REQ_STATISTICSOBJECT_LIST, "statisticsobject_list", H, S, list},
    {TQDB_REQ_STATISTICSOBJECT_ADD, "statisticsobject_add", H, S,
     [](Call &c) { add_named(c, kStatistics); }},
    {TQDB_REQ_STATISTICSOBJECT_REMOVE, "statisticsobject_remove", H, S,
     [](Call &c) { remove_named(c, kStatistics); }},
    {TQDB_REQ_STATISTICSOBJECT_RENAME, "statisticsobject_rename", H, S,
     [](Call &c) { rename_named(c, kStatistics); }},
    {TQDB_REQ_STATISTICSOBJECT_MODIFY, "statisticsobject_modify", H, S,
     [](Call &c) { modify_named(c, kStatistics); }},
};

}  // namespace

std::span<const Route> family_statisticsobject() { return kRoutes; }

}  // namespace tqsim
