// SPDX-License-Identifier: Apache-2.0
// What the relay's process does.
#ifndef SENTREL_AGENT_RELAYCHILD_H
#define SENTREL_AGENT_RELAYCHILD_H

#include <cstddef>
#include <cstdint>

#include "Permit.h"

namespace agent {

struct RelayReport {
    std::uint64_t copied = 0;
    std::uint64_t dropped = 0;
};

struct RelayChildSetup {
    int input = -1;        // the pipe's reading end
    int destination = -1;  // the caller's descriptor
    int report = -1;       // one RelayReport is written here at the end
    std::size_t cap = 0;
    pid_t parent = 0;
};

// Runs in a new process. Gives up every right but the caller's ids and the four system calls that
// copying takes, then copies until the pipe's writers are gone.
[[noreturn]] void RunRelayChild(const RelayChildSetup& setup, const Caller& caller);

}  // namespace agent

#endif
