// Encrypted framed throughput over loopback TCP, as a client and the
// appliance see it: the sending process frames messages into a ring buffer
// (tq_msg_write_frame), peeks a transfer unit, sends it with vindel_write and
// discards what left; the receiving process reads with vindel_read into its
// receive ring and cuts frames with tq_msg_read_frame.
//
// Next to it, the same two processes move plain bytes with bare send/recv of
// the same transfer unit: what loopback TCP alone costs each end. Measured in
// the same run, it bounds what any transport over these sockets can reach:
// an end that must both run RC4 over every byte and pay the kernel's cost
// cannot go faster than 1 / (1/rc4 + 1/plain).
//
// The two ends are two processes (fork after the handshake), each
// single-threaded like the library itself: the message pool and the chunk
// cache are per process and unlocked, so they must not be shared by threads.
//
// Figures: bytes_per_second is payload per second of wall time, which on a
// shared machine depends on what else runs. The counters recv_MBps and
// send_MBps are payload per CPU second of each process, and cpu_bound_MBps
// the smaller of the two: the rate the pipeline sustains when each end has a
// core of its own. recv_user_MBps and send_user_MBps count user time only:
// what the library's side of each path costs without the kernel's TCP work.
#include <benchmark/benchmark.h>

#include <errno.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/wait.h>

#include <algorithm>
#include <vector>

#include "bench_net.h"
#include "tq_msg.h"
#include "tq_ringbuf.h"
#include "vindel.h"

