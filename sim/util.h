// Small text helpers of the simulator.
#ifndef TQSIM_UTIL_H
#define TQSIM_UTIL_H

#include <cstddef>
#include <cstring>
#include <string>
#include <string_view>

namespace tqsim {

// Owns a file descriptor: closes it when destroyed.
class UniqueFd {
 public:
  UniqueFd() = default;
  explicit UniqueFd(int fd) : fd_(fd) {}
  UniqueFd(UniqueFd &&o) noexcept : fd_(o.release()) {}
  UniqueFd &operator=(UniqueFd &&o) noexcept;
  UniqueFd(const UniqueFd &) = delete;
  UniqueFd &operator=(const UniqueFd &) = delete;
  ~UniqueFd() { reset(); }

  int get() const { return fd_; }
  explicit operator bool() const { return fd_ >= 0; }
  int release() {
    const int fd = fd_;
    fd_ = -1;
    return fd;
  }
  void reset(int fd = -1);

 private:
  int fd_ = -1;
};

// printf into a std::string (texts of replies and log lines).
std::string format(const char *fmt, ...) __attribute__((format(printf, 1, 2)));

// Copies text into a fixed NUL-terminated field, cut to N - 1 bytes.
template <std::size_t N>
void copy_cut(char (&dst)[N], std::string_view text) {
  const std::size_t n = text.size() < N - 1 ? text.size() : N - 1;
  std::memcpy(dst, text.data(), n);
  dst[n] = '\0';
}

}  // namespace tqsim

#endif
