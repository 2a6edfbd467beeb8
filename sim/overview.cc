// The overview's fixed templates, how values are shown, and the systems'
// bounded histories.
#include "overview.h"

#include <algorithm>
#include <ctime>

#include "tqdb_api_system_overview.h"
#include "util.h"

namespace tqsim {
namespace {

constexpr uint32_t kSysdiag = TQDB_SYSTEM_OVERVIEW_TEMPLATE_TYPE_SYSDIAG;
constexpr uint32_t kChannel = TQDB_SYSTEM_OVERVIEW_TEMPLATE_TYPE_CHANNEL;
constexpr uint32_t kSummary = TQDB_SYSTEM_OVERVIEW_FLAGS_SUMMARY;

// Values from the systems' own diagnostic zones, then from their channels
// (id: the channel's number, 0 for all channels together).
constexpr OverviewTemplate kTemplates[] = {
    {1, "CPU load", TQDB_SYSTEM_OVERVIEW_TYPE_INT, kSummary, TQDB_SYSTEM_OVERVIEW_VTYPE_MAX, "cpu",
     1, "Busiest core, percent", kSysdiag},
    {2, "Memory used", TQDB_SYSTEM_OVERVIEW_TYPE_TRANSFER, 0, TQDB_SYSTEM_OVERVIEW_VTYPE_MAX,
     "memory", 1, "Memory in use, bytes", kSysdiag},
    {3, "Uptime", TQDB_SYSTEM_OVERVIEW_TYPE_DURATION, kSummary, TQDB_SYSTEM_OVERVIEW_VTYPE_TOTAL,
     "system", 1, "Time since the last start, seconds", kSysdiag},
    {4, "Connections", TQDB_SYSTEM_OVERVIEW_TYPE_INT_K, kSummary, TQDB_SYSTEM_OVERVIEW_VTYPE_MAX,
     "connections", 1, "Open connections", kSysdiag},
    {5, "New connections", TQDB_SYSTEM_OVERVIEW_TYPE_RATE, 0, TQDB_SYSTEM_OVERVIEW_VTYPE_RATE,
     "connections", 2, "Connections opened per second", kSysdiag},
    {6, "Configuration changed", TQDB_SYSTEM_OVERVIEW_TYPE_TIMESTAMP, 0,
     TQDB_SYSTEM_OVERVIEW_VTYPE_TOTAL, "config", 1, "Time of the last commit", kSysdiag},
    {7, "Inbound traffic", TQDB_SYSTEM_OVERVIEW_TYPE_BANDWIDTH, kSummary,
     TQDB_SYSTEM_OVERVIEW_VTYPE_RATE, "channel", 0, "All channels, bits per second", kChannel},
    {8, "Outbound traffic", TQDB_SYSTEM_OVERVIEW_TYPE_BANDWIDTH, kSummary,
     TQDB_SYSTEM_OVERVIEW_VTYPE_RATE, "channel", 0, "All channels, bits per second", kChannel},
    {9, "Links up", TQDB_SYSTEM_OVERVIEW_TYPE_BITMASK, 0, TQDB_SYSTEM_OVERVIEW_VTYPE_TOTAL,
     "channel", 0, "Bit N: channel N's link is up", kChannel},
};

using ull = unsigned long long;

}  // namespace

std::span<const OverviewTemplate> overview_templates() { return kTemplates; }

const OverviewTemplate *overview_template(uint32_t templateid) {
  for (const OverviewTemplate &t : kTemplates)
    if (t.templateid == templateid) return &t;
  return nullptr;
}

std::string overview_value_text(const OverviewTemplate &t, uint64_t value) {
  const ull v = value;
  switch (t.type) {
    case TQDB_SYSTEM_OVERVIEW_TYPE_RATE:
      return format("%llu/s", v);
    case TQDB_SYSTEM_OVERVIEW_TYPE_BANDWIDTH:
      return format("%llu bit/s", v);
    case TQDB_SYSTEM_OVERVIEW_TYPE_TRANSFER:
      return format("%llu bytes", v);
    case TQDB_SYSTEM_OVERVIEW_TYPE_DURATION:
      return format("%llud %02llu:%02llu:%02llu", v / 86400, v / 3600 % 24, v / 60 % 60, v % 60);
    case TQDB_SYSTEM_OVERVIEW_TYPE_TIMESTAMP: {
      const std::time_t when = static_cast<std::time_t>(value);
      std::tm tm{};
      char buf[32] = "";
      if (gmtime_r(&when, &tm)) std::strftime(buf, sizeof buf, "%Y-%m-%d %H:%M:%S", &tm);
      return buf;
    }
    case TQDB_SYSTEM_OVERVIEW_TYPE_BITMASK:
      return format("0x%llx", v);
    case TQDB_SYSTEM_OVERVIEW_TYPE_INT_K:
      return v < 1000 ? format("%llu", v) : format("%llu.%llu k", v / 1000, v % 1000 / 100);
    default:
      return format("%llu", v);
  }
}

void OverviewSystem::post(uint32_t templateid, uint64_t value, uint64_t now) {
  history.push_back({templateid, now, value});
  const auto same = [&](const OverviewPoint &p) { return p.templateid == templateid; };
  if (static_cast<std::size_t>(std::count_if(history.begin(), history.end(), same)) >
      kOverviewHistory)
    history.erase(std::find_if(history.begin(), history.end(), same));
}

std::map<uint32_t, uint64_t> OverviewSystem::current() const {
  std::map<uint32_t, uint64_t> latest;
  for (const OverviewPoint &p : history) latest[p.templateid] = p.value;
  return latest;
}

void io(Io &io, SystemOverview &o) {
  io.by_id("systems", o.systems);
  std::vector<SysinfoRecord> info;
  if (!io.loading())
    for (auto &[name, r] : o.sysinfo) info.push_back(r);
  io.list("sysinfo", info);
  if (!io.loading()) return;
  o.sysinfo.clear();
  for (SysinfoRecord &r : info)
    if (!o.sysinfo.emplace(r.system, r).second)
      io.fail("system information for '" + r.system + "' appears twice");
}

}  // namespace tqsim
