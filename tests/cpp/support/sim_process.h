// The simulator as a child process, and clients that talk to it over
// loopback TCP with the real transport and API handle.
//
// The binary is named by the environment variable TQDBSIM (CTest sets it).
// SimProcess starts it on a free port (--port 0) and waits for its
// "tqdbsim listening on HOST:PORT" line; stop() sends SIGTERM and returns
// the exit status. Every wait is bounded; a child still running when its
// owner goes away is killed.
#ifndef TQ_TEST_SUPPORT_SIM_PROCESS_H
#define TQ_TEST_SUPPORT_SIM_PROCESS_H

#include <sys/types.h>

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "support/wire.h"
#include "vindel.h"

namespace tqtest {

// TQDBSIM, or empty when it is not set.
std::string sim_binary();

class SimProcess {
 public:
  SimProcess() = default;
  ~SimProcess();
  SimProcess(const SimProcess &) = delete;
  SimProcess &operator=(const SimProcess &) = delete;

  // Starts the simulator with args plus "--port 0"; true once it listens.
  bool start(const std::vector<std::string> &args, int timeout_ms = 10000);
  uint16_t port() const { return port_; }
  const std::string &listening_line() const { return line_; }
  // True while the child has not exited.
  bool alive();
  // SIGTERM, then waits: the exit code, or -1 when it did not exit by
  // itself in time (it is then killed) or died of a signal.
  int stop(int timeout_ms = 5000);

 private:
  pid_t pid_ = -1;
  uint16_t port_ = 0;
  std::string line_;
};

struct SimRun {
  int exit_code = -1;  // -1: killed after the timeout, or died of a signal
  std::string out;
  std::string err;
};
// Runs the simulator with args to its end (bounded), capturing its output.
SimRun run_sim(const std::vector<std::string> &args, int timeout_ms = 5000);

// A plain TCP connection to the simulator, connected and non-blocking.
int connect_loopback(uint16_t port, int timeout_ms = 3000);
// Waits until the peer closes fd (read gives 0 or an error); false on
// timeout.
bool wait_closed(int fd, int timeout_ms = 3000);

// One client: TCP, the transport's handshake as initiator, and an API
// handle over it.
class SimClient {
 public:
  SimClient() = default;
  ~SimClient();
  SimClient(const SimClient &) = delete;
  SimClient &operator=(const SimClient &) = delete;

  bool connect(uint16_t port, int timeout_ms = 5000);
  tqdb_api_handle_t *h() { return h_.get(); }
  int fd() const { return fd_; }
  // Queues raw bytes as one frame, past the request builders.
  bool queue_frame(uint32_t code, std::span<const uint8_t> payload);
  bool flush(int timeout_ms = 3000);
  // The next message (flushing first); nullptr on timeout or close.
  EnvPtr next(int timeout_ms = 3000);
  // Closes the socket; with reset, the peer sees a connection reset.
  void close(bool reset = false);

 private:
  int fd_ = -1;
  vindel_sock_t sock_{};
  bool sock_ready_ = false;
  HandlePtr h_;
};

}  // namespace tqtest

#endif
