// SPDX-License-Identifier: Apache-2.0
// What can be proved about a set of rules without a request. A pure function.
#ifndef SENTREL_AGENT_RULECHECK_H
#define SENTREL_AGENT_RULECHECK_H

#include <string>
#include <vector>

#include "Rule.h"

namespace agent {

// Rules that can never match, as far as that can be seen from the rules alone, and patterns that do
// not compile: "FILE:LINE: sentence" each.
std::vector<std::string> CheckRules(const RuleSet& set);

}  // namespace agent

#endif
