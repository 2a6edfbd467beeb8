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

// The options that take a number: the member, its range, and how a bad
// value is named ("bad port '...'").
struct NumberOption {
  std::string_view name;
  uint64_t Options::*wide = nullptr;
  uint32_t Options::*word = nullptr;
  uint16_t Options::*half = nullptr;
  uint64_t min, max;
  const char *bad;  // the refusal, before the value
  const char *range = "";  // shown after it
};

constexpr NumberOption kNumbers[] = {
    {"--port", nullptr, nullptr, &Options::port, 0, 65535, "bad port"},
    {"--version", nullptr, &Options::version, nullptr, 0, 0xFFFFFFFF, "bad version word"},
    {"--max-file-bytes", &Options::max_file_bytes, nullptr, nullptr, 0, kLargestFileBytes,
     "bad --max-file-bytes", " (0 to 4294967295)"},
    {"--max-reply-bytes", nullptr, &Options::max_reply_bytes, nullptr, kMinReplyBytes,
     kMaxReplyBytes, "bad --max-reply-bytes", " (64 to 32768)"},
    {"--stats-seed", &Options::stats_seed, nullptr, nullptr, 0, ~uint64_t{0}, "bad --stats-seed"},
    {"--stats-scale", nullptr, &Options::stats_scale, nullptr, 1, 16, "bad --stats-scale",
     " (1 to 16)"},
    {"--query-timeout-ms", nullptr, &Options::query_timeout_ms, nullptr, 1, 0xFFFFFFFF,
     "bad --query-timeout-ms"},
    {"--query-max-rows", nullptr, &Options::query_max_rows, nullptr, 1, 0xFFFFFFFF,
     "bad --query-max-rows"},
    {"--channels", nullptr, &Options::channels, nullptr, 1, 64, "bad --channels", " (1 to 64)"},
    {"--features", &Options::features, nullptr, nullptr, 0, ~uint64_t{0}, "bad --features"},
    {"--connlog-entries", nullptr, &Options::connlog_entries, nullptr, 0, 10000000,
     "bad --connlog-entries", " (0 to 10000000)"},
};

const NumberOption *number_option(std::string_view arg) {
  for (const NumberOption &o : kNumbers)
    if (o.name == arg) return &o;
  return nullptr;
}

}  // namespace

const char *usage_text() {
  return "usage: tqdbsim [--host ADDR] [--port N] [--user NAME:PASSWORD]... [--version WORD]\n"
         "       [--state FILE] [--data DIR] [--max-reply-bytes N] [--max-file-bytes N]\n"
         "       [--stats-seed N] [--stats-scale N] [--query-timeout-ms N] [--query-max-rows N]\n"
         "       [--channels N] [--features BITS] [--connlog-entries N] [--verbose]\n"
         "  --host ADDR           address to listen on (default 127.0.0.1)\n"
         "  --port N              TCP port (default 17100; 0 picks a free one)\n"
         "  --user NAME:PASSWORD  an account that may log in; repeat for more\n"
         "                        (default admin:admin when none is given)\n"
         "  --version WORD        protocol version word announced to clients\n"
         "                        (default 0x6080, 17.1.0)\n"
         "  --state FILE          load the committed state (ruleset, live views, users,\n"
         "                        levels and the other saved resources) from FILE (JSON)\n"
         "                        at start and save it there after every commit\n"
         "  --data DIR            keep the file areas and the backups under DIR, one\n"
         "                        subdirectory each (default: in memory)\n"
         "  --max-reply-bytes N   cut list answers into messages of at most N bytes\n"
         "                        (64 to 32768, default 32768)\n"
         "  --max-file-bytes N    largest file an upload may leave, backups included\n"
         "                        (0 to 4294967295, default 16777216)\n"
         "  --stats-seed N        seed of the generated statistics store and connection\n"
         "                        log (default 1)\n"
         "  --stats-scale N       size of the statistics tree, 1 to 16 (default 1)\n"
         "  --query-timeout-ms N  a statistics query stops after N ms (default 5000)\n"
         "  --query-max-rows N    a statistics query stops after N rows (default 100000)\n"
         "  --channels N          channels of the appliance, 1 to 64 (default 2)\n"
         "  --features BITS       the FEATURES_* bits features_get reports (default 0xfff)\n"
         "  --connlog-entries N   entries of the generated connection log (default 10000)\n"
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
    const NumberOption *number = number_option(arg);
    if (!number && arg != "--host" && arg != "--user" && arg != "--state" && arg != "--data") {
      why = "unknown argument '" + std::string(arg) + "'";
      return ParseResult::kBad;
    }
    if (!take_value()) {
      why = std::string(arg) + " needs a value";
      return ParseResult::kBad;
    }
    if (number) {
      uint64_t v = 0;
      if (!parse_number<uint64_t>(value, number->max, v) || v < number->min) {
        why = std::string(number->bad) + " '" + std::string(value) + "'" + number->range;
        return ParseResult::kBad;
      }
      if (number->wide) opts.*number->wide = v;
      if (number->word) opts.*number->word = static_cast<uint32_t>(v);
      if (number->half) opts.*number->half = static_cast<uint16_t>(v);
    } else if (arg == "--host") {
      if (value.empty()) {
        why = "--host needs an address";
        return ParseResult::kBad;
      }
      opts.host = value;
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
