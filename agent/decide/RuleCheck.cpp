// SPDX-License-Identifier: Apache-2.0
// A rule is called unreachable only when one earlier rule covers it in each of its keys. Rules that
// are unreachable for subtler reasons (two earlier rules together, two regular expressions) are not
// found.
#include "RuleCheck.h"

#include "Keys.h"
#include "base/Text.h"

namespace agent {

namespace {

bool Covers(const Rule& outer, const Rule& inner) {
    if (outer.operation != inner.operation) {
        return false;
    }
    for (const Key& key : Keys()) {
        if (key.covers == nullptr) {
            continue;
        }
        if (key.inDeny) {
            if (!key.covers(outer, inner)) {
                return false;
            }
        } else if (outer.permit) {
            // A rule that permits looks at this key, one that denies takes whatever is there.
            const bool covered =
                inner.permit ? key.covers(outer, inner) : !key.has.Has(inner.operation);
            if (!covered) {
                return false;
            }
        }
    }
    return true;
}

// One of the patterns, as messages call it.
std::string Singular(const Key& key) {
    const std::string name = key.name;
    return name == "options" ? "option" : name;
}

void FindFlaws(const Rule& rule, const Key& key, std::vector<std::string>& findings) {
    const Patterns* const patterns = PatternsOf(key, rule);
    if (key.flaw == nullptr || patterns == nullptr) {
        return;
    }
    for (const Pattern& pattern : patterns->list) {
        if (pattern.GetKind() == Pattern::kRegex || !pattern.GetError().empty()) {
            continue;
        }
        const std::string why = key.flaw(pattern, rule.operation);
        if (!why.empty()) {
            findings.push_back(rule.where + ": rule " + Quote(rule.name) + ": the " +
                               Singular(key) + " " + Quote(pattern.GetText()) +
                               " can never match: " + why);
        }
    }
}

}  // namespace

std::vector<std::string> CheckRules(const RuleSet& set) {
    std::vector<std::string> findings;
    for (std::size_t i = 0; i < set.rules.size(); ++i) {
        const Rule& rule = set.rules[i];
        const std::string start = rule.where + ": rule " + Quote(rule.name) + ": ";
        if (!rule.broken.empty()) {
            findings.push_back(rule.broken);
        }
        if (!rule.users.any && rule.users.uids.empty() && rule.users.gids.empty()) {
            findings.push_back(start + "can never match: there is none of its users");
        }
        for (const Key& key : Keys()) {
            FindFlaws(rule, key, findings);
        }
        for (std::size_t earlier = 0; earlier < i; ++earlier) {
            if (Covers(set.rules[earlier], rule)) {
                findings.push_back(start + "can never match: " + set.rules[earlier].where +
                                   " matches everything that it matches");
                break;
            }
        }
    }
    return findings;
}

}  // namespace agent
