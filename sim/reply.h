// Builders of the simulator's replies and notices.
//
// Every reply to a session-bound request repeats the request's session word
// and correlation id, so the client can match it. Error-like replies carry
// a text: u32 length counting the NUL, the bytes, the NUL.
//
//   OK            0x20003  session, cid
//   ERROR         0x20004  session, cid, text
//   LOCK          0x20006  session, cid, text
//   DATA          0x21000  session, cid, body...
//   BCAST_COMMIT  0x20002  session (the receiver's), commit id
//   DETACHED      0x20012  session, text
//   VERSION       0x20007  u32 version word, string, string
//   RESTARTING    0x20009  reason (no header words)
//   RELOADING     0x20010  reason (no header words)
//   AUTH          0x20001  u8 accepted, then (when accepted) u64 x3, u32
//
// A builder returns null only when the message pool refuses.
#ifndef TQSIM_REPLY_H
#define TQSIM_REPLY_H

#include <cstdint>
#include <memory>
#include <string_view>

#include "tq_commitid.h"
#include "tq_msg.h"

namespace tqsim {

struct MsgFree {
  void operator()(tq_msg_t *m) const noexcept { tq_msg_free(m); }
};
using Msg = std::unique_ptr<tq_msg_t, MsgFree>;

// A message string from a view (need not be NUL-terminated).
void put_text(tq_msg_t *m, std::string_view text);
// u64 seqno, u64 timestamp, systemid, log.
void put_commitid(tq_msg_t *m, const tq_commitid_t &id);

Msg reply_ok(uint32_t session, uint32_t cid);
Msg reply_data(uint32_t session, uint32_t cid);  // the header; the caller adds the body
Msg reply_error(uint32_t session, uint32_t cid, std::string_view text);
Msg reply_lock(uint32_t session, uint32_t cid, std::string_view text);
Msg notice_commit(uint32_t session, const tq_commitid_t &id);
Msg notice_detached(uint32_t session, std::string_view text);
Msg notice_restarting(std::string_view reason);
Msg notice_reloading(std::string_view reason);
Msg announce_version(uint32_t word, std::string_view product, std::string_view version);

struct AuthGrant {
  uint64_t user_number;  // value0: the account's id
  uint64_t login_time;   // value1: seconds since 1970
  uint64_t connection;   // value2: the connection's number, from 1
  uint32_t access;       // value3: access level, 1 = full
};
Msg reply_auth_accepted(const AuthGrant &grant);
Msg reply_auth_refused();

}  // namespace tqsim

#endif
