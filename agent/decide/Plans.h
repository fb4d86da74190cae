// SPDX-License-Identifier: Apache-2.0
// The command that a rule allows for a request. Pure; used by the Decider only.
#ifndef SENTREL_AGENT_PLANS_H
#define SENTREL_AGENT_PLANS_H

#include "Rule.h"
#include "base/Permit.h"
#include "base/Result.h"
#include "base/Tools.h"
#include "parse/Parse.h"

namespace agent {

// Rebuilds the command from the request's fields, the rule's additions and nothing else. The rule
// must match the request. Refused when an addition cannot be made.
Result<Plan> BuildPlan(const Rule& rule, const Request& request, const Tools& tools,
                       const Variables& variables);

}  // namespace agent

#endif
