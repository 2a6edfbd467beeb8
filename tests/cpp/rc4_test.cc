// RC4 against the published RFC 6229 keystreams, and the stream's
// independence from how a buffer is split over calls.
#include <gtest/gtest.h>

#include <array>
#include <cstring>
#include <random>
#include <string>
#include <vector>

#include "vindel.h"

namespace {

std::vector<uint8_t> from_hex(const std::string &hex) {
  std::vector<uint8_t> out;
  for (size_t n = 0; n + 1 < hex.size(); n += 2)
    out.push_back(static_cast<uint8_t>(std::stoul(hex.substr(n, 2), nullptr, 16)));
  return out;
}

// RFC 6229 section 2, typed in from the RFC: keystream bytes at 0 and 16,
// 240 and 256, 1520 and 1536, 4080 and 4096, for counting keys of 40, 56,
// 128 and 256 bits and two keys of its second set.
struct Rfc6229Vector {
  const char *key;
  std::array<const char *, 4> at;
};
constexpr std::array<size_t, 4> kOffsets = {0, 240, 1520, 4080};
const Rfc6229Vector kVectors[] = {
    {"0102030405",
     {"b2396305f03dc027ccc3524a0a1118a8" "6982944f18fc82d589c403a47a0d0919",
      "28cb1132c96ce286421dcaadb8b69eae" "1cfcf62b03eddb641d77dfcf7f8d8c93",
      "3294f744d8f9790507e70f62e5bbceea" "d8729db41882259bee4f825325f5a130",
      "068326a2118416d21f9d04b2cd1ca050" "ff25b58995996707e51fbdf08b34d875"}},
    {"01020304050607",
     {"293f02d47f37c9b633f2af5285feb46b" "e620f1390d19bd84e2e0fd752031afc1",
      "914f02531c9218810df60f67e338154c" "d0fdb583073ce85ab83917740ec011d5",
      "d2aa902bd42d0d7cfd340cd45810529f" "78b272c96e42eab4c60bd914e39d06e3",
      "f3172ceffc3b3d997c85ccd5af1a950c" "e74b0b9731227fd37c0ec08a47ddd8b8"}},
    {"0102030405060708090a0b0c0d0e0f10",
     {"9ac7cc9a609d1ef7b2932899cde41b97" "5248c4959014126a6e8a84f11d1a9e1c",
      "065902e4b620f6cc36c8589f66432f2b" "d39d566bc6bce3010768151549f3873f",
      "b40110c4190b5622a96116b0017ed297" "ffa0b514647ec04f6306b892ae661181",
      "ff38265c1642c1abe8d3c2fe5e572bf8" "a36a4c301ae8ac13610ccbc12256cacc"}},
    {"0102030405060708090a0b0c0d0e0f101112131415161718191a1b1c1d1e1f20",
     {"eaa6bd25880bf93d3f5d1e4ca2611d91" "cfa45c9f7e714b54bdfa80027cb14380",
      "114ae344ded71b35f2e60febad727fd8" "02e1e7056b0f623900496422943e97b6",
      "40f250b26d1f096a4afd4c340a588815" "3e34135c79db010200767651cf263073",
      "a13a7c79c7e119b5ab0296ab28c300b9" "f3e4c0a2e02d1d01f7f0a74618af2b48"}},
    {"641910833222772a",
     {"bbf609de9413172d07660cb680716926" "46101a6dab43115d6c522b4fe93604a9",
      "cbe1fff21c96f3eef61e8fe0542cbdf0" "347938bffa4009c512cfb4034b0dd1a7",
      "bd3820f732ffb53ec193e79d33e27c73" "d0168616861907d482e36cdac8cf5749",
      "6b6b098d0c293bc2993d80bf0518b6d9" "8170cc3ccd92a698621b939dd38fe7b9"}},
    {"1ada31d5cf688221c109163908ebe51debb46227c6cc8b37641910833222772a",
     {"dd5bcb0018e922d494759d7c395d02d3" "c8446f8f77abf737685353eb89a1c9eb",
      "af3e30f9c095045938151575c3fb9098" "f8cb6274db99b80b1d2012a98ed48f0e",
      "ac4e95368d99b9eb78b8da8f81ffa795" "8c3c13f8c2388bb73f38576e65b7c446",
      "d5a39e3dfcc50280bac4a6b5aa0dca7d" "370b1c1fe655916d97fd0d47ca1d72b8"}},
};

std::vector<uint8_t> keystream(const std::vector<uint8_t> &key, size_t n) {
  vindel_rc4_t st;
  vindel_rc4_init(key.data(), key.size(), &st);
  std::vector<uint8_t> out(n, 0);
  vindel_rc4_crypt(out.data(), out.size(), &st);
  return out;
}

TEST(Rc4, MatchesRfc6229KeystreamsForEveryKeyLengthAndOffset) {
  for (const auto &v : kVectors) {
    const auto ks = keystream(from_hex(v.key), 4096 + 16);
    for (size_t k = 0; k < kOffsets.size(); k++) {
      const auto want = from_hex(v.at[k]);
      ASSERT_EQ(want.size(), 32u);
      EXPECT_EQ(std::vector<uint8_t>(ks.begin() + kOffsets[k], ks.begin() + kOffsets[k] + 32), want)
          << "key " << v.key << " offset " << kOffsets[k];
    }
  }
}

// Every split point gives the same bytes and final state as one call: the
// 8-byte fast path and the byte tail at every alignment, and i and j stored
// between calls.
TEST(Rc4, SplittingTheBufferAnywhereGivesTheSameStreamAndState) {
  const auto key = from_hex(kVectors[0].key);
  std::vector<uint8_t> plain(203);
  for (size_t n = 0; n < plain.size(); n++) plain[n] = static_cast<uint8_t>(n * 7 + 3);
  vindel_rc4_t whole_st;
  vindel_rc4_init(key.data(), key.size(), &whole_st);
  auto whole = plain;
  vindel_rc4_crypt(whole.data(), whole.size(), &whole_st);
  const auto ks0 = from_hex(kVectors[0].at[0]);
  for (size_t n = 0; n < 32; n++) ASSERT_EQ(whole[n], plain[n] ^ ks0[n]);

  for (size_t cut = 0; cut <= plain.size(); cut++) {
    vindel_rc4_t st;
    vindel_rc4_init(key.data(), key.size(), &st);
    auto parts = plain;
    vindel_rc4_crypt(parts.data(), cut, &st);
    vindel_rc4_crypt(parts.data() + cut, parts.size() - cut, &st);
    ASSERT_EQ(parts, whole) << "cut at " << cut;
    ASSERT_EQ(std::memcmp(&st, &whole_st, sizeof st), 0) << "cut at " << cut;
  }

  // Random piece sizes up to the RFC's offset 4096; a second state decrypts.
  std::mt19937 rng(42);
  vindel_rc4_t st, dec;
  vindel_rc4_init(key.data(), key.size(), &st);
  vindel_rc4_init(key.data(), key.size(), &dec);
  std::vector<uint8_t> ks(4112, 0);
  for (size_t at = 0; at < ks.size();) {
    const size_t n = std::min<size_t>(ks.size() - at, rng() % 37);
    vindel_rc4_crypt(ks.data() + at, n, &st);
    at += n;
  }
  EXPECT_EQ(std::vector<uint8_t>(ks.begin() + 4080, ks.end()), from_hex(kVectors[0].at[3]));
  EXPECT_EQ(st.i, 4112 % 256);
  vindel_rc4_crypt(ks.data(), ks.size(), &dec);
  EXPECT_EQ(ks, std::vector<uint8_t>(4112, 0));
  EXPECT_EQ(std::memcmp(&st, &dec, sizeof st), 0);
}

// The transport keys with 64 bytes: every one of them must count.
TEST(Rc4, EveryByteOfA64ByteKeyMatters) {
  std::array<uint8_t, 64> key{};
  const auto base = keystream(std::vector<uint8_t>(key.begin(), key.end()), 16);
  for (size_t k = 0; k < key.size(); k++) {
    auto other = key;
    other[k] = 1;
    EXPECT_NE(keystream(std::vector<uint8_t>(other.begin(), other.end()), 16), base) << k;
  }
}

}  // namespace
