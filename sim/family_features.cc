// placeholder: the features family is being written
#include "dispatch.h"

namespace tqsim {

std::span<const Route> family_features() { return {}; }

}  // namespace tqsim
