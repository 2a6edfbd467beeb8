// The file service and backups: request bytes, listings, the upload machine
// at its budget boundaries, the start reply's rules, downloads cut short.
#include <gtest/gtest.h>

#include <cstring>
#include <functional>
#include <string>
#include <tuple>
#include <vector>

#include "support/wire.h"
#include "tq_list.h"
#include "tqdb_api_backup.h"
#include "tqdb_api_fileserv.h"

using namespace tqtest;

namespace {

constexpr uint32_t kData = 0x21000, kOk = 0x20003, kError = 0x20004;

EnvPtr reply(std::span<const uint8_t> body, uint32_t code = kData, CorruptLog *log = nullptr) {
  return make_env(code, Wire().u32(7).u32(1).raw(body), log ? CorruptLog::cb : nullptr, log);
}

// An input over bytes in memory; fail makes every read an error.
struct Source {
  Bytes data;
  size_t pos = 0;
  bool fail = false;
  static ptrdiff_t read(void *ctx, void *buf, size_t size) {
    auto *s = static_cast<Source *>(ctx);
    if (s->fail) return -1;
    const size_t n = std::min(size, s->data.size() - s->pos);
    if (n != 0) std::memcpy(buf, s->data.data() + s->pos, n);  // an empty vector has no data()
    s->pos += n;
    return static_cast<ptrdiff_t>(n);
  }
};
Bytes pattern(size_t n) {
  Bytes b(n);
  for (size_t i = 0; i < n; ++i) b[i] = static_cast<uint8_t>(i * 7 % 251);
  return b;
}

// Both families' upload functions over one record type each.
template <class Rec>
struct Family {
  uint32_t data, finish;
  bool typed;
  uint32_t (*start)(tqdb_api_handle_t *, uint32_t, Rec *);
  int (*reply)(tqdb_api_msg_t *, Rec *);
  uint32_t (*next)(tqdb_api_handle_t *, uint32_t, Rec *);
};
const Family<tqdb_api_fileserv_upload_t> kFiles{
    0x1A206, 0x1A205, true, tqdb_api_fileserv_upload, tqdb_api_fileserv_upload_handle_data,
    tqdb_api_fileserv_upload_continue};
const Family<tqdb_api_backup_upload_t> kBackups{
    0x19F07, 0x19F08, false, tqdb_api_backup_upload, tqdb_api_backup_upload_handle,
    tqdb_api_backup_upload_continue};

using Chunks = std::vector<uint16_t>;  // one data message; empty: built, not sent
const struct {
  size_t size;
  std::vector<Chunks> messages;
} kSizes[] = {
    {0, {{}}},
    {1, {{1}}},
    {4096, {{4096}}},
    {4097, {{4096, 1}}},
    {31767, {{4096, 4096, 4096, 4096, 4096, 4096, 4096, 3095}}},
    {31768, {{4096, 4096, 4096, 4096, 4096, 4096, 4096, 3096}, {}}},
    {31769, {{4096, 4096, 4096, 4096, 4096, 4096, 4096, 3096}, {1}}},
    {65536,
     {{4096, 4096, 4096, 4096, 4096, 4096, 4096, 3096},
      {4096, 4096, 4096, 4096, 4096, 4096, 4096, 3096},
      {2000}}},
};

template <class Rec>
void upload_every_size(const Family<Rec> &fam) {
  for (const auto &row : kSizes) {
    SCOPED_TRACE(row.size);
    HandlePtr h(tqdb_api_handle_new());
    Source src{pattern(row.size)};
    Rec up{};
    std::strcpy(up.target_name, "f.bin");
    up.target_type = 6;
    up.input = {Source::read, &src};
    ASSERT_EQ(fam.start(h.get(), 7, &up), 1u);
    drain_wbuf(h.get());
    ASSERT_EQ(fam.reply(reply(Wire().u32(0xABCD)).get(), &up), 1);
    uint32_t cid = 1;
    size_t at = 0;
    for (const Chunks &msg : row.messages) {
      ASSERT_EQ(fam.next(h.get(), 7, &up), ++cid);
      Wire body = Wire().u32(7).u32(cid).u32(0xABCD);
      for (uint16_t n : msg) {
        body.u16(n).raw(std::span(src.data).subspan(at, n));
        at += n;
      }
      EXPECT_EQ(drain_wbuf(h.get()), msg.empty() ? Bytes{} : frame(fam.data, body));
    }
    EXPECT_EQ(at, row.size);
    EXPECT_EQ(up.state, 3u);
    ASSERT_EQ(fam.next(h.get(), 7, &up), ++cid);
    Wire fin = Wire().u32(7).u32(cid);
    if (fam.typed) fin.u32(6);
    EXPECT_EQ(drain_wbuf(h.get()), frame(fam.finish, fin.u32(0xABCD).str("f.bin")));
    EXPECT_EQ(fam.next(h.get(), 7, &up), 0u);
    EXPECT_EQ(up.state, 4u);
    EXPECT_EQ(up.failed, 0u);
  }
}

template <class T>
std::vector<T> records(const tq_list_t *l) {
  std::vector<T> out;
  for (; l; l = l->next) out.push_back(*static_cast<const T *>(l->data));
  return out;
}

}  // namespace

