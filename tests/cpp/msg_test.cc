// Field encodings of tq_msg_t: exact wire bytes, the fit rule of every put at
// its edge, failing gets, strings, variable-length numbers, the field-list
// reader and the fatal paths.
#include <gtest/gtest.h>

#include <algorithm>
#include <bit>
#include <cstring>
#include <iterator>
#include <random>
#include <string>
#include <tuple>
#include <type_traits>
#include <vector>

#include "support/wire.h"
#include "tq_msg.h"

namespace {

using namespace tqtest;

MsgPtr msg(const Bytes &payload = {}) { return make_msg(0x20001, payload); }

Bytes written(const tq_msg_t *m) { return Bytes(m->data, m->data + m->len); }

TEST(MsgPut, EveryKindHasItsExactWireBytes) {
  auto m = msg();
  tq_msg_put_uint8(m.get(), 0xAB);
  tq_msg_put_int8(m.get(), -2);
  tq_msg_put_uint16(m.get(), 0x1234);
  tq_msg_put_int16(m.get(), -2);
  tq_msg_put_uint32(m.get(), 0xDEADBEEF);
  tq_msg_put_int32(m.get(), -3);
  tq_msg_put_uint64(m.get(), 0x0102030405060708);
  tq_msg_put_int64(m.get(), -2);
  tq_msg_put_float(m.get(), 1.0f);
  tq_msg_put_double(m.get(), -2.0);
  tq_msg_put_string(m.get(), "hi");
  tq_msg_put_string(m.get(), nullptr);
  tq_msg_put_string(m.get(), "");
  tq_msg_put_string_n(m.get(), "abc", 2);
  const uint8_t raw[] = {9, 8};
  tq_msg_put_data(m.get(), raw, sizeof raw);
  uint8_t *count16 = tq_msg_reserve_uint16(m.get());
  uint8_t *count32 = tq_msg_reserve_uint32(m.get());
  tq_msg_put_uint8(m.get(), 0xEE);
  tq_msg_patch_uint16(count16, 0x0102);
  tq_msg_patch_uint32(count32, 0x03040506);
  tq_msg_patch_uint16(nullptr, 1);  // a placeholder that did not fit
  const Bytes want = {
      0xAB, 0xFE, 0x12, 0x34, 0xFF, 0xFE, 0xDE, 0xAD, 0xBE, 0xEF, 0xFF, 0xFF, 0xFF, 0xFD,
      1, 2, 3, 4, 5, 6, 7, 8, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFE,
      0x3F, 0x80, 0, 0, 0xC0, 0, 0, 0, 0, 0, 0, 0,
      0, 0, 0, 3, 'h', 'i', 0,  // "hi" with its NUL
      0, 0, 0, 0,               // null string
      0, 0, 0, 1, 0,            // empty string
      0, 0, 0, 3, 'a', 'b', 0,  // two bytes of "abc", NUL added
      9, 8,
      1, 2, 3, 4, 5, 6, 0xEE};  // patched counts
  EXPECT_EQ(written(m.get()), want);
  EXPECT_EQ(m->rpos, 0);
}

// Each put either fits whole at the end of the buffer or leaves it untouched.
TEST(MsgPut, FitRulesAtTheLastByte) {
  struct Case {
    const char *what;
    size_t width;
    void (*put)(tq_msg_t *);
  };
  const Case cases[] = {
      {"u8", 1, [](tq_msg_t *m) { tq_msg_put_uint8(m, 0x5A); }},
      {"u16", 2, [](tq_msg_t *m) { tq_msg_put_int16(m, 0x5A5A); }},
      {"u32", 4, [](tq_msg_t *m) { tq_msg_put_uint32(m, 0x5A5A5A5A); }},
      {"float", 4, [](tq_msg_t *m) { tq_msg_put_float(m, 1.5f); }},
      {"u64", 8, [](tq_msg_t *m) { tq_msg_put_int64(m, -1); }},
      {"double", 8, [](tq_msg_t *m) { tq_msg_put_double(m, 0.25); }},
      {"string", 4 + 4, [](tq_msg_t *m) { tq_msg_put_string(m, "abc"); }},
      {"string_n", 4 + 6, [](tq_msg_t *m) { tq_msg_put_string_n(m, "hello!", 5); }},
      {"longest string", TQ_MSG_MAX_DATA,
       [](tq_msg_t *m) {
         static const std::string s(TQ_MSG_MAX_DATA - 5, 's');
         tq_msg_put_string(m, s.c_str());
       }},
      {"null string", 4, [](tq_msg_t *m) { tq_msg_put_string(m, nullptr); }},
      {"data", 10, [](tq_msg_t *m) { tq_msg_put_data(m, "0123456789", 10); }},
      {"varuint32", 5, [](tq_msg_t *m) { tq_msg_put_varuint32(m, 0xFFFFFFFF); }},
      {"varint64", 10, [](tq_msg_t *m) { tq_msg_put_varint64(m, INT64_MIN); }},
      {"reserve16", 2, [](tq_msg_t *m) { tq_msg_patch_uint16(tq_msg_reserve_uint16(m), 7); }},
      {"reserve32", 4, [](tq_msg_t *m) { tq_msg_patch_uint32(tq_msg_reserve_uint32(m), 7); }},
  };
  for (const Case &c : cases) {
    SCOPED_TRACE(c.what);
    auto m = msg();
    c.put(m.get());
    const Bytes alone = written(m.get());
    ASSERT_EQ(alone.size(), c.width);

    m->len = static_cast<uint16_t>(TQ_MSG_MAX_DATA - c.width + 1);
    c.put(m.get());
    EXPECT_EQ(m->len, TQ_MSG_MAX_DATA - c.width + 1) << "one byte short must drop the put";

    m->len = static_cast<uint16_t>(TQ_MSG_MAX_DATA - c.width);
    c.put(m.get());
    ASSERT_EQ(m->len, TQ_MSG_MAX_DATA);
    EXPECT_EQ(Bytes(m->data + TQ_MSG_MAX_DATA - c.width, m->data + TQ_MSG_MAX_DATA), alone);
    EXPECT_EQ(tq_msg_free_bytes(m.get()), 0u);
  }
}

// Every kind as a put/get pair over the value's bits, for the random test.
struct Kind {
  int bits;
  void (*put)(tq_msg_t *, uint64_t);
  bool (*get)(tq_msg_t *, uint64_t *);
};
template <class T, void (*Put)(tq_msg_t *, T), bool (*Get)(tq_msg_t *, T *)>
constexpr Kind kind() {
  using U = std::conditional_t<sizeof(T) == 1, uint8_t,
            std::conditional_t<sizeof(T) == 2, uint16_t,
            std::conditional_t<sizeof(T) == 4, uint32_t, uint64_t>>>;
  return {8 * static_cast<int>(sizeof(T)),
          [](tq_msg_t *m, uint64_t v) { Put(m, std::bit_cast<T>(static_cast<U>(v))); },
          [](tq_msg_t *m, uint64_t *v) {
            T x;
            const bool ok = Get(m, &x);
            *v = std::bit_cast<U>(x);
            return ok;
          }};
}
const Kind kKinds[] = {
    kind<uint8_t, tq_msg_put_uint8, tq_msg_get_uint8>(),
    kind<int8_t, tq_msg_put_int8, tq_msg_get_int8>(),
    kind<uint16_t, tq_msg_put_uint16, tq_msg_get_uint16>(),
    kind<int16_t, tq_msg_put_int16, tq_msg_get_int16>(),
    kind<uint32_t, tq_msg_put_uint32, tq_msg_get_uint32>(),
    kind<int32_t, tq_msg_put_int32, tq_msg_get_int32>(),
    kind<uint64_t, tq_msg_put_uint64, tq_msg_get_uint64>(),
    kind<int64_t, tq_msg_put_int64, tq_msg_get_int64>(),
    kind<float, tq_msg_put_float, tq_msg_get_float>(),
    kind<double, tq_msg_put_double, tq_msg_get_double>(),
    kind<uint32_t, tq_msg_put_varuint32, tq_msg_get_varuint32>(),
    kind<int32_t, tq_msg_put_varint32, tq_msg_get_varint32>(),
    kind<uint64_t, tq_msg_put_varuint64, tq_msg_get_varuint64>(),
    kind<int64_t, tq_msg_put_varint64, tq_msg_get_varint64>(),
};

// Random sequences of every kind come back value for value (floats bit for
// bit, NaN payloads included) and leave nothing unread; a get past the end
// fails with its destination zeroed.
TEST(MsgGet, RandomSequencesRoundTrip) {
  std::mt19937_64 rng(20240611);
  for (int round = 0; round < 300; ++round) {
    auto m = msg();
    std::vector<std::pair<const Kind *, uint64_t>> sent;
    for (int i = static_cast<int>(rng() % 40); i > 0; --i) {
      const Kind &k = kKinds[rng() % std::size(kKinds)];
      uint64_t v = rng();
      if (rng() % 4 == 0) v = rng() % 2 ? 0 : ~uint64_t{0} >> (rng() % 64);  // range edges
      if (k.bits < 64) v &= (uint64_t{1} << k.bits) - 1;
      k.put(m.get(), v);
      sent.emplace_back(&k, v);
    }
    for (const auto &[k, v] : sent) {
      uint64_t got = ~v;
      ASSERT_TRUE(k->get(m.get(), &got));
      ASSERT_EQ(got, v) << "kind " << (k - kKinds);
    }
    EXPECT_EQ(tq_msg_avail_bytes(m.get()), 0u);
    const Kind &k = kKinds[rng() % std::size(kKinds)];
    uint64_t got = 1;
    EXPECT_FALSE(k.get(m.get(), &got));
    EXPECT_EQ(got, 0u);
    EXPECT_EQ(m->rpos, m->len);
  }
}

Bytes string_field(const std::string &s) {  // count includes the NUL
  Bytes b = {0, 0, 0, static_cast<uint8_t>(s.size() + 1)};
  for (char c : s) b.push_back(static_cast<uint8_t>(c));
  b.push_back(0);
  return b;
}

TEST(MsgGet, StringsAreCutKeptOrSkipped) {
  struct Case { const char *what; Bytes wire; size_t size; const char *want; uint16_t rpos; };
  const Case cases[] = {
      // 10 bytes on the wire into 8: seven characters, the forced NUL, and the
      // read position behind all 10 so that the next field is intact.
      {"cut", string_field("abcdefghi"), 8, "abcdefg", 14},
      {"exact", string_field("abcdefg"), 8, "abcdefg", 12},  // its own NUL ends it
      {"null string", {0, 0, 0, 0}, 8, "", 4},
      {"size 1", string_field("abc"), 1, "", 8},  // keeps nothing, passes all
  };
  for (const Case &c : cases) {
    Bytes wire = c.wire;
    wire.push_back(0x77);
    auto m = msg(wire);
    char buf[16];
    std::memset(buf, 'x', sizeof buf);
    ASSERT_TRUE(tq_msg_get_string_len(m.get(), buf, c.size)) << c.what;
    EXPECT_STREQ(buf, c.want) << c.what;
    EXPECT_EQ(m->rpos, c.rpos) << c.what;
  }

  // The bytes behind the count are missing: the copied span is zeroed.
  auto m = msg({0, 0, 0, 10, 'a', 'b', 'c'});
  char big[16];
  std::memset(big, 'x', sizeof big);
  EXPECT_FALSE(tq_msg_get_string_len(m.get(), big, sizeof big));
  EXPECT_EQ(std::string(big, 10), std::string(10, '\0'));
  EXPECT_EQ(big[10], 'x');
  EXPECT_EQ(big[15], '\0');

  // The copy fits but the rest to skip is cut short.
  m = msg({0, 0, 0, 10, 'a', 'b', 'c', 'd', 'e'});
  EXPECT_FALSE(tq_msg_get_string_len(m.get(), big, 4));
  EXPECT_STREQ(big, "abc");

  const Bytes hello = string_field("hello");
  for (size_t cut = 0; cut <= hello.size(); ++cut) {
    m = msg(Bytes(hello.begin(), hello.begin() + static_cast<long>(cut)));
    EXPECT_EQ(tq_msg_get_string_len(m.get(), big, sizeof big), cut == hello.size()) << cut;
  }
}

TEST(MsgVarint, EncodingsAtTheirEdges) {
  const Kind &u32 = kKinds[10], &i32 = kKinds[11], &u64 = kKinds[12], &i64 = kKinds[13];
  const Bytes max32 = {0x8F, 0xFF, 0xFF, 0xFF, 0x7F};
  const Bytes max64 = {0x81, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0x7F};
  struct Case { const Kind &k; uint64_t v; Bytes wire; };
  const Case cases[] = {
      {u32, 0, {0x00}}, {u32, 127, {0x7F}}, {u32, 128, {0x81, 0x00}}, {u32, 300, {0x82, 0x2C}},
      {u32, 16383, {0xFF, 0x7F}}, {u32, 16384, {0x81, 0x80, 0x00}}, {u32, 0xFFFFFFFF, max32},
      // Signed values are zigzag-coded: -1, 1, -64, 64, INT32_MAX, INT32_MIN.
      {i32, 0, {0x00}}, {i32, 0xFFFFFFFF, {0x01}}, {i32, 1, {0x02}}, {i32, 0xFFFFFFC0, {0x7F}},
      {i32, 64, {0x81, 0x00}}, {i32, 0x7FFFFFFF, {0x8F, 0xFF, 0xFF, 0xFF, 0x7E}},
      {i32, 0x80000000, max32}, {u64, UINT64_MAX, max64}, {i64, uint64_t{1} << 63, max64},
  };
  for (const Case &c : cases) {
    SCOPED_TRACE(testing::Message() << (&c.k - kKinds) << ": " << c.v);
    auto m = msg();
    c.k.put(m.get(), c.v);
    EXPECT_EQ(written(m.get()), c.wire);
    uint64_t back = ~c.v;
    EXPECT_TRUE(c.k.get(m.get(), &back));
    EXPECT_EQ(back, c.v);
  }
}

TEST(MsgVarint, OverlongAndCutRunsFailWithoutConsuming) {
  // The fifth byte still continues: too long for 32 bits, fine for 64.
  const Bytes five_more = {0x80, 0x80, 0x80, 0x80, 0x81, 0x05};
  auto m = msg(five_more);
  uint32_t u32 = 1;
  int32_t i32 = 1;
  EXPECT_FALSE(tq_msg_get_varuint32(m.get(), &u32));
  EXPECT_FALSE(tq_msg_get_varint32(m.get(), &i32));
  EXPECT_EQ(u32, 0u);
  EXPECT_EQ(i32, 0);
  EXPECT_EQ(m->rpos, 0);
  uint64_t u64 = 0;
  EXPECT_TRUE(tq_msg_get_varuint64(m.get(), &u64));
  EXPECT_EQ(u64, uint64_t{0x85});

  m = msg(Bytes(10, 0x80));
  m->data[m->len++] = 0x00;
  EXPECT_FALSE(tq_msg_get_varuint64(m.get(), &u64));
  EXPECT_EQ(m->rpos, 0);

  const Bytes full = {0x8F, 0xFF, 0xFF, 0xFF, 0x7F};
  for (size_t cut = 0; cut < full.size(); ++cut) {
    m = msg(Bytes(full.begin(), full.begin() + static_cast<long>(cut)));
    EXPECT_FALSE(tq_msg_get_varuint32(m.get(), &u32)) << cut;
    EXPECT_EQ(m->rpos, 0);
  }
}

// One message holding every field code, in order.
struct AllFields {
  uint8_t u8 = 0;
  int8_t i8 = 0;
  uint16_t u16 = 0;
  int16_t i16 = 0;
  uint32_t u32 = 0, vu32 = 0;
  int32_t i32 = 0, vi32 = 0;
  uint64_t u64 = 0, vu64 = 0;
  int64_t i64 = 0, vi64 = 0;
  char str[6] = {};
  uint8_t data[3] = {};
  uint8_t tail = 0;

