// What every fuzz target shares: the fatal-path hook that tells the protocol's
// deliberate aborts from findings, owners for library records so that an
// input cut short by such an abort releases what it took, envelopes made from
// raw bytes, and one input split into two.
//
// A target's LLVMFuzzerTestOneInput looks like
//   tqfuzz::install_bug_hook();
//   tqfuzz::run_guarded([&] { ...decode data... });
//   return 0;
// A deliberate abort (TQ_BUG_ON on a peer's bytes) throws out of the fatal
// path instead of ending the process; run_guarded counts it by its place and
// condition, and the counts are printed when the fuzzer exits, one line each:
//   DELIBERATE-ABORT <count> <place and condition>
// (fuzz/run adds them up per target). Anything else — a sanitizer report, a
// signal, std::abort from elsewhere — still ends the run as a finding.
#ifndef TQ_FUZZ_HARNESS_H
#define TQ_FUZZ_HARNESS_H

#include <fcntl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <map>
#include <memory>
#include <span>
#include <string>
#include <string_view>

#include "tq_log.h"
#include "tq_msg.h"
#include "tqdb_api.h"

namespace tqfuzz {

using Span = std::span<const uint8_t>;

// A connected, non-blocking socket pair: fd[0] for the side under test,
// fd[1] for the peer; both closed on every way out.
struct SocketPair {
  int fd[2] = {-1, -1};
  SocketPair() {
    if (socketpair(AF_UNIX, SOCK_STREAM, 0, fd) != 0) __builtin_trap();
    for (int f : fd) fcntl(f, F_SETFL, fcntl(f, F_GETFL) | O_NONBLOCK);
  }
  ~SocketPair() { close_peer(), ::close(fd[0]); }
  void close_peer() {
    if (fd[1] >= 0) ::close(fd[1]);
    fd[1] = -1;
  }
  void discard_from_peer() const {
    uint8_t buf[512];
    while (fd[1] >= 0 && ::recv(fd[1], buf, sizeof buf, 0) > 0) {
    }
  }
};

// Thrown by the hook on the fatal path; carries the "TQ-BUG at ..." report.
struct DeliberateAbort {
  std::string report;
};

// The report's place and condition, without the explanation after the two
// blanks: the explanation of a checked read names the caller's line, which is
// kept, but any number or text from the input would make one abort many.
inline std::string abort_key(std::string_view report) {
  if (report.starts_with("TQ-BUG at ")) report.remove_prefix(10);
  return std::string(report.substr(0, std::min(report.size(), size_t{200})));
}

inline std::map<std::string, unsigned long> &abort_counts() {
  static std::map<std::string, unsigned long> counts;
  return counts;
}

inline void print_abort_summary() {
  unsigned long total = 0;
  for (const auto &[key, n] : abort_counts()) total += n;
  std::fprintf(stderr, "DELIBERATE-ABORTS %lu\n", total);
  for (const auto &[key, n] : abort_counts()) std::fprintf(stderr, "DELIBERATE-ABORT %lu %s\n", n, key.c_str());
}

[[noreturn]] inline void throw_abort(const char *report) { throw DeliberateAbort{report}; }

// Idempotent. Also keeps the library's own log lines off stderr: the fuzzer's
// output stays readable, and the fatal path reports through the hook anyway.
inline void install_bug_hook() {
  static const bool done = [] {
    tq_set_bug_hook(throw_abort);
    tq_log_set_stderr(false);
    // The counts must outlive the summary: made first, destroyed after it.
    (void)abort_counts();
    std::atexit(print_abort_summary);
    return true;
  }();
  (void)done;
}

// Runs fn; a deliberate abort inside it is counted and false returned.
template <class Fn>
bool run_guarded(Fn &&fn) {
  try {
    fn();
    return true;
  } catch (const DeliberateAbort &a) {
    ++abort_counts()[abort_key(a.report)];
    return false;
  }
}

// --- owners ------------------------------------------------------------------------
struct MsgDeleter {
  void operator()(tq_msg_t *m) const { tq_msg_free(m); }
};
using MsgPtr = std::unique_ptr<tq_msg_t, MsgDeleter>;
struct EnvDeleter {
  void operator()(tqdb_api_msg_t *e) const { tqdb_api_msg_free(e); }
};
using EnvPtr = std::unique_ptr<tqdb_api_msg_t, EnvDeleter>;
struct HandleDeleter {
  void operator()(tqdb_api_handle_t *h) const { tqdb_api_handle_free(h); }
};
using HandlePtr = std::unique_ptr<tqdb_api_handle_t, HandleDeleter>;

// A received message of wire code `code` whose payload is bytes (cut at the
// largest payload a frame can carry), read position 0.
inline MsgPtr make_msg(Span bytes, uint32_t code) {
  MsgPtr m(tq_msg_new(code));
  if (!m) return m;
  const size_t n = std::min<size_t>(bytes.size(), TQ_MSG_MAX_DATA);
  std::copy_n(bytes.begin(), n, m->data);
  m->len = static_cast<uint16_t>(n);
  return m;
}

// Corrupt-message reports seen by envelopes made with count_corrupt.
inline unsigned long &corrupt_reports() {
  static unsigned long n = 0;
  return n;
}
inline void count_corrupt(tq_msg_t *, const char *, const char *, int, void *) { ++corrupt_reports(); }

// The envelope the handle would hand out for this payload (its header —
// session, correlation id, text — taken from bytes); nullptr when the
// envelope parser refuses it.
inline EnvPtr make_env(Span bytes, uint32_t code = TQDB_REPLY_DATA) {
  MsgPtr m = make_msg(bytes, code);
  if (!m) return nullptr;
  EnvPtr env(tqdb_api_msg_new(m.get(), count_corrupt, nullptr));
  if (env) (void)m.release();  // the envelope owns it now
  return env;
}

// A DATA envelope whose body is bytes: a zero session and correlation id are
// put in front, so that every input reaches the decoder.
inline EnvPtr make_data_env(Span body) {
  uint8_t payload[TQ_MSG_MAX_DATA] = {};
  const size_t n = std::min<size_t>(body.size(), TQ_MSG_MAX_DATA - 8);
  std::copy_n(body.begin(), n, payload + 8);
  return make_env(Span(payload, n + 8), TQDB_REPLY_DATA);
}

// One input as two: the first byte chooses where the rest is cut (its share
// of the rest, in 255ths), so the fuzzer can move the cut without having to
// find a separator.
struct Halves {
  Span first;
  Span second;
};
inline Halves split(Span data) {
  if (data.empty()) return {};
  const Span rest = data.subspan(1);
  const size_t cut = rest.size() * data[0] / 255;
  return {rest.first(cut), rest.subspan(cut)};
}

// Takes bytes off the front of an input: the sizes of slices, choices.
class Reader {
 public:
  explicit Reader(Span data) : d_(data) {}
  bool empty() const { return d_.empty(); }
  size_t size() const { return d_.size(); }
  uint8_t u8() {
    if (d_.empty()) return 0;
    const uint8_t v = d_[0];
    d_ = d_.subspan(1);
    return v;
  }
  uint16_t u16() {
    const uint8_t hi = u8();
    return static_cast<uint16_t>(hi << 8 | u8());
  }
  // Up to n bytes (fewer at the end of the input).
  Span take(size_t n) {
    n = std::min(n, d_.size());
    const Span s = d_.first(n);
    d_ = d_.subspan(n);
    return s;
  }
  Span rest() { return take(d_.size()); }

 private:
  Span d_;
};

}  // namespace tqfuzz

#endif
