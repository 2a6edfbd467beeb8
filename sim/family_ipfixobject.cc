// IPFIX objects (0x1B1xx): flow export to a collector, bound by statistics
// rules.
#include "ruleset_calls.h"
#include "tqdb_api_ruleset.h"
#include "util.h"

namespace tqsim {
namespace {

constexpr uint8_t kTcp = 6, kUdp = 17;

// Body: string name; string collector; u16 port; u8 protocol; u32 interval.
bool read_fields(Body &in, IpfixObject &o) {
  return in.text(o.name) && in.text(o.collector) && in.u16(o.port) && in.u8(o.protocol) &&
         in.u32(o.interval);
}

std::string check(const Ruleset &, IpfixObject &o) {
  if (auto e = check_text("collector", o.collector, 127); !e.empty()) return e;
  if (!is_ip_address(o.collector))
    return "Collector '" + o.collector + "' is not an IPv4 or IPv6 address";
  if (o.port == 0) return "The collector's port must not be 0";
  if (o.protocol != kTcp && o.protocol != kUdp)
    return format("Protocol %u is not 6 (TCP) or 17 (UDP)", o.protocol);
  if (o.interval == 0) return "The interval is the active timeout in seconds: at least 1";
  return {};
}

constexpr auto kIpfix = ruleset_kind<Kind::kIpfixObject>(
    &Ruleset::ipfix_objects, &Ruleset::last_ipfix_object, read_fields, check);

void list(Call &c) {
  if (!c.in.end()) return c.malformed();
  ListAnswer a(c);
  for (const auto &[id, o] : view_ruleset(c).ipfix_objects) {
    a.out().u32(o.id).text(o.name).text(o.collector).u16(o.port).u8(o.protocol).u32(o.interval);
    put_audit(a.out(), o.audit);
    a.next();
  }
  a.finish();
}

constexpr auto H = Header::kSessionCid;
constexpr auto S = Access::kSession;
constexpr Route kRoutes[] = {
    {TQDB_REQ_IPFIXOBJECT_LIST, "ipfixobject_list", H, S, list},
    {TQDB_REQ_IPFIXOBJECT_ADD, "ipfixobject_add", H, S, [](Call &c) { add_named(c, kIpfix); }},
    {TQDB_REQ_IPFIXOBJECT_REMOVE, "ipfixobject_remove", H, S,
     [](Call &c) { remove_named(c, kIpfix); }},
    {TQDB_REQ_IPFIXOBJECT_RENAME, "ipfixobject_rename", H, S,
     [](Call &c) { rename_named(c, kIpfix); }},
};

}  // namespace

std::span<const Route> family_ipfixobject() { return kRoutes; }

}  // namespace tqsim