#define REQ(call, code, ...) {[&](tqdb_api_handle_t *h) { return call; }, code, Wire() __VA_ARGS__}
TEST(FileservRequests, BodiesAreByteExact) {
  tqdb_api_fileserv_upload_t fu{"doc.pdf", 7, 0, 0, {}, 0};
  tqdb_api_backup_upload_t bu{};
  std::strcpy(bu.target_name, "b1");
  const struct {
    std::function<uint32_t(tqdb_api_handle_t *)> call;
    uint32_t code;
    Bytes body;
  } rows[] = {
      REQ(tqdb_api_fileserv_list(h, 7, 3), 0x1A201, .u32(3)),
      REQ(tqdb_api_fileserv_remove(h, 7, 3, "a.txt"), 0x1A202, .u32(3).str("a.txt")),
      REQ(tqdb_api_fileserv_download(h, 7, 3, "a.txt"), 0x1A203, .u32(3).str("a.txt")),
      REQ(tqdb_api_fileserv_upload(h, 7, &fu), 0x1A204, .u32(7).str("doc.pdf")),
      REQ(tqdb_api_fileserv_types(h, 7), 0x1A207),
      REQ(tqdb_api_fileserv_upload_abort(h, 7, 99), 0x1A600, .u32(99)),
      REQ(tqdb_api_fileserv_area_usage(h, 7, 8), 0x1A601, .u32(8)),
      REQ(tqdb_api_backup_list(h, 7), 0x19F01),
      REQ(tqdb_api_backup_download(h, 7, "b1"), 0x19F02, .str("b1")),
      REQ(tqdb_api_backup_upload(h, 7, &bu), 0x19F03, .str("b1")),
      REQ(tqdb_api_backup_dump(h, 7, "b1", 0), 0x19F04, .str("b1").u32(0)),
      REQ(tqdb_api_backup_restore(h, 7, "b1", 3), 0x19F05, .str("b1").u32(3)),
      REQ(tqdb_api_backup_remove(h, 7, "b1"), 0x19F06, .str("b1")),
      REQ(tqdb_api_backup_upload_abort(h, 7, 99), 0x19F09, .u32(99)),
  };
  HandlePtr h(tqdb_api_handle_new());
  uint32_t cid = 0;
  for (const auto &r : rows) {
    ASSERT_EQ(r.call(h.get()), ++cid);
    EXPECT_EQ(drain_wbuf(h.get()), frame(r.code, Wire().u32(7).u32(cid).raw(r.body))) << cid;
  }
  EXPECT_EQ(fu.state, 1u);
  EXPECT_EQ(bu.state, 1u);
}

