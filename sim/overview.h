// placeholder: the simulator's system overview is being written
#ifndef TQSIM_OVERVIEW_H
#define TQSIM_OVERVIEW_H

#include "state_io.h"

namespace tqsim {

// Resource "system_overview" (13): the systems and their records.
struct SystemOverview {};
inline void io(Io &, SystemOverview &) {}

}  // namespace tqsim

#endif
