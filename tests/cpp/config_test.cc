// Configuration, services, features, restart and reload, log facilities:
// request bytes, and the decoders on every kind of reply.
#include <gtest/gtest.h>

#include <ctime>
#include <functional>
#include <string>
#include <tuple>
#include <vector>

#include "support/sim_process.h"
#include "support/wire.h"
#include "tq_list.h"
#include "tq_malloc.h"
#include "tqdb_api_config.h"

using namespace tqtest;

namespace {

Wire reply() { return Wire().u32(7).u32(1); }
uint32_t live(const char *label) {
  tq_malloc_stat_t st{};
  return tq_malloc_stat(label, &st) ? st.entries : 0;
}
template <class T>
std::vector<T> records(const tq_list_t *l) {
  std::vector<T> out;
  for (; l; l = l->next) out.push_back(*static_cast<const T *>(l->data));
  return out;
}

const tqdb_api_service_cmd_t kCmds[] = {{"sshd", "stop"}, {"ntpd", "start"}};
const tqdb_api_service_setting_t kSettings[] = {{"sshd", "port", "2222"}};

}  // namespace

// Every request with its code and body; restart and reload go for session 0
// and carry their reason only when it fits whole behind the header.
#define REQ(call, code, session, ...) \
  {[&](tqdb_api_handle_t *h) { return call; }, code, session, Wire() __VA_ARGS__}
TEST(ConfigRequests, BodiesAreByteExact) {
  const std::string fits(32768 - 8 - 5, 'r'), too_long = fits + "r";
  const struct {
    std::function<uint32_t(tqdb_api_handle_t *)> call;
    uint32_t code, session;
    Bytes body;
  } rows[] = {
      REQ(tqdb_api_config_list(h, 7), 0x19400, 7),
      REQ(tqdb_api_config_set(h, 7, "system.dns", "192.0.2.1"), 0x19401, 7,
          .str("system.dns").str("192.0.2.1")),
      REQ(tqdb_api_config_category_list(h, 7), 0x19403, 7),
      REQ(tqdb_api_config_flags_list(h, 7), 0x19404, 7),
      REQ(tqdb_api_services_cmd(h, 7, kCmds, {}), 0x19600, 7,
          .u32(2).str("sshd").str("stop").str("ntpd").str("start")),
      REQ(tqdb_api_services_cmd(h, 7, {}, kSettings), 0x19603, 7,
          .u32(0).u32(1).str("sshd").str("port").str("2222")),
      REQ(tqdb_api_services_list(h, 7), 0x19601, 7),
      REQ(tqdb_api_services_prop_list(h, 7), 0x19602, 7),
      REQ(tqdb_api_features_get(h, 7), 0x19700, 7),
      REQ(tqdb_api_log_facility_reset(h, 7), 0x1A102, 7),
      REQ(tqdb_api_log_facility_list(h, 7), 0x1A103, 7),
      REQ(tqdb_api_log_facility_set_level(h, 7, "TCP", 8), 0x1A104, 7, .str("TCP").u32(8)),
      REQ(tqdb_api_system_time(h, 7), 0x1A401, 7),
      REQ(tqdb_api_restart(h, nullptr), 0x10002, 0),
      REQ(tqdb_api_restart(h, ""), 0x10002, 0, .str("")),
      REQ(tqdb_api_restart(h, "upgrade"), 0x10002, 0, .str("upgrade")),
      REQ(tqdb_api_restart(h, fits.c_str()), 0x10002, 0, .str(fits)),
      REQ(tqdb_api_restart(h, too_long.c_str()), 0x10002, 0),
      REQ(tqdb_api_reload(h, nullptr), 0x10003, 0),
      REQ(tqdb_api_reload(h, "new rules"), 0x10003, 0, .str("new rules")),
  };
  HandlePtr h(tqdb_api_handle_new());
  uint32_t cid = 0;
  for (const auto &r : rows) {
    ASSERT_EQ(r.call(h.get()), ++cid);
    EXPECT_EQ(drain_wbuf(h.get()), frame(r.code, Wire().u32(r.session).u32(cid).raw(r.body)))
        << cid;
  }
}

