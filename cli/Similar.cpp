// SPDX-License-Identifier: Apache-2.0
#include "Similar.h"

#include <algorithm>

namespace cli {

namespace {

const std::size_t kMostChanges = 2;

// Row by row: how many changes make the first i characters of one word the first j of the other.
// The last three rows are all that is ever looked at.
std::size_t Changes(const std::string& from, const std::string& to) {
    std::vector<std::size_t> before;
    std::vector<std::size_t> above(to.size() + 1);
    std::vector<std::size_t> row(to.size() + 1);
    for (std::size_t j = 0; j <= to.size(); ++j) {
        above[j] = j;
    }
    for (std::size_t i = 1; i <= from.size(); ++i) {
        row[0] = i;
        for (std::size_t j = 1; j <= to.size(); ++j) {
            const std::size_t other = from[i - 1] == to[j - 1] ? 0 : 1;
            row[j] = std::min({above[j] + 1, row[j - 1] + 1, above[j - 1] + other});
            if (i > 1 && j > 1 && from[i - 1] == to[j - 2] && from[i - 2] == to[j - 1]) {
                row[j] = std::min(row[j], before[j - 2] + 1);
            }
        }
        before = above;
        above = row;
    }
    return above[to.size()];
}

}  // namespace

std::string Similar(const std::string& word, const std::vector<std::string>& names) {
    std::string best;
    std::size_t fewest = std::min(kMostChanges + 1, word.size());
    for (const std::string& name : names) {
        // A word that is much longer is none of them, however long it takes to find that out.
        if (word.size() > name.size() + kMostChanges) {
            continue;
        }
        const std::size_t changes = Changes(word, name);
        if (changes < fewest) {
            fewest = changes;
            best = name;
        }
    }
    return best;
}

}  // namespace cli
