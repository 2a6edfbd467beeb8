// Version, authentication, sessions, ping and diag: request bytes and reply decoders.
#include <gtest/gtest.h>

#include <array>
#include <string>

#include "support/wire.h"
#include "tq_list.h"
#include "tq_malloc.h"
#include "tq_msg.h"
#include "tqdb_api.h"

using namespace tqtest;

namespace {

struct ListDeleter {
  void operator()(tq_list_t *l) const { tq_list_free_with_data(l); }
};
using ListPtr = std::unique_ptr<tq_list_t, ListDeleter>;

std::vector<std::string> strings_of(const tq_list_t *l) {
  std::vector<std::string> out;
  for (; l != nullptr; l = l->next) out.emplace_back(static_cast<const char *>(l->data));
  return out;
}

uint32_t live_entries(const char *label) {
  tq_malloc_stat_t st{};
  return tq_malloc_stat(label, &st) ? st.entries : 0;
}

}  // namespace

TEST(Version, WordDecodesByItsThreeForms) {
  struct Case {
    uint32_t word;
    unsigned major, minor, patch;
  };
  const Case cases[] = {
      {0, 0, 0, 0},       {11, 11, 0, 0},      {12, 1, 2, 0},        {95, 9, 5, 0},
      {124, 12, 4, 0},    {125, 0, 0, 125},    {200, 0, 1, 72},      {4095, 0, 31, 127},
      {4096, 12, 0, 0},   {0x6080, 17, 1, 0},  {0x6085, 17, 1, 5},   {0x6100, 17, 2, 0},
      {0xFFFF, 26, 31, 127}, {0xABCD0000u + 95, 9, 5, 0},  // only the low 16 bits count
  };
  for (const Case &c : cases) {
    const tqdb_api_version_t v = tqdb_api_version_decode(c.word);
    EXPECT_EQ((std::array{v.major, v.minor, v.patch}), (std::array{c.major, c.minor, c.patch}))
        << "word " << c.word;
  }
}

TEST(Version, AnnouncementReadsWordAndTwoStrings) {
  char a[8] = "keep";
  char b[8] = "keep";
  EnvPtr data = make_env(0x21000, Wire().u32(1).u32(2).u32(0x6080));
  EXPECT_EQ(tqdb_api_version_handle(data.get(), a, b, sizeof a), 0u);
  EXPECT_STREQ(a, "keep");  // not an announcement: buffers untouched

  EnvPtr env = make_env(0x20007, Wire().u32(0x00016085).str("TQDB").str("17.1.5-long"));
  EXPECT_EQ(tqdb_api_version_handle(env.get(), a, b, sizeof a), 0x00016085u);
  EXPECT_STREQ(a, "TQDB");
  EXPECT_STREQ(b, "17.1.5-");  // size - 1 kept

  EnvPtr cut = make_env(0x20007, Wire().u32(0x6080).str("TQDB").u32(9).raw("ab"));
  EXPECT_EQ(tqdb_api_version_handle(cut.get(), a, b, sizeof a), 0x6080u);
  EXPECT_EQ(std::string(b).find('\xA5'), std::string::npos);
}

TEST(CoreRequests, FramesAreByteExact) {
  HandlePtr h(tqdb_api_handle_new());
  const std::string user40(40, 'u');
  EXPECT_EQ(tqdb_api_auth(h.get(), user40.c_str(), "pw"), 1);
  EXPECT_EQ(std::string(tqdb_api_handle_get_user(h.get())), user40.substr(0, 31));
  EXPECT_EQ(drain_wbuf(h.get()), frame(0x10001, Wire().str(user40).str("pw")));  // no header words
  EXPECT_EQ(tqdb_api_auth(h.get(), nullptr, ""), 1);
  EXPECT_STREQ(tqdb_api_handle_get_user(h.get()), "");
  EXPECT_EQ(drain_wbuf(h.get()), frame(0x10001, Wire().null_str().str("")));
  EXPECT_EQ(tqdb_api_auth(nullptr, "a", "b"), 0);
  EXPECT_EQ(tqdb_api_handle_get_user(nullptr), nullptr);

  // Authentication spends no correlation id: the first session request gets 1.
  EXPECT_EQ(tqdb_api_session_new(h.get()), 1u);
  EXPECT_EQ(tqdb_api_session_10102(h.get(), 0xDEADBEEF), 2u);
  EXPECT_EQ(tqdb_api_ping(h.get(), 0x01020304, "hello"), 3u);
  EXPECT_EQ(tqdb_api_ping(h.get(), 5, nullptr), 4u);
  EXPECT_EQ(tqdb_api_session_10104(h.get(), 6), 5u);
  EXPECT_EQ(tqdb_api_session_diag(h.get(), 7), 6u);
  Wire expect;
  expect.raw(frame(0x10101, Wire().u32(0).u32(1)))
      .raw(frame(0x10102, Wire().u32(0).u32(2).u32(0xDEADBEEF)))
      .raw(frame(0x10103, Wire().u32(0x01020304).u32(3).str("hello")))
      .raw(frame(0x10103, Wire().u32(5).u32(4).null_str()))
      .raw(frame(0x10104, Wire().u32(6).u32(5)))
      .raw(frame(0x10105, Wire().u32(7).u32(6)));
  EXPECT_EQ(drain_wbuf(h.get()), expect.bytes());
  EXPECT_EQ(tqdb_api_session_new(nullptr), 0u);
}

