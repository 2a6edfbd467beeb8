// How a request reaches its handler.
//
// Each family of requests lives in one source file (family_<name>.cc) and
// contributes a table of routes: request code, name, whether the request
// carries the session/correlation header, what the caller must have done
// before (logged in, opened the session named in the header) and the
// handler. The server checks the header and the access rule and answers the
// failures itself, so a handler only reads its body and acts:
//
//   void begin(Call &c) {
//     uint32_t id; uint8_t flag;
//     if (!c.in.u32(id) || !c.in.u8(flag) || !c.in.end()) return c.malformed();
//     ...
//   }
//
// A new family adds its file, declares its table below and adds it to
// kFamilies in dispatch.cc.
#ifndef TQSIM_DISPATCH_H
#define TQSIM_DISPATCH_H

#include <cstdint>
#include <memory>
#include <span>
#include <string>
#include <string_view>
#include <unordered_map>

#include "reply.h"
#include "store.h"

struct tq_msg_t;

namespace tqsim {

struct Options;
class Out;
class StatsStore;
struct Route;
class QueryRun;
struct Areas;

// Reads a request body field by field. The first failure is remembered as
// the reason the body is malformed; reads after a failure fail too.
class Body {
 public:
  explicit Body(tq_msg_t *msg) : msg_(msg) {}

  [[nodiscard]] bool u8(uint8_t &v);
  [[nodiscard]] bool u16(uint16_t &v);
  [[nodiscard]] bool u32(uint32_t &v);
  [[nodiscard]] bool i32(int32_t &v);
  [[nodiscard]] bool u64(uint64_t &v);
  // A message string; a null string (count 0) reads as empty with *null set.
  [[nodiscard]] bool text(std::string &out, bool *null = nullptr);
  // The next n raw bytes.
  [[nodiscard]] bool bytes(std::string &out, uint32_t n);
  // True when the whole body has been read.
  [[nodiscard]] bool end();
  // Bytes not read yet (0 after a failure).
  [[nodiscard]] uint32_t left() const;

  const std::string &fault() const { return fault_; }
  // Marks the body malformed for why (the first reason is kept); false.
  bool fail(std::string why);

 private:
  tq_msg_t *msg_;
  std::string fault_;
};

// What a connection has proven about itself.
struct Login {
  bool accepted = false;
  std::string user;
  uint32_t user_number = 0;
};

// The server side that handlers reach through a call.
class Hub {
 public:
  virtual ~Hub() = default;
  // Queues m on a connection / on the connection of a session; a message
  // for a connection or session that is gone is dropped.
  virtual void send_to_conn(uint32_t conn, Msg m) = 0;
  virtual void send_to_session(uint32_t session, Msg m) = 0;
  virtual const Options &options() const = 0;
  virtual uint64_t now() const = 0;  // seconds since 1970
  virtual StatsStore &stats() = 0;
  // Takes over a query addressed to its client; it runs in slices between
  // the rounds of the poll loop.
  virtual void run_query(std::unique_ptr<QueryRun> q) = 0;
  // The file areas and backups, and the uploads in progress into them.
  virtual Areas &areas() = 0;
  // Told of every request before it is served (the server logs it).
  virtual void note_request(uint32_t /*conn*/, uint32_t /*code*/, const Route * /*route*/,
                            uint32_t /*session*/, uint32_t /*cid*/, uint32_t /*bytes*/) {}
  // The address a connection comes from ("192.0.2.7"), without the port;
  // empty for one that is gone.
  virtual std::string peer_host(uint32_t conn) const = 0;
  // Every connection gets the restarting notice (type 9) with reason; then
  // each is closed once its notice is out, which rolls back what it had not
  // committed. The listener stays, so clients reconnect to the same port.
  virtual void restart(std::string_view reason) = 0;
  // Every connection gets the reloading notice (type 10) with reason; all
  // goes on.
  virtual void reload(std::string_view reason) = 0;
};

// One request being handled.
struct Call {
  Hub &hub;
  Store &store;
  uint32_t conn;
  Login &login;
  uint32_t code;
  uint32_t session;  // header words, 0 where the request has none
  uint32_t cid;
  Session *sess;     // the session of the header, for routes that need one
  Body in;

  void reply(Msg m) { hub.send_to_conn(conn, std::move(m)); }
  void ok();
  void error(std::string_view text);
  void lock(std::string_view text);
  // "Malformed request 0x10201: body too short"
  void malformed();
  Msg data() const { return reply_data(session, cid); }
  // One DATA reply with body as its body.
  void answer(const Out &body);
  // The live contents of r for a change by this call's session; when
  // another session holds r, answers LOCK and returns null.
  ResourceData *edit(Resource &r);
  // As edit, but the change must be part of this session's own transaction
  // on r: without one the answer is an ERROR that says to begin one.
  ResourceData *change(Resource &r);
  // What this session sees of r: its own changes while it holds r, the last
  // committed contents while another session does.
  const ResourceData &view(const Resource &r) const;
};

enum class Header { kNone, kSessionCid };
enum class Access { kAnyone, kLoggedIn, kSession };

using Handler = void (*)(Call &);

struct Route {
  uint32_t code;
  const char *name;
  Header header;
  Access access;
  Handler handler;
};

std::span<const Route> family_core();
std::span<const Route> family_resource();
std::span<const Route> family_object();
std::span<const Route> family_shapingobject();
std::span<const Route> family_fwrule();
std::span<const Route> family_shapingrule();
std::span<const Route> family_statisticsrule();
std::span<const Route> family_ruleattr();
std::span<const Route> family_ruleconditions();
std::span<const Route> family_dynamicliveview();
std::span<const Route> family_statisticsobject();
std::span<const Route> family_ipfixobject();
std::span<const Route> family_statreader();
std::span<const Route> family_sysdiag();
std::span<const Route> family_user();
std::span<const Route> family_fileserv();
std::span<const Route> family_backup();
std::span<const Route> family_channel();
std::span<const Route> family_channel_label();
std::span<const Route> family_monitoriface();
std::span<const Route> family_config();
std::span<const Route> family_services();
std::span<const Route> family_features();
std::span<const Route> family_connlog();
std::span<const Route> family_system_overview();
std::span<const Route> family_hosttrigger();
std::span<const Route> family_connprot_trigger();

// What every connection receives once its handshake is done: the version
// word and the texts "tqdbsim" and "17.1.0" (the word decoded).
Msg version_announcement(const Options &opts);

class Dispatch {
 public:
  Dispatch();  // every family's routes; a code routed twice is a bug
  const Route *find(uint32_t code) const;
  // Handles one request m of connection conn: reads the header its route
  // needs, checks the route's access rule and answers the failures itself
  // ("Unknown request code", "Not authenticated", "Unknown session"), then
  // runs the handler. The server and in-process harnesses share this path.
  void serve(Hub &hub, Store &store, uint32_t conn, Login &login, tq_msg_t &m) const;

 private:
  std::unordered_map<uint32_t, const Route *> routes_;
};

// Texts shared by the families.
std::string lock_text(const Store &store, const Resource &r);
std::string resource_label(const Resource &r);  // "1 (ruleset)"

}  // namespace tqsim

#endif
