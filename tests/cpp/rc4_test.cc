// RC4 against RFC 6229 keystreams, and the stream's independence from how a
// buffer is split over calls.
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cstring>
#include <random>
#include <string>
#include <vector>

#include "vindel.h"

namespace {

using Bytes = std::vector<uint8_t>;

Bytes from_hex(const std::string &hex) {
  Bytes out;
  for (size_t n = 0; n + 1 < hex.size(); n += 2) out.push_back(uint8_t(std::stoul(hex.substr(n, 2), nullptr, 16)));
  return out;
}

// RFC 6229 section 2: 32 keystream bytes at offsets 0, 240 and 4080 for keys
// of 40 and 256 bits (the second set's, not counting bytes) and 128 bits.
constexpr std::array<size_t, 3> kOffsets = {0, 240, 4080};
const struct {
  const char *key;
  std::array<const char *, 3> at;
} kVectors[] = {
    {"0102030405",
     {"b2396305f03dc027ccc3524a0a1118a86982944f18fc82d589c403a47a0d0919",
      "28cb1132c96ce286421dcaadb8b69eae1cfcf62b03eddb641d77dfcf7f8d8c93",
      "068326a2118416d21f9d04b2cd1ca050ff25b58995996707e51fbdf08b34d875"}},
    {"0102030405060708090a0b0c0d0e0f10",
     {"9ac7cc9a609d1ef7b2932899cde41b975248c4959014126a6e8a84f11d1a9e1c",
      "065902e4b620f6cc36c8589f66432f2bd39d566bc6bce3010768151549f3873f",
      "ff38265c1642c1abe8d3c2fe5e572bf8a36a4c301ae8ac13610ccbc12256cacc"}},
    {"1ada31d5cf688221c109163908ebe51debb46227c6cc8b37641910833222772a",
     {"dd5bcb0018e922d494759d7c395d02d3c8446f8f77abf737685353eb89a1c9eb",
      "af3e30f9c095045938151575c3fb9098f8cb6274db99b80b1d2012a98ed48f0e",
      "d5a39e3dfcc50280bac4a6b5aa0dca7d370b1c1fe655916d97fd0d47ca1d72b8"}},
};

Bytes keystream(const Bytes &key, size_t n) {
  vindel_rc4_t st;
  vindel_rc4_init(key.data(), key.size(), &st);
  Bytes out(n, 0);
  vindel_rc4_crypt(out.data(), out.size(), &st);
  return out;
}

TEST(Rc4, MatchesRfc6229Keystreams) {
  for (const auto &v : kVectors) {
    const auto ks = keystream(from_hex(v.key), 4096 + 16);
    for (size_t k = 0; k < kOffsets.size(); k++)
      EXPECT_EQ(Bytes(ks.begin() + kOffsets[k], ks.begin() + kOffsets[k] + 32), from_hex(v.at[k]))
          << "key " << v.key << " offset " << kOffsets[k];
  }
}

// Every split point gives the same bytes and state as one call (the 8-byte
// fast path and the byte tail at every alignment, i and j kept between calls).
TEST(Rc4, SplittingTheBufferAnywhereGivesTheSameStreamAndState) {
  const auto key = from_hex(kVectors[0].key);
  Bytes plain(203);
  for (size_t n = 0; n < plain.size(); n++) plain[n] = uint8_t(n * 7 + 3);
  vindel_rc4_t whole_st;
  vindel_rc4_init(key.data(), key.size(), &whole_st);
  auto whole = plain;
  vindel_rc4_crypt(whole.data(), whole.size(), &whole_st);
  for (size_t cut = 0; cut <= plain.size(); cut++) {
    vindel_rc4_t st;
    vindel_rc4_init(key.data(), key.size(), &st);
    auto parts = plain;
    vindel_rc4_crypt(parts.data(), cut, &st);
    vindel_rc4_crypt(parts.data() + cut, parts.size() - cut, &st);
    ASSERT_EQ(parts, whole) << "cut at " << cut;
    ASSERT_EQ(std::memcmp(&st, &whole_st, sizeof st), 0) << "cut at " << cut;
  }

  // Random piece sizes up to offset 4096 still match the RFC; a second state decrypts.
  std::mt19937 rng(42);
  vindel_rc4_t st, dec;
  vindel_rc4_init(key.data(), key.size(), &st);
  vindel_rc4_init(key.data(), key.size(), &dec);
  Bytes ks(4112, 0);
  for (size_t at = 0, n; at < ks.size(); at += n)
    vindel_rc4_crypt(ks.data() + at, n = std::min<size_t>(ks.size() - at, rng() % 37), &st);
  EXPECT_EQ(Bytes(ks.begin() + 4080, ks.end()), from_hex(kVectors[0].at[2]));
  EXPECT_EQ(st.i, 4112 % 256);
  vindel_rc4_crypt(ks.data(), ks.size(), &dec);
  EXPECT_EQ(ks, Bytes(4112, 0));
  EXPECT_EQ(std::memcmp(&st, &dec, sizeof st), 0);
}

// The transport keys with 64 bytes: every one of them must count.
TEST(Rc4, EveryByteOfA64ByteKeyMatters) {
  const auto base = keystream(Bytes(64, 0), 16);
  for (size_t k = 0; k < 64; k++) {
    Bytes other(64, 0);
    other[k] = 1;
    EXPECT_NE(keystream(other, 16), base) << k;
  }
}

}  // namespace
