// Commit ids: wire bytes, the log text that must fit whole, cut input,
// bounded copies and the printed form.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "tq_commitid.h"
#include "tq_log.h"
#include "tq_msg.h"

namespace {

using Bytes = std::vector<uint8_t>;

std::unique_ptr<tq_msg_t> make_msg(const Bytes &bytes = {}) {
  auto m = std::make_unique<tq_msg_t>();
  tq_msg_init(m.get(), 0);
  std::copy(bytes.begin(), bytes.end(), m->data);
  m->len = uint16_t(bytes.size());
  return m;
}

// A text as long as its field or longer is stored without a terminator.
template <size_t N>
void fill(char (&field)[N], const std::string &s) {
  std::memcpy(field, s.data(), std::min(N, s.size()));
  if (s.size() < N) field[s.size()] = '\0';
}

tq_commitid_t make_id(uint64_t seq, uint64_t ts, const std::string &sys, const std::string &log) {
  tq_commitid_t c;
  std::memset(&c, 0x5a, sizeof c);  // no help from zeroed memory
  c.seqno = seq;
  c.timestamp = ts;
  fill(c.systemid, sys);
  fill(c.log, log);
  return c;
}

void put_str(Bytes &b, const std::string &s) {
  const uint32_t n = uint32_t(s.size() + 1);
  for (int sh = 24; sh >= 0; sh -= 8) b.push_back(uint8_t(n >> sh));
  b.insert(b.end(), s.begin(), s.end());
  b.push_back(0);
}

std::string to_string(const tq_commitid_t &c) {
  std::string s(700, '#');
  tq_commitid_to_string(&c, s.data(), s.size());
  return s.substr(0, s.find('\0'));
}

TEST(CommitId, WireBytes) {
  const Bytes head = {0x01, 0x02, 0x03, 0x04, 0x05, 0x06, 0x07, 0x08,   // sequence number
                      0xF1, 0xE2, 0xD3, 0xC4, 0xB5, 0xA6, 0x97, 0x88};  // time stamp
  // {system id, log text, what goes out}: the longest texts the fields hold
  // go whole, unterminated ones are cut to what the receiver's field holds.
  const std::string s19(19, 's'), l511(511, 'l');
  struct Case { std::string sys, log, sys_out, log_out; };
  for (const Case &c : {Case{"SYS", "hi", "SYS", "hi"}, Case{s19, l511, s19, l511},
                        Case{std::string(20, 'z'), std::string(512, 'q'), std::string(19, 'z'),
                             std::string(511, 'q')}}) {
    SCOPED_TRACE(c.sys_out);
    const tq_commitid_t id = make_id(0x0102030405060708ull, 0xF1E2D3C4B5A69788ull, c.sys, c.log);
    auto m = make_msg();
    const char *log = tq_commitid_msg_put(&id, m.get());
    Bytes want = head;
    put_str(want, c.sys_out);
    put_str(want, c.log_out);
    EXPECT_EQ(Bytes(m->data, m->data + m->len), want);
    EXPECT_EQ(log, reinterpret_cast<const char *>(m->data + 16 + 4 + c.sys_out.size() + 1 + 4));
  }
}

TEST(CommitId, LogTextMustFitWhole) {
  const tq_commitid_t c = make_id(7, 8, "SYS", "hi");
  const size_t head = 8 + 8 + 8;  // numbers and system id
  const size_t whole = head + 4 + 3;
  auto m = make_msg();
  m->len = uint16_t(TQ_MSG_MAX_DATA - whole);
  const char *log = tq_commitid_msg_put(&c, m.get());
  EXPECT_EQ(m->len, TQ_MSG_MAX_DATA);
  EXPECT_STREQ(log, "hi");
  EXPECT_EQ(log, reinterpret_cast<const char *>(m->data + TQ_MSG_MAX_DATA - 3));

  // One byte short: the log text is not written at all, not even its count.
  for (size_t len : {TQ_MSG_MAX_DATA - whole + 1, size_t{TQ_MSG_MAX_DATA}}) {
    m = make_msg();
    m->len = uint16_t(len);
    EXPECT_EQ(tq_commitid_msg_put(&c, m.get()), nullptr);
    EXPECT_EQ(m->len, std::min<size_t>(len + head, TQ_MSG_MAX_DATA)) << len;
  }
}

TEST(CommitId, DecodeAndCutInput) {
  Bytes wire = {0, 0, 0, 0, 0, 0, 0x01, 0x00, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFE};
  put_str(wire, "node-1");
  put_str(wire, "commit message");
  for (size_t cut = 0; cut <= wire.size(); ++cut) {
    // The whole record is in the buffer: only len may stop the reader.
    auto m = make_msg(wire);
    m->len = uint16_t(cut);
    tq_commitid_t c = make_id(1, 1, "old", "old");
    const bool ok = tq_commitid_msg_get(&c, m.get());
    EXPECT_EQ(ok, cut == wire.size()) << cut;
    EXPECT_LE(m->rpos, cut);
  }
  auto m = make_msg(wire);
  tq_commitid_t c;
  ASSERT_TRUE(tq_commitid_msg_get(&c, m.get()));
  EXPECT_EQ(to_string(c),
            "SeqNo=256 TimeStamp=18446744073709551614 SystemID='node-1' Log='commit message'");
  EXPECT_EQ(m->rpos, wire.size());

  // Texts longer than the fields are cut and the reader stays in step.
  Bytes lng(16, 0);
  put_str(lng, std::string(30, 'S'));
  put_str(lng, std::string(600, 'L'));
  lng.push_back(0x42);
  m = make_msg(lng);
  ASSERT_TRUE(tq_commitid_msg_get(&c, m.get()));
  EXPECT_EQ(std::string(c.systemid), std::string(19, 'S'));
  EXPECT_EQ(std::string(c.log), std::string(511, 'L'));
  EXPECT_EQ(m->rpos, lng.size() - 1);
}

TEST(CommitId, ClearCopyToString) {
  tq_commitid_t c = make_id(~0ull, 0, "abc", "x y");
  const std::string printed = "SeqNo=18446744073709551615 TimeStamp=0 SystemID='abc' Log='x y'";
  EXPECT_EQ(to_string(c), printed);
  char buf[16];
  std::memset(buf, '#', sizeof buf);
  tq_commitid_to_string(&c, buf, 10);
  EXPECT_STREQ(buf, "SeqNo=184");
  EXPECT_EQ(buf[10], '#');

  tq_commitid_t d = make_id(5, 6, "a much longer name", "and a longer log text");
  tq_commitid_copy(&d, &c);
  EXPECT_EQ(to_string(d), printed);
  // An unterminated source is kept to its field's bound.
  fill(c.systemid, std::string(20, 'z'));
  fill(c.log, std::string(512, 'q'));
  tq_commitid_copy(&d, &c);
  const std::string bounded = "SeqNo=18446744073709551615 TimeStamp=0 SystemID='" +
                              std::string(19, 'z') + "' Log='" + std::string(511, 'q') + "'";
  EXPECT_EQ(to_string(d), bounded);
  EXPECT_EQ(to_string(c), bounded);

  tq_commitid_clear(&d);
  EXPECT_EQ(to_string(d), "SeqNo=0 TimeStamp=0 SystemID='' Log=''");
}

TEST(CommitIdDeathTest, ClearedIdIsFatal) {
  tq_log_reset_levels();
  tq_commitid_t c;
  tq_commitid_clear(&c);
  std::strcpy(c.log, "text");
  auto m = make_msg();
  // The condition reads as written in the source: '\0' with its backslash.
  EXPECT_DEATH((void)tq_commitid_msg_put(&c, m.get()),
               "\\[General:Alert\\] TQ-BUG at user/commitid\\.cc:[0-9]+/tq_commitid_msg_put\\(\\): "
               "commitid->systemid\\[0\\] == '\\\\0'  CommitID is cleared\n");
  EXPECT_EQ(m->len, 0);
}

}  // namespace
