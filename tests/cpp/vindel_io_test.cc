// Encrypted reads and writes on an established pair: the send cipher stays in
// step with what really left (short sends cut at every position, would-block,
// errors), and megabytes decrypt byte-exactly under tiny socket buffers and
// sends that take a few bytes at a time.
#include <gtest/gtest.h>

#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstring>
#include <vector>

#include "vindel.h"

namespace {

using Bytes = std::vector<uint8_t>;

// Two established records on a socketpair, keyed directly the way the
// handshake leaves them (each direction with the receiving end's key).
struct Link {
  int fd[2] = {-1, -1};
  vindel_sock_t end[2]{};

  explicit Link(int sndbuf = 0) {
    EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, fd), 0);
    for (int k = 0; k < 2; k++) {
      EXPECT_TRUE(sndbuf == 0 || setsockopt(fd[k], SOL_SOCKET, SO_SNDBUF, &sndbuf, sizeof sndbuf) == 0);
      EXPECT_EQ(fcntl(fd[k], F_SETFL, fcntl(fd[k], F_GETFL) | O_NONBLOCK), 0);
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
      close_fd(k);
    }
  }
  void close_fd(int k) {
    if (fd[k] >= 0) close(fd[k]);
    fd[k] = -1;
  }
};

Bytes pattern(size_t n, uint32_t x) {
  Bytes v(n);
  for (auto &b : v) b = static_cast<uint8_t>((x = x * 1103515245u + 12345u) >> 23);
  return v;
}

bool same(const vindel_rc4_t &x, const vindel_rc4_t &y) { return std::memcmp(&x, &y, sizeof x) == 0; }

// Both directions at once, like two event loops: each end writes its stream
// in pieces of up to `chunk` bytes; what a short send leaves is sent later
// from the same buffer, which must hold the plain text again. Counts short sends.
void pump_both_ways(Link &link, const Bytes (&out)[2], size_t chunk, int &shorts) {
  Bytes buf[2] = {out[0], out[1]}, in[2] = {Bytes(out[1].size()), Bytes(out[0].size())};
  size_t sent[2] = {0, 0}, got[2] = {0, 0};
  const auto busy = [&](int k) { return sent[k] < buf[k].size() || got[k] < in[k].size(); };
  for (int idle = 0; (busy(0) || busy(1)) && idle < 100;) {
    pollfd p[2];
    for (int k = 0; k < 2; k++) p[k] = {link.fd[k], short(POLLIN | (sent[k] < buf[k].size() ? POLLOUT : 0)), 0};
    idle = poll(p, 2, 50) > 0 ? 0 : idle + 1;
    for (int k = 0; k < 2; k++) {
      if ((p[k].revents & POLLOUT) != 0) {
        const size_t n = std::min(chunk, buf[k].size() - sent[k]);
        const ssize_t r = vindel_write(buf[k].data() + sent[k], n, &link.end[k]);
        if (r < 0) {
          ASSERT_EQ(r, -1);
          ASSERT_EQ(vindel_sock_error(), VINDEL_WOULDBLOCK);
        }
        const size_t took = r < 0 ? 0 : size_t(r);
        shorts += r > 0 && took < n;
        ASSERT_EQ(std::memcmp(buf[k].data() + sent[k] + took, out[k].data() + sent[k] + took, n - took), 0)
            << "a short send must leave the plain text of the rest";
        sent[k] += took;
      }
      if ((p[k].revents & POLLIN) != 0 && got[k] < in[k].size()) {
        const ssize_t r =
            vindel_read(in[k].data() + got[k], std::min<size_t>(4096, in[k].size() - got[k]), &link.end[k]);
        if (r > 0) got[k] += size_t(r);
      }
    }
  }
  ASSERT_EQ(got[0], out[1].size());
  ASSERT_EQ(got[1], out[0].size());
  EXPECT_TRUE(in[0] == out[1]);
  EXPECT_TRUE(in[1] == out[0]);
  EXPECT_TRUE(same(link.end[0].snd_cipher, link.end[1].rcv_cipher));
  EXPECT_TRUE(same(link.end[1].snd_cipher, link.end[0].rcv_cipher));
}

// --- the send hook: sends that take a few bytes, would-block, errors ---

Bytes g_wire;      // what the hook let through
size_t g_take = 0; // bytes the next send takes
int g_errno = 0;   // when non-zero the send fails with it
int g_calls = 0;

ssize_t scripted_send(int, const void *buf, size_t len) {
  g_calls++;
  if (g_errno != 0) {
    errno = g_errno;
    return -1;
  }
  const size_t n = std::min(len, g_take);
  g_wire.insert(g_wire.end(), static_cast<const uint8_t *>(buf), static_cast<const uint8_t *>(buf) + n);
  return static_cast<ssize_t>(n);
}

