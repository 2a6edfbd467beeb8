// Columnar query: request bytes, the stream cut into replies anywhere,
// typed getters, column names and the byte-string buffer.
#include <gtest/gtest.h>

#include <array>
#include <cstring>
#include <functional>
#include <string>

#include "support/wire.h"
#include "tq_malloc.h"
#include "tqdb_api_query.h"

using namespace tqtest;

namespace {

constexpr uint32_t S = 9;
using St = const tqdb_api_statreader_query_state_t;
using Ptr = tqdb_api_statreader_query_state_ptr;

// One getter per column type, printing the value.
const std::array<std::function<std::string(St *, unsigned)>, 12> kGet{{
    [](St *s, unsigned c) { return std::to_string(tqdb_api_statreader_query_get_bool(s, c)); },
    [](St *s, unsigned c) { return std::to_string(tqdb_api_statreader_query_get_uint8(s, c)); },
    [](St *s, unsigned c) { return std::to_string(tqdb_api_statreader_query_get_int8(s, c)); },
    [](St *s, unsigned c) { return std::to_string(tqdb_api_statreader_query_get_uint16(s, c)); },
    [](St *s, unsigned c) { return std::to_string(tqdb_api_statreader_query_get_int16(s, c)); },
    [](St *s, unsigned c) { return std::to_string(tqdb_api_statreader_query_get_uint32(s, c)); },
    [](St *s, unsigned c) { return std::to_string(tqdb_api_statreader_query_get_int32(s, c)); },
    [](St *s, unsigned c) { return std::to_string(tqdb_api_statreader_query_get_uint64(s, c)); },
    [](St *s, unsigned c) { return std::to_string(tqdb_api_statreader_query_get_int64(s, c)); },
    [](St *s, unsigned c) { return std::to_string(tqdb_api_statreader_query_get_float(s, c)); },
    [](St *s, unsigned c) { return std::to_string(tqdb_api_statreader_query_get_double(s, c)); },
    [](St *s, unsigned c) {
      uint32_t n = 0;
      const uint8_t *b = tqdb_api_statreader_query_get_bytes(s, c, &n);
      return std::string(reinterpret_cast<const char *>(b), b ? n : 0);
    },
}};

void out(void *u, std::string s) { static_cast<std::vector<std::string> *>(u)->push_back(std::move(s)); }

// Every callback appends one line.
tqdb_api_statreader_query_cb_t recorder(std::vector<std::string> *log) {
  tqdb_api_statreader_query_cb_t cb{};
  cb.user = log;
  cb.notice_cb = [](void *u, const char *t) { out(u, std::string("Q ") + t); };
  cb.bytes_cb = [](void *u, const uint8_t *b, uint32_t n) { out(u, "B " + std::string(b, b + n)); };
  cb.row_desc_cb = [](void *u, const tqdb_api_statreader_query_row_desc_t *d) {
    std::string s = "T";
    for (unsigned i = 0; i < d->count; ++i)
      s += " " + std::string(d->cols[i].name, strnlen(d->cols[i].name, 64)) + "/" +
           std::to_string(d->cols[i].type) + "/" + std::to_string(d->cols[i].aux);
    out(u, s);
  };
  cb.row_data_cb = [](void *u, St *s) {
    std::string row = "D";
    uint8_t null = 0;
    for (unsigned i = 0; tqdb_api_statreader_query_col_is_null(s, i, &null); ++i)
      row += " " + (null ? std::string("-") : kGet[s->desc->cols[i].type](s, i));
    out(u, row);
  };
  cb.complete_cb = [](void *u) { out(u, "C"); };
  cb.end_cb = [](void *u) { out(u, "Z"); };
  cb.unknown_cb = [](void *u, uint8_t k, uint32_t n) { out(u, "? " + std::to_string(k) + " " + std::to_string(n)); };
  return cb;
}

// Frames by hand; ends[] collects where each one stops.
struct Stream {
  Wire w;
  std::vector<size_t> ends;
  Stream &frame(char kind, const Wire &payload) {
    w.u8(static_cast<uint8_t>(kind)).u32(static_cast<uint32_t>(payload.size() + 4)).raw(payload);
    ends.push_back(w.size());
    return *this;
  }
};

void feed(tqdb_api_statreader_query_state_t *s, const tqdb_api_statreader_query_cb_t &cb,
          std::span<const uint8_t> body) {
  EnvPtr env = make_env(0x21000, Wire().u32(S).u32(1).raw(body));
  EXPECT_TRUE(tqdb_api_statreader_query_handle_msg(s, &cb, env.get()));
}

Wire all_types_desc() {
  Wire d;
  d.u16(12);
  for (uint16_t t = 0; t < 12; ++t) d.raw(t == 11 ? std::string(70, 'n') : "c" + std::to_string(t)).u8(0).u16(t).u16(t + 100);
  return d;
}
Wire row(std::string_view bytes, bool nulls = false) {
  Wire r;
  if (nulls) return r.u8(1).u8(0).u8(0).u8(0).u8(0xFE).u8(1).u8(1).u8(1).u8(1).u8(1).u8(1).u8(1).u8(1).u8(0).u32(uint32_t(bytes.size())).raw(bytes);
  return r.u8(0).u8(1).u8(0).u8(200).u8(0).u8(0xFE).u8(0).u16(0xFFFF).u8(0).u16(0xFFFE).u8(0).u32(0xFFFFFFFF).u8(0)
      .u32(0xFFFFFFFD).u8(0).u64(~0ull).u8(0).u64(~1ull).u8(0).u32(0x3FC00000).u8(0).u64(0x4004000000000000)
      .u8(0).u32(uint32_t(bytes.size())).raw(bytes);
}

}  // namespace

