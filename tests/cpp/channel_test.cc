// Channels, labels and monitor interfaces: request bytes and the decoders.
#include <gtest/gtest.h>

#include <functional>
#include <string>
#include <tuple>
#include <vector>

#include "support/sim_process.h"
#include "support/wire.h"
#include "tq_list.h"
#include "tq_malloc.h"
#include "tqdb_api_channel.h"

using namespace tqtest;

namespace {

Wire reply() { return Wire().u32(7).u32(1); }
EnvPtr answer(std::span<const uint8_t> body, CorruptLog *log = nullptr) {
  return make_env(0x21000, body, log != nullptr ? CorruptLog::cb : nullptr, log);
}
uint32_t live(const char *label) {
  tq_malloc_stat_t st{};
  return tq_malloc_stat(label, &st) ? st.entries : 0;
}
Wire &channel(Wire &w, uint32_t id, std::string_view label, std::string_view internal) {
  return w.u32(id).u8(1).str(label).str("Slot 1").str(internal).u8(5).str("eth1").u8(0)
      .u32(1).u32(0x70021).u8(3).u8(2);
}
Wire &entry(Wire &w, uint32_t channel) {
  return w.u32(channel).u16(100).u32(1).u32(0xC0000201).u32(0).u32(0).u32(0).u32(0).u32(0xC6336464);
}

}  // namespace

#define REQ(call, code, ...) {[&](tqdb_api_handle_t *h) { return call; }, code, Wire() __VA_ARGS__}
TEST(ChannelRequests, BodiesAreByteExact) {
  tqdb_api_channel_t ch{};
  ch.id = 3;
  ch.active = 1;
  const std::string huge(40000, 'l');
  const tqdb_api_channel_label_channel_t entries[] = {{2, 100, 1, 0xC0000201, 0, 0, 0, 0, 0xC6336464}};
  const struct { std::function<uint32_t(tqdb_api_handle_t *)> call; uint32_t code; Bytes body; } rows[] = {
      REQ(tqdb_api_channel_list(h, 7), 0x12001),
      REQ(tqdb_api_channel_update(h, 7, &ch, "up", 5, 0, 2, 1), 0x12002, .u32(3).u8(1).str("up").u8(5).u8(0).u8(2).u8(1)),
      // A label past the message's limit is left out; the bytes behind it still go.
      REQ(tqdb_api_channel_update(h, 7, &ch, huge.c_str(), 1, 2, 3, 0), 0x12002, .u32(3).u8(1).u8(1).u8(2).u8(3).u8(0)),
      REQ(tqdb_api_channel_set_active(h, 7, 3, 0), 0x12003, .u32(3).u8(0)),
      REQ(tqdb_api_channel_get(h, 7, 3), 0x12004, .u32(3)),
      REQ(tqdb_api_channel_stats(h, 7, 3), 0x12005, .u32(3)),
      REQ(tqdb_api_channel_divert_label_list(h, 7), 0x12011, .u8(2)),
      REQ(tqdb_api_channel_monitor_label_list(h, 7), 0x12011, .u8(3)),
      REQ(tqdb_api_channel_label_add(h, 7, 3, "tap", 9), 0x12012, .u8(3).str("tap").u32(9)),
      REQ(tqdb_api_channel_label_rename(h, 7, 4, "t2", 0), 0x12013, .u32(4).str("t2").u32(0)),
      REQ(tqdb_api_channel_label_channels_set(h, 7, 4, entries), 0x12014, .u32(4).u32(1).u32(2).u16(100).u32(1)
          .u32(0xC0000201).u32(0).u32(0).u32(0).u32(0).u32(0xC6336464)),
      REQ(tqdb_api_channel_label_remove(h, 7, 4), 0x12015, .u32(4)),
      REQ(tqdb_api_monitoriface_list(h, 7), 0x12021),
      REQ(tqdb_api_channel_link_states(h, 7), 0x1A001),
      REQ(tqdb_api_channel_link_toggle(h, 7, 3), 0x1A101, .u32(3)),
  };
  HandlePtr h(tqdb_api_handle_new());
  uint32_t cid = 0;
  for (const auto &r : rows) {
    ASSERT_EQ(r.call(h.get()), ++cid);
    EXPECT_EQ(drain_wbuf(h.get()), frame(r.code, Wire().u32(7).u32(cid).raw(r.body))) << cid;
  }
  // Refused at once: no record, no session, more entries than a message holds.
  const std::vector<tqdb_api_channel_label_channel_t> many(964), fit(963);
  EXPECT_EQ(tqdb_api_channel_update(h.get(), 7, nullptr, "x", 0, 0, 0, 0), 0u);
  EXPECT_EQ(tqdb_api_channel_update(h.get(), 0, &ch, "x", 0, 0, 0, 0), 0u);
  EXPECT_EQ(tqdb_api_channel_label_channels_set(h.get(), 7, 4, many), 0u);
  EXPECT_TRUE(drain_wbuf(h.get()).empty());
  EXPECT_EQ(tqdb_api_channel_label_channels_set(h.get(), 7, 4, fit), cid + 1);
}

