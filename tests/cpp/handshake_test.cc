// The five-step handshake: both roles against each other, each role against a
// peer played by hand on a raw socket (byte-exact wire, blocks in pieces,
// same-call steps), refusals, peers that go away, and set-up.
#include <gtest/gtest.h>

#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstring>
#include <string>
#include <tuple>
#include <vector>

#include "vindel.h"

namespace {

using Bytes = std::vector<uint8_t>;
using Key = std::array<uint8_t, 64>;

// A connected non-blocking socketpair: a = the record under test, b = the
// peer. (Over loopback TCP the handshake runs in every simulator test.)
struct Pair {
  int a = -1, b = -1;
  Pair() {
    int fds[2] = {-1, -1};
    EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, fds), 0);
    a = fds[0];
    b = fds[1];
    for (int fd : fds) fcntl(fd, F_SETFL, fcntl(fd, F_GETFL) | O_NONBLOCK);
  }
  ~Pair() {
    close(a);
    close_b();
  }
  void close_b() {
    if (b >= 0) close(b);
    b = -1;
  }
  void put(const void *buf, size_t n) const { ASSERT_EQ(send(b, buf, n, 0), static_cast<ssize_t>(n)); }
  template <class C>
  void put(const C &c) const { put(std::data(c), std::size(c)); }
  // Exactly n bytes from the peer's side, waiting up to 2 s.
  Bytes take(size_t n) const {
    Bytes out;
    uint8_t buf[512];
    for (pollfd p{b, POLLIN, 0}; out.size() < n && poll(&p, 1, 2000) > 0;) {
      const ssize_t r = recv(b, buf, std::min(sizeof buf, n - out.size()), 0);
      if (r <= 0) break;
      out.insert(out.end(), buf, buf + r);
    }
    return out;
  }
  bool peer_has_data() const {
    pollfd p{b, POLLIN, 0};
    return poll(&p, 1, 0) == 1;
  }
};

Bytes be128(const mpz_t x) {
  Bytes out(128, 0);
  size_t n = 0;
  uint8_t raw[128];
  mpz_export(raw, &n, 1, 1, 1, 0, x);
  std::memcpy(out.data() + 128 - n, raw, n);
  return out;
}

vindel_rc4_t keyed(const uint8_t *key) {
  vindel_rc4_t st;
  vindel_rc4_init(key, VINDEL_OWNKEY, &st);
  return st;
}
bool same(const vindel_rc4_t &x, const vindel_rc4_t &y) { return std::memcmp(&x, &y, sizeof x) == 0; }

struct Sock {
  vindel_sock_t s{};
  ~Sock() { vindel_sock_free(&s); }
};

ssize_t take_two(int, const void *, size_t len) { return len < 2 ? static_cast<ssize_t>(len) : 2; }
ssize_t would_block(int, const void *, size_t) {
  errno = EAGAIN;
  return -1;
}
struct SendHook {
  explicit SendHook(vindel_send_fn fn) { vindel_set_send_hook(fn); }
  ~SendHook() { vindel_set_send_hook(nullptr); }
};

class Handshake : public ::testing::Test {
 protected:
  static void SetUpTestSuite() { ASSERT_TRUE(rsa_keygen(pub_.get(), priv_.get(), 1024, 17)); }
  static inline rsa_key_ptr pub_ = rsa_key_make();
  static inline rsa_key_ptr priv_ = rsa_key_make();

  void init_initiator(vindel_sock_t *s, int fd) { vindel_sock_init_initiator(s, fd, pub_.get(), priv_.get()); }
  static Bytes pubkey_wire() {  // step 3: e then N
    Bytes out = be128(pub_->e), n = be128(pub_->N);
    out.insert(out.end(), n.begin(), n.end());
    return out;
  }

