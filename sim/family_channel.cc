// placeholder: the channel family is being written
#include "dispatch.h"

namespace tqsim {

std::span<const Route> family_channel() { return {}; }

}  // namespace tqsim
