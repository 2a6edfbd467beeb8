// placeholder: the system_overview rows are being written
#include "rows.h"

namespace tqpy {

const std::span<const PyMethodDef> g_system_overview_rows{};
const std::span<const Field> g_system_overview_system_fields{};
const std::span<const Field> g_system_overview_template_fields{};
const std::span<const Field> g_system_overview_graph_fields{};

}  // namespace tqpy
