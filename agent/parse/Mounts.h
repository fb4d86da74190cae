// SPDX-License-Identifier: Apache-2.0
// The family of mounting and unmounting: grammars, and the checks that rules are held to as well.
// Pure functions.
#ifndef SENTREL_AGENT_PARSE_MOUNTS_H
#define SENTREL_AGENT_PARSE_MOUNTS_H

#include <string>

#include "Grammar.h"

namespace agent {

Grammars MountGrammars();

Check CheckType(const std::string& type);
// One mount option, of a local mount or of a share.
Check CheckOption(const std::string& option);

// These are for Shares.cpp too: options that say nothing to a mount of the agent's, and the grammar
// of unmounting, which is the same whatever was mounted.
extern const OptionRow kNoTable;
extern const OptionRow kNoHelper;
extern const OptionRow kNoCanonical;
Grammar Unmounting(Operation operation);

}  // namespace agent

#endif
