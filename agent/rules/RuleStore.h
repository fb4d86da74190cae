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

#include "RuleSource.h"
#include "base/Caller.h"
#include "base/Tools.h"
#include "decide/Decide.h"
#include "decide/Rule.h"

namespace agent {

class RuleStore {
public:
    // Rules of `directories_` that belong to `owner_`; tools of the directories in `toolPath_`.
    RuleStore(const std::vector<std::string>& directories_, uid_t owner_,
              const std::string& toolPath_);

    // With errors in the result, everything stays as it was. May wait for the account database.
    LoadResult Load() { return Take(Read()); }
    // The two halves of it: the first waits and changes nothing, the second does not wait.
    RuleSource Read() const;
    LoadResult Take(const RuleSource& source);
    // 0 before the first successful load.
    std::size_t Count() const { return set ? set->rules.size() : 0; }
    Decision Decide(const Caller& caller, const Request& request) const;
    // What that needs of the caller's account; nothing for what is no operation.
    AccountQuestions QuestionsOf(const std::string& operation) const;

private:
    std::vector<std::string> directories;
    uid_t owner;
    std::string toolPath;
    std::shared_ptr<const RuleSet> set;
    std::unique_ptr<Decider> decider;
};

}  // namespace agent

#endif
