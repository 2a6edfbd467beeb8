// Vindel: the encrypted transport under the TQDB protocol.
//
// A connected non-blocking TCP socket becomes two RC4 streams after a
// five-step handshake on the plain socket:
//   1 initiator -> responder  "otne"
//   2 responder -> initiator  "zuhl"
//   3 initiator -> responder  e, N (128 bytes each, big-endian)
//   4 responder -> initiator  RSA(e, N) of the responder's 64-byte key
//   5 initiator -> responder  the initiator's 64-byte key, RC4-encrypted
// Each direction's stream is keyed with the receiving end's 64 bytes.
//
// Non-blocking contract: the owner polls the socket, asks
// vindel_want_read / vindel_want_write what the handshake waits for, and
// calls the step function of its role with what the poll said. A step never
// blocks; it returns 0 (call again when ready), 1 (established) or -1 (failed:
// close the connection). Afterwards only vindel_read / vindel_write touch the
// socket.
#ifndef VINDEL_H
#define VINDEL_H

#include <cstddef>
#include <cstdint>
#include <gmp.h>
#include <sys/types.h>

// --- RSA (src/rsa) and big-number bytes (src/io) ------------------------------
struct rsa_key_t {
  int32_t keylen;  // modulus bits; 1024 for every key the transport uses
  mpz_t e;         // public key: e; private key: d
  mpz_t N;
};

rsa_key_t *rsa_key_new();          // keylen 1024, both integers 0
void rsa_key_free(rsa_key_t *key);  // clears, then frees; nullptr ignored

size_t rsa_random_bytes(void *buf, size_t n);  // n, or 0 when the source fails
[[nodiscard]] bool rsa_random_mpz(mpz_t x, unsigned bits);
[[nodiscard]] bool rsa_keygen(rsa_key_t *pub, rsa_key_t *priv, int bits, int ebits);
void rsa_encrypt(uint8_t *out, const uint8_t *in, size_t len, const rsa_key_t *key);
void rsa_decrypt(uint8_t *out, const uint8_t *in, size_t outlen, const rsa_key_t *key);
void mpz_to_bytes(uint8_t *out, const mpz_t x, unsigned lenbits);
void bytes_to_mpz(mpz_t x, const uint8_t *in, unsigned lenbits);

// --- RC4 ---------------------------------------------------------------------------
struct vindel_rc4_t {
  uint8_t i;
  uint8_t j;
  uint8_t S[256];
};
static_assert(sizeof(vindel_rc4_t) == 258, "an RC4 state is 258 bytes");

void vindel_rc4_init(const uint8_t *key, size_t keylen, vindel_rc4_t *state);
void vindel_rc4_crypt(uint8_t *buf, size_t len, vindel_rc4_t *state);

// --- the socket record (src/socket) ---------------------------------------------------
inline constexpr int VINDEL_KEYLEN = 1024;
inline constexpr size_t VINDEL_OWNKEY = 64;
inline constexpr int VINDEL_WOULDBLOCK = 10035;  // the socket error for "try again"

enum vindel_state : int32_t {
  VINDEL_STATE_GREETING = 0,
  VINDEL_STATE_GREETING_REPLY = 1,
  VINDEL_STATE_PUBKEY = 2,
  VINDEL_STATE_WRAPPED_KEY = 3,
  VINDEL_STATE_OWN_KEY = 4,
  VINDEL_STATE_ESTABLISHED = 5,
};

struct vindel_sock_t {
  uint32_t fd;
  int32_t keylen;
  uint8_t *ownkey;           // VINDEL_OWNKEY bytes
  uint8_t *hsbuf;            // handshake block collected in pieces
  int32_t received;
  int32_t state;
  vindel_rc4_t *rcv_cipher;  // keyed with ownkey at set-up
  vindel_rc4_t *snd_cipher;  // keyed with the peer's key in the handshake
  rsa_key_t *rsa_pubkey;     // initiator: own public key (caller's); responder: peer's (owned)
  rsa_key_t *rsa_privkey;    // initiator: own private key (caller's); responder: none
  uint32_t role;             // 1 initiator, 0 responder
};

// Keys stay the caller's and must outlive the record.
void vindel_sock_init_initiator(vindel_sock_t *sock, int fd, rsa_key_t *pubkey,
                                rsa_key_t *privkey);
void vindel_sock_init_responder(vindel_sock_t *sock, int fd);
void vindel_sock_free(vindel_sock_t *sock);

bool vindel_want_read(const vindel_sock_t *sock);
bool vindel_want_write(const vindel_sock_t *sock);
int vindel_handshake(bool can_read, bool can_write, vindel_sock_t *sock);
int vindel_handshake_responder(bool can_read, bool can_write, vindel_sock_t *sock);

// One recv / one send. vindel_write encrypts buf in place, and on a short
// send restores the plain text and leaves the cipher advanced by exactly
// the bytes that left.
ssize_t vindel_read(void *buf, size_t len, vindel_sock_t *sock);
ssize_t vindel_write(void *buf, size_t len, vindel_sock_t *sock);

// --- platform (src/platform) ----------------------------------------------------------
// The last socket error as the protocol's code: would-block is
// VINDEL_WOULDBLOCK (10035) on every platform.
int vindel_sock_error();

#endif
