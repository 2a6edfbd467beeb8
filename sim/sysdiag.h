// The simulator's system diagnostics.
//
// Levels are the appliance's saved limits on monitored values: they live
// in resource 7 ("sysdiag"), change only inside a transaction on it and go
// into the state file. Everything else (registered zones and their values,
// system names, the diagnostic log) is what the running appliance sees
// now: it is kept in the store beside the resources, is not transactional
// and starts empty on every start.
#ifndef TQSIM_SYSDIAG_H
#define TQSIM_SYSDIAG_H

#include <cstdint>
#include <map>
#include <string>
#include <utility>
#include <vector>

#include "state_io.h"

namespace tqsim {

// The limits of one value: oid_a is the zone's oid, oid_b the value's id.
// A limit of 0 is no limit (a minimum of 0 is none anyway).
struct Level {
  uint32_t oid_a = 0;
  uint32_t oid_b = 0;
  uint64_t minimum = 0;
  uint64_t maximum = 0;
  uint64_t minimum_rate = 0;
  uint64_t maximum_rate = 0;
  std::string comment;
  std::string trigger;
  std::string name;  // "zone/value" when it was set
};
inline void io(Io &io, Level &l) {
  io.field("oid_a", l.oid_a);
  io.field("oid_b", l.oid_b);
  io.field("minimum", l.minimum);
  io.field("maximum", l.maximum);
  io.field("minimum_rate", l.minimum_rate);
  io.field("maximum_rate", l.maximum_rate);
  io.field("comment", l.comment);
  io.field("trigger", l.trigger);
  io.field("name", l.name);
}

// What a transaction on the sysdiag resource (7) edits: the levels, by
// (zone oid, value id).
struct Levels {
  std::map<std::pair<uint32_t, uint32_t>, Level> by_oid;
};
inline void io(Io &io, Levels &ls) {
  std::vector<Level> v;
  if (!io.loading())
    for (auto &[k, l] : ls.by_oid) v.push_back(l);
  io.list("levels", v);
  if (!io.loading()) return;
  ls.by_oid.clear();
  for (Level &l : v)
    if (!ls.by_oid.emplace(std::pair(l.oid_a, l.oid_b), l).second)
      io.fail("level " + std::to_string(l.oid_a) + "." + std::to_string(l.oid_b) + " appears twice");
}

// One registered value and what updates have made of it.
struct ZoneValue {
  uint32_t id = 0;
  std::string name;
  uint32_t type = 0;
  uint32_t flags = 0;
  bool seen = false;  // updated at least once
  uint64_t value = 0, rate = 0, min = 0, max = 0, min_tstamp = 0, max_tstamp = 0;
  uint32_t range = 0, alert_flags = 0;
};

struct Zone {
  uint32_t oid = 0;
  std::string name;
  uint32_t systemid = 0;
  uint32_t flags = 0;
  std::vector<ZoneValue> values;  // value id i + 1 at index i
};

struct LogEntry {
  uint32_t id = 0;
  uint32_t systemid = 0;
  uint64_t tstamp = 0;
  bool is_new = true;
  uint32_t severity = 0;
  std::string title;
  std::string body;
};

// The running appliance's diagnostics (Store::diagnostics).
struct Diagnostics {
  static constexpr size_t kLogMax = 1000;  // the oldest entries go first

  std::map<uint32_t, Zone> zones;  // by oid
  uint32_t next_zone = 1;
  uint32_t version = 1;  // moves on whenever the set of zones changes
  std::map<uint32_t, std::string> system_names{{0, "tqdbsim"}};
  std::vector<LogEntry> log;  // ascending ids
  uint32_t next_log = 1;

  Zone *zone_named(const std::string &name);
  // The range and alert bits of v against its level (nullptr: none).
  static void judge(ZoneValue &v, const Level *level);
  // Takes new values: rate from the last ones over elapsed ms, minimum and
  // maximum with their times, then the verdict against the levels.
  void update(Zone &z, const std::vector<uint64_t> &values, uint32_t elapsed_ms, uint64_t now,
              const Levels &levels);
  void post(uint32_t severity, std::string title, std::string body, uint64_t now);
};

}  // namespace tqsim

#endif
