// A full handshake between initiator and responder over loopback TCP, both
// driven by one poll loop. The key pair is made once (the owner keeps it);
// connecting the sockets is not timed.
#include <benchmark/benchmark.h>

#include "bench_net.h"
#include "vindel.h"

namespace {

void BM_HandshakeLoopback(benchmark::State &state) {
  auto &kp = bench::keys();
  if (!kp.ok) {
    state.SkipWithError("key generation failed");
    return;
  }
  for (auto _ : state) {
    state.PauseTiming();
    int fds[2];
    if (!bench::tcp_pair(fds)) {
      state.SkipWithError("no loopback");
      break;
    }
    vindel_sock_t ini, rsp;
    vindel_sock_init_initiator(&ini, fds[0], kp.pub.get(), kp.priv.get());
    vindel_sock_init_responder(&rsp, fds[1]);
    state.ResumeTiming();

    const bool ok = bench::handshake(&ini, &rsp);

    state.PauseTiming();
    vindel_sock_free(&ini);
    vindel_sock_free(&rsp);
    close(fds[0]);
    close(fds[1]);
    state.ResumeTiming();
    if (!ok) {
      state.SkipWithError("handshake failed");
      break;
    }
  }
}
BENCHMARK(BM_HandshakeLoopback)->Unit(benchmark::kMicrosecond)->UseRealTime();

}  // namespace

BENCHMARK_MAIN();
