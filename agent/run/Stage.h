// SPDX-License-Identifier: Apache-2.0
// A place apart, in which a tool makes its mount while nobody sees it.
//
// Why no mount is ever seen without its forced flags: whatever a tool or a mount helper does, in
// however many steps, it does to a directory of a mount namespace that only its own process has,
// below a mount that hands nothing on. When it has ended with success, the topmost mount on that
// directory is looked at, and a copy of it, which has its flags from the first moment on, is what
// PutInPlace() shows. A tool that fails, is killed, or leaves a flag out has shown nothing; its
// mount goes with the namespace. A directory rather than the caller's own path, since the caller
// may rename that at any time.
//
// Used in the tool's process, which stays in the namespace; the tool is its child.
#ifndef SENTREL_AGENT_STAGE_H
#define SENTREL_AGENT_STAGE_H

#include <string>
#include <vector>

#include "base/Descriptors.h"
#include "base/Result.h"

namespace agent {

// Leaves this process's mount namespace for a new one with an empty directory, whose last component
// is `name`: tools show it. Returns its path.
Result<std::string> EnterStage(const std::string& name);

// A copy of what was mounted on the directory, which stands nowhere. Refused when nothing was, or
// when it lacks one of the flags.
Result<OwnedFd> TakeFromStage(const std::string& stage, const std::vector<std::string>& flags);

// Takes what was mounted there away: a helper that stays keeps the namespace.
void ClearStage(const std::string& stage);

}  // namespace agent

#endif
