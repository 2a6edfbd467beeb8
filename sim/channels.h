// placeholder: the simulator's channels and labels are being written
#ifndef TQSIM_CHANNELS_H
#define TQSIM_CHANNELS_H

#include "state_io.h"

namespace tqsim {

// Resource "channels" (2): the channels and their labels.
struct Channels {};
inline void io(Io &, Channels &) {}

}  // namespace tqsim

#endif
