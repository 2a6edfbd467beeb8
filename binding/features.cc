// placeholder: the features rows are being written
#include "rows.h"

namespace tqpy {

const std::span<const PyMethodDef> g_features_rows{};

}  // namespace tqpy
