// The decoders of the session's first replies: the version announcement,
// the authentication answer, the commit id (transaction begin and commit,
// commit broadcast), the new session and the ping echo. Each is handed the
// envelope its caller would hand it; the first input byte picks the code
// and the decoder, the rest is the payload, header included.
#include <array>
#include <cstring>

#include "harness.h"
#include "tq_commitid.h"

namespace {

void check_text(const char *s, size_t size) {
  if (::strnlen(s, size) == size) __builtin_trap();
}

void version(tqdb_api_msg_t *env) {
  char a[64], b[64];
  std::memset(a, 0x5A, sizeof a), std::memset(b, 0x5A, sizeof b);
  const uint32_t word = tqdb_api_version_handle(env, a, b, sizeof a);
  if (word != 0) check_text(a, sizeof a), check_text(b, sizeof b);
  const tqdb_api_version_t v = tqdb_api_version_decode(word);
  if (v.minor > 31 || v.patch > 127) __builtin_trap();
}

void auth(tqdb_api_msg_t *env) {
  tqdb_api_auth_result r{};
  (void)tqdb_api_auth_handle(env, &r);
}

// Callers look at the type before they read a commit id.
void commitid(tqdb_api_msg_t *env) {
  const uint32_t type = tqdb_api_msg_get_type(env);
  if (type != TQDB_API_MSG_TYPE_DATA && type != TQDB_API_MSG_TYPE_BCAST_COMMIT) return;
  tq_commitid_t c;
  if (tqdb_api_resource_commit_bcast_handle(env, &c)) {
    check_text(c.systemid, sizeof c.systemid), check_text(c.log, sizeof c.log);
    char text[700];
    tq_commitid_to_string(&c, text, sizeof text);
  }
}

void session(tqdb_api_msg_t *env) { (void)tqdb_api_session_new_handle(env); }

void ping(tqdb_api_msg_t *env) {
  char buf[40];
  if (tqdb_api_ping_handle(env, buf, sizeof buf) != nullptr) check_text(buf, sizeof buf);
}

struct Row {
  uint32_t code;
  void (*decode)(tqdb_api_msg_t *);
};
constexpr std::array<Row, 7> kRows = {{
    {TQDB_REPLY_VERSION, version},
    {TQDB_REPLY_AUTH, auth},
    {TQDB_REPLY_DATA, commitid},
    {TQDB_REPLY_BCAST_COMMIT, commitid},
    {TQDB_REPLY_ERROR, commitid},  // a refusal, which the caller passes over
    {TQDB_REPLY_DATA, session},
    {TQDB_REPLY_DATA, ping},
}};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  tqfuzz::install_bug_hook();
  tqfuzz::run_guarded([&] {
    tqfuzz::Reader in({data, size});
    const Row &row = kRows[in.u8() % kRows.size()];
    if (tqfuzz::EnvPtr env = tqfuzz::make_env(in.rest(), row.code)) row.decode(env.get());
  });
  return 0;
}
