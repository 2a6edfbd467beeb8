// RSA key generation and operations, the random source, big-number bytes.
#include <gtest/gtest.h>

#include <array>
#include <cstring>
#include <random>
#include <tuple>
#include <vector>

#include "vindel.h"

namespace {

// A scripted random stream, installed through the test hook.
std::vector<uint8_t> g_script;
size_t g_pos = 0;
size_t scripted_random(void *buf, size_t n) {
  const size_t give = std::min(n, g_script.size() - g_pos);
  if (give > 0) std::memcpy(buf, g_script.data() + g_pos, give);
  g_pos += give;
  return give;
}
struct ScriptedRandom {
  explicit ScriptedRandom(std::vector<uint8_t> bytes) {
    g_script = std::move(bytes), g_pos = 0;
    vindel_set_random_source(scripted_random);
  }
  ~ScriptedRandom() { vindel_set_random_source(nullptr); }
};

struct Mpz {
  explicit Mpz(unsigned long x = 0) { mpz_init_set_ui(v, x); }
  ~Mpz() { mpz_clear(v); }
  mpz_t v;
};

// The textbook key p = 61, q = 53: N = 3233, e = 17, d = 2753, and 65
// encrypts to 2790. keylen 16: numbers travel as two bytes.
rsa_key_ptr textbook_key(unsigned long exponent) {
  auto key = rsa_key_make();
  key->keylen = 16;
  mpz_set_ui(key->e, exponent);
  mpz_set_ui(key->N, 3233);
  return key;
}

// One real 1024-bit key pair per program: generating it is slow.
class RsaKeyPair : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    ASSERT_TRUE(rsa_keygen(pub_.get(), priv_.get(), 1024, 17));
  }
  static inline rsa_key_ptr pub_ = rsa_key_make();
  static inline rsa_key_ptr priv_ = rsa_key_make();
};

TEST_F(RsaKeyPair, KeyHasExactSizesAndRandomMessagesRoundTrip) {
  EXPECT_EQ(std::pair(pub_->keylen, priv_->keylen), std::pair(1024, 1024));
  EXPECT_EQ(mpz_sizeinbase(pub_->N, 2), 1024u);
  EXPECT_EQ(mpz_cmp(pub_->N, priv_->N), 0);
  EXPECT_EQ(mpz_sizeinbase(pub_->e, 2), 17u);
  EXPECT_TRUE(mpz_odd_p(pub_->e));

  // 64 bytes -> 128 -> 64 for random, all-zero, all-one and tiny messages
  // (in practice: e*d = 1 mod phi(N)); guard bytes catch writes past the end.
  std::mt19937 rng(7);
  std::vector<std::array<uint8_t, 64>> msgs(8);
  for (auto &m : msgs)
    for (auto &b : m) b = static_cast<uint8_t>(rng());
  msgs[0].fill(0x00);
  msgs[1].fill(0xFF);
  msgs[2].fill(0x00);
  msgs[2][63] = 1;
  for (const auto &m : msgs) {
    std::array<uint8_t, 129> wrapped;
    std::array<uint8_t, 65> back;
    wrapped[128] = back[64] = 0x5A;
    rsa_encrypt(wrapped.data(), m.data(), m.size(), pub_.get());
    rsa_decrypt(back.data(), wrapped.data(), 64, priv_.get());
    EXPECT_EQ(std::pair(wrapped[128], back[64]), std::pair(uint8_t{0x5A}, uint8_t{0x5A}));
    EXPECT_EQ(std::memcmp(back.data(), m.data(), 64), 0);
  }

  // The longest message (128 bytes, below N); fewer output bytes give the
  // low end of the number; an empty message is 0 and stays 0.
  std::array<uint8_t, 128> big, wrapped, back;
  for (size_t n = 0; n < big.size(); n++) big[n] = static_cast<uint8_t>(n + 1);
  big[0] = 0;
  rsa_encrypt(wrapped.data(), big.data(), big.size(), pub_.get());
  rsa_decrypt(back.data(), wrapped.data(), back.size(), priv_.get());
  EXPECT_EQ(back, big);
  std::array<uint8_t, 10> tail;
  rsa_decrypt(tail.data(), wrapped.data(), tail.size(), priv_.get());
  EXPECT_EQ(std::memcmp(tail.data(), big.data() + 118, 10), 0);
  rsa_encrypt(wrapped.data(), big.data(), 0, pub_.get());
  EXPECT_EQ(wrapped, (std::array<uint8_t, 128>{}));
}

