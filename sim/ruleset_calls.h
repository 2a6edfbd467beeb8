// What the ruleset families share in their handlers: reaching the ruleset
// and the live views the way the caller may see or change them, the common
// answers (timestamp; new id and timestamp) and attribute and comment
// handling.
//
// A change goes through change_ruleset() / change_liveviews(): they answer
// LOCK or the missing-transaction ERROR themselves and return null, so a
// handler only returns. Every refusal after that is c.error(text) with a
// text that names the record and says what to do.
#ifndef TQSIM_RULESET_CALLS_H
#define TQSIM_RULESET_CALLS_H

#include <map>
#include <string>
#include <string_view>
#include <type_traits>
#include <utility>

#include "answer.h"
#include "dispatch.h"
#include "ruleset.h"

namespace tqsim {

Ruleset *change_ruleset(Call &c);
const Ruleset &view_ruleset(Call &c);
LiveViews *change_liveviews(Call &c);
const LiveViews &view_liveviews(Call &c);

// The caller's user and the time of this change, as audit fields keep them.
const std::string &user_of(const Call &c);
std::string now_text(const Call &c);

// DATA: the timestamp. DATA: u32 id, the timestamp.
void answer_stamp(Call &c, std::string_view stamp);
void answer_added(Call &c, uint32_t id, std::string_view stamp);
// DATA: one string.
void answer_text(Call &c, std::string_view text);

// The four audit texts as list records carry them.
Out &put_audit(Out &out, const Audit &a);

// Attribute pairs as the list decoders want them: each is put at the head
// of the client's list, so they are sent last key first.
void put_attributes(Out &out, const Attributes &attrs);
// The pairs alone (attribute list answer).
void answer_attributes(Call &c, const Attributes &attrs);
// Sets / removes an attribute of the record named whose; empty or refusal.
std::string set_attribute(Attributes &attrs, std::string_view whose, std::string key,
                          std::string value);
std::string remove_attribute(Attributes &attrs, std::string_view whose, const std::string &key);

inline constexpr std::size_t kCommentsMax = 1023;

// Reads a u8 object type; false after answering "Unknown object type N".
bool object_type_ok(Call &c, uint8_t type);

// --- named records ----------------------------------------------------------------------
// Shaping, statistics and IPFIX objects, rule conditions and live views are
// flat maps of records with a unique name, audit fields and an id counter
// in their holder (the ruleset or the live views). A NamedKind row says
// where a kind lives, how its texts name it and what its add body and
// checks are; the handlers below do add / modify / remove / rename for
// every kind, so a family file keeps its fields, its list layout and its
// own requests.
template <class R, class H = Ruleset>
struct NamedKind {
  H *(*change)(Call &);
  std::map<uint32_t, R> H::*records;
  uint32_t H::*last;
  std::string (*missing)(uint32_t id);                                   // "No shaping object 7"
  std::string (*clash)(const H &h, const std::string &name, uint32_t other);  // name taken
  std::string (*in_use)(const H &h, uint32_t id);  // refusal to remove; null: never referred to
  bool (*read)(Body &in, R &r);                    // the add body (modify: after the id)
  std::string (*check)(const H &h, R &r);          // the kind's checks after the name; may be null
};

namespace named_detail {
template <Kind K>
std::string missing(uint32_t id) {
  return missing_text({K, 0, id});
}
template <Kind K>
std::string clash(const Ruleset &rs, const std::string &name, uint32_t other) {
  const std::string what = noun({K, 0, 0});
  const bool vowel = std::string_view("AEIOUaeiou").find(what[0]) != std::string_view::npos;
  return (vowel ? "An " : "A ") + what + " named '" + name +
         "' already exists: " + label(rs, {K, 0, other});
}
template <Kind K>
std::string in_use(const Ruleset &rs, uint32_t id) {
  return in_use_text(rs, {K, 0, id});
}
}  // namespace named_detail

// The row of a kind kept in the ruleset: its texts come from its Ref kind.
template <Kind K, class R>
constexpr NamedKind<R> ruleset_kind(std::map<uint32_t, R> Ruleset::*records,
                                    uint32_t Ruleset::*last, bool (*read)(Body &, R &),
                                    std::string (*check)(const Ruleset &,
                                                         std::type_identity_t<R> &) = nullptr) {
  return {change_ruleset,          records, last, named_detail::missing<K>, named_detail::clash<K>,
          named_detail::in_use<K>, read,    check};
}

// The record id of kind k in h (const or not); null after answering the
// missing-record ERROR.
template <class R, class H, class Held>
auto find_named(Call &c, const NamedKind<R, H> &k, Held &h, uint32_t id)
    -> decltype(&(h.*k.records).begin()->second) {
  auto &records = h.*k.records;
  auto it = records.find(id);
  if (it != records.end()) return &it->second;
  c.error(k.missing(id));
  return nullptr;
}

// Checks r, to be kept under id (0: a new record): its name, then the
// kind's own checks.
template <class R, class H>
std::string check_named(const NamedKind<R, H> &k, const H &h, R &r, uint32_t id) {
  if (auto e = check_name("name", r.name); !e.empty()) return e;
  for (const auto &[other, x] : h.*k.records)
    if (other != id && x.name == r.name) return k.clash(h, r.name, other);
  return k.check ? k.check(h, r) : std::string();
}

// Marks a record (anything with audit fields) changed by the caller now.
template <class R>
void touch(Call &c, R &r) {
  audit_change(r.audit, user_of(c), now_text(c));
}

// Keeps r, checked, under a new id and answers the id and the timestamp.
template <class R, class H>
void keep_new(Call &c, const NamedKind<R, H> &k, H &h, R r) {
  r.id = ++(h.*k.last);
  const std::string now = now_text(c);
  audit_create(r.audit, user_of(c), now);
  (h.*k.records)[r.id] = std::move(r);
  answer_added(c, h.*k.last, now);
}

// Body: the kind's add body.
template <class R, class H>
void add_named(Call &c, const NamedKind<R, H> &k) {
  R r;
  if (!k.read(c.in, r) || !c.in.end()) return c.malformed();
  H *h = k.change(c);
  if (!h) return;
  if (auto e = check_named(k, *h, r, 0); !e.empty()) return c.error(e);
  keep_new(c, k, *h, std::move(r));
}

// Body: u32 id, then the add body. Attributes and comments stay.
template <class R, class H>
void modify_named(Call &c, const NamedKind<R, H> &k) {
  uint32_t id = 0;
  R fresh;
  if (!c.in.u32(id) || !k.read(c.in, fresh) || !c.in.end()) return c.malformed();
  H *h = k.change(c);
  R *r = h ? find_named(c, k, *h, id) : nullptr;
  if (!r) return;
  if (auto e = check_named(k, *h, fresh, id); !e.empty()) return c.error(e);
  fresh.id = id;
  fresh.audit = r->audit;
  if constexpr (requires { fresh.attributes; fresh.comments; }) {
    fresh.attributes = std::move(r->attributes);
    fresh.comments = std::move(r->comments);
  }
  *r = std::move(fresh);
  touch(c, *r);
  answer_stamp(c, r->audit.modification_date);
}

// Body: u32 id. Refused while another record refers to it.
template <class R, class H>
void remove_named(Call &c, const NamedKind<R, H> &k) {
  uint32_t id = 0;
  if (!c.in.u32(id) || !c.in.end()) return c.malformed();
  H *h = k.change(c);
  if (!h || !find_named(c, k, *h, id)) return;
  if (k.in_use)
    if (auto e = k.in_use(*h, id); !e.empty()) return c.error(e);
  (h->*k.records).erase(id);
  answer_stamp(c, now_text(c));
}

// Body: u32 id; string name. The record with its new name passes the
// kind's checks again.
template <class R, class H>
void rename_named(Call &c, const NamedKind<R, H> &k) {
  uint32_t id = 0;
  std::string name;
  if (!c.in.u32(id) || !c.in.text(name) || !c.in.end()) return c.malformed();
  H *h = k.change(c);
  R *r = h ? find_named(c, k, *h, id) : nullptr;
  if (!r) return;
  R probe = *r;
  probe.name = name;
  if (auto e = check_named(k, *h, probe, id); !e.empty()) return c.error(e);
  r->name = std::move(name);
  touch(c, *r);
  answer_stamp(c, r->audit.modification_date);
}

}  // namespace tqsim

#endif
