// The simulator's command line.
#ifndef TQSIM_OPTIONS_H
#define TQSIM_OPTIONS_H

#include <cstdint>
#include <string>
#include <vector>

namespace tqsim {

inline constexpr uint32_t kDefaultVersionWord = 0x6080;  // 17.1.0
inline constexpr uint16_t kDefaultPort = 17100;
inline constexpr uint32_t kMaxReplyBytes = 32768;  // a message's capacity
inline constexpr uint32_t kMinReplyBytes = 64;

struct User {
  std::string name;
  std::string password;
};

struct Options {
  std::string host = "127.0.0.1";
  uint16_t port = kDefaultPort;  // 0: the system picks a free one
  uint32_t version = kDefaultVersionWord;
  std::vector<User> users;       // admin:admin when none is given
  bool verbose = false;
  // Largest reply message (payload bytes, header words included) a list
  // answer is cut into; a single record larger than this still goes alone.
  uint32_t max_reply_bytes = kMaxReplyBytes;
  // Where the committed ruleset and live views are kept; empty: in memory only.
  std::string state_file;
};

enum class ParseResult { kRun, kHelp, kBad };

// Fills opts from argv; on kBad, why says what was wrong.
ParseResult parse_options(int argc, char **argv, Options &opts, std::string &why);
const char *usage_text();

}  // namespace tqsim

#endif
