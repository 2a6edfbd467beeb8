// placeholder: the channel rows are being written
#include "rows.h"

namespace tqpy {

const std::span<const PyMethodDef> g_channel_rows{};
const std::span<const Field> g_channel_fields{};

}  // namespace tqpy
