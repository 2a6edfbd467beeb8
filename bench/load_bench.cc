// Load on one simulator: many logged-in clients held by one thread on one
// epoll set, as a fleet manager holds them, each a real transport and API
// handle over loopback TCP.
//
//   load_bench [--sim PATH] [--seconds N] [--rate R]
//
// Starts tqdbsim (--sim, else $TQDBSIM, else the tqdbsim next to this
// program) and, in one run:
//   - opens 100 clients (handshake, login, session; a few dozen opening at a
//     time, so the listener's backlog never overflows), then 1 000, reading
//     the simulator's resident set before and once each set is idle;
//   - offers pings at a fixed total rate spread evenly over the clients
//     (open loop: each ping leaves at its time whether or not earlier ones
//     were answered) and times every round trip, from the request handed to
//     the socket to its reply read: 100 clients at 10 000/s, 1 000 at
//     50 000/s (R), and that again beside a client that stopped reading
//     with the answers of large pings queued (three quarters of what the
//     simulator's send queue holds, sent before the step) and sends the rest
//     during the step, until the simulator drops it;
//   - one client pipelining 100 000 pings.
// Each step lasts N seconds (default 5); round trips of its first half
// second are left out (warm-up). CPU time per ping, of the simulator and of
// this program, is counted over the step.
#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <signal.h>
#include <sys/epoll.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <deque>
#include <fstream>
#include <iterator>
#include <memory>
#include <span>
#include <sstream>
#include <string>
#include <vector>

#include "bench_net.h"
#include "tq_log.h"
#include "tqdb_api.h"
#include "vindel.h"

namespace {

constexpr int64_t kSecond = 1'000'000'000;
constexpr int64_t kWarmUp = kSecond / 2;
constexpr size_t kOpeningAtOnce = 32;
constexpr size_t kPipelined = 100'000;
// The slow neighbour's pings: answers of 30 000 bytes, as many as it takes
// to pass the simulator's send queue (75 MiB) and both socket buffers.
constexpr size_t kBigText = 30'000;
constexpr size_t kBigPings = 3'200;

int64_t now_ns() {
  timespec ts{};
  clock_gettime(CLOCK_MONOTONIC, &ts);
  return ts.tv_sec * kSecond + ts.tv_nsec;
}

struct EnvFree {
  void operator()(tqdb_api_msg_t *e) const noexcept { tqdb_api_msg_free(e); }
};
using Env = std::unique_ptr<tqdb_api_msg_t, EnvFree>;
struct HandleFree {
  void operator()(tqdb_api_handle_t *h) const noexcept { tqdb_api_handle_free(h); }
};

// tqdbsim as a child; stopped with SIGTERM when this goes.
class Sim {
 public:
  ~Sim() {
    if (pid_ <= 0) return;
    kill(pid_, SIGTERM);
    waitpid(pid_, nullptr, 0);
  }
  bool start(const std::string &bin) {
    int out[2];
    if (pipe2(out, O_CLOEXEC) != 0) return false;
    pid_ = fork();
    if (pid_ == 0) {
      dup2(out[1], STDOUT_FILENO);
      execl(bin.c_str(), bin.c_str(), "--port", "0", static_cast<char *>(nullptr));
      _exit(127);
    }
    close(out[1]);
    std::string line;
    char ch;
    while (line.find('\n') == std::string::npos && read(out[0], &ch, 1) == 1) line += ch;
    close(out[0]);
    const auto colon = line.rfind(':');
    port_ = colon == std::string::npos ? 0 : static_cast<uint16_t>(std::atoi(&line[colon + 1]));
    return pid_ > 0 && port_ != 0;
  }
  uint16_t port() const { return port_; }
  pid_t pid() const { return pid_; }
  // User + system CPU seconds the simulator has used.
  double cpu_seconds() const {
    std::ifstream f("/proc/" + std::to_string(pid_) + "/stat");
    std::string text((std::istreambuf_iterator<char>(f)), std::istreambuf_iterator<char>());
    const auto paren = text.rfind(')');  // the name may hold spaces
    if (paren == std::string::npos) return 0;
    std::istringstream rest(text.substr(paren + 2));
    std::string skip;
    for (int i = 0; i < 11; i++) rest >> skip;  // state .. cmajflt
    double utime = 0, stime = 0;
    rest >> utime >> stime;
    return (utime + stime) / static_cast<double>(sysconf(_SC_CLK_TCK));
  }
  // VmRSS of the simulator in KiB; -1 when unreadable.
  long rss_kib() const {
    std::ifstream f("/proc/" + std::to_string(pid_) + "/status");
    for (std::string line; std::getline(f, line);)
      if (line.starts_with("VmRSS:")) return std::atol(line.c_str() + 6);
    return -1;
  }

