// tqdbsim (path in $TQDBSIM) as a child process, and clients that talk to it
// over loopback TCP with the real transport and API handle. Every wait is
// bounded; a child still running when its owner goes away is killed.
#ifndef TQ_TEST_SUPPORT_SIM_PROCESS_H
#define TQ_TEST_SUPPORT_SIM_PROCESS_H

#include <sys/types.h>

#include <cstdint>
#include <span>
#include <string>
#include <vector>

#include "support/wire.h"
#include "tqdb_api.h"
#include "vindel.h"

namespace tqtest {

std::string sim_binary();  // empty when TQDBSIM is not set

class SimProcess {
 public:
  SimProcess() = default;
  ~SimProcess() { stop(2000); }
  SimProcess(const SimProcess &) = delete;
  SimProcess &operator=(const SimProcess &) = delete;
  // Starts it with args plus "--port 0"; true once its first line names the port.
  bool start(const std::vector<std::string> &args, int timeout_ms = 10000);
  uint16_t port() const { return port_; }
  const std::string &listening_line() const { return line_; }
  bool alive();
  // SIGTERM, then the exit code; -1 when killed after the timeout or by a signal.
  int stop(int timeout_ms = 5000);

 private:
  pid_t pid_ = -1;
  uint16_t port_ = 0;
  std::string line_;
};

struct SimRun {
  int exit_code = -1;  // -1: killed after the timeout, or died of a signal
  std::string out, err;
};
SimRun run_sim(const std::vector<std::string> &args, int timeout_ms = 5000);

// A non-blocking TCP connection to the simulator; -1 on failure.
int connect_loopback(uint16_t port, int timeout_ms = 3000);
// True once the peer closes fd (read gives 0 or an error) within the timeout.
bool wait_closed(int fd, int timeout_ms = 3000);

// TCP, the transport's handshake as initiator, and an API handle over it.
class SimClient {
 public:
  SimClient() = default;
  ~SimClient() { close(); }
  SimClient(const SimClient &) = delete;
  SimClient &operator=(const SimClient &) = delete;
  bool connect(uint16_t port, int timeout_ms = 5000);
  tqdb_api_handle_t *h() { return h_.get(); }
  int fd() const { return fd_; }
  bool flush(int timeout_ms = 3000);
  // The next message (flushing first); nullptr on timeout or close.
  EnvPtr next(int timeout_ms = 3000);
  // With reset, the peer sees a connection reset.
  void close(bool reset = false);

 private:
  int fd_ = -1;
  vindel_sock_t sock_{};
  bool sock_ready_ = false;
  HandlePtr h_;
};

// A logged-in client with one session: the usual partner of a simulator
// test. Answers are taken in order; commit broadcasts in between are
// skipped, and an answer to another request fails the test.
struct SimSession {
  SimClient c;
  uint32_t s = 0;  // the session; 0 until open() succeeds

  // Connects, reads the version announcement, logs in and opens a session.
  bool open(uint16_t port, const char *user = "admin", const char *password = "admin");
  EnvPtr take(uint32_t cid);
  // A request of code with the fields given, and its answer.
  template <class... F>
  EnvPtr ask(uint32_t code, F... fields) {
    return take(tqdb_api_send(c.h(), code, s, fields...));
  }
  // A request whose body is given as bytes, and its answer.
  EnvPtr raw(uint32_t code, const Bytes &body);
  // The DATA messages of a multi-message answer; the closing OK is checked.
  std::vector<EnvPtr> many(uint32_t cid);
};

}  // namespace tqtest

#endif