TEST(FileservListings, RecordsInOrderAcrossRepliesAndCutShort) {
  tq_list_t *l =
      tqdb_api_fileserv_types_handle(reply(Wire().u32(6).u32(1).str("MIB")).get(), nullptr);
  l = tqdb_api_fileserv_types_handle(reply(Wire().u32(8).u32(2).str("PCAP 1")).get(), l);
  const auto t = records<tqdb_api_fileserv_type_t>(l);
  ASSERT_EQ(t.size(), 2u);
  EXPECT_EQ(std::to_string(t[0].id) + t[0].name + std::to_string(t[1].flags) + t[1].name,
            "6MIB2PCAP 1");
  EXPECT_EQ(tqdb_api_fileserv_types_handle(reply({}, kOk).get(), l), l);  // not DATA: unchanged
  tqdb_api_fileserv_list_free(l);

  // Files and backups share the record shape; 26 bytes end the first record.
  const Bytes body = Wire().str("a.mib").u64(1ull << 40).u64(1700000000).str("b").u64(5).u64(6);
  for (size_t cut = 0; cut <= body.size(); ++cut) {
    CorruptLog log;
    tq_list_t *f = tqdb_api_fileserv_list_handle(
        reply(std::span(body).first(cut), kData, &log).get(), nullptr);
    tq_list_t *b = tqdb_api_backup_list_handle(reply(std::span(body).first(cut)).get(), nullptr);
    const auto fs = records<tqdb_api_fileserv_file_t>(f);
    const auto bs = records<tqdb_api_backup_t>(b);
    const size_t whole = cut == body.size() ? 2 : cut >= 26 ? 1 : 0;
    ASSERT_EQ(fs.size() * 10 + bs.size(), whole * 11) << cut;
    EXPECT_EQ(log.calls, cut == 0 || cut == 26 || cut == body.size() ? 0 : 1) << cut;
    if (whole == 2) {
      EXPECT_EQ(fs[0].size + fs[1].mtime + bs[0].cdate + bs[1].size, (2ull << 40) + 12);
      EXPECT_EQ(fs[0].mtime + bs[0].size, 3400000000u);
      EXPECT_EQ(std::string(fs[1].name) + bs[0].path, "ba.mib");
    }
    tqdb_api_fileserv_list_free(f);
    tqdb_api_backup_list_free(b);
  }
  char name[8];
  EXPECT_STREQ(tqdb_api_backup_dump_handle(reply(Wire().str("nightly-2")).get(), name, 8),
               "nightly");
  EXPECT_EQ(tqdb_api_backup_dump_handle(reply({}, kOk).get(), name, 8), nullptr);
  uint64_t used = 1, allowed = 1;
  EXPECT_TRUE(
      tqdb_api_fileserv_area_usage_handle(reply(Wire().u64(10).u64(20)).get(), &used, &allowed));
  EXPECT_EQ(used * 100 + allowed, 1020u);
  EXPECT_FALSE(tqdb_api_fileserv_area_usage_handle(reply(Wire().u64(10)).get(), &used, &allowed));
}

TEST(Upload, FilesAtEveryBudgetBoundary) { upload_every_size(kFiles); }
TEST(Upload, BackupsAtEveryBudgetBoundary) { upload_every_size(kBackups); }

// The start reply by state and type: what the record holds afterwards.
TEST(Upload, StartReplyRules) {
  const struct {
    bool backup;
    uint32_t state;
    uint32_t code;
    Bytes body;
    uint32_t want_state, want_failed, want_tid;
  } rows[] = {
      {false, 1, kData, Wire().u32(77), 2, 0, 77},
      {false, 1, kData, {}, 2, 1, 0},                       // too short for the id
      {false, 1, kOk, Wire().u32(77), 1, 1, 0},             // files take DATA only
      {true, 1, kOk, Wire().u32(77), 2, 0, 77},             // backups take an OK too
      {true, 1, kError, Wire().str("refused"), 1, 1, 0},
      {false, 2, kData, Wire().u32(77), 2, 1, 0},           // a second reply
      {false, 0, kData, Wire().u32(77), 0, 1, 0},
      {false, 4, kData, Wire().u32(77), 4, 0, 0},           // done: nothing happens
      {false, 4, kError, Wire().str("x"), 4, 1, 0},
  };
  for (const auto &r : rows) {
    SCOPED_TRACE(r.state * 100 + r.backup);
    tqdb_api_fileserv_upload_t f{};
    tqdb_api_backup_upload_t b{};
    f.state = b.state = r.state;
    const EnvPtr env = reply(r.body, r.code);
    const int ok = r.backup ? tqdb_api_backup_upload_handle(env.get(), &b)
                            : tqdb_api_fileserv_upload_handle_data(env.get(), &f);
    const auto got = r.backup ? std::tuple(b.state, b.failed, b.transfer_id, ok)
                              : std::tuple(f.state, f.failed, f.transfer_id, ok);
    EXPECT_EQ(got, std::tuple(r.want_state, r.want_failed, r.want_tid, r.want_failed ? 0 : 1));
  }
}

