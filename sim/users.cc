#include "users.h"

#include <arpa/inet.h>

#include <algorithm>
#include <cctype>
#include <random>

#include "dispatch.h"
#include "options.h"
#include "sha256.h"
#include "tqdb_api.h"
#include "util.h"

namespace tqsim {
namespace {

constexpr uint32_t kAllBits = 0xFFFFFFFFu;
constexpr std::string_view kSeparators = ", \t";

// The hex digest of the salt's bytes then the password; empty when the salt
// is not hex (a hand-edited state file), which no password matches.
std::string digest(std::string_view salt_hex, std::string_view password) {
  auto nibble = [](char ch) -> int {
    if (ch >= '0' && ch <= '9') return ch - '0';
    if (ch >= 'a' && ch <= 'f') return ch - 'a' + 10;
    if (ch >= 'A' && ch <= 'F') return ch - 'A' + 10;
    return -1;
  };
  if (salt_hex.size() % 2 != 0) return {};
  std::string input;
  for (std::size_t i = 0; i < salt_hex.size(); i += 2) {
    const int hi = nibble(salt_hex[i]), lo = nibble(salt_hex[i + 1]);
    if (hi < 0 || lo < 0) return {};
    input += static_cast<char>(hi << 4 | lo);
  }
  input += password;
  return to_hex(sha256(input));
}

// The words of a list separated by commas or blanks.
std::vector<std::string_view> words(std::string_view s) {
  std::vector<std::string_view> out;
  while (!s.empty()) {
    const std::size_t start = s.find_first_not_of(kSeparators);
    if (start == std::string_view::npos) break;
    s.remove_prefix(start);
    const std::size_t end = std::min(s.find_first_of(kSeparators), s.size());
    out.push_back(s.substr(0, end));
    s.remove_prefix(end);
  }
  return out;
}

bool ipv4(std::string_view text, uint32_t &addr) {
  in_addr a{};
  if (text.size() > 15 || inet_pton(AF_INET, std::string(text).c_str(), &a) != 1) return false;
  addr = ntohl(a.s_addr);
  return true;
}

// "a.b.c.d" or "a.b.c.d/n" (n 0 to 32) as an address and its mask.
bool network(std::string_view word, uint32_t &addr, uint32_t &mask) {
  const std::size_t slash = word.find('/');
  unsigned bits = 32;
  if (slash != std::string_view::npos) {
    const std::string_view n = word.substr(slash + 1);
    if (n.empty() || n.size() > 2 || !std::all_of(n.begin(), n.end(), [](unsigned char ch) { return std::isdigit(ch) != 0; })) return false;
    bits = static_cast<unsigned>(std::stoi(std::string(n)));
    if (bits > 32) return false;
  }
  mask = bits == 0 ? 0 : kAllBits << (32 - bits);
  return ipv4(word.substr(0, slash), addr);
}

// Standard base64 with padding; false on anything else.
bool base64_decode(std::string_view in, std::string &out) {
  auto value = [](char ch) -> int {
    if (ch >= 'A' && ch <= 'Z') return ch - 'A';
    if (ch >= 'a' && ch <= 'z') return ch - 'a' + 26;
    if (ch >= '0' && ch <= '9') return ch - '0' + 52;
    if (ch == '+') return 62;
    if (ch == '/') return 63;
    return -1;
  };
  if (in.empty() || in.size() % 4 != 0) return false;
  out.clear();
  for (std::size_t i = 0; i < in.size(); i += 4) {
    const bool last = i + 4 == in.size();
    const int pad = last ? (in[i + 3] == '=') + (in[i + 2] == '=') : 0;
    if (!last && in.substr(i, 4).find('=') != std::string_view::npos) return false;
    if (pad == 1 && in[i + 2] == '=') return false;
    uint32_t n = 0;
    for (int j = 0; j < 4; ++j) {
      const int v = j >= 4 - pad ? 0 : value(in[i + j]);
      if (v < 0) return false;
      n = n << 6 | static_cast<uint32_t>(v);
    }
    for (int j = 0; j < 3 - pad; ++j) out += static_cast<char>(n >> (16 - 8 * j) & 0xFF);
  }
  return true;
}

constexpr std::string_view kKeyTypes[] = {"ssh-rsa", "ssh-ed25519", "ecdsa-sha2-nistp256",
                                          "ecdsa-sha2-nistp384", "ecdsa-sha2-nistp521",
                                          "ssh-dss"};

}  // namespace

void Account::set_password(std::string_view password) {
  std::random_device rd;
  std::array<uint8_t, 16> salt_bytes{};
  for (uint8_t &b : salt_bytes) b = static_cast<uint8_t>(rd());
  salt = to_hex(salt_bytes);
  hash = digest(salt, password);
}

bool Account::password_is(std::string_view password) const {
  const std::string d = digest(salt, password);
  return !d.empty() && d == hash;
}

Account *Users::find(uint32_t id) {
  auto it = accounts.find(id);
  return it == accounts.end() ? nullptr : &it->second;
}
const Account *Users::find(uint32_t id) const { return const_cast<Users *>(this)->find(id); }

Account *Users::find(std::string_view name) {
  for (auto &[id, a] : accounts)
    if (a.name == name) return &a;
  return nullptr;
}
const Account *Users::find(std::string_view name) const {
  return const_cast<Users *>(this)->find(name);
}

void Users::seed(std::span<const User> users) {
  seeded = true;
  for (const User &u : users) {
    Account *a = find(u.name);
    if (!a) {
      while (accounts.contains(next_id) || next_id == 0) ++next_id;
      a = &accounts[next_id];
      a->id = next_id++;
      a->name = u.name;
      a->readbm = a->writebm = kAllBits;
    }
    a->set_password(u.password);
  }
}

void io(Io &io, PublicKey &k) { io.field("line", k.line); }

void io(Io &io, Account &a) {
  io.field("id", a.id);
  io.field("name", a.name);
  io.field("readbm", a.readbm);
  io.field("writebm", a.writebm);
  io.field("survbm", a.survbm);
  io.field("timeout", a.timeout);
  io.field("flags", a.flags);
  io.field("hosts", a.hosts);
  io.field("salt", a.salt);
  io.field("hash", a.hash);
  io.list("pubkeys", a.pubkeys);
}

void io(Io &io, Users &u) {
  io.field("next_id", u.next_id);
  io.by_id("accounts", u.accounts);
  if (!io.loading()) return;
  // Ids are never handed out twice, whatever the counter read back says.
  if (!u.accounts.empty()) u.next_id = std::max(u.next_id, u.accounts.rbegin()->first + 1);
  u.seeded = false;
}

std::string hosts_problem(std::string_view hosts) {
  if (hosts.size() > kUserHostsMax) return format("more than %zu characters", kUserHostsMax);
  for (std::string_view w : words(hosts)) {
    uint32_t addr = 0, mask = 0;
    if (!network(w, addr, mask))
      return "'" + std::string(w) + "' is not an address a.b.c.d or a network a.b.c.d/n";
  }
  return {};
}

bool host_admitted(std::string_view hosts, std::string_view address) {
  const auto list = words(hosts);
  if (list.empty()) return true;
  uint32_t from = 0;
  if (!ipv4(address, from)) return false;
  return std::any_of(list.begin(), list.end(), [from](std::string_view w) {
    uint32_t addr = 0, mask = 0;
    return network(w, addr, mask) && (from & mask) == (addr & mask);
  });
}

std::string pubkey_problem(std::string_view line) {
  if (line.size() > kPubkeyMax) return format("longer than %zu bytes", kPubkeyMax);
  const auto w = words(line);
  if (w.size() < 2) return "not a public key line: type, key data, optional comment";
  const std::string_view type = w[0];
  if (std::find(std::begin(kKeyTypes), std::end(kKeyTypes), type) == std::end(kKeyTypes))
    return "unknown key type '" + std::string(type) + "'";
  std::string blob;
  if (!base64_decode(w[1], blob)) return "the key data is not base64";
  // The key data starts with its own type name: u32 length, the name.
  if (blob.size() < 4) return "the key data is cut short";
  const uint32_t n = static_cast<uint8_t>(blob[0]) << 24 | static_cast<uint8_t>(blob[1]) << 16 |
                     static_cast<uint8_t>(blob[2]) << 8 | static_cast<uint8_t>(blob[3]);
  if (n > blob.size() - 4 || std::string_view(blob).substr(4, n) != type)
    return "the key data is not a " + std::string(type) + " key";
  return {};
}

bool same_pubkey(std::string_view a, std::string_view b) {
  const auto wa = words(a), wb = words(b);
  return wa.size() >= 2 && wb.size() >= 2 && wa[0] == wb[0] && wa[1] == wb[1];
}

const Users &login_accounts(Call &c) {
  Resource &r = *c.store.resource(TQDB_RESOURCE_USERS);
  const auto &seeds = c.hub.options().users;
  if (!r.data.users.seeded) r.data.users.seed(seeds);
  if (r.snapshot && !r.snapshot->users.seeded) r.snapshot->users.seed(seeds);
  return r.snapshot ? r.snapshot->users : r.data.users;
}

bool permitted(Call &c, uint32_t resource, Permission what) {
  const Account *a = login_accounts(c).find(c.login.user_number);
  const bool read = what == Permission::kRead;
  if (a && (read ? a->may_read(resource) : a->may_write(resource))) return true;
  const Resource *r = c.store.resource(resource);
  const std::string label = r ? resource_label(*r) : format("%u", resource);
  if (!a) {
    c.error("Permission denied: user " + c.login.user + " has no account any more");
  } else {
    c.error("Permission denied: user " + a->name + " may not " + (read ? "read" : "write") +
            " resource " + label);
  }
  return false;
}

}  // namespace tqsim