// A 300-byte label keeps 255 and a 16-byte interface name 15, the fields
// behind them in place; every cut of the second record keeps the first
// and is reported once.
TEST(ChannelList, LongTextsAndEveryCut) {
  Wire w = reply();
  const size_t second = channel(w, 1, "wan", "eth0").size();
  channel(w, 2, std::string(300, 'L'), "interface-name16");
  const uint32_t was = live("tqdb_api_channel_t");
  for (size_t cut = 8; cut <= w.size(); ++cut) {
    SCOPED_TRACE(cut);
    CorruptLog log;
    tq_list_t *l = tqdb_api_channel_list_handle(answer(std::span(w.bytes()).first(cut), &log).get(), nullptr);
    const size_t want = cut == w.size() ? 2 : cut >= second ? 1 : 0;
    ASSERT_EQ(tq_list_length(l), want);
    EXPECT_EQ(log.calls, cut == 8 || cut == second || cut == w.size() ? 0 : 1);
    if (want == 2) {
      const auto &b = *static_cast<tqdb_api_channel_t *>(l->next->data);
      EXPECT_EQ(std::string(b.label), std::string(255, 'L'));
      EXPECT_STREQ(b.internal, "interface-name1");
      EXPECT_EQ(std::tuple(b.id, b.active, std::string(b.location), b.internal_media, std::string(b.external),
                           b.external_media, b.type, b.caps, b.role, b.direction),
                std::tuple(2u, uint8_t{1}, std::string("Slot 1"), uint8_t{5}, std::string("eth1"), uint8_t{0},
                           1u, 0x70021u, uint8_t{3}, uint8_t{2}));
    }
    tq_list_free_with_data(l);
  }
  EXPECT_EQ(live("tqdb_api_channel_t"), was);
}

// Labels with their entries: every cut keeps the whole labels before it
// and leaves nothing allocated behind; a count the body cannot hold is a
// cut, not an allocation.
TEST(ChannelLabelList, EntriesCutAndReleased) {
  Wire w = reply();
  w.u32(1).str("dpi").u32(5).u32(2);
  entry(entry(w, 2), 1);
  const size_t second = w.size();
  w.u32(2).str("tap").u32(0).u32(0);
  const uint32_t was = live("tqdb_api_channel_label_channel_t");
  for (size_t cut = 8; cut <= w.size(); ++cut) {
    SCOPED_TRACE(cut);
    CorruptLog log;
    tq_list_t *l = tqdb_api_channel_label_list_handle(answer(std::span(w.bytes()).first(cut), &log).get(), nullptr);
    ASSERT_EQ(tq_list_length(l), cut == w.size() ? 2u : cut >= second ? 1u : 0u);
    EXPECT_EQ(log.calls, cut == 8 || cut == second || cut == w.size() ? 0 : 1);
    if (l) {
      const auto &a = *static_cast<tqdb_api_channel_label_t *>(l->data);
      ASSERT_EQ(a.n, 2u);
      EXPECT_EQ(std::tuple(a.channels[0].channel, a.channels[0].vlan, a.channels[0].int_address,
                           a.channels[0].ext_heartbeat, a.channels[1].channel),
                std::tuple(2u, uint16_t{100}, 0xC0000201u, 0xC6336464u, 1u));
    }
    tqdb_api_channel_label_list_free(l);
    EXPECT_EQ(live("tqdb_api_channel_label_channel_t"), was);
  }
  CorruptLog log;
  Wire bad = reply();
  entry(bad.u32(3).str("x").u32(0).u32(0xFFFFFFFF), 1);
  EXPECT_EQ(tqdb_api_channel_label_list_handle(answer(bad, &log).get(), nullptr), nullptr);
  EXPECT_EQ(log.calls, 1);
}

