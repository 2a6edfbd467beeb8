// User accounts and their public keys (0x192xx). Changes need the session's
// own transaction on resource 3 (users); lists, gets and user_auth read
// what the session sees, user_auth the committed accounts as a login does.
#include <algorithm>

#include "answer.h"
#include "dispatch.h"
#include "tqdb_api.h"
#include "tqdb_api_user.h"
#include "users.h"
#include "util.h"

namespace tqsim {
namespace {

constexpr uint32_t kUsersResource = TQDB_RESOURCE_USERS;

const Users &view_users(Call &c) {
  login_accounts(c);  // merges the command line's accounts first
  return c.view(*c.store.resource(kUsersResource)).users;
}
Users *change_users(Call &c) {
  login_accounts(c);
  ResourceData *d = c.change(*c.store.resource(kUsersResource));
  return d ? &d->users : nullptr;
}

void put_account(Out &o, const Account &a) {
  o.u32(a.id).text(a.name).u32(a.readbm).u32(a.writebm).u32(a.survbm).u32(a.timeout);
  o.u32(a.flags).text(a.hosts);
}

// The body of add and modify after modify's id; the password apart, as it
// is kept only as a digest.
bool read_account(Body &in, Account &a, std::string &password) {
  return in.text(a.name) && in.text(password) && in.u32(a.readbm) && in.u32(a.writebm) &&
         in.u32(a.survbm) && in.u32(a.timeout) && in.u32(a.flags) && in.text(a.hosts) && in.end();
}

// Empty when a may be stored among users (in place of the account of its
// id, if any), else the refusal.
std::string account_problem(const Users &users, const Account &a, const std::string &password) {
  if (a.name.empty() || a.name.size() > kUserNameMax)
    return format("A user name has 1 to %zu characters", kUserNameMax);
  if (const Account *other = users.find(a.name); other && other->id != a.id)
    return "User '" + a.name + "' exists already";
  if (password.empty() && a.hash.empty()) return "A new user needs a password";
  if (std::string why = hosts_problem(a.hosts); !why.empty()) return "Bad hosts: " + why;
  return {};
}

// The accounts must keep one that may change them: without it nobody could
// ever add, fix or remove an account again. replacement stands for the
// account of id (nullptr: removed).
bool keeps_a_user_admin(const Users &users, uint32_t id, const Account *replacement) {
  return std::any_of(users.accounts.begin(), users.accounts.end(), [&](const auto &entry) {
    const Account *now = entry.first == id ? replacement : &entry.second;
    return now != nullptr && now->may_write(kUsersResource);
  });
}

void list(Call &c) {
  if (!c.in.end()) return c.malformed();
  const Users &users = view_users(c);
  if (users.accounts.empty()) return c.ok();
  ListAnswer a(c);
  for (const auto &[id, account] : users.accounts) {
    put_account(a.out(), account);
    a.next();
  }
  a.finish();
}

void get(Call &c) {
  std::string name;
  if (!c.in.text(name) || !c.in.end()) return c.malformed();
  const Account *a = view_users(c).find(name);
  if (!a) return c.error("Unknown user '" + name + "'");
  Out o;
  put_account(o, *a);
  c.answer(o);
}

void add(Call &c) {
  Account a;
  std::string password;
  if (!read_account(c.in, a, password)) return c.malformed();
  Users *users = change_users(c);
  if (!users) return;
  if (std::string why = account_problem(*users, a, password); !why.empty()) return c.error(why);
  while (users->next_id == 0 || users->accounts.contains(users->next_id)) ++users->next_id;
  a.id = users->next_id++;
  a.set_password(password);
  users->accounts.emplace(a.id, a);
  c.answer(Out().u32(a.id));
}

Account *find_id(Call &c, Users &users, uint32_t id) {
  Account *a = users.find(id);
  if (!a) c.error(format("Unknown user id %u", id));
  return a;
}

void modify(Call &c) {
  Account a;
  std::string password;
  if (!c.in.u32(a.id) || !read_account(c.in, a, password)) return c.malformed();
  Users *users = change_users(c);
  if (!users) return;
  Account *old = find_id(c, *users, a.id);
  if (!old) return;
  a.salt = old->salt;
  a.hash = old->hash;
  a.pubkeys = old->pubkeys;
  if (std::string why = account_problem(*users, a, password); !why.empty()) return c.error(why);
  if (!keeps_a_user_admin(*users, a.id, &a))
    return c.error("User '" + old->name + "' is the last that may change the users: it keeps "
                   "write permission on resource 3 (users)");
  if (!password.empty()) a.set_password(password);
  *old = std::move(a);
  c.ok();
}

void remove(Call &c) {
  uint32_t id = 0;
  if (!c.in.u32(id) || !c.in.end()) return c.malformed();
  Users *users = change_users(c);
  if (!users) return;
  const Account *a = find_id(c, *users, id);
  if (!a) return;
  if (!keeps_a_user_admin(*users, id, nullptr))
    return c.error("User '" + a->name + "' is the last that may change the users: it cannot be "
                   "removed");
  users->accounts.erase(id);
  c.ok();
}

// Body: username, password, address. The answer is the account's id, or 0
// when the name, the password or the address is not accepted.
void auth(Call &c) {
  std::string name, password, address;
  if (!c.in.text(name) || !c.in.text(password) || !c.in.text(address) || !c.in.end())
    return c.malformed();
  const Account *a = login_accounts(c).find(name);
  const bool ok = a && a->password_is(password) && host_admitted(a->hosts, address);
  c.answer(Out().u32(ok ? a->id : 0));
}

// The account a key request names: as the session sees it, or in the
// session's own transaction for a change.
const Account *key_owner(Call &c, const std::string &name) {
  const Account *a = view_users(c).find(name);
  if (!a) c.error("Unknown user '" + name + "'");
  return a;
}
Account *key_owner_to_change(Call &c, const std::string &name) {
  Users *users = change_users(c);
  if (!users) return nullptr;
  Account *a = users->find(name);
  if (!a) c.error("Unknown user '" + name + "'");
  return a;
}

void pubkey_list(Call &c) {
  std::string name;
  if (!c.in.text(name) || !c.in.end()) return c.malformed();
  const Account *a = key_owner(c, name);
  if (!a) return;
  if (a->pubkeys.empty()) return c.ok();
  ListAnswer ans(c);
  for (const PublicKey &k : a->pubkeys) {
    ans.out().text(k.line);
    ans.next();
  }
  ans.finish();
}

void pubkey_add(Call &c) {
  std::string name;
  PublicKey key;
  if (!c.in.text(name) || !c.in.text(key.line) || !c.in.end()) return c.malformed();
  if (std::string why = pubkey_problem(key.line); !why.empty())
    return c.error("Bad public key: " + why);
  Account *a = key_owner_to_change(c, name);
  if (!a) return;
  for (const PublicKey &k : a->pubkeys)
    if (same_pubkey(k.line, key.line)) return c.error("User '" + name + "' has this key already");
  a->pubkeys.push_back(std::move(key));
  c.ok();
}

void pubkey_remove(Call &c) {
  std::string name, line;
  if (!c.in.text(name) || !c.in.text(line) || !c.in.end()) return c.malformed();
  Account *a = key_owner_to_change(c, name);
  if (!a) return;
  const auto gone = std::erase_if(a->pubkeys, [&](const PublicKey &k) {
    return same_pubkey(k.line, line);
  });
  if (gone == 0) return c.error("User '" + name + "' has no such key");
  c.ok();
}

void pubkey_clear(Call &c) {
  std::string name;
  if (!c.in.text(name) || !c.in.end()) return c.malformed();
  Account *a = key_owner_to_change(c, name);
  if (!a) return;
  a->pubkeys.clear();
  c.ok();
}

constexpr auto H = Header::kSessionCid;
constexpr auto S = Access::kSession;
constexpr Route kRoutes[] = {
    {TQDB_REQ_USER_LIST, "user_list", H, S, list},
    {TQDB_REQ_USER_ADD, "user_add", H, S, add},
    {TQDB_REQ_USER_MODIFY, "user_modify", H, S, modify},
    {TQDB_REQ_USER_REMOVE, "user_remove", H, S, remove},
    {TQDB_REQ_USER_AUTH, "user_auth", H, S, auth},
    {TQDB_REQ_USER_GET, "user_get", H, S, get},
    {TQDB_REQ_USER_PUBKEY_ADD, "user_pubkey_add", H, S, pubkey_add},
    {TQDB_REQ_USER_PUBKEY_REMOVE, "user_pubkey_remove", H, S, pubkey_remove},
    {TQDB_REQ_USER_PUBKEY_CLEAR, "user_pubkey_clear", H, S, pubkey_clear},
    {TQDB_REQ_USER_PUBKEY_LIST, "user_pubkey_list", H, S, pubkey_list},
};

}  // namespace

std::span<const Route> family_user() { return kRoutes; }

}  // namespace tqsim
