#include "options.h"

#include <charconv>
#include <string_view>

namespace tqsim {
namespace {

template <class T>
bool parse_number(std::string_view text, T max, T &out) {
  int base = 10;
  if (text.size() > 2 && text[0] == '0' && (text[1] == 'x' || text[1] == 'X')) {
    base = 16;
    text.remove_prefix(2);
  }
  unsigned long long v = 0;
  auto [end, ec] = std::from_chars(text.data(), text.data() + text.size(), v, base);
  if (text.empty() || ec != std::errc{} || end != text.data() + text.size() || v > max)
    return false;
  out = static_cast<T>(v);
  return true;
}

}  // namespace

const char *usage_text() {
  return "usage: tqdbsim [--host ADDR] [--port N] [--user NAME:PASSWORD]... [--version WORD]\n"
         "       [--state FILE] [--data DIR] [--max-reply-bytes N] [--max-file-bytes N]\n"
         "       [--stats-seed N] [--stats-scale N] [--query-timeout-ms N] [--query-max-rows N]\n"
         "       [--verbose]\n"
         "  --host ADDR           address to listen on (default 127.0.0.1)\n"
         "  --port N              TCP port (default 17100; 0 picks a free one)\n"
         "  --user NAME:PASSWORD  an account that may log in; repeat for more\n"
         "                        (default admin:admin when none is given)\n"
         "  --version WORD        protocol version word announced to clients\n"
         "                        (default 0x6080, 17.1.0)\n"
         "  --state FILE          load the ruleset, live views, users and diagnostics levels\n"
         "                        from FILE (JSON) at start and save them there after\n"
         "                        every commit of any of them\n"
         "  --data DIR            keep the file areas and the backups under DIR, one\n"
         "                        subdirectory each (default: in memory)\n"
         "  --max-reply-bytes N   cut list answers into messages of at most N bytes\n"
         "                        (64 to 32768, default 32768)\n"
         "  --max-file-bytes N    largest file an upload may leave, backups included\n"
         "                        (0 to 4294967295, default 16777216)\n"
         "  --stats-seed N        seed of the generated statistics store (default 1)\n"
         "  --stats-scale N       size of the statistics tree, 1 to 16 (default 1)\n"
         "  --query-timeout-ms N  a statistics query stops after N ms (default 5000)\n"
         "  --query-max-rows N    a statistics query stops after N rows (default 100000)\n"
         "  --verbose             log connections and requests on stderr\n"
         "Prints \"tqdbsim listening on HOST:PORT\" once ready; stops on SIGINT or SIGTERM.\n";
}

ParseResult parse_options(int argc, char **argv, Options &opts, std::string &why) {
  for (int i = 1; i < argc; ++i) {
    std::string_view arg = argv[i];
    std::string_view value;
    bool has_value = false;
    if (auto eq = arg.find('='); arg.starts_with("--") && eq != std::string_view::npos) {
      value = arg.substr(eq + 1);
      arg = arg.substr(0, eq);
      has_value = true;
    }
    auto take_value = [&]() -> bool {
      if (has_value) return true;
      if (i + 1 >= argc) return false;
      value = argv[++i];
      return true;
    };

    if (arg == "--help" || arg == "-h") return ParseResult::kHelp;
    if (arg == "--verbose" || arg == "-v") {
      if (has_value) {
        why = "--verbose takes no value";
        return ParseResult::kBad;
      }
      opts.verbose = true;
      continue;
    }
    if (arg != "--host" && arg != "--port" && arg != "--user" && arg != "--version" &&
        arg != "--state" && arg != "--data" && arg != "--max-file-bytes" &&
        arg != "--max-reply-bytes" && arg != "--stats-seed" &&
        arg != "--stats-scale" && arg != "--query-timeout-ms" && arg != "--query-max-rows") {
      why = "unknown argument '" + std::string(arg) + "'";
      return ParseResult::kBad;
    }
    if (!take_value()) {
      why = std::string(arg) + " needs a value";
      return ParseResult::kBad;
    }
    if (arg == "--host") {
      if (value.empty()) {
        why = "--host needs an address";
        return ParseResult::kBad;
      }
      opts.host = value;
    } else if (arg == "--port") {
      if (!parse_number<uint16_t>(value, 65535, opts.port)) {
        why = "bad port '" + std::string(value) + "'";
        return ParseResult::kBad;
      }
    } else if (arg == "--state") {
      if (value.empty()) {
        why = "--state needs a file name";
        return ParseResult::kBad;
      }
      opts.state_file = value;
    } else if (arg == "--data") {
      if (value.empty()) {
        why = "--data needs a directory";
        return ParseResult::kBad;
      }
      opts.data_dir = value;
    } else if (arg == "--max-file-bytes") {
      if (!parse_number<uint64_t>(value, kLargestFileBytes, opts.max_file_bytes)) {
        why = "bad --max-file-bytes '" + std::string(value) + "' (0 to 4294967295)";
        return ParseResult::kBad;
      }
    } else if (arg == "--max-reply-bytes") {
      if (!parse_number<uint32_t>(value, kMaxReplyBytes, opts.max_reply_bytes) ||
          opts.max_reply_bytes < kMinReplyBytes) {
        why = "bad --max-reply-bytes '" + std::string(value) + "' (64 to 32768)";
        return ParseResult::kBad;
      }
    } else if (arg == "--stats-seed") {
      if (!parse_number<uint64_t>(value, ~uint64_t{0}, opts.stats_seed)) {
        why = "bad --stats-seed '" + std::string(value) + "'";
        return ParseResult::kBad;
      }
    } else if (arg == "--stats-scale") {
      if (!parse_number<uint32_t>(value, 16, opts.stats_scale) || opts.stats_scale == 0) {
        why = "bad --stats-scale '" + std::string(value) + "' (1 to 16)";
        return ParseResult::kBad;
      }
    } else if (arg == "--query-timeout-ms" || arg == "--query-max-rows") {
      uint32_t &to = arg == "--query-max-rows" ? opts.query_max_rows : opts.query_timeout_ms;
      if (!parse_number<uint32_t>(value, 0xFFFFFFFFu, to) || to == 0) {
        why = "bad " + std::string(arg) + " '" + std::string(value) + "'";
        return ParseResult::kBad;
      }
    } else if (arg == "--version") {
      if (!parse_number<uint32_t>(value, 0xFFFFFFFFu, opts.version)) {
        why = "bad version word '" + std::string(value) + "'";
        return ParseResult::kBad;
      }
    } else {
      const auto colon = value.find(':');
      if (colon == std::string_view::npos || colon == 0) {
        why = "--user wants NAME:PASSWORD, got '" + std::string(value) + "'";
        return ParseResult::kBad;
      }
      User u{std::string(value.substr(0, colon)), std::string(value.substr(colon + 1))};
      for (const User &known : opts.users) {
        if (known.name == u.name) {
          why = "user '" + u.name + "' given twice";
          return ParseResult::kBad;
        }
      }
      opts.users.push_back(std::move(u));
    }
  }
  if (opts.users.empty()) opts.users.push_back(User{"admin", "admin"});
  return ParseResult::kRun;
}

}  // namespace tqsim
