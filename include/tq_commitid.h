// The commit id: what identifies one committed configuration change.
#ifndef TQ_COMMITID_H
#define TQ_COMMITID_H

#include <cstddef>
#include <cstdint>

struct tq_msg_t;

inline constexpr size_t TQ_COMMITID_SYSTEMID = 20;
inline constexpr size_t TQ_COMMITID_LOG = 512;

struct tq_commitid_t {
  uint64_t seqno;
  uint64_t timestamp;
  char systemid[TQ_COMMITID_SYSTEMID];  // empty: the id is cleared
  char log[TQ_COMMITID_LOG];
};

void tq_commitid_clear(tq_commitid_t *c);
void tq_commitid_copy(tq_commitid_t *dst, const tq_commitid_t *src);
// "SeqNo=%llu TimeStamp=%llu SystemID='%s' Log='%s'"
void tq_commitid_to_string(const tq_commitid_t *c, char *buf, size_t size);
// Puts seqno, timestamp, systemid, log; a cleared id is fatal. Returns the
// log text's bytes inside msg, nullptr when the log text did not fit whole.
const char *tq_commitid_msg_put(const tq_commitid_t *c, tq_msg_t *msg);
[[nodiscard]] bool tq_commitid_msg_get(tq_commitid_t *c, tq_msg_t *msg);

#endif
