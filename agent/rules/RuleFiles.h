// SPDX-License-Identifier: Apache-2.0
// The files that rules are read from. Stateless.
#ifndef SENTREL_AGENT_RULEFILES_H
#define SENTREL_AGENT_RULEFILES_H

#include <sys/types.h>

#include <string>
#include <vector>

#include "decide/Accounts.h"
#include "decide/Rule.h"

namespace agent {

// The files' texts, from which the rules can be read anywhere.
struct RuleFiles {
    struct File {
        std::string path;
        std::string text;
        std::string error;  // why it cannot be used; empty: it can
    };
    std::vector<std::string> errors;
    std::vector<File> files;
};

// Reads *.toml of the directories; a file of a later directory takes the place of one of the same
// name in an earlier one. Files are read in the order of their names. Directories and files must
// belong to `owner` and be closed to the writing of others, files must not be symbolic links; a
// directory that is not there has no rules.
RuleFiles ReadRuleFiles(const std::vector<std::string>& directories, uid_t owner);
LoadResult ParseRuleFiles(const RuleFiles& files, const Names& accounts);
LoadResult LoadRules(const std::vector<std::string>& directories, uid_t owner,
                     const Names& accounts);

}  // namespace agent

#endif
