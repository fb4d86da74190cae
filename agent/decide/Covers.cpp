// SPDX-License-Identifier: Apache-2.0
// Pattern by pattern: one inner pattern must be covered by one outer pattern. Two outer patterns
// that cover it together, and two regular expressions, are not seen through.
#include "Covers.h"

#include <algorithm>

#include "base/Text.h"

namespace agent {

namespace {

// Everything that `inner` matches, `outer` matches too.
bool Covers(const Pattern& outer, const Pattern& inner) {
    if (!outer.GetError().empty() || !inner.GetError().empty()) {
        return false;
    }
    if (outer.GetKind() == inner.GetKind() && outer.GetText() == inner.GetText()) {
        return true;
    }
    if (inner.IsLiteral()) {
        return outer.Matches(inner.GetText(), Variables());
    }
    if (outer.GetKind() != Pattern::kGlob || inner.GetKind() != Pattern::kGlob) {
        return false;
    }
    // "/media/**" covers what is fixed to begin with "/media/" and has something behind it.
    const std::string& text = outer.GetText();
    if (EndsWith(text, "/**") && outer.GetFixedPart().size() + 2 == text.size()) {
        const std::string below = outer.GetFixedPart();
        const std::string& other = inner.GetText();
        const bool atLeastOne =
            EndsWith(other, "/**") || other.size() > below.size() + 1 || other.back() != '*';
        return StartsWith(inner.GetFixedPart(), below) && other.size() > below.size() && atLeastOne;
    }
    return text == "*" && inner.GetText().find('/') == std::string::npos;
}

}  // namespace

bool Covers(const Patterns& outer, const Patterns& inner) {
    if (!outer.given) {
        return true;
    }
    return inner.given && !inner.list.empty() &&
           std::all_of(inner.list.begin(), inner.list.end(), [&](const Pattern& one) {
               return std::any_of(outer.list.begin(), outer.list.end(),
                                  [&](const Pattern& other) { return Covers(other, one); });
           });
}

bool Covers(const Numbers& outer, const Numbers& inner) {
    if (outer.ranges.empty()) {
        return true;
    }
    return !inner.ranges.empty() &&
           std::all_of(inner.ranges.begin(), inner.ranges.end(),
                       [&](const std::pair<unsigned, unsigned>& one) {
                           return std::any_of(outer.ranges.begin(), outer.ranges.end(),
                                              [&](const std::pair<unsigned, unsigned>& other) {
                                                  return other.first <= one.first &&
                                                         other.second >= one.second;
                                              });
                       });
}

bool CoversUsers(const Rule& outer, const Rule& inner) {
    const Users& wide = outer.users;
    const Users& narrow = inner.users;
    return wide.any || (!narrow.any &&
                        std::includes(wide.uids.begin(), wide.uids.end(), narrow.uids.begin(),
                                      narrow.uids.end()) &&
                        std::includes(wide.gids.begin(), wide.gids.end(), narrow.gids.begin(),
                                      narrow.gids.end()));
}

bool CoversModes(const Rule& outer, const Rule& inner) {
    const std::vector<int> fallback = {0600};
    const std::vector<int>& wide = outer.modes.empty() ? fallback : outer.modes;
    const std::vector<int>& narrow = inner.modes.empty() ? fallback : inner.modes;
    return std::all_of(narrow.begin(), narrow.end(),
                       [&](int mode) { return std::count(wide.begin(), wide.end(), mode) != 0; });
}

}  // namespace agent
