// SPDX-License-Identifier: Apache-2.0
// What somebody may have meant who mistyped a name. A pure function.
#ifndef SENTREL_CLI_SIMILAR_H
#define SENTREL_CLI_SIMILAR_H

#include <string>
#include <vector>

namespace cli {

// The name that takes the fewest changes (a character put in, left out, exchanged with another or
// with its neighbour), the first of several; empty when even that takes more than two changes, or
// as many as the word has characters.
std::string Similar(const std::string& word, const std::vector<std::string>& names);

}  // namespace cli

#endif
