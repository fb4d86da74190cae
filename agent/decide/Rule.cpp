// SPDX-License-Identifier: Apache-2.0
#include "Rule.h"

#include <algorithm>

namespace agent {

bool Patterns::Match(const std::string& field, const Variables& variables) const {
    return std::any_of(list.begin(), list.end(),
                       [&](const Pattern& pattern) { return pattern.Matches(field, variables); });
}

bool Numbers::Has(unsigned number) const {
    return std::any_of(ranges.begin(), ranges.end(),
                       [&](const std::pair<unsigned, unsigned>& range) {
                           return number >= range.first && number <= range.second;
                       });
}

AccountQuestions QuestionsOf(const RuleSet& set, Operation operation) {
    AccountQuestions questions;
    for (const Rule& rule : set.rules) {
        if (rule.operation == operation) {
            questions.primary = questions.primary || rule.usesGroup;
            if (!rule.permit) {
                questions.groups.insert(rule.users.gids.begin(), rule.users.gids.end());
            }
        }
    }
    return questions;
}

}  // namespace agent
