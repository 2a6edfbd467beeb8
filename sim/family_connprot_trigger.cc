// Connection-protection triggers (0x1AAxx): the handlers are shared with
// the host triggers (triggers.cc).
#include "dispatch.h"
#include "tqdb_api_trigger.h"
#include "triggers.h"

namespace tqsim {
namespace {

using R = TriggerRequests<ConnprotTriggers>;
constexpr auto H = Header::kSessionCid;
constexpr auto S = Access::kSession;
constexpr Route kRoutes[] = {
    {TQDB_REQ_CONNPROT_TRIGGER_LIST, "connprot_trigger_list", H, S, R::list},
    {TQDB_REQ_CONNPROT_TRIGGER_ADD, "connprot_trigger_add", H, S, R::add},
    {TQDB_REQ_CONNPROT_TRIGGER_REMOVE, "connprot_trigger_remove", H, S, R::remove},
    {TQDB_REQ_CONNPROT_TRIGGER_UPDATE, "connprot_trigger_update", H, S, R::update},
    {TQDB_REQ_CONNPROT_TRIGGER_RENAME, "connprot_trigger_rename", H, S, R::rename},
};

}  // namespace

std::span<const Route> family_connprot_trigger() { return kRoutes; }

}  // namespace tqsim
