// SPDX-License-Identifier: Apache-2.0
// Why a pattern that compiles can match no request all the same: for the table of keys. An empty
// text: nothing is known against it. Pure functions; the pattern is no regular expression.
#ifndef SENTREL_AGENT_FLAWS_H
#define SENTREL_AGENT_FLAWS_H

#include <string>

#include "Pattern.h"
#include "base/Operation.h"

namespace agent {

std::string FlawInPath(const Pattern& pattern, Operation operation);
std::string FlawInSource(const Pattern& pattern, Operation operation);
std::string FlawInType(const Pattern& pattern, Operation operation);
std::string FlawInModule(const Pattern& pattern, Operation operation);
std::string FlawInUnit(const Pattern& pattern, Operation operation);
std::string FlawInOption(const Pattern& pattern, Operation operation);

}  // namespace agent

#endif
