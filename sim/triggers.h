// The simulator's triggers: host triggers (resource "hosttrigger", 12) and
// connection-protection triggers (resource "connprot_trigger", 20).
//
// Both families are a set of named scripts by id; host triggers add the
// thresholds that start them and what they watch. One set of request
// handlers serves both (TriggerRequests): lists show what the session
// sees, changes need the session's own transaction on the family's
// resource. Ids come from a counter that only grows and is saved, so an id
// is never handed out twice.
#ifndef TQSIM_TRIGGERS_H
#define TQSIM_TRIGGERS_H

#include <cstdint>
#include <map>
#include <string>

#include "state_io.h"

namespace tqsim {

struct Call;

inline constexpr std::size_t kTriggerTextMax = 255;  // name and script, bytes
inline constexpr int32_t kTrigtypeLast = 3;          // HOSTTRIGGER_TRIGTYPE_NETOBJECT_CHILD

// A host trigger's thresholds (0: not watched) and what it watches.
struct HostTriggerLimits {
  uint32_t in_bw = 0, out_bw = 0, in_cps = 0, out_cps = 0, conns = 0, uconns = 0,
           uconn_rate = 0;
  int32_t out_ttls = 0, qoe_in_int = 0, qoe_in_ext = 0, qoe_out_int = 0, qoe_out_ext = 0;
  uint32_t netobject = 0;  // a net object of the ruleset; unused by trigtype 0
  int32_t trigtype = 0;    // HOSTTRIGGER_TRIGTYPE_* 0..3
};

struct HostTrigger {
  uint32_t id = 0;
  std::string name;
  std::string script;  // a file of the hosttrigger area
  HostTriggerLimits limits;
};

struct ConnprotTrigger {
  uint32_t id = 0;
  std::string name;
  std::string script;
};

template <class T>
struct TriggerSet {
  using Record = T;
  std::map<uint32_t, T> by_id;
  uint32_t last_id = 0;
};
struct HostTriggers : TriggerSet<HostTrigger> {};
struct ConnprotTriggers : TriggerSet<ConnprotTrigger> {};

void io(Io &io, HostTriggerLimits &l);
void io(Io &io, HostTrigger &t);
void io(Io &io, ConnprotTrigger &t);
void io(Io &io, HostTriggers &s);
void io(Io &io, ConnprotTriggers &s);

// The requests of one family (Set: HostTriggers or ConnprotTriggers).
template <class Set>
struct TriggerRequests {
  static void list(Call &c);    // empty body
  static void add(Call &c);     // name, script[, limits] -> u32 id
  static void remove(Call &c);  // u32 id
  static void update(Call &c);  // u32 id, script[, limits]
  static void rename(Call &c);  // u32 id, name
};
extern template struct TriggerRequests<HostTriggers>;
extern template struct TriggerRequests<ConnprotTriggers>;

}  // namespace tqsim

#endif
