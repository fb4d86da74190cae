// SPDX-License-Identifier: Apache-2.0
// What is looked at once a tool has done its work: that a mount has the flags that it must have,
// and that a node has its owner. Used in the tool's child: these are a caller's paths.
#ifndef SENTREL_AGENT_AFTERCHECK_H
#define SENTREL_AGENT_AFTERCHECK_H

#include <string>
#include <vector>

#include "Permit.h"
#include "Pinning.h"

namespace agent {

// False with a reason when what is mounted on the pinned directory lacks a flag; it is then
// unmounted. False as well when nothing was mounted there although the tool said so. A tool that
// failed may have mounted all the same; what was there before it stays.
bool CheckMount(const PinnedPath& pinned, const std::vector<std::string>& flags, bool toolSucceeded,
                std::string& reason);

// Takes set-id bits off the node and gives it to its owner, if it is the very node that the
// arguments describe: type, and for a device its numbers, behind the path.
bool FinishNode(const PinnedPath& pinned, const Plan& plan, std::string& reason);

}  // namespace agent

#endif
