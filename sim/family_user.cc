// placeholder: the user family is being written
#include "dispatch.h"

namespace tqsim {

std::span<const Route> family_user() { return {}; }

}  // namespace tqsim
