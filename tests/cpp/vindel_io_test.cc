// Encrypted reads and writes on an established pair: the send cipher stays in
// step with what really left (short sends cut at every position, would-block,
// errors), and megabytes decrypt byte-exactly under tiny socket buffers and
// sends that take a few bytes at a time.
#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstring>
#include <vector>

#include "vindel.h"

namespace {

void set_nonblocking(int fd) { ASSERT_EQ(fcntl(fd, F_SETFL, fcntl(fd, F_GETFL) | O_NONBLOCK), 0); }

// Two established records on a connected pair of sockets. The streams are
// keyed directly the way the handshake leaves them (each direction with the
// receiving end's own key), without the RSA exchange.
struct Link {
  int fd[2] = {-1, -1};
  vindel_sock_t end[2]{};

  Link(const Link &) = delete;
  Link &operator=(const Link &) = delete;
  explicit Link(bool tcp, int bufsize = 0) {
    if (tcp) {
      const int l = socket(AF_INET, SOCK_STREAM, 0);
      sockaddr_in addr{};
      addr.sin_family = AF_INET;
      addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
      socklen_t len = sizeof addr;
      EXPECT_EQ(bind(l, reinterpret_cast<sockaddr *>(&addr), sizeof addr), 0);
      EXPECT_EQ(listen(l, 1), 0);
      EXPECT_EQ(getsockname(l, reinterpret_cast<sockaddr *>(&addr), &len), 0);
      fd[0] = socket(AF_INET, SOCK_STREAM, 0);
      if (bufsize > 0) shrink(fd[0], bufsize);
      EXPECT_EQ(connect(fd[0], reinterpret_cast<sockaddr *>(&addr), sizeof addr), 0);
      fd[1] = accept(l, nullptr, nullptr);
      close(l);
      if (bufsize > 0) shrink(fd[1], bufsize);
    } else {
      EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, fd), 0);
    }
    for (int k = 0; k < 2; k++) {
      if (!tcp && bufsize > 0) shrink(fd[k], bufsize);
      set_nonblocking(fd[k]);
      vindel_sock_init_responder(&end[k], fd[k]);
    }
    for (int k = 0; k < 2; k++) {
      vindel_rc4_init(end[1 - k].ownkey, VINDEL_OWNKEY, &end[k].snd_cipher);
      end[k].state = VINDEL_STATE_ESTABLISHED;
    }
  }
  ~Link() {
    for (int k = 0; k < 2; k++) {
      vindel_sock_free(&end[k]);
      if (fd[k] >= 0) close(fd[k]);
    }
  }
  static void shrink(int s, int size) {
    EXPECT_EQ(setsockopt(s, SOL_SOCKET, SO_SNDBUF, &size, sizeof size), 0);
  }
};

std::vector<uint8_t> pattern(size_t n, uint32_t seed) {
  std::vector<uint8_t> v(n);
  uint32_t x = seed;
  for (auto &b : v) {
    x = x * 1103515245u + 12345u;
    b = static_cast<uint8_t>(x >> 23);
  }
  return v;
}

bool same_state(const vindel_rc4_t &x, const vindel_rc4_t &y) {
  return std::memcmp(&x, &y, sizeof x) == 0;
}

