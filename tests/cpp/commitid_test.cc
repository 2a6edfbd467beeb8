// Commit ids: wire bytes, the log text that must fit whole, cut input,
// bounded copies and the printed form.
#include <gtest/gtest.h>

#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "tq_commitid.h"
#include "tq_log.h"
#include "tq_msg.h"

namespace {

std::unique_ptr<tq_msg_t> make_msg(const std::vector<uint8_t> &bytes = {}) {
  auto m = std::make_unique<tq_msg_t>();
  tq_msg_init(m.get(), 0);
  if (!bytes.empty()) std::memcpy(m->data, bytes.data(), bytes.size());
  m->len = uint16_t(bytes.size());
  return m;
}

std::vector<uint8_t> bytes_of(const tq_msg_t &m) { return {m.data, m.data + m.len}; }

tq_commitid_t make_id(uint64_t seq, uint64_t ts, const char *sys, const char *log) {
  tq_commitid_t c;
  std::memset(&c, 0x5a, sizeof c);  // no help from zeroed memory
  c.seqno = seq;
  c.timestamp = ts;
  std::strcpy(c.systemid, sys);
  std::strcpy(c.log, log);
  return c;
}

void put_str(std::vector<uint8_t> &b, const std::string &s) {
  const uint32_t n = uint32_t(s.size() + 1);
  for (int sh = 24; sh >= 0; sh -= 8) b.push_back(uint8_t(n >> sh));
  b.insert(b.end(), s.begin(), s.end());
  b.push_back(0);
}

TEST(CommitId, WireBytes) {
  const tq_commitid_t c = make_id(0x0102030405060708ull, 0xF1E2D3C4B5A69788ull, "SYS", "hi");
  auto m = make_msg();
  const char *log = tq_commitid_msg_put(&c, m.get());
  const std::vector<uint8_t> want = {
      0x01, 0x02, 0x03, 0x04, 0x05, 0x06, 0x07, 0x08,  // sequence number
      0xF1, 0xE2, 0xD3, 0xC4, 0xB5, 0xA6, 0x97, 0x88,  // time stamp
      0x00, 0x00, 0x00, 0x04, 'S', 'Y', 'S', 0x00,     // system id
      0x00, 0x00, 0x00, 0x03, 'h', 'i', 0x00,          // log text
  };
  EXPECT_EQ(bytes_of(*m), want);
  EXPECT_EQ(log, reinterpret_cast<const char *>(m->data + 28));

  // Longest texts the fields hold: 19 and 511 characters.
  const std::string sys19(19, 's'), log511(511, 'l');
  const tq_commitid_t big = make_id(0, 0, sys19.c_str(), log511.c_str());
  m = make_msg();
  log = tq_commitid_msg_put(&big, m.get());
  ASSERT_EQ(m->len, 8 + 8 + 4 + 20 + 4 + 512);
  EXPECT_EQ(std::vector<uint8_t>(m->data + 16, m->data + 20), (std::vector<uint8_t>{0, 0, 0, 20}));
  EXPECT_EQ(std::vector<uint8_t>(m->data + 40, m->data + 44), (std::vector<uint8_t>{0, 0, 2, 0}));
  ASSERT_NE(log, nullptr);
  EXPECT_EQ(std::string(log), log511);

  // Unterminated fields go out cut to what the receiver's field holds.
  tq_commitid_t raw = big;
  std::memset(raw.systemid, 'z', sizeof raw.systemid);
  std::memset(raw.log, 'q', sizeof raw.log);
  m = make_msg();
  ASSERT_NE(tq_commitid_msg_put(&raw, m.get()), nullptr);
  ASSERT_EQ(m->len, 8 + 8 + 4 + 20 + 4 + 512);
  EXPECT_EQ(m->data[16 + 4 + 18], 'z');
  EXPECT_EQ(m->data[16 + 4 + 19], 0);
  EXPECT_EQ(m->data[m->len - 2], 'q');
  EXPECT_EQ(m->data[m->len - 1], 0);
}

TEST(CommitId, LogTextMustFitWhole) {
  const tq_commitid_t c = make_id(7, 8, "SYS", "hi");
  const size_t head = 8 + 8 + 8;  // numbers and system id
  const size_t whole = head + 4 + 3;

  auto m = make_msg();
  m->len = uint16_t(TQ_MSG_MAX_DATA - whole);
  const uint16_t start = m->len;
  const char *log = tq_commitid_msg_put(&c, m.get());
  ASSERT_NE(log, nullptr);
  EXPECT_EQ(m->len, TQ_MSG_MAX_DATA);
  EXPECT_STREQ(log, "hi");
  EXPECT_EQ(log, reinterpret_cast<const char *>(m->data + start + head + 4));

  // One byte short: the log text is not written at all, not even its count.
  m = make_msg();
  m->len = uint16_t(TQ_MSG_MAX_DATA - whole + 1);
  EXPECT_EQ(tq_commitid_msg_put(&c, m.get()), nullptr);
  EXPECT_EQ(m->len, TQ_MSG_MAX_DATA - whole + 1 + head);

  m = make_msg();
  m->len = uint16_t(TQ_MSG_MAX_DATA);
  EXPECT_EQ(tq_commitid_msg_put(&c, m.get()), nullptr);
  EXPECT_EQ(m->len, TQ_MSG_MAX_DATA);
}

TEST(CommitId, DecodeAndCutInput) {
  std::vector<uint8_t> wire = {0, 0, 0, 0, 0, 0, 0x01, 0x00, 0xFF, 0xFF, 0xFF, 0xFF,
                               0xFF, 0xFF, 0xFF, 0xFE};
  put_str(wire, "node-1");
  put_str(wire, "commit message");

  for (size_t cut = 0; cut <= wire.size(); ++cut) {
    SCOPED_TRACE(cut);
    // The whole record is in the buffer: only len may stop the reader.
    auto m = make_msg(wire);
    m->len = uint16_t(cut);
    tq_commitid_t c = make_id(1, 1, "old", "old");
    const bool ok = tq_commitid_msg_get(&c, m.get());
    EXPECT_EQ(ok, cut == wire.size());
    EXPECT_LE(m->rpos, cut);
    if (ok) {
      EXPECT_EQ(c.seqno, 0x100u);
      EXPECT_EQ(c.timestamp, 0xFFFFFFFFFFFFFFFEull);
      EXPECT_STREQ(c.systemid, "node-1");
      EXPECT_STREQ(c.log, "commit message");
      EXPECT_EQ(m->rpos, wire.size());
    }
  }

  // Texts longer than the fields are cut and the reader stays in step.
  std::vector<uint8_t> lng(16, 0);
  put_str(lng, std::string(30, 'S'));
  put_str(lng, std::string(600, 'L'));
  lng.push_back(0x42);
  auto m = make_msg(lng);
  tq_commitid_t c;
  ASSERT_TRUE(tq_commitid_msg_get(&c, m.get()));
  EXPECT_EQ(std::string(c.systemid), std::string(19, 'S'));
  EXPECT_EQ(std::string(c.log), std::string(511, 'L'));
  EXPECT_EQ(m->rpos, lng.size() - 1);
}

TEST(CommitId, ClearCopyToString) {
  tq_commitid_t c = make_id(~0ull, 0, "abc", "x y");
  char buf[128];
  tq_commitid_to_string(&c, buf, sizeof buf);
  EXPECT_STREQ(buf, "SeqNo=18446744073709551615 TimeStamp=0 SystemID='abc' Log='x y'");
  std::memset(buf, '#', sizeof buf);
  tq_commitid_to_string(&c, buf, 10);
  EXPECT_STREQ(buf, "SeqNo=184");
  EXPECT_EQ(buf[10], '#');

  tq_commitid_t d = make_id(5, 6, "a much longer name", "and a longer log text");
  tq_commitid_copy(&d, &c);
  EXPECT_EQ(d.seqno, ~0ull);
  EXPECT_EQ(d.timestamp, 0u);
  EXPECT_STREQ(d.systemid, "abc");
  EXPECT_STREQ(d.log, "x y");

  // An unterminated source is kept to its field's bound.
  std::memset(c.systemid, 'z', sizeof c.systemid);
  std::memset(c.log, 'q', sizeof c.log);
  tq_commitid_copy(&d, &c);
  EXPECT_EQ(std::string(d.systemid), std::string(19, 'z'));
  EXPECT_EQ(std::string(d.log), std::string(511, 'q'));
  std::string printed(600, '#');
  tq_commitid_to_string(&c, printed.data(), printed.size());
  EXPECT_EQ(printed.substr(0, printed.find('\0')),
            "SeqNo=18446744073709551615 TimeStamp=0 SystemID='" + std::string(19, 'z') +
                "' Log='" + std::string(511, 'q') + "'");

  tq_commitid_clear(&d);
  EXPECT_EQ(d.seqno, 0u);
  EXPECT_EQ(d.timestamp, 0u);
  EXPECT_STREQ(d.systemid, "");
  EXPECT_STREQ(d.log, "");
  tq_commitid_to_string(&d, buf, sizeof buf);
  EXPECT_STREQ(buf, "SeqNo=0 TimeStamp=0 SystemID='' Log=''");
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
