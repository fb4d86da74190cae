// SPDX-License-Identifier: Apache-2.0
// The caller's output descriptor, taken from the caller's process.
//
// Threads: the agent's one thread. For the moment of the look its file-system ids and effective
// capabilities are the caller's; they are its own again on return, or the process ends.
#ifndef SENTREL_AGENT_DESCRIPTOR_H
#define SENTREL_AGENT_DESCRIPTOR_H

#include <string>

#include "OwnedFd.h"
#include "Permit.h"

namespace agent {

struct Descriptor {
    OwnedFd fd;           // none: no output is wanted, or it was refused
    std::string refusal;  // a plain reason; empty: not refused
};

// The open file itself, never a new opening of it. Number <= 0: no output is wanted. Nothing is
// ever written to it here, and its flags are left as they are.
Descriptor TakeDescriptor(const Caller& caller, int number);

}  // namespace agent

#endif
