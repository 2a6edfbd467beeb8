// The handle's receive path over a real socket: the input (after its first
// byte, which sets the slice size, 1 to 256 bytes) is what the appliance sends on an established connection (encrypted with
// the stream key the handle decrypts with), and the handle is asked for
// messages after every slice, then once more after the peer closed.
#include <fcntl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstring>

#include "harness.h"
#include "vindel.h"

namespace {

constexpr uint8_t kStreamKey[VINDEL_OWNKEY] = {0x42, 0x17, 0x99};

// Takes every envelope the handle has; each must be closed off properly.
void drain(tqdb_api_handle_t *h) {
  while (tqfuzz::EnvPtr env{tqdb_api_handle_readmsg(h)}) {
    if (::strnlen(tqdb_api_msg_get_error(env.get()), TQDB_API_ERROR_MAX) == TQDB_API_ERROR_MAX) __builtin_trap();
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  tqfuzz::install_bug_hook();
  tqfuzz::run_guarded([&] {
    tqfuzz::Reader in({data, size});
    tqfuzz::SocketPair sp;
    vindel_sock_t sock{};
    sock.fd = static_cast<uint32_t>(sp.fd[0]);
    sock.keylen = VINDEL_KEYLEN;
    sock.state = VINDEL_STATE_ESTABLISHED;
    sock.role = VINDEL_ROLE_INITIATOR;
    vindel_rc4_init(kStreamKey, sizeof kStreamKey, &sock.rcv_cipher);
    vindel_rc4_t peer;
    vindel_rc4_init(kStreamKey, sizeof kStreamKey, &peer);

    tqfuzz::HandlePtr h(tqdb_api_handle_new());
    tqdb_api_handle_set_corrupt_cb(h.get(), tqfuzz::count_corrupt, nullptr);
    tqdb_api_handle_set_io(h.get(), &sock);
    uint8_t buf[256];
    const size_t slice_size = size_t{in.u8()} + 1;
    while (!in.empty()) {
      // The socket holds far more than an input, so a send never falls short.
      const tqfuzz::Span slice = in.take(slice_size);
      std::copy(slice.begin(), slice.end(), buf);
      vindel_rc4_crypt(buf, slice.size(), &peer);
      if (::send(sp.fd[1], buf, slice.size(), 0) != static_cast<ssize_t>(slice.size()))
        __builtin_trap();
      drain(h.get());
    }
    sp.close_peer();
    drain(h.get());
    if (tqdb_api_handle_io_status(h.get()) != TQDB_API_IO_CLOSED && size > 0 &&
        tqdb_api_handle_io_status(h.get()) != TQDB_API_IO_OK)
      __builtin_trap();
  });
  return 0;
}
