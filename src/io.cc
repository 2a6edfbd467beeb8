// Big integers as fixed-length big-endian byte strings: the form in which RSA
// numbers travel in the handshake.
//
// Bit i of the string (counted from the most significant bit of byte 0) is
// bit len-1-i of the number. Bits of the number at or above len are dropped
// on purpose: the decrypting side keeps only the low 512 bits of a 1024-bit
// result that way.
#include <cstring>

#include "platform.h"
#include "vindel.h"

void mpz_to_bytes(uint8_t *out, const mpz_t x, unsigned len) {
  VINDEL_ASSERT((len&7) == 0);
  const size_t nbytes = len / 8;
  std::memset(out, 0, nbytes);

  // x mod 2^len: the low len bits (two's complement ones for a negative x).
  vindel_mpz low;
  mpz_fdiv_r_2exp(low, x, len);
  if (mpz_sgn(low) == 0) return;
  // mpz_export writes the magnitude without leading zeros; right-align it.
  const size_t used = (mpz_sizeinbase(low, 2) + 7) / 8;
  mpz_export(out + (nbytes - used), nullptr, 1, 1, 1, 0, low);
}

void bytes_to_mpz(mpz_t x, const uint8_t *in, unsigned len) {
  VINDEL_ASSERT((len&7) == 0);
  mpz_import(x, len / 8, 1, 1, 1, 0, in);
}