TEST(Auth, ReplyCutAtEveryPositionNamesTheMissingField) {
  const Bytes full = Wire().u8(1).u64(0x1111111111111111).u64(0x2222222222222222)
                         .u64(0x3333333333333333).u32(0x44444444);
  for (size_t cut = 0; cut <= full.size(); ++cut) {
    SCOPED_TRACE(cut);
    CorruptLog log;
    EnvPtr env = make_env(0x20001, std::span(full).first(cut), CorruptLog::cb, &log);
    tqdb_api_auth_result r{9, 9, 9, 9};
    const int accepted = tqdb_api_auth_handle(env.get(), &r);
    EXPECT_EQ(accepted, cut == 0 ? 0 : 1);
    const int line = cut == 0 ? 32 : cut < 9 ? 41 : cut < 17 ? 42 : 0;
    EXPECT_EQ(log.calls, line != 0 ? 1 : 0);
    if (line != 0) {
      EXPECT_EQ(log.line, line);
      EXPECT_EQ(log.function, "tqdb_api_auth_handle");
      EXPECT_EQ(log.file, "auth.c");
    }
    if (cut >= 9) { EXPECT_EQ(r.value0, 0x1111111111111111u); }
    if (cut >= 17) { EXPECT_EQ(r.value1, 0x2222222222222222u); }
    if (cut == 17) { EXPECT_EQ(r.value2, 0u); }  // the later fields read as 0
    if (cut >= 25) { EXPECT_EQ(r.value2, 0x3333333333333333u); }
    if (cut == full.size()) { EXPECT_EQ(r.value3, 0x44444444u); }
    if (cut == 17 || (cut >= 25 && cut < full.size())) { EXPECT_EQ(r.value3, 0u); }
  }
  tqdb_api_auth_result untouched{5, 5, 5, 5};
  EnvPtr refused = make_env(0x20001, Wire().u8(0).u64(1));
  EXPECT_EQ(tqdb_api_auth_handle(refused.get(), &untouched), 0);
  EXPECT_EQ(untouched.value0, 5u);
  EnvPtr accepted = make_env(0x20001, Wire().u8(2));
  EXPECT_EQ(tqdb_api_auth_handle(accepted.get(), nullptr), 1);
  EnvPtr data = make_env(0x21000, Wire().u32(0).u32(0).u8(1));
  EXPECT_EQ(tqdb_api_auth_handle(data.get(), nullptr), 0);
}

TEST(Session, NewAndPingReplies) {
  EXPECT_EQ(tqdb_api_session_new_handle(make_env(0x21000, Wire().u32(0).u32(1).u32(77)).get()), 77u);
  EXPECT_EQ(tqdb_api_session_new_handle(make_env(0x21000, Wire().u32(0).u32(1).u16(77)).get()), 0u);
  EXPECT_EQ(tqdb_api_session_new_handle(make_env(0x20003, Wire().u32(0).u32(1).u32(77)).get()), 0u);

  char buf[64];
  const std::string hundred(100, 'p');
  EnvPtr ping = make_env(0x21000, Wire().u32(3).u32(4).str(hundred));
  EXPECT_EQ(tqdb_api_ping_handle(ping.get(), buf, sizeof buf), buf);
  EXPECT_EQ(std::string(buf), hundred.substr(0, 63));
  const Bytes body = Wire().u32(3).u32(4).str("echo");
  for (size_t cut = 8; cut < body.size(); ++cut)
    EXPECT_EQ(tqdb_api_ping_handle(make_env(0x21000, std::span(body).first(cut)).get(), buf, 64),
              nullptr) << cut;
  EXPECT_EQ(tqdb_api_ping_handle(make_env(0x20004, body).get(), buf, 64), nullptr);
}

TEST(Session, DiagAppendsStringsInOrderUntilFewerThanFourBytes) {
  const std::string long_line(300, 'd');
  const Bytes body = Wire().u32(1).u32(2).str("first").str(long_line).str("").str("last").u16(0);
  const uint32_t before = live_entries("tqdb_api_session_diag_handle");
  ListPtr list(tq_list_append(nullptr, tq_zalloc("test", 4)));
  static_cast<char *>(list->data)[0] = 'x';
  tq_list_t *head = tqdb_api_session_diag_handle(make_env(0x21000, body).get(), list.release());
  list.reset(head);
  EXPECT_EQ(strings_of(list.get()),
            (std::vector<std::string>{"x", "first", long_line.substr(0, 254), "", "last"}));
  EXPECT_EQ(live_entries("tqdb_api_session_diag_handle"), before + 4);
  EXPECT_EQ(tqdb_api_session_diag_handle(make_env(0x20003, body).get(), head), head);

  // Cut anywhere: exactly the strings that arrived whole.
  const Bytes two = Wire().u32(1).u32(2).str("ab").str("cde");
  for (size_t cut = 8; cut <= two.size(); ++cut) {
    ListPtr l(tqdb_api_session_diag_handle(make_env(0x21000, std::span(two).first(cut)).get(), nullptr));
    const size_t whole = cut >= 8 + 7 + 8 ? 2 : cut >= 8 + 7 ? 1 : 0;
    EXPECT_EQ(strings_of(l.get()).size(), whole) << cut;
  }
}
