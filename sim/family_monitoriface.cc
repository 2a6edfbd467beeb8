// Monitor interfaces (0x12021): the hardware of --channels, one per
// channel and a spare.
#include "answer.h"
#include "channels.h"
#include "dispatch.h"
#include "options.h"
#include "tqdb_api_channel.h"

namespace tqsim {
namespace {

void list(Call &c) {
  if (!c.in.end()) return c.malformed();
  ListAnswer a(c);
  for (const MonitorIface &m : monitor_ifaces(c.hub.options().channels)) {
    a.out().u32(m.id).text(m.description).text(m.iface).u8(m.media);
    a.next();
  }
  a.finish();
}

constexpr Route kRoutes[] = {
    {TQDB_REQ_MONITORIFACE_LIST, "monitoriface_list", Header::kSessionCid, Access::kSession, list},
};

}  // namespace

std::span<const Route> family_monitoriface() { return kRoutes; }

}  // namespace tqsim
