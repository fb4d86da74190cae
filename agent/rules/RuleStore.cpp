// SPDX-License-Identifier: Apache-2.0
// The first half of a load asks the world, the second takes its answers: the names are looked up by
// reading the rules once, and asked again of what was written down then.
#include "RuleStore.h"

#include "Database.h"
#include "decide/RuleCheck.h"

namespace agent {

RuleStore::RuleStore(const std::vector<std::string>& directories_, uid_t owner_,
                     const std::string& toolPath_)
    : directories(directories_), owner(owner_), toolPath(toolPath_) {}

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
    const std::optional<Operation> known = FindOperation(operation);
    return set && known ? agent::QuestionsOf(*set, *known) : AccountQuestions();
}

Decision RuleStore::Decide(const Caller& caller, const Request& request) const {
    if (!set) {
        return Decision();
    }
    return decider->Decide(*set, caller, request);
}

}  // namespace agent
