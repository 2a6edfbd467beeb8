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

#include <string>
#include <string_view>

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

}  // namespace tqsim

#endif
