// SPDX-License-Identifier: Apache-2.0
// The family of other machines' shares: grammars, and the checks that rules are held to as well.
// Pure functions.
#ifndef SENTREL_AGENT_SHARES_H
#define SENTREL_AGENT_SHARES_H

#include <string>

#include "Grammar.h"

namespace agent {

Grammars ShareGrammars();

// "//HOST/SHARE", with a path below the share or without.
Check CheckShare(const std::string& source);

}  // namespace agent

#endif
