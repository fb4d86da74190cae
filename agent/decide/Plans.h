// SPDX-License-Identifier: Apache-2.0
// The command that a rule allows for a request. Pure; used by the Decider only.
#ifndef SENTREL_AGENT_PLANS_H
#define SENTREL_AGENT_PLANS_H

#include <string>

#include "Rule.h"
#include "base/Permit.h"
#include "base/Tools.h"
#include "parse/Parse.h"

namespace agent {

// The path of the tool for an agent, a bare name for what the agent does itself; empty when there
// is none.
const std::string& ToolFor(const Tools& tools, const std::string& operation);

// Rebuilds the command from the request's fields, the rule's additions and nothing else. The rule
// must match the request. False, with a sentence in `error`, when an addition cannot be made.
bool BuildPlan(const Rule& rule, const Request& request, const Tools& tools,
               const Variables& variables, Plan& plan, std::string& error);

}  // namespace agent

#endif
