// SPDX-License-Identifier: Apache-2.0
// A second opinion on a plan: reads the command back and says what the rule does not cover.
#ifndef SENTREL_TESTS_AGENT_ORACLE_H
#define SENTREL_TESTS_AGENT_ORACLE_H

#include <string>
#include <vector>

#include "base/Caller.h"
#include "base/Permit.h"
#include "base/Tools.h"
#include "decide/Rule.h"

// Sentences about everything in `plan` that `rule` does not allow this caller, or that no plan may
// ever have. Empty: nothing to object to.
std::vector<std::string> Objections(const agent::Rule& rule, const agent::Caller& caller,
                                    const agent::Tools& tools, const agent::Plan& plan);

// The same for whatever the agent's rooms make of `text`: nothing to object to when it is refused
// properly. `permitted` says whether it was allowed.
std::vector<std::string> Ask(const agent::RuleSet& set, const agent::Caller& caller,
                             const std::string& agentName, const std::string& text,
                             bool& permitted);

#endif
