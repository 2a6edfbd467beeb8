#include "dispatch.h"

#include <utility>
#include <vector>

#include "answer.h"
#include "tqdb_api.h"
#include "users.h"
#include "tq_log.h"
#include "tq_msg.h"
#include "util.h"

namespace tqsim {

bool Body::fail(std::string why) {
  if (fault_.empty()) fault_ = std::move(why);
  return false;
}

bool Body::u8(uint8_t &v) {
  return fault_.empty() && tq_msg_get_uint8(msg_, &v) ? true : fail("body too short");
}

bool Body::u16(uint16_t &v) {
  return fault_.empty() && tq_msg_get_uint16(msg_, &v) ? true : fail("body too short");
}

bool Body::i32(int32_t &v) {
  return fault_.empty() && tq_msg_get_int32(msg_, &v) ? true : fail("body too short");
}

bool Body::u32(uint32_t &v) {
  return fault_.empty() && tq_msg_get_uint32(msg_, &v) ? true : fail("body too short");
}

bool Body::u64(uint64_t &v) {
  return fault_.empty() && tq_msg_get_uint64(msg_, &v) ? true : fail("body too short");
}

bool Body::text(std::string &out, bool *null) {
  out.clear();
  if (null) *null = false;
  uint32_t n = 0;
  if (!fault_.empty() || !tq_msg_get_uint32(msg_, &n)) return fail("body too short");
  if (n == 0) {
    if (null) *null = true;
    return true;
  }
  if (n > tq_msg_avail_bytes(msg_)) return fail("body too short");
  const auto *bytes = reinterpret_cast<const char *>(msg_->data + msg_->rpos);
  if (bytes[n - 1] != '\0') return fail("string not terminated");
  out.assign(bytes, n - 1);
  return tq_msg_skip(msg_, n) ? true : fail("body too short");
}

bool Body::end() {
  if (!fault_.empty()) return false;
  const uint32_t left = tq_msg_avail_bytes(msg_);
  if (left == 0) return true;
  return fail(format("%u unexpected bytes after the body", left));
}

bool Body::bytes(std::string &out, uint32_t n) {
  out.clear();
  if (!fault_.empty() || n > tq_msg_avail_bytes(msg_)) return fail("body too short");
  out.assign(reinterpret_cast<const char *>(msg_->data + msg_->rpos), n);
  return tq_msg_skip(msg_, n) ? true : fail("body too short");
}

uint32_t Body::left() const { return fault_.empty() ? tq_msg_avail_bytes(msg_) : 0; }

void Call::ok() { reply(reply_ok(session, cid)); }
void Call::error(std::string_view text) { reply(reply_error(session, cid, text)); }
void Call::lock(std::string_view text) { reply(reply_lock(session, cid, text)); }

void Call::malformed() {
  error(format("Malformed request 0x%x: %s", code,
               in.fault().empty() ? "bad body" : in.fault().c_str()));
}

ResourceData *Call::edit(Resource &r) {
  if (r.holder != 0 && (sess == nullptr || r.holder != sess->id)) {
    lock(lock_text(store, r));
    return nullptr;
  }
  return &r.data;
}

void Call::answer(const Out &body) {
  Msg m = data();
  if (m) tq_msg_put_data(m.get(), body.bytes().data(), body.size());
  reply(std::move(m));
}

ResourceData *Call::change(Resource &r) {
  if (r.holder != 0 && (sess == nullptr || r.holder != sess->id)) {
    lock(lock_text(store, r));
    return nullptr;
  }
  if (r.holder == 0) {
    error("No transaction open on resource " + resource_label(r) + ": begin one first");
    return nullptr;
  }
  return &r.data;
}

const ResourceData &Call::view(const Resource &r) const {
  const bool holder = sess != nullptr && r.holder == sess->id;
  return !holder && r.snapshot ? *r.snapshot : r.data;
}

std::string resource_label(const Resource &r) {
  return format("%u (%s)", r.id, r.name.c_str());
}

std::string lock_text(const Store &store, const Resource &r) {
  return "Resource " + resource_label(r) + " is locked by " + store.holder_name(r);
}

namespace {

using Family = std::span<const Route> (*)();
constexpr Family kFamilies[] = {
    family_core,           family_resource,         family_object,
    family_shapingobject,  family_fwrule,           family_shapingrule,
    family_statisticsrule, family_ruleattr,        family_ruleconditions,   family_dynamicliveview,
    family_statisticsobject, family_ipfixobject, family_statreader,
    family_sysdiag,        family_user,             family_fileserv,         family_backup,
    family_channel,        family_channel_label,    family_monitoriface,     family_config,
    family_services,       family_features,         family_connlog,          family_system_overview,
    family_hosttrigger,    family_connprot_trigger,
};

// Which resource a request reads, by its code: the caller's account needs
// that bit of its read mask. Requests outside every range (logging in,
// sessions, transactions, the resource list) need none.
struct ReadRange {
  uint32_t first;
  uint32_t last;
  uint32_t resource;
};
constexpr ReadRange kReadRanges[] = {
    {0x11000, 0x11FFF, TQDB_RESOURCE_RULESET},   // objects, rule conditions, rule attributes
    {0x12000, 0x12FFF, TQDB_RESOURCE_CHANNELS},
    {0x13000, 0x13FFF, TQDB_RESOURCE_RULESET},   // firewall rules
    {0x16000, 0x18FFF, TQDB_RESOURCE_RULESET},   // shaping objects, shaping and statistics rules
    {0x19200, 0x192FF, TQDB_RESOURCE_USERS},
    {0x19400, 0x194FF, TQDB_RESOURCE_CONFIG},    // configuration values
    {0x19600, 0x196FF, TQDB_RESOURCE_CONFIG},    // services
    {0x19A00, 0x19AFF, TQDB_RESOURCE_STATREADER},
    {0x19B00, 0x19BFF, TQDB_RESOURCE_CONNLOG},
    {0x19E00, 0x19EFF, TQDB_RESOURCE_SYSDIAG},
    {0x19F00, 0x19FFF, TQDB_RESOURCE_BACKUPS},
    {0x1A001, 0x1A001, TQDB_RESOURCE_CHANNELS},  // link states
    {0x1A101, 0x1A101, TQDB_RESOURCE_CHANNELS},  // link toggle
    {0x1A102, 0x1A104, TQDB_RESOURCE_LOGS},      // log facility levels
    {0x1A200, 0x1A2FF, TQDB_RESOURCE_FILESERV},
    {0x1A300, 0x1A3FF, TQDB_RESOURCE_HOSTTRIGGER},
    {0x1A402, 0x1A40B, TQDB_RESOURCE_SYSTEM_OVERVIEW},
    {0x1A600, 0x1A6FF, TQDB_RESOURCE_FILESERV},
    {0x1AA00, 0x1AAFF, TQDB_RESOURCE_CONNPROT_TRIGGER},
    {0x1AC00, 0x1ACFF, TQDB_RESOURCE_DYNAMICLIVEVIEW},
    {0x1B000, 0x1B1FF, TQDB_RESOURCE_RULESET},   // statistics and IPFIX objects
};

const ReadRange *read_range(uint32_t code) {
  for (const ReadRange &r : kReadRanges)
    if (code >= r.first && code <= r.last) return &r;
  return nullptr;
}

// The routes as dispatched: those that read a resource go through
// read_checked first, which then runs the family's own handler.
struct Routes {
  std::vector<Route> all;
  std::unordered_map<uint32_t, Handler> handlers;  // the families' own, by code
};
const Routes &routes();

void read_checked(Call &c) {
  if (!permitted(c, read_range(c.code)->resource, Permission::kRead)) return;
  routes().handlers.at(c.code)(c);
}

const Routes &routes() {
  static const Routes table = [] {
    Routes t;
    for (Family family : kFamilies) {
      for (Route r : family()) {
        if (read_range(r.code) != nullptr) {
          t.handlers.emplace(r.code, r.handler);
          r.handler = read_checked;
        }
        t.all.push_back(r);
      }
    }
    return t;
  }();
  return table;
}

}  // namespace

Dispatch::Dispatch() {
  for (const Route &r : routes().all) {
    const bool fresh = routes_.emplace(r.code, &r).second;
    TQ_BUG_ON(!fresh, "request code 0x%x routed twice", r.code);
  }
}

const Route *Dispatch::find(uint32_t code) const {
  auto it = routes_.find(code);
  return it == routes_.end() ? nullptr : it->second;
}

void Dispatch::serve(Hub &hub, Store &store, uint32_t conn, Login &login, tq_msg_t &m) const {
  const Route *route = find(m.type);
  uint32_t session = 0, cid = 0;
  bool header_ok = true;
  if (!route || route->header == Header::kSessionCid) {
    header_ok = tq_msg_get_uint32(&m, &session);
    header_ok = header_ok && tq_msg_get_uint32(&m, &cid);
  }
  Call call{hub, store, conn, login, m.type, session, cid, nullptr, Body(&m)};
  hub.note_request(conn, m.type, route, session, cid, static_cast<uint32_t>(m.len));

  if (!route) return call.error(format("Unknown request code 0x%x", m.type));
  if (!header_ok) return call.error(format("Malformed request 0x%x: body too short", m.type));
  switch (route->access) {
    case Access::kAnyone:
      break;
    case Access::kLoggedIn:
      if (!login.accepted) return call.error("Not authenticated");
      break;
    case Access::kSession:
      if (!login.accepted) return call.error("Not authenticated");
      call.sess = store.session(session);
      if (!call.sess || call.sess->conn != conn)
        return call.error(format("Unknown session %u", session));
      break;
  }
  route->handler(call);
}

}  // namespace tqsim
