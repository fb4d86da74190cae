// SPDX-License-Identifier: Apache-2.0
// The text that a tool must have and nobody may see. It travels in a pipe, since a tool's words and
// its environment can be read by others while it runs. Used in the request's process.
#ifndef SENTREL_AGENT_SECRET_H
#define SENTREL_AGENT_SECRET_H

#include <string>
#include <vector>

#include "base/Caller.h"
#include "base/Descriptors.h"
#include "base/Permit.h"

namespace agent {

// The pipe to read the plan's secret from; none when it has no secret. Of a file of credentials,
// which is opened with the caller's rights, the user and the domain join the options among the
// tool's words, `arguments`.
Result<OwnedFd> OpenSecret(const Plan& plan, const Caller& caller,
                           std::vector<std::string>& arguments);

}  // namespace agent

#endif
