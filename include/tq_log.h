// Log facilities, the fatal path and library start-up.
//
// Every diagnostic of the library goes through tq_log(), keyed by a facility
// (which part of the appliance a message concerns) and a level (0 "Emergency"
// is the most severe, 8 "Verbose" the least). The facility list is shared
// with the appliance, so a client can read and set per-facility levels over
// the protocol (tq_log_msg_put / tq_log_msg_get).
//
// Two filters apply:
//   - a facility's own level: callers log a message only when the facility's
//     level is at least the message's level (tq_log_enabled);
//   - the process-wide output threshold (default 1, "Alert"): tq_log prints
//     nothing whose level is above it.
// Printed lines are "[<facility>:<level>] <text>\n" on stderr.
#ifndef TQ_LOG_H
#define TQ_LOG_H

#include <cstdarg>
#include <cstddef>
#include <cstdint>

struct tq_msg_t;

inline constexpr unsigned TQ_LOG_NUM_FACILITIES = 65;
inline constexpr unsigned TQ_LOG_NUM_LEVELS = 9;
inline constexpr size_t TQ_LOG_LINE_MAX = 4096;  // formatted text, NUL included

enum tq_log_level : unsigned {
  TQ_LOG_EMERGENCY = 0,
  TQ_LOG_ALERT = 1,
  TQ_LOG_CRITICAL = 2,
  TQ_LOG_ERROR = 3,
  TQ_LOG_WARNING = 4,
  TQ_LOG_NOTICE = 5,
  TQ_LOG_INFO = 6,
  TQ_LOG_DEBUG = 7,
  TQ_LOG_VERBOSE = 8,
};

// The facilities the library itself logs on.
enum tq_log_facility : unsigned {
  TQ_LOG_FAC_MEMORY = 1,    // allocator, pools, caches
  TQ_LOG_FAC_GENERAL = 14,  // bugs, protocol and transport diagnostics
};

// Names by index; nullptr out of range.
const char *tq_log_facility_name(unsigned facility);
const char *tq_log_level_name(unsigned level);
// Index of the facility with exactly this name, -1 when none matches.
int tq_log_facility_lookup(const char *name);

unsigned tq_log_get_level(unsigned facility);  // 0 for an unknown facility
bool tq_log_enabled(unsigned facility, unsigned level);
// Ignored unless facility < 65 and level < 9.
void tq_log_set_level(unsigned facility, unsigned level);
// false (and nothing changed) when level > 8.
bool tq_log_set_all_levels(unsigned level);
void tq_log_set_threshold(unsigned level);
unsigned tq_log_get_threshold();
// Back to the defaults: 6 for all, 4 for the four audit facilities, 7 for
// "DEBUG"; threshold 1.
void tq_log_reset_levels();

void tq_log(unsigned facility, unsigned level, const char *fmt, ...)
    __attribute__((format(printf, 3, 4)));
void tq_vlog(unsigned facility, unsigned level, const char *fmt, va_list ap)
    __attribute__((format(printf, 3, 0)));
void tq_log_flush();

// Where printed lines go besides stderr: a sink receives every line that
// passes the threshold, without the trailing newline. One sink at a time;
// nullptr removes it. Used by tools that keep a log file, and by tests.
using tq_log_sink_fn = void (*)(const char *line, void *ctx);
void tq_log_set_sink(tq_log_sink_fn fn, void *ctx);
// When false, lines go to the sink only (stderr stays quiet).
void tq_log_set_stderr(bool on);

// The level table in a message: u16 count (65), then per facility its name
// as a message string and its level as one byte.
void tq_log_msg_put(tq_msg_t *msg);
bool tq_log_msg_get(tq_msg_t *msg);

// --- The fatal path ----------------------------------------------------------
//
// TQ_BUG_ON(cond, fmt, ...) logs
//   "TQ-BUG at <file>:<line>/<function>(): <cond>  <explanation>"
// on "General", flushes the log and aborts. The condition text is the
// expanded source text of cond, so pointer checks are written against
// TQ_NULL ("buf == ((void *)0)"), exactly as the appliance prints them.
// TQ_BADNESS_ON(cond, fmt, ...) logs "TQ-BADNESS at ..." at level 4 and
// evaluates to cond, so callers can bail out:
//   if (TQ_BADNESS_ON(x == TQ_NULL, "")) return false;
#define TQ_NULL ((void *)0)

// A harness (a fuzzer, a test) can watch the fatal path: the hook gets the
// "TQ-BUG at ..." report before the process aborts, and may throw to count
// the deliberate abort and go on; when it returns, the process aborts as
// without it. nullptr removes it.
using tq_bug_hook_t = void (*)(const char *report);
void tq_set_bug_hook(tq_bug_hook_t hook);

// cond is the condition text, or nullptr for a message without one; the
// explanation follows the condition after two blanks.
[[noreturn]] void tq_bug_fatal(const char *file, int line, const char *func,
                               const char *cond, const char *fmt, ...)
    __attribute__((format(printf, 5, 6)));
void tq_badness(const char *file, int line, const char *func, const char *cond,
                const char *fmt, ...) __attribute__((format(printf, 5, 6)));

#define TQ_STR_EXPANDED_(x) #x
#define TQ_BUG_ON_(cond, text, ...)                                            \
  do {                                                                         \
    if (__builtin_expect(!!(cond), 0))                                         \
      tq_bug_fatal(__FILE__, __LINE__, __func__, text, __VA_ARGS__);          \
  } while (0)
#define TQ_BUG_ON(cond, ...) TQ_BUG_ON_(cond, TQ_STR_EXPANDED_(cond), __VA_ARGS__)

#define TQ_BADNESS_ON_(cond, text, ...)                                        \
  (__builtin_expect(!!(cond), 0)                                               \
       ? (tq_badness(__FILE__, __LINE__, __func__, text, __VA_ARGS__), true)  \
       : false)
#define TQ_BADNESS_ON(cond, ...) TQ_BADNESS_ON_(cond, TQ_STR_EXPANDED_(cond), __VA_ARGS__)

// Unconditional forms, for messages that carry no condition text.
#define TQ_BUG(...) tq_bug_fatal(__FILE__, __LINE__, __func__, nullptr, __VA_ARGS__)
#define TQ_BADNESS(...) tq_badness(__FILE__, __LINE__, __func__, nullptr, __VA_ARGS__)

// --- Library start-up -----------------------------------------------------------
//
// Flag bits of tq_lib_init:
//   TQ_INIT_THREAD (2): attach the calling thread's list-node cache;
//   TQ_INIT_QUIET  (4): every facility to level 3 ("Error") before anything
//                       else, as scripts want.
// The Python module starts the library with 6. Further calls only count.
inline constexpr unsigned TQ_INIT_THREAD = 2;
inline constexpr unsigned TQ_INIT_QUIET = 4;
bool tq_lib_init(unsigned flags);
// Undoes tq_lib_init when the last user leaves.
void tq_lib_deinit();

#endif
