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
// A download announces its size in a u32, so no file may be larger.
inline constexpr uint64_t kDefaultMaxFileBytes = 16u << 20;
inline constexpr uint64_t kLargestFileBytes = 0xFFFFFFFFu;

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
  // Where the committed ruleset, live views, users and levels are kept;
  // empty: in memory only.
  std::string state_file;
  // Where the file areas and the backups are kept, one subdirectory each;
  // empty: in memory only.
  std::string data_dir;
  // Largest file an upload may leave in an area (backups included).
  uint64_t max_file_bytes = kDefaultMaxFileBytes;
  // The statistics store: generator seed and size (nodes grow with scale).
  uint64_t stats_seed = 1;
  uint32_t stats_scale = 1;
  // A columnar query ends with a notice past either limit.
  uint32_t query_timeout_ms = 5000;
  uint32_t query_max_rows = 100000;
  // Channels of the appliance (two interfaces each).
  uint32_t channels = 2;
  // What features_get reports (FEATURES_* bits).
  uint64_t features = 0xFFF;
  // Entries of the generated connection log (seeded by stats_seed).
  uint32_t connlog_entries = 10000;
};

enum class ParseResult { kRun, kHelp, kBad };

// Fills opts from argv; on kBad, why says what was wrong.
ParseResult parse_options(int argc, char **argv, Options &opts, std::string &why);
const char *usage_text();

}  // namespace tqsim

#endif
