// Vindel: the encrypted transport under the TQDB protocol.
//
// A connected non-blocking TCP socket becomes two RC4 streams after a
// five-step handshake on the plain socket:
//   1 initiator -> responder  "otne"
//   2 responder -> initiator  "zuhl"
//   3 initiator -> responder  e, N (128 bytes each, big-endian)
//   4 responder -> initiator  RSA(e, N) of the responder's 64-byte key
//   5 initiator -> responder  the initiator's 64-byte key, RC4-encrypted
// Each direction's stream is keyed with the receiving end's 64 bytes; no
// keystream is discarded after keying. The client is the initiator.
//
// Non-blocking contract: the owner polls the socket, asks
// vindel_want_read / vindel_want_write what the handshake waits for, and
// calls the step function of its role with what the poll said. A step never
// blocks; it returns 0 (call again when ready), 1 (established) or -1 (failed:
// close the connection; nothing is retried). Afterwards only vindel_read /
// vindel_write touch the socket.
//
// Broken preconditions (a key that is not 1024 bits, a message not below the
// modulus, a bit length that is not whole bytes) are plain assertions: they
// print "<source>:<line>: <function>: Assertion `<expr>' failed." and abort,
// with or without NDEBUG. Note that a peer sending a block numerically not
// below the modulus trips such an assertion in the RSA step.
#ifndef VINDEL_H
#define VINDEL_H

#include <cstddef>
#include <cstdint>
#include <gmp.h>
#include <memory>
#include <sys/types.h>

// --- RSA (src/rsa) and big-number bytes (src/io) ------------------------------
// Textbook RSA: no padding, no blinding, no CRT.
struct rsa_key_t {
  int32_t keylen;  // modulus bits; 1024 for every key the transport uses
  mpz_t e;         // public key: e; private key: d
  mpz_t N;
};

rsa_key_t *rsa_key_new();           // keylen 1024, both integers 0; nullptr when out of memory
void rsa_key_free(rsa_key_t *key);  // clears, then frees; nullptr ignored

struct rsa_key_deleter {
  void operator()(rsa_key_t *key) const noexcept { rsa_key_free(key); }
};
// The owning form for code that creates keys (the transport's owner, tests).
using rsa_key_ptr = std::unique_ptr<rsa_key_t, rsa_key_deleter>;
inline rsa_key_ptr rsa_key_make() { return rsa_key_ptr(rsa_key_new()); }

// The process-wide cryptographic random source, opened on first use.
size_t rsa_random_bytes(void *buf, size_t n);  // n, or 0 when the source fails
// x = the first `bits` bits of the random byte stream, most significant first.
[[nodiscard]] bool rsa_random_mpz(mpz_t x, unsigned bits);
// Primes of bits/2 bits (top bit set), an odd exponent of exactly ebits bits,
// N of exactly bits bits; bits is even and at least 8, 2 <= ebits <= bits
// (asserted). false only when the random source fails; the records then hold
// nothing useful.
[[nodiscard]] bool rsa_keygen(rsa_key_t *pub, rsa_key_t *priv, int bits, int ebits);
// in: len <= keylen/8 bytes, read as a big-endian number below N.
// out: keylen/8 bytes.
void rsa_encrypt(uint8_t *out, const uint8_t *in, size_t len, const rsa_key_t *key);
// in: keylen/8 bytes, a number below N. out: the low outlen*8 bits of the
// result, big-endian.
void rsa_decrypt(uint8_t *out, const uint8_t *in, size_t outlen, const rsa_key_t *key);
// Exactly lenbits/8 big-endian bytes; bits of x at or above lenbits are
// dropped. lenbits must be a multiple of 8.
void mpz_to_bytes(uint8_t *out, const mpz_t x, unsigned lenbits);
void bytes_to_mpz(mpz_t x, const uint8_t *in, unsigned lenbits);

// --- RC4 (src/rc4) -----------------------------------------------------------------
struct vindel_rc4_t {
  uint8_t i;
  uint8_t j;
  uint8_t S[256];
};
static_assert(sizeof(vindel_rc4_t) == 258, "an RC4 state is 258 bytes");

// keylen >= 1; every key byte is used (key[n mod keylen]).
void vindel_rc4_init(const uint8_t *key, size_t keylen, vindel_rc4_t *state);
// XORs the keystream into buf in place and advances the state by len bytes;
// splitting a buffer over several calls gives the same bytes as one call.
void vindel_rc4_crypt(uint8_t *buf, size_t len, vindel_rc4_t *state);

