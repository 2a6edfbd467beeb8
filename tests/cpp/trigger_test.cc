// Host and connection-protection triggers: request bytes (signed
// thresholds included), both list decoders cut at every byte, add answers.
#include <gtest/gtest.h>

#include <functional>
#include <string>
#include <tuple>

#include "support/wire.h"
#include "tq_list.h"
#include "tq_malloc.h"
#include "tqdb_api_trigger.h"

using namespace tqtest;

namespace {

Wire reply() { return Wire().u32(7).u32(1); }
constexpr tqdb_api_hosttrigger_limits_t kLimits{1, 2, 3, 4, 5, 6, 0xFFFFFFFF, -1, -2, 0, 7, INT32_MIN, 42, 3};
Wire limits(Wire w = {}) {
  return w.u32(1).u32(2).u32(3).u32(4).u32(5).u32(6).u32(0xFFFFFFFF).u32(0xFFFFFFFF).u32(0xFFFFFFFE)
      .u32(0).u32(7).u32(0x80000000).u32(42).u32(3);
}
uint32_t live(const char *label) {
  tq_malloc_stat_t st{};
  return tq_malloc_stat(label, &st) ? st.entries : 0;
}

}  // namespace

#define REQ(call, code, ...) {[&](tqdb_api_handle_t *h) { return call; }, code, Wire() __VA_ARGS__}
TEST(TriggerRequests, BodiesAreByteExact) {
  Wire zeros;
  for (int i = 0; i < 14; ++i) zeros.u32(0);
  const struct { std::function<uint32_t(tqdb_api_handle_t *)> call; uint32_t code; Bytes body; } rows[] = {
      REQ(tqdb_api_hosttrigger_list(h, 7), 0x1A301),
      REQ(tqdb_api_hosttrigger_add(h, 7, "t", "s.sh", &kLimits), 0x1A302, .str("t").str("s.sh").raw(limits())),
      REQ(tqdb_api_hosttrigger_add(h, 7, "t", "", nullptr), 0x1A302, .str("t").str("").raw(zeros)),
      REQ(tqdb_api_hosttrigger_remove(h, 7, 9), 0x1A303, .u32(9)),
      REQ(tqdb_api_hosttrigger_update(h, 7, 9, "s.sh", &kLimits), 0x1A304, .u32(9).str("s.sh").raw(limits())),
      REQ(tqdb_api_hosttrigger_rename(h, 7, 9, "u"), 0x1A305, .u32(9).str("u")),
      REQ(tqdb_api_connprot_trigger_list(h, 7), 0x1AA01),
      REQ(tqdb_api_connprot_trigger_add(h, 7, "c", "x.sh"), 0x1AA02, .str("c").str("x.sh")),
      REQ(tqdb_api_connprot_trigger_remove(h, 7, 0xFFFFFFFF), 0x1AA03, .u32(0xFFFFFFFF)),
      REQ(tqdb_api_connprot_trigger_update(h, 7, 9, "y.sh"), 0x1AA04, .u32(9).str("y.sh")),
      REQ(tqdb_api_connprot_trigger_rename(h, 7, 9, "d"), 0x1AA05, .u32(9).str("d")),
  };
  HandlePtr h(tqdb_api_handle_new());
  uint32_t cid = 0;
  for (const auto &r : rows) {
    ASSERT_EQ(r.call(h.get()), ++cid);
    EXPECT_EQ(drain_wbuf(h.get()), frame(r.code, Wire().u32(7).u32(cid).raw(r.body))) << cid;
  }
}

// Two records of each family; every cut of the second keeps the first whole
// and reports the cut once; a cut inside the second's id is no record.
TEST(TriggerLists, RecordsCutAndContinued) {
  using Decode = tq_list_t *(*)(tqdb_api_msg_t *, tq_list_t *);
  const struct { Decode decode; const char *label; bool host; } families[] = {
      {tqdb_api_hosttrigger_list_handle, "tqdb_api_hosttrigger_t", true},
      {tqdb_api_connprot_trigger_list_handle, "tqdb_api_connprot_trigger_t", false},
  };
  for (const auto &f : families) {
    Wire w = reply();
    w.u32(1).str("first").str("a.sh");
    if (f.host) w = limits(w);
    const size_t second = w.size();
    w.u32(2).str(std::string(300, 'n')).str("b.sh");
    if (f.host) w = limits(w);
    const uint32_t was = live(f.label);
    for (size_t cut = second; cut <= w.size(); ++cut) {
      SCOPED_TRACE(cut);
      CorruptLog log;
      tq_list_t *l = f.decode(make_env(0x21000, std::span(w.bytes()).first(cut), CorruptLog::cb, &log).get(), nullptr);
      ASSERT_EQ(tq_list_length(l), cut == w.size() ? 2u : 1u);
      EXPECT_EQ(log.calls, cut >= second + 4 && cut < w.size() ? 1 : 0);
      EXPECT_EQ(live(f.label), was + tq_list_length(l));
      // Both records start alike: id, name, script.
      const auto &a = *static_cast<tqdb_api_connprot_trigger_t *>(l->data);
      EXPECT_EQ(std::tuple(a.id, std::string(a.name), std::string(a.script)), std::tuple(1u, std::string("first"), std::string("a.sh")));
      if (f.host) {
        const auto &lim = static_cast<tqdb_api_hosttrigger_t *>(l->data)->limits;
        EXPECT_EQ(std::tuple(lim.in_bw, lim.uconn_rate, lim.out_ttls, lim.qoe_out_ext, lim.netobject, lim.trigtype),
                  std::tuple(1u, 0xFFFFFFFFu, -1, INT32_MIN, 42u, 3));
      }
      if (l->next) {  // the name cut to the record's 255 characters
        EXPECT_EQ(std::string(static_cast<tqdb_api_connprot_trigger_t *>(l->next->data)->name), std::string(255, 'n'));
      }
      tqdb_api_trigger_list_free(l);
    }
    // Appended behind what it is given; another reply type adds nothing.
    tq_list_t *l = f.decode(make_env(0x21000, w).get(), nullptr);
    EXPECT_EQ(f.decode(make_env(0x21000, w).get(), l), l);
    EXPECT_EQ(f.decode(make_env(0x20003, reply()).get(), l), l);
    ASSERT_EQ(tq_list_length(l), 4u);
    EXPECT_EQ(static_cast<tqdb_api_connprot_trigger_t *>(l->next->next->data)->id, 1u);
    tqdb_api_trigger_list_free(l);
    EXPECT_EQ(live(f.label), was);
  }
}

TEST(TriggerAnswers, NewIds) {
  const struct { uint32_t code; Bytes body; uint32_t want; int corrupt; } rows[] = {
      {0x21000, reply().u32(42), 42, 0},
      {0x21000, reply().u8(0).u8(0).u8(1), 0, 1},  // cut short
      {0x20003, reply(), 0, 0},                    // not DATA
  };
  for (const auto &r : rows) {
    for (auto fn : {tqdb_api_hosttrigger_add_handle, tqdb_api_connprot_trigger_add_handle}) {
      CorruptLog log;
      EXPECT_EQ(fn(make_env(r.code, r.body, CorruptLog::cb, &log).get()), r.want);
      EXPECT_EQ(log.calls, r.corrupt);
    }
  }
}
