// The simulator's request dispatch: one logged-in connection sends arbitrary
// requests through Dispatch::serve, the path the server takes (header words,
// access checks, the handler), while a second connection's session sits idle,
// maybe holding a transaction. Every reply must be a well-formed message of a
// reply type, and every answer must repeat its request's header words and end
// properly. After every request the store must keep its invariants (locks and
// transactions agree, the ruleset's references name existing records, ...);
// at the end the connections close the way the server closes them, which must
// release everything they held and leave the committed contents as they were.
//
// Input:
//   byte 0      bits 0-3: the resource (1-15, in the store's order) the idle
//               session holds a transaction on; 0: none.
//               bit 4: list answers cut at the smallest reply size (64 bytes).
//   then frames, each:
//     byte      the request: index into the routed codes (ascending) modulo
//               their count
//     byte      bits 0-5: body length; bit 6: the length is the next two
//               bytes instead (big-endian; a message holds 32768 at most);
//               bit 7: the body carries its own header words (else the
//               harness puts the session of the connection and the frame's
//               number in front)
//     bytes     the body (fewer at the end of the input)
// A failed check is __builtin_trap() after a line on stderr saying what broke.
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <functional>
#include <initializer_list>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "dispatch.h"
#include "files.h"
#include "harness.h"
#include "options.h"
#include "reply.h"
#include "state.h"
#include "stats_store.h"
#include "store.h"
#include "tqdb_api.h"
#include "tqdb_api_config.h"

