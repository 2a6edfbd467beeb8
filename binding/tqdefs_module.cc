// TQdefsv17_1: the client's protocol version and default port, taken from
// the same definitions the library uses.
#include "py_entry.h"

#include "tqdb_api.h"

namespace tqpy {
namespace {

constexpr long kDefaultPort = 17100;

PyMethodDef g_functions[] = {TQ_METHOD_END};
compat::ModuleDef g_module_def;

OwnedRef module_body() {
  auto m = OwnedRef::check(compat::module_new(
      g_module_def, "TQdefsv17_1", "Protocol version and defaults of the TQDB client.",
      g_functions));
  const tqdb_api_version_t v = tqdb_api_version_decode(TQDB_API_CLIENT_VERSION);
  module_add(m.get(), "PROTOCOL_VERSION", int_u64(TQDB_API_CLIENT_VERSION));
  module_add(m.get(), "VERSION", OwnedRef::check(Py_BuildValue("(III)", v.major, v.minor,
                                                                v.patch)));
  module_add(m.get(), "DEFAULT_PORT", int_i64(kDefaultPort));
  return m;
}

}  // namespace
}  // namespace tqpy

TQ_PY_MODINIT(TQdefsv17_1) {
  PyObject *m = tqpy::module_entry(tqpy::module_body);
  TQ_PY_MODINIT_RETURN(m);
}
