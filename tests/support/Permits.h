// SPDX-License-Identifier: Apache-2.0
// A permit for whatever command a test wants to see run: made by a Decider, as every permit is,
// from a rule that allows everybody one operation, with the test's plan in the place of the rule's.
#ifndef SENTREL_TESTS_PERMITS_H
#define SENTREL_TESTS_PERMITS_H

#include <optional>
#include <string>
#include <utility>

#include "decide/Decide.h"
#include "decide/RuleReader.h"

namespace test {

class NoNames : public agent::Names {
public:
    std::optional<uid_t> FindUser(const std::string& /*name*/) const override { return {}; }
    std::optional<gid_t> FindGroup(const std::string& /*name*/) const override { return {}; }
};

inline agent::Permit PermitFor(const agent::Plan& plan) {
    const agent::LoadResult loaded = agent::ParseRules(
        "[[rule]]\nname = \"all\"\nagent = \"sr_rmmod\"\npermit = true\nuser = \"*\"\n"
        "module = \"*\"\n",
        "test.toml", NoNames());
    agent::Caller caller;
    caller.uid = 0;
    const agent::Decider decider(
        agent::Tools(), [&plan](const agent::Rule&, const agent::Request&, const agent::Tools&,
                                const agent::Variables&) { return plan; });
    agent::Decision decision =
        decider.Decide(*loaded.rules, caller, agent::Parse("sr_rmmod", "m").request);
    return std::move(*decision.permit);
}

}  // namespace test

#endif
