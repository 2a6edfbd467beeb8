// One client connection of the simulator.
//
// A connection owns its socket, the transport's socket record (we are the
// responder) and a client API handle used purely as the connection's two
// byte queues: requests are read and decrypted into the handle's receive
// ring and cut into frames there; replies are framed into its send ring and
// flushed by its write pump. A ring that runs empty gives its chunk back, so
// an idle connection holds no buffer. Nothing here blocks; the server's
// event loop drives each step with what the kernel reported.
//
//   Handshake --(transport established)--> Open --(error, peer gone)--> closed
//
// The client's public key is looked at before the transport takes it, so
// that a key too small to wrap our 64-byte key under is refused here
// instead of reaching (and aborting) the RSA code.
#ifndef TQSIM_CONN_H
#define TQSIM_CONN_H

#include <chrono>
#include <cstdint>
#include <memory>
#include <string>

#include "dispatch.h"
#include "reply.h"
#include "tqdb_api.h"
#include "util.h"
#include "vindel.h"

namespace tqsim {

class Conn {
 public:
  enum class Phase { kHandshake, kOpen };
  enum class Step { kMore, kDone, kFailed };
  using Clock = std::chrono::steady_clock;

  // nullptr when the connection's buffers cannot be made.
  static std::unique_ptr<Conn> open(uint32_t id, UniqueFd fd, std::string peer,
                                    Clock::time_point handshake_deadline);
  ~Conn();
  Conn(const Conn &) = delete;
  Conn &operator=(const Conn &) = delete;

  uint32_t id() const { return id_; }
  int fd() const { return fd_.get(); }
  Phase phase() const { return phase_; }
  const std::string &peer() const { return peer_; }
  Clock::time_point handshake_deadline() const { return deadline_; }
  short poll_events() const;

  // One handshake step; on kFailed, why says what went wrong.
  Step handshake(bool can_read, bool can_write, std::string &why);

  // After the handshake. read() fills the receive ring until the socket
  // has no more (a short read says so); next_frame() takes one whole frame
  // (null when none, with broken set when the stream is garbage);
  // io_status() is the pumps' TQDB_API_IO_* outcome.
  void read();
  Msg next_frame(bool &broken);
  uint32_t io_status() const { return tqdb_api_handle_io_status(h_.get()); }
  int io_errno() const { return tqdb_api_handle_get_errno(h_.get()); }
  // Frames m into the send ring; false when it is full (the client is not
  // reading).
  [[nodiscard]] bool queue(const tq_msg_t &m);
  bool wants_write() const { return tqdb_api_handle_want_write(h_.get()); }
  // Sends what the socket takes; false when the connection is broken.
  [[nodiscard]] bool flush();

  Login login;
  // Set when the connection is to be closed at the end of the loop's round.
  bool doomed = false;
  std::string doom_reason;
  // The server's bookkeeping: the events the epoll set has for it, and
  // whether it is already listed for the round's flush.
  uint32_t watched = 0;
  bool touched = false;
  // Requests are waiting in its receive ring for its next turn.
  bool backlogged = false;

 private:
  struct HandleFree {
    void operator()(tqdb_api_handle_t *h) const noexcept { tqdb_api_handle_free(h); }
  };

  Conn(uint32_t id, UniqueFd fd, std::string peer, Clock::time_point deadline);
  // The transport reads its handshake blocks (greeting, public key, the
  // client's stream key) in one receive each and fails on a short one, so
  // poll is told to report the socket readable only once the whole block is
  // there (or the peer is gone).
  int handshake_block() const;
  void set_read_low_water(int bytes);

  uint32_t id_;
  UniqueFd fd_;
  std::string peer_;
  Clock::time_point deadline_;
  Phase phase_ = Phase::kHandshake;
  int low_water_ = 1;
  vindel_sock_t sock_{};
  std::unique_ptr<tqdb_api_handle_t, HandleFree> h_;
};

}  // namespace tqsim

#endif
