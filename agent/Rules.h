// SPDX-License-Identifier: Apache-2.0
// The rules as the program loads them: at its start, again while it serves, and to be checked only.
// What is wrong with them is said here, by file and line.
#ifndef SENTREL_AGENT_RULES_H
#define SENTREL_AGENT_RULES_H

#include <sentrel/SR_MainLoop.h>

#include "Options.h"
#include "rules/RuleLoader.h"
#include "rules/RuleStore.h"

namespace agent {

// For --check: the program's exit status.
int CheckRules(const Options& options);

// False when they are wrong. Runs the loop meanwhile: the account database is asked in another
// process here too, so that this one never opens it.
bool LoadRules(sentrel::SR_MainLoop& loop, RuleStore& store);

// Returns at once; `done` is called when the new ones are in force, or the old ones stay.
void ReloadRules(RuleLoader& loader, const RuleStore& store, const RuleLoader::Done& done);

}  // namespace agent

#endif
