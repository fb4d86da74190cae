// SPDX-License-Identifier: Apache-2.0
// What the relay's process does: first, with the agent's rights, it looks at the caller's process;
// then, with the caller's and no other, it copies. Its states, each left for the next one only:
//
//   begins    lays down what it has of the agent: signals, session, every descriptor but its own
//   looks     says what it finds piece by piece, so that a look that is given up has told the rest
//   confined  has the caller's file as its output, and gives up all else: memory is got first and
//             the filter comes last, since behind it nothing of this can be done any more; the
//             death signal is said again behind the change of ids. Only then it says that it has an
//             output: no tool runs whose output nobody is fit to copy
//   copies    until every writer of its pipe has gone; then says how much, and ends
//
// Who ends it: it itself, without an output after the look; the agent by SIGKILL, when the look or
// the copying takes too long (Relay.h); the kernel, with the agent or at a call that the filter
// forbids. Whatever fails ends it, and the agent, which sees the end, refuses the request.
#ifndef SENTREL_AGENT_RELAYCHILD_H
#define SENTREL_AGENT_RELAYCHILD_H

#include <limits.h>

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>

#include "CopyFilter.h"
#include "Descriptor.h"
#include "base/Caller.h"

namespace agent {

// What is to be found out. The functions run in the child, which has closed every descriptor but
// its own: 0 and 3 are not theirs to use, 1 and 2 lead nowhere.
struct RelayTask {
    std::function<std::string()> executable;  // empty: not asked for
    AccountQuestions questions;               // of the caller's account
    // Answers them; in a process of its own, which gets half of the time for the look. May throw.
    std::function<Account()> account;
    // Takes the descriptor that is copied to. Empty: none is wanted.
    std::function<Result<OwnedFd>()> output;
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
struct CopyReport {
    std::uint64_t copied = 0;
    std::uint64_t dropped = 0;
};

struct RelayChildSetup {
    int input = -1;       // the pipe's reading end
    int report = -1;      // for the reports
    std::size_t cap = 0;  // bytes that are copied
    std::chrono::milliseconds accountLimit{1000};
};

// Runs in a new process, whose parent is `parent`.
[[noreturn]] void RunRelayChild(const RelayChildSetup& setup, const RelayTask& task,
                                const Caller& caller, const CopyFilter& filter, pid_t parent);

}  // namespace agent

#endif
