// The reply envelope: any payload under any reply code (and codes that are
// none). An envelope that comes back has a terminated error text and owns its
// message, read position inside it.
#include <array>
#include <cstring>

#include "harness.h"

namespace {

constexpr std::array<uint32_t, 14> kCodes = {
    TQDB_REPLY_AUTH,       TQDB_REPLY_BCAST_COMMIT, TQDB_REPLY_OK,         TQDB_REPLY_ERROR,
    TQDB_REPLY_CRITICAL,   TQDB_REPLY_LOCK,         TQDB_REPLY_VERSION,    TQDB_REPLY_NOTICE,
    TQDB_REPLY_RESTARTING, TQDB_REPLY_RELOADING,    TQDB_REPLY_DETACHED,   TQDB_REPLY_DATA,
    0x20011,  // between two codes, none itself
    TQDB_REQ_PING,
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  tqfuzz::install_bug_hook();
  tqfuzz::run_guarded([&] {
    tqfuzz::Reader in({data, size});
    const uint32_t code = kCodes[in.u8() % kCodes.size()];
    tqfuzz::EnvPtr env = tqfuzz::make_env(in.rest(), code);
    if (!env) return;
    uint32_t type = 0;
    if (!tqdb_api_msg_code_to_type(code, &type) || tqdb_api_msg_get_type(env.get()) != type) __builtin_trap();
    const char *text = tqdb_api_msg_get_error(env.get());
    if (::strnlen(text, TQDB_API_ERROR_MAX) == TQDB_API_ERROR_MAX) __builtin_trap();
    const tq_msg_t *m = tqdb_api_msg_get_msg(env.get());
    if (m == nullptr || m->rpos > m->len) __builtin_trap();
    (void)tqdb_api_msg_get_session(env.get());
    (void)tqdb_api_msg_get_cid(env.get());
  });
  return 0;
}
