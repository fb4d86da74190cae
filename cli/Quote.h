// SPDX-License-Identifier: Apache-2.0
// Words to argument text and what may be in one. Pure functions.
#ifndef SENTREL_CLI_QUOTE_H
#define SENTREL_CLI_QUOTE_H

#include <cstddef>
#include <string>
#include <vector>

namespace cli {

// The agent takes no longer text.
const std::size_t kMostBytes = 8192;

// The word in a form that the agent's splitter takes back to exactly this word; as it is where
// nothing needs quoting.
std::string Quote(const std::string& word);

// The quoted words, a blank between any two.
std::string JoinQuoted(const std::vector<std::string>& words);

// Whether the bytes are well-formed UTF-8 without a NUL, which is all that the bus carries.
bool IsText(const std::string& bytes);

}  // namespace cli

#endif
