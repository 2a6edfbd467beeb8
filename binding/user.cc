// placeholder: the user rows are being written
#include "rows.h"

namespace tqpy {

const std::span<const PyMethodDef> g_user_rows{};
const std::span<const Field> g_user_fields{};

}  // namespace tqpy
