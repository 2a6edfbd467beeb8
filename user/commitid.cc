// The commit id: sequence number, time stamp, the committing system and the
// commit's log text. On the wire: u64, u64, string (<= 20 bytes with its NUL),
// string (<= 512 bytes with its NUL).
#include "tq_commitid.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <span>

#include "tq_log.h"
#include "tq_msg.h"

namespace {

// Copies at most dst.size() - 1 characters and always terminates. The source
// is read no further than its own array, so an unterminated one is cut.
void copy_bounded(std::span<char> dst, std::span<const char> src) {
  const size_t n = strnlen(src.data(), std::min(src.size(), dst.size() - 1));
  std::memmove(dst.data(), src.data(), n);
  dst[n] = '\0';
}

// Length of a text kept in a fixed array, never past its last byte but one,
// so that what is sent is what the receiver's buffer of the same size holds.
template <size_t N>
size_t text_length(const char (&text)[N]) {
  return strnlen(text, N - 1);
}

}  // namespace

void tq_commitid_clear(tq_commitid_t *c) {
  TQ_BUG_ON(c == TQ_NULL, "");
  *c = tq_commitid_t{};
}

void tq_commitid_copy(tq_commitid_t *dst, const tq_commitid_t *src) {
  TQ_BUG_ON(dst == TQ_NULL, "");
  TQ_BUG_ON(src == TQ_NULL, "");
  if (dst == src) return;
  dst->seqno = src->seqno;
  dst->timestamp = src->timestamp;
  copy_bounded(dst->systemid, src->systemid);
  copy_bounded(dst->log, src->log);
}

void tq_commitid_to_string(const tq_commitid_t *c, char *buf, size_t size) {
  TQ_BUG_ON(c == TQ_NULL, "");
  if (buf == nullptr || size == 0) return;
  std::snprintf(buf, size, "SeqNo=%llu TimeStamp=%llu SystemID='%.*s' Log='%.*s'",
                static_cast<unsigned long long>(c->seqno),
                static_cast<unsigned long long>(c->timestamp),
                static_cast<int>(text_length(c->systemid)), c->systemid,
                static_cast<int>(text_length(c->log)), c->log);
}

const char *tq_commitid_msg_put(const tq_commitid_t *commitid, tq_msg_t *msg) {
  TQ_BUG_ON(commitid == TQ_NULL, "");
  TQ_BUG_ON(msg == TQ_NULL, "");
  TQ_BUG_ON(commitid->systemid[0] == '\0', "CommitID is cleared");

  tq_msg_put_uint64(msg, commitid->seqno);
  tq_msg_put_uint64(msg, commitid->timestamp);
  tq_msg_put_string_n(msg, commitid->systemid, text_length(commitid->systemid));

  // The caller gets the log text as it sits in the message, so the put must
  // either land whole or be seen not to have happened.
  const size_t log_len = text_length(commitid->log);
  const size_t before = msg->len;
  tq_msg_put_string_n(msg, commitid->log, log_len);
  if (msg->len != before + 4 + log_len + 1) return nullptr;
  return reinterpret_cast<const char *>(msg->data + before + 4);
}

bool tq_commitid_msg_get(tq_commitid_t *c, tq_msg_t *msg) {
  TQ_BUG_ON(c == TQ_NULL, "");
  TQ_BUG_ON(msg == TQ_NULL, "");
  return tq_msg_get_fields(msg, TQ_MSG_UINT64, &c->seqno, TQ_MSG_UINT64, &c->timestamp,
                           TQ_MSG_STRING, sizeof c->systemid, c->systemid, TQ_MSG_STRING,
                           sizeof c->log, c->log, TQ_MSG_END);
}
