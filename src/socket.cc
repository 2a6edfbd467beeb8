// The socket record, the two handshake step functions and the encrypted
// reader and writer.
//
// Handshake (sizes for 1024-bit keys):
//   initiator                                   responder
//   0 GREETING       "otne" ------------------> 0 GREETING
//   1 GREETING_REPLY <------------------ "zuhl" 1 GREETING_REPLY
//   2 PUBKEY         e, N (128 + 128) --------> 2 PUBKEY
//   3 WRAPPED_KEY    <------ RSA(responder key) 3 WRAPPED_KEY
//   4 OWN_KEY        RC4(initiator key) ------> 4 OWN_KEY
//   5 ESTABLISHED                               5 ESTABLISHED
// The state number is the step each side is at; want_read / want_write
// follow from it and the role. The initiator treats any short send or
// receive of steps 1 to 3 as failure (the kernel takes or delivers these few
// bytes whole); only the wrapped key may arrive in pieces.
#include <cstring>

#include "platform.h"
#include "vindel.h"

namespace {

constexpr uint8_t kGreeting[4] = {'o', 't', 'n', 'e'};
constexpr uint8_t kGreetingReply[4] = {'z', 'u', 'h', 'l'};
constexpr size_t kMaxBlock = VINDEL_KEYLEN / 8;  // one RSA number on the wire

bool would_block() { return vindel_sock_error() == VINDEL_WOULDBLOCK; }

// Collects a handshake block of `want` bytes that may arrive in pieces:
// 1 when it is complete, 0 to wait for more, -1 when the peer closed or
// the socket failed.
int collect_block(vindel_sock_t *sock, int32_t want) {
  const ssize_t r = vindel_sys_recv(sock->fd, sock->hsbuf + sock->received,
                                    static_cast<size_t>(want - sock->received));
  if (r == 0) return -1;
  if (r < 0) return would_block() ? 0 : -1;
  sock->received += static_cast<int32_t>(r);
  return sock->received < want ? 0 : 1;
}

// Whether the big-endian number in bytes[0, bits/8) is below key's modulus.
bool below_modulus(const uint8_t *bytes, unsigned bits, const rsa_key_t *key) {
  mpz_t x;
  mpz_init(x);
  bytes_to_mpz(x, bytes, bits);
  const bool below = mpz_cmp(x, key->N) < 0;
  mpz_clear(x);
  return below;
}

// Zeroes the record and gives it a fresh own key that also keys the
// receive cipher: the peer will encrypt towards us with these 64 bytes.
void init_common(vindel_sock_t *sock, int fd) {
  vindel_wipe(sock, sizeof *sock);
  sock->fd = static_cast<uint32_t>(fd);
  VINDEL_ASSERT(rsa_random_bytes(sock->ownkey, VINDEL_OWNKEY) == VINDEL_OWNKEY);
  vindel_rc4_init(sock->ownkey, VINDEL_OWNKEY, &sock->rcv_cipher);
  sock->state = VINDEL_STATE_GREETING;
}

// --- initiator steps ---

int initiator_send_pubkey(bool can_write, vindel_sock_t *sock) {
  if (!can_write) return 0;
  const auto n = static_cast<size_t>(sock->keylen) / 8;
  uint8_t block[kMaxBlock];
  mpz_to_bytes(block, sock->rsa_pubkey->e, static_cast<unsigned>(sock->keylen));
  if (vindel_sys_send(sock->fd, block, n) != static_cast<ssize_t>(n)) return -1;
  mpz_to_bytes(block, sock->rsa_pubkey->N, static_cast<unsigned>(sock->keylen));
  if (vindel_sys_send(sock->fd, block, n) != static_cast<ssize_t>(n)) return -1;
  sock->state = VINDEL_STATE_WRAPPED_KEY;
  return 0;
}

int initiator_send_own_key(bool can_write, vindel_sock_t *sock) {
  if (!can_write) return 0;
  // vindel_write encrypts in place: send a copy, keep ownkey as it is.
  uint8_t key[VINDEL_OWNKEY];
  std::memcpy(key, sock->ownkey, sizeof key);
  const ssize_t r = vindel_write(key, sizeof key, sock);
  vindel_wipe(key, sizeof key);
  if (r != static_cast<ssize_t>(VINDEL_OWNKEY)) return -1;
  sock->state = VINDEL_STATE_ESTABLISHED;
  return 1;
}

int initiator_recv_wrapped_key(bool can_read, bool can_write, vindel_sock_t *sock) {
  if (!can_read) return 0;
  VINDEL_ASSERT(sock->rsa_pubkey->keylen/8 <= 128);
  if (const int r = collect_block(sock, sock->keylen / 8); r != 1) return r;

  // A block not below the modulus is no RSA cipher text: the peer is broken
  // or hostile, and the decryption's precondition must never see it.
  if (!below_modulus(sock->hsbuf, static_cast<unsigned>(sock->keylen), sock->rsa_privkey)) return -1;
  uint8_t key[VINDEL_OWNKEY];
  rsa_decrypt(key, sock->hsbuf, sizeof key, sock->rsa_privkey);
  vindel_rc4_init(key, sizeof key, &sock->snd_cipher);
  vindel_wipe(key, sizeof key);
  vindel_wipe(sock->hsbuf, sizeof sock->hsbuf);
  sock->received = 0;
  sock->state = VINDEL_STATE_OWN_KEY;
  return initiator_send_own_key(can_write, sock);
}

// --- responder steps ---

int responder_send_reply(bool can_write, vindel_sock_t *sock) {
  if (!can_write) return 0;
  const ssize_t r = vindel_sys_send(sock->fd, kGreetingReply, sizeof kGreetingReply);
  if (r < 0) return would_block() ? 0 : -1;
  if (r != static_cast<ssize_t>(sizeof kGreetingReply)) return -1;
  sock->state = VINDEL_STATE_PUBKEY;
  return 0;
}

// Sent as soon as the public key is complete, without waiting for a poll
// (a would-block simply leaves the step for the next writable moment).
int responder_send_wrapped_key(vindel_sock_t *sock) {
  const auto n = static_cast<size_t>(sock->keylen) / 8;
  uint8_t block[kMaxBlock];
  rsa_encrypt(block, sock->ownkey, VINDEL_OWNKEY, sock->rsa_pubkey);
  const ssize_t r = vindel_sys_send(sock->fd, block, n);
  if (r < 0) return would_block() ? 0 : -1;
  if (r != static_cast<ssize_t>(n)) return -1;
  sock->state = VINDEL_STATE_OWN_KEY;
  return 0;
}

int responder_recv_pubkey(bool can_read, vindel_sock_t *sock) {
  if (!can_read) return 0;
  if (const int r = collect_block(sock, sock->keylen / 4); r != 1) return r;

  const auto bits = static_cast<unsigned>(sock->keylen);
  bytes_to_mpz(sock->rsa_pubkey->e, sock->hsbuf, bits);
  bytes_to_mpz(sock->rsa_pubkey->N, sock->hsbuf + bits / 8, bits);
  // Our key must be a number below the peer's modulus, or the peer's key is
  // no usable RSA key; refusing here keeps a hostile peer from tripping the
  // encryption's precondition.
  if (!below_modulus(sock->ownkey, VINDEL_OWNKEY * 8, sock->rsa_pubkey)) return -1;
  sock->state = VINDEL_STATE_WRAPPED_KEY;
  return responder_send_wrapped_key(sock);
}

int responder_recv_greeting(bool can_read, bool can_write, vindel_sock_t *sock) {
  if (!can_read) return 0;
  uint8_t greeting[sizeof kGreeting];
  const ssize_t r = vindel_sys_recv(sock->fd, greeting, sizeof greeting);
  if (r < 0) return would_block() ? 0 : -1;
  if (r != static_cast<ssize_t>(sizeof greeting) ||
      std::memcmp(greeting, kGreeting, sizeof greeting) != 0)
    return -1;
  sock->state = VINDEL_STATE_GREETING_REPLY;
  return responder_send_reply(can_write, sock);
}

int responder_recv_own_key(bool can_read, vindel_sock_t *sock) {
  if (!can_read) return 0;
  uint8_t key[VINDEL_OWNKEY];
  const ssize_t r = vindel_read(key, sizeof key, sock);
  if (r < 0) return would_block() ? 0 : -1;
  if (r != static_cast<ssize_t>(sizeof key)) {
    vindel_wipe(key, sizeof key);
    return -1;
  }
  vindel_rc4_init(key, sizeof key, &sock->snd_cipher);
  vindel_wipe(key, sizeof key);
  sock->state = VINDEL_STATE_ESTABLISHED;
  return 1;
}

}  // namespace