TEST(Upload, ContinueByStateAndFailures) {
  HandlePtr h(tqdb_api_handle_new());
  Source src{pattern(10)};
  // state -> (result, failed); 2 with an input that fails to read.
  const uint32_t rows[][3] = {{0, 0, 1}, {1, 0, 1}, {2, 0, 1}, {4, 0, 0}, {5, 1, 0}};
  src.fail = true;
  for (const auto &r : rows) {
    tqdb_api_fileserv_upload_t up{};
    up.state = r[0];
    up.input = {Source::read, &src};
    EXPECT_EQ(tqdb_api_fileserv_upload_continue(h.get(), 7, &up) * 10 + up.failed, r[1] * 10 + r[2])
        << r[0];
  }
  EXPECT_TRUE(drain_wbuf(h.get()).empty());
  tqdb_api_fileserv_upload_t none{};  // no handle: not queued, failed
  EXPECT_EQ(tqdb_api_fileserv_upload(nullptr, 7, &none) + none.state * 10 + none.failed, 1u);
}

namespace {
bool collect(void *ctx, const void *buf, size_t n) {
  auto *out = static_cast<Bytes *>(ctx);
  out->insert(out->end(), static_cast<const uint8_t *>(buf), static_cast<const uint8_t *>(buf) + n);
  return true;
}
}  // namespace

TEST(Download, AcrossRepliesAndCutAtEveryPosition) {
  Bytes got;
  const tqdb_api_transfer_output_t out{collect, &got};
  uint32_t insize = 0;
  EXPECT_EQ(tqdb_api_fileserv_download_handle(reply(Wire().u32(9).u16(5).raw("hello")).get(), out,
                                              &insize), 1);
  EXPECT_EQ(insize, 9u);
  // Later replies carry chunks only; a reply of another type writes nothing.
  EXPECT_EQ(tqdb_api_backup_download_handle(reply(Wire().u16(1).raw(" ").u16(3).raw("you")).get(),
                                            out, &insize), 1);
  EXPECT_EQ(tqdb_api_fileserv_download_handle(reply(Wire().u16(1).raw("!"), kOk).get(), out,
                                              &insize), 0);
  EXPECT_EQ(std::string(got.begin(), got.end()), "hello you");
  EXPECT_EQ(insize, 9u);

  // Size, a chunk of 2, a chunk of 3: whole chunks before the cut are
  // written, a cut inside a field or a chunk gives 0 and a report.
  const Bytes body = Wire().u32(5).u16(2).raw("ab").u16(3).raw("cde");
  for (size_t cut = 0; cut <= body.size(); ++cut) {
    got.clear();
    insize = 0;
    CorruptLog log;
    const int r = tqdb_api_fileserv_download_handle(
        reply(std::span(body).first(cut), kData, &log).get(), out, &insize);
    const bool boundary = cut == 4 || cut == 8 || cut == body.size();
    EXPECT_EQ(r, boundary ? 1 : 0) << cut;
    EXPECT_EQ(log.calls, boundary ? 0 : 1) << cut;
    EXPECT_EQ(std::string(got.begin(), got.end()), cut >= 13 ? "abcde" : cut >= 8 ? "ab" : "")
        << cut;
  }
}
