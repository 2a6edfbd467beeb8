// tqdbsim's statistics store through the real protocol and the client's
// own statistics-reader and query decoders.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "support/sim_process.h"
#include "support/wire.h"
#include "tq_list.h"
#include "tqdb_api.h"
#include "tqdb_api_query.h"
#include "tqdb_api_statreader.h"

namespace {

using namespace tqtest;
using Node = tqdb_api_statreader_list_node_t;
constexpr uint16_t kNetObject = 513;
constexpr uint64_t kIn = 1, kOut = 2, kTotal = 1024;  // BYTES_IN, BYTES_OUT, BYTES_TOTAL

struct Sim : SimSession {
  SimProcess proc;
  explicit Sim(std::vector<std::string> args) {
    if (!sim_binary().empty() && proc.start(args)) static_cast<void>(open(proc.port()));
  }
  // A list answer: DATA messages into one list until OK.
  std::vector<Node> list(uint32_t cid, int *messages = nullptr) {
    tqdb_api_statreader_list_t *l = nullptr;
    std::vector<Node> out;
    for (EnvPtr e = c.next(); e && e->type == TQDB_API_MSG_TYPE_DATA; e = c.next()) {
      EXPECT_EQ(tqdb_api_msg_get_cid(e.get()), cid);
      if (auto *r = tqdb_api_statreader_list_handle(e.get(), l)) l = r;
      if (messages) ++*messages;
    }
    for (tq_list_t *n = l ? l->nodes : nullptr; n; n = n->next) out.push_back(*static_cast<Node *>(n->data));
    names_.push_back(l);
    return out;
  }
  ~Sim() {
    for (auto *l : names_) tqdb_api_statreader_list_free(l);
  }
  std::vector<tqdb_api_statreader_list_t *> names_;  // keeps the nodes' names alive
};

// The stream of one query as "T3 D D ... Q:notice C Z", its DATA count and end.
struct Stream {
  std::string events, end;
  int data = 0, rows = 0;
};
Stream query(Sim &sim, const char *sql) {
  Stream st;
  tqdb_api_statreader_query_state_t *state = nullptr;
  tqdb_api_statreader_query(&state, sim.c.h(), sim.s, sql);
  tqdb_api_statreader_query_state_ptr own(state);
  tqdb_api_statreader_query_cb_t cb{};
  cb.user = &st;
  cb.notice_cb = [](void *u, const char *t) { static_cast<Stream *>(u)->events += std::string("Q:") + t + " "; };
  cb.row_desc_cb = [](void *u, const tqdb_api_statreader_query_row_desc_t *d) {
    auto &e = static_cast<Stream *>(u)->events;
    e += "T";
    for (unsigned i = 0; i < d->count; ++i) e += std::to_string(d->cols[i].type) + ",";
    e += " ";
  };
  cb.row_data_cb = [](void *u, const tqdb_api_statreader_query_state_t *) { ++static_cast<Stream *>(u)->rows; };
  cb.complete_cb = [](void *u) { static_cast<Stream *>(u)->events += "C "; };
  cb.end_cb = [](void *u) { static_cast<Stream *>(u)->events += "Z"; };
  for (EnvPtr e = sim.c.next(); e; e = sim.c.next()) {
    if (e->type != TQDB_API_MSG_TYPE_DATA) {
      st.end = e->type == TQDB_API_MSG_TYPE_OK ? "OK" : "ERROR " + std::string(e->error);
      break;
    }
    ++st.data;
    tqdb_api_statreader_query_handle_msg(own.get(), &cb, e.get());
  }
  return st;
}

TEST(SimStats, SameSeedSameAnswer) {
  std::vector<std::string> names[3];
  std::vector<uint64_t> values[3];
  const char *seeds[] = {"7", "7", "8"};
  for (int i = 0; i < 3; ++i) {
    Sim sim({"--stats-seed", seeds[i]});
    ASSERT_NE(sim.s, 0u);
    for (const Node &n : sim.list(tqdb_api_statreader_list(sim.c.h(), sim.s, "", "", "", 0, ~0ull, nullptr))) {
      names[i].push_back(n.name);
      values[i].insert(values[i].end(), n.values, n.values + n.n_values);
    }
  }
  EXPECT_EQ(names[0], names[1]);
  EXPECT_EQ(values[0], values[1]);
  EXPECT_NE(values[0], values[2]);
  EXPECT_EQ(values[0].size(), names[0].size() * 34);  // every field bit 0..33
}

TEST(SimStats, ListValuesFollowTheReplyMask) {
  Sim sim({"--max-reply-bytes", "120"});
  ASSERT_NE(sim.s, 0u);
  int messages = 0;
  auto three = sim.list(tqdb_api_statreader_list(sim.c.h(), sim.s, "2026-01-02", "2026-01-03", "/",
                                                 kNetObject, kTotal | kOut | kIn, nullptr), &messages);
  auto one = sim.list(tqdb_api_statreader_list(sim.c.h(), sim.s, "2026-01-02", "2026-01-03", "/",
                                               kNetObject, kTotal, nullptr));
  ASSERT_EQ(three.size(), 4u);
  ASSERT_EQ(one.size(), 4u);
  EXPECT_GT(messages, 1);
  for (size_t i = 0; i < 4; ++i) {
    EXPECT_EQ(std::string(three[i].name), "NetObject-" + std::to_string(i + 1));
    ASSERT_EQ(three[i].n_values, 3);
    EXPECT_EQ(three[i].values[2], three[i].values[0] + three[i].values[1]);  // ascending bits
    ASSERT_EQ(one[i].n_values, 1);
    EXPECT_EQ(one[i].values[0], three[i].values[2]);
    EXPECT_EQ(three[i].type, kNetObject);
    EXPECT_TRUE(three[i].flags & TQDB_STAT_FLAGS_EXPANDABLE);
  }
}

TEST(SimStats, GraphPointsSpanReplies) {
  Sim sim({"--max-reply-bytes", "100"});
  ASSERT_NE(sim.s, 0u);
  const uint64_t mask = 1 | TQDB_STAT_POINT_OPT1;  // BPS_IN, LINK_UTILIZATION_IN
  const uint32_t cid = tqdb_api_statreader_graph(sim.c.h(), sim.s, "", "", "NetObject-1", 0, 5, 1, mask, false, 0, 0);
  tqdb_api_statreader_graph_t *g = nullptr;
  int messages = 0;
  for (EnvPtr e = sim.c.next(); e && e->type == TQDB_API_MSG_TYPE_DATA; e = sim.c.next(), ++messages)
    if (tqdb_api_msg_get_cid(e.get()) == cid) g = tqdb_api_statreader_graph_handle(e.get(), g);
  ASSERT_TRUE(g);
  EXPECT_GT(messages, 1);
  EXPECT_EQ(g->total_points, 5u);
  EXPECT_EQ(g->received, 5u);
  uint64_t last = 0;
  for (tq_list_t *n = g->points; n; n = n->next) {
    const auto *p = static_cast<tqdb_api_statreader_graph_node_t *>(n->data);
    EXPECT_EQ(p->n_u64, 1);
    EXPECT_GT(p->opt1, 0u);
    if (last) {
      EXPECT_EQ(p->point_time, last + 300);
    }
    last = p->point_time;
  }
  tqdb_api_statreader_graph_free(g);
}

TEST(SimStats, QueryStreamsOverManyReplies) {
  Sim sim({"--max-reply-bytes", "100"});
  ASSERT_NE(sim.s, 0u);
  Stream count = query(sim, "SELECT count(*) FROM stat_totals WHERE bit = 0");
  EXPECT_EQ(count.events, "T8, C Z");
  Stream st = query(sim, "SELECT path, date, value, NULL AS none, 0.5 FROM stat_totals WHERE bit = 0");
  EXPECT_EQ(st.events, "T11,11,8,11,10, C Z");
  EXPECT_EQ(st.end, "OK");
  EXPECT_GT(st.rows, 100);
  EXPECT_GT(st.data, st.rows / 4);
}

// Unknown tables and plain writes are refused in the Python suite; these are
// the parser's own refusal, a schema write and a write behind a first statement.
TEST(SimStats, BadQueriesAndWritesAreRefused) {
  Sim sim({});
  ASSERT_NE(sim.s, 0u);
  const std::pair<const char *, const char *> rows[] = {
      {"SELEC 1", "ERROR near \"SELEC\": syntax error"},
      {"PRAGMA writable_schema = 1", "ERROR not authorized"},
      {"SELECT 1; DROP TABLE dates_t", "ERROR A query is one statement"},
  };
  for (const auto &[sql, end] : rows) {
    Stream st = query(sim, sql);
    EXPECT_EQ(st.end, end) << sql;
    EXPECT_EQ(st.data, 0) << sql;
  }
  EXPECT_EQ(query(sim, "SELECT count(*) FROM stat_dates").end, "OK");
}

TEST(SimStats, MalformedBodiesAreAnsweredNotFatal) {
  Sim sim({});
  ASSERT_NE(sim.s, 0u);
  auto send = [&](uint32_t code, const Bytes &body) {
    EnvPtr e = sim.raw(code, body);
    return e ? std::string(e->error) : "(none)";
  };
  const Bytes addr = Wire().str("").str("").str("NetObject-1").u16(0);
  const std::pair<uint32_t, Bytes> rows[] = {
      {TQDB_REQ_STAT_LIST, Wire().raw(addr).u32(0)},
      {TQDB_REQ_STAT_LIST, Wire().raw(addr).u64(1).u32(5)},  // a key without its value
      {TQDB_REQ_STAT_TOP_LIST, addr},
      {TQDB_REQ_STAT_GRAPH, Wire().raw(addr).u32(3)},
      {TQDB_REQ_STAT_GET_FLAGS, Wire().str("")},
      {TQDB_REQ_STAT_LIST_SEARCH, Wire().raw(addr).u32(1).u32(99)},
      {TQDB_REQ_STATREADER_QUERY, Wire().u8('Q').u32(40).raw("SELECT 1")},
      {TQDB_REQ_STAT_DATA_INVALIDATE, addr},
      {TQDB_REQ_STAT_LIST_GRAPH, Wire().raw(addr).u32(3).u8(1)},
      {TQDB_REQ_STAT_RECURSIVE_LIST, Wire().raw(addr).u8(0)},
      {TQDB_REQ_STAT_STRING_TABLE, Wire().u16(0)},
      {TQDB_REQ_STAT_PROTOCOL_VERSION, Wire().u8(0)},
  };
  for (const auto &[code, body] : rows)
    EXPECT_TRUE(send(code, body).starts_with("Malformed request 0x19a")) << std::hex << code;
  EXPECT_EQ(send(TQDB_REQ_STAT_GET_FLAGS, Wire().str("").str("").str("nowhere").u16(0)),
            "No statistics node at 'nowhere'");
}

TEST(SimStats, ListGraphRecursiveListStringTableAndVersion) {
  Sim sim({"--max-reply-bytes", "200"});
  ASSERT_NE(sim.s, 0u);
  tqdb_api_handle_t *h = sim.c.h();
  // One graph per net object, each starting a message of its own.
  tqdb_api_statreader_list_graph(h, sim.s, "", "", "", kNetObject, 3, 1, kIn);
  std::vector<tqdb_api_statreader_graph_t *> g;
  for (EnvPtr e = sim.c.next(); e && e->type == TQDB_API_MSG_TYPE_DATA; e = sim.c.next())
    if (g.empty() || g.back()->received == g.back()->total_points)
      g.push_back(tqdb_api_statreader_graph_handle(e.get(), nullptr));
    else
      tqdb_api_statreader_graph_handle(e.get(), g.back());
  ASSERT_EQ(g.size(), 4u);
  for (size_t i = 0; i < g.size(); ++i) {
    EXPECT_EQ(std::vector<unsigned>({g[i]->g1, g[i]->g2, g[i]->g3, g[i]->received}),
              std::vector<unsigned>({1, unsigned(i), 4, 3}));
    tqdb_api_statreader_graph_free(g[i]);
  }
  // Depth first, named by the path below the addressed node.
  auto below = sim.list(tqdb_api_statreader_recursive_list(h, sim.s, "", "", "NetObject-2", 0));
  ASSERT_EQ(below.size(), 3u * 6 + 3);
  EXPECT_STREQ(below[0].name, "10.2.0.1");
  EXPECT_TRUE(std::string(below[1].name).starts_with("10.2.0.1/198.51.2."));
  EXPECT_EQ(below[1].n_values, 0);
  auto hosts = sim.list(tqdb_api_statreader_recursive_list(h, sim.s, "", "", "/", 514));
  ASSERT_EQ(hosts.size(), 12u);
  EXPECT_STREQ(hosts[11].name, "NetObject-4/10.4.0.3");
  // The value types, every message counting its own entries.
  tqdb_api_statreader_string_table(h, sim.s, 0);
  tq_list_t *types = nullptr;
  int messages = 0;
  for (EnvPtr e = sim.c.next(); e && e->type == TQDB_API_MSG_TYPE_DATA; e = sim.c.next(), ++messages)
    types = tqdb_api_statistics_list_valuetypes_handle(e.get(), types);
  std::string seen;
  for (tq_list_t *n = types; n; n = n->next) {
    const auto *v = static_cast<tqdb_api_statistics_valuetype_t *>(n->data);
    seen += std::to_string(v->id) + v->name + "/" + v->short_name + std::to_string(v->flags) + " ";
  }
  tq_list_free_with_data(types);
  EXPECT_GT(messages, 1);
  EXPECT_TRUE(seen.starts_with("0ROOT/RT1 256AGGREGATION/AGG0 512TRAFFICSTATS/TS0 513NETOBJECT/NO1 "))
      << seen;
  EXPECT_TRUE(seen.ends_with(" 1283NAT_POOL/NP0 ")) << seen;
  tqdb_api_statreader_string_table(h, sim.s, 1);
  EnvPtr e = sim.c.next();
  ASSERT_TRUE(e);
  EXPECT_STREQ(e->error, "No string table 1 (table 0 holds the value types)");
  tqdb_api_statreader_protocol_version(h, sim.s);
  e = sim.c.next();
  ASSERT_TRUE(e);
  EXPECT_EQ(tqdb_api_statreader_subscriber_count_handle(e.get()), 1u);
}

TEST(SimStats, TimeLimitEndsWithANoticeAndOthersAreServedMeanwhile) {
  Sim sim({"--query-timeout-ms", "1500", "--query-max-rows", "100000000"});
  ASSERT_NE(sim.s, 0u);
  EXPECT_EQ(query(sim, "WITH RECURSIVE r(x) AS (SELECT 1 UNION ALL SELECT x + 1 FROM r) "
                       "SELECT count(*) FROM r").events,
            "T11, Q:Query stopped: time limit of 1500 ms reached C Z");
  // A long stream the client does not read yet must not hold up another client.
  tqdb_api_statreader_query_state_t *state = nullptr;
  tqdb_api_statreader_query(&state, sim.c.h(), sim.s,
                            "WITH RECURSIVE r(x) AS (SELECT 1 UNION ALL SELECT x + 1 FROM r) SELECT x FROM r");
  tqdb_api_statreader_query_state_ptr own(state);
  ASSERT_TRUE(sim.c.flush());
  SimClient other;
  ASSERT_TRUE(other.connect(sim.proc.port()));
  EnvPtr v = other.next(1000);
  ASSERT_TRUE(v);
  EXPECT_EQ(v->type, TQDB_API_MSG_TYPE_VERSION);
}

}  // namespace
