// placeholder: the fileserv rows are being written
#include "rows.h"

namespace tqpy {

const std::span<const PyMethodDef> g_fileserv_rows{};
const std::span<const Field> g_fileserv_type_fields{};
const std::span<const Field> g_fileserv_file_fields{};

}  // namespace tqpy
