// SPDX-License-Identifier: Apache-2.0
// Who asks, and what is known of that user's account. Value types.
#ifndef SENTREL_AGENT_CALLER_H
#define SENTREL_AGENT_CALLER_H

#include <sys/types.h>

#include <optional>
#include <set>
#include <string>
#include <vector>

namespace agent {

// What the rules must know of a caller's account.
struct AccountQuestions {
    std::set<gid_t> groups;  // whether it is in these
    bool primary = false;    // which one is its own

    bool Any() const { return primary || !groups.empty(); }
};

// What is known of it.
struct Account {
    std::set<gid_t> asked;  // the groups of which it is known whether it is in them
    std::set<gid_t> groups;
    std::optional<gid_t> primary;
};

// Who asks, in the bus's word.
struct Caller {
    uid_t uid = static_cast<uid_t>(-1);
    std::vector<gid_t> groups;
    pid_t pid = 0;           // 0: unknown
    std::string busName;     // ":1.42"
    std::string executable;  // /proc/PID/exe as read at receipt; advisory, may be empty
    Account account;         // as far as the rules ask for it
};

}  // namespace agent

#endif