TEST(Query, RequestIsTheFramedTextAndRefusedWhenItCannotFit) {
  HandlePtr h(tqdb_api_handle_new());
  tqdb_api_statreader_query_state_t *raw = nullptr;
  const uint32_t cid = tqdb_api_statreader_query(&raw, h.get(), S, "SELECT 1");
  Ptr st(raw);
  ASSERT_NE(cid, 0u);
  ASSERT_NE(raw, nullptr);
  EXPECT_EQ(drain_wbuf(h.get()), frame(0x19A21, Wire().u32(S).u32(cid).u8('Q').u32(13).raw("SELECT 1").u8(0)));
  // The request body holds 32760 bytes behind its header: kind, length, text, NUL.
  for (size_t n : {32754u, 32755u}) {
    const std::string q(n, 'x');
    const uint32_t id = tqdb_api_statreader_query(&raw, h.get(), S, q.c_str());
    Ptr keep(raw);
    EXPECT_EQ(id != 0, n == 32754) << n;
    EXPECT_EQ(raw != nullptr, n == 32754) << n;
    EXPECT_EQ(drain_wbuf(h.get()).size(), n == 32754 ? 6u + 32768u : 0u) << n;
  }
  tqdb_api_statreader_query_chain_t chain;
  const std::string fits(32762, 'q'), over(32763, 'q');
  tqdb_api_statreader_query_msg_query(&chain, fits.c_str());
  ASSERT_EQ(chain.bufs.size(), 1u);
  EXPECT_EQ(chain.bufs[0]->len, 32768);
  EXPECT_DEATH(tqdb_api_statreader_query_msg_query(&chain, over.c_str()),
               "TQ-BUG at api/statreader_query_msg\\.cc:[0-9]+/tqdb_api_statreader_query_msg_query\\(\\): Too large query\\.");
}

