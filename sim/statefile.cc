#include "statefile.h"

#include <fcntl.h>
#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cstdio>
#include <cstring>
#include <filesystem>

#include "util.h"

namespace tqsim {

namespace {

bool failed(std::string &why, std::string_view step, const std::string &file, int err) {
  why = std::string(step) + " " + file + ": " + std::strerror(err);
  return false;
}

bool write_all(int fd, std::string_view data) {
  while (!data.empty()) {
    const ssize_t n = ::write(fd, data.data(), data.size());
    if (n < 0) {
      if (errno == EINTR) continue;
      return false;
    }
    data.remove_prefix(static_cast<std::size_t>(n));
  }
  return true;
}

// Writes and syncs the temporary file; the caller removes it on failure.
bool write_temporary(const std::string &tmp, std::string_view contents, std::string &why) {
  UniqueFd fd(::open(tmp.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600));
  if (!fd) return failed(why, "cannot create", tmp, errno);
  if (!write_all(fd.get(), contents)) return failed(why, "cannot write", tmp, errno);
  if (::fsync(fd.get()) != 0) return failed(why, "cannot sync", tmp, errno);
  // close() reports late write errors (e.g. on network file systems).
  if (::close(fd.release()) != 0) return failed(why, "cannot close", tmp, errno);
  return true;
}

// The writer's pid when name is "<stem>.tmp.<pid>" (stem empty: any), else 0.
pid_t temporary_owner(std::string_view name, std::string_view stem) {
  constexpr std::string_view kTag = ".tmp.";
  const auto tag = name.rfind(kTag);
  if (tag == std::string_view::npos || tag == 0) return 0;
  if (!stem.empty() && name.substr(0, tag) != stem) return 0;
  const std::string_view digits = name.substr(tag + kTag.size());
  pid_t pid = 0;
  const auto [end, ec] = std::from_chars(digits.data(), digits.data() + digits.size(), pid);
  return ec == std::errc() && end == digits.data() + digits.size() && pid > 0 ? pid : 0;
}

bool running(pid_t pid) { return pid == ::getpid() || ::kill(pid, 0) == 0 || errno == EPERM; }

}  // namespace

std::string directory_of(const std::string &path) {
  const auto slash = path.rfind('/');
  if (slash == std::string::npos) return ".";
  if (slash == 0) return "/";
  return path.substr(0, slash);
}

std::size_t remove_stale_temporaries(const std::string &dir, std::string_view stem) {
  std::size_t removed = 0;
  std::error_code ec;
  for (std::filesystem::directory_iterator it(dir, ec), end; !ec && it != end; it.increment(ec)) {
    const std::string name = it->path().filename().string();
    const pid_t pid = temporary_owner(name, stem);
    std::error_code kind;
    if (pid == 0 || running(pid) || !it->is_regular_file(kind)) continue;
    if (::unlink(it->path().c_str()) != 0) continue;
    std::fprintf(stderr, "tqdbsim: removed %s, left half-written by process %d\n",
                 it->path().c_str(), static_cast<int>(pid));
    ++removed;
  }
  return removed;
}

bool save_atomically(const std::string &path, std::string_view contents, std::string &why) {
  // The temporary sits beside the file under the file's name, cut so that
  // the suffix still fits a name's 255 bytes (a file name may use them all).
  const std::string suffix = ".tmp." + std::to_string(::getpid());
  const std::size_t base_at = path.rfind('/') + 1;  // npos + 1 == 0
  constexpr std::size_t kNameMax = 255;
  const std::size_t base = std::min(path.size() - base_at, kNameMax - suffix.size());
  const std::string tmp = path.substr(0, base_at + base) + suffix;
  if (!write_temporary(tmp, contents, why)) {
    ::unlink(tmp.c_str());
    return false;
  }
  if (::rename(tmp.c_str(), path.c_str()) != 0) {
    const int err = errno;
    ::unlink(tmp.c_str());
    return failed(why, "cannot rename " + tmp + " to", path, err);
  }
  // The rename is durable only once the directory entry is on disk. Some
  // file systems cannot sync a directory (EINVAL); there is nothing more to do.
  const std::string dir = directory_of(path);
  UniqueFd dfd(::open(dir.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (!dfd) return failed(why, "cannot open directory", dir, errno);
  if (::fsync(dfd.get()) != 0 && errno != EINVAL)
    return failed(why, "cannot sync directory", dir, errno);
  return true;
}

bool load_file(const std::string &path, std::string &contents, bool &missing, std::string &why) {
  contents.clear();
  missing = false;
  UniqueFd fd(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
  if (!fd) {
    if (errno == ENOENT) {
      missing = true;
      return true;
    }
    return failed(why, "cannot open", path, errno);
  }
  char buf[65536];
  for (;;) {
    const ssize_t n = ::read(fd.get(), buf, sizeof buf);
    if (n == 0) return true;
    if (n < 0) {
      if (errno == EINTR) continue;
      contents.clear();
      return failed(why, "cannot read", path, errno);
    }
    contents.append(buf, static_cast<std::size_t>(n));
  }
}

}  // namespace tqsim
