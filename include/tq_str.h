// String helpers: an allocating formatter, an in-place splitter, a UTF-8
// validator and a hex dumper.
#ifndef TQ_STR_H
#define TQ_STR_H

#include <cstdarg>
#include <cstddef>
#include <cstdint>

// Formats into a tracked allocation under label; release with tq_free_flags.
char *tq_strdup_vformat(const char *label, const char *fmt, va_list ap)
    __attribute__((format(printf, 2, 0)));
char *tq_strdup_format(const char *label, const char *fmt, ...)
    __attribute__((format(printf, 2, 3)));
// A tracked copy of s (nullptr for nullptr).
char *tq_strdup(const char *label, const char *s);

// The splitter cuts its string in place at sep (each separator becomes NUL)
// and records the pieces; restore puts the separators back.
inline constexpr unsigned TQ_STRSPLIT_MAX = 50;
struct tq_strsplit_t {
  char *str;                                // the string being split (caller's)
  char sep;
  unsigned count;                           // pieces of the last split
  char *pieces[TQ_STRSPLIT_MAX + 1];        // ends with nullptr
  char *restore[TQ_STRSPLIT_MAX];           // separators cut, for restoring
  unsigned restore_idx;
};
void tq_strsplit_init(tq_strsplit_t *split, char *str, char sep);
// Splits from start (nullptr: the beginning); returns the piece count.
unsigned tq_strsplit_split(tq_strsplit_t *split, char *start);
void tq_strsplit_restore(tq_strsplit_t *split);

bool tq_utf8_valid(const char *s);

using tq_hexdump_line_fn = void (*)(const char *line, void *ctx);
void tq_hexdump(const void *data, size_t len, tq_hexdump_line_fn line_fn, void *ctx);
void tq_log_hexdump(unsigned facility, unsigned level, const void *data, size_t len);

#endif