TEST(Rsa, TextbookKeyGivesTheKnownCipherTextUpToNMinusOne) {
  auto pub = textbook_key(17);
  auto priv = textbook_key(2753);
  const uint8_t m[1] = {65};
  uint8_t c[2], back[2];
  rsa_encrypt(c, m, 1, pub.get());
  EXPECT_EQ(c[0] << 8 | c[1], 2790);
  rsa_decrypt(back, c, 1, priv.get());
  EXPECT_EQ(back[0], 65);
  // N - 1 = 3232 is the largest input either way; (N-1)^odd = N-1 mod N.
  const uint8_t top[2] = {0x0C, 0xA0};
  rsa_encrypt(c, top, 2, pub.get());
  EXPECT_EQ(std::memcmp(c, top, 2), 0);
  rsa_decrypt(back, top, 2, priv.get());
  EXPECT_EQ(std::memcmp(back, top, 2), 0);
}

TEST(RsaDeathTest, BrokenPreconditionsAbortWithTheExpressionText) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  auto pub = textbook_key(17);
  auto priv = textbook_key(2753);
  uint8_t out[2];
  const uint8_t three[3] = {0, 0, 1};
  EXPECT_DEATH(rsa_encrypt(out, three, 3, pub.get()),
               "src/rsa\\.cc:[0-9]+: rsa_encrypt: Assertion `len <= key->keylen/8' failed\\.");
  const uint8_t n_itself[2] = {0x0C, 0xA1};  // 3233
  EXPECT_DEATH(rsa_encrypt(out, n_itself, 2, pub.get()),
               "src/rsa\\.cc:[0-9]+: rsa_encrypt: Assertion `mpz_cmp \\(msg, key->N\\) < 0' failed\\.");
  EXPECT_DEATH(rsa_decrypt(out, n_itself, 1, priv.get()),
               "src/rsa\\.cc:[0-9]+: rsa_decrypt: Assertion `mpz_cmp \\(cipher, key->N\\) < 0' failed\\.");
  Mpz x(5);
  EXPECT_DEATH(mpz_to_bytes(out, x.v, 12),
               "src/io\\.cc:[0-9]+: mpz_to_bytes: Assertion `\\(len&7\\) == 0' failed\\.");
  EXPECT_DEATH(bytes_to_mpz(x.v, out, 15),
               "src/io\\.cc:[0-9]+: bytes_to_mpz: Assertion `\\(len&7\\) == 0' failed\\.");
}

TEST(RsaBytes, PaddingTruncationAndEveryLength) {
  using A6 = std::array<uint8_t, 6>;
  Mpz x(0x0102);
  A6 out;
  auto conv = [&](unsigned bits) {
    out.fill(0xEE);
    mpz_to_bytes(out.data(), x.v, bits);
    return out;
  };
  EXPECT_EQ(conv(32), (A6{0x00, 0x00, 0x01, 0x02, 0xEE, 0xEE}));
  mpz_set_str(x.v, "1122334455", 16);
  EXPECT_EQ(conv(16), (A6{0x44, 0x55, 0xEE, 0xEE, 0xEE, 0xEE}));
  EXPECT_EQ(conv(40), (A6{0x11, 0x22, 0x33, 0x44, 0x55, 0xEE}));
  EXPECT_EQ(conv(0), (A6{0xEE, 0xEE, 0xEE, 0xEE, 0xEE, 0xEE}));
  mpz_set_ui(x.v, 0);
  EXPECT_EQ(conv(24), (A6{0, 0, 0, 0xEE, 0xEE, 0xEE}));
  mpz_set_si(x.v, -2);  // the low bits of its two's complement
  EXPECT_EQ(conv(16), (A6{0xFF, 0xFE, 0xEE, 0xEE, 0xEE, 0xEE}));

  const uint8_t in[5] = {0x00, 0x00, 0x80, 0x00, 0x01};
  bytes_to_mpz(x.v, in, 40);
  EXPECT_EQ(mpz_get_ui(x.v), 0x800001ul);
  bytes_to_mpz(x.v, in, 0);
  EXPECT_EQ(mpz_sgn(x.v), 0);

  std::mt19937 rng(3);
  for (unsigned n = 0; n <= 130; n++) {
    std::vector<uint8_t> bytes(n), back(n + 1, 0xEE);
    for (auto &b : bytes) b = static_cast<uint8_t>(rng());
    bytes_to_mpz(x.v, bytes.data(), n * 8);
    mpz_to_bytes(back.data(), x.v, n * 8);
    EXPECT_EQ(std::vector<uint8_t>(back.begin(), back.begin() + n), bytes) << n;
    EXPECT_EQ(back[n], 0xEE) << n;
  }
}