namespace {

using namespace tqsim;
using tqfuzz::Span;

constexpr uint64_t kNow = 1700000000;  // the appliance's clock, fixed so runs replay
constexpr uint32_t kConn = 1, kIdleConn = 2;
constexpr std::size_t kMaxQueryPumps = 1000;

void remove_data_dir();

[[noreturn]] void broken(const std::string &what) {
  std::fprintf(stderr, "sim_fuzz: %s\n", what.c_str());
  remove_data_dir();
  __builtin_trap();
}
// The text is made only when the check fails: the checks run after every
// request, over every record.
#define REQUIRE(ok, ...)                                  \
  do {                                                    \
    if (!(ok)) broken(tqsim::format(__VA_ARGS__));        \
  } while (0)

// --- replies -------------------------------------------------------------------------
// A reply's fields, one row per reply type.
enum class F : uint8_t { U32, U64, Text, Auth, Rest, End };
struct Shape {
  uint32_t type;
  const char *name;
  F fields[6];
};
constexpr Shape kShapes[] = {
    {TQDB_REPLY_OK, "OK", {F::U32, F::U32, F::End}},
    {TQDB_REPLY_ERROR, "ERROR", {F::U32, F::U32, F::Text, F::End}},
    {TQDB_REPLY_LOCK, "LOCK", {F::U32, F::U32, F::Text, F::End}},
    {TQDB_REPLY_DATA, "DATA", {F::U32, F::U32, F::Rest}},
    {TQDB_REPLY_BCAST_COMMIT, "BCAST_COMMIT", {F::U32, F::U64, F::U64, F::Text, F::Text, F::End}},
    {TQDB_REPLY_DETACHED, "DETACHED", {F::U32, F::Text, F::End}},
    {TQDB_REPLY_RESTARTING, "RESTARTING", {F::Text, F::End}},
    {TQDB_REPLY_RELOADING, "RELOADING", {F::Text, F::End}},
    {TQDB_REPLY_AUTH, "AUTH", {F::Auth}},
};

uint32_t be32(const uint8_t *b) {
  return uint32_t{b[0]} << 24 | uint32_t{b[1]} << 16 | uint32_t{b[2]} << 8 | b[3];
}

// Checks m against its row and returns its leading u32 words.
std::vector<uint32_t> check_shape(const tq_msg_t &m) {
  const auto *s = std::ranges::find(kShapes, m.type, &Shape::type);
  REQUIRE(s != std::end(kShapes), "reply of type 0x%x, which is no reply type", m.type);
  REQUIRE(m.rpos == 0 && m.len <= TQ_MSG_MAX_DATA, "%s: read position %u, length %u", s->name,
          m.rpos, m.len);
  std::vector<uint32_t> words;
  tqfuzz::Reader r(Span(m.data, m.len));
  const auto u32 = [&] {
    REQUIRE(r.size() >= 4, "%s: cut short", s->name);
    return be32(r.take(4).data());
  };
  for (F f : s->fields) {
    switch (f) {
      case F::U32: words.push_back(u32()); break;
      case F::U64: (void)u32(), (void)u32(); break;
      case F::Text: {
        const uint32_t n = u32();
        REQUIRE(n != 0 && n <= r.size(), "%s: text count %u past the end", s->name, n);
        REQUIRE(r.take(n)[n - 1] == 0, "%s: text not terminated", s->name);
        break;
      }
      case F::Auth:  // refused: the byte 0; accepted: 1, u64 x3, u32
        REQUIRE((m.len == 1 && m.data[0] == 0) || (m.len == 29 && m.data[0] == 1),
                "AUTH: bad body of %u bytes", m.len);
        return words;
      case F::Rest: return words;
      case F::End:
        REQUIRE(r.empty(), "%s: %zu bytes after the end", s->name, r.size());
        return words;
    }
  }
  return words;
}

bool ends_answer(uint32_t type) {
  return type == TQDB_REPLY_OK || type == TQDB_REPLY_ERROR || type == TQDB_REPLY_LOCK;
}

// --- the server side --------------------------------------------------------------------
// Where the file areas are kept: made once per process, emptied per input.
struct DataDir {
  std::filesystem::path base, data;
  DataDir() {
    char tmpl[] = "/tmp/tqsim-fuzz-XXXXXX";
    REQUIRE(mkdtemp(tmpl) != nullptr, "cannot make a directory under /tmp");
    base = tmpl;
    data = base / "data";
  }
  ~DataDir() {
    std::error_code ec;
    std::filesystem::remove_all(base, ec);
  }
};

// The server's defaults, but for the file areas (on disk, in dir) and
// short query limits, which keep every input well under the fuzzer's time
// limit.
Options make_options(const DataDir &dir) {
  Options o;
  o.users.push_back(User{"admin", "admin"});
  o.data_dir = dir.data.string();
  o.query_timeout_ms = 50;
  o.query_max_rows = 1000;
  o.connlog_entries = 500;
  return o;
}

struct Conn {
  Login login;
  bool open = true;
  std::vector<Msg> got;  // since its last request
};

class FuzzHub final : public Hub {
 public:
  // The statistics store takes the better part of a second to build, so
  // there is one per process; it is the only state kept from input to
  // input (requests only read it, but for invalidation, and the connection
  // log is generated into it on first use).
  explicit FuzzHub(const DataDir &dir)
      : opts_(make_options(dir)),
        stats_(std::make_unique<StatsStore>(opts_.stats_seed, opts_.stats_scale)) {
    REQUIRE(stats_->built(), "statistics store: %s", stats_->fault().c_str());
  }

  // A fresh appliance around store.
  void reset(Store &store, bool small_replies) {
    store_ = &store;
    opts_.max_reply_bytes = small_replies ? kMinReplyBytes : kMaxReplyBytes;
    areas_ = std::make_unique<Areas>(opts_);
    queries_.clear();
    conns_.clear();
    conns_[kConn];
    conns_[kIdleConn];
    restarting_ = false;
  }

  Conn &conn(uint32_t id) { return conns_.at(id); }
  bool restarting() const { return restarting_; }
  Areas &all_areas() { return *areas_; }

  // Closes a connection as the server does when it goes.
  void close(uint32_t id) {
    conn(id).open = false;
    store_->end_sessions_of(id);
    areas_->drop_uploads_of(id);
    std::erase_if(queries_, [&](const auto &q) { return q->conn() == id; });
  }

