// placeholder: the connlog family is being written
#include "dispatch.h"

namespace tqsim {

std::span<const Route> family_connlog() { return {}; }

}  // namespace tqsim
