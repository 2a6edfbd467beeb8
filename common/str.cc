// String helpers: allocating formatter, in-place splitter, UTF-8 check and
// hex dumper.
#include "tq_str.h"

#include <array>
#include <cstdio>
#include <cstring>

#include "tq_log.h"
#include "tq_malloc.h"

char *tq_strdup_vformat(const char *label, const char *fmt, va_list ap) {
  TQ_BUG_ON(fmt == TQ_NULL, "");
  // Most texts are short: format once on the stack, and only when that was
  // too small format again straight into the allocation.
  std::array<char, 1024> buf;
  va_list again;
  va_copy(again, ap);
  const int len = std::vsnprintf(buf.data(), buf.size(), fmt, ap);
  TQ_BUG_ON(len < 0, "");
  const auto size = static_cast<size_t>(len) + 1;
  auto *out = static_cast<char *>(tq_malloc_flags(label, size, 0));
  if (size <= buf.size()) {
    std::memcpy(out, buf.data(), size);
  } else {
    const int rlen = std::vsnprintf(out, size, fmt, again);
    TQ_BUG_ON(rlen != len, "");
  }
  va_end(again);
  return out;
}

char *tq_strdup_format(const char *label, const char *fmt, ...) {
  va_list ap;
  va_start(ap, fmt);
  char *out = tq_strdup_vformat(label, fmt, ap);
  va_end(ap);
  return out;
}

char *tq_strdup(const char *label, const char *s) {
  if (s == nullptr) return nullptr;
  const size_t size = std::strlen(s) + 1;
  auto *out = static_cast<char *>(tq_malloc_flags(label, size, 0));
  std::memcpy(out, s, size);
  return out;
}

// --- the splitter ------------------------------------------------------------------

void tq_strsplit_init(tq_strsplit_t *split, char *str, char sep) {
  TQ_BUG_ON(split == TQ_NULL, "");
  *split = tq_strsplit_t{};
  split->str = str;
  split->sep = sep;
}

unsigned tq_strsplit_split(tq_strsplit_t *split, char *start) {
  TQ_BUG_ON(split == TQ_NULL, "");
  char *p = start != nullptr ? start : split->str;
  unsigned count = 0;
  if (p != nullptr) {
    split->pieces[count++] = p;
    // The last piece allowed keeps the rest of the string whole.
    while (count < TQ_STRSPLIT_MAX && split->sep != '\0') {
      while (*p != '\0' && *p != split->sep) ++p;
      if (*p == '\0') break;
      unsigned restore_idx = split->restore_idx;
      TQ_BUG_ON(restore_idx >= 50 + 1, "");
      if (restore_idx == TQ_STRSPLIT_MAX) restore_idx = 0;  // the ring wraps
      split->restore[restore_idx++] = p;
      split->restore_idx = restore_idx;
      if (split->restore_count < TQ_STRSPLIT_MAX) split->restore_count++;
      *p++ = '\0';
      split->pieces[count++] = p;
    }
  }
  split->pieces[count] = nullptr;
  split->count = count;
  return count;
}

void tq_strsplit_restore(tq_strsplit_t *split) {
  TQ_BUG_ON(split == TQ_NULL, "");
  TQ_BUG_ON(split->restore_count > TQ_STRSPLIT_MAX, "Splitter record is corrupt");
  for (unsigned i = 0; i < split->restore_count; ++i) *split->restore[i] = split->sep;
  split->restore_idx = 0;
  split->restore_count = 0;
  split->count = 0;
  split->pieces[0] = nullptr;
}

// --- UTF-8 ---------------------------------------------------------------------------

bool tq_utf8_valid(const char *s) {
  if (s == nullptr) return false;
  const auto *p = reinterpret_cast<const unsigned char *>(s);
  while (*p != 0) {
    const unsigned lead = *p++;
    if (lead < 0x80) continue;
    if (lead < 0xC0 || lead > 0xF7) return false;  // a continuation byte, or no lead at all
    const unsigned extra = lead >= 0xF0 ? 3 : lead >= 0xE0 ? 2 : 1;
    uint32_t value = lead & (0x3Fu >> extra);
    for (unsigned i = 0; i < extra; ++i) {
      const unsigned c = *p++;  // the terminating NUL fails here, so no over-read
      if (c < 0x80 || c > 0xBF) return false;
      value = (value << 6) | (c & 0x3F);
    }
    // Each value in its shortest form only.
    if (extra == 1 && value < 0x80) return false;
    if (extra >= 2 && value < 0x800) return false;
    if (extra == 3 && value <= 0xFFFF) return false;
  }
  return true;
}

// --- hex dumps -----------------------------------------------------------------------

void tq_hexdump(const void *data, size_t len, tq_hexdump_line_fn line_fn, void *ctx) {
  TQ_BUG_ON(line_fn == nullptr, "");
  TQ_BUG_ON(data == TQ_NULL && len != 0, "");
  static constexpr char kHex[] = "0123456789abcdef";
  const auto *bytes = static_cast<const unsigned char *>(data);

  for (size_t off = 0; off < len; off += 16) {
    const size_t n = len - off < 16 ? len - off : 16;
    std::array<char, TQ_HEXDUMP_LINE_MAX> line;
    int pos = std::snprintf(line.data(), line.size(), "%08zx: ", off);
    auto at = static_cast<size_t>(pos);
    for (size_t i = 0; i < 16; ++i) {
      if (i < n) {
        line[at++] = kHex[bytes[off + i] >> 4];
        line[at++] = kHex[bytes[off + i] & 0xF];
      } else {
        line[at++] = ' ';
        line[at++] = ' ';
      }
      if (i % 2 == 1) line[at++] = ' ';
      if (i == 7) line[at++] = ' ';
    }
    for (size_t i = 0; i < n; ++i) {
      const unsigned char c = bytes[off + i];
      line[at++] = c >= 0x20 && c <= 0x7E ? static_cast<char>(c) : '.';
      if (i == 7) line[at++] = ' ';
    }
    line[at] = '\0';
    line_fn(line.data(), ctx);
  }
}

namespace {

struct log_target {
  unsigned facility;
  unsigned level;
};

void log_line(const char *line, void *ctx) {
  const auto *target = static_cast<const log_target *>(ctx);
  tq_log(target->facility, target->level, "%s", line);
}

}  // namespace

void tq_log_hexdump(unsigned facility, unsigned level, const void *data, size_t len) {
  if (!tq_log_enabled(facility, level)) return;
  log_target target{facility, level};
  tq_hexdump(data, len, log_line, &target);
}
