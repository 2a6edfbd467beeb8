#include "reply.h"

#include <algorithm>

#include "tqdb_api.h"

namespace tqsim {
namespace {

Msg with_header(uint32_t code, uint32_t session, uint32_t cid) {
  Msg m(tq_msg_new(code));
  if (m) {
    tq_msg_put_uint32(m.get(), session);
    tq_msg_put_uint32(m.get(), cid);
  }
  return m;
}

// A text that names what the client sent may be longer than the room left
// in the message; it is cut to fit (count and NUL included) rather than
// left out, which would leave a reply without its text.
void put_text_cut(tq_msg_t *m, std::string_view text) {
  constexpr uint32_t kFraming = 5;  // the u32 count and the NUL
  const uint32_t room = tq_msg_free_bytes(m);
  if (room < kFraming) return;
  put_text(m, text.substr(0, std::min<std::size_t>(text.size(), room - kFraming)));
}

Msg with_text(uint32_t code, uint32_t session, uint32_t cid, std::string_view text) {
  Msg m = with_header(code, session, cid);
  if (m) put_text_cut(m.get(), text);
  return m;
}

}  // namespace

void put_text(tq_msg_t *m, std::string_view text) {
  tq_msg_put_string_n(m, text.data(), text.size());
}

void put_commitid(tq_msg_t *m, const tq_commitid_t &id) {
  tq_msg_put_uint64(m, id.seqno);
  tq_msg_put_uint64(m, id.timestamp);
  tq_msg_put_string(m, id.systemid);
  tq_msg_put_string(m, id.log);
}

Msg reply_ok(uint32_t session, uint32_t cid) { return with_header(TQDB_REPLY_OK, session, cid); }

Msg reply_data(uint32_t session, uint32_t cid) {
  return with_header(TQDB_REPLY_DATA, session, cid);
}

Msg reply_error(uint32_t session, uint32_t cid, std::string_view text) {
  return with_text(TQDB_REPLY_ERROR, session, cid, text);
}

Msg reply_lock(uint32_t session, uint32_t cid, std::string_view text) {
  return with_text(TQDB_REPLY_LOCK, session, cid, text);
}

Msg notice_commit(uint32_t session, const tq_commitid_t &id) {
  Msg m(tq_msg_new(TQDB_REPLY_BCAST_COMMIT));
  if (m) {
    tq_msg_put_uint32(m.get(), session);
    put_commitid(m.get(), id);
  }
  return m;
}

Msg notice_detached(uint32_t session, std::string_view text) {
  Msg m(tq_msg_new(TQDB_REPLY_DETACHED));
  if (m) {
    tq_msg_put_uint32(m.get(), session);
    put_text_cut(m.get(), text);
  }
  return m;
}

Msg notice_restarting(std::string_view reason) {
  Msg m(tq_msg_new(TQDB_REPLY_RESTARTING));
  if (m) put_text_cut(m.get(), reason);
  return m;
}

Msg notice_reloading(std::string_view reason) {
  Msg m(tq_msg_new(TQDB_REPLY_RELOADING));
  if (m) put_text_cut(m.get(), reason);
  return m;
}

Msg announce_version(uint32_t word, std::string_view product, std::string_view version) {
  Msg m(tq_msg_new(TQDB_REPLY_VERSION));
  if (m) {
    tq_msg_put_uint32(m.get(), word);
    put_text(m.get(), product);
    put_text(m.get(), version);
  }
  return m;
}

Msg reply_auth_accepted(const AuthGrant &grant) {
  Msg m(tq_msg_new(TQDB_REPLY_AUTH));
  if (m) {
    tq_msg_put_uint8(m.get(), 1);
    tq_msg_put_uint64(m.get(), grant.user_number);
    tq_msg_put_uint64(m.get(), grant.login_time);
    tq_msg_put_uint64(m.get(), grant.connection);
    tq_msg_put_uint32(m.get(), grant.access);
  }
  return m;
}

Msg reply_auth_refused() {
  Msg m(tq_msg_new(TQDB_REPLY_AUTH));
  if (m) tq_msg_put_uint8(m.get(), 0);
  return m;
}

}  // namespace tqsim
