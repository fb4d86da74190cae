// SPDX-License-Identifier: Apache-2.0
// One TOML text turned into rules. Used by the loader only; keeps references to its arguments.
#ifndef SENTREL_AGENT_RULEREADER_H
#define SENTREL_AGENT_RULEREADER_H

#include <string>
#include <vector>

#include "Accounts.h"
#include "Rule.h"

namespace agent {

// Appends the text's rules to `rules`, and what is wrong to the result's errors and warnings.
void ReadRules(const std::string& text, const std::string& file, const Names& accounts,
               std::vector<Rule>& rules, LoadResult& result);

// The rules of one text alone; `file` is its name in messages.
LoadResult ParseRules(const std::string& text, const std::string& file, const Names& accounts);

// The end of a load: the rules become the result's set when nothing was wrong.
void Finish(std::vector<Rule>&& rules, LoadResult& result);

}  // namespace agent

#endif