 private:
  pid_t pid_ = -1;
  uint16_t port_ = 0;
};

struct Client;

// Opening a session, one row per answer awaited after the handshake: the
// check of that answer and the request that follows it (none after the last).
struct OpenStep {
  bool (*accept)(Client &, tqdb_api_msg_t *);
  bool (*next)(Client &);
};

struct Client {
  int fd = -1;
  bool connected = false, established = false;
  vindel_sock_t sock{};
  std::unique_ptr<tqdb_api_handle_t, HandleFree> h;
  size_t step = 0;  // rows of kOpen passed
  uint32_t session = 0;
  bool reads = true;          // false: the neighbour that stopped reading
  bool gone = false;
  uint32_t watched = 0;       // the events epoll has for it
  std::deque<int64_t> sent;   // send times of the pings awaiting replies, in order

  ~Client() {
    h.reset();
    if (connected) vindel_sock_free(&sock);
    if (fd >= 0) close(fd);
  }
};

constexpr OpenStep kOpen[] = {
    {[](Client &, tqdb_api_msg_t *e) { return e->type == TQDB_API_MSG_TYPE_VERSION; },
     [](Client &c) { return tqdb_api_auth(c.h.get(), "admin", "admin") != 0; }},
    {[](Client &, tqdb_api_msg_t *e) { return tqdb_api_auth_handle(e, nullptr) == 1; },
     [](Client &c) { return tqdb_api_session_new(c.h.get()) != 0; }},
    {[](Client &c, tqdb_api_msg_t *e) { return (c.session = tqdb_api_session_new_handle(e)) != 0; },
     nullptr},
};
constexpr size_t kReady = std::size(kOpen);

// One step's figures.
struct Figures {
  size_t answered = 0;
  double seconds = 0;
  std::vector<int64_t> ns;  // round trips after the warm-up, ns
  double quantile_ms(double q) {
    if (ns.empty()) return 0;
    const size_t k = std::min(ns.size() - 1, static_cast<size_t>(q * static_cast<double>(ns.size())));
    std::nth_element(ns.begin(), ns.begin() + static_cast<long>(k), ns.end());
    return ns[k] / 1e6;
  }
};

class Load {
 public:
  explicit Load(uint16_t port) : port_(port), ep_(epoll_create1(EPOLL_CLOEXEC)) {}
  ~Load() { close(ep_); }
  std::vector<std::unique_ptr<Client>> clients;

  // Grows clients to n, all logged in with a session; false on a failure.
  bool open(size_t n, int64_t deadline) {
    size_t opening = 0;
    while (clients.size() < n || opening > 0) {
      while (clients.size() < n && opening < kOpeningAtOnce && connect_one()) opening++;
      if (now_ns() > deadline || !wait(now_ns() + kSecond / 10)) return false;
      opening = 0;
      for (const auto &c : clients) {
        if (c->gone) return false;
        opening += c->step < kReady;
      }
    }
    return true;
  }

  // Offers rate pings a second over the first n clients for the given time.
  // slow, when given, has first sent three quarters of its big pings (and
  // had a second to see the simulator queue their answers); it sends the
  // rest at an even pace over the first half, reading nothing.
  Figures offer(size_t n, double rate, double seconds, Client *slow) {
    const std::string big(kBigText, 'x');
    size_t b = 0;
    if (slow) {
      for (; b < kBigPings * 3 / 4; b++) ping(*slow, big.c_str());
      for (const int64_t stop = now_ns() + 20 * kSecond;
           !slow->gone && tqdb_api_handle_want_write(slow->h.get()) && now_ns() < stop;)
        wait(stop);
      idle(now_ns() + kSecond);
    }
    Figures f;
    record_ = &f;
    const int64_t t0 = now_ns() + kSecond / 100, end = t0 + static_cast<int64_t>(seconds * kSecond);
    record_from_ = t0 + kWarmUp;
    const size_t b0 = b;
    const double gap = kSecond / rate, big_gap = seconds * kSecond / 2 / static_cast<double>(kBigPings - b0);
    size_t k = 0;
    for (int64_t now = now_ns(); now < end; now = now_ns()) {
      int64_t due = t0 + static_cast<int64_t>(static_cast<double>(k) * gap);
      for (; due <= now; due = t0 + static_cast<int64_t>(static_cast<double>(++k) * gap))
        ping(*clients[k % n], "ping");
      const auto big_due = [&] { return t0 + static_cast<int64_t>(static_cast<double>(b - b0) * big_gap); };
      if (slow && !slow->gone && b < kBigPings) {
        for (; big_due() <= now && b < kBigPings; b++) ping(*slow, big.c_str());
        due = std::min(due, big_due());
      }
      wait(std::min(due, end));
    }
    // The answers still on their way count; the time does not grow for them.
    for (const int64_t stop = now_ns() + 2 * kSecond; now_ns() < stop && in_flight(n) > 0;)
      wait(stop);
    f.seconds = static_cast<double>(end - record_from_) / kSecond;
    record_ = nullptr;
    return f;
  }

