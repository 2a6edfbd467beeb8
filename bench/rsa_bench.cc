// 1024-bit key generation and the two RSA operations of the key exchange.
#include <benchmark/benchmark.h>

#include <array>

#include "bench_net.h"
#include "vindel.h"

namespace {

void BM_RsaKeygen1024(benchmark::State &state) {
  for (auto _ : state) {
    auto pub = rsa_key_make();
    auto priv = rsa_key_make();
    if (!rsa_keygen(pub.get(), priv.get(), VINDEL_KEYLEN, 17)) state.SkipWithError("random source");
    benchmark::DoNotOptimize(pub.get());
  }
}
BENCHMARK(BM_RsaKeygen1024)->Unit(benchmark::kMillisecond)->MinTime(3.0);

// Wrapping a 64-byte stream key (the responder's step 4).
void BM_RsaEncrypt64(benchmark::State &state) {
  auto &kp = bench::keys();
  std::array<uint8_t, 64> key{};
  key[0] = 0x7F;
  std::array<uint8_t, 128> out;
  for (auto _ : state) {
    rsa_encrypt(out.data(), key.data(), key.size(), kp.pub.get());
    benchmark::DoNotOptimize(out.data());
  }
}
BENCHMARK(BM_RsaEncrypt64)->Unit(benchmark::kMicrosecond);

// Unwrapping it with the private exponent, no CRT (the initiator's step 3).
void BM_RsaDecrypt64(benchmark::State &state) {
  auto &kp = bench::keys();
  std::array<uint8_t, 64> key{};
  key[0] = 0x7F;
  std::array<uint8_t, 128> wrapped;
  rsa_encrypt(wrapped.data(), key.data(), key.size(), kp.pub.get());
  for (auto _ : state) {
    rsa_decrypt(key.data(), wrapped.data(), key.size(), kp.priv.get());
    benchmark::DoNotOptimize(key.data());
  }
}
BENCHMARK(BM_RsaDecrypt64)->Unit(benchmark::kMicrosecond);

}  // namespace

BENCHMARK_MAIN();