TEST(ChannelAnswers, SmallReplies) {
  Wire ifaces = reply();
  ifaces.u32(1).str("Monitor port").str("monitor-iface-17").u8(5).u32(2).str("Spare").str("mon1");
  CorruptLog log;
  tq_list_t *l = tqdb_api_monitoriface_list_handle(answer(ifaces, &log).get(), nullptr);
  ASSERT_EQ(tq_list_length(l), 1u);
  const auto &m = *static_cast<tqdb_api_monitoriface_t *>(l->data);
  EXPECT_EQ(std::tuple(m.id, std::string(m.description), std::string(m.iface), m.media),
            std::tuple(1u, std::string("Monitor port"), std::string("monitor-iface-1"), uint8_t{5}));
  EXPECT_EQ(log.calls, 1);  // the second one lacks its media byte
  tq_list_free_with_data(l);

  Wire links = reply();
  l = tqdb_api_channel_link_states_handle(answer(links.u32(1).u8(1).u8(0).u32(2).u8(0).u8(1)).get(), nullptr);
  ASSERT_EQ(tq_list_length(l), 2u);
  const auto &k = *static_cast<tqdb_api_channel_link_t *>(l->next->data);
  EXPECT_EQ(std::tuple(k.channel, k.internal_up, k.external_up), std::tuple(2u, uint8_t{0}, uint8_t{1}));
  tq_list_free_with_data(l);

  Wire totals = reply();
  for (uint64_t v = 1; v <= 8; ++v) totals.u64(v << 40 | v);
  uint64_t out[TQDB_API_CHANNEL_STATS_FIELDS];
  ASSERT_TRUE(tqdb_api_channel_stats_handle(answer(totals).get(), out));
  EXPECT_EQ(out[7], uint64_t{8} << 40 | 8);
  EXPECT_FALSE(tqdb_api_channel_stats_handle(answer(std::span(totals.bytes()).first(70)).get(), out));
  EXPECT_EQ(out[0], 0u);

  const struct { uint32_t code; Bytes body; uint32_t want; } adds[] = {
      {0x21000, reply().u32(42), 42}, {0x21000, reply().u8(0).u8(1), 0}, {0x20003, reply(), 0}};
  for (const auto &a : adds) EXPECT_EQ(tqdb_api_channel_label_add_handle(make_env(a.code, a.body).get()), a.want);
}

// Link states and toggles have no scripting method: through the simulator
// here. A toggle flips both sides, is not undone by a rollback, needs the
// LINK_TOGGLE capability and waits for another session's lock.
TEST(ChannelLinks, ToggleAgainstTheSimulator) {
  if (sim_binary().empty()) GTEST_SKIP() << "TQDBSIM is not set";
  SimProcess sim;
  ASSERT_TRUE(sim.start({"--channels", "4"}));
  struct Client : SimSession {
    explicit Client(uint16_t port) { EXPECT_TRUE(open(port)); }
    std::vector<uint32_t> links() {  // channel * 100 + internal up * 10 + external up
      EnvPtr env = take(tqdb_api_channel_link_states(c.h(), s));
      tq_list_t *l = tqdb_api_channel_link_states_handle(env.get(), nullptr);
      std::vector<uint32_t> out;
      for (tq_list_t *n = l; n; n = n->next) {
        const auto *k = static_cast<tqdb_api_channel_link_t *>(n->data);
        out.push_back(k->channel * 100 + k->internal_up * 10u + k->external_up);
      }
      tq_list_free_with_data(l);
      EXPECT_EQ(take(env->cid)->type, uint32_t{TQDB_API_MSG_TYPE_OK});
      return out;
    }
    uint32_t type(uint32_t cid) { EnvPtr env = take(cid); return env ? env->type : 99; }
  } a(sim.port()), b(sim.port());
  EXPECT_EQ(a.links(), (std::vector<uint32_t>{111, 211, 311, 411}));
  EXPECT_EQ(a.type(tqdb_api_resource_begin(a.c.h(), a.s, TQDB_RESOURCE_CHANNELS, 0)), uint32_t{TQDB_API_MSG_TYPE_DATA});
  EXPECT_EQ(a.type(tqdb_api_channel_link_toggle(a.c.h(), a.s, 2)), uint32_t{TQDB_API_MSG_TYPE_OK});
  EXPECT_EQ(b.type(tqdb_api_channel_link_toggle(b.c.h(), b.s, 1)), uint32_t{TQDB_API_MSG_TYPE_LOCK});
  EXPECT_EQ(a.type(tqdb_api_resource_rollback(a.c.h(), a.s)), uint32_t{TQDB_API_MSG_TYPE_OK});
  EXPECT_EQ(b.type(tqdb_api_channel_link_toggle(b.c.h(), b.s, 4)), uint32_t{TQDB_API_MSG_TYPE_ERROR});
  EXPECT_EQ(b.links(), (std::vector<uint32_t>{111, 200, 311, 411}));
  EnvPtr env = b.take(tqdb_api_channel_stats(b.c.h(), b.s, 2));
  uint64_t out[TQDB_API_CHANNEL_STATS_FIELDS];
  ASSERT_TRUE(tqdb_api_channel_stats_handle(env.get(), out));
  EXPECT_EQ(out[2], 200000000u);  // rx speed of an active channel
}
