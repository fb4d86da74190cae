// SPDX-License-Identifier: Apache-2.0
// Splits an argument text into words. Pure function.
//
// Words are separated by blanks (space, tab). '...' is taken as it stands. In "..." a backslash
// before one of " \ $ ` makes that character plain and is itself plain before any other. Outside
// quotes a backslash makes the next character plain. Pieces that touch are one word, and '' is an
// empty one. Nothing is ever expanded: no variable, pattern, tilde, comment or operator.
#ifndef SENTREL_AGENT_WORDS_H
#define SENTREL_AGENT_WORDS_H

#include <cstddef>
#include <string>
#include <vector>

namespace agent {

const std::size_t kMostBytes = 8192;
const std::size_t kMostWords = 64;

// False, with the reason in `error` and `words` left alone, for an open quote, a backslash at the
// end, a control character (a tab counts as one when it is not a separator), more than kMostWords
// words or more than kMostBytes bytes. `error` is left alone on success.
bool SplitWords(const std::string& text, std::vector<std::string>& words, std::string& error);

}  // namespace agent

#endif