TEST(Query, StreamCutAnywhereDeliversTheSameFramesOnlyWhenWhole) {
  Stream s;
  s.frame('Q', Wire().raw("notice").u8(0)).frame('T', all_types_desc()).frame('D', row("abc"))
      .frame('D', row("0123456789", true)).frame('D', row("wxyz")).frame('B', Wire().raw("xyz"))
      .frame('X', Wire().u8(7)).frame('C', Wire()).frame('Z', Wire());
  const std::vector<std::string> expected{
      "Q notice",
      "T c0/0/100 c1/1/101 c2/2/102 c3/3/103 c4/4/104 c5/5/105 c6/6/106 c7/7/107 c8/8/108 c9/9/109 c10/10/110 " +
          std::string(64, 'n') + "/11/111",
      "D 1 200 -2 65535 -2 4294967295 -3 18446744073709551615 -2 1.500000 2.500000 abc",
      "D - 0 -2 - - - - - - - - 0123456789",
      "D 1 200 -2 65535 -2 4294967295 -3 18446744073709551615 -2 1.500000 2.500000 wxyz",
      "B xyz", "? 88 5", "C", "Z"};
  tq_malloc_stat_t before{}, after{};
  (void)tq_malloc_stat("tqdb_api_statreader_query_value_t::bytes", &before);
  {
    std::vector<std::string> log;
    Ptr st(tqdb_api_statreader_query_state_new());
    feed(st.get(), recorder(&log), s.w);
    EXPECT_EQ(log, expected);
  }
  ASSERT_TRUE(tq_malloc_stat("tqdb_api_statreader_query_value_t::bytes", &after));
  EXPECT_EQ(after.allocations - before.allocations, 2u) << "grown for 10 bytes, reused for 4";
  EXPECT_EQ(after.entries, 0u);
  const std::span<const uint8_t> all = s.w;
  for (size_t cut = 1; cut < all.size(); ++cut) {
    std::vector<std::string> log;
    Ptr st(tqdb_api_statreader_query_state_new());
    const auto cb = recorder(&log);
    feed(st.get(), cb, all.first(cut));
    const auto whole = std::count_if(s.ends.begin(), s.ends.end(), [&](size_t e) { return e <= cut; });
    EXPECT_EQ(log, std::vector<std::string>(expected.begin(), expected.begin() + whole)) << cut;
    feed(st.get(), cb, all.subspan(cut));
    EXPECT_EQ(log, expected) << cut;
    EXPECT_EQ(st->kind, 0) << cut;
  }
}

TEST(Query, ColumnWriterChainsWhenTheValueWouldNotFit) {
  tqdb_api_statreader_query_chain_t chain;
  const uint16_t v16 = 0x0102;
  tqdb_api_statreader_query_msg_data_row_col(&chain, &v16, 0, 2, TQDB_QUERY_COL_UINT16);
  tqdb_api_statreader_query_msg_data_row_col(&chain, "abc", 3, 7, TQDB_QUERY_COL_BYTES);
  ASSERT_EQ(chain.bufs.size(), 1u);
  const tq_msg_t *m = chain.bufs[0].get();
  EXPECT_EQ(Bytes(m->data, m->data + m->len), Bytes(Wire().u8(0).u16(0x0102).u8(0).u32(3).raw("abc")));
  chain.bufs[0]->len = 32768 - 3;  // room for exactly the null byte and two
  tqdb_api_statreader_query_msg_data_row_col(&chain, &v16, 0, 2, TQDB_QUERY_COL_UINT16);
  EXPECT_EQ(chain.bufs.size(), 1u);
  chain.bufs[0]->len = 32768 - 2;
  tqdb_api_statreader_query_msg_data_row_col(&chain, &v16, 0, 2, TQDB_QUERY_COL_UINT16);
  EXPECT_EQ(chain.bufs.size(), 2u);
}

TEST(QueryDeathTest, WrongGetterRowCutShortAndLinkedReplyAreFatal) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  std::vector<std::string> log;
  const auto cb = recorder(&log);
  Ptr st(tqdb_api_statreader_query_state_new());
  feed(st.get(), cb, Stream().frame('T', all_types_desc()).frame('D', row("abc")).w);
  ASSERT_EQ(log.size(), 2u);
  for (unsigned t = 0; t < 12; ++t) {
    const unsigned wrong = (t + 1) % 12;
    EXPECT_DEATH(kGet[wrong](st.get(), t), "Calling tqdb_api_statreader_query_get_[a-z0-9]+ with incorrect type " +
                                               std::to_string(t) + "\n");
  }
  const Bytes cut = Stream().frame('D', row("")).w;  // length word 4 short of the last field's
  Bytes shortened(cut);
  shortened[4] -= 4;
  shortened.resize(shortened.size() - 4);
  EXPECT_DEATH(feed(st.get(), cb, shortened), "TQ-BUG at .*: !r  Failed to read int32 from message at ");
  EnvPtr env = make_env(0x21000, Wire().u32(S).u32(1).u8('C').u32(4));
  env->msg->reserved = 1;
  EXPECT_DEATH(tqdb_api_statreader_query_handle_msg(st.get(), &cb, env.get()), "TQ-BUG at .*: amsg->next");
}
