// The simulator's server: one listening socket and every client connection
// on a single non-blocking epoll(7) loop.
//
// Each round waits for the stop descriptor, the listener and the
// connections; accepts what is waiting; advances handshakes; reads, cuts
// frames and dispatches each request in arrival order (connections in the
// order of their numbers), flushing a connection's replies as soon as it is
// served; flushes what was queued for the others (notices, broadcasts,
// query rows); then closes the connections that failed during the round,
// which ends their sessions (open transactions rolled back, locks
// released). A broken connection never stops the loop.
//
// The work of a round is bounded by what happened in it, not by how many
// clients are connected: the kernel keeps the interest set, and only the
// connections served or sent to in the round are flushed, only those still
// in their handshake are checked against its deadline, and only the failed
// ones are reaped.
#ifndef TQSIM_SERVER_H
#define TQSIM_SERVER_H

#include <chrono>
#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "conn.h"
#include "dispatch.h"
#include "options.h"
#include "files.h"
#include "stats_store.h"
#include "store.h"
#include "util.h"

namespace tqsim {

class Server final : public Hub {
 public:
  explicit Server(Options opts);
  ~Server() override;

  // Loads --state when given; false (with why) when the file is broken.
  [[nodiscard]] bool load(std::string &why);
  // Binds and listens; false (with why) when the address cannot be used.
  [[nodiscard]] bool listen(std::string &why);
  uint16_t port() const { return port_; }
  // Serves until stop_fd becomes readable; false when epoll itself failed.
  bool run(int stop_fd);

  void send_to_conn(uint32_t conn, Msg m) override;
  void send_to_session(uint32_t session, Msg m) override;
  const Options &options() const override { return opts_; }
  uint64_t now() const override;
  StatsStore &stats() override { return stats_; }
  void run_query(std::unique_ptr<QueryRun> q) override;
  Areas &areas() override { return areas_; }
  std::string peer_host(uint32_t conn) const override;
  void note_request(uint32_t conn, uint32_t code, const Route *route, uint32_t session,
                    uint32_t cid, uint32_t bytes) override;
  void restart(std::string_view reason) override;
  void reload(std::string_view reason) override;

 private:
  void accept_all();
  void service(Conn &c, short revents);
  void serve_frames(Conn &c);
  void handle(Conn &c, tq_msg_t &m);
  void doom(Conn &c, std::string reason);
  // Keeps the epoll registration of fd in step with events (0: none).
  void watch(int fd, uint64_t tag, uint32_t events, uint32_t &watched);
  void watch(Conn &c);
  // Marks c for this round's flush.
  void touch(Conn &c);
  void reap();
  // Steps every running query whose client has taken its last replies.
  void pump_queries();
  void log(const char *fmt, ...) const __attribute__((format(printf, 2, 3)));

  Options opts_;
  UniqueFd listener_;
  uint16_t port_ = 0;
  Store store_;
  StatsStore stats_;
  Areas areas_;
  std::vector<std::unique_ptr<QueryRun>> queries_;
  Dispatch dispatch_;
  std::map<uint32_t, std::unique_ptr<Conn>> conns_;
  UniqueFd epoll_;
  std::vector<uint32_t> handshaking_;  // connections that may time out
  std::vector<Conn *> touched_;        // served or sent to this round
  std::vector<uint32_t> doomed_;       // to be closed at the end of the round
  std::vector<uint32_t> backlog_;      // requests left over from their turn
  uint32_t next_conn_ = 1;
  Conn::Clock::time_point accept_paused_until_{};
  // Connections told of a restart: they serve no more requests and are
  // closed once the notice has left, or at the deadline.
  std::map<uint32_t, Conn::Clock::time_point> closing_;
};

}  // namespace tqsim

#endif