// A few bytes per call, every third call would block; goes to the real socket.
ssize_t dribbling_send(int fd, const void *buf, size_t len) {
  static unsigned calls = 0;
  if (++calls % 3 == 0) {
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

TEST(VindelIo, StreamsBothWaysDecryptExactly) {
  const struct {
    int sndbuf;
    size_t n0, n1, chunk;
    vindel_send_fn hook;
  } cases[] = {
      {4096, 3 << 20, (2 << 20) + 777, 65536, nullptr},  // megabytes under a tiny send buffer
      {16384, 1 << 20, 12345, 100000, nullptr},
      {0, 60000, 45001, 4096, dribbling_send},
  };
  for (const auto &c : cases) {
    SCOPED_TRACE(c.n0);
    Link link(c.sndbuf);
    SendHook hook(c.hook);
    const Bytes out[2] = {pattern(c.n0, 1), pattern(c.n1, 2)};
    int shorts = 0;
    pump_both_ways(link, out, c.chunk, shorts);
    EXPECT_TRUE(c.hook || shorts > 0) << "the kernel never cut a send short";
  }
}

TEST(VindelIo, ShortSendCutAnywhereAdvancesTheCipherByWhatLeft) {
  Link link;
  const auto plain = pattern(77, 9);
  vindel_sock_t &w = link.end[0];
  for (size_t cut = 0; cut <= plain.size(); cut++) {
    SendHook hook(scripted_send);
    const vindel_rc4_t before = w.snd_cipher;
    auto buf = plain;
    g_take = cut;
    ASSERT_EQ(vindel_write(buf.data(), buf.size(), &w), static_cast<ssize_t>(cut));
    ASSERT_EQ(g_calls, 1);
    // A short send restores the plain text; a full one leaves what was sent.
    ASSERT_EQ(buf, cut < plain.size() ? plain : g_wire) << cut;
    // The cipher moved by exactly the `cut` bytes that left, which were the stream's next.
    vindel_rc4_t expect = before;
    auto wire = g_wire;
    vindel_rc4_crypt(wire.data(), wire.size(), &expect);
    ASSERT_TRUE(std::equal(wire.begin(), wire.end(), plain.begin())) << cut;
    ASSERT_TRUE(same(w.snd_cipher, expect)) << cut;
    // The rest, sent from the same buffer, continues the stream.
    g_take = plain.size();
    ASSERT_EQ(vindel_write(buf.data() + cut, plain.size() - cut, &w), static_cast<ssize_t>(plain.size() - cut));
    vindel_rc4_t receiver = before;
    auto all = g_wire;
    vindel_rc4_crypt(all.data(), all.size(), &receiver);
    ASSERT_EQ(all, plain) << cut;
    ASSERT_TRUE(same(w.snd_cipher, receiver));
  }
}

TEST(VindelIo, BlockedOrFailedSendLeavesCipherAndPlainTextAlone) {
  Link link;
  const vindel_rc4_t before = link.end[0].snd_cipher;
  const auto plain = pattern(300, 5);
  for (int err : {EAGAIN, ECONNRESET, EPIPE, 0}) {  // 0: the real send to a closed peer
    SendHook hook(err ? scripted_send : nullptr);
    g_errno = err;
    if (err == 0) link.close_fd(1);  // an error, not SIGPIPE
    auto buf = plain;
    EXPECT_EQ(vindel_write(buf.data(), buf.size(), &link.end[0]), -1);
    EXPECT_EQ(vindel_sock_error(), err == EAGAIN ? VINDEL_WOULDBLOCK : err == 0 ? EPIPE : err);
    EXPECT_EQ(buf, plain);
    EXPECT_TRUE(same(link.end[0].snd_cipher, before));
  }
  // Zero bytes: nothing to encrypt, a send of 0 is a full send.
  SendHook hook(scripted_send);
  EXPECT_EQ(vindel_write(nullptr, 0, &link.end[0]), 0);
  EXPECT_TRUE(same(link.end[0].snd_cipher, before));
}

TEST(VindelIo, ReadReportsWouldBlockCloseAndDecryptsOnlyWhatArrived) {
  Link link;
  std::array<uint8_t, 32> buf{};
  const vindel_rc4_t before = link.end[1].rcv_cipher;
  EXPECT_EQ(vindel_read(buf.data(), buf.size(), &link.end[1]), -1);
  EXPECT_EQ(vindel_sock_error(), VINDEL_WOULDBLOCK);
  EXPECT_TRUE(same(link.end[1].rcv_cipher, before));

  auto msg = pattern(20, 8);
  const auto plain = msg;
  ASSERT_EQ(vindel_write(msg.data(), msg.size(), &link.end[0]), 20);
  EXPECT_EQ(vindel_read(buf.data(), buf.size(), &link.end[1]), 20);  // asked for 32
  EXPECT_TRUE(std::equal(plain.begin(), plain.end(), buf.begin()));
  EXPECT_TRUE(same(link.end[1].rcv_cipher, link.end[0].snd_cipher));

  link.close_fd(0);
  EXPECT_EQ(vindel_read(buf.data(), buf.size(), &link.end[1]), 0);
  EXPECT_TRUE(same(link.end[1].rcv_cipher, link.end[0].snd_cipher));
}

}  // namespace
