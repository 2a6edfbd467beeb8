// placeholder: the simulator's diagnostics are being written
#ifndef TQSIM_SYSDIAG_H
#define TQSIM_SYSDIAG_H

#include "state_io.h"

namespace tqsim {

// What a transaction on the sysdiag resource (7) edits: the levels.
struct Levels {};
inline void io(Io &, Levels &) {}

}  // namespace tqsim

#endif
