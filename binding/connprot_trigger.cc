// placeholder: the connprot_trigger rows are being written
#include "rows.h"

namespace tqpy {

const std::span<const PyMethodDef> g_connprot_trigger_rows{};
const std::span<const Field> g_connprot_trigger_fields{};

}  // namespace tqpy
