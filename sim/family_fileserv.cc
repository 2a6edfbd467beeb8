// placeholder: the fileserv family is being written
#include "dispatch.h"

namespace tqsim {

std::span<const Route> family_fileserv() { return {}; }

}  // namespace tqsim
