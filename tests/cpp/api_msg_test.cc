// The reply envelope and the request header.
#include <gtest/gtest.h>

#include <string>

#include "support/wire.h"
#include "tq_msg.h"
#include "tq_ringbuf.h"
#include "tqdb_api.h"

using namespace tqtest;

namespace {

struct Shape {
  uint32_t code;
  uint32_t type;
  bool session, cid, text;
};

// The reply codes as the appliance numbers them, with what follows the code.
constexpr Shape kShapes[] = {
    {0x20001, 0, false, false, false}, {0x20002, 1, true, false, false},
    {0x20003, 2, true, true, false},   {0x20004, 3, true, true, true},
    {0x20005, 4, true, true, true},    {0x20006, 5, true, true, true},
    {0x21000, 6, true, true, false},   {0x20007, 7, false, false, false},
    {0x20008, 8, true, false, true},   {0x20009, 9, false, false, false},
    {0x20010, 10, false, false, false}, {0x20012, 11, true, false, true},
};

}  // namespace

TEST(Envelope, EveryCodeTakesItsHeaderWordsAndText) {
  // Words and text are present for every type, followed by one body byte, so
  // each type must take exactly its own share and leave the rest.
  const Bytes payload = Wire().u32(0x11223344).u32(0x55667788).str("why").u8(0xEE);
  for (const Shape &s : kShapes) {
    SCOPED_TRACE(s.code);
    EnvPtr env = make_env(s.code, payload);
    ASSERT_NE(env, nullptr);
    EXPECT_EQ(tqdb_api_msg_get_type(env.get()), s.type);
    EXPECT_EQ(tqdb_api_msg_get_session(env.get()), s.session ? 0x11223344u : 0u);
    const uint32_t cid_word = s.session ? 0x55667788u : 0x11223344u;
    EXPECT_EQ(tqdb_api_msg_get_cid(env.get()), s.cid ? cid_word : 0u);
    if (s.text && s.cid) {
      EXPECT_STREQ(tqdb_api_msg_get_error(env.get()), "why");
    }
    if (!s.text) {
      EXPECT_STREQ(tqdb_api_msg_get_error(env.get()), "");
      EXPECT_EQ(tqdb_api_msg_get_msg(env.get())->rpos, 4 * (s.session + s.cid));
    }
  }
  // Session word, text, one body byte: a detached notice and type 8 carry no cid.
  const Bytes notice = Wire().u32(9).str("gone").u8(0xEE);
  for (uint32_t code : {0x20008u, 0x20012u}) {
    EnvPtr env = make_env(code, notice);
    ASSERT_NE(env, nullptr);
    EXPECT_EQ(tqdb_api_msg_get_session(env.get()), 9u);
    EXPECT_EQ(tqdb_api_msg_get_cid(env.get()), 0u);
    EXPECT_STREQ(tqdb_api_msg_get_error(env.get()), "gone");
    EXPECT_EQ(tqdb_api_msg_get_msg(env.get())->rpos, notice.size() - 1);
  }
}

TEST(Envelope, NonCodesAndMissingHeaderWordsGiveNoEnvelope) {
  const Bytes payload = Wire().u32(1).u32(2).str("x");
  for (uint32_t code : {0x2000Au, 0x2000Bu, 0x2000Cu, 0x2000Du, 0x2000Eu, 0x2000Fu, 0x20011u,
                        0x20000u, 0x20013u, 0x21001u, 0x20FFFu, 0x10001u, 0x0u})
    EXPECT_EQ(make_env(code, payload), nullptr) << std::hex << code;

  // OK needs 8 bytes of header, broadcast 4; one byte short is no envelope and
  // no report (the callback is for bodies, not headers).
  CorruptLog log;
  EXPECT_EQ(make_env(0x20003, Wire().u32(1).u16(2), CorruptLog::cb, &log), nullptr);
  EXPECT_EQ(make_env(0x20002, Wire().u16(0).u8(1), CorruptLog::cb, &log), nullptr);
  EXPECT_EQ(log.calls, 0);
  EXPECT_NE(make_env(0x20002, Wire().u32(1), CorruptLog::cb, &log), nullptr);

  EXPECT_EQ(tqdb_api_msg_new(nullptr, nullptr, nullptr), nullptr);
  EXPECT_EQ(tqdb_api_msg_get_type(nullptr), uint32_t{TQDB_API_MSG_TYPE_CRITICAL});
  EXPECT_EQ(tqdb_api_msg_get_msg(nullptr), nullptr);
  tqdb_api_msg_free(nullptr);
}

