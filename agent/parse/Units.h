// SPDX-License-Identifier: Apache-2.0
// The family of the service manager's units: its grammar, and the checks that rules are held to as
// well. Pure functions.
#ifndef SENTREL_AGENT_UNITS_H
#define SENTREL_AGENT_UNITS_H

#include <string>

#include "Grammar.h"

namespace agent {

Grammars UnitGrammars();

// A full name, "x.service".
Check CheckUnit(const std::string& unit);
bool IsVerb(const std::string& verb);

}  // namespace agent

#endif
