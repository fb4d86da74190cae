// SPDX-License-Identifier: Apache-2.0
// The options that a bind mount can have: those that are flags of the mount itself. All others are
// a file system's, and what is bound has its file system already. Pure functions.
#ifndef SENTREL_AGENT_BINDOPTIONS_H
#define SENTREL_AGENT_BINDOPTIONS_H

#include <string>

#include "base/Permit.h"

namespace agent {

bool IsBindOption(const std::string& option);

// Adds one that IsBindOption(); a later one overrules an earlier one.
void AddBindOption(const std::string& option, BindFlags& flags);

}  // namespace agent

#endif
