// Logging in and sessions: authentication, session new, ping, diag and the
// two unnamed session requests; also the version announcement every
// connection gets first.
#include "dispatch.h"
#include "options.h"
#include "tq_msg.h"
#include "tqdb_api.h"
#include "users.h"
#include "util.h"

namespace tqsim {
namespace {

inline constexpr char kProduct[] = "tqdbsim";
inline constexpr uint32_t kFullAccess = 1;

std::string version_text(uint32_t word) {
  const tqdb_api_version_t v = tqdb_api_version_decode(word);
  return format("%u.%u.%u", v.major, v.minor, v.patch);
}

// Body: string user, string password, checked against the committed
// accounts. A refused login changes nothing, so a connection that is
// already logged in stays so.
void auth(Call &c) {
  std::string user, password;
  if (!c.in.text(user) || !c.in.text(password) || !c.in.end()) return c.malformed();
  const Account *a = login_accounts(c).find(user);
  if (!a || !a->password_is(password)) return c.reply(reply_auth_refused());
  c.login.accepted = true;
  c.login.user = user;
  c.login.user_number = a->id;
  c.reply(reply_auth_accepted({.user_number = a->id,
                               .login_time = c.hub.now(),
                               .connection = c.conn,
                               .access = kFullAccess}));
}

void session_new(Call &c) {
  if (!c.in.end()) return c.malformed();
  const Session &s = c.store.open_session(c.conn, c.login.user);
  Msg m = c.data();
  if (m) tq_msg_put_uint32(m.get(), s.id);
  c.reply(std::move(m));
}

// Body: one u32 whose meaning the client does not give; acknowledged.
void session_10102(Call &c) {
  uint32_t arg = 0;
  if (!c.in.u32(arg) || !c.in.end()) return c.malformed();
  c.ok();
}

void ping(Call &c) {
  std::string text;
  bool null = false;
  if (!c.in.text(text, &null) || !c.in.end()) return c.malformed();
  Msg m = c.data();
  if (m) {
    if (null)
      tq_msg_put_string(m.get(), nullptr);
    else
      put_text(m.get(), text);
  }
  c.reply(std::move(m));
}

void session_10104(Call &c) {
  if (!c.in.end()) return c.malformed();
  c.ok();
}

void diag(Call &c) {
  if (!c.in.end()) return c.malformed();
  const uint32_t word = c.hub.options().version;
  const Resource *open = c.store.resource(c.sess->open);
  const std::string lines[] = {
      format("Server: %s appliance simulator", kProduct),
      format("Version: %s (0x%x)", version_text(word).c_str(), word),
      "User: " + c.sess->user,
      format("Session: %u", c.sess->id),
      format("Connection: %u", c.conn),
      format("Sessions: %zu", c.store.sessions().size()),
      "Transaction: " + (open ? resource_label(*open) : std::string("none")),
  };
  Msg m = c.data();
  if (m) {
    for (const std::string &line : lines) put_text(m.get(), line);
  }
  c.reply(std::move(m));
}

constexpr Route kRoutes[] = {
    {TQDB_REQ_AUTH, "auth", Header::kNone, Access::kAnyone, auth},
    {TQDB_REQ_SESSION_NEW, "session_new", Header::kSessionCid, Access::kLoggedIn, session_new},
    {TQDB_REQ_SESSION_10102, "session_10102", Header::kSessionCid, Access::kLoggedIn,
     session_10102},
    {TQDB_REQ_PING, "ping", Header::kSessionCid, Access::kSession, ping},
    {TQDB_REQ_SESSION_10104, "session_10104", Header::kSessionCid, Access::kSession,
     session_10104},
    {TQDB_REQ_SESSION_DIAG, "diag", Header::kSessionCid, Access::kSession, diag},
};

}  // namespace

std::span<const Route> family_core() { return kRoutes; }

Msg version_announcement(const Options &opts) {
  return announce_version(opts.version, kProduct, version_text(opts.version));
}

}  // namespace tqsim
