// placeholder: the monitoriface family is being written
#include "dispatch.h"

namespace tqsim {

std::span<const Route> family_monitoriface() { return {}; }

}  // namespace tqsim
