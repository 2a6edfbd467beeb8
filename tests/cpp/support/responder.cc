#include "support/responder.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <chrono>
#include <cstring>

#include "tq_msg.h"
#include "tq_ringbuf.h"

namespace tqtest {

namespace {

using clock_type = std::chrono::steady_clock;

int remaining_ms(clock_type::time_point deadline) {
  const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - clock_type::now());
  return std::max<int>(0, static_cast<int>(left.count()));
}

// true when fd reported one of events before the deadline.
bool wait_for(int fd, short events, clock_type::time_point deadline) {
  pollfd p{fd, events, 0};
  return poll(&p, 1, remaining_ms(deadline)) == 1;
}

uint32_t be32(const uint8_t *p) {
  return uint32_t{p[0]} << 24 | uint32_t{p[1]} << 16 | uint32_t{p[2]} << 8 | uint32_t{p[3]};
}

// Length of the first whole frame in bytes, or 0 while it is incomplete.
size_t whole_frame(std::span<const uint8_t> b) {
  if (b.size() < 6) return 0;
  const size_t len = size_t{b[4]} << 8 | b[5];
  return b.size() >= 6 + len ? 6 + len : 0;
}

short handshake_events(const vindel_sock_t *s) {
  return static_cast<short>((vindel_want_read(s) ? POLLIN : 0) | (vindel_want_write(s) ? POLLOUT : 0));
}

struct KeyDeleter {
  void operator()(rsa_key_t *k) const { rsa_key_free(k); }
};
using KeyPtr = std::unique_ptr<rsa_key_t, KeyDeleter>;

struct KeyPair {
  KeyPtr pub{rsa_key_new()};
  KeyPtr priv{rsa_key_new()};
  bool ok = rsa_keygen(pub.get(), priv.get(), VINDEL_KEYLEN, 64);
};

KeyPair &keys() {
  static KeyPair pair;
  return pair;
}

}  // namespace

rsa_key_t *client_pubkey() { return keys().ok ? keys().pub.get() : nullptr; }
rsa_key_t *client_privkey() { return keys().ok ? keys().priv.get() : nullptr; }

// --- Link --------------------------------------------------------------------------------

Link::Link() {
  signal(SIGPIPE, SIG_IGN);  // a write to a closed peer must fail, not kill the test
  if (client_pubkey() == nullptr) return;
  if (socketpair(AF_UNIX, SOCK_STREAM, 0, fds_) != 0) return;
  for (int fd : fds_) fcntl(fd, F_SETFL, fcntl(fd, F_GETFL) | O_NONBLOCK);
  vindel_sock_init_initiator(&client_, fds_[0], client_pubkey(), client_privkey());
  vindel_sock_init_responder(&server_, fds_[1]);
  established_ = handshake();
}

Link::~Link() {
  vindel_sock_free(&client_);
  vindel_sock_free(&server_);
  for (int fd : fds_)
    if (fd >= 0) close(fd);
}

// Both roles stepped from one thread, each when poll says its socket is
// ready for what it waits for.
bool Link::handshake() {
  const auto deadline = clock_type::now() + std::chrono::seconds(10);
  int client_done = 0;
  int server_done = 0;
  while (client_done != 1 || server_done != 1) {
    pollfd p[2] = {{fds_[0], handshake_events(&client_), 0},
                   {fds_[1], handshake_events(&server_), 0}};
    if (poll(p, 2, remaining_ms(deadline)) <= 0) return false;
    if (client_done != 1)
      client_done = vindel_handshake((p[0].revents & POLLIN) != 0, (p[0].revents & POLLOUT) != 0,
                                     &client_);
    if (server_done != 1)
      server_done = vindel_handshake_responder((p[1].revents & POLLIN) != 0,
                                               (p[1].revents & POLLOUT) != 0, &server_);
    if (client_done < 0 || server_done < 0) return false;
  }
  return true;
}

void Link::queue(std::span<const uint8_t> bytes) { outbox_.insert(outbox_.end(), bytes.begin(), bytes.end()); }

size_t Link::pump_out() {
  while (!outbox_.empty()) {
    // Encrypts in place; on a short send the rest is plain text again.
    const ssize_t r = vindel_write(outbox_.data(), outbox_.size(), &server_);
    if (r <= 0) break;
    outbox_.erase(outbox_.begin(), outbox_.begin() + r);
  }
  return outbox_.size();
}

bool Link::send(std::span<const uint8_t> bytes, int timeout_ms) {
  const auto deadline = clock_type::now() + std::chrono::milliseconds(timeout_ms);
  queue(bytes);
  while (pump_out() > 0) {
    if (vindel_sock_error() != VINDEL_WOULDBLOCK || !wait_for(fds_[1], POLLOUT, deadline)) {
      outbox_.clear();
      return false;
    }
  }
  return true;
}

bool Link::fill_inbox(int timeout_ms) {
  const auto deadline = clock_type::now() + std::chrono::milliseconds(timeout_ms);
  uint8_t buf[4096];
  for (;;) {
    const ssize_t r = vindel_read(buf, sizeof buf, &server_);
    if (r > 0) {
      inbox_.insert(inbox_.end(), buf, buf + r);
      return true;
    }
    if (r == 0 || vindel_sock_error() != VINDEL_WOULDBLOCK) return false;
    if (!wait_for(fds_[1], POLLIN, deadline)) return false;
  }
}

std::optional<Frame> Link::recv_frame(int timeout_ms) {
  const auto deadline = clock_type::now() + std::chrono::milliseconds(timeout_ms);
  while (whole_frame(inbox_) == 0)
    if (!fill_inbox(remaining_ms(deadline))) return std::nullopt;
  const size_t n = whole_frame(inbox_);
  Frame f{be32(inbox_.data()), Bytes(inbox_.begin() + 6, inbox_.begin() + static_cast<long>(n))};
  inbox_.erase(inbox_.begin(), inbox_.begin() + static_cast<long>(n));
  return f;
}

void Link::close_server() {
  if (fds_[1] >= 0) close(fds_[1]);
  fds_[1] = -1;
}

void Link::shrink_buffers(int bytes) {
  for (int fd : fds_) {
    setsockopt(fd, SOL_SOCKET, SO_SNDBUF, &bytes, sizeof bytes);
    setsockopt(fd, SOL_SOCKET, SO_RCVBUF, &bytes, sizeof bytes);
  }
}

// --- client end ----------------------------------------------------------------------

bool flush(tqdb_api_handle_t *h, int fd, int timeout_ms) {
  const auto deadline = clock_type::now() + std::chrono::milliseconds(timeout_ms);
  while (tqdb_api_handle_want_write(h)) {
    if (!tqdb_api_handle_write(h)) return false;
    if (tqdb_api_handle_want_write(h) && !wait_for(fd, POLLOUT, deadline)) return false;
  }
  return true;
}

EnvPtr await_msg(tqdb_api_handle_t *h, int fd, int timeout_ms) {
  const auto deadline = clock_type::now() + std::chrono::milliseconds(timeout_ms);
  for (;;) {
    if (EnvPtr env{tqdb_api_handle_readmsg(h)}) return env;
    if (tqdb_api_handle_io_status(h) != TQDB_API_IO_OK) return nullptr;
    // A dropped message (unknown code) may leave whole frames behind it.
    uint8_t head[6];
    if (tq_ringbuf_peek(h->rbuf, head, sizeof head) == sizeof head &&
        tq_ringbuf_used(h->rbuf) >= 6 + (size_t{head[4]} << 8 | head[5]))
      continue;
    if (!wait_for(fd, POLLIN, deadline)) return nullptr;
  }
}

}  // namespace tqtest
