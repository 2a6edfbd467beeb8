#include "ruleset_calls.h"

#include "tqdb_api.h"
#include "util.h"

namespace tqsim {
namespace {

// Bytes the attributes of one record may take, so that an object or rule
// with all its attributes still fits one reply message.
constexpr std::size_t kAttributeBytes = 16384;

Resource &resource_of(Call &c, uint32_t id) { return *c.store.resource(id); }

}  // namespace

Ruleset *change_ruleset(Call &c) {
  ResourceData *d = c.change(resource_of(c, TQDB_RESOURCE_RULESET));
  return d ? &d->ruleset : nullptr;
}

const Ruleset &view_ruleset(Call &c) { return c.view(resource_of(c, TQDB_RESOURCE_RULESET)).ruleset; }

LiveViews *change_liveviews(Call &c) {
  ResourceData *d = c.change(resource_of(c, TQDB_RESOURCE_DYNAMICLIVEVIEW));
  return d ? &d->liveviews : nullptr;
}

const LiveViews &view_liveviews(Call &c) {
  return c.view(resource_of(c, TQDB_RESOURCE_DYNAMICLIVEVIEW)).liveviews;
}

const std::string &user_of(const Call &c) { return c.sess->user; }

std::string now_text(const Call &c) { return timestamp_text(c.hub.now()); }

void answer_stamp(Call &c, std::string_view stamp) {
  Out out;
  out.text(stamp);
  c.answer(out);
}

void answer_added(Call &c, uint32_t id, std::string_view stamp) {
  Out out;
  out.u32(id).text(stamp);
  c.answer(out);
}

void answer_text(Call &c, std::string_view text) {
  Out out;
  out.text(text);
  c.answer(out);
}

Out &put_audit(Out &out, const Audit &a) {
  return out.text(a.creator).text(a.creation_date).text(a.modified_by).text(a.modification_date);
}

void put_attributes(Out &out, const Attributes &attrs) {
  for (auto it = attrs.rbegin(); it != attrs.rend(); ++it) out.text(it->first).text(it->second);
}

void answer_attributes(Call &c, const Attributes &attrs) {
  Out out;
  put_attributes(out, attrs);
  c.answer(out);
}

std::string set_attribute(Attributes &attrs, std::string_view whose, std::string key,
                          std::string value) {
  if (auto e = check_name("attribute key", key); !e.empty()) return e;
  if (auto e = check_text("attribute value", value, 1023); !e.empty()) return e;
  std::size_t bytes = key.size() + value.size() + 10;
  for (const auto &[k, v] : attrs)
    if (k != key) bytes += k.size() + v.size() + 10;
  if (bytes > kAttributeBytes)
    return format("%.*s has too many attributes: together they may take %zu bytes",
                  static_cast<int>(whose.size()), whose.data(), kAttributeBytes);
  attrs[std::move(key)] = std::move(value);
  return {};
}

std::string remove_attribute(Attributes &attrs, std::string_view whose, const std::string &key) {
  if (attrs.erase(key) == 1) return {};
  return std::string(whose) + " has no attribute '" + key + "'";
}

bool object_type_ok(Call &c, uint8_t type) {
  if (type < kObjectTypes) return true;
  c.error(format("Unknown object type %u (object types are 0 to %u)", type, kObjectTypes - 1));
  return false;
}

}  // namespace tqsim
