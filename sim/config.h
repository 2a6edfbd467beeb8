// placeholder: the simulator's configuration and log levels are being written
#ifndef TQSIM_CONFIG_H
#define TQSIM_CONFIG_H

#include "state_io.h"

namespace tqsim {

// Resource "config" (4): the configuration values.
struct Config {};
inline void io(Io &, Config &) {}
// Resource "logs" (9): the levels of the log facilities.
struct LogLevels {};
inline void io(Io &, LogLevels &) {}

}  // namespace tqsim

#endif
