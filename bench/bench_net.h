// Loopback plumbing shared by the transport benchmarks: a connected TCP pair
// and a handshake driven to completion with poll(2), as an owner's event loop
// would.
#ifndef TQ_BENCH_NET_H
#define TQ_BENCH_NET_H

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include "vindel.h"

namespace bench {

// Both ends non-blocking; false when the loopback interface refuses.
inline bool tcp_pair(int fds[2]) {
  const int l = socket(AF_INET, SOCK_STREAM, 0);
  if (l < 0) return false;
  sockaddr_in addr{};
  addr.sin_family = AF_INET;
  addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t len = sizeof addr;
  bool ok = bind(l, reinterpret_cast<sockaddr *>(&addr), sizeof addr) == 0 && listen(l, 1) == 0 &&
            getsockname(l, reinterpret_cast<sockaddr *>(&addr), &len) == 0;
  fds[0] = ok ? socket(AF_INET, SOCK_STREAM, 0) : -1;
  ok = ok && fds[0] >= 0 && connect(fds[0], reinterpret_cast<sockaddr *>(&addr), sizeof addr) == 0;
  fds[1] = ok ? accept(l, nullptr, nullptr) : -1;
  close(l);
  if (!ok || fds[1] < 0) {
    if (fds[0] >= 0) close(fds[0]);
    return false;
  }
  const int one = 1;
  for (int k = 0; k < 2; k++) {
    setsockopt(fds[k], IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
    fcntl(fds[k], F_SETFL, fcntl(fds[k], F_GETFL) | O_NONBLOCK);
  }
  return true;
}

// Runs both roles until both are established; false on failure or stall.
inline bool handshake(vindel_sock_t *ini, vindel_sock_t *rsp) {
  int ri = 0, rr = 0;
  while (ri == 0 || rr == 0) {
    auto events = [](const vindel_sock_t *s) {
      return static_cast<short>((vindel_want_read(s) ? POLLIN : 0) |
                                (vindel_want_write(s) ? POLLOUT : 0));
    };
    pollfd p[2] = {{static_cast<int>(ini->fd), events(ini), 0},
                   {static_cast<int>(rsp->fd), events(rsp), 0}};
    if (poll(p, 2, 5000) <= 0) return false;
    if (ri == 0)
      ri = vindel_handshake((p[0].revents & (POLLIN | POLLHUP)) != 0, (p[0].revents & POLLOUT) != 0,
                            ini);
    if (rr == 0)
      rr = vindel_handshake_responder((p[1].revents & (POLLIN | POLLHUP)) != 0,
                                      (p[1].revents & POLLOUT) != 0, rsp);
    if (ri < 0 || rr < 0) return false;
  }
  return true;
}

// The initiator's key pair, made once per program (e of 17 bits, as the
// scripting layer makes it).
struct KeyPair {
  rsa_key_ptr pub = rsa_key_make();
  rsa_key_ptr priv = rsa_key_make();
  bool ok = rsa_keygen(pub.get(), priv.get(), VINDEL_KEYLEN, 17);
};
inline KeyPair &keys() {
  static KeyPair kp;
  return kp;
}

}  // namespace bench

#endif
