// Textbook RSA for the key exchange: key records, the random source, key
// generation, and the two modular exponentiations with their preconditions.
//
// The assertion texts below are part of what the transport prints when a
// precondition breaks; the expressions are spelled exactly as they should
// read ("mpz_sgn (msg) >= 0"), which is why some variables have the names
// they have.
#include <array>
#include <cstdint>
#include <new>

#include "platform.h"
#include "vindel.h"

rsa_key_t *rsa_key_new() {
  auto *key = new (std::nothrow) rsa_key_t;
  if (key == nullptr) return nullptr;
  key->keylen = VINDEL_KEYLEN;
  mpz_init(key->e);
  mpz_init(key->N);
  return key;
}

void rsa_key_free(rsa_key_t *key) {
  if (key == nullptr) return;
  mpz_clear(key->e);
  mpz_clear(key->N);
  delete key;
}

size_t rsa_random_bytes(void *buf, size_t n) { return vindel_sys_random(buf, n) ? n : 0; }

bool rsa_random_mpz(mpz_t x, unsigned bits) {
  mpz_set_ui(x, 0);
  // Whole bytes from the stream, most significant first; the bits of the
  // last byte beyond `bits` are shifted out below.
  std::array<uint8_t, 64> chunk;
  unsigned left = (bits + 7) / 8;
  while (left > 0) {
    const unsigned n = left < chunk.size() ? left : static_cast<unsigned>(chunk.size());
    if (rsa_random_bytes(chunk.data(), n) != n) {
      vindel_wipe(chunk.data(), chunk.size());
      mpz_set_ui(x, 0);
      return false;
    }
    vindel_mpz part;
    mpz_import(part, n, 1, 1, 1, 0, chunk.data());
    mpz_mul_2exp(x, x, 8 * n);
    mpz_ior(x, x, part);
    left -= n;
  }
  vindel_wipe(chunk.data(), chunk.size());
  mpz_tdiv_q_2exp(x, x, (bits + 7) / 8 * 8 - bits);
  return true;
}

namespace {

// The smallest prime at or above a random number of exactly `bits` bits.
bool random_prime(mpz_ptr p, unsigned bits) {
  if (!rsa_random_mpz(p, bits)) return false;
  mpz_setbit(p, bits - 1);
  // mpz_nextprime looks strictly above its argument.
  mpz_sub_ui(p, p, 1);
  mpz_nextprime(p, p);
  return true;
}

}  // namespace

bool rsa_keygen(rsa_key_t *pub, rsa_key_t *priv, int bits, int ebits) {
  // Odd or tiny moduli can never come out at exactly `bits` bits.
  VINDEL_ASSERT(bits >= 8 && (bits&1) == 0);
  VINDEL_ASSERT(ebits >= 2 && ebits <= bits);
  pub->keylen = bits;
  priv->keylen = bits;
  const auto half = static_cast<unsigned>(bits / 2);
  const auto ebits_u = static_cast<unsigned>(ebits);

  vindel_mpz p, q, p1, q1, phi;
  do {
    if (!random_prime(p, half) || !random_prime(q, half)) return false;
    mpz_sub_ui(p1, p, 1);
    mpz_sub_ui(q1, q, 1);
    mpz_mul(phi, p1, q1);

    // An odd exponent of exactly ebits bits that has an inverse mod phi.
    do {
      if (!rsa_random_mpz(pub->e, ebits_u)) return false;
      mpz_setbit(pub->e, 0);
      mpz_setbit(pub->e, ebits_u - 1);
    } while (mpz_invert(priv->e, pub->e, phi) == 0);

    mpz_mul(priv->N, p, q);
    mpz_set(pub->N, priv->N);
  } while (mpz_sizeinbase(priv->N, 2) != static_cast<size_t>(bits));
  return true;
}

void rsa_encrypt(uint8_t *out, const uint8_t *in, size_t inlen, const rsa_key_t *key) {
  const auto len = static_cast<int64_t>(inlen);
  VINDEL_ASSERT(len <= key->keylen/8);
  vindel_mpz msg;
  bytes_to_mpz(msg, in, static_cast<unsigned>(len * 8));
  VINDEL_ASSERT(mpz_sgn (msg) >= 0);
  VINDEL_ASSERT(mpz_cmp (msg, key->N) < 0);
  vindel_mpz c;
  mpz_powm(c, msg, key->e, key->N);
  mpz_to_bytes(out, c, static_cast<unsigned>(key->keylen));
}

void rsa_decrypt(uint8_t *out, const uint8_t *in, size_t outlen, const rsa_key_t *key) {
  vindel_mpz cipher;
  bytes_to_mpz(cipher, in, static_cast<unsigned>(key->keylen));
  VINDEL_ASSERT(mpz_sgn (cipher) >= 0);
  VINDEL_ASSERT(mpz_cmp (cipher, key->N) < 0);
  vindel_mpz m;
  mpz_powm(m, cipher, key->e, key->N);
  // The low outlen*8 bits; the plain text was shorter than the modulus.
  mpz_to_bytes(out, m, static_cast<unsigned>(outlen * 8));
}
