// placeholder: the services rows are being written
#include "rows.h"

namespace tqpy {

const std::span<const PyMethodDef> g_services_rows{};
const std::span<const Field> g_services_fields{};

}  // namespace tqpy