  // Runs the queued queries to their end (the server steps them between
  // rounds of its loop; here the client always keeps up).
  void pump() {
    for (std::size_t i = 0; !queries_.empty(); ++i) {
      REQUIRE(i < kMaxQueryPumps, "a query did not end");
      std::erase_if(queries_, [&](std::unique_ptr<QueryRun> &q) {
        return !conn(q->conn()).open || q->pump(*this, 256);
      });
    }
  }

  void send_to_conn(uint32_t id, Msg m) override {
    REQUIRE(m != nullptr, "a message for connection %u could not be made", id);
    auto it = conns_.find(id);
    REQUIRE(it != conns_.end(), "message to connection %u, which never was", id);
    if (it->second.open) it->second.got.push_back(std::move(m));
  }
  void send_to_session(uint32_t session, Msg m) override {
    REQUIRE(m != nullptr, "a notice for session %u could not be made", session);
    const Session *s = store_->session(session);
    if (s == nullptr) return;
    REQUIRE(m->len >= 4 && be32(m->data) == session, "notice for session %u names another",
            session);
    send_to_conn(s->conn, std::move(m));
  }
  const Options &options() const override { return opts_; }
  uint64_t now() const override { return kNow; }
  StatsStore &stats() override { return *stats_; }
  void run_query(std::unique_ptr<QueryRun> q) override { queries_.push_back(std::move(q)); }
  Areas &areas() override { return *areas_; }
  std::string peer_host(uint32_t id) const override {
    return conns_.contains(id) ? tqsim::format("192.0.2.%u", id) : std::string();
  }
  // Every connection is told, then closed: no request is served after.
  void restart(std::string_view reason) override {
    for (auto &[id, c] : conns_) send_to_conn(id, notice_restarting(reason));
    restarting_ = true;
  }
  void reload(std::string_view reason) override {
    for (auto &[id, c] : conns_) send_to_conn(id, notice_reloading(reason));
  }

