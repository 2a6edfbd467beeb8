// placeholder: the config rows are being written
#include "rows.h"

namespace tqpy {

const std::span<const PyMethodDef> g_config_rows{};
const std::span<const Field> g_config_fields{};
const std::span<const Field> g_config_category_fields{};
const std::span<const Field> g_config_flag_fields{};
const std::span<const Field> g_log_facility_fields{};

}  // namespace tqpy
