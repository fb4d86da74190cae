// SPDX-License-Identifier: Apache-2.0
// The only place where a request becomes a Permit.
//
// The rules are asked in their order and the first that matches decides; when none does, the answer
// is no. A rule that permits matches when the caller and every field of the request match and each
// option, parameter and unit is allowed; a rule that denies matches on the fields that it names,
// and on any one of several units. A group that is permitted is one that the caller's connection
// has; a group that is denied is that or one of the caller's account, and where it is not known
// whether the account is in it, it counts as if it were. Nobody is exempt, root included. A Decider
// has no state that changes: it may be used by several threads.
#ifndef SENTREL_AGENT_DECIDE_H
#define SENTREL_AGENT_DECIDE_H

#include <sentrel/SR_Status.h>

#include <functional>
#include <optional>
#include <string>

#include "Plans.h"
#include "Rule.h"
#include "base/Caller.h"
#include "base/Permit.h"
#include "base/Tools.h"
#include "parse/Parse.h"

namespace agent {

struct Decision {
    int status = SR_RULE_NO_FOUND;  // SR_OK exactly when there is a permit
    std::optional<Permit> permit;
    std::string rule;    // "FILE:LINE" of the rule that decided; empty when none did
    std::string reason;  // one sentence for the caller: nothing about the rules
    std::string detail;  // one sentence for the audit: which rule, and what nearly matched
};

class Decider {
public:
    // What makes the command once a rule allows it. Other than BuildPlan only in tests.
    typedef std::function<Result<Plan>(const Rule& rule, const Request& request, const Tools& tools,
                                       const Variables& variables)>
        Planner;

    explicit Decider(const Tools& tools_, const Planner& planner_ = BuildPlan)
        : tools(tools_), planner(planner_) {}

    // `request` must come from Parse().
    Decision Decide(const RuleSet& set, const Caller& caller, const Request& request) const;

private:
    Decision Apply(const Rule& rule, const Request& request, const Variables& variables) const;

    const Tools tools;
    const Planner planner;
};

}  // namespace agent

#endif
