// The server's end of a real encrypted connection inside the test process.
//
// A Link is a socketpair whose two ends have run the transport's handshake
// (initiator on the client end, responder on the server end), both
// non-blocking. The test hands link.client() to a tqdb_api_handle_t and plays
// the appliance on the server end: it sends canned reply frames and takes the
// client's request frames apart byte for byte. Everything is driven by
// poll(2) from the test's own thread; every wait is bounded.
#ifndef TQ_TEST_SUPPORT_RESPONDER_H
#define TQ_TEST_SUPPORT_RESPONDER_H

#include <optional>

#include "support/wire.h"
#include "vindel.h"

namespace tqtest {

// A 1024-bit key pair for the initiator, made once per process.
rsa_key_t *client_pubkey();
rsa_key_t *client_privkey();

class Link {
 public:
  Link();  // ok() tells whether the handshake completed
  ~Link();
  Link(const Link &) = delete;
  Link &operator=(const Link &) = delete;

  bool ok() const { return established_; }
  vindel_sock_t *client() { return &client_; }
  int client_fd() const { return fds_[0]; }
  int server_fd() const { return fds_[1]; }

  // Server end. send() writes all of bytes through the server's cipher,
  // waiting for room when the socket is full; false on error or timeout.
  bool send(std::span<const uint8_t> bytes, int timeout_ms = 2000);
  // Without waiting: queue() keeps bytes back, pump_out() writes what the
  // socket takes now and returns how many are still queued.
  void queue(std::span<const uint8_t> bytes);
  size_t pump_out();
  bool send_frame(uint32_t code, std::span<const uint8_t> payload) {
    return send(frame(code, payload));
  }
  // The next whole frame the client sent; nullopt on timeout or close.
  std::optional<Frame> recv_frame(int timeout_ms = 2000);
  // Decrypted bytes received so far but not yet cut into frames.
  size_t pending() const { return inbox_.size(); }
  // The server goes away: its end of the socketpair is closed.
  void close_server();
  // Shrinks both socket buffers so that a few kilobytes fill them.
  void shrink_buffers(int bytes);

 private:
  bool handshake();
  bool fill_inbox(int timeout_ms);

  int fds_[2] = {-1, -1};
  vindel_sock_t client_{};
  vindel_sock_t server_{};
  bool established_ = false;
  Bytes inbox_;
  Bytes outbox_;
};

// Client end, poll-driven. flush: write until the send ring is empty
// (false on a pump failure or timeout). await_msg: readmsg, waiting for the
// socket while nothing arrives and the connection is fine.
bool flush(tqdb_api_handle_t *h, int fd, int timeout_ms = 2000);
EnvPtr await_msg(tqdb_api_handle_t *h, int fd, int timeout_ms = 2000);

}  // namespace tqtest

#endif
