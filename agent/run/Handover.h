// SPDX-License-Identifier: Apache-2.0
// How the tool's process hands a finished mount to the request's process, which is in the mount
// namespace where it is to stand. By a descriptor, since such a mount has no name anywhere.
#ifndef SENTREL_AGENT_HANDOVER_H
#define SENTREL_AGENT_HANDOVER_H

#include "base/Descriptors.h"
#include "base/Result.h"

namespace agent {

struct Handover {
    OwnedFd giver;
    OwnedFd taker;
};

Result<Handover> OpenHandover();

// Hands on the mount, or the reason why there is none. False when not even that can be said.
bool Give(const OwnedFd& giver, const Result<OwnedFd>& mount);

// Does not wait: it is called when whoever gives has ended. Refused when none was given.
Result<OwnedFd> Take(const OwnedFd& taker);

}  // namespace agent

#endif
