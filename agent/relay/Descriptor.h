// SPDX-License-Identifier: Apache-2.0
// What is to be learned of the caller's process, and its output descriptor, taken from it.
//
// Everything here may hang for ever in a way that not even a signal ends: when the process itself
// hangs in the kernel, or when the descriptor's file system does not answer, be it to the closing
// of a copy. So it is called in a process of its own, which can be given up (Relay.h).
// Threads: one. For the moment of the look its file-system ids and effective capabilities are the
// caller's; they are its own again on return, or the process ends.
#ifndef SENTREL_AGENT_DESCRIPTOR_H
#define SENTREL_AGENT_DESCRIPTOR_H

#include <string>

#include "base/Caller.h"
#include "base/Descriptors.h"
#include "base/Result.h"

namespace agent {

// The program that the process runs; empty when it cannot be read.
std::string ExecutableOf(pid_t pid);

// The caller's open file itself, never a new opening of it; none when no output is wanted
// (`number` <= 0). Refused when it is not the caller's, or of a kind that output may not go to: a
// socket must be connected, and not to the system's log. Nothing is ever written to it here, and
// its flags are left as they are.
Result<OwnedFd> TakeDescriptor(const Caller& caller, int number);

}  // namespace agent

#endif