namespace {

constexpr uint32_t kReplyCode = 0x20006;
constexpr size_t kBytesPerIteration = 8u << 20;  // payload cut per timed iteration

double seconds(const timeval &t) {
  return static_cast<double>(t.tv_sec) + static_cast<double>(t.tv_usec) * 1e-6;
}
// User plus system CPU time of this process; *user gets the user part.
double cpu_seconds(double *user = nullptr) {
  rusage ru{};
  getrusage(RUSAGE_SELF, &ru);
  if (user != nullptr) *user = seconds(ru.ru_utime);
  return seconds(ru.ru_utime) + seconds(ru.ru_stime);
}

// What the sender reports through a pipe when the parent has gone away.
struct SenderReport {
  double cpu;       // seconds of user + system time, since the fork
  double user;      // the user part of it
  uint64_t payload; // bytes of payload that left
};

// How the two ends move bytes.
enum class Mode { kFramed, kPlain };

// A bare socket call's result with "try again" told apart as -2, the way
// would_block() expects it in plain mode.
ssize_t plain_result(ssize_t r) { return r < 0 && (errno == EAGAIN || errno == EWOULDBLOCK) ? -2 : r; }

// One socket call of the sender: vindel_write, or a bare send of plain bytes.
ssize_t send_once(Mode mode, vindel_sock_t *sock, uint8_t *buf, size_t n) {
  if (mode == Mode::kFramed) return vindel_write(buf, n, sock);
  return plain_result(send(static_cast<int>(sock->fd), buf, n, 0));
}
bool would_block(Mode mode, ssize_t r) {
  return mode == Mode::kFramed ? r < 0 && vindel_sock_error() == VINDEL_WOULDBLOCK : r == -2;
}

// The child: sends forever until the parent goes away, then reports. Framed,
// it frames one message again and again into its ring and sends from there;
// plain, it sends the same transfer unit of bytes again and again.
[[noreturn]] void run_sender(Mode mode, vindel_sock_t *sock, uint16_t payload, size_t unit,
                             int report) {
  double user0 = 0;
  const double cpu0 = cpu_seconds(&user0);
  uint64_t wire = 0;
  tq_msg_t *msg = tq_msg_new(kReplyCode);
  std::vector<uint8_t> body(payload);
  for (size_t k = 0; k < body.size(); k++) body[k] = static_cast<uint8_t>(k);
  tq_msg_put_data(msg, body.data(), body.size());
  tq_ringbuf_t *ring = tq_ringbuf_new(1u << 20);
  std::vector<uint8_t> buf(unit);
  for (;;) {
    size_t n = unit;
    if (mode == Mode::kFramed) {
      while (tq_msg_write_frame(ring, msg)) {
      }
      n = tq_ringbuf_peek(ring, buf.data(), unit);
    }
    const ssize_t r = send_once(mode, sock, buf.data(), n);
    if (r > 0) {
      if (mode == Mode::kFramed) (void)tq_ringbuf_skip(ring, static_cast<size_t>(r));
      wire += static_cast<uint64_t>(r);
    } else if (would_block(mode, r)) {
      pollfd p{static_cast<int>(sock->fd), POLLOUT, 0};
      (void)poll(&p, 1, 1000);
    } else {
      const uint64_t sent =
          mode == Mode::kFramed ? wire / (payload + TQ_MSG_FRAME_HEADER) * payload : wire;
      double user1 = 0;
      const double cpu = cpu_seconds(&user1) - cpu0;
      const SenderReport rep{cpu, user1 - user0, sent};
      (void)!write(report, &rep, sizeof rep);
      _exit(0);
    }
  }
}

// The parent's side of one timed iteration: reads until kBytesPerIteration
// bytes of payload have arrived; false when the connection went away.
bool receive(Mode mode, vindel_sock_t *sock, tq_ringbuf_t *rx, std::vector<uint8_t> &buf,
             int64_t *total) {
  const int fd = static_cast<int>(sock->fd);
  size_t got = 0;
  while (got < kBytesPerIteration) {
    ssize_t r;
    if (mode == Mode::kFramed) {
      r = vindel_read(buf.data(), std::min<size_t>(buf.size(), tq_ringbuf_free_space(rx)), sock);
    } else {
      r = plain_result(recv(fd, buf.data(), buf.size(), 0));
    }
    if (r > 0) {
      if (mode == Mode::kPlain) {
        got += static_cast<size_t>(r);
        continue;
      }
      (void)tq_ringbuf_write(rx, buf.data(), static_cast<size_t>(r));
      while (tq_msg_t *m = tq_msg_read_frame(rx, nullptr)) {
        got += m->len;
        tq_msg_free(m);
      }
    } else if (would_block(mode, r)) {
      pollfd p{fd, POLLIN, 0};
      (void)poll(&p, 1, 1000);
    } else {
      return false;
    }
  }
  *total += static_cast<int64_t>(got);
  return true;
}

void run_pipeline(benchmark::State &state, Mode mode) {
  const auto payload = static_cast<uint16_t>(state.range(0));
  const auto unit = static_cast<size_t>(state.range(1));
  auto &kp = bench::keys();
  int fds[2];
  if (!kp.ok || !bench::tcp_pair(fds)) {
    state.SkipWithError("set-up failed");
    return;
  }
  vindel_sock_t ini, rsp;
  vindel_sock_init_initiator(&ini, fds[0], kp.pub.get(), kp.priv.get());
  vindel_sock_init_responder(&rsp, fds[1]);
  if (!bench::handshake(&ini, &rsp)) {
    state.SkipWithError("handshake failed");
    return;
  }

  int report[2];
  if (pipe(report) != 0) {
    state.SkipWithError("pipe");
    return;
  }
  const pid_t child = fork();
  if (child == 0) {
    close(fds[0]);
    close(report[0]);
    run_sender(mode, &rsp, payload, unit, report[1]);
  }
  close(fds[1]);
  close(report[1]);

  tq_ringbuf_t *rx = tq_ringbuf_new(0x20000);
  std::vector<uint8_t> buf(unit);
  int64_t total = 0;
  double user0 = 0;
  const double cpu0 = cpu_seconds(&user0);
  for (auto _ : state) {
    if (!receive(mode, &ini, rx, buf, &total)) {
      state.SkipWithError("connection lost");
      break;
    }
  }
  double user1 = 0;
  const double recv_cpu = cpu_seconds(&user1) - cpu0;
  const double recv_user = user1 - user0;
  state.SetBytesProcessed(total);

  // Closing our end makes the sender's next send fail; it reports and exits.
  close(fds[0]);
  SenderReport rep{};
  pollfd p{report[0], POLLIN, 0};
  if (poll(&p, 1, 10000) != 1 || read(report[0], &rep, sizeof rep) != sizeof rep) {
    kill(child, SIGKILL);
    state.SkipWithError("the sender did not report");
  }
  close(report[0]);
  (void)waitpid(child, nullptr, 0);
  if (recv_cpu > 0 && rep.cpu > 0) {
    const double recv_rate = static_cast<double>(total) / recv_cpu / 1e6;
    const double send_rate = static_cast<double>(rep.payload) / rep.cpu / 1e6;
    state.counters["recv_MBps"] = recv_rate;
    state.counters["send_MBps"] = send_rate;
    state.counters["cpu_bound_MBps"] = std::min(recv_rate, send_rate);
    // Each end's own work (RC4, ring, frames) without the kernel's.
    if (recv_user > 0) state.counters["recv_user_MBps"] = static_cast<double>(total) / recv_user / 1e6;
    if (rep.user > 0) state.counters["send_user_MBps"] = static_cast<double>(rep.payload) / rep.user / 1e6;
  }
  tq_ringbuf_free(rx);
  vindel_sock_free(&ini);
  vindel_sock_free(&rsp);
}

void BM_FramedLoopback(benchmark::State &state) { run_pipeline(state, Mode::kFramed); }
void BM_PlainLoopback(benchmark::State &state) { run_pipeline(state, Mode::kPlain); }

// (payload bytes per frame, bytes per socket call): 4096 is the handle's
// pump unit; 65536 shows what a larger unit buys.
BENCHMARK(BM_FramedLoopback)
    ->Args({32768, 4096})
    ->Args({32768, 65536})
    ->Args({1024, 4096})
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime();
// The same transfer units with no cipher and no frames (payload = bytes).
BENCHMARK(BM_PlainLoopback)
    ->Args({0, 4096})
    ->Args({0, 65536})
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime();

}  // namespace

BENCHMARK_MAIN();
