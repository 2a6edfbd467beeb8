#include "util.h"

#include <cstdarg>
#include <cstdio>
#include <unistd.h>

namespace tqsim {

UniqueFd &UniqueFd::operator=(UniqueFd &&o) noexcept {
  if (this != &o) reset(o.release());
  return *this;
}

void UniqueFd::reset(int fd) {
  if (fd_ >= 0) ::close(fd_);
  fd_ = fd;
}

std::string format(const char *fmt, ...) {
  va_list ap;
  va_start(ap, fmt);
  va_list again;
  va_copy(again, ap);
  const int n = std::vsnprintf(nullptr, 0, fmt, ap);
  va_end(ap);
  std::string out;
  if (n > 0) {
    out.resize(static_cast<std::size_t>(n));
    std::vsnprintf(out.data(), out.size() + 1, fmt, again);
  }
  va_end(again);
  return out;
}

}  // namespace tqsim
