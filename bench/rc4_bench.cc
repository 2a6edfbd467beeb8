// RC4 throughput per block size (the sizes `openssl speed` reports), and the
// cost of keying a stream.
#include <benchmark/benchmark.h>

#include <vector>

#include "vindel.h"

namespace {

void BM_Rc4Crypt(benchmark::State &state) {
  const auto n = static_cast<size_t>(state.range(0));
  std::vector<uint8_t> buf(n, 0x5A);
  uint8_t key[VINDEL_OWNKEY];
  for (size_t k = 0; k < sizeof key; k++) key[k] = static_cast<uint8_t>(k * 13 + 1);
  vindel_rc4_t st;
  vindel_rc4_init(key, sizeof key, &st);
  for (auto _ : state) {
    vindel_rc4_crypt(buf.data(), n, &st);
    benchmark::DoNotOptimize(buf.data());
    benchmark::ClobberMemory();
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * static_cast<int64_t>(n));
}
BENCHMARK(BM_Rc4Crypt)->Arg(16)->Arg(64)->Arg(256)->Arg(1024)->Arg(8192)->Arg(16384);

void BM_Rc4Init(benchmark::State &state) {
  uint8_t key[VINDEL_OWNKEY] = {1, 2, 3};
  vindel_rc4_t st;
  for (auto _ : state) {
    vindel_rc4_init(key, sizeof key, &st);
    benchmark::DoNotOptimize(&st);
  }
}
BENCHMARK(BM_Rc4Init);

}  // namespace

BENCHMARK_MAIN();
