// SPDX-License-Identifier: Apache-2.0
// Accounts, callers and rules shared by the tests of the rules. Everything is fixed: nothing is
// read from the machine.
#ifndef SENTREL_TESTS_AGENT_RULETEXTS_H
#define SENTREL_TESTS_AGENT_RULETEXTS_H

#include <memory>
#include <string>
#include <vector>

#include "base/Caller.h"
#include "decide/Accounts.h"
#include "decide/Rule.h"

// player is 1000 with the primary group 1100, media is 1001 and in the group media (44); there
// is the group disk (6) too.
class FixedAccounts : public agent::Accounts {
public:
    std::optional<uid_t> FindUser(const std::string& name) const override;
    std::optional<gid_t> FindGroup(const std::string& name) const override;
    std::optional<gid_t> FindPrimaryGroup(uid_t uid) const override;
    std::set<gid_t> FindGroupsOf(uid_t uid, const std::set<gid_t>& asked) const override;
};

const FixedAccounts& TestAccounts();

agent::Caller MakeCaller(uid_t uid, const std::vector<gid_t>& groups = {},
                         const std::string& executable = "/usr/bin/player");

// The set, or null after the errors were written to standard error.
std::shared_ptr<const agent::RuleSet> MakeRules(const std::string& text);

// One narrow rule for each operation, for the user 1000.
extern const char* const kNarrowRules;
// For each operation, in the order of OperationRows(), a request that kNarrowRules allows.
struct GoodRequest {
    const char* operation;
    const char* text;
};
const std::vector<GoodRequest>& GoodRequests();

// One rule for each operation that allows every user as much as can be written.
extern const char* const kWideRules;

#endif
