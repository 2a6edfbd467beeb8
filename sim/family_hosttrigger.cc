// Host triggers (0x1A3xx): the handlers are shared with the
// connection-protection triggers (triggers.cc).
#include "dispatch.h"
#include "tqdb_api_trigger.h"
#include "triggers.h"

namespace tqsim {
namespace {

using R = TriggerRequests<HostTriggers>;
constexpr auto H = Header::kSessionCid;
constexpr auto S = Access::kSession;
constexpr Route kRoutes[] = {
    {TQDB_REQ_HOSTTRIGGER_LIST, "hosttrigger_list", H, S, R::list},
    {TQDB_REQ_HOSTTRIGGER_ADD, "hosttrigger_add", H, S, R::add},
    {TQDB_REQ_HOSTTRIGGER_REMOVE, "hosttrigger_remove", H, S, R::remove},
    {TQDB_REQ_HOSTTRIGGER_UPDATE, "hosttrigger_update", H, S, R::update},
    {TQDB_REQ_HOSTTRIGGER_RENAME, "hosttrigger_rename", H, S, R::rename},
};

}  // namespace

std::span<const Route> family_hosttrigger() { return kRoutes; }

}  // namespace tqsim