  // The initiator taken to state 3 by a hand-played responder, checking the
  // wire and that each step waits for what the poll said.
  void initiator_at_wrapped_key(const Pair &p, vindel_sock_t *ini) {
    init_initiator(ini, p.a);
    ASSERT_EQ(vindel_handshake(true, false, ini), 0);
    ASSERT_EQ(ini->state, VINDEL_STATE_GREETING);
    ASSERT_EQ(vindel_handshake(false, true, ini), 0);
    ASSERT_EQ(vindel_handshake(false, true, ini), 0);
    ASSERT_EQ(ini->state, VINDEL_STATE_GREETING_REPLY);
    ASSERT_EQ(p.take(4), Bytes({'o', 't', 'n', 'e'}));
    p.put(std::string("zuhl"));
    ASSERT_EQ(vindel_handshake(true, false, ini), 0);  // reply taken, key waits
    ASSERT_EQ(ini->state, VINDEL_STATE_PUBKEY);
    ASSERT_TRUE(vindel_want_write(ini) && !vindel_want_read(ini));
    ASSERT_FALSE(p.peer_has_data());
    ASSERT_EQ(vindel_handshake(true, true, ini), 0);  // key sent
    ASSERT_EQ(ini->state, VINDEL_STATE_WRAPPED_KEY);
    ASSERT_EQ(p.take(256), pubkey_wire());
  }
  // The responder after a hand-played greeting, checking its reply.
  static void responder_at_pubkey(const Pair &p, vindel_sock_t *rsp) {
    vindel_sock_init_responder(rsp, p.a);
    EXPECT_EQ(vindel_handshake_responder(true, true, rsp), 0);  // nothing yet
    EXPECT_EQ(rsp->state, VINDEL_STATE_GREETING);
    p.put(std::string("otne"));
    ASSERT_EQ(vindel_handshake_responder(true, true, rsp), 0);  // "zuhl" in the same call
    EXPECT_EQ(rsp->state, VINDEL_STATE_PUBKEY);
    ASSERT_EQ(p.take(4), Bytes({'z', 'u', 'h', 'l'}));
  }

  static std::array<uint8_t, 128> wrap(const Key &key) {
    std::array<uint8_t, 128> out;
    rsa_encrypt(out.data(), key.data(), key.size(), pub_.get());
    return out;
  }
  // Step 5 on the wire: the initiator's key under RC4 keyed with the responder's.
  static void expect_step5(const Pair &p, const Key &rkey, const vindel_sock_t &ini) {
    Bytes step5 = p.take(64);
    ASSERT_EQ(step5.size(), 64u);
    vindel_rc4_t st = keyed(rkey.data());
    vindel_rc4_crypt(step5.data(), step5.size(), &st);
    EXPECT_EQ(std::memcmp(step5.data(), ini.ownkey, 64), 0);
    EXPECT_TRUE(same(ini.snd_cipher, st));
  }
};

TEST_F(Handshake, BothRolesComplete) {
  Pair p;
  Sock ini, rsp;
  init_initiator(&ini.s, p.a);
  vindel_sock_init_responder(&rsp.s, p.b);
  auto ev = [](const vindel_sock_t &s) {
    return static_cast<short>((vindel_want_read(&s) ? POLLIN : 0) | (vindel_want_write(&s) ? POLLOUT : 0));
  };
  int ri = 0, rr = 0;
  for (int round = 0; round < 100 && (ri == 0 || rr == 0); round++) {
    pollfd fds[2] = {{p.a, ev(ini.s), 0}, {p.b, ev(rsp.s), 0}};
    ASSERT_GT(poll(fds, 2, 2000), 0);
    if (ri == 0) ri = vindel_handshake(fds[0].revents & POLLIN, fds[0].revents & POLLOUT, &ini.s);
    if (rr == 0) rr = vindel_handshake_responder(fds[1].revents & POLLIN, fds[1].revents & POLLOUT, &rsp.s);
    ASSERT_GE(ri, 0);
    ASSERT_GE(rr, 0);
  }
  ASSERT_EQ(ri, 1);
  ASSERT_EQ(rr, 1);
  EXPECT_EQ(mpz_cmp(rsp.s.rsa_pubkey->N, pub_->N), 0);
  // Each direction keyed with the receiving end's key, nothing discarded:
  // only step 5 has gone initiator -> responder.
  EXPECT_TRUE(same(rsp.s.snd_cipher, keyed(ini.s.ownkey)));
  EXPECT_TRUE(same(ini.s.rcv_cipher, rsp.s.snd_cipher));
  vindel_rc4_t after64 = keyed(rsp.s.ownkey);
  Key scratch{};
  vindel_rc4_crypt(scratch.data(), scratch.size(), &after64);
  EXPECT_TRUE(same(ini.s.snd_cipher, after64));
  EXPECT_TRUE(same(rsp.s.rcv_cipher, after64));
  EXPECT_EQ(vindel_handshake(true, true, &ini.s), 1);  // done stays done
  EXPECT_EQ(vindel_handshake_responder(true, true, &rsp.s), 1);
}