  bool read(tq_msg_t *m) {
    return tq_msg_get_fields(m, TQ_MSG_UINT8, &u8, TQ_MSG_INT8, &i8, TQ_MSG_UINT16, &u16,
                             TQ_MSG_INT16, &i16, TQ_MSG_UINT32, &u32, TQ_MSG_INT32, &i32,
                             TQ_MSG_UINT64, &u64, TQ_MSG_INT64, &i64, 17,
                             TQ_MSG_STRING, sizeof str, str, TQ_MSG_DATA, sizeof data, data,
                             TQ_MSG_VARUINT32, &vu32, TQ_MSG_VARINT32, &vi32, 99,
                             TQ_MSG_VARUINT64, &vu64, TQ_MSG_VARINT64, &vi64,
                             TQ_MSG_SKIP, size_t{2}, TQ_MSG_SKIP_BLOCK, TQ_MSG_UINT8, &tail,
                             TQ_MSG_END);
  }
};

TEST(MsgFields, EveryCodeInOneRunAndFailureAtEveryCut) {
  const Bytes wire = {0xF1, 0xFE, 0x12, 0x34, 0x80, 0x00, 0, 0, 0, 7, 0xFF, 0xFF, 0xFF, 0xF9,
                      1, 2, 3, 4, 5, 6, 7, 8, 0x80, 0, 0, 0, 0, 0, 0, 0,
                      0, 0, 0, 9, 'l', 'o', 'n', 'g', 'e', 'r', 's', 't', 0,  // cut to "longe"
                      0xA, 0xB, 0xC, 0x82, 0x2C, 0x03, 0x81, 0x00, 0x04,
                      0xEE, 0xEE, 0, 0, 0, 2, 0xEE, 0xEE, 0x5A};
  AllFields f;
  auto m = msg(wire);
  ASSERT_TRUE(f.read(m.get()));
  EXPECT_EQ(m->rpos, wire.size());
  EXPECT_EQ(std::tuple(f.u8, f.i8, f.u16, f.i16, f.u32, f.i32, f.u64, f.i64, std::string(f.str),
                       Bytes(f.data, f.data + 3), f.vu32, f.vi32, f.vu64, f.vi64, f.tail),
            std::tuple(uint8_t{0xF1}, int8_t{-2}, uint16_t{0x1234}, int16_t{-32768}, 7u, -7,
                       uint64_t{0x0102030405060708}, INT64_MIN, std::string("longe"), Bytes{0xA, 0xB, 0xC},
                       300u, -2, uint64_t{128}, int64_t{2}, uint8_t{0x5A}));

  for (size_t cut = 0; cut < wire.size(); ++cut) {
    AllFields g;
    m = msg(Bytes(wire.begin(), wire.begin() + static_cast<long>(cut)));
    EXPECT_FALSE(g.read(m.get())) << cut;
    EXPECT_EQ(g.u8, cut >= 1 ? 0xF1 : 0) << "fields before the failure keep their values";
  }
  EXPECT_TRUE(tq_msg_get_fields(m.get(), TQ_MSG_END));
}

using MsgDeathTest = testing::Test;

TEST_F(MsgDeathTest, CheckedGettersNameTheirKindAndTheCaller) {
  auto m = msg({1});
  uint32_t u32;
  const int line = __LINE__; auto read_u32 = [&] { tq_msg_get_uint32_checked(m.get(), &u32); };
  EXPECT_DEATH(read_u32(),
               "TQ-BUG at include/tq_msg\\.h:[0-9]+/_tq_msg_get_uint32_checked\\(\\): !r  "
               "Failed to read uint32 from message at tests/cpp/msg_test\\.cc:" +
                   std::to_string(line) + "\n");
  int16_t i16;
  EXPECT_DEATH(tq_msg_get_int16_checked(m.get(), &i16),
               "/_tq_msg_get_int16_checked\\(\\): !r  Failed to read int16 from message at ");
  double d;
  EXPECT_DEATH(tq_msg_get_double_checked(m.get(), &d),
               "/_tq_msg_get_double_checked\\(\\): !r  Failed to read double from message at ");
  m->len = 0;
  int8_t i8;
  EXPECT_DEATH(tq_msg_get_int8_checked(m.get(), &i8),
               "/_tq_msg_get_int8_checked\\(\\): !r  Failed to read int8 from message at ");
}

TEST_F(MsgDeathTest, NullBufferAndMessage) {
  auto m = msg({0, 0, 0, 1, 0});
  const std::string null_buf = "buf == \\(\\(void \\*\\)0\\)  \n";
  EXPECT_DEATH((void)tq_msg_get_data(m.get(), nullptr, 1),
               "TQ-BUG at include/tq_msg\\.h:[0-9]+/tq_msg_get_data\\(\\): " + null_buf);
  EXPECT_DEATH((void)tq_msg_get_string_len(m.get(), nullptr, 8),
               "TQ-BUG at include/tq_msg\\.h:[0-9]+/tq_msg_get_string_len\\(\\): " + null_buf);
  EXPECT_DEATH((void)tq_msg_get_fields(m.get(), TQ_MSG_UINT32, nullptr, TQ_MSG_END),
               "/tq_msg_get_data\\(\\): " + null_buf);
  EXPECT_DEATH((void)tq_msg_get_fields(m.get(), TQ_MSG_STRING, size_t{8}, nullptr, TQ_MSG_END),
               "/tq_msg_get_string_len\\(\\): " + null_buf);
  EXPECT_DEATH(tq_msg_put_uint32(nullptr, 1),
               "TQ-BUG at include/tq_msg\\.h:[0-9]+/tq_msg_put_uint32\\(\\): "
               "msg == \\(\\(void \\*\\)0\\)  \n");
}

}  // namespace