TEST(Features, EveryKindOfReply) {
  const struct { uint32_t code; Bytes body; uint64_t want; int corrupt; } rows[] = {
      {0x21000, reply().u64(0x0000'0000'0000'0A06), 0xA06, 0},
      {0x21000, reply().u64(~0ull - 1).u8(9), ~0ull - 1, 0},  // what follows is not looked at
      {0x21000, reply().u32(0xFFF).u16(0).u8(0), 0, 1},       // 7 bytes
      {0x21000, reply().u32(0xFFF), 0, 1},
      {0x21000, reply(), 0, 1},
      {0x20003, reply(), ~0ull, 0},
      {0x20004, reply().str("refused"), ~0ull, 0},
      {0x20006, reply().str("locked"), ~0ull, 0},
  };
  for (const auto &r : rows) {
    CorruptLog log;
    EXPECT_EQ(tqdb_api_features_get_handle(make_env(r.code, r.body, CorruptLog::cb, &log).get()),
              r.want);
    EXPECT_EQ(log.calls, r.corrupt);
    if (r.corrupt) {
      EXPECT_EQ(log.function, "tqdb_api_features_get_handle");
    }
  }
  EXPECT_EQ(tqdb_api_features_get_handle(nullptr), ~0ull);
}

// Each notice decoder takes only its own type; the reason is cut to the
// buffer.
TEST(Notices, OwnTypeAndOneString) {
  using Fn = bool (*)(tqdb_api_msg_t *, char *, size_t);
  const struct {
    Fn fn;
    uint32_t code;
    Bytes body;
    bool ok;
    std::string text;
    int corrupt;
  } rows[] = {
      {tqdb_api_restarting_handle, 0x20009, Wire().str("upgrade"), true, "upgrade", 0},
      {tqdb_api_restarting_handle, 0x20009, Wire().str(""), true, "", 0},
      {tqdb_api_restarting_handle, 0x20009, Wire().str("0123456789"), true, "0123456", 0},
      {tqdb_api_restarting_handle, 0x20009, Wire(), false, "", 1},
      {tqdb_api_restarting_handle, 0x20009, Wire().u32(5).raw("ab"), false, "", 1},
      {tqdb_api_restarting_handle, 0x20010, Wire().str("x"), false, "?", 0},
      {tqdb_api_reloading_handle, 0x20010, Wire().str("rules"), true, "rules", 0},
      {tqdb_api_reloading_handle, 0x20009, Wire().str("x"), false, "?", 0},
      {tqdb_api_reloading_handle, 0x21000, reply().str("x"), false, "?", 0},
  };
  for (const auto &r : rows) {
    CorruptLog log;
    char buf[8] = "?";
    EXPECT_EQ(r.fn(make_env(r.code, r.body, CorruptLog::cb, &log).get(), buf, sizeof buf), r.ok);
    EXPECT_EQ(buf, r.text);
    EXPECT_EQ(log.calls, r.corrupt);
  }
}

// A record the body cannot give ends the list silently; the index counts on
// across replies decoded into one list.
TEST(LogFacilities, CutShortAndContinued) {
  Wire w = reply();
  const size_t header = w.size();
  w.str("Interface").u32(6);
  const size_t second = w.size();
  w.str(std::string(300, 'F')).u32(8);
  const uint32_t was = live("tqdb_api_log_level_t");
  for (size_t cut = header; cut <= w.size(); ++cut) {
    SCOPED_TRACE(cut);
    CorruptLog log;
    tq_list_t *l = tqdb_api_log_facility_list_handle(
        make_env(0x21000, std::span(w.bytes()).first(cut), CorruptLog::cb, &log).get(), nullptr);
    EXPECT_EQ(tq_list_length(l), (cut >= second) + (cut == w.size()) + 0u);
    EXPECT_EQ(log.calls, 0);
    tqdb_api_config_list_free(l);
    EXPECT_EQ(live("tqdb_api_log_level_t"), was);
  }
  tq_list_t *l = tqdb_api_log_facility_list_handle(make_env(0x21000, w).get(), nullptr);
  l = tqdb_api_log_facility_list_handle(make_env(0x20003, reply()).get(), l);
  l = tqdb_api_log_facility_list_handle(make_env(0x21000, reply().str("TCP").u32(3)).get(), l);
  std::vector<std::tuple<std::string, uint32_t, uint32_t>> got;
  for (const auto &r : records<tqdb_api_log_level_t>(l))
    got.emplace_back(r.name, r.level, r.index);
  EXPECT_EQ(got,
            (decltype(got){{"Interface", 6, 0}, {std::string(255, 'F'), 8, 1}, {"TCP", 3, 2}}));
  tqdb_api_config_list_free(l);
}

// The record lists: fields in order, texts cut to 255, a record cut short
// ends the list and is reported once.
TEST(ConfigLists, RecordsAndCuts) {
  Wire w = reply();
  w.str("system.dns").str("192.0.2.1").str("192.0.2.53").str("network").str(std::string(260, 'd'));
  w.u32(3).u32(1);
  const size_t second = w.size();
  w.str("shaping.max_rate").str("1").str("2").str("shaping").str("").u32(2).u32(0);
  for (size_t cut : {second, second + 3, second + 30, w.size() - 1, w.size()}) {
    CorruptLog log;
    tq_list_t *l = tqdb_api_config_list_handle(
        make_env(0x21000, std::span(w.bytes()).first(cut), CorruptLog::cb, &log).get(), nullptr);
    ASSERT_EQ(tq_list_length(l), cut == w.size() ? 2u : 1u) << cut;
    EXPECT_EQ(log.calls, cut >= second + 4 && cut < w.size() ? 1 : 0) << cut;
    const auto v = records<tqdb_api_configvalue_t>(l)[0];
    EXPECT_EQ(std::tuple(std::string(v.key), std::string(v.value), std::string(v.default_value),
                         std::string(v.category), std::string(v.description), v.type, v.flags),
              std::tuple(std::string("system.dns"), std::string("192.0.2.1"),
                         std::string("192.0.2.53"), std::string("network"), std::string(255, 'd'),
                         3u, 1u));
    tqdb_api_config_list_free(l);
  }

  tq_list_t *c = tqdb_api_config_category_list_handle(
      make_env(0x21000, reply().u32(4).str("statistics").str("Stats")).get(), nullptr);
  tq_list_t *f = tqdb_api_config_flags_list_handle(
      make_env(0x21000, reply().u32(2).str("reboot").str("After reboot")).get(), nullptr);
  tq_list_t *s = tqdb_api_services_list_handle(
      make_env(0x21000, reply().str("sshd").str("Secure shell").u8(1).u8(0)).get(), nullptr);
  tq_list_t *p = tqdb_api_services_prop_list_handle(
      make_env(0x21000, reply().str("sshd").str("port").str("22")).get(), nullptr);
  const auto cat = records<tqdb_api_config_category_t>(c)[0];
  const auto flag = records<tqdb_api_config_flag_t>(f)[0];
  const auto svc = records<tqdb_api_service_t>(s)[0];
  const auto prop = records<tqdb_api_service_prop_t>(p)[0];
  EXPECT_EQ(std::tuple(cat.id, std::string(cat.name), std::string(cat.description)),
            std::tuple(4u, std::string("statistics"), std::string("Stats")));
  EXPECT_EQ(std::tuple(flag.flag, std::string(flag.name)), std::tuple(2u, std::string("reboot")));
  EXPECT_EQ(std::tuple(std::string(svc.name), svc.running, svc.enabled),
            std::tuple(std::string("sshd"), uint8_t{1}, uint8_t{0}));
  EXPECT_EQ(std::tuple(std::string(prop.service), std::string(prop.property),
                       std::string(prop.value)),
            std::tuple(std::string("sshd"), std::string("port"), std::string("22")));
  for (tq_list_t *l : {c, f, s, p}) tqdb_api_config_list_free(l);
  EXPECT_EQ(tqdb_api_system_time_handle(make_env(0x21000, reply().u64(1700000000)).get()),
            1700000000u);
}

// The two requests no script reaches, against tqdbsim ($TQDBSIM): the level
// reset inside a transaction on resource 9, and the appliance's clock.
TEST(SimLogsAndClock, ResetAndSystemTime) {
  if (sim_binary().empty()) GTEST_SKIP() << "TQDBSIM is not set";
  SimProcess sim;
  ASSERT_TRUE(sim.start({"--user", "admin:admin"}));
  SimSession ss;
  ASSERT_TRUE(ss.open(sim.port()));
  SimClient &c = ss.c;
  const uint32_t s = ss.s;
  const auto type_of = [&](uint32_t cid) { return tqdb_api_msg_get_type(ss.take(cid).get()); };
  const auto tcp_level = [&] {
    uint32_t level = 99;
    for (const EnvPtr &env : ss.many(tqdb_api_log_facility_list(c.h(), s))) {
      tq_list_t *l = tqdb_api_log_facility_list_handle(env.get(), nullptr);
      for (const auto &r : records<tqdb_api_log_level_t>(l))
        if (std::string(r.name) == "TCP") level = r.level;
      tqdb_api_config_list_free(l);
    }
    return level;
  };
  EXPECT_EQ(type_of(tqdb_api_log_facility_reset(c.h(), s)), TQDB_API_MSG_TYPE_ERROR);
  EXPECT_EQ(type_of(tqdb_api_resource_begin(c.h(), s, TQDB_RESOURCE_LOGS, 0)),
            TQDB_API_MSG_TYPE_DATA);
  EXPECT_EQ(type_of(tqdb_api_log_facility_set_level(c.h(), s, "TCP", 1)), TQDB_API_MSG_TYPE_OK);
  EXPECT_EQ(tcp_level(), 1u);
  EXPECT_EQ(type_of(tqdb_api_log_facility_reset(c.h(), s)), TQDB_API_MSG_TYPE_OK);
  EXPECT_EQ(tcp_level(), 6u);

  const uint64_t before = static_cast<uint64_t>(time(nullptr));
  const uint64_t t = tqdb_api_system_time_handle(ss.take(tqdb_api_system_time(c.h(), s)).get());
  EXPECT_TRUE(t >= before && t <= before + 5) << t;
}
