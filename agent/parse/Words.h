// SPDX-License-Identifier: Apache-2.0
// The argument text cut into words. A pure function, callable from any thread.
#ifndef SENTREL_AGENT_WORDS_H
#define SENTREL_AGENT_WORDS_H

#include <cstddef>
#include <string>
#include <vector>

#include "base/Result.h"

namespace agent {

constexpr std::size_t kLongestText = 8192;
constexpr std::size_t kMostWords = 64;

// Words are separated by blanks (space, tab). '...' takes everything as it is; in "..." a backslash
// makes a following " \ $ or ` plain and stays itself before anything else; outside quotes it makes
// any following character plain. Nothing is ever expanded. '' is an empty word.
//
// Refused: an open quote, a backslash at the end, a control character (a quoted tab is one), more
// than kMostWords words or more than kLongestText bytes. No reason repeats the text.
Result<std::vector<std::string>> SplitWords(const std::string& text);

}  // namespace agent

#endif
