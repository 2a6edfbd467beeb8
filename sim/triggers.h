// placeholder: the simulator's triggers are being written
#ifndef TQSIM_TRIGGERS_H
#define TQSIM_TRIGGERS_H

#include "state_io.h"

namespace tqsim {

// Resource "hosttrigger" (12).
struct HostTriggers {};
inline void io(Io &, HostTriggers &) {}
// Resource "connprot_trigger" (20).
struct ConnprotTriggers {};
inline void io(Io &, ConnprotTriggers &) {}

}  // namespace tqsim

#endif
