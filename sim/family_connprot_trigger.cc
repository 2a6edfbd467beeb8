// placeholder: the connprot_trigger family is being written
#include "dispatch.h"

namespace tqsim {

std::span<const Route> family_connprot_trigger() { return {}; }

}  // namespace tqsim
