// The transport's platform layer: socket calls, the socket error, the
// cryptographic random source and memory wiping. The only file with
// operating-system conditionals; Linux is what we build and test, and the
// Windows branch is kept compilable (MinGW-w64, linked with ws2_32 and
// advapi32).
#include "platform.h"

#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "vindel.h"

#ifdef _WIN32
#include <winsock2.h>
#include <windows.h>
#include <wincrypt.h>
#else
#include <fcntl.h>
#include <sys/random.h>
#include <sys/socket.h>
#include <unistd.h>
#endif

namespace {

// Test hooks; nullptr means the system.
vindel_random_fn g_random_hook = nullptr;
vindel_send_fn g_send_hook = nullptr;

#ifdef _WIN32

// One provider handle for the process, acquired on first use and kept until
// exit; a failed acquisition is tried again on the next request.
HCRYPTPROV g_provider = 0;

bool system_random(void *buf, size_t n) {
  if (g_provider == 0 &&
      !CryptAcquireContextA(&g_provider, nullptr, nullptr, PROV_RSA_FULL, CRYPT_VERIFYCONTEXT)) {
    g_provider = 0;
    return false;
  }
  auto *p = static_cast<BYTE *>(buf);
  while (n > 0) {
    const DWORD chunk = n > 0x10000000u ? 0x10000000u : static_cast<DWORD>(n);
    if (!CryptGenRandom(g_provider, chunk, p)) return false;
    p += chunk;
    n -= chunk;
  }
  return true;
}

#else

// /dev/urandom is only needed on kernels without getrandom(2); it is opened
// the first time that happens and kept open.
int g_urandom_fd = -1;
bool g_have_getrandom = true;

bool urandom_read(uint8_t *p, size_t n) {
  if (g_urandom_fd < 0) {
    g_urandom_fd = open("/dev/urandom", O_RDONLY | O_CLOEXEC);
    if (g_urandom_fd < 0) return false;
  }
  while (n > 0) {
    const ssize_t r = read(g_urandom_fd, p, n);
    if (r < 0 && errno == EINTR) continue;
    if (r <= 0) return false;
    p += r;
    n -= static_cast<size_t>(r);
  }
  return true;
}

bool system_random(void *buf, size_t n) {
  auto *p = static_cast<uint8_t *>(buf);
  while (n > 0 && g_have_getrandom) {
    const ssize_t r = getrandom(p, n, 0);
    if (r > 0) {
      p += r;
      n -= static_cast<size_t>(r);
    } else if (r < 0 && errno == ENOSYS) {
      g_have_getrandom = false;
    } else if (!(r < 0 && errno == EINTR)) {
      return false;
    }
  }
  return n == 0 || urandom_read(p, n);
}

#endif

}  // namespace

void vindel_assert_fail(const char *expr, const char *file, unsigned line,
                        const char *func) noexcept {
  std::fprintf(stderr, "%s:%u: %s: Assertion `%s' failed.\n", file, line, func, expr);
  std::fflush(stderr);
  std::abort();
}

void vindel_set_random_source(vindel_random_fn fn) { g_random_hook = fn; }
void vindel_set_send_hook(vindel_send_fn fn) { g_send_hook = fn; }

bool vindel_sys_random(void *buf, size_t n) {
  if (g_random_hook != nullptr) return g_random_hook(buf, n) == n;
  return system_random(buf, n);
}

#ifdef _WIN32

int vindel_sock_error() { return WSAGetLastError(); }

ssize_t vindel_sys_send(uint32_t fd, const void *buf, size_t len) {
  if (g_send_hook != nullptr) return g_send_hook(static_cast<int>(fd), buf, len);
  const int n = len > INT_MAX ? INT_MAX : static_cast<int>(len);
  return ::send(static_cast<SOCKET>(fd), static_cast<const char *>(buf), n, 0);
}

ssize_t vindel_sys_recv(uint32_t fd, void *buf, size_t len) {
  const int n = len > INT_MAX ? INT_MAX : static_cast<int>(len);
  return ::recv(static_cast<SOCKET>(fd), static_cast<char *>(buf), n, 0);
}

void vindel_wipe(void *buf, size_t n) { SecureZeroMemory(buf, n); }

#else

int vindel_sock_error() {
  const int err = errno;
  return (err == EAGAIN || err == EWOULDBLOCK) ? VINDEL_WOULDBLOCK : err;
}

ssize_t vindel_sys_send(uint32_t fd, const void *buf, size_t len) {
  if (g_send_hook != nullptr) return g_send_hook(static_cast<int>(fd), buf, len);
  ssize_t r;
  // MSG_NOSIGNAL: a peer that has gone away is an error return, not SIGPIPE.
  do {
    r = ::send(static_cast<int>(fd), buf, len, MSG_NOSIGNAL);
  } while (r < 0 && errno == EINTR);
  return r;
}

ssize_t vindel_sys_recv(uint32_t fd, void *buf, size_t len) {
  ssize_t r;
  do {
    r = ::recv(static_cast<int>(fd), buf, len, 0);
  } while (r < 0 && errno == EINTR);
  return r;
}

void vindel_wipe(void *buf, size_t n) { explicit_bzero(buf, n); }

#endif
