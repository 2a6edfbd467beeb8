// placeholder: the sysdiag family is being written
#include "dispatch.h"

namespace tqsim {

std::span<const Route> family_sysdiag() { return {}; }

}  // namespace tqsim
