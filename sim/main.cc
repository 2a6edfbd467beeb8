// tqdbsim: an appliance simulator that speaks the TQDB protocol over TCP,
// for developing and testing scripts without an appliance.
//
//   tqdbsim --port 17100 --user admin:admin [--user ops:secret] [--version 0x6100]
//
// Prints "tqdbsim listening on HOST:PORT" once ready; SIGINT or SIGTERM stop
// it cleanly (exit 0). Bad arguments, or a --state file that cannot be
// read: a message on stderr, exit 2.
#include <fcntl.h>
#include <sys/resource.h>
#include <unistd.h>

#include <csignal>
#include <cstdio>
#include <string>

#include "options.h"
#include "server.h"
#include "tq_log.h"
#include "tq_ringbuf.h"
#include "util.h"

namespace {

int g_stop_write = -1;

extern "C" void on_stop_signal(int) {
  const int saved = errno;
  const char byte = 1;
  [[maybe_unused]] ssize_t n = write(g_stop_write, &byte, 1);
  errno = saved;
}

// A pipe that becomes readable when SIGINT or SIGTERM arrives, so the poll
// loop sees the stop request wherever the signal lands.
bool install_stop_pipe(tqsim::UniqueFd &read_end, tqsim::UniqueFd &write_end) {
  int fds[2];
  if (pipe2(fds, O_NONBLOCK | O_CLOEXEC) != 0) return false;
  read_end.reset(fds[0]);
  write_end.reset(fds[1]);
  g_stop_write = fds[1];
  struct sigaction sa{};
  sa.sa_handler = on_stop_signal;
  sigemptyset(&sa.sa_mask);
  return sigaction(SIGINT, &sa, nullptr) == 0 && sigaction(SIGTERM, &sa, nullptr) == 0;
}

// Every client is a descriptor: the usual soft limit of 1 024 would refuse
// a fleet long before memory runs short, so take all the system allows.
void raise_descriptor_limit() {
  rlimit r{};
  if (getrlimit(RLIMIT_NOFILE, &r) == 0 && r.rlim_cur < r.rlim_max) {
    r.rlim_cur = r.rlim_max;
    setrlimit(RLIMIT_NOFILE, &r);
  }
}

int serve(const tqsim::Options &opts, int stop_fd) {
  tqsim::Server server(opts);
  std::string why;
  if (!server.load(why)) {
    std::fprintf(stderr, "tqdbsim: %s\n", why.c_str());
    return 2;
  }
  if (!server.listen(why)) {
    std::fprintf(stderr, "tqdbsim: %s\n", why.c_str());
    return 1;
  }
  std::printf("tqdbsim listening on %s:%u\n", opts.host.c_str(), server.port());
  std::fflush(stdout);
  return server.run(stop_fd) ? 0 : 1;
}

}  // namespace

int main(int argc, char **argv) {
  tqsim::Options opts;
  std::string why;
  switch (tqsim::parse_options(argc, argv, opts, why)) {
    case tqsim::ParseResult::kHelp:
      std::fputs(tqsim::usage_text(), stdout);
      return 0;
    case tqsim::ParseResult::kBad:
      std::fprintf(stderr, "tqdbsim: %s\n%s", why.c_str(), tqsim::usage_text());
      return 2;
    case tqsim::ParseResult::kRun:
      break;
  }

  // A client that vanishes must cost us its connection, not the process.
  std::signal(SIGPIPE, SIG_IGN);
  raise_descriptor_limit();
  tqsim::UniqueFd stop_read, stop_write;
  if (!install_stop_pipe(stop_read, stop_write)) {
    std::perror("tqdbsim: signals");
    return 1;
  }

  if (!tq_lib_init(0)) {
    std::fprintf(stderr, "tqdbsim: the library did not start\n");
    return 1;
  }
  // Spare ring chunks are kept for reuse, but a client dropped with a full
  // send queue must not leave its queue's worth of them behind for good.
  tq_ringbuf_set_cache_limit(64);
  const int rc = serve(opts, stop_read.get());
  tq_lib_deinit();
  return rc;
}
