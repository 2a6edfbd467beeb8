// Committing a transaction the way resource_commit does it, shared by the
// resource family and by backup restores (defined in family_resource.cc).
#ifndef TQSIM_BACKUPS_H
#define TQSIM_BACKUPS_H

#include <string_view>

#include "dispatch.h"
#include "tq_commitid.h"

namespace tqsim {

// Commits the transaction c's session holds and, when the resource is kept
// in the state file (--state), saves it. Returns the new commit id.
tq_commitid_t commit_open(Call &c, std::string_view text);
// Tells every other session of the commit, after the caller's reply.
void broadcast_commit(Call &c, const tq_commitid_t &id);

}  // namespace tqsim

#endif
