#include "conn.h"

#include <poll.h>
#include <sys/socket.h>

#include <utility>

#include "tq_msg.h"

namespace tqsim {
namespace {

// The peer's public key: e then N, each a big-endian number of keylen bits.
constexpr size_t kPubkeyBytes = VINDEL_KEYLEN / 4;

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

void Conn::read() { tqdb_api_handle_read(h_.get()); }

Msg Conn::next_frame(bool &broken) {
  broken = false;
  return Msg(tq_msg_read_frame(h_->rbuf, &broken));
}

bool Conn::queue(const tq_msg_t &m) { return tq_msg_write_frame(h_->wbuf, &m); }

}  // namespace tqsim
