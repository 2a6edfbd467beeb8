#include "store.h"

#include <algorithm>
#include <cstring>
#include <utility>

#include "tq_log.h"
#include "util.h"

namespace tqsim {
namespace {

struct ResourceName {
  uint32_t id;
  const char *name;
};

// The appliance's lockable resources, by number.
constexpr ResourceName kResources[] = {
    {1, "ruleset"},          {2, "channels"},  {3, "users"},          {4, "config"},
    {5, "statreader"},       {6, "connlog"},   {7, "sysdiag"},        {8, "backups"},
    {9, "logs"},             {10, "fileserv"}, {11, "resource"},      {12, "hosttrigger"},
    {13, "system_overview"}, {20, "connprot_trigger"},                {23, "dynamicliveview"},
};

void set_commitid(tq_commitid_t &c, uint64_t seqno, uint64_t stamp, std::string_view system_id,
                  std::string_view log) {
  c = tq_commitid_t{};
  c.seqno = seqno;
  c.timestamp = stamp;
  copy_cut(c.systemid, system_id);
  copy_cut(c.log, log);
}

}  // namespace

Store::Store(std::string_view system_id, uint64_t start_time) : system_id_(system_id) {
  TQ_BUG_ON(system_id_.empty(), "a commit id needs a system id");
  resources_.reserve(std::size(kResources));
  for (const auto &[id, name] : kResources) {
    Resource r;
    r.id = id;
    r.name = name;
    set_commitid(r.commit, 0, start_time, system_id_, "initial state");
    resources_.push_back(std::move(r));
  }
}

const Resource *Store::resource(uint32_t id) const {
  auto it = std::find_if(resources_.begin(), resources_.end(),
                         [id](const Resource &r) { return r.id == id; });
  return it == resources_.end() ? nullptr : &*it;
}

Resource *Store::resource(uint32_t id) {
  return const_cast<Resource *>(std::as_const(*this).resource(id));
}

Session &Store::open_session(uint32_t conn, std::string_view user) {
  // Ids are unique while the simulator runs: never 0, never one in use,
  // even after the counter wraps.
  while (next_session_ == 0 || sessions_.contains(next_session_)) ++next_session_;
  const uint32_t id = next_session_++;
  Session &s = sessions_[id];
  s.id = id;
  s.conn = conn;
  s.user = user;
  return s;
}

Session *Store::session(uint32_t id) {
  auto it = sessions_.find(id);
  return it == sessions_.end() ? nullptr : &it->second;
}

void Store::end_sessions_of(uint32_t conn) {
  for (auto it = sessions_.begin(); it != sessions_.end();) {
    if (it->second.conn != conn) {
      ++it;
      continue;
    }
    if (it->second.open != 0) rollback(it->second);
    it = sessions_.erase(it);
  }
}

std::string Store::holder_name(const Resource &r) const {
  auto it = sessions_.find(r.holder);
  if (r.holder == 0 || it == sessions_.end()) return {};
  return format("%s (session %u)", it->second.user.c_str(), it->second.id);
}

void Store::begin(Session &s, Resource &r) {
  TQ_BUG_ON(s.open != 0, "session %u already has a transaction", s.id);
  TQ_BUG_ON(r.holder != 0, "resource %u is held by session %u", r.id, r.holder);
  r.holder = s.id;
  r.snapshot = r.data;
  ++r.transactions;
  s.open = r.id;
  r.last_operation = "begin by " + holder_name(r);
}

const tq_commitid_t &Store::commit(Session &s, std::string_view log, uint64_t now) {
  Resource *r = resource(s.open);
  TQ_BUG_ON(r == TQ_NULL || r->holder != s.id, "session %u holds no transaction", s.id);
  r->last_operation = "commit by " + holder_name(*r);
  r->snapshot.reset();
  r->holder = 0;
  s.open = 0;
  set_commitid(r->commit, ++last_seqno_, now, system_id_, log);
  return r->commit;
}

void Store::rollback(Session &s) {
  Resource *r = resource(s.open);
  TQ_BUG_ON(r == TQ_NULL || r->holder != s.id || !r->snapshot,
            "session %u holds no transaction", s.id);
  r->last_operation = "rollback by " + holder_name(*r);
  r->data = std::move(*r->snapshot);
  r->snapshot.reset();
  r->holder = 0;
  s.open = 0;
}

}  // namespace tqsim
