// placeholder: the monitoriface rows are being written
#include "rows.h"

namespace tqpy {

const std::span<const PyMethodDef> g_monitoriface_rows{};
const std::span<const Field> g_monitoriface_fields{};

}  // namespace tqpy
