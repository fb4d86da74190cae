// SPDX-License-Identifier: Apache-2.0
#include "RuleStore.h"

#include "Database.h"
#include "decide/RuleCheck.h"

#include "base/Text.h"

namespace agent {

RuleStore::RuleStore(const std::vector<std::string>& ruleDirectories, uid_t ruleOwner,
                     const std::string& toolDirectories)
    : directories(ruleDirectories), owner(ruleOwner), toolPath(toolDirectories) {}

RuleSource RuleStore::Read() const {
    const Database database;
    const RecordedNames asked(database);
    RuleSource source;
    source.files = ReadRuleFiles(directories, owner);
    (void)ParseRuleFiles(source.files, asked);
    source.accounts = asked.GetTable();
    return source;
}

LoadResult RuleStore::Take(const RuleSource& source) {
    LoadResult result = ParseRuleFiles(source.files, TabledNames(source.accounts));
    if (!result.rules) {
        return result;
    }
    for (const std::string& warning : CheckRules(*result.rules)) {
        result.warnings.push_back(warning);
    }
    decider = std::make_unique<Decider>(FindTools(toolPath, result.warnings));
    set = result.rules;
    return result;
}

AccountQuestions RuleStore::QuestionsOf(const std::string& operation) const {
    return set ? agent::QuestionsOf(*set, operation) : AccountQuestions();
}

Decision RuleStore::Decide(const Caller& caller, const Request& request) const {
    if (!set) {
        return Decision();
    }
    return decider->Decide(*set, caller, request);
}

}  // namespace agent
