// SPDX-License-Identifier: Apache-2.0
// What the tool's process does, a child of the request's: it becomes the tool, or does the tool's
// work itself where a tool would look up a name again. A tool that mounts does it apart, in a mount
// namespace of this process's, as its child; what it made is handed on (Handover.h).
#ifndef SENTREL_AGENT_TOOLCHILD_H
#define SENTREL_AGENT_TOOLCHILD_H

#include <sys/types.h>

#include <string>
#include <vector>

#include "Pinning.h"
#include "base/Descriptors.h"
#include "base/Permit.h"
#include "base/Process.h"

namespace agent {

// How every process below the agent's treats signals that reach a tool: a caller must not be able
// to end one half-way by closing its descriptor, so a broken pipe is an error to the tool, and the
// polite signal waits until somebody is there who takes it.
ChildStart StartOfTool();

struct Tool {
    const Plan& plan;
    std::vector<std::string> arguments;  // the plan's, with the pinned paths in their places
    std::vector<PinnedPath> pinned;
    OwnedFd secret;  // a pipe to read it from; none: there is no secret
    OwnedFd giver;   // for a finished mount

    // The last of the kind: of two directories that is the mount point. Null when there is none.
    const PinnedPath* Find(Pin::Kind kind) const;
};

// Runs in a new process, whose parent is `parent`. Where the tool cannot be started, the number of
// the error is written into `failure`; where it was, that is closed without a word.
[[noreturn]] void RunTool(Tool& tool, OwnedFd& failure, pid_t parent);

// Says on the standard error, in mount(8)'s words, why nothing stands there; gives its exit code.
int FailMount(const PinnedPath& target, const std::string& why);

}  // namespace agent

#endif