TEST(RsaRandom, IntegersAreTheFirstBitsOfTheByteStream) {
  {
    ScriptedRandom script({0xDE, 0xAD, 0xBE, 0xEF, 0x01, 0xC3});
    Mpz x(99);
    // DE AD -> DEA, nothing -> 0, BE, EF 01 -> 1 1101 1110
    for (auto [bits, want] : {std::pair{12, 0xDEAul}, {0, 0ul}, {8, 0xBEul}, {9, 0x1DEul}}) {
      ASSERT_TRUE(rsa_random_mpz(x.v, bits));
      EXPECT_EQ(mpz_get_ui(x.v), want) << bits;
    }
    EXPECT_EQ(g_pos, 5u);
    EXPECT_FALSE(rsa_random_mpz(x.v, 16));  // one byte left
    uint8_t buf[4];
    EXPECT_EQ(rsa_random_bytes(buf, 4), 0u);
  }
  // The system source again: full, and not the same twice.
  std::array<uint8_t, 64> a{}, b{};
  EXPECT_EQ(rsa_random_bytes(a.data(), a.size()), 64u);
  EXPECT_EQ(rsa_random_bytes(b.data(), b.size()), 64u);
  EXPECT_NE(a, b);
  std::vector<uint8_t> big(100000);
  EXPECT_EQ(rsa_random_bytes(big.data(), big.size()), big.size());
}

// bits 16, ebits 5 on a scripted stream, worked by hand:
//   round 1: p from 0x80 = 128 -> 131, q the same; e from 0xB8 (10111) = 23
//            is invertible mod 16900, but N = 17161 has 15 bits: restart.
//   round 2: p from 0xF1 = 241, prime itself ("at or above" keeps it); q from
//            0xFB = 251; N = 60491; phi = 60000; e from 0xA8 (10101) = 21 has
//            no inverse (3 | 60000): retry; e from 0xB8 = 23, d = 26087.
const std::vector<uint8_t> kKeygenScript = {0x80, 0x80, 0xB8, 0xF1, 0xFB, 0xA8, 0xB8};

// The whole script gives that key; any prefix of it fails cleanly.
TEST(RsaKeygen, FollowsTheAlgorithmAndFailsWhenTheSourceRunsDry) {
  auto pub = rsa_key_make(), priv = rsa_key_make();
  for (size_t have = 0; have <= kKeygenScript.size(); have++) {
    ScriptedRandom script(std::vector<uint8_t>(kKeygenScript.begin(), kKeygenScript.begin() + have));
    ASSERT_EQ(rsa_keygen(pub.get(), priv.get(), 16, 5), have == kKeygenScript.size()) << have;
  }
  EXPECT_EQ(g_pos, kKeygenScript.size());
  EXPECT_EQ(std::tuple(pub->keylen, mpz_get_ui(pub->N), mpz_get_ui(pub->e)), std::tuple(16, 60491ul, 23ul));
  EXPECT_EQ(std::tuple(priv->keylen, mpz_get_ui(priv->N), mpz_get_ui(priv->e)), std::tuple(16, 60491ul, 26087ul));
}

}  // namespace
