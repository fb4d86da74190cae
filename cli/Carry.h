// SPDX-License-Identifier: Apache-2.0
// Has an operation carried out.
#ifndef SENTREL_CLI_CARRY_H
#define SENTREL_CLI_CARRY_H

#include <string>

#include "Operations.h"
#include "Options.h"

namespace cli {

// Asks the agent, lets the tool's output appear on standard output, says on standard error what
// went wrong, if anything, and returns the command's exit status. For a program, one JSON object on
// standard output holds it all.
int Carry(const Operation& operation, const std::string& text, const Options& options);

}  // namespace cli

#endif