// The wrapped key cut at every position: collected across calls, state 3
// until the last byte, then step 5 in the same call when can_write is set.
TEST_F(Handshake, InitiatorCollectsTheWrappedKeyCutAnywhere) {
  Key rkey;
  for (size_t n = 0; n < rkey.size(); n++) rkey[n] = static_cast<uint8_t>(0x80 + n);
  const auto wrapped = wrap(rkey);
  for (size_t cut = 1; cut < wrapped.size(); cut++) {
    Pair p;
    Sock ini;
    initiator_at_wrapped_key(p, &ini.s);
    p.put(wrapped.data(), cut);
    ASSERT_EQ(vindel_handshake(true, true, &ini.s), 0) << cut;
    ASSERT_EQ(ini.s.received, static_cast<int32_t>(cut));
    ASSERT_EQ(vindel_handshake(true, true, &ini.s), 0) << cut;  // would-block: call again
    p.put(wrapped.data() + cut, wrapped.size() - cut);
    if (cut % 2) {  // key taken, step 5 waits for can_write
      ASSERT_EQ(vindel_handshake(true, false, &ini.s), 0) << cut;
      ASSERT_EQ(ini.s.state, VINDEL_STATE_OWN_KEY);
      ASSERT_FALSE(p.peer_has_data());
      ASSERT_TRUE(vindel_want_write(&ini.s) && !vindel_want_read(&ini.s));
    }
    ASSERT_EQ(vindel_handshake(cut % 2 == 0, true, &ini.s), 1) << cut;
    ASSERT_EQ(ini.s.received, 0);
    expect_step5(p, rkey, ini.s);
    ASSERT_FALSE(p.peer_has_data());
    ASSERT_TRUE(same(ini.s.rcv_cipher, keyed(ini.s.ownkey)));  // own key untouched
  }
}

TEST_F(Handshake, InitiatorRefusesBadRepliesShortSendsAndClosedPeers) {
  for (const char *reply : {"zuhk", "Zuhl", "otne", "zuh", ""}) {
    Pair p;
    Sock ini;
    init_initiator(&ini.s, p.a);
    ASSERT_EQ(vindel_handshake(false, true, &ini.s), 0);
    p.put(std::string(reply));
    EXPECT_EQ(vindel_handshake(true, true, &ini.s), -1) << reply;  // "": would-block
  }
  // A short or blocked greeting, a peer already gone (an error, not SIGPIPE).
  for (vindel_send_fn fn : {take_two, would_block, static_cast<vindel_send_fn>(nullptr)}) {
    Pair p;
    Sock ini;
    init_initiator(&ini.s, p.a);
    SendHook hook(fn);
    if (fn == nullptr) p.close_b();
    EXPECT_EQ(vindel_handshake(false, true, &ini.s), -1);
  }
  Pair p;  // gone in the middle of the wrapped key
  Sock ini;
  initiator_at_wrapped_key(p, &ini.s);
  p.put(Bytes(50, 0));
  ASSERT_EQ(vindel_handshake(true, true, &ini.s), 0);
  p.close_b();
  EXPECT_EQ(vindel_handshake(true, true, &ini.s), -1);
}

