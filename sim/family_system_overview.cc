// placeholder: the system_overview family is being written
#include "dispatch.h"

namespace tqsim {

std::span<const Route> family_system_overview() { return {}; }

}  // namespace tqsim