 private:
  Options opts_;
  Store *store_ = nullptr;
  std::unique_ptr<StatsStore> stats_;
  std::unique_ptr<Areas> areas_;
  std::vector<std::unique_ptr<QueryRun>> queries_;
  std::map<uint32_t, Conn> conns_;
  bool restarting_ = false;
};

struct World {
  DataDir dir;
  FuzzHub hub{dir};
  Dispatch dispatch;
  std::vector<const Route *> routes;  // every routed code, ascending
  World() {
    for (uint32_t code = 0x10000; code <= 0x1FFFF; ++code)
      if (const Route *r = dispatch.find(code)) routes.push_back(r);
    REQUIRE(!routes.empty() && routes.size() <= 256, "%zu routes", routes.size());
  }
};

World *the_world = nullptr;
World &world() {
  static World w;
  the_world = &w;
  return w;
}
void remove_data_dir() {
  std::error_code ec;
  if (the_world != nullptr) std::filesystem::remove_all(the_world->dir.base, ec);
}

// Big-endian u32 words, and message strings.
std::string words(std::initializer_list<uint32_t> ws) {
  std::string s;
  for (uint32_t v : ws)
    for (int sh = 24; sh >= 0; sh -= 8) s.push_back(static_cast<char>(v >> sh));
  return s;
}
template <class... W>
std::string words(W... ws) {
  return words({static_cast<uint32_t>(ws)...});
}
std::string text(std::string_view t) { return words(t.size() + 1) + std::string(t) + '\0'; }
Span span_of(const std::string &s) {
  return Span(reinterpret_cast<const uint8_t *>(s.data()), s.size());
}

// Serves one request of connection id (payload: header words included) and
// checks what came back to it. A request without header words is answered
// by one AUTH, or by an ERROR with words 0 when its body does not parse.
// Any other is answered by DATA... and at most one OK / ERROR / LOCK, last,
// all repeating the request's words as the server read them (0 where
// missing); restart and reload by their notice. Returns the replies.
// Notices to other sessions of the same connection come in between.
std::vector<Msg> request(Store &store, uint32_t id, uint32_t code, Span payload) {
  World &w = world();
  Conn &c = w.hub.conn(id);
  tqfuzz::MsgPtr m = tqfuzz::make_msg(payload, code);
  REQUIRE(m != nullptr, "no message for a request");
  const Route *route = w.dispatch.find(code);
  const char *name = route ? route->name : "unknown";
  const bool header = route == nullptr || route->header == Header::kSessionCid;
  const uint32_t session = header && m->len >= 4 ? be32(m->data) : 0;
  const uint32_t cid = header && m->len >= 8 ? be32(m->data + 4) : 0;
  c.got.clear();
  w.dispatch.serve(w.hub, store, id, c.login, *m);
  w.hub.pump();
  std::vector<Msg> got = std::move(c.got);
  c.got.clear();
  std::size_t answers = 0;
  bool ended = false;
  for (const Msg &r : got) {
    const std::vector<uint32_t> head = check_shape(*r);
    if (!header) {
      if (r->type != TQDB_REPLY_AUTH && r->type != TQDB_REPLY_ERROR) continue;
      REQUIRE(head.empty() || (head[0] == 0 && head[1] == 0), "%s: ERROR with words", name);
      REQUIRE(++answers == 1, "%s: answered twice", name);
      continue;
    }
    if (r->type == TQDB_REPLY_RESTARTING || r->type == TQDB_REPLY_RELOADING)
      answers += code == TQDB_REQ_RESTART || code == TQDB_REQ_RELOAD;
    // A commit is told to the other sessions, after its own answer; a
    // takeover to the session that lost its transaction.
    if (r->type == TQDB_REPLY_BCAST_COMMIT || r->type == TQDB_REPLY_DETACHED)
      REQUIRE(head[0] != session && (r->type == TQDB_REPLY_DETACHED || answers > 0),
              "%s: %s notice to session %u, the request's %u", name,
              r->type == TQDB_REPLY_DETACHED ? "DETACHED" : "commit", head[0], session);
    if (!ends_answer(r->type) && r->type != TQDB_REPLY_DATA) continue;
    REQUIRE(!ended, "%s: a reply after the answer ended", name);
    REQUIRE(head[0] == session && head[1] == cid, "%s: reply words %u/%u, request %u/%u", name,
            head[0], head[1], session, cid);
    ended = ends_answer(r->type);
    ++answers;
  }
  REQUIRE(answers > 0 || !c.open, "%s: no answer", name);
  return got;
}

// Logs connection id in as admin and opens a session the way a client
// does; returns the session's id.
uint32_t log_in(Store &store, uint32_t id) {
  (void)request(store, id, TQDB_REQ_AUTH, span_of(text("admin") + text("admin")));
  REQUIRE(world().hub.conn(id).login.accepted, "admin:admin refused");
  const std::vector<Msg> got = request(store, id, TQDB_REQ_SESSION_NEW, span_of(words(0, 0)));
  REQUIRE(got.size() == 1 && got[0]->type == TQDB_REPLY_DATA && got[0]->len == 12,
          "session new not answered with its id");
  return be32(got[0]->data + 8);
}

// --- invariants ------------------------------------------------------------------------
template <class Map>
void records(const Map &m, uint32_t last, const char *where, const char *what) {
  std::set<std::string_view> names;
  for (const auto &[id, r] : m) {
    REQUIRE(id == r.id && id != 0 && id <= last, "%s: %s %u keyed %u, counter %u", where, what,
            r.id, id, last);
    REQUIRE(names.insert(r.name).second, "%s: %s name '%s' twice", where, what, r.name.c_str());
  }
}

bool once_each(const std::vector<uint32_t> &ids) {
  return std::set<uint32_t>(ids.begin(), ids.end()).size() == ids.size();
}

void check_objects(const Ruleset &rs, const char *where) {
  std::set<uint32_t> items;
  for (uint32_t t = 0; t < kObjectTypes; ++t) {
    const auto &tree = rs.objects[t];
    std::set<std::pair<uint32_t, std::string_view>> siblings;
    for (const auto &[id, o] : tree) {
      REQUIRE(id == o.id && id != 0 && id <= rs.last_object[t], "%s: object %u/%u keyed %u",
              where, t, o.id, id);
      REQUIRE(check_name("name", o.name).empty() && siblings.emplace(o.parent, o.name).second,
              "%s: object %u/%u: bad or repeated name", where, t, id);
      uint32_t up = o.parent;
      for (std::size_t steps = 0; up != 0; ++steps) {
        auto it = tree.find(up);
        REQUIRE(it != tree.end() && steps <= tree.size() && up != id,
                "%s: object %u/%u: parent %u missing or in a cycle", where, t, id, up);
        up = it->second.parent;
      }
      for (const Item &item : o.items) {
        REQUIRE(item.id != 0 && item.id <= rs.last_item && items.insert(item.id).second,
                "%s: object %u/%u: item id %u repeated or past the counter", where, t, id, item.id);
        REQUIRE(item.fields.size() == item_fields(t).size(), "%s: item %u: %zu fields", where,
                item.id, item.fields.size());
        const std::string bad = check_item(rs, t, item);
        REQUIRE(bad.empty(), "%s: item %u kept though: %s", where, item.id, bad.c_str());
      }
    }
  }
}

// Conditions nest without a cycle: walked depth first, none is reached
// again while it is being walked.
void check_conditions(const Ruleset &rs, const char *where) {
  records(rs.conditions, rs.last_condition, where, "condition");
  std::map<uint32_t, int> state;  // 1 walking, 2 done
  const std::function<void(uint32_t)> walk = [&](uint32_t id) {
    int &st = state[id];
    REQUIRE(st != 1, "%s: condition %u in a cycle", where, id);
    if (st == 2) return;
    st = 1;
    if (auto it = rs.conditions.find(id); it != rs.conditions.end())
      for (const ConditionItem &ci : it->second.items)
        if (ci.type == kConditionTypeRulecondition) walk(ci.object);
    state[id] = 2;
  };
  for (const auto &[id, c] : rs.conditions) {
    REQUIRE(c.op <= 2, "%s: condition %u: operator %u", where, id, c.op);
    walk(id);
  }
}

void check_ruleset(const Ruleset &rs, const char *where) {
  check_objects(rs, where);
  for_each_reference(rs, [&](Ref from, Ref to) {
    REQUIRE(exists(rs, from) && exists(rs, to), "%s: %s %u names missing %s", where,
            noun(from).c_str(), from.id, missing_text(to).c_str());
  });
  check_conditions(rs, where);
  for (uint32_t k = 0; k < kRuleKinds; ++k) {
    std::set<uint32_t> ids;
    for (const Rule &r : rs.rules[k]) {
      REQUIRE(r.id != 0 && r.id <= rs.last_rule[k] && ids.insert(r.id).second,
              "%s: rule %u/%u: id repeated or past the counter", where, k, r.id);
      REQUIRE(check_name("name", r.name).empty(), "%s: rule %u/%u: bad name", where, k, r.id);
      REQUIRE(once_each(r.objects) && once_each(r.statisticsobjects) && once_each(r.ipfixobjects),
              "%s: rule %u/%u: a binding twice", where, k, r.id);
    }
  }
  records(rs.shaping_objects, rs.last_shaping_object, where, "shaping object");
  for (const auto &[id, s] : rs.shaping_objects)
    REQUIRE(s.split <= 9 && once_each(s.split_netobjects), "%s: shaping object %u", where, id);
  records(rs.statistics_objects, rs.last_statistics_object, where, "statistics object");
  records(rs.ipfix_objects, rs.last_ipfix_object, where, "IPFIX object");
}

void check_liveviews(const LiveViews &lv, const char *where) {
  records(lv.views, lv.last_view, where, "live view");
  std::set<uint32_t> parts;
  const auto part = [&](uint32_t id) {
    REQUIRE(id != 0 && id <= lv.last_part && parts.insert(id).second,
            "%s: live view part %u repeated or past the counter", where, id);
  };
  for (const auto &[id, v] : lv.views) {
    for (const LiveDistribution &d : v.distributions) part(d.id);
    for (const LiveFilter &f : v.filters) {
      part(f.id);
      for (const LiveFilterValue &fv : f.values) part(fv.id);
    }
  }
}

void check_data(const ResourceData &d, const char *where) {
  check_ruleset(d.ruleset, where);
  check_liveviews(d.liveviews, where);
  std::set<std::string_view> names;
  for (const auto &[id, a] : d.users.accounts)
    REQUIRE(id == a.id && id != 0 && id < d.users.next_id && !a.name.empty() &&
                names.insert(a.name).second,
            "%s: account %u (%s) keyed %u, counter %u, or its name twice", where, a.id,
            a.name.c_str(), id, d.users.next_id);
  for (const auto &[id, h] : d.hosttriggers.by_id)
    REQUIRE(id <= d.hosttriggers.last_id, "%s: host trigger %u past the counter", where, id);
  for (const auto &[id, h] : d.connprot_triggers.by_id)
    REQUIRE(id <= d.connprot_triggers.last_id, "%s: connprot trigger %u past the counter", where,
            id);
}

// Locks and transactions agree; sessions and uploads belong to open
// connections; every resource's contents (and snapshot) keep their rules.
void check_store(Store &store) {
  World &w = world();
  for (const auto &[id, s] : store.sessions()) {
    REQUIRE(id == s.id && id != 0, "session %u keyed %u", s.id, id);
    REQUIRE((s.conn == kConn || s.conn == kIdleConn) && w.hub.conn(s.conn).open,
            "session %u outlived its connection %u", id, s.conn);
    const Resource *r = store.resource(s.open);
    REQUIRE(s.open == 0 || (r != nullptr && r->holder == id),
            "session %u has a transaction on %u, which it does not hold", id, s.open);
  }
  for (Resource &r : store.resources()) {
    const Session *s = store.session(r.holder);
    REQUIRE(r.holder == 0 ? !r.snapshot : s != nullptr && s->open == r.id && r.snapshot,
            "resource %u: holder %u, snapshot %d, the holder's transaction %u", r.id, r.holder,
            r.snapshot.has_value(), s ? s->open : 0);
    check_data(r.data, r.name.c_str());
    if (r.snapshot) check_data(*r.snapshot, "snapshot");
  }
  const Areas &areas = w.hub.all_areas();
  std::map<uint32_t, std::size_t> uploads;  // by connection
  for (const auto &[id, u] : areas.uploads) {
    REQUIRE(w.hub.conn(u.conn).open, "upload %u outlived its connection %u", id, u.conn);
    REQUIRE(++uploads[u.conn] <= kMaxUploads && u.data.size() <= areas.max_file_bytes,
            "upload %u: one of more than %zu, or %zu bytes", id, kMaxUploads, u.data.size());
  }
}

// Nothing is in the data directory but areas holding whole files.
void check_data_dir(const DataDir &dir) {
  std::error_code ec;
  for (const auto &e : std::filesystem::directory_iterator(dir.base, ec))
    REQUIRE(e.path() == dir.data, "%s: outside the data directory", e.path().c_str());
  if (!std::filesystem::exists(dir.data, ec)) return;
  std::set<std::string> areas{"backups"};
  for (const AreaType &t : area_types()) areas.insert(t.name);
  for (const auto &area : std::filesystem::directory_iterator(dir.data, ec)) {
    REQUIRE(area.is_directory() && areas.contains(area.path().filename()), "%s: not an area",
            area.path().c_str());
    for (const auto &f : std::filesystem::directory_iterator(area.path(), ec))
      REQUIRE(f.is_regular_file() &&
                  f.path().filename().string().find(".tmp.") == std::string::npos &&
                  f.file_size() <= world().hub.options().max_file_bytes,
              "%s: left in an area, or too large", f.path().c_str());
  }
}

// The resources connection id's sessions hold: a close rolls them back.
std::vector<uint32_t> held_by(Store &store, uint32_t id) {
  std::vector<uint32_t> held;
  for (const Resource &r : store.resources())
    if (const Session *s = store.session(r.holder); s != nullptr && s->conn == id)
      held.push_back(r.id);
  return held;
}
// The committed contents of those that are saved, as written out.
std::string committed(Store &store, const std::vector<uint32_t> &ids) {
  std::string doc;
  for (uint32_t id : ids)
    if (is_saved(id)) doc += dump(saved_document(store, id, nullptr), false);
  return doc;
}

// One input (see the top of the file).
void run(Span data) {
  World &w = world();
  std::error_code ec;
  std::filesystem::remove_all(w.dir.data, ec);
  tqfuzz::Reader in(data);
  const uint8_t setup = in.u8();
  Store store("tqdbsim", kNow);
  w.hub.reset(store, (setup & 0x10) != 0);
  const uint32_t mine = log_in(store, kConn);
  const uint32_t idle = log_in(store, kIdleConn);
  if (const uint32_t pick = setup & 0x0F; pick != 0 && pick <= store.resources().size()) {
    Resource &r = store.resources()[pick - 1];
    (void)request(store, kIdleConn, TQDB_REQ_BEGIN, span_of(words(idle, 0, r.id) + '\0'));
    REQUIRE(r.holder == idle, "the idle session could not begin on %u", r.id);
  }
  check_store(store);
  for (uint32_t frame = 1; !in.empty() && !w.hub.restarting(); ++frame) {
    const Route *route = w.routes[in.u8() % w.routes.size()];
    const uint8_t len = in.u8();
    const std::size_t n = (len & 0x40) ? in.u16() : (len & 0x3Fu);
    const Span body = in.take(n);
    const std::string raw(body.begin(), body.end());
    const bool own_words = (len & 0x80) != 0 || route->header == Header::kNone;
    (void)request(store, kConn, route->code, span_of(own_words ? raw : words(mine, frame) + raw));
    check_store(store);
  }
  // The connections close, as the server closes them.
  for (uint32_t id : {kConn, kIdleConn}) {
    const std::vector<uint32_t> held = held_by(store, id);
    const std::string before = committed(store, held);
    w.hub.close(id);
    check_store(store);
    REQUIRE(committed(store, held) == before, "closing connection %u changed committed contents",
            id);
  }
  REQUIRE(store.sessions().empty(), "sessions left after every connection closed");
  check_data_dir(w.dir);
}

// --- seeds --------------------------------------------------------------------------------
// With TQSIM_FUZZ_SEEDS=DIR the target writes seeds into DIR, lists the
// routes by index on stderr and exits. For every route it picks the first
// body of kBodies (tried with no transaction open, then inside one on each
// resource) that the handler takes (OK or DATA), else the first it reads
// through (an ERROR other than "Malformed"); each family's frames make one
// seed per transaction they need.
const std::string kBodies[] = {
    "",
    words(1),
    words(0),
    words(1) + '\x01',
    words(0, 1),
    words(1, 1),
    text("a"),
    text("a") + text("b"),
    words(0) + text("a"),
    words(1) + text("a"),
    words(0, 1) + text("a"),
    std::string(1, '\0'),
    words(0, 0, 0),
    text("a") + words(0),
    words(0) + text("a") + text("b"),
    text("a") + text("b") + text("c"),
    '\0' + words(1),
    '\0' + words(1, 0),
    '\0' + words(1) + '\x01',
    '\0' + text("a") + words(0),
    '\0' + words(1) + text("a"),
    '\0' + words(1) + text("a") + text("b"),
};

int score(const std::vector<Msg> &got) {
  int best = 0;
  for (const Msg &m : got) {
    if (m->type == TQDB_REPLY_OK || m->type == TQDB_REPLY_DATA) best = std::max(best, 2);
    if (m->type == TQDB_REPLY_ERROR &&
        std::string_view(reinterpret_cast<const char *>(m->data) + 12, m->len - 12)
                .find("Malformed") == std::string_view::npos)
      best = std::max(best, 1);
  }
  return got.size() == 1 || got.back()->type != TQDB_REPLY_ERROR ? best : std::min(best, 1);
}

void write_seeds(const std::filesystem::path &dir) {
  World &w = world();
  const auto index_of = [&](uint32_t code) {
    return static_cast<uint8_t>(std::ranges::find(w.routes, code, &Route::code) - w.routes.begin());
  };
  const auto frame = [](uint8_t index, const std::string &body) {
    return std::string{static_cast<char>(index), '\x40', static_cast<char>(body.size() >> 8),
                       static_cast<char>(body.size() & 0xFF)} + body;
  };
  struct Pick {
    const Route *route;
    int score;
    uint32_t resource;  // begun first; 0: none
    const std::string *body;
  };
  std::vector<Pick> picks;
  std::vector<uint32_t> resources{0};
  for (uint32_t id = 1; id <= 32; ++id)
    if (Store("tqdbsim", kNow).resource(id)) resources.push_back(id);
  for (const Route *route : w.routes) {
    Pick pick{route, -1, 0, &kBodies[0]};
    for (uint32_t rid : resources) {
      for (const std::string &body : kBodies) {
        Store store("tqdbsim", kNow);
        w.hub.reset(store, false);
        const uint32_t mine = log_in(store, kConn);
        if (rid != 0)
          (void)request(store, kConn, TQDB_REQ_BEGIN, span_of(words(mine, 1, rid) + '\0'));
        const int s = score(request(store, kConn, route->code, span_of(words(mine, 2) + body)));
        w.hub.close(kConn);
        if (s > pick.score) pick = {route, s, rid, &body};
        if (pick.score == 2) break;
      }
      if (pick.score == 2) break;
    }
    picks.push_back(pick);
  }
  // A family's requests go into the transaction its changes needed, the
  // taken ones first, so that the others find the records they made.
  std::map<uint32_t, uint32_t> family_resource;
  for (const Pick &p : picks)
    if (p.resource != 0) family_resource.emplace(p.route->code >> 8, p.resource);
  std::ranges::stable_sort(picks, std::greater{}, &Pick::score);
  std::map<std::pair<uint32_t, uint32_t>, std::string> seeds;  // (family, resource) -> frames
  for (const Pick &p : picks) {
    const uint32_t family = p.route->code >> 8;
    const bool own = p.score == 2 || !family_resource.contains(family);
    const uint32_t rid = own ? p.resource : family_resource[family];
    std::string &seed = seeds[{family, rid}];
    if (seed.empty()) {
      seed.push_back('\0');
      if (rid != 0) seed += frame(index_of(TQDB_REQ_BEGIN), words(rid) + '\0');
    }
    seed += frame(index_of(p.route->code), *p.body);
  }
  std::filesystem::create_directories(dir);
  for (const auto &[key, bytes] : seeds) {
    const auto name = dir / tqsim::format("family-%03x-resource-%u", key.first, key.second);
    std::FILE *f = std::fopen(name.c_str(), "wb");
    REQUIRE(f != nullptr, "cannot write %s", name.c_str());
    std::fwrite(bytes.data(), 1, bytes.size(), f);
    std::fclose(f);
  }
  std::fprintf(stderr, "sim_fuzz: %zu seeds for %zu routes in %s\n", seeds.size(),
               w.routes.size(), dir.c_str());
  for (std::size_t i = 0; i < w.routes.size(); ++i)
    std::fprintf(stderr, "route %zu 0x%x %s\n", i, w.routes[i]->code, w.routes[i]->name);
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int *, char ***) {
  tqfuzz::install_bug_hook();
  (void)world();  // built before the first input is timed
  if (const char *dir = std::getenv("TQSIM_FUZZ_SEEDS")) {
    write_seeds(dir);
    std::exit(0);
  }
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  tqfuzz::install_bug_hook();
  // A fatal check inside the simulator is a finding here: the server would
  // end, and every client's work with it.
  try {
    run(Span(data, size));
  } catch (const tqfuzz::DeliberateAbort &a) {
    broken("fatal check reached: " + a.report);
  }
  return 0;
}
