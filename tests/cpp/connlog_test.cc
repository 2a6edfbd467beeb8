// The connection log client: the search request, and the search decoder's
// texts for bodies cut at each group, state across the replies of one answer.
#include <gtest/gtest.h>

#include <cstring>
#include <memory>
#include <string>

#include "support/wire.h"
#include "tq_list.h"
#include "tqdb_api_connlog.h"

using namespace tqtest;

namespace {

struct ResultFree {
  void operator()(tqdb_api_connlog_result_t *r) const { tqdb_api_connlog_result_free(r); }
};
using ResultPtr = std::unique_ptr<tqdb_api_connlog_result_t, ResultFree>;

Wire head() { return Wire().u32(7).u32(1); }
// Kind 1, IPv4 (family 0) or IPv6 (1), service id 1, vnos 7 and 9. Offsets
// behind the kind byte: group 1 [1,11), addresses [11,19) / [11,43), then
// 32 bytes of group 5, 12 of the NAT group, the count and the values.
Bytes entry(uint8_t family, uint32_t start = 100) {
  Wire w;
  w.u8(1).u32(start).u32(start + 5).u8(family).u8(6);
  for (int i = 0; i < (family == 1 ? 8 : 2); ++i) w.u32(0x0A000001u + i);
  w.u16(40000).u16(443).u64(10).u64(20).u32(1).u32(0).u32(3);
  w.u32(0xC0000201).u16(5000).u32(0xCB00710A).u16(443);
  return w.u32(2).u32(7).u32(9);
}
Bytes cut(Bytes b, size_t n) { return Bytes(b.begin(), b.begin() + static_cast<long>(n)); }
Bytes meta() {
  return Wire().u8(4).u32(2).u32(2).u32(2).u64(100).u64(200).u8(1).u32(3).u64(5).u64(6)
      .u32(1).str("slow disk");
}

int decode(tqdb_api_connlog_result_t *r, const Bytes &items, CorruptLog *log = nullptr) {
  EnvPtr env = make_env(0x21000, Wire(head()).raw(items), log ? CorruptLog::cb : nullptr, log);
  return tqdb_api_connlog_search_handle(env.get(), r);
}

}  // namespace

TEST(ConnlogRequest, FilterIsByteExactInTableOrder) {
  tqdb_api_connlog_filter_t f{};
  f.starttime = 0x100000002;
  std::strcpy(f.server, "192.0.2.1");
  f.serverport = 443;
  std::strcpy(f.natserver, "2001:db8::1");
  f.max_hits = 50;
  f.offset = 10;
  HandlePtr h(tqdb_api_handle_new());
  ASSERT_EQ(tqdb_api_connlog_search(h.get(), 7, &f), 1u);
  EXPECT_EQ(drain_wbuf(h.get()),
            frame(0x19B01, Wire().u32(7).u32(1).u64(0x100000002).u64(0).str("192.0.2.1")
                               .u32(443).str("").u32(0).str("").str("").u32(0).u32(0).str("")
                               .u32(0).str("2001:db8::1").u32(0).u32(50).u32(10)));
}

// Each failure text from an item cut (or spoilt) at its place; a good entry
// goes first and is dropped with the failure, kept on success.
TEST(ConnlogDecoder, EveryFailureHasItsText) {
  Bytes bad_family = entry(0);
  bad_family[9] = 2;
  const Bytes v4 = entry(0), v6 = entry(1);
  const struct {
    Bytes items;
    int ret;
    const char *error;
    bool cut;
  } rows[] = {
      {{}, 1, "No error", false},
      {cut(v4, 10), 0, "Error parsing entry (1)", true},
      {cut(v4, 18), 0, "Error parsing entry (2)", true},
      {cut(v6, 42), 0, "Error parsing entry (3)", true},
      {cut(bad_family, 11), 0, "Error parsing entry (4)", false},
      {cut(v4, 50), 0, "Error parsing entry (5)", true},
      {cut(v4, 62), 0, "Error parsing entry (6)", true},
      {cut(v4, 66), 0, "Error parsing entry (7)", true},
      {cut(v4, 70), 0, "Error reading vno", true},
      {Wire().u8(2).u16(0), 1, "Error reading strings from stringtable init", true},
      {Wire().u8(3).u16(1), 0, "Error reading id from stringtable", true},
      {Wire().u8(3).u32(1).u32(9).raw("ab"), 0, "Error reading string from stringtable", true},
      {cut(meta(), 29), 0, "Error parsing metadata", true},
      {cut(meta(), 44), 0, "Error parsing per cond match", true},
      {cut(meta(), 52), 0, "Error parsing warning", true},
      {Wire().u8(5), 0, "Unknown reply type", false},
      {Wire().u8(0), 0, "Unknown reply type", false},
  };
  for (const auto &row : rows) {
    ResultPtr r(tqdb_api_connlog_result_new());
    CorruptLog log;
    EXPECT_EQ(decode(r.get(), Wire().raw(v4).raw(row.items), &log), row.ret) << row.error;
    EXPECT_STREQ(r->error, row.error);
    EXPECT_EQ(tq_list_length(r->entries), row.ret == 1 ? 1u : 0u) << row.error;
    EXPECT_EQ(log.calls, row.cut ? 1 : 0) << row.error;
  }
}

// The string table and the entries carry over the replies of one answer; a
// later reply that fails keeps what earlier ones gave.
TEST(ConnlogDecoder, ContinuesAcrossReplies) {
  ResultPtr r(tqdb_api_connlog_result_new());
  ASSERT_EQ(decode(r.get(), Wire().u8(2).u32(1).u8(3).u32(1).str("HTTPS").raw(entry(0, 100))), 1);
  ASSERT_EQ(decode(r.get(), Wire().raw(entry(1, 200)).raw(meta())), 1);
  EXPECT_EQ(decode(r.get(), cut(entry(0, 300), 18)), 0);
  ASSERT_EQ(tq_list_length(r->entries), 2u);
  const auto *first = static_cast<tqdb_api_connlog_recv_entry_t *>(r->entries->data);
  const auto *second = static_cast<tqdb_api_connlog_recv_entry_t *>(r->entries->next->data);
  EXPECT_EQ(r->entries_tail, r->entries->next);
  EXPECT_EQ(first->start, 100u);
  EXPECT_EQ(second->start, 200u);
  EXPECT_EQ(second->server[3], 0x0A000008u);
  EXPECT_EQ(second->natserverport, 443);
  EXPECT_EQ(reinterpret_cast<uintptr_t>(second->vnos->next->data), 9u);
  EXPECT_STREQ(tqdb_api_connlog_string(r.get(), second->service), "HTTPS");
  EXPECT_STREQ(tqdb_api_connlog_string(r.get(), second->serverhostname), "");
  EXPECT_EQ(r->meta.n_matches, 2u);
  EXPECT_EQ(r->meta.matches[1], 6u);
  EXPECT_STREQ(static_cast<const char *>(r->meta.warnings->data), "slow disk");
  EXPECT_STREQ(r->error, "Error parsing entry (2)");
  EnvPtr ok = make_env(0x20003, head());
  EXPECT_EQ(tqdb_api_connlog_search_handle(ok.get(), r.get()), 0);
  EXPECT_EQ(tq_list_length(r->entries), 2u);
}
