// SPDX-License-Identifier: Apache-2.0
// How the tool's process hands a finished mount to the request's process, which is in the mount
// namespace where it is to stand.
#ifndef SENTREL_AGENT_HANDOVER_H
#define SENTREL_AGENT_HANDOVER_H

#include <string>

#include "base/Descriptors.h"

namespace agent {

// The two ends; false when there are none.
bool OpenHandover(OwnedFd& giver, OwnedFd& taker);

// The mount, or when there is none the reason.
bool Give(const OwnedFd& giver, const OwnedFd& mount, const std::string& reason);

// Does not wait. None with a reason when none was given.
OwnedFd Take(const OwnedFd& taker, std::string& reason);

}  // namespace agent

#endif
