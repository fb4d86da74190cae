// SPDX-License-Identifier: Apache-2.0
// What the relay's process does: first, with the agent's rights, it looks at the caller's process;
// then, with the caller's and no other, it copies.
#ifndef SENTREL_AGENT_RELAYCHILD_H
#define SENTREL_AGENT_RELAYCHILD_H

#include <limits.h>

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>

#include "Descriptor.h"
#include "base/Caller.h"

namespace agent {

// What is to be found out. The functions run in the child, which has closed every descriptor but
// its own: 0 and 3 are not theirs to use, 1 is what was at hand, if anything, and 2 leads nowhere.
struct RelayTask {
    std::function<std::string()> executable;  // empty: not asked for
    AccountQuestions questions;               // of the caller's account
    // Answers them; in a process of its own, which gets half of the time for the look. May throw.
    std::function<Account()> account;
    std::function<Descriptor()> output;  // empty: none is wanted
};

// Written when the executable and when the account is known, and at the look's end, each in one
// piece.
struct LookReport {
    enum State { kLooking, kNoOutput, kTaken, kRefused };
    static constexpr std::size_t kGroups = 32;
    State state = kLooking;
    // Of the account, in as many reports as it takes; the last of them says that it is complete.
    bool accountKnown = false;
    bool hasPrimary = false;
    gid_t primary = 0;
    std::size_t groupCount = 0;
    gid_t groups[kGroups] = {};
    char executable[3584] = {};  // empty: unknown, or longer
    char refusal[256] = {};
};
static_assert(sizeof(LookReport) <= PIPE_BUF, "it must arrive in one piece");

// Written at the end of the copying.
struct RelayReport {
    std::uint64_t copied = 0;
    std::uint64_t dropped = 0;
};

struct RelayChildSetup {
    int input = -1;   // the pipe's reading end
    int atHand = -1;  // becomes descriptor 1; -1: nothing
    int report = -1;  // for the reports
    std::size_t cap = 0;
    pid_t parent = 0;
    std::chrono::milliseconds accountLimit{1000};
};

// Runs in a new process. After the look, and when there is an output, it gives up every right but
// the caller's ids and the few system calls that copying takes, then copies until the pipe's
// writers are gone.
[[noreturn]] void RunRelayChild(const RelayChildSetup& setup, const RelayTask& task,
                                const Caller& caller);

}  // namespace agent

#endif
