#include "conn.h"

#include <poll.h>
#include <sys/socket.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <utility>

#include "tq_msg.h"
#include "tq_ringbuf.h"

namespace tqsim {
namespace {

// The peer's public key: e then N, each a big-endian number of keylen bits.
constexpr size_t kPubkeyBytes = VINDEL_KEYLEN / 4;

// A ring left empty is cleared: its chunk goes back to the process's cache
// and the next bytes start at the front of a chunk again. An idle
// connection then holds no chunk at all, and a busy one keeps writing the
// same first pages instead of walking its positions through all 256 KiB of
// a chunk (each new page a fault, and resident for good).
void release_if_empty(tq_ringbuf_t *ring) {
  if (tq_ringbuf_used(ring) == 0 && ring->first_chunk != nullptr) tq_ringbuf_clear(ring);
}

}  // namespace

std::unique_ptr<Conn> Conn::open(uint32_t id, UniqueFd fd, std::string peer,
                                 Clock::time_point handshake_deadline) {
  std::unique_ptr<Conn> c(new Conn(id, std::move(fd), std::move(peer), handshake_deadline));
  if (!c->h_ || !c->h_->rbuf || !c->h_->wbuf) return nullptr;
  return c;
}

Conn::Conn(uint32_t id, UniqueFd fd, std::string peer, Clock::time_point deadline)
    : id_(id), fd_(std::move(fd)), peer_(std::move(peer)), deadline_(deadline),
      h_(tqdb_api_handle_new()) {
  vindel_sock_init_responder(&sock_, fd_.get());
  if (h_) tqdb_api_handle_set_io(h_.get(), &sock_);
  set_read_low_water(handshake_block());
}

Conn::~Conn() { vindel_sock_free(&sock_); }

short Conn::poll_events() const {
  short ev = 0;
  switch (phase_) {
    case Phase::kHandshake:
      if (vindel_want_read(&sock_)) ev |= POLLIN;
      if (vindel_want_write(&sock_)) ev |= POLLOUT;
      break;
    case Phase::kOpen:
      ev = POLLIN;
      if (wants_write()) ev |= POLLOUT;
      break;
  }
  return ev;
}

int Conn::handshake_block() const {
  switch (static_cast<vindel_state>(sock_.state)) {
    case VINDEL_STATE_GREETING:
      return 4;
    case VINDEL_STATE_PUBKEY:
      return static_cast<int>(kPubkeyBytes) - sock_.received;
    case VINDEL_STATE_OWN_KEY:
      return static_cast<int>(VINDEL_OWNKEY);
    case VINDEL_STATE_GREETING_REPLY:
    case VINDEL_STATE_WRAPPED_KEY:
    case VINDEL_STATE_ESTABLISHED:
      break;
  }
  return 1;
}

void Conn::set_read_low_water(int bytes) {
  if (bytes == low_water_) return;
  setsockopt(fd_.get(), SOL_SOCKET, SO_RCVLOWAT, &bytes, sizeof bytes);
  low_water_ = bytes;
}

Conn::Step Conn::handshake(bool can_read, bool can_write, std::string &why) {
  const int r = vindel_handshake_responder(can_read, can_write, &sock_);
  if (r < 0) {
    why = "handshake failed";
    return Step::kFailed;
  }
  set_read_low_water(handshake_block());
  if (r == 0) return Step::kMore;
  phase_ = Phase::kOpen;
  return Step::kDone;
}

// The handle's read pump, with one change: a read that comes back short of
// what was asked for ends it. The socket was drained then, and epoll reports
// whatever arrives later, so asking again only to hear "would block" would
// cost a system call per request on a busy server.
void Conn::read() {
  tqdb_api_handle_t &h = *h_;
  h.err = TQDB_API_IO_OK;
  h.err_no = 0;
  std::array<uint8_t, TQDB_API_IO_UNIT> buf;
  for (;;) {
    const size_t want = std::min<size_t>(tq_ringbuf_free_space(h.rbuf), buf.size());
    if (want == 0) return;  // frames must be taken out first
    const ssize_t r = vindel_read(buf.data(), want, &sock_);
    if (r == 0) {
      h.err = TQDB_API_IO_CLOSED;
      return;
    }
    if (r < 0) {
      const int saved = errno;
      if (vindel_sock_error() != VINDEL_WOULDBLOCK) {
        h.err = TQDB_API_IO_ERROR;
        h.err_no = saved;
      }
      return;
    }
    tq_ringbuf_write(h.rbuf, buf.data(), static_cast<size_t>(r));
    if (static_cast<size_t>(r) < want) return;
  }
}

Msg Conn::next_frame(bool &broken) {
  broken = false;
  Msg m(tq_msg_read_frame(h_->rbuf, &broken));
  if (!m) release_if_empty(h_->rbuf);
  return m;
}

bool Conn::flush() {
  const bool ok = tqdb_api_handle_write(h_.get());
  release_if_empty(h_->wbuf);
  return ok;
}

bool Conn::queue(const tq_msg_t &m) { return tq_msg_write_frame(h_->wbuf, &m); }

}  // namespace tqsim