// Both directions at once, like two event loops: each end writes its stream
// in pieces of up to `chunk` bytes; what a short send leaves is sent later
// from the same buffer, which must hold the plain text again. Counts the
// short sends in *shorts.
void pump_both_ways(Link &link, const std::vector<uint8_t> (&out)[2], size_t chunk,
                    int *shorts = nullptr) {
  size_t taken[2] = {0, 0}, got[2] = {0, 0};
  std::vector<uint8_t> in[2] = {std::vector<uint8_t>(out[1].size()),
                                std::vector<uint8_t>(out[0].size())};
  std::vector<uint8_t> pend[2] = {std::vector<uint8_t>(chunk), std::vector<uint8_t>(chunk)};
  size_t pend_off[2] = {0, 0}, pend_len[2] = {0, 0};
  auto more_to_send = [&](int k) { return pend_off[k] < pend_len[k] || taken[k] < out[k].size(); };
  int idle = 0;
  while ((more_to_send(0) || more_to_send(1) || got[0] < in[0].size() ||
          got[1] < in[1].size()) &&
         idle < 100) {
    pollfd p[2];
    for (int k = 0; k < 2; k++)
      p[k] = {link.fd[k], static_cast<short>(POLLIN | (more_to_send(k) ? POLLOUT : 0)), 0};
    if (poll(p, 2, 50) <= 0) {
      idle++;
      continue;
    }
    idle = 0;
    for (int k = 0; k < 2; k++) {
      if ((p[k].revents & POLLOUT) != 0) {
        if (pend_off[k] == pend_len[k]) {
          pend_len[k] = std::min(chunk, out[k].size() - taken[k]);
          std::memcpy(pend[k].data(), out[k].data() + taken[k], pend_len[k]);
          taken[k] += pend_len[k];
          pend_off[k] = 0;
        }
        const size_t n = pend_len[k] - pend_off[k];
        const ssize_t r = vindel_write(pend[k].data() + pend_off[k], n, &link.end[k]);
        if (r < 0) {
          ASSERT_EQ(r, -1);
          ASSERT_EQ(vindel_sock_error(), VINDEL_WOULDBLOCK);
        } else {
          pend_off[k] += static_cast<size_t>(r);
        }
        if (pend_off[k] < pend_len[k]) {
          if (shorts != nullptr && r > 0) ++*shorts;
          const size_t at = taken[k] - pend_len[k] + pend_off[k];
          ASSERT_EQ(std::memcmp(pend[k].data() + pend_off[k], out[k].data() + at,
                                pend_len[k] - pend_off[k]),
                    0)
              << "a short send must leave the plain text of the rest";
        }
      }
      if ((p[k].revents & POLLIN) != 0 && got[k] < in[k].size()) {
        const ssize_t r = vindel_read(in[k].data() + got[k],
                                      std::min<size_t>(4096, in[k].size() - got[k]), &link.end[k]);
        if (r > 0) got[k] += static_cast<size_t>(r);
      }
    }
  }
  ASSERT_EQ(got[0], out[1].size());
  ASSERT_EQ(got[1], out[0].size());
  EXPECT_TRUE(in[0] == out[1]);
  EXPECT_TRUE(in[1] == out[0]);
  EXPECT_TRUE(same_state(link.end[0].snd_cipher, link.end[1].rcv_cipher));
  EXPECT_TRUE(same_state(link.end[1].snd_cipher, link.end[0].rcv_cipher));
}

TEST(VindelIo, MegabytesEachWayUnderATinySendBuffer) {
  Link link(true, 4096);
  const std::vector<uint8_t> out[2] = {pattern(3 << 20, 1), pattern((2 << 20) + 777, 2)};
  int shorts = 0;
  pump_both_ways(link, out, 65536, &shorts);
  EXPECT_GT(shorts, 0) << "the kernel never took a piece in part";
}

TEST(VindelIo, LargeWritesOverASocketPair) {
  Link link(false, 16384);
  const std::vector<uint8_t> out[2] = {pattern(1 << 20, 3), pattern(12345, 4)};
  int shorts = 0;
  pump_both_ways(link, out, 100000, &shorts);
  EXPECT_GT(shorts, 0);
}

// --- the send hook: sends that take a few bytes, would-block, errors ---

std::vector<uint8_t> g_wire;  // what the hook let through
size_t g_take = 0;            // bytes the next send takes
int g_errno = 0;              // when non-zero the send fails with it
int g_calls = 0;

ssize_t scripted_send(int, const void *buf, size_t len) {
  g_calls++;
  if (g_errno != 0) {
    errno = g_errno;
    return -1;
  }
  const size_t n = std::min(len, g_take);
  const auto *p = static_cast<const uint8_t *>(buf);
  g_wire.insert(g_wire.end(), p, p + n);
  return static_cast<ssize_t>(n);
}

// A few bytes per call, every third call would block; goes to the real socket.
ssize_t dribbling_send(int fd, const void *buf, size_t len) {
  static unsigned calls = 0;
  calls++;
  if (calls % 3 == 0) {
    errno = EAGAIN;
    return -1;
  }
  return send(fd, buf, std::min<size_t>(len, 1 + calls % 7), MSG_NOSIGNAL);
}

struct SendHook {
  explicit SendHook(vindel_send_fn fn) {
    g_wire.clear();
    g_errno = 0;
    g_calls = 0;
    vindel_set_send_hook(fn);
  }
  ~SendHook() { vindel_set_send_hook(nullptr); }
};

