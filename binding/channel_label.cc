// placeholder: the channel_label rows are being written
#include "rows.h"

namespace tqpy {

const std::span<const PyMethodDef> g_channel_label_rows{};
const std::span<const Field> g_channel_label_fields{};

}  // namespace tqpy