TEST(Envelope, TextKeeps511AndSkipsTheRest) {
  // Wire lengths around the 512-byte field: all kept up to 511, cut above.
  for (uint32_t len : {0u, 1u, 511u, 512u, 513u, 600u}) {
    SCOPED_TRACE(len);
    std::string text(len, 'a');
    for (size_t i = 0; i < text.size(); ++i) text[i] = static_cast<char>('a' + i % 26);
    if (len > 0) text.back() = '\0';
    CorruptLog log;
    EnvPtr env = make_env(0x20004, Wire().u32(1).u32(2).u32(len).raw(text).u32(0xCAFEBABE),
                          CorruptLog::cb, &log);
    ASSERT_NE(env, nullptr);
    const std::string kept = text.substr(0, std::min<size_t>(len, 511)).c_str();
    EXPECT_EQ(std::string(tqdb_api_msg_get_error(env.get())), kept);
    tq_msg_t *body = tqdb_api_msg_get_msg(env.get());
    EXPECT_EQ(body->rpos, 8 + 4 + len);  // right behind the whole text
    uint32_t marker = 0;
    EXPECT_TRUE(tq_msg_get_uint32(body, &marker));
    EXPECT_EQ(marker, 0xCAFEBABEu);
    EXPECT_EQ(log.calls, 0);
  }
}

TEST(Envelope, TextCutAtEveryPositionReportsOnce) {
  const Bytes full = Wire().u32(7).u32(8).str("resource held by bob");
  for (size_t cut = 0; cut <= full.size(); ++cut) {
    SCOPED_TRACE(cut);
    CorruptLog log;
    EnvPtr env = make_env(0x20006, std::span(full).first(cut), CorruptLog::cb, &log);
    if (cut < 8) {
      EXPECT_EQ(env, nullptr);
      EXPECT_EQ(log.calls, 0);
      continue;
    }
    ASSERT_NE(env, nullptr);
    EXPECT_EQ(tqdb_api_msg_get_cid(env.get()), 8u);
    const tq_msg_t *body = tqdb_api_msg_get_msg(env.get());
    EXPECT_LE(body->rpos, body->len);
    // Never a byte from behind the body (poisoned with 0xA5).
    EXPECT_EQ(std::string(tqdb_api_msg_get_error(env.get())).find('\xA5'), std::string::npos);
    if (cut == full.size()) {
      EXPECT_STREQ(tqdb_api_msg_get_error(env.get()), "resource held by bob");
      EXPECT_EQ(log.calls, 0);
      continue;
    }
    EXPECT_EQ(log.calls, 1);
    EXPECT_EQ(log.function, "tqdb_api_msg_new");
    EXPECT_EQ(log.file, "msg.c");
    EXPECT_EQ(log.line, 88);
    // The callback is gone: a decoder reporting the same envelope later is silent.
    tqdb_api_msg_corrupt(env.get(), "later", "x.c", 1);
    EXPECT_EQ(log.calls, 1);
  }
}

TEST(RequestHeader, CorrelationIdsRunFromOneAndSkipZero) {
  HandlePtr h(tqdb_api_handle_new());
  ASSERT_NE(h, nullptr);
  EXPECT_EQ(tqdb_api_request_new(nullptr, 0x10103, 1, nullptr), nullptr);

  uint32_t cid = 0;
  for (uint32_t expect : {1u, 2u}) {
    MsgPtr m(tqdb_api_request_new(h.get(), 0x10103, 0xA1B2C3D4, &cid));
    ASSERT_NE(m, nullptr);
    EXPECT_EQ(cid, expect);
    EXPECT_EQ(m->type, 0x10103u);
    EXPECT_EQ(Bytes(m->data, m->data + m->len), Bytes(Wire().u32(0xA1B2C3D4).u32(expect)));
  }
  h->cid = 0xFFFFFFFE;
  for (uint32_t expect : {0xFFFFFFFEu, 0xFFFFFFFFu, 1u, 2u}) {
    MsgPtr m(tqdb_api_request_new(h.get(), 0x10101, 0, &cid));
    EXPECT_EQ(cid, expect);
  }
  MsgPtr no_out(tqdb_api_request_new(h.get(), 0x10101, 0, nullptr));  // still advances
  EXPECT_EQ(h->cid, 4u);

  // The shared tail queues the frame whole, frees the message, returns the id.
  MsgPtr req(tqdb_api_request_new(h.get(), 0x10105, 5, &cid));
  EXPECT_EQ(tqdb_api_request_finish(h.get(), req.release(), cid), 4u);
  EXPECT_EQ(drain_wbuf(h.get()), frame(0x10105, Wire().u32(5).u32(4)));
  EXPECT_EQ(tqdb_api_request_finish(h.get(), nullptr, 9), 0u);
}