// --- the socket record (src/socket) ---------------------------------------------------
inline constexpr int VINDEL_KEYLEN = 1024;
inline constexpr size_t VINDEL_OWNKEY = 64;
inline constexpr size_t VINDEL_HSBUF = VINDEL_KEYLEN / 4;  // the largest handshake block
inline constexpr int VINDEL_WOULDBLOCK = 10035;  // the socket error for "try again"

inline constexpr uint32_t VINDEL_ROLE_RESPONDER = 0;
inline constexpr uint32_t VINDEL_ROLE_INITIATOR = 1;

enum vindel_state : int32_t {
  VINDEL_STATE_GREETING = 0,
  VINDEL_STATE_GREETING_REPLY = 1,
  VINDEL_STATE_PUBKEY = 2,
  VINDEL_STATE_WRAPPED_KEY = 3,
  VINDEL_STATE_OWN_KEY = 4,
  VINDEL_STATE_ESTABLISHED = 5,
};

// Fixed-size key material and cipher states live in the record itself, so
// set-up cannot fail for want of memory and vindel_sock_free only wipes.
// The record may be moved with memcpy (the handle takes it over that way).
struct vindel_sock_t {
  uint32_t fd;
  int32_t keylen;
  uint8_t ownkey[VINDEL_OWNKEY];  // this end's stream key, from the random source
  uint8_t hsbuf[VINDEL_HSBUF];    // a handshake block collected in pieces
  int32_t received;               // bytes collected in hsbuf
  int32_t state;                  // vindel_state
  vindel_rc4_t rcv_cipher;        // keyed with ownkey at set-up
  vindel_rc4_t snd_cipher;        // keyed with the peer's key in the handshake
  // initiator: own public key (borrowed); responder: the peer's (owned,
  // released by vindel_sock_free).
  rsa_key_t *rsa_pubkey;
  rsa_key_t *rsa_privkey;  // initiator: own private key (borrowed); responder: nullptr
  uint32_t role;           // VINDEL_ROLE_*
};

// Keys stay the caller's and must outlive the record; pubkey->keylen must be
// 1024. Aborts when the random source cannot supply the 64-byte own key: a
// predictable stream key is worse than no connection.
void vindel_sock_init_initiator(vindel_sock_t *sock, int fd, rsa_key_t *pubkey,
                                rsa_key_t *privkey);
void vindel_sock_init_responder(vindel_sock_t *sock, int fd);
// Wipes the record (keys and cipher states included); the descriptor is the
// caller's to close. Freeing a zeroed or already freed record does nothing.
void vindel_sock_free(vindel_sock_t *sock);

bool vindel_want_read(const vindel_sock_t *sock);
bool vindel_want_write(const vindel_sock_t *sock);
[[nodiscard]] int vindel_handshake(bool can_read, bool can_write, vindel_sock_t *sock);
[[nodiscard]] int vindel_handshake_responder(bool can_read, bool can_write,
                                             vindel_sock_t *sock);

// One recv / one send; the return value is the system call's (0 = closed,
// -1 = error: see vindel_sock_error). vindel_write encrypts buf in place; on
// a short send (would-block and errors included) buf holds the plain text
// again and the send cipher has advanced by exactly the bytes that left, so
// the caller sends the rest later from the same buffer.
ssize_t vindel_read(void *buf, size_t len, vindel_sock_t *sock);
ssize_t vindel_write(void *buf, size_t len, vindel_sock_t *sock);

// --- platform (src/platform) ----------------------------------------------------------
// The last socket error as the protocol's code: would-block is
// VINDEL_WOULDBLOCK (10035) on every platform.
int vindel_sock_error();

// --- test hooks (src/platform) --------------------------------------------------------
// Not for production use: they let tests make the random source and the
// kernel's send behaviour deterministic. Both are process-wide.
//
// Replaces the system random source: fn fills up to n bytes and returns how
// many it produced (fewer than n is a failure). nullptr restores the system.
using vindel_random_fn = size_t (*)(void *buf, size_t n);
void vindel_set_random_source(vindel_random_fn fn);
// Replaces the send call used by vindel_write and the handshake: the same
// contract as send(2) (bytes taken, or -1 with errno set; EAGAIN means
// would-block). nullptr restores the system call.
using vindel_send_fn = ssize_t (*)(int fd, const void *buf, size_t len);
void vindel_set_send_hook(vindel_send_fn fn);

#endif
