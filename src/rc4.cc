// RC4 over the 258-byte state of the wire records (i, j, S[256]).
//
// Every byte of both streams goes through vindel_rc4_crypt, so it is written
// for speed: byte-wide indices wrap by themselves (no masking), and eight
// keystream bytes are gathered into one word and XORed into the buffer with
// a single load and store.
#include <bit>
#include <cstring>

#include "vindel.h"

void vindel_rc4_init(const uint8_t *key, size_t keylen, vindel_rc4_t *state) {
  uint8_t *S = state->S;
  for (unsigned n = 0; n < 256; n++) S[n] = static_cast<uint8_t>(n);
  uint8_t j = 0;
  size_t k = 0;
  for (unsigned n = 0; n < 256; n++) {
    const uint8_t t = S[n];
    j = static_cast<uint8_t>(j + t + key[k]);
    S[n] = S[j];
    S[j] = t;
    if (++k == keylen) k = 0;
  }
  state->i = 0;
  state->j = 0;
}

namespace {

// One keystream byte; advances i and j.
inline uint8_t rc4_next(uint8_t *S, uint8_t &i, uint8_t &j) {
  i = static_cast<uint8_t>(i + 1);
  const uint8_t a = S[i];
  j = static_cast<uint8_t>(j + a);
  const uint8_t b = S[j];
  S[i] = b;
  S[j] = a;
  return S[static_cast<uint8_t>(a + b)];
}

}  // namespace

void vindel_rc4_crypt(uint8_t *buf, size_t len, vindel_rc4_t *state) {
  uint8_t *S = state->S;
  uint8_t i = state->i;
  uint8_t j = state->j;

  while (len >= 8) {
    uint64_t ks = 0;
    // Byte k of the keystream belongs at buf[k]: its place in the word
    // depends on the machine's byte order.
    if constexpr (std::endian::native == std::endian::little) {
#pragma GCC unroll 8
      for (unsigned k = 0; k < 8; k++) ks |= uint64_t{rc4_next(S, i, j)} << (8 * k);
    } else {
#pragma GCC unroll 8
      for (unsigned k = 0; k < 8; k++) ks |= uint64_t{rc4_next(S, i, j)} << (56 - 8 * k);
    }
    uint64_t w;
    std::memcpy(&w, buf, 8);
    w ^= ks;
    std::memcpy(buf, &w, 8);
    buf += 8;
    len -= 8;
  }
  for (size_t n = 0; n < len; n++) buf[n] ^= rc4_next(S, i, j);

  state->i = i;
  state->j = j;
}
