// SPDX-License-Identifier: Apache-2.0
// The rules and the tools that the agent works with at the moment. A load replaces both at once, or
// neither.
//
// A Decision keeps nothing of the store. Threads: one.
#ifndef SENTREL_AGENT_RULESTORE_H
#define SENTREL_AGENT_RULESTORE_H

#include <sys/types.h>

#include <memory>
#include <string>
#include <vector>

#include "Accounts.h"
#include "Decide.h"
#include "Rules.h"
#include "Tools.h"

namespace agent {

// The first of the directories (colons between them) that has each tool; a tool that is nowhere has
// an empty path. What is there but not to be trusted is a line in `warnings`; it is kept, and
// looked at again before every start.
Tools FindTools(const std::string& directories, std::vector<std::string>& warnings);

class RuleStore {
public:
    RuleStore(const std::vector<std::string>& ruleDirectories, uid_t ruleOwner,
              const std::string& toolDirectories);

    // With errors in the result, everything stays as it was.
    LoadResult Load();
    // 0 before the first successful load.
    std::size_t Count() const { return set ? set->rules.size() : 0; }
    Decision Decide(const Caller& caller, const Request& request) const;

private:
    std::vector<std::string> directories;
    uid_t owner;
    std::string toolPath;
    Accounts accounts;
    std::shared_ptr<const RuleSet> set;
    std::unique_ptr<Decider> decider;
};

}  // namespace agent

#endif
