// The client's end of one connection: two ring buffers, the correlation
// counter and the outcome of the last pump.
//
//   socket --vindel_read--> rbuf --frame--> envelope      (read pump, readmsg)
//   request --frame--> wbuf --vindel_write--> socket      (send, write pump)
//
// Neither pump blocks: each moves at most 4096 bytes per socket call and
// stops when the socket would block. The handle borrows the connection.
#include <algorithm>
#include <array>
#include <cerrno>

#include "tq_log.h"
#include "tq_malloc.h"
#include "tq_msg.h"
#include "tq_ringbuf.h"
#include "tqdb_api.h"
#include "vindel.h"

namespace {

using io_unit = std::array<uint8_t, TQDB_API_IO_UNIT>;

void clear_status(tqdb_api_handle_t *h) {
  h->err = TQDB_API_IO_OK;
  h->err_no = 0;
  errno = 0;
}

// A socket call returned a negative count. false when it was only a
// would-block (try again later); otherwise the error is recorded.
bool record_failure(tqdb_api_handle_t *h, ssize_t r) {
  const int saved = errno;  // the socket-error query must not disturb it
  if (r == -1 && vindel_sock_error() == VINDEL_WOULDBLOCK) return false;
  h->err = TQDB_API_IO_ERROR;
  h->err_no = saved;
  return true;
}

}  // namespace

tqdb_api_handle_t *tqdb_api_handle_new() {
  auto *h = tq_new_record<tqdb_api_handle_t>("tqdb_api_handle_t");
  if (h == nullptr) return nullptr;
  h->rbuf = tq_ringbuf_new(TQDB_API_RBUF_SIZE);
  h->wbuf = tq_ringbuf_new(TQDB_API_WBUF_SIZE);
  if (h->rbuf == nullptr || h->wbuf == nullptr) {
    tqdb_api_handle_free(h);
    return nullptr;
  }
  h->cid = 1;
  return h;
}

void tqdb_api_handle_free(tqdb_api_handle_t *h) {
  if (h == nullptr) return;
  tq_ringbuf_free(h->wbuf);
  tq_ringbuf_free(h->rbuf);
  tq_free_flags(h);
}

void tqdb_api_handle_set_io(tqdb_api_handle_t *h, vindel_sock_t *io) {
  if (h != nullptr) h->io = io;
}

void tqdb_api_handle_set_corrupt_cb(tqdb_api_handle_t *h, tqdb_api_corrupt_cb_t cb, void *data) {
  if (h == nullptr) return;
  h->corrupt_cb = cb;
  h->corrupt_cb_data = data;
}

void tqdb_api_handle_read(tqdb_api_handle_t *h) {
  if (h == nullptr) return;
  clear_status(h);
  if (TQ_BADNESS_ON(h->io == TQ_NULL, "read without a connection")) return;
  io_unit buf;
  for (;;) {
    const uint32_t room = tq_ringbuf_free_space(h->rbuf);
    if (room == 0) return;  // the consumer must take messages out first
    const size_t want = std::min<size_t>(room, buf.size());
    const ssize_t r = vindel_read(buf.data(), want, h->io);
    if (r == 0) {
      h->err = TQDB_API_IO_CLOSED;
      return;
    }
    if (r < 0) {
      record_failure(h, r);
      return;
    }
    tq_ringbuf_write(h->rbuf, buf.data(), static_cast<size_t>(r));
  }
}

tqdb_api_msg_t *tqdb_api_handle_readmsg(tqdb_api_handle_t *h) {
  if (h == nullptr) return nullptr;
  // Messages already buffered go first; only then is the socket asked,
  // so a peer that closed after sending still has its replies delivered.
  bool pumped = false;
  for (;;) {
    bool broken = false;
    const uint32_t buffered = tq_ringbuf_used(h->rbuf);
    tq_msg_t *msg = tq_msg_read_frame(h->rbuf, &broken);
    if (msg == nullptr) {
      // A broken frame that was thrown away may have whole frames behind it.
      if (broken && tq_ringbuf_used(h->rbuf) != buffered) continue;
      if (pumped) return nullptr;
      tqdb_api_handle_read(h);
      pumped = true;
      continue;
    }
    tqdb_api_msg_t *env = tqdb_api_msg_new(msg, h->corrupt_cb, h->corrupt_cb_data);
    if (env != nullptr) return env;
    // An unknown code or a missing header word: that message is lost, but
    // the ones buffered behind it must not wait for the next readable event
    // (a caller that reads until nothing comes back would never see them).
    tq_msg_free(msg);
  }
}

bool tqdb_api_handle_write(tqdb_api_handle_t *h) {
  if (h == nullptr) return false;
  clear_status(h);
  if (tq_ringbuf_used(h->wbuf) == 0) return true;
  if (TQ_BADNESS_ON(h->io == TQ_NULL, "write without a connection")) return false;
  io_unit buf;
  for (;;) {
    // Peeked, not taken: what the socket refuses stays queued as plain text.
    const size_t n = tq_ringbuf_peek(h->wbuf, buf.data(), buf.size());
    if (n == 0) return true;
    const ssize_t r = vindel_write(buf.data(), n, h->io);
    if (r == 0) {
      h->err = TQDB_API_IO_CLOSED;
      return false;
    }
    if (r < 0) return !record_failure(h, r);
    tq_ringbuf_skip(h->wbuf, static_cast<size_t>(r));
  }
}

bool tqdb_api_handle_want_write(const tqdb_api_handle_t *h) {
  return h != nullptr && tq_ringbuf_used(h->wbuf) > 0;
}

uint32_t tqdb_api_handle_io_status(const tqdb_api_handle_t *h) {
  return h != nullptr ? h->err : static_cast<uint32_t>(TQDB_API_IO_ERROR);
}

int tqdb_api_handle_get_errno(const tqdb_api_handle_t *h) { return h != nullptr ? h->err_no : 0; }

const char *tqdb_api_handle_get_user(const tqdb_api_handle_t *h) {
  return h != nullptr ? h->user : nullptr;
}
