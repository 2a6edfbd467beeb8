// The simulator's system overview: the appliances that announce themselves
// to this one, what they post, and free-form information about systems.
//
// It is the contents of resource 13 ("system_overview"). What systems do
// continuously (announcing themselves, posting their values) reaches the
// committed contents at once, without a transaction, unless another session
// holds the resource; deleting a system and adding system information are
// edits like any other and need the session's own transaction.
//
// The templates (what a value means and how it is shown) are fixed: they
// are the appliance's, not the overview's data.
#ifndef TQSIM_OVERVIEW_H
#define TQSIM_OVERVIEW_H

#include <cstdint>
#include <map>
#include <span>
#include <string>
#include <vector>

#include "state_io.h"

namespace tqsim {

struct OverviewTemplate {
  uint32_t templateid;
  const char *name;
  uint32_t type;   // SYSTEM_OVERVIEW_TYPE_*
  uint32_t flags;  // SYSTEM_OVERVIEW_FLAGS_*
  uint32_t vtype;  // SYSTEM_OVERVIEW_VTYPE_*
  const char *zone;
  uint32_t id;
  const char *descstr;
  uint32_t ttype;  // SYSTEM_OVERVIEW_TEMPLATE_TYPE_*
};
std::span<const OverviewTemplate> overview_templates();
const OverviewTemplate *overview_template(uint32_t templateid);
// A value as the overview shows it, by its template's type.
std::string overview_value_text(const OverviewTemplate &t, uint64_t value);

// One posted value: the history of a system, oldest first.
struct OverviewPoint {
  uint32_t templateid = 0;
  uint64_t time = 0;  // Unix seconds
  uint64_t value = 0;
};
inline void io(Io &io, OverviewPoint &p) {
  io.field("templateid", p.templateid);
  io.field("time", p.time);
  io.field("value", p.value);
}

// Points kept per system and template; older ones are dropped.
inline constexpr std::size_t kOverviewHistory = 288;

struct OverviewSystem {
  uint32_t id = 0;  // the systemid it announced
  std::string name;
  std::string host;  // the address it announced itself from
  uint64_t lastupdate = 0;
  uint64_t firstupdate = 0;
  std::string distversion;
  std::string drdlrevision;
  std::string configmd5;
  std::string model;
  std::vector<OverviewPoint> history;

  // Appends a point, dropping the template's oldest beyond kOverviewHistory.
  void post(uint32_t templateid, uint64_t value, uint64_t now);
  // The latest value of each template posted, by template id.
  std::map<uint32_t, uint64_t> current() const;
};
inline void io(Io &io, OverviewSystem &s) {
  io.field("id", s.id);
  io.field("name", s.name);
  io.field("host", s.host);
  io.field("lastupdate", s.lastupdate);
  io.field("firstupdate", s.firstupdate);
  io.field("distversion", s.distversion);
  io.field("drdlrevision", s.drdlrevision);
  io.field("configmd5", s.configmd5);
  io.field("model", s.model);
  io.list("history", s.history);
}

// The information of one system: key/value pairs by key.
struct SysinfoRecord {
  std::string system;
  std::map<std::string, std::string> data;
};
inline void io(Io &io, SysinfoRecord &r) {
  io.field("system", r.system);
  io.attributes("data", r.data);
}

// Resource "system_overview" (13).
struct SystemOverview {
  std::map<uint32_t, OverviewSystem> systems;
  std::map<std::string, SysinfoRecord> sysinfo;  // by system name
};
void io(Io &io, SystemOverview &o);

}  // namespace tqsim

#endif
