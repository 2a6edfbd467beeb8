// The logger: facility and level tables, the output threshold, the fatal path
// and the level table that travels between client and appliance.
//
// Nothing here allocates or fails: lines are formatted into fixed buffers on
// the stack, so the fatal path can run when the heap or the pools are broken.
#include "tq_log.h"

#include <array>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <span>
#include <string_view>

#include "tq_msg.h"

namespace {

struct facility_def {
  std::string_view name;
  unsigned default_level;
};

// Shared with the appliance: the order is the wire order of the level table
// and the index is what the protocol calls a facility.
constexpr std::array<facility_def, TQ_LOG_NUM_FACILITIES> kFacilities{{
    {"Interface", TQ_LOG_INFO},
    {"Memory", TQ_LOG_INFO},
    {"Linklevel", TQ_LOG_INFO},
    {"IPv4", TQ_LOG_INFO},
    {"Host", TQ_LOG_INFO},
    {"TCP", TQ_LOG_INFO},
    {"Connections", TQ_LOG_INFO},
    {"Services", TQ_LOG_INFO},
    {"Ruleset", TQ_LOG_INFO},
    {"Firewall", TQ_LOG_INFO},
    {"Shaping", TQ_LOG_INFO},
    {"List", TQ_LOG_INFO},
    {"PPPoE", TQ_LOG_INFO},
    {"DRDL", TQ_LOG_INFO},
    {"General", TQ_LOG_INFO},
    {"Connlog", TQ_LOG_INFO},
    {"Proxy", TQ_LOG_INFO},
    {"Backup", TQ_LOG_INFO},
    {"Morvaind", TQ_LOG_INFO},
    {"TQDB", TQ_LOG_INFO},
    {"Client", TQ_LOG_INFO},
    {"Sysdiag", TQ_LOG_INFO},
    {"Config", TQ_LOG_INFO},
    {"Channel", TQ_LOG_INFO},
    {"BGP", TQ_LOG_INFO},
    {"Net", TQ_LOG_INFO},
    {"Layer 4", TQ_LOG_INFO},
    {"TQSD", TQ_LOG_INFO},
    {"VBS", TQ_LOG_INFO},
    {"Enterprise", TQ_LOG_INFO},
    {"BCM", TQ_LOG_INFO},
    {"Yukon", TQ_LOG_INFO},
    {"Locks", TQ_LOG_INFO},
    {"Virt", TQ_LOG_INFO},
    {"E1K", TQ_LOG_INFO},
    {"Bypass", TQ_LOG_INFO},
    {"Statistics", TQ_LOG_INFO},
    {"Audit Modify", TQ_LOG_WARNING},
    {"Divert", TQ_LOG_INFO},
    {"Audit View", TQ_LOG_WARNING},
    {"E10K", TQ_LOG_INFO},
    {"SNMP", TQ_LOG_INFO},
    {"IPv6", TQ_LOG_INFO},
    {"Shunt", TQ_LOG_INFO},
    {"Mux", TQ_LOG_INFO},
    {"Diameter", TQ_LOG_INFO},
    {"ipfix", TQ_LOG_INFO},
    {"Database Audit Modify", TQ_LOG_WARNING},
    {"Database Audit View", TQ_LOG_WARNING},
    {"Statsfs", TQ_LOG_INFO},
    {"DEBUG", TQ_LOG_DEBUG},
    {"Trigger", TQ_LOG_INFO},
    {"Sorvik", TQ_LOG_INFO},
    {"Rewrite", TQ_LOG_INFO},
    {"Natsync", TQ_LOG_INFO},
    {"VMXNet", TQ_LOG_INFO},
    {"Enrich", TQ_LOG_INFO},
    {"LB", TQ_LOG_INFO},
    {"HTTPD", TQ_LOG_INFO},
    {"TQSCD", TQ_LOG_INFO},
    {"Datacore", TQ_LOG_INFO},
    {"Host Stats", TQ_LOG_INFO},
    {"TQCOMMD", TQ_LOG_INFO},
    {"Tunnel", TQ_LOG_INFO},
    {"I40E", TQ_LOG_INFO},
}};

constexpr std::array<std::string_view, TQ_LOG_NUM_LEVELS> kLevelNames{
    "Emergency", "Alert", "Critical", "Error", "Warning",
    "Notice",    "Info",  "Debug",    "Verbose",
};

static_assert(kFacilities[TQ_LOG_FAC_MEMORY].name == "Memory");
static_assert(kFacilities[TQ_LOG_FAC_GENERAL].name == "General");

// Names are NUL-terminated string literals, so data() is a C string.
constexpr size_t kLongestName = [] {
  size_t n = 0;
  for (const auto &f : kFacilities) n = f.name.size() > n ? f.name.size() : n;
  for (const auto &l : kLevelNames) n = l.size() > n ? l.size() : n;
  return n;
}();

// Received names are kept to 63 characters; none of ours is longer, so a cut
// name can never match by accident of truncation.
constexpr size_t kNameBuf = 64;
static_assert(kLongestName < kNameBuf);

// A facility's level is a plain u32 on the appliance; the client keeps the
// same width. Constant-initialised, so it is valid before any constructor
// runs and during static destruction.
struct log_state {
  std::array<unsigned, TQ_LOG_NUM_FACILITIES> levels;
  unsigned threshold;
  tq_log_sink_fn sink;
  void *sink_ctx;
  bool to_stderr;
};

constexpr log_state default_state() {
  log_state s{};
  for (size_t i = 0; i < kFacilities.size(); ++i) s.levels[i] = kFacilities[i].default_level;
  s.threshold = TQ_LOG_ALERT;
  s.sink = nullptr;
  s.sink_ctx = nullptr;
  s.to_stderr = true;
  return s;
}

constinit log_state g_log = default_state();

void log_general(unsigned level, const char *fmt, ...) __attribute__((format(printf, 2, 3)));
void log_general(unsigned level, const char *fmt, ...) {
  if (!tq_log_enabled(TQ_LOG_FAC_GENERAL, level)) return;
  va_list ap;
  va_start(ap, fmt);
  tq_vlog(TQ_LOG_FAC_GENERAL, level, fmt, ap);
  va_end(ap);
}

// "TQ-BUG at file:line/func(): cond  explanation" (or the explanation alone
// when there is no condition text) into out.
void format_report(std::span<char> out, const char *kind, const char *file, int line,
                   const char *func, const char *cond, const char *fmt, va_list ap)
    __attribute__((format(printf, 7, 0)));
void format_report(std::span<char> out, const char *kind, const char *file, int line,
                   const char *func, const char *cond, const char *fmt, va_list ap) {
  int n = cond != nullptr
              ? std::snprintf(out.data(), out.size(), "%s at %s:%d/%s(): %s  ", kind, file,
                              line, func, cond)
              : std::snprintf(out.data(), out.size(), "%s at %s:%d/%s(): ", kind, file, line,
                              func);
  if (n < 0) n = 0;
  const auto used = static_cast<size_t>(n);
  if (used < out.size() && fmt != nullptr)
    std::vsnprintf(out.data() + used, out.size() - used, fmt, ap);
}

}  // namespace

