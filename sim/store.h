// The simulator's data model: lockable resources, sessions and transactions.
//
// A resource is a lockable area of the appliance's database. Its contents
// live in a ResourceData; a transaction copies them aside when it begins
// (the snapshot), the session's change requests edit the live contents, a
// rollback puts the snapshot back and a commit drops it and publishes a new
// commit id. While a session holds a resource no other session may begin a
// transaction on it or change it.
//
//   idle --begin--> open --commit--> idle      (new commit id, broadcast)
//                     |--rollback-> idle      (snapshot restored)
//                     |--stolen---> idle      (snapshot restored, notice)
//                     '--session ends--> idle (snapshot restored)
//
// The store knows nothing about connections beyond a number per session and
// nothing about the wire; the request handlers enforce the rules and word
// the answers, the store keeps the invariants (TQ-BUG when broken).
#ifndef TQSIM_STORE_H
#define TQSIM_STORE_H

#include <cstdint>
#include <map>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "channels.h"
#include "config.h"
#include "overview.h"
#include "ruleset.h"
#include "sysdiag.h"
#include "triggers.h"
#include "users.h"
#include "tq_commitid.h"

namespace tqsim {

// The proxy settings of one resource record, as the resource list shows them.
struct ProxySettings {
  uint8_t proxy = 0;
  uint8_t enterprise = 0;
  std::string address;
  std::string user;
  std::string password;
};

// What one resource holds. Each family keeps its tables here as plain
// members, used by the resource they belong to; the struct must stay
// copyable, because a transaction's snapshot is a copy of it.
struct ResourceData {
  // Resource "resource" (11): proxy settings by resource record id.
  std::map<uint32_t, ProxySettings> proxies;
  // Resource "ruleset" (1).
  Ruleset ruleset;
  // Resource "dynamicliveview" (23).
  LiveViews liveviews;
  // Resource "users" (3).
  Users users;
  // Resource "sysdiag" (7): the levels.
  Levels levels;
  // Resource "channels" (2).
  Channels channels;
  // Resource "config" (4).
  Config config;
  // Resource "logs" (9).
  LogLevels logs;
  // Resource "hosttrigger" (12).
  HostTriggers hosttriggers;
  // Resource "system_overview" (13).
  SystemOverview overview;
  // Resource "connprot_trigger" (20).
  ConnprotTriggers connprot_triggers;
};

struct Resource {
  uint32_t id = 0;
  std::string name;
  ResourceData data;                      // live contents
  std::optional<ResourceData> snapshot;   // while a transaction is open
  tq_commitid_t commit{};                 // the last commit (or the initial state)
  uint32_t holder = 0;                    // session holding the lock; 0 = free
  uint64_t transactions = 0;              // transactions begun on it
  std::string last_operation;             // e.g. "commit by admin (session 3)"
};

struct Session {
  uint32_t id = 0;
  uint32_t conn = 0;    // the connection that opened it
  std::string user;
  uint32_t open = 0;    // resource of the open transaction; 0 = none
};

class Store {
 public:
  // system_id names this appliance in commit ids; start_time stamps the
  // initial commit id of every resource.
  Store(std::string_view system_id, uint64_t start_time);

  Resource *resource(uint32_t id);
  const Resource *resource(uint32_t id) const;
  std::span<Resource> resources() { return resources_; }

  Session &open_session(uint32_t conn, std::string_view user);
  Session *session(uint32_t id);
  const std::map<uint32_t, Session> &sessions() const { return sessions_; }
  // Ends every session of a connection: open transactions are rolled back
  // and their locks released.
  void end_sessions_of(uint32_t conn);

  // "admin (session 3)": how a lock holder is named to others.
  std::string holder_name(const Resource &r) const;

  // Transactions. The caller has checked that the session has none open
  // and that the resource is free.
  void begin(Session &s, Resource &r);
  // Publishes the open transaction; returns the new commit id.
  const tq_commitid_t &commit(Session &s, std::string_view log, uint64_t now);
  void rollback(Session &s);

  // The running appliance's zones, system names and diagnostic log: not
  // part of any resource, never saved.
  Diagnostics diagnostics;

 private:
  std::string system_id_;
  std::vector<Resource> resources_;
  std::map<uint32_t, Session> sessions_;
  uint32_t next_session_ = 1;
  uint64_t last_seqno_ = 0;
};

}  // namespace tqsim

#endif
