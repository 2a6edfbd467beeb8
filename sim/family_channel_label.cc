// placeholder: the channel_label family is being written
#include "dispatch.h"

namespace tqsim {

std::span<const Route> family_channel_label() { return {}; }

}  // namespace tqsim
