// placeholder: the simulator's user accounts are being written
#ifndef TQSIM_USERS_H
#define TQSIM_USERS_H

#include "state_io.h"

namespace tqsim {

struct Users {};
inline void io(Io &, Users &) {}

}  // namespace tqsim

#endif