const char *tq_log_facility_name(unsigned facility) {
  return facility < kFacilities.size() ? kFacilities[facility].name.data() : nullptr;
}

const char *tq_log_level_name(unsigned level) {
  return level < kLevelNames.size() ? kLevelNames[level].data() : nullptr;
}

int tq_log_facility_lookup(const char *name) {
  if (name == nullptr) return -1;
  const std::string_view wanted{name};
  for (size_t i = 0; i < kFacilities.size(); ++i)
    if (kFacilities[i].name == wanted) return static_cast<int>(i);
  return -1;
}

unsigned tq_log_get_level(unsigned facility) {
  return facility < g_log.levels.size() ? g_log.levels[facility] : 0;
}

bool tq_log_enabled(unsigned facility, unsigned level) {
  return facility < g_log.levels.size() && g_log.levels[facility] >= level;
}

void tq_log_set_level(unsigned facility, unsigned level) {
  if (facility < TQ_LOG_NUM_FACILITIES && level < TQ_LOG_NUM_LEVELS)
    g_log.levels[facility] = level;
}

bool tq_log_set_all_levels(unsigned level) {
  if (level >= TQ_LOG_NUM_LEVELS) return false;
  g_log.levels.fill(level);
  return true;
}

void tq_log_set_threshold(unsigned level) { g_log.threshold = level; }

unsigned tq_log_get_threshold() { return g_log.threshold; }

void tq_log_reset_levels() {
  const log_state d = default_state();
  g_log.levels = d.levels;
  g_log.threshold = d.threshold;
}

void tq_log_set_sink(tq_log_sink_fn fn, void *ctx) {
  g_log.sink = fn;
  g_log.sink_ctx = fn != nullptr ? ctx : nullptr;
}

void tq_log_set_stderr(bool on) { g_log.to_stderr = on; }

void tq_vlog(unsigned facility, unsigned level, const char *fmt, va_list ap) {
  if (level > g_log.threshold) return;

  std::array<char, TQ_LOG_LINE_MAX> text{};
  if (fmt != nullptr) std::vsnprintf(text.data(), text.size(), fmt, ap);

  const char *fname = tq_log_facility_name(facility);
  const char *lname = tq_log_level_name(level);
  // "[facility:level] " + text + "\n" + NUL; the text is already cut to
  // 4095 characters, so the whole line always fits.
  std::array<char, TQ_LOG_LINE_MAX + 2 * kLongestName + 8> line{};
  int n = std::snprintf(line.data(), line.size(), "[%s:%s] %s\n", fname ? fname : "?",
                        lname ? lname : "?", text.data());
  if (n <= 0) return;
  auto len = static_cast<size_t>(n);
  if (len >= line.size()) len = line.size() - 1;

  if (g_log.to_stderr) std::fwrite(line.data(), 1, len, stderr);
  if (g_log.sink != nullptr) {
    line[len - 1] = '\0';  // the sink gets the line without its newline
    g_log.sink(line.data(), g_log.sink_ctx);
  }
}