void vindel_sock_init_initiator(vindel_sock_t *sock, int fd, rsa_key_t *pubkey,
                                rsa_key_t *privkey) {
  init_common(sock, fd);
  sock->keylen = pubkey->keylen;
  sock->rsa_pubkey = pubkey;
  sock->rsa_privkey = privkey;
  sock->role = VINDEL_ROLE_INITIATOR;
  VINDEL_ASSERT(sock->keylen == 1024);
}

void vindel_sock_init_responder(vindel_sock_t *sock, int fd) {
  init_common(sock, fd);
  sock->keylen = VINDEL_KEYLEN;
  sock->rsa_pubkey = rsa_key_new();
  VINDEL_ASSERT(sock->rsa_pubkey != nullptr);
  sock->rsa_privkey = nullptr;
  sock->role = VINDEL_ROLE_RESPONDER;
  VINDEL_ASSERT(sock->keylen == 1024);
}

void vindel_sock_free(vindel_sock_t *sock) {
  // Only the responder owns its public-key record (the peer's key).
  if (sock->role == VINDEL_ROLE_RESPONDER) rsa_key_free(sock->rsa_pubkey);
  vindel_wipe(sock, sizeof *sock);
}

bool vindel_want_read(const vindel_sock_t *sock) {
  const bool initiator = sock->role == VINDEL_ROLE_INITIATOR;
  switch (static_cast<vindel_state>(sock->state)) {
    case VINDEL_STATE_GREETING:
    case VINDEL_STATE_PUBKEY:
    case VINDEL_STATE_OWN_KEY:
      return !initiator;
    case VINDEL_STATE_GREETING_REPLY:
    case VINDEL_STATE_WRAPPED_KEY:
      return initiator;
    case VINDEL_STATE_ESTABLISHED:
      return false;
  }
  return false;  // not a handshake state
}

