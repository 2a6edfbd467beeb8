// placeholder: the services family is being written
#include "dispatch.h"

namespace tqsim {

std::span<const Route> family_services() { return {}; }

}  // namespace tqsim
