// Transactions and resource locks: begin, commit, rollback, the resource
// list, stealing a lock, and the proxy settings of resource records.
#include <cstdio>

#include "backups.h"
#include "dispatch.h"
#include "options.h"
#include "state.h"
#include "tq_msg.h"
#include "tqdb_api.h"
#include "users.h"
#include "util.h"

namespace tqsim {
namespace {

// Resource records carry their proxy settings in the contents of resource
// "resource", so that changing them is a transaction like any other.
constexpr uint32_t kRecordsResource = TQDB_RESOURCE_RESOURCE;

std::string busy_text(const Store &store, const Session &s) {
  const Resource *open = store.resource(s.open);
  return format("Session %u already has a transaction open on resource %s", s.id,
                open ? resource_label(*open).c_str() : "?");
}

std::string idle_text(const Session &s) {
  return format("No transaction open in session %u", s.id);
}

Resource *find_resource(Call &c, uint32_t id) {
  Resource *r = c.store.resource(id);
  if (!r) c.error(format("Unknown resource %u", id));
  return r;
}

// Body: u32 resource, u8 flag (its meaning is not given; any value goes).
// Opening a transaction on resource N takes bit N of the account's write
// mask, as stealing one does.
void begin(Call &c) {
  uint32_t id = 0;
  uint8_t flag = 0;
  if (!c.in.u32(id) || !c.in.u8(flag) || !c.in.end()) return c.malformed();
  Resource *r = find_resource(c, id);
  if (!r || !permitted(c, r->id, Permission::kWrite)) return;
  if (c.sess->open != 0) return c.error(busy_text(c.store, *c.sess));
  if (r->holder != 0) return c.lock(lock_text(c.store, *r));
  c.store.begin(*c.sess, *r);
  Msg m = c.data();
  if (m) put_commitid(m.get(), r->commit);
  c.reply(std::move(m));
}

// Body: string commit message, kept as the commit id's log text.
void commit(Call &c) {
  std::string text;
  if (!c.in.text(text) || !c.in.end()) return c.malformed();
  if (c.sess->open == 0) return c.error(idle_text(*c.sess));
  const tq_commitid_t id = commit_open(c, text);
  Msg m = c.data();
  if (m) put_commitid(m.get(), id);
  c.reply(std::move(m));
  broadcast_commit(c, id);
}

void rollback(Call &c) {
  if (!c.in.end()) return c.malformed();
  if (c.sess->open == 0) return c.error(idle_text(*c.sess));
  c.store.rollback(*c.sess);
  c.ok();
}

// 19301: no body; acknowledged.
void resource_19301(Call &c) {
  if (!c.in.end()) return c.malformed();
  c.ok();
}

void resource_list(Call &c) {
  if (!c.in.end()) return c.malformed();
  const Resource *records = c.store.resource(kRecordsResource);
  Msg m = c.data();
  if (!m) return;
  tq_msg_t *out = m.get();
  for (const Resource &r : c.store.resources()) {
    ProxySettings proxy;
    if (auto it = records->data.proxies.find(r.id); it != records->data.proxies.end())
      proxy = it->second;
    tq_msg_put_uint32(out, r.id);
    put_text(out, r.name);
    put_text(out, proxy.address);
    put_text(out, proxy.user);
    put_text(out, proxy.password);
    tq_msg_put_uint8(out, proxy.proxy);
    tq_msg_put_uint8(out, proxy.enterprise);
    put_text(out, c.store.holder_name(r));
    put_text(out, r.last_operation);
    tq_msg_put_uint32(out, 0);  // average query time: answers are immediate
    tq_msg_put_uint64(out, r.transactions);
    put_text(out, r.holder != 0 ? "locked" : "idle");
  }
  c.reply(std::move(m));
}

// Body: u32 record id, u8 proxy, u8 enterprise, strings address, user and
// password: the proxy settings of one resource record.
void resource_19303(Call &c) {
  uint32_t id = 0;
  ProxySettings p;
  if (!c.in.u32(id) || !c.in.u8(p.proxy) || !c.in.u8(p.enterprise) || !c.in.text(p.address) ||
      !c.in.text(p.user) || !c.in.text(p.password) || !c.in.end())
    return c.malformed();
  if (!find_resource(c, id) || !permitted(c, kRecordsResource, Permission::kWrite)) return;
  ResourceData *data = c.edit(*c.store.resource(kRecordsResource));
  if (!data) return;
  data->proxies[id] = std::move(p);
  c.ok();
}

// Body: u32 record id. The lock moves to the caller: the holder's
// transaction is rolled back and it is told so; the caller's transaction
// starts from the restored contents.
void steal(Call &c) {
  uint32_t id = 0;
  if (!c.in.u32(id) || !c.in.end()) return c.malformed();
  Resource *r = find_resource(c, id);
  if (!r || !permitted(c, r->id, Permission::kWrite)) return;
  if (r->holder == c.sess->id) return c.ok();
  if (c.sess->open != 0) return c.error(busy_text(c.store, *c.sess));
  if (r->holder != 0) {
    Session *victim = c.store.session(r->holder);
    const std::string text = "Resource " + resource_label(*r) + " was taken over by " +
                             format("%s (session %u)", c.sess->user.c_str(), c.sess->id) +
                             "; your transaction was rolled back";
    c.store.rollback(*victim);
    c.hub.send_to_session(victim->id, notice_detached(victim->id, text));
  }
  c.store.begin(*c.sess, *r);
  r->last_operation = "steal by " + c.store.holder_name(*r);
  c.ok();
}

constexpr Route kRoutes[] = {
    {TQDB_REQ_BEGIN, "begin", Header::kSessionCid, Access::kSession, begin},
    {TQDB_REQ_COMMIT, "commit", Header::kSessionCid, Access::kSession, commit},
    {TQDB_REQ_ROLLBACK, "rollback", Header::kSessionCid, Access::kSession, rollback},
    {TQDB_REQ_RESOURCE_19301, "resource_19301", Header::kSessionCid, Access::kSession,
     resource_19301},
    {TQDB_REQ_RESOURCE_19303, "resource_19303", Header::kSessionCid, Access::kSession,
     resource_19303},
    {TQDB_REQ_RESOURCE_LIST, "resource_list", Header::kSessionCid, Access::kSession,
     resource_list},
    {TQDB_REQ_RESOURCE_STEAL, "resource_steal", Header::kSessionCid, Access::kSession, steal},
};

}  // namespace

// The saved resources outlive the process when --state names a file: each
// commit of one writes them all. A failed write is reported on stderr; the
// commit stands.
tq_commitid_t commit_open(Call &c, std::string_view text) {
  const uint32_t resource = c.sess->open;
  const tq_commitid_t id = c.store.commit(*c.sess, text, c.hub.now());
  const std::string &path = c.hub.options().state_file;
  std::string why;
  if (!path.empty() && is_saved(resource) && !save_state(c.store, path, why))
    std::fprintf(stderr, "tqdbsim: %s\n", why.c_str());
  return id;
}

void broadcast_commit(Call &c, const tq_commitid_t &id) {
  for (const auto &[other, s] : c.store.sessions()) {
    if (other != c.sess->id) c.hub.send_to_session(other, notice_commit(other, id));
  }
}

std::span<const Route> family_resource() { return kRoutes; }

}  // namespace tqsim
