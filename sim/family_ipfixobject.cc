// IPFIX objects (0x1B1xx): flow export to a collector, bound by statistics
// rules.
#include "ruleset_calls.h"
#include "tqdb_api_ruleset.h"
#include "util.h"

namespace tqsim {
namespace {

constexpr uint8_t kTcp = 6, kUdp = 17;

Ref ref(uint32_t id) { return {Kind::kIpfixObject, 0, id}; }

template <class RS>
auto find(Call &c, RS &rs, uint32_t id) -> decltype(&rs.ipfix_objects.begin()->second) {
  auto it = rs.ipfix_objects.find(id);
  if (it != rs.ipfix_objects.end()) return &it->second;
  c.error(missing_text(ref(id)));
  return nullptr;
}

std::string check(const Ruleset &rs, const IpfixObject &o, uint32_t id) {
  if (auto e = check_name("name", o.name); !e.empty()) return e;
  for (const auto &[other, x] : rs.ipfix_objects)
    if (other != id && x.name == o.name)
      return "An IPFIX object named '" + o.name + "' already exists: " + label(rs, ref(other));
  if (auto e = check_text("collector", o.collector, 127); !e.empty()) return e;
  if (!is_ip_address(o.collector))
    return "Collector '" + o.collector + "' is not an IPv4 or IPv6 address";
  if (o.port == 0) return "The collector's port must not be 0";
  if (o.protocol != kTcp && o.protocol != kUdp)
    return format("Protocol %u is not 6 (TCP) or 17 (UDP)", o.protocol);
  if (o.interval == 0) return "The interval is the active timeout in seconds: at least 1";
  return {};
}

void list(Call &c) {
  if (!c.in.end()) return c.malformed();
  ListAnswer a(c);
  for (const auto &[id, o] : view_ruleset(c).ipfix_objects) {
    a.out().u32(o.id).text(o.name).text(o.collector).u16(o.port).u8(o.protocol).u32(o.interval);
    a.out().text(o.audit.creator).text(o.audit.creation_date);
    a.out().text(o.audit.modified_by).text(o.audit.modification_date);
    a.next();
  }
  a.finish();
}

// Body: string name; string collector; u16 port; u8 protocol; u32 interval.
void add(Call &c) {
  IpfixObject o;
  if (!c.in.text(o.name) || !c.in.text(o.collector) || !c.in.u16(o.port) ||
      !c.in.u8(o.protocol) || !c.in.u32(o.interval) || !c.in.end())
    return c.malformed();
  Ruleset *rs = change_ruleset(c);
  if (!rs) return;
  if (auto e = check(*rs, o, 0); !e.empty()) return c.error(e);
  o.id = ++rs->last_ipfix_object;
  const std::string now = now_text(c);
  audit_create(o.audit, user_of(c), now);
  rs->ipfix_objects[o.id] = std::move(o);
  answer_added(c, rs->last_ipfix_object, now);
}

void remove(Call &c) {
  uint32_t id = 0;
  if (!c.in.u32(id) || !c.in.end()) return c.malformed();
  Ruleset *rs = change_ruleset(c);
  if (!rs || !find(c, *rs, id)) return;
  if (auto e = in_use_text(*rs, ref(id)); !e.empty()) return c.error(e);
  rs->ipfix_objects.erase(id);
  answer_stamp(c, now_text(c));
}

void rename(Call &c) {
  uint32_t id = 0;
  std::string name;
  if (!c.in.u32(id) || !c.in.text(name) || !c.in.end()) return c.malformed();
  Ruleset *rs = change_ruleset(c);
  IpfixObject *o = rs ? find(c, *rs, id) : nullptr;
  if (!o) return;
  IpfixObject probe = *o;
  probe.name = name;
  if (auto e = check(*rs, probe, id); !e.empty()) return c.error(e);
  o->name = std::move(name);
  audit_change(o->audit, user_of(c), now_text(c));
  answer_stamp(c, o->audit.modification_date);
}

constexpr auto H = Header::kSessionCid;
constexpr auto S = Access::kSession;
constexpr Route kRoutes[] = {
    {TQDB_REQ_IPFIXOBJECT_LIST, "ipfixobject_list", H, S, list},
    {TQDB_REQ_IPFIXOBJECT_ADD, "ipfixobject_add", H, S, add},
    {TQDB_REQ_IPFIXOBJECT_REMOVE, "ipfixobject_remove", H, S, remove},
    {TQDB_REQ_IPFIXOBJECT_RENAME, "ipfixobject_rename", H, S, rename},
};

}  // namespace

std::span<const Route> family_ipfixobject() { return kRoutes; }

}  // namespace tqsim
