// User accounts and public keys: request bytes, the reply decoders, and the
// digest the simulator keeps passwords under.
#include <gtest/gtest.h>

#include <functional>
#include <string>
#include <tuple>
#include <vector>

#include "../../sim/sha256.h"
#include "support/wire.h"
#include "tq_list.h"
#include "tq_malloc.h"
#include "tqdb_api_user.h"

using namespace tqtest;

namespace {

Wire reply() { return Wire().u32(7).u32(1); }
EnvPtr answer(std::span<const uint8_t> body, CorruptLog *log = nullptr) {
  return make_env(0x21000, body, log != nullptr ? CorruptLog::cb : nullptr, log);
}
const Bytes kOk = Wire().u32(7).u32(1);
Wire &user(Wire &w, uint32_t id, std::string_view name, std::string_view hosts) {
  return w.u32(id).str(name).u32(0x1F).u32(0x8).u32(0).u32(300).u32(2).str(hosts);
}
uint32_t live(const char *label) {
  tq_malloc_stat_t st{};
  return tq_malloc_stat(label, &st) ? st.entries : 0;
}

}  // namespace

#define REQ(call, code, ...) {[&](tqdb_api_handle_t *h) { return call; }, code, Wire() __VA_ARGS__}
TEST(UserRequests, BodiesAreByteExact) {
  const struct { std::function<uint32_t(tqdb_api_handle_t *)> call; uint32_t code; Bytes body; } rows[] = {
      REQ(tqdb_api_user_list(h, 7), 0x19201),
      REQ(tqdb_api_user_add(h, 7, "bob", "pw", 1, 2, 3, 60, 5, "10.0.0.0/8"), 0x19202,
          .str("bob").str("pw").u32(1).u32(2).u32(3).u32(60).u32(5).str("10.0.0.0/8")),
      REQ(tqdb_api_user_modify(h, 7, 9, "bob", "", 0xFFFFFFFF, 0, 0, 0, 0, ""), 0x19203,
          .u32(9).str("bob").str("").u32(0xFFFFFFFF).u32(0).u32(0).u32(0).u32(0).str("")),
      REQ(tqdb_api_user_remove(h, 7, 9), 0x19204, .u32(9)),
      REQ(tqdb_api_user_auth(h, 7, "bob", "pw", "192.0.2.1"), 0x19205, .str("bob").str("pw").str("192.0.2.1")),
      REQ(tqdb_api_user_get(h, 7, "bob"), 0x19206, .str("bob")),
      REQ(tqdb_api_user_pubkey_add(h, 7, "bob", "ssh-rsa AAAA"), 0x19207, .str("bob").str("ssh-rsa AAAA")),
      REQ(tqdb_api_user_pubkey_remove(h, 7, "bob", "k"), 0x19208, .str("bob").str("k")),
      REQ(tqdb_api_user_pubkey_clear(h, 7, "bob"), 0x19209, .str("bob")),
      REQ(tqdb_api_user_pubkey_list(h, 7, "bob"), 0x1920A, .str("bob")),
  };
  HandlePtr h(tqdb_api_handle_new());
  uint32_t cid = 0;
  for (const auto &r : rows) {
    ASSERT_EQ(r.call(h.get()), ++cid);
    EXPECT_EQ(drain_wbuf(h.get()), frame(r.code, Wire().u32(7).u32(cid).raw(r.body))) << cid;
  }
}

