// placeholder: the connlog rows are being written
#include "rows.h"

namespace tqpy {

const std::span<const PyMethodDef> g_connlog_rows{};
const std::span<const Field> g_connlog_fields{};

}  // namespace tqpy