  // One client sends count pings at once and takes every answer; seconds.
  double pipeline(Client &c, size_t count) {
    const int64_t t0 = now_ns();
    for (size_t i = 0; i < count; i++)
      if (tqdb_api_ping(c.h.get(), c.session, "ping") != 0) c.sent.push_back(t0);
    flush(c);
    for (const int64_t stop = t0 + 60 * kSecond; !c.sent.empty() && !c.gone && now_ns() < stop;)
      wait(stop);
    return c.sent.empty() ? static_cast<double>(now_ns() - t0) / kSecond : -1;
  }

  // Serves events until the deadline.
  void idle(int64_t until) {
    while (now_ns() < until) wait(until);
  }

 private:
  size_t in_flight(size_t n) const {
    size_t sum = 0;
    for (size_t i = 0; i < n; i++) sum += clients[i]->sent.size();
    return sum;
  }

  bool connect_one() {
    auto c = std::make_unique<Client>();
    c->fd = socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    if (c->fd < 0) return false;
    const int one = 1;
    setsockopt(c->fd, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_port = htons(port_);
    a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    if (connect(c->fd, reinterpret_cast<sockaddr *>(&a), sizeof a) != 0 && errno != EINPROGRESS)
      return false;
    watch(*c);
    clients.push_back(std::move(c));
    return true;
  }

  void ping(Client &c, const char *text) {
    if (c.gone || tqdb_api_ping(c.h.get(), c.session, text) == 0) return;
    c.sent.push_back(now_ns());
    flush(c);
  }

  void flush(Client &c) {
    if (!tqdb_api_handle_write(c.h.get())) c.gone = true;
    watch(c);
  }

  // What epoll waits for on c, changed only when it differs.
  void watch(Client &c) {
    uint32_t ev = EPOLLOUT;  // connecting
    if (c.gone) {
      ev = 0;
    } else if (c.connected && !c.established) {
      ev = (vindel_want_read(&c.sock) ? EPOLLIN : 0u) | (vindel_want_write(&c.sock) ? EPOLLOUT : 0u);
    } else if (c.established) {
      ev = (c.reads ? EPOLLIN : EPOLLRDHUP) | (tqdb_api_handle_want_write(c.h.get()) ? EPOLLOUT : 0u);
    }
    if (ev == c.watched) return;
    epoll_event e{ev, {.ptr = &c}};
    epoll_ctl(ep_, c.watched == 0 ? EPOLL_CTL_ADD : ev == 0 ? EPOLL_CTL_DEL : EPOLL_CTL_MOD, c.fd, &e);
    c.watched = ev;
  }

  // Waits for events until the deadline; false when epoll failed.
  bool wait(int64_t deadline) {
    epoll_event evs[256];
    const int64_t left = std::max<int64_t>(deadline - now_ns(), 0);
    const timespec ts{static_cast<time_t>(left / kSecond), static_cast<long>(left % kSecond)};
    const int n = epoll_pwait2(ep_, evs, std::size(evs), &ts, nullptr);
    if (n < 0) return errno == EINTR;
    for (int i = 0; i < n; i++) serve(*static_cast<Client *>(evs[i].data.ptr), evs[i].events);
    return true;
  }

  void serve(Client &c, uint32_t ev) {
    if (!c.connected) {
      int err = 0;
      socklen_t len = sizeof err;
      getsockopt(c.fd, SOL_SOCKET, SO_ERROR, &err, &len);
      c.gone = err != 0;
      if (!c.gone) vindel_sock_init_initiator(&c.sock, c.fd, bench::keys().pub.get(), bench::keys().priv.get());
      c.connected = !c.gone;
      ev = 0;
    }
    if (c.connected && !c.established) {
      const int r = vindel_handshake((ev & (EPOLLIN | EPOLLHUP | EPOLLERR)) != 0, (ev & EPOLLOUT) != 0, &c.sock);
      c.gone = r < 0;
      if (r == 1) {
        c.h.reset(tqdb_api_handle_new());
        tqdb_api_handle_set_io(c.h.get(), &c.sock);
        c.established = c.h != nullptr;
        c.gone = !c.established;
      }
      return watch(c);
    }
    if (!c.reads) {
      if (ev & (EPOLLRDHUP | EPOLLHUP | EPOLLERR)) c.gone = true;
    } else if (ev & (EPOLLIN | EPOLLHUP | EPOLLERR)) {
      while (Env e{tqdb_api_handle_readmsg(c.h.get())}) answer(c, e.get());
      if (tqdb_api_handle_io_status(c.h.get()) != TQDB_API_IO_OK) c.gone = true;
    }
    if (!c.gone && (ev & EPOLLOUT)) return flush(c);
    watch(c);
  }

  void answer(Client &c, tqdb_api_msg_t *e) {
    if (c.step < kReady) {
      if (!kOpen[c.step].accept(c, e)) {
        std::fprintf(stderr, "load_bench: opening step %zu refused (%s)\n", c.step, e->error);
        c.gone = true;
        return;
      }
      if (kOpen[c.step].next && !kOpen[c.step].next(c)) c.gone = true;
      c.step++;
      return flush(c);
    }
    if (e->type != TQDB_API_MSG_TYPE_DATA || c.sent.empty()) {
      std::fprintf(stderr, "load_bench: unexpected answer of type %u (%s)\n", e->type, e->error);
      c.gone = true;
      return;
    }
    const int64_t sent = c.sent.front(), now = now_ns();
    c.sent.pop_front();
    if (record_ && sent >= record_from_) {
      record_->answered++;
      record_->ns.push_back(now - sent);
    }
  }

  uint16_t port_;
  int ep_;
  Figures *record_ = nullptr;
  int64_t record_from_ = 0;
};

void raise_fd_limit() {
  rlimit r{};
  if (getrlimit(RLIMIT_NOFILE, &r) == 0 && r.rlim_cur < r.rlim_max) {
    r.rlim_cur = r.rlim_max;
    setrlimit(RLIMIT_NOFILE, &r);
  }
}

std::string sim_path(int argc, char **argv) {
  for (int i = 1; i + 1 < argc; i++)
    if (std::strcmp(argv[i], "--sim") == 0) return argv[i + 1];
  if (const char *env = std::getenv("TQDBSIM")) return env;
  std::string self = argv[0];
  const auto slash = self.rfind('/');
  return (slash == std::string::npos ? std::string(".") : self.substr(0, slash)) + "/tqdbsim";
}

double own_cpu_seconds() {
  rusage ru{};
  getrusage(RUSAGE_SELF, &ru);
  return static_cast<double>(ru.ru_utime.tv_sec + ru.ru_stime.tv_sec) +
         static_cast<double>(ru.ru_utime.tv_usec + ru.ru_stime.tv_usec) * 1e-6;
}

double option(int argc, char **argv, const char *name, double fallback) {
  for (int i = 1; i + 1 < argc; i++)
    if (std::strcmp(argv[i], name) == 0) return std::atof(argv[i + 1]);
  return fallback;
}

struct Row {
  const char *label;
  size_t clients;
  double rate;
  bool slow;
};
Row kRows[] = {
    {"100 clients", 100, 10'000, false},
    {"1000 clients", 1000, 50'000, false},
    {"1000 + one that stopped reading", 1000, 50'000, true},
};

}  // namespace

int main(int argc, char **argv) {
  signal(SIGPIPE, SIG_IGN);
  raise_fd_limit();
  const double seconds = option(argc, argv, "--seconds", 5);
  kRows[1].rate = kRows[2].rate = option(argc, argv, "--rate", 50000);
  if (!tq_lib_init(0) || !bench::keys().ok) return 1;
  Sim sim;
  if (!sim.start(sim_path(argc, argv))) {
    std::fprintf(stderr, "load_bench: tqdbsim did not start (%s)\n", sim_path(argc, argv).c_str());
    return 1;
  }
  rlimit lim{};
  getrlimit(RLIMIT_NOFILE, &lim);
  std::ifstream loadavg("/proc/loadavg");
  std::string load1;
  loadavg >> load1;
  std::printf("tqdbsim pid %d; open files allowed here: %llu; %ld CPUs, load average %s\n",
              sim.pid(), static_cast<unsigned long long>(lim.rlim_cur), sysconf(_SC_NPROCESSORS_ONLN),
              load1.c_str());

  Load load(sim.port());
  std::vector<long> rss{sim.rss_kib()};
  for (const size_t n : {size_t{100}, size_t{1000}}) {
    const int64_t t = now_ns();
    if (!load.open(n, t + 60 * kSecond)) {
      std::fprintf(stderr, "load_bench: %zu clients could not be opened\n", n);
      return 1;
    }
    std::printf("opened clients up to %zu in %.2f s\n", n, static_cast<double>(now_ns() - t) / kSecond);
    load.idle(now_ns() + kSecond);
    rss.push_back(sim.rss_kib());
  }
  std::printf("simulator resident set: %ld KiB started, %ld KiB with 100 idle clients, "
              "%ld KiB with 1000\n  per idle connection: %.1f KiB over all 1000 (%.1f KiB each of the "
              "first 100, %.1f KiB each of the next 900)\n",
              rss[0], rss[1], rss[2], static_cast<double>(rss[2] - rss[0]) / 1000,
              static_cast<double>(rss[1] - rss[0]) / 100, static_cast<double>(rss[2] - rss[1]) / 900);

  Client *slow = nullptr;
  std::printf("\nOpen loop: each ping leaves at its time; round trips in ms; CPU time per ping\n"
              "in us, of the simulator and of this program (all clients):\n");
  std::printf("%-32s %7s %9s %10s %6s %6s %6s %7s %6s %6s\n", "", "clients", "offered/s",
              "answered/s", "p50", "p90", "p99", "max", "sim", "here");
  double p99[std::size(kRows)]{};
  for (size_t i = 0; i < std::size(kRows); i++) {
    const Row &r = kRows[i];
    if (r.slow) {
      if (!load.open(r.clients + 1, now_ns() + 10 * kSecond)) return 1;
      slow = load.clients.back().get();
      slow->reads = false;
    }
    const double sim0 = sim.cpu_seconds(), own0 = own_cpu_seconds();
    Figures f = load.offer(r.clients, r.rate, seconds, slow);
    const auto lost = std::ranges::count_if(std::span(load.clients).first(r.clients),
                                            [](const auto &c) { return c->gone; });
    if (lost > 0) {
      std::fprintf(stderr, "load_bench: %td clients lost their connection\n", lost);
      return 1;
    }
    const double pings = r.rate * seconds / 1e6;
    p99[i] = f.quantile_ms(0.99);
    std::printf("%-32s %7zu %9.0f %10.0f %6.2f %6.2f %6.2f %7.2f %6.1f %6.1f\n", r.label, r.clients,
                r.rate, static_cast<double>(f.answered) / f.seconds, f.quantile_ms(0.5),
                f.quantile_ms(0.9), p99[i], f.quantile_ms(1.0), (sim.cpu_seconds() - sim0) / pings,
                (own_cpu_seconds() - own0) / pings);
  }
  load.idle(now_ns() + kSecond);
  std::printf("the reader that stopped: %s by the simulator\n",
              slow && slow->gone ? "dropped" : "NOT dropped");
  std::printf("p99 beside it / p99 without it: %.2f\n", p99[2] / std::max(p99[1], 1e-9));

  const double pipe = load.pipeline(*load.clients[0], kPipelined);
  if (pipe < 0) {
    std::fprintf(stderr, "load_bench: the pipelined pings were not all answered\n");
    return 1;
  }
  std::printf("\none client pipelining %zu pings: %.3f s, %.0f requests/s\n", kPipelined, pipe,
              static_cast<double>(kPipelined) / pipe);
  std::printf("target (1000 clients at 50 000 pings/s, p99 < 10 ms): %s\n",
              p99[1] < 10 && p99[2] < 10 ? "met" : "missed");
  tq_lib_deinit();
  return 0;
}
