// SPDX-License-Identifier: Apache-2.0
// Acting with a caller's rights instead of the agent's, for a moment or for good. Where this
// process is not root it has no rights to lay down: then it is its own user's only, and nothing
// changes.
//
// Why at all: root may open whatever the kernel has. A file that a caller names, or a descriptor
// that it holds, is opened with the caller's rights, so that the kernel itself refuses what is not
// the caller's; no comparison of owners and modes could say as much.
//
// Threads: one. Used in children only: a moment takes the death signal back for as long as it
// lasts.
#ifndef SENTREL_AGENT_ASCALLER_H
#define SENTREL_AGENT_ASCALLER_H

#include <sys/types.h>

#include <functional>

#include "Caller.h"
#include "Descriptors.h"

namespace agent {

// The group with which a caller acts: the bus tells its groups without saying which is the first.
gid_t GroupOf(const Caller& caller);

// For a moment: runs `open` with the file-system ids, the groups and the file capabilities of the
// caller, and without the right to look into any process. Gives what `open` gave; none, and `open`
// is not called, when the rights cannot be had. Afterwards this process has its own rights again
// and dies with its parent as before; if it cannot have them back, it ends at once.
OwnedFd OpenAsCaller(uid_t uid, gid_t gid, const std::vector<gid_t>& groups,
                     const std::function<OwnedFd()>& open);

// For good: the caller's ids and groups, and no capability, not even a root caller's. False when
// some of it cannot be done; this process must then end.
bool BecomeCaller(const Caller& caller);

}  // namespace agent

#endif
