// The feature set: features_get and its decoder.
#include "rows.h"
#include "tqdb_api_config.h"

namespace tqpy {

namespace {

// The FEATURES_* bits as an int. (The unused int lets a row name it like
// any other decoder shape.)
template <Name N, int = 0>
OwnedRef features_body(SessionObject *, PyObject *args, PyObject *kwds) {
  tqdb_api_msg_t *env = decoder_args(args, kwds, N.s, ListId::ResultList, nullptr);
  return int_u64(tqdb_api_features_get_handle(env));
}

const PyMethodDef kRows[] = {
    TQ_REQUEST("features_get", &tqdb_api_features_get, "features_get() -> correlation id."),
    TQ_DECODE("features_get_handle",
              "features_get_handle(msg) -> the FEATURES_* bits offered; every bit set when the "
              "reply is not DATA.",
              features_body, 0),
};

}  // namespace

const std::span<const PyMethodDef> g_features_rows{kRows};

}  // namespace tqpy
