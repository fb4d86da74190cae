// SPDX-License-Identifier: Apache-2.0
// What a request's own process does. It pins the caller's paths, starts the tool as its child,
// waits for it, ends it at the deadline, puts a finished mount in its place, and reports. So every
// path that a caller names is touched here and never in the agent: one that hangs holds up one
// request.
//
// Its states, and what it has told of each by its reports:
//
//   preparing  has its descriptors, signals and death signal; pins the paths, reads the secret. No
//              report: a process that hangs here hangs over a path and has changed nothing, so at
//              the last moment for an answer the agent kills it
//   running    kToolStarting, told before there is a tool: from now on something may have been
//              done. The process itself keeps the deadline: SIGTERM to the tool's group at it,
//              SIGKILL `killAfter` later. The agent does not kill it any more, for with it would go
//              the only one who waits for the tool
//   placing    kToolEnded: a mount that the tool made, and nobody has seen, is put in its place.
//              Again one that hangs here hangs over a path, and is killed
//   finished   kFinished, with the answer; then it ends
//
// SIGTERM to this process is a deadline that passes at once. The agent's death takes the process
// along, and its death takes the tool: in that order, so that no tool goes on unwatched.
#ifndef SENTREL_AGENT_CHILD_H
#define SENTREL_AGENT_CHILD_H

#include <sys/types.h>

#include <chrono>

#include "base/Caller.h"
#include "base/Permit.h"

namespace agent {

// Written whole into the report pipe; at most one of each stage, in this order.
struct ChildReport {
    enum Stage { kNothing, kToolStarting, kToolEnded, kFinished };
    Stage stage = kNothing;
    int status = 0;
    int value = 0;
    int exit = -1;
    int signal = 0;
    char reason[256] = {};
};

struct ChildSetup {
    int output = -1;  // for the tool's output and a refusal's reason; -1: none
    int report = -1;
    std::chrono::steady_clock::time_point deadline;
    std::chrono::milliseconds killAfter{0};  // from the polite signal to the other
};

// Runs in a new process, whose parent is `parent`. Ends with _exit; runs nothing of what the agent
// has registered to run at its end.
[[noreturn]] void RunChild(const Permit& permit, const Caller& caller, const ChildSetup& setup,
                           pid_t parent);

}  // namespace agent

#endif