TEST_F(Handshake, ResponderAgainstAHandPlayedInitiator) {
  Pair p;
  Sock rsp;
  responder_at_pubkey(p, &rsp.s);
  // e and N in three pieces; the wrapped key goes out once all 256 are in.
  const Bytes key = pubkey_wire();
  size_t at = 0;
  for (size_t piece : {1, 200, 55}) {
    EXPECT_FALSE(p.peer_has_data());
    p.put(key.data() + at, piece);
    at += piece;
    ASSERT_EQ(vindel_handshake_responder(true, true, &rsp.s), 0);
  }
  EXPECT_EQ(rsp.s.state, VINDEL_STATE_OWN_KEY);
  Bytes wrapped = p.take(128);
  ASSERT_EQ(wrapped.size(), 128u);
  Key unwrapped, ikey, step5;
  rsa_decrypt(unwrapped.data(), wrapped.data(), 64, priv_.get());
  EXPECT_EQ(std::memcmp(unwrapped.data(), rsp.s.ownkey, 64), 0);

  for (size_t k = 0; k < ikey.size(); k++) ikey[k] = static_cast<uint8_t>(k * 3);
  step5 = ikey;
  vindel_rc4_t st = keyed(unwrapped.data());
  vindel_rc4_crypt(step5.data(), step5.size(), &st);
  EXPECT_EQ(vindel_handshake_responder(true, true, &rsp.s), 0);  // would-block
  p.put(step5);
  ASSERT_EQ(vindel_handshake_responder(true, false, &rsp.s), 1);
  EXPECT_TRUE(same(rsp.s.snd_cipher, keyed(ikey.data())));
  EXPECT_TRUE(same(rsp.s.rcv_cipher, st));
}

TEST_F(Handshake, ResponderWaitsRetriesAndRefuses) {
  {
    Pair p;
    Sock rsp;
    vindel_sock_init_responder(&rsp.s, p.a);
    p.put(std::string("otne"));
    ASSERT_EQ(vindel_handshake_responder(true, false, &rsp.s), 0);
    EXPECT_EQ(rsp.s.state, VINDEL_STATE_GREETING_REPLY);
    EXPECT_TRUE(vindel_want_write(&rsp.s));
    EXPECT_FALSE(p.peer_has_data());
    {
      SendHook hook(would_block);  // the reply is tried again later
      EXPECT_EQ(vindel_handshake_responder(false, true, &rsp.s), 0);
      EXPECT_EQ(rsp.s.state, VINDEL_STATE_GREETING_REPLY);
    }
    SendHook hook(take_two);  // but a short send is final
    EXPECT_EQ(vindel_handshake_responder(false, true, &rsp.s), -1);
  }
  for (const char *greeting : {"otnf", "OTNE", "zuhl", "otn"}) {
    Pair p;
    Sock rsp;
    vindel_sock_init_responder(&rsp.s, p.a);
    p.put(std::string(greeting));
    EXPECT_EQ(vindel_handshake_responder(true, true, &rsp.s), -1) << greeting;
    EXPECT_FALSE(p.peer_has_data());
  }
  // The peer goes away before the greeting, in the public key, in step 5.
  for (auto [state, sent] :
       {std::pair{VINDEL_STATE_GREETING, 0}, {VINDEL_STATE_PUBKEY, 100}, {VINDEL_STATE_OWN_KEY, 63}}) {
    Pair p;
    Sock rsp;
    vindel_sock_init_responder(&rsp.s, p.a);
    rsp.s.state = state;
    p.put(Bytes(static_cast<size_t>(sent), 0));
    if (state == VINDEL_STATE_PUBKEY) {
      ASSERT_EQ(vindel_handshake_responder(true, true, &rsp.s), 0);
    }
    p.close_b();
    EXPECT_EQ(vindel_handshake_responder(true, true, &rsp.s), -1) << state;
  }
}

// Key material that is no RSA number for the key in use is refused with -1;
// it must never reach the RSA preconditions and abort the process.
TEST_F(Handshake, HostileKeysAreRefusedNotFatal) {
  for (const Bytes &block : {be128(pub_->N), Bytes(128, 0xFF)}) {  // wrapped key not below N
    Pair p;
    Sock ini;
    initiator_at_wrapped_key(p, &ini.s);
    p.put(block);
    EXPECT_EQ(vindel_handshake(true, true, &ini.s), -1) << int(block[0]);
    EXPECT_FALSE(p.peer_has_data());
  }
  // A modulus of zero, and 2^512 - 1, which a key of 64 0xFF bytes is not below.
  for (int modulus_bits : {0, 512}) {
    Pair p;
    Sock rsp;
    responder_at_pubkey(p, &rsp.s);
    std::memset(rsp.s.ownkey, 0xFF, VINDEL_OWNKEY);
    Bytes key(256, 0);
    key[127] = 3;  // e
    for (int k = 0; k < modulus_bits / 8; k++) key[255 - k] = 0xFF;
    p.put(key);
    EXPECT_EQ(vindel_handshake_responder(true, true, &rsp.s), -1) << modulus_bits;
    EXPECT_FALSE(p.peer_has_data());
  }
}

