// The feature set (0x19700): what --features says the appliance offers.
#include "answer.h"
#include "dispatch.h"
#include "options.h"
#include "tqdb_api_config.h"

namespace tqsim {
namespace {

void features_get(Call &c) {
  if (!c.in.end()) return c.malformed();
  Msg m = c.data();
  if (m) tq_msg_put_uint64(m.get(), c.hub.options().features);
  c.reply(std::move(m));
}

constexpr Route kRoutes[] = {
    {TQDB_REQ_FEATURES_GET, "features_get", Header::kSessionCid, Access::kSession, features_get},
};

}  // namespace

std::span<const Route> family_features() { return kRoutes; }

}  // namespace tqsim
