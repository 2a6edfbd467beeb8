// Both roles of the transport's handshake against a hostile peer: the first
// input byte picks the role, the second the size of the slices (1 to 256
// bytes) in which the rest arrives from the peer; what the record under test
// sends is read and dropped. When the input is used up the peer closes, and
// the handshake must then end (established or failed) within a few steps.
#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include "harness.h"
#include "vindel.h"

namespace {

// Reproducible runs: the stream keys and the initiator's key pair come from
// a fixed byte sequence instead of the system source.
size_t fixed_random(void *buf, size_t n) {
  static uint32_t x = 0x12345678;
  auto *p = static_cast<uint8_t *>(buf);
  for (size_t i = 0; i < n; ++i) {
    x = x * 1103515245u + 12345u;
    p[i] = static_cast<uint8_t>(x >> 16);
  }
  return n;
}

struct KeyPair {
  rsa_key_ptr pub = rsa_key_make(), priv = rsa_key_make();
  KeyPair() {
    if (!rsa_keygen(pub.get(), priv.get(), VINDEL_KEYLEN, 17)) __builtin_trap();
  }
};

struct SockGuard {
  vindel_sock_t sock{};
  ~SockGuard() { vindel_sock_free(&sock); }
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  tqfuzz::install_bug_hook();
  vindel_set_random_source(fixed_random);
  static KeyPair keys;
  tqfuzz::run_guarded([&] {
    tqfuzz::Reader in({data, size});
    const bool initiator = in.u8() & 1;
    const size_t slice_size = size_t{in.u8()} + 1;
    tqfuzz::SocketPair sp;
    SockGuard g;
    if (initiator)
      vindel_sock_init_initiator(&g.sock, sp.fd[0], keys.pub.get(), keys.priv.get());
    else
      vindel_sock_init_responder(&g.sock, sp.fd[0]);
    const auto step = [&] {
      pollfd p{sp.fd[0], POLLIN | POLLOUT, 0};
      (void)::poll(&p, 1, 0);
      const bool r = p.revents & (POLLIN | POLLHUP), w = p.revents & POLLOUT;
      return initiator ? vindel_handshake(r, w, &g.sock) : vindel_handshake_responder(r, w, &g.sock);
    };
    int r = 0;
    while (r == 0 && !in.empty()) {
      const tqfuzz::Span slice = in.take(slice_size);
      if (::send(sp.fd[1], slice.data(), slice.size(), 0) != static_cast<ssize_t>(slice.size())) __builtin_trap();
      for (int i = 0; i < 4 && r == 0; ++i) r = step();  // a step may want a write, then a read
      sp.discard_from_peer();
    }
    sp.close_peer();
    for (int i = 0; i < 8 && r == 0; ++i) r = step();
    if (r == 0) __builtin_trap();  // a peer that went away left the handshake hanging
    if (r == 1 && g.sock.state != VINDEL_STATE_ESTABLISHED) __builtin_trap();
  });
  return 0;
}
