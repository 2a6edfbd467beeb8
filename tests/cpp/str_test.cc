// String helpers: the formatter on both sides of its stack buffer, the
// splitter's piece limit and restore ring, UTF-8 rules, hex dump lines.
#include <gtest/gtest.h>

#include <cstdarg>
#include <cstring>
#include <string>
#include <vector>

#include "support/log_capture.h"
#include "tq_log.h"
#include "tq_malloc.h"
#include "tq_str.h"

namespace {

char *vformat(const char *label, const char *fmt, ...) {  // no format check: lets null through
  va_list ap;
  va_start(ap, fmt);
  char *out = tq_strdup_vformat(label, fmt, ap);
  va_end(ap);
  return out;
}

uint64_t live_bytes(const char *label) {
  tq_malloc_stat_t s{};
  return tq_malloc_stat(label, &s) ? s.bytes : 0;
}

TEST(Strdup, FormatsAcrossTheStackBufferBoundary) {
  for (size_t n : {0, 1020, 1021, 3000}) {  // up to 1023 characters fit the 1024-byte buffer
    const std::string fill(n, 'x'), want = fill + "|42";
    const uint64_t before = live_bytes("str.format");
    char *s = tq_strdup_format("str.format", "%s|%d", fill.c_str(), 42);
    EXPECT_EQ(s, want) << n;
    EXPECT_EQ(live_bytes("str.format") - before, want.size() + 1);
    tq_free_flags(s);
  }
  char src[] = "copy me", *copy = tq_strdup("str.copy", src);
  src[0] = 'X';
  EXPECT_STREQ(copy, "copy me");
  EXPECT_EQ(live_bytes("str.copy"), 8u);
  tq_free_flags(copy);
  EXPECT_EQ(tq_strdup("str.copy", nullptr), nullptr);
}

TEST(StrdupDeathTest, NullFormatAndEncodingError) {
  const char *at = "TQ-BUG at common/str\\.cc:[0-9]+/tq_strdup_vformat\\(\\): ";
  EXPECT_DEATH(vformat("str.death", nullptr), std::string(at) + "fmt == \\(\\(void \\*\\)0\\)  \n");
  const wchar_t smiley[] = {0x263A, 0};  // not encodable in the "C" locale
  EXPECT_DEATH(vformat("str.death", "%ls", smiley), std::string(at) + "len < 0  \n");
}

std::vector<std::string> split(tq_strsplit_t *sp, char *start) {
  std::vector<std::string> out(tq_strsplit_split(sp, start));
  for (size_t i = 0; i < out.size(); ++i) out[i] = sp->pieces[i];
  EXPECT_EQ(sp->pieces[out.size()], nullptr);
  return out;
}

std::string fields(int n) {
  std::string s = "0";
  for (int i = 1; i < n; ++i) s += "," + std::to_string(i);
  return s;
}

TEST(Strsplit, SplitsInPlaceAndRestores) {
  const struct {
    std::string in;
    char sep;
    std::vector<std::string> want;
  } cases[] = {
      {"a,b,,c", ',', {"a", "b", "", "c"}}, {"", ',', {""}},      {"abc", ',', {"abc"}},
      {",", ',', {"", ""}},                 {",a", ',', {"", "a"}}, {"a,b", '\0', {"a,b"}},
      {fields(50), ',', {}},  // exactly 50 pieces
      {fields(51), ',', {}},  // the fiftieth piece keeps the rest whole
  };
  for (auto c : cases) {
    std::string buf = c.in;
    tq_strsplit_t sp;
    tq_strsplit_init(&sp, buf.data(), c.sep);
    const auto got = split(&sp, nullptr);
    if (c.want.empty()) {
      ASSERT_EQ(got.size(), 50u);
      EXPECT_EQ(got[49], c.in.substr(c.in.find(",49") + 1));
    } else {
      EXPECT_EQ(got, c.want);
    }
    tq_strsplit_restore(&sp);
    EXPECT_EQ(buf, c.in);
  }

  // 60 fields in two calls: 59 separators cut, only the last 50 restored.
  std::string buf = fields(60), want = buf;
  tq_strsplit_t sp;
  tq_strsplit_init(&sp, buf.data(), ',');
  EXPECT_EQ(split(&sp, nullptr).size(), 50u);
  const auto rest = split(&sp, sp.pieces[49]);
  ASSERT_EQ(rest.size(), 11u);
  EXPECT_EQ(rest.front() + rest.back(), "4959");
  tq_strsplit_restore(&sp);
  for (size_t pos = 0, cut = 0; cut < 9; ++cut) want[pos = want.find(',', pos)] = '\0';
  EXPECT_EQ(buf, want);

  // A full ring (index 50) wraps; anything beyond is a broken record.
  buf = "a,b";
  tq_strsplit_init(&sp, buf.data(), ',');
  sp.restore_idx = 50;
  EXPECT_EQ(split(&sp, nullptr).size(), 2u);
  EXPECT_EQ(sp.restore_idx, 1u);
  tq_strsplit_restore(&sp);
  EXPECT_EQ(buf, "a,b");
  sp.restore_idx = 51;
  EXPECT_DEATH(tq_strsplit_split(&sp, nullptr),
               "TQ-BUG at common/str\\.cc:[0-9]+/tq_strsplit_split\\(\\): restore_idx >= 50 \\+ 1  \n");
}

TEST(Utf8, ValidityRules) {
  const struct {
    const char *s;
    bool valid;
  } cases[] = {
      {"", true}, {"ASCII \x7f", true}, {"\xC2\x80", true}, {"\xC1\xBF", false},  // U+0080, overlong
      {"\xDF\xBF", true}, {"\xE0\xA0\x80", true}, {"\xE0\x9F\xBF", false},      // U+07FF, U+0800, overlong
      {"\xED\xA0\x80", true}, {"\xEF\xBF\xBF", true}, {"\xF0\x90\x80\x80", true},  // surrogate, U+FFFF, U+10000
      {"\xF0\x8F\xBF\xBF", false}, {"\xF4\x90\x80\x80", true}, {"\xF7\xBF\xBF\xBF", true},  // overlong, above U+10FFFF
      {"\xF8\x88\x80\x80\x80", false}, {"\xFF", false}, {"\x80", false}, {"a\xC3\xA9z", true},  // no lead byte
      {"\xC3", false}, {"\xE2\x82", false}, {"\xF0\x9F\x98", false}, {"\xC3\x28", false},       // cut short
      {"\xE2\x82\xC0", false}, {"\xF0\x9F\x98\x80!", true},
  };
  for (const auto &c : cases) EXPECT_EQ(tq_utf8_valid(c.s), c.valid) << testing::PrintToString(c.s);
}

const unsigned char kBytes[] = {'A', 0x00, 'C', 'D', 'E', 'F', 'G', 0x7f, ' ', '~', 'K', 'L', 'M', 'N', 0x80, 0xff, 'q'};

std::vector<std::string> dump(const unsigned char *data, size_t len) {
  std::vector<std::string> lines;
  tq_hexdump(data, len, [](const char *l, void *c) { static_cast<std::vector<std::string> *>(c)->emplace_back(l); },
             &lines);
  return lines;
}

TEST(Hexdump, LinesForEveryShapeOfLastLine) {
  using v = std::vector<std::string>;
  const std::string full = "00000000: 4100 4344 4546 477f  207e 4b4c 4d4e 80ff A.CDEFG.  ~KLMN..";
  EXPECT_EQ(dump(kBytes, 0), v{});
  EXPECT_EQ(dump(kBytes, 1), v{"00000000: 41" + std::string(39, ' ') + "A"});
  EXPECT_EQ(dump(kBytes, 8), v{"00000000: 4100 4344 4546 477f  " + std::string(20, ' ') + "A.CDEFG. "});
  EXPECT_EQ(dump(kBytes, 9), v{"00000000: 4100 4344 4546 477f  20" + std::string(18, ' ') + "A.CDEFG.  "});
  EXPECT_EQ(dump(kBytes, 16), v{full});
  EXPECT_EQ(dump(kBytes, 17), (v{full, "00000010: 71" + std::string(39, ' ') + "q"}));
  unsigned char big[40];
  for (size_t i = 0; i < sizeof big; ++i) big[i] = static_cast<unsigned char>('a' + i % 26);
  const auto lines = dump(big, sizeof big);
  ASSERT_EQ(lines.size(), 3u);
  EXPECT_EQ(lines[1].substr(0, 10) + lines[1].substr(51), "00000010: qrstuvwx yzabcdef");
  EXPECT_EQ(lines[2].substr(0, 10) + lines[2].substr(51), "00000020: ghijklmn ");

  tqtest::LogCapture capture;
  const std::vector<std::string> &logged = capture.lines;
  tq_log_hexdump(TQ_LOG_FAC_GENERAL, TQ_LOG_INFO, kBytes, 17);
  tq_log_hexdump(TQ_LOG_FAC_GENERAL, TQ_LOG_DEBUG, kBytes, 17);  // above "General"'s level
  const unsigned char pct[] = {'%', 's', '%', 'n'};              // text, not a format
  tq_log_hexdump(TQ_LOG_FAC_GENERAL, TQ_LOG_INFO, pct, sizeof pct);
  ASSERT_EQ(logged.size(), 3u);
  EXPECT_EQ(logged[0], "[General:Info] " + full);
  EXPECT_EQ(logged[1], "[General:Info] 00000010: 71" + std::string(39, ' ') + "q");
  EXPECT_EQ(logged[2].substr(logged[2].size() - 4), "%s%n");
}

}  // namespace
