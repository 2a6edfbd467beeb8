// Internals shared by the transport's sources: the assertion, the system
// calls behind the platform layer, and an owned GMP integer.
//
// src/platform.cc is the only file that knows which operating system it runs
// on; everything here is declared the same way everywhere.
#ifndef VINDEL_PLATFORM_H
#define VINDEL_PLATFORM_H

#include <cstddef>
#include <cstdint>
#include <gmp.h>
#include <sys/types.h>

// The transport's preconditions are checked in every build (NDEBUG does not
// remove them): a broken one prints
//   "<source>:<line>: <function>: Assertion `<expr>' failed."
// on stderr and aborts. The expression text is the source text as written.
[[noreturn]] void vindel_assert_fail(const char *expr, const char *file, unsigned line,
                                     const char *func) noexcept;
#define VINDEL_ASSERT(expr) \
  (static_cast<bool>(expr) ? void(0) : vindel_assert_fail(#expr, __FILE__, __LINE__, __func__))

// One send with no signal on a closed peer (or the test hook's send).
ssize_t vindel_sys_send(uint32_t fd, const void *buf, size_t len);
ssize_t vindel_sys_recv(uint32_t fd, void *buf, size_t len);
// All n bytes from the random source (or the test hook), or false.
[[nodiscard]] bool vindel_sys_random(void *buf, size_t n);
// Zeroes memory in a way the compiler may not drop as a dead store.
void vindel_wipe(void *buf, size_t n);

// A GMP integer that lives exactly as long as its scope.
class vindel_mpz {
 public:
  vindel_mpz() { mpz_init(v_); }
  ~vindel_mpz() { mpz_clear(v_); }
  vindel_mpz(const vindel_mpz &) = delete;
  vindel_mpz &operator=(const vindel_mpz &) = delete;

  operator mpz_ptr() { return v_; }
  operator mpz_srcptr() const { return v_; }
  // GMP's inline macros (mpz_sgn) reach into the struct.
  mpz_srcptr operator->() const { return v_; }

 private:
  mpz_t v_;
};

#endif