TEST(HandshakeStates, WantReadAndWriteFollowStateAndRole) {
  const bool responder_reads[] = {true, false, true, false, true, false};
  vindel_sock_t s{};
  for (int32_t state = 0; state <= 5; state++) {
    s.state = state;
    s.role = VINDEL_ROLE_RESPONDER;
    EXPECT_EQ(vindel_want_read(&s), responder_reads[state]) << state;
    EXPECT_EQ(vindel_want_write(&s), !responder_reads[state] && state != 5) << state;
    s.role = VINDEL_ROLE_INITIATOR;
    EXPECT_EQ(vindel_want_read(&s), !responder_reads[state] && state != 5) << state;
    EXPECT_EQ(vindel_want_write(&s), responder_reads[state]) << state;
  }
  for (int32_t state : {-1, 6}) {
    s.state = state;
    EXPECT_FALSE(vindel_want_read(&s) || vindel_want_write(&s));
    EXPECT_EQ(vindel_handshake(true, true, &s), -1);
    EXPECT_EQ(vindel_handshake_responder(true, true, &s), -1);
  }
}

size_t counting_random(void *buf, size_t n) {
  for (size_t k = 0; k < n; k++) static_cast<uint8_t *>(buf)[k] = static_cast<uint8_t>(k);
  return n;
}
size_t failing_random(void *, size_t) { return 0; }

TEST_F(Handshake, SetUpFreeAndBrokenSetUp) {
  vindel_set_random_source(counting_random);
  vindel_sock_t s;
  std::memset(&s, 0xAB, sizeof s);
  init_initiator(&s, 7);
  vindel_set_random_source(nullptr);
  for (size_t k = 0; k < 64; k++) EXPECT_EQ(s.ownkey[k], k);
  EXPECT_TRUE(same(s.rcv_cipher, keyed(s.ownkey)));
  const auto fresh = [&s](uint32_t role) {  // nothing left from the memory it was given
    EXPECT_EQ(std::tuple(s.state, s.received, s.role), std::tuple(int32_t{VINDEL_STATE_GREETING}, 0, role));
  };
  fresh(VINDEL_ROLE_INITIATOR);
  vindel_sock_free(&s);  // the caller's keys stay alive (ASan checks)
  const vindel_sock_t zero{};
  EXPECT_EQ(std::memcmp(&s, &zero, sizeof s), 0);
  vindel_sock_free(&s);

  std::memset(&s, 0xAB, sizeof s);
  vindel_sock_init_responder(&s, 8);
  fresh(VINDEL_ROLE_RESPONDER);
  ASSERT_NE(s.rsa_pubkey, nullptr);
  EXPECT_EQ(s.rsa_pubkey->keylen, 1024);
  EXPECT_EQ(s.rsa_privkey, nullptr);
  vindel_sock_free(&s);  // releases the peer-key record (leak-checked under ASan)

  GTEST_FLAG_SET(death_test_style, "threadsafe");
  auto small = rsa_key_make();
  small->keylen = 512;
  EXPECT_DEATH(vindel_sock_init_initiator(&s, 3, small.get(), small.get()),
               "src/socket\\.cc:[0-9]+: vindel_sock_init_initiator: Assertion `sock->keylen == 1024' failed\\.");
  EXPECT_DEATH((vindel_set_random_source(failing_random), vindel_sock_init_responder(&s, 3)),
               "src/socket\\.cc:[0-9]+: init_common: Assertion `rsa_random_bytes");
  Pair p;
  auto big = rsa_key_make();
  mpz_set(big->N, pub_->N);
  vindel_sock_init_initiator(&s, p.a, big.get(), priv_.get());
  s.state = VINDEL_STATE_WRAPPED_KEY;
  big->keylen = 1032;
  EXPECT_DEATH((void)vindel_handshake(true, false, &s),
               "src/socket\\.cc:[0-9]+: initiator_recv_wrapped_key: Assertion "
               "`sock->rsa_pubkey->keylen/8 <= 128' failed\\.");
  vindel_sock_free(&s);
}

}  // namespace
