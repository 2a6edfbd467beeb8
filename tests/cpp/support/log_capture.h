// Log lines captured in tests: what the logger prints goes to `lines` (stderr
// stays quiet, every level passes the threshold); the defaults come back when
// the capture ends.
#ifndef TQ_TEST_LOG_CAPTURE_H
#define TQ_TEST_LOG_CAPTURE_H

#include <regex>
#include <string>
#include <vector>

#include "tq_log.h"

namespace tqtest {

struct LogCapture {
  std::vector<std::string> lines;
  LogCapture() {
    tq_log_set_sink([](const char *l, void *c) { static_cast<LogCapture *>(c)->lines.emplace_back(l); },
                    this);
    tq_log_set_stderr(false);
    tq_log_set_threshold(TQ_LOG_VERBOSE);
  }
  ~LogCapture() {
    tq_log_set_sink(nullptr, nullptr);
    tq_log_set_stderr(true);
    tq_log_reset_levels();
  }
  LogCapture(const LogCapture &) = delete;
  LogCapture &operator=(const LogCapture &) = delete;
};

// A literal text as a regular expression, for death-test matchers.
inline std::string re_escape(const std::string &s) {
  return std::regex_replace(s, std::regex(R"([\\^$.|?*+()\[\]{}])"), R"(\$&)");
}

}  // namespace tqtest

#endif