bool vindel_want_write(const vindel_sock_t *sock) {
  const bool initiator = sock->role == VINDEL_ROLE_INITIATOR;
  switch (static_cast<vindel_state>(sock->state)) {
    case VINDEL_STATE_GREETING:
    case VINDEL_STATE_PUBKEY:
    case VINDEL_STATE_OWN_KEY:
      return initiator;
    case VINDEL_STATE_GREETING_REPLY:
    case VINDEL_STATE_WRAPPED_KEY:
      return !initiator;
    case VINDEL_STATE_ESTABLISHED:
      return false;
  }
  return false;  // not a handshake state
}

int vindel_handshake(bool can_read, bool can_write, vindel_sock_t *sock) {
  switch (static_cast<vindel_state>(sock->state)) {
    case VINDEL_STATE_GREETING: {
      if (!can_write) return 0;
      if (vindel_sys_send(sock->fd, kGreeting, sizeof kGreeting) !=
          static_cast<ssize_t>(sizeof kGreeting))
        return -1;
      sock->state = VINDEL_STATE_GREETING_REPLY;
      return 0;
    }
    case VINDEL_STATE_GREETING_REPLY: {
      if (!can_read) return 0;
      uint8_t reply[sizeof kGreetingReply];
      if (vindel_sys_recv(sock->fd, reply, sizeof reply) != static_cast<ssize_t>(sizeof reply) ||
          std::memcmp(reply, kGreetingReply, sizeof reply) != 0)
        return -1;
      sock->state = VINDEL_STATE_PUBKEY;
      return initiator_send_pubkey(can_write, sock);
    }
    case VINDEL_STATE_PUBKEY:
      return initiator_send_pubkey(can_write, sock);
    case VINDEL_STATE_WRAPPED_KEY:
      return initiator_recv_wrapped_key(can_read, can_write, sock);
    case VINDEL_STATE_OWN_KEY:
      return initiator_send_own_key(can_write, sock);
    case VINDEL_STATE_ESTABLISHED:
      return 1;
  }
  return -1;  // not a handshake state: the record is broken
}

int vindel_handshake_responder(bool can_read, bool can_write, vindel_sock_t *sock) {
  switch (static_cast<vindel_state>(sock->state)) {
    case VINDEL_STATE_GREETING:
      return responder_recv_greeting(can_read, can_write, sock);
    case VINDEL_STATE_GREETING_REPLY:
      return responder_send_reply(can_write, sock);
    case VINDEL_STATE_PUBKEY:
      return responder_recv_pubkey(can_read, sock);
    case VINDEL_STATE_WRAPPED_KEY:
      if (!can_write) return 0;
      return responder_send_wrapped_key(sock);
    case VINDEL_STATE_OWN_KEY:
      return responder_recv_own_key(can_read, sock);
    case VINDEL_STATE_ESTABLISHED:
      return 1;
  }
  return -1;  // not a handshake state: the record is broken
}

ssize_t vindel_read(void *buf, size_t len, vindel_sock_t *sock) {
  const ssize_t r = vindel_sys_recv(sock->fd, buf, len);
  if (r >= 1) vindel_rc4_crypt(static_cast<uint8_t *>(buf), static_cast<size_t>(r), &sock->rcv_cipher);
  return r;
}

ssize_t vindel_write(void *buf, size_t len, vindel_sock_t *sock) {
  auto *p = static_cast<uint8_t *>(buf);
  vindel_rc4_t saved = sock->snd_cipher;
  vindel_rc4_crypt(p, len, &sock->snd_cipher);
  const ssize_t r = vindel_sys_send(sock->fd, p, len);
  if (r == static_cast<ssize_t>(len)) {
    vindel_wipe(&saved, sizeof saved);
    return r;
  }

  // Short send: rewind to the saved state and decrypt buf back to plain
  // text. The state must end up advanced by exactly the r bytes that left,
  // so it is captured at that point on the way through.
  sock->snd_cipher = saved;
  const size_t sent = r >= 1 ? static_cast<size_t>(r) : 0;
  vindel_rc4_crypt(p, sent, &sock->snd_cipher);
  vindel_rc4_t after_sent = sock->snd_cipher;
  vindel_rc4_crypt(p + sent, len - sent, &sock->snd_cipher);
  sock->snd_cipher = after_sent;
  vindel_wipe(&saved, sizeof saved);
  vindel_wipe(&after_sent, sizeof after_sent);
  return r;
}
