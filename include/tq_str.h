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
//
// One split yields at most 50 pieces: when the string has more, the 50th
// piece is the unsplit rest, and splitting again from pieces[49] goes on
// from there. The cut separators are remembered in a ring of 50 slots, so
// restore puts back the last 50 of them (those cut before stay NUL).
inline constexpr unsigned TQ_STRSPLIT_MAX = 50;
struct tq_strsplit_t {
  char *str;                                // the string being split (caller's)
  char sep;
  unsigned count;                           // pieces of the last split
  char *pieces[TQ_STRSPLIT_MAX + 1];        // ends with nullptr
  char *restore[TQ_STRSPLIT_MAX];           // separators cut, for restoring
  unsigned restore_idx;                     // next ring slot, 0..50 (50: wrap first)
  unsigned restore_count;                   // ring slots in use, at most 50
};
void tq_strsplit_init(tq_strsplit_t *split, char *str, char sep);
// Splits from start (nullptr: the beginning); returns the piece count.
unsigned tq_strsplit_split(tq_strsplit_t *split, char *start);
// Puts back the remembered separators and forgets the pieces.
void tq_strsplit_restore(tq_strsplit_t *split);

// UTF-8 as the appliance checks it: overlong forms are refused, surrogates
// and values up to 0x1FFFFF (four-byte leads up to 0xF7) are accepted.
bool tq_utf8_valid(const char *s);

// 16 bytes a line:
//   "00000010: 4142 4344 4546 4748  494a 4b4c 4d4e 4f50 ABCDEFGH IJKLMNOP"
// offset (8 hex digits), ": ", the bytes in groups of two, each group
// followed by a blank and one blank more after the eighth byte, then the
// bytes as characters (0x20..0x7E as themselves, others '.'), a blank after
// the eighth (so a line of exactly eight bytes ends in a blank). A short
// last line keeps the character column in place: missing bytes are
// blanks in the hexadecimal part. No bytes, no lines.
inline constexpr size_t TQ_HEXDUMP_LINE_MAX = 80;
using tq_hexdump_line_fn = void (*)(const char *line, void *ctx);
void tq_hexdump(const void *data, size_t len, tq_hexdump_line_fn line_fn, void *ctx);
void tq_log_hexdump(unsigned facility, unsigned level, const void *data, size_t len);

#endif
