#include "support/sim_process.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <optional>
#include <thread>

#include "support/responder.h"
#include "tq_msg.h"
#include "tqdb_api.h"

namespace tqtest {
namespace {

using Clock = std::chrono::steady_clock;

Clock::time_point after(int ms) { return Clock::now() + std::chrono::milliseconds(ms); }

int ms_left(Clock::time_point deadline) {
  const auto left =
      std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now()).count();
  return left > 0 ? static_cast<int>(left) : 0;
}

// fork + exec with stdout (and stderr when err_fd >= 0) redirected.
pid_t spawn(const std::vector<std::string> &args, int out_fd, int err_fd) {
  const std::string bin = sim_binary();
  if (bin.empty()) return -1;
  std::vector<char *> argv{const_cast<char *>(bin.c_str())};
  for (const std::string &a : args) argv.push_back(const_cast<char *>(a.c_str()));
  argv.push_back(nullptr);
  const pid_t pid = fork();
  if (pid == 0) {
    dup2(out_fd, STDOUT_FILENO);
    if (err_fd >= 0) dup2(err_fd, STDERR_FILENO);
    execv(bin.c_str(), argv.data());
    _exit(127);
  }
  return pid;
}

// The exit code (-1: died of a signal); nullopt while running at the deadline.
std::optional<int> reap(pid_t pid, Clock::time_point deadline) {
  for (;;) {
    int status = 0;
    const pid_t r = waitpid(pid, &status, WNOHANG);
    if (r == pid) return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    if (r < 0) return -1;
    if (Clock::now() >= deadline) return std::nullopt;
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
}

// Waits, killing pid when it outlives the timeout.
int finish(pid_t pid, int timeout_ms) {
  const auto code = reap(pid, after(timeout_ms));
  if (code) return *code;
  kill(pid, SIGKILL);
  waitpid(pid, nullptr, 0);
  return -1;
}

std::string contents(FILE *f) {
  std::string s;
  rewind(f);
  for (int c; (c = fgetc(f)) != EOF;) s.push_back(static_cast<char>(c));
  fclose(f);
  return s;
}

}  // namespace

std::string sim_binary() {
  const char *bin = std::getenv("TQDBSIM");
  return bin ? bin : "";
}

bool SimProcess::start(const std::vector<std::string> &args, int timeout_ms) {
  int out[2];
  if (pipe2(out, O_CLOEXEC) != 0) return false;
  std::vector<std::string> all = args;
  all.insert(all.end(), {"--port", "0"});
  pid_ = spawn(all, out[1], -1);
  ::close(out[1]);
  const auto deadline = after(timeout_ms);
  std::string text;
  while (pid_ > 0 && text.find('\n') == std::string::npos) {
    pollfd p{out[0], POLLIN, 0};
    char buf[256];
    if (poll(&p, 1, ms_left(deadline)) <= 0) break;
    const ssize_t n = read(out[0], buf, sizeof buf);
    if (n <= 0) break;
    text.append(buf, static_cast<size_t>(n));
  }
  ::close(out[0]);
  const auto nl = text.find('\n');
  const auto colon = text.rfind(':', nl);
  if (nl == std::string::npos || colon == std::string::npos) return false;
  line_ = text.substr(0, nl);
  port_ = static_cast<uint16_t>(std::atoi(line_.c_str() + colon + 1));
  return port_ != 0;
}

bool SimProcess::alive() {
  int status = 0;
  if (pid_ > 0 && waitpid(pid_, &status, WNOHANG) == 0) return true;
  pid_ = -1;
  return false;
}

int SimProcess::stop(int timeout_ms) {
  if (pid_ <= 0) return -1;
  kill(pid_, SIGTERM);
  const int code = finish(pid_, timeout_ms);
  pid_ = -1;
  return code;
}

SimRun run_sim(const std::vector<std::string> &args, int timeout_ms) {
  SimRun run;
  FILE *out = tmpfile(), *err = tmpfile();
  if (out && err) {
    const pid_t pid = spawn(args, fileno(out), fileno(err));
    if (pid > 0) run.exit_code = finish(pid, timeout_ms);
  }
  if (out) run.out = contents(out);
  if (err) run.err = contents(err);
  return run;
}

int connect_loopback(uint16_t port, int timeout_ms) {
  signal(SIGPIPE, SIG_IGN);
  const int fd = socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
  if (fd < 0) return -1;
  const int one = 1;
  setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
  sockaddr_in a{};
  a.sin_family = AF_INET;
  a.sin_port = htons(port);
  a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  if (::connect(fd, reinterpret_cast<sockaddr *>(&a), sizeof a) != 0) {
    pollfd p{fd, POLLOUT, 0};
    int soerr = 0;
    socklen_t len = sizeof soerr;
    if (errno != EINPROGRESS || poll(&p, 1, timeout_ms) != 1 ||
        getsockopt(fd, SOL_SOCKET, SO_ERROR, &soerr, &len) != 0 || soerr != 0) {
      ::close(fd);
      return -1;
    }
  }
  return fd;
}

bool wait_closed(int fd, int timeout_ms) {
  const auto deadline = after(timeout_ms);
  for (;;) {
    char buf[4096];
    const ssize_t n = recv(fd, buf, sizeof buf, 0);
    if (n == 0 || (n < 0 && errno != EAGAIN && errno != EWOULDBLOCK)) return true;
    pollfd p{fd, POLLIN, 0};
    if (n < 0 && poll(&p, 1, ms_left(deadline)) <= 0) return false;
  }
}

bool SimClient::connect(uint16_t port, int timeout_ms) {
  if (client_pubkey() == nullptr || (fd_ = connect_loopback(port, timeout_ms)) < 0) return false;
  vindel_sock_init_initiator(&sock_, fd_, client_pubkey(), client_privkey());
  sock_ready_ = true;
  const auto deadline = after(timeout_ms);
  for (int r = 0; r != 1;) {
    pollfd p{fd_, 0, 0};
    if (vindel_want_read(&sock_)) p.events |= POLLIN;
    if (vindel_want_write(&sock_)) p.events |= POLLOUT;
    if (poll(&p, 1, ms_left(deadline)) <= 0) return false;
    r = vindel_handshake((p.revents & POLLIN) != 0, (p.revents & POLLOUT) != 0, &sock_);
    if (r < 0) return false;
  }
  h_.reset(tqdb_api_handle_new());
  if (h_) tqdb_api_handle_set_io(h_.get(), &sock_);
  return h_ != nullptr;
}

bool SimClient::flush(int timeout_ms) { return tqtest::flush(h_.get(), fd_, timeout_ms); }

EnvPtr SimClient::next(int timeout_ms) {
  return flush(timeout_ms) ? await_msg(h_.get(), fd_, timeout_ms) : nullptr;
}

void SimClient::close(bool reset) {
  h_.reset();
  if (sock_ready_) vindel_sock_free(&sock_);
  sock_ready_ = false;
  if (fd_ >= 0 && reset) {
    const linger hard{1, 0};
    setsockopt(fd_, SOL_SOCKET, SO_LINGER, &hard, sizeof hard);
  }
  if (fd_ >= 0) ::close(fd_);
  fd_ = -1;
}

bool SimSession::open(uint16_t port, const char *user, const char *password) {
  if (!c.connect(port) || !c.next() || !tqdb_api_auth(c.h(), user, password)) return false;
  EnvPtr a = c.next();
  if (!a || tqdb_api_auth_handle(a.get(), nullptr) != 1) return false;
  EnvPtr n = take(tqdb_api_session_new(c.h()));
  return (s = n ? tqdb_api_session_new_handle(n.get()) : 0) != 0;
}

EnvPtr SimSession::take(uint32_t cid) {
  EnvPtr env = c.next();
  while (env && env->type == TQDB_API_MSG_TYPE_BCAST_COMMIT) env = c.next();
  EXPECT_TRUE(env && tqdb_api_msg_get_cid(env.get()) == cid) << "no answer to " << cid;
  return env;
}

EnvPtr SimSession::raw(uint32_t code, const Bytes &body) {
  return take(tqdb_api_request(c.h(), code, s, [&](tq_msg_t *m) {
    tq_msg_put_data(m, body.data(), body.size());
  }));
}

std::vector<EnvPtr> SimSession::many(uint32_t cid) {
  std::vector<EnvPtr> out;
  EnvPtr env = take(cid);
  for (; env && env->type == TQDB_API_MSG_TYPE_DATA; env = take(cid)) out.push_back(std::move(env));
  EXPECT_TRUE(env && env->type == TQDB_API_MSG_TYPE_OK);
  return out;
}

}  // namespace tqtest
