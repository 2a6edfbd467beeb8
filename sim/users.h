// The simulator's user accounts: who may log in, from where, and what each
// account may read and change.
//
// The accounts are the contents of resource 3 ("users"): changing them is a
// transaction like any other, and logins are checked against the committed
// accounts. The accounts given on the command line (--user) are merged in
// once per run, the first time a login is checked: a missing one is added
// with every read and write bit, one already held (from the state file or a
// backup) takes the command line's password.
//
// Bit N of an account's read mask lets it use the requests of resource N,
// bit N of its write mask lets it open a transaction on resource N.
// Passwords are kept as SHA-256 over a random salt and the password.
#ifndef TQSIM_USERS_H
#define TQSIM_USERS_H

#include <cstdint>
#include <map>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "state_io.h"

namespace tqsim {

struct User;
struct Call;

inline constexpr std::size_t kUserNameMax = 64;
inline constexpr std::size_t kUserHostsMax = 256;
inline constexpr std::size_t kPubkeyMax = 4096;

struct PublicKey {
  std::string line;  // as added: type, base64 key, optional comment
};

struct Account {
  uint32_t id = 0;
  std::string name;
  uint32_t readbm = 0;
  uint32_t writebm = 0;
  uint32_t survbm = 0;
  uint32_t timeout = 0;
  uint32_t flags = 0;
  std::string hosts;  // "a.b.c.d[/n]" separated by commas or blanks; empty: any
  std::string salt;   // hex
  std::string hash;   // hex SHA-256 of the salt's bytes then the password
  std::vector<PublicKey> pubkeys;

  void set_password(std::string_view password);
  bool password_is(std::string_view password) const;
  bool may_read(uint32_t resource) const { return bit(readbm, resource); }
  bool may_write(uint32_t resource) const { return bit(writebm, resource); }

 private:
  static bool bit(uint32_t mask, uint32_t n) { return n < 32 && (mask >> n & 1u) != 0; }
};

struct Users {
  std::map<uint32_t, Account> accounts;
  uint32_t next_id = 1;
  // The command line's accounts are merged in (not saved).
  bool seeded = false;

  Account *find(uint32_t id);
  const Account *find(uint32_t id) const;
  Account *find(std::string_view name);
  const Account *find(std::string_view name) const;
  // Adds or updates the command line's accounts (see above).
  void seed(std::span<const User> users);
};

void io(Io &io, PublicKey &k);
void io(Io &io, Account &a);
void io(Io &io, Users &u);

// Empty when hosts is a valid list, else what is wrong with it.
std::string hosts_problem(std::string_view hosts);
// An empty list admits every address; else address must be one of the
// addresses or lie in one of the networks.
bool host_admitted(std::string_view hosts, std::string_view address);
// Empty when line is one OpenSSH public key line, else why not.
std::string pubkey_problem(std::string_view line);
// Two key lines name the same key when type and key data agree (the
// comment does not count).
bool same_pubkey(std::string_view a, std::string_view b);

// The committed accounts that logins are checked against, with the command
// line's accounts merged in.
const Users &login_accounts(Call &c);

// Whether the caller's account has bit `resource` of its read or write
// mask; when not, answers "Permission denied: user ops may not write
// resource 1 (ruleset)" and returns false.
enum class Permission { kRead, kWrite };
bool permitted(Call &c, uint32_t resource, Permission what);

}  // namespace tqsim

#endif