TEST(VindelIo, ShortSendCutAnywhereAdvancesTheCipherByWhatLeft) {
  Link link(false);
  const auto plain = pattern(77, 9);
  for (size_t cut = 0; cut <= plain.size(); cut++) {
    SendHook hook(scripted_send);
    vindel_sock_t &w = link.end[0];
    vindel_rc4_t before = w.snd_cipher;
    auto buf = plain;
    g_take = cut;
    ASSERT_EQ(vindel_write(buf.data(), buf.size(), &w), static_cast<ssize_t>(cut));
    ASSERT_EQ(g_calls, 1);
    // A short send restores the plain text; a full one leaves what was sent.
    ASSERT_EQ(buf, cut < plain.size() ? plain : g_wire) << cut;

    // The cipher moved by exactly `cut` bytes, and those bytes were the
    // stream's next `cut` bytes.
    vindel_rc4_t expect = before;
    auto wire = g_wire;
    vindel_rc4_crypt(wire.data(), wire.size(), &expect);
    ASSERT_TRUE(std::equal(wire.begin(), wire.end(), plain.begin())) << cut;
    ASSERT_TRUE(same_state(w.snd_cipher, expect)) << cut;

    // The rest, sent from the same buffer, continues the stream.
    g_take = plain.size();
    ASSERT_EQ(vindel_write(buf.data() + cut, plain.size() - cut, &w),
              static_cast<ssize_t>(plain.size() - cut));
    vindel_rc4_t receiver = before;
    auto all = g_wire;
    vindel_rc4_crypt(all.data(), all.size(), &receiver);
    ASSERT_EQ(all, plain) << cut;
    ASSERT_TRUE(same_state(w.snd_cipher, receiver));
  }
}

TEST(VindelIo, BlockedOrFailedSendLeavesCipherAndPlainTextAlone) {
  Link link(false);
  for (int err : {EAGAIN, EPIPE, ECONNRESET}) {
    SendHook hook(scripted_send);
    g_errno = err;
    vindel_rc4_t before = link.end[0].snd_cipher;
    auto buf = pattern(300, 5);
    const auto plain = buf;
    errno = 0;
    EXPECT_EQ(vindel_write(buf.data(), buf.size(), &link.end[0]), -1);
    EXPECT_EQ(vindel_sock_error(), err == EAGAIN ? VINDEL_WOULDBLOCK : err);
    EXPECT_EQ(buf, plain);
    EXPECT_TRUE(same_state(link.end[0].snd_cipher, before));
  }
  // Zero bytes: nothing to encrypt, a send of 0 is a full send.
  SendHook hook(scripted_send);
  vindel_rc4_t before = link.end[0].snd_cipher;
  EXPECT_EQ(vindel_write(nullptr, 0, &link.end[0]), 0);
  EXPECT_TRUE(same_state(link.end[0].snd_cipher, before));
}

TEST(VindelIo, DribblingSendsStillDecryptExactly) {
  Link link(true);
  SendHook hook(dribbling_send);
  const std::vector<uint8_t> out[2] = {pattern(60000, 6), pattern(45001, 7)};
  pump_both_ways(link, out, 4096);
}

TEST(VindelIo, ReadReportsWouldBlockCloseAndDecryptsOnlyWhatArrived) {
  Link link(false);
  std::array<uint8_t, 32> buf{};
  vindel_rc4_t before = link.end[1].rcv_cipher;
  EXPECT_EQ(vindel_read(buf.data(), buf.size(), &link.end[1]), -1);
  EXPECT_EQ(vindel_sock_error(), VINDEL_WOULDBLOCK);
  EXPECT_TRUE(same_state(link.end[1].rcv_cipher, before));

  auto msg = pattern(20, 8);
  const auto plain = msg;
  ASSERT_EQ(vindel_write(msg.data(), msg.size(), &link.end[0]), 20);
  // Asking for more than arrived decrypts exactly the 20 bytes.
  EXPECT_EQ(vindel_read(buf.data(), buf.size(), &link.end[1]), 20);
  EXPECT_TRUE(std::equal(plain.begin(), plain.end(), buf.begin()));
  EXPECT_TRUE(same_state(link.end[1].rcv_cipher, link.end[0].snd_cipher));

  close(link.fd[0]);
  link.fd[0] = -1;
  EXPECT_EQ(vindel_read(buf.data(), buf.size(), &link.end[1]), 0);
  EXPECT_TRUE(same_state(link.end[1].rcv_cipher, link.end[0].snd_cipher));
}

TEST(VindelIo, WritingToAClosedPeerIsAnErrorNotASignal) {
  Link link(false);
  close(link.fd[1]);
  link.fd[1] = -1;
  auto buf = pattern(10, 1);
  EXPECT_EQ(vindel_write(buf.data(), buf.size(), &link.end[0]), -1);
  EXPECT_EQ(vindel_sock_error(), EPIPE);
}

}  // namespace