void tq_log(unsigned facility, unsigned level, const char *fmt, ...) {
  va_list ap;
  va_start(ap, fmt);
  tq_vlog(facility, level, fmt, ap);
  va_end(ap);
}

void tq_log_flush() { std::fflush(stderr); }

// --- the fatal path -------------------------------------------------------------

namespace {
tq_bug_hook_t g_bug_hook = nullptr;
}  // namespace

void tq_set_bug_hook(tq_bug_hook_t hook) { g_bug_hook = hook; }

void tq_bug_fatal(const char *file, int line, const char *func, const char *cond,
                  const char *fmt, ...) {
  // Printed as "Alert" so that it passes the default output threshold; a
  // "General" level below 2 means the appliance wants bugs to die silently.
  const bool logged = tq_log_enabled(TQ_LOG_FAC_GENERAL, TQ_LOG_CRITICAL);
  if (logged || g_bug_hook != nullptr) {
    std::array<char, TQ_LOG_LINE_MAX> report{};
    va_list ap;
    va_start(ap, fmt);
    format_report(report, "TQ-BUG", file, line, func, cond, fmt, ap);
    va_end(ap);
    if (logged) tq_log(TQ_LOG_FAC_GENERAL, TQ_LOG_ALERT, "%s", report.data());
    tq_log_flush();
    if (g_bug_hook != nullptr) g_bug_hook(report.data());
  }
  tq_log_flush();
  std::abort();
}

void tq_badness(const char *file, int line, const char *func, const char *cond,
                const char *fmt, ...) {
  if (!tq_log_enabled(TQ_LOG_FAC_GENERAL, TQ_LOG_WARNING)) return;
  std::array<char, TQ_LOG_LINE_MAX> report{};
  va_list ap;
  va_start(ap, fmt);
  format_report(report, "TQ-BADNESS", file, line, func, cond, fmt, ap);
  va_end(ap);
  tq_log(TQ_LOG_FAC_GENERAL, TQ_LOG_WARNING, "%s", report.data());
}

// --- the level table on the wire ------------------------------------------------
//
//   u16 count (65)
//   count x { u32 name count incl. NUL, name bytes, u8 level }

void tq_log_msg_put(tq_msg_t *msg) {
  TQ_BUG_ON(msg == TQ_NULL, "");
  tq_msg_put_uint16(msg, static_cast<uint16_t>(TQ_LOG_NUM_FACILITIES));
  for (size_t i = 0; i < kFacilities.size(); ++i) {
    TQ_BUG_ON(tq_msg_free_bytes (msg) == 0, "Out of space in tq_msg_t");
    tq_msg_put_string(msg, kFacilities[i].name.data());
    tq_msg_put_uint8(msg, static_cast<uint8_t>(g_log.levels[i]));
  }
}

bool tq_log_msg_get(tq_msg_t *msg) {
  TQ_BUG_ON(msg == TQ_NULL, "");
  uint16_t count = 0;
  if (!tq_msg_get_uint16(msg, &count)) {
    log_general(TQ_LOG_ERROR, "Failed to read number of log facilities from tq_msg_t.");
    return false;
  }
  // The appliance may be older or newer than we are: apply what we know.
  if (count != TQ_LOG_NUM_FACILITIES) {
    log_general(TQ_LOG_WARNING,
                "Mismatch in number of expected log facilities. Got=%u Expected=%u. "
                "Continuing with those I got.",
                static_cast<unsigned>(count), TQ_LOG_NUM_FACILITIES);
  }
  for (unsigned i = 0; i < count; ++i) {
    std::array<char, kNameBuf> name{};
    if (!tq_msg_get_string_len(msg, name.data(), name.size())) {
      log_general(TQ_LOG_ERROR, "Failed to read log facility name.");
      return false;
    }
    uint8_t level = 0;
    if (!tq_msg_get_uint8(msg, &level)) {
      log_general(TQ_LOG_ERROR, "Failed to read log facility level.");
      return false;
    }
    if (level >= TQ_LOG_NUM_LEVELS) {
      log_general(TQ_LOG_WARNING, "Log level=%u is too high for '%s'.",
                  static_cast<unsigned>(level), name.data());
      continue;
    }
    const int facility = tq_log_facility_lookup(name.data());
    if (facility < 0) {
      log_general(TQ_LOG_WARNING, "Failed to find any log facility named '%s'.", name.data());
      continue;
    }
    log_general(TQ_LOG_DEBUG, "Setting loglevel %s for [%s]", tq_log_level_name(level),
                tq_log_facility_name(static_cast<unsigned>(facility)));
    tq_log_set_level(static_cast<unsigned>(facility), level);
  }
  return true;
}
