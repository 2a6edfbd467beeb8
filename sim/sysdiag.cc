#include "sysdiag.h"

namespace tqsim {

Zone *Diagnostics::zone_named(const std::string &name) {
  for (auto &[oid, z] : zones)
    if (z.name == name) return &z;
  return nullptr;
}

void Diagnostics::judge(ZoneValue &v, const Level *l) {
  v.range = 0;
  v.alert_flags = 0;
  if (l == nullptr || !v.seen) return;
  if (v.value < l->minimum) v.range = 1;
  else if (l->maximum != 0 && v.value > l->maximum) v.range = 2;
  if (v.range != 0) v.alert_flags |= 1;
  if (v.rate < l->minimum_rate || (l->maximum_rate != 0 && v.rate > l->maximum_rate))
    v.alert_flags |= 2;
}

void Diagnostics::update(Zone &z, const std::vector<uint64_t> &values, uint32_t elapsed_ms,
                         uint64_t now, const Levels &levels) {
  for (size_t i = 0; i < z.values.size(); ++i) {
    ZoneValue &v = z.values[i];
    const uint64_t x = values[i];
    // A counter that went back (a restart of its owner) has no rate.
    const uint64_t diff = v.seen && elapsed_ms != 0 && x >= v.value ? x - v.value : 0;
    v.rate = diff == 0               ? 0
             : diff <= UINT64_MAX / 1000 ? diff * 1000 / elapsed_ms
                                         : diff / elapsed_ms * 1000;
    if (!v.seen || x < v.min) v.min = x, v.min_tstamp = now;
    if (!v.seen || x > v.max) v.max = x, v.max_tstamp = now;
    v.value = x;
    v.seen = true;
    const auto it = levels.by_oid.find({z.oid, v.id});
    judge(v, it == levels.by_oid.end() ? nullptr : &it->second);
  }
}

void Diagnostics::post(uint32_t severity, std::string title, std::string body, uint64_t now) {
  if (log.size() >= kLogMax) log.erase(log.begin());
  log.push_back(LogEntry{next_log++, 0, now, true, severity, std::move(title), std::move(body)});
}

}  // namespace tqsim