// Two users; every cut of the second keeps the first whole and reports the
// cut once (a cut inside the first record's id is no record at all).
TEST(UserList, RecordsCutAndContinued) {
  Wire w = reply();
  const size_t second = user(w, 1, "admin", "").size();
  user(w, 2, std::string(70, 'n'), "10.0.0.0/8 192.0.2.7");
  for (size_t cut = second; cut <= w.size(); ++cut) {
    SCOPED_TRACE(cut);
    CorruptLog log;
    tq_list_t *l = tqdb_api_user_list_handle(answer(std::span(w.bytes()).first(cut), &log).get(), nullptr);
    ASSERT_EQ(tq_list_length(l), cut == w.size() ? 2u : 1u);
    EXPECT_EQ(log.calls, cut >= second + 4 && cut < w.size() ? 1 : 0);
    const auto &a = *static_cast<tqdb_api_user_t *>(l->data);
    EXPECT_EQ(std::tuple(a.id, std::string(a.name), a.readbm, a.writebm, a.survbm, a.timeout, a.flags),
              std::tuple(1u, std::string("admin"), 0x1Fu, 0x8u, 0u, 300u, 2u));
    if (l->next) {
      const auto &b = *static_cast<tqdb_api_user_t *>(l->next->data);
      EXPECT_EQ(std::string(b.name), std::string(64, 'n'));  // cut to the record's size
      EXPECT_STREQ(b.hosts, "10.0.0.0/8 192.0.2.7");
    }
    tqdb_api_user_list_free(l);
  }
  // Appended behind what it is given; another reply type adds nothing.
  tq_list_t *l = tqdb_api_user_list_handle(answer(w).get(), nullptr);
  EXPECT_EQ(tqdb_api_user_list_handle(answer(w).get(), l), l);
  EXPECT_EQ(tqdb_api_user_list_handle(make_env(0x20003, kOk).get(), l), l);
  ASSERT_EQ(tq_list_length(l), 4u);
  EXPECT_EQ(static_cast<tqdb_api_user_t *>(l->next->next->data)->id, 1u);
  tqdb_api_user_list_free(l);
}

TEST(UserAnswers, NumbersAndKeys) {
  const struct { uint32_t code; Bytes body; uint32_t want; int corrupt; } numbers[] = {
      {0x21000, reply().u32(42), 42, 0},
      {0x21000, reply().u8(0).u8(0).u8(1), 0, 1},  // cut short
      {0x20003, kOk, 0, 0},                        // not DATA: nothing
  };
  for (const auto &n : numbers) {
    for (auto fn : {tqdb_api_user_add_handle, tqdb_api_user_auth_handle}) {
      CorruptLog log;
      EXPECT_EQ(fn(make_env(n.code, n.body, CorruptLog::cb, &log).get()), n.want);
      EXPECT_EQ(log.calls, n.corrupt);
    }
  }

  const uint32_t was = live("user::pubkey");
  const std::string big(5000, 'k');
  Wire keys = reply();
  keys.str("ssh-ed25519 AAAA a@b").str(big);
  CorruptLog log;
  tq_list_t *l = tqdb_api_user_pubkey_list_handle(answer(keys).get(), nullptr);
  l = tqdb_api_user_pubkey_list_handle(answer(reply().str("k3").u32(9).raw("x"), &log).get(), l);
  std::vector<std::string> got;
  for (tq_list_t *n = l; n; n = n->next) got.emplace_back(static_cast<char *>(n->data));
  EXPECT_EQ(got, (std::vector<std::string>{"ssh-ed25519 AAAA a@b", big.substr(0, 4096), "k3"}));
  EXPECT_EQ(log.calls, 1);
  EXPECT_EQ(live("user::pubkey"), was + 3);
  tqdb_api_user_list_free(l);
  EXPECT_EQ(live("user::pubkey"), was);
}

// FIPS 180-4 examples, and lengths around the padding's block boundary.
TEST(Sha256, StandardVectors) {
  const struct { std::string in; const char *hex; } rows[] = {
      {"", "e3b0c44298fc1c149afbf4c8996fb92427ae41e4649b934ca495991b7852b855"},
      {"abc", "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad"},
      {"abcdbcdecdefdefgefghfghighijhijkijkljklmklmnlmnomnopnopq",
       "248d6a61d20638b8e5c026930c3e6039a33ce45964ff2167f6ecedd419db06c1"},
      {"abcdefghbcdefghicdefghijdefghijkefghijklfghijklmghijklmnhijklmnoijklmnopjklmnopqklmnopqrlmnopqrsmnopqrstnopqrstu",
       "cf5b16a778af8380036ce59e7b0492370b249b11e8f07a51afac45037afee9d1"},
      {std::string(1000000, 'a'), "cdc76e5c9914fb9281a1c7e284d73e67f1809a48a497200e046d39ccc7112cd0"},
  };
  for (const auto &r : rows) EXPECT_EQ(tqsim::to_hex(tqsim::sha256(r.in)), r.hex) << r.in.size();
}
