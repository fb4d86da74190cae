// SPDX-License-Identifier: Apache-2.0
// The questions to the agent, and its answers for people and for programs. Each returns the
// command's exit status.
#ifndef SENTREL_CLI_ASK_H
#define SENTREL_CLI_ASK_H

#include <string>

#include "Operations.h"
#include "Options.h"

namespace cli {

// What the agent would decide: 0 when it would carry the operation out.
int AskTest(const Operation& operation, const std::string& text, const Options& options);
int AskStatus(const Options& options);
int AskReload(const Options& options);
int AskMounts(const Options& options);

}  // namespace cli

#endif
