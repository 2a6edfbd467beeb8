// placeholder: the hosttrigger family is being written
#include "dispatch.h"

namespace tqsim {

std::span<const Route> family_hosttrigger() { return {}; }

}  // namespace tqsim
