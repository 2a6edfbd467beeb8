// placeholder: the sysdiag rows are being written
#include "rows.h"

namespace tqpy {

const std::span<const PyMethodDef> g_sysdiag_rows{};
const std::span<const Field> g_level_fields{};
const std::span<const Field> g_sysdiag_zone_fields{};
const std::span<const Field> g_sysdiag_zone_value_fields{};
const std::span<const Field> g_sysdiag_log_fields{};
const std::span<const Field> g_sysdiag_malloc_fields{};

}  // namespace tqpy
