// placeholder: the hosttrigger rows are being written
#include "rows.h"

namespace tqpy {

const std::span<const PyMethodDef> g_hosttrigger_rows{};
const std::span<const Field> g_hosttrigger_fields{};

}  // namespace tqpy
