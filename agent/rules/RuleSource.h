// SPDX-License-Identifier: Apache-2.0
// All that rules are read from, as one text: so that it can come from another process.
#ifndef SENTREL_AGENT_RULESOURCE_H
#define SENTREL_AGENT_RULESOURCE_H

#include <string>

#include "Database.h"
#include "RuleFiles.h"

namespace agent {

struct RuleSource {
    RuleFiles files;
    AccountTable accounts;  // of every name in them

    std::string Pack() const;
    // False when the text is not one of Pack()'s, or not all of it; the object is then of no use.
    bool Unpack(const std::string& text);
};

}  // namespace agent

#endif
