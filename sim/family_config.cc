// placeholder: the config family is being written
#include "dispatch.h"

namespace tqsim {

std::span<const Route> family_config() { return {}; }

}  // namespace tqsim
