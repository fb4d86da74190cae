// SPDX-License-Identifier: Apache-2.0
// Words to argument text and what may be in one. Pure functions.
#ifndef SENTREL_CLI_QUOTE_H
#define SENTREL_CLI_QUOTE_H

#include <string>
#include <vector>

namespace cli {

// The words quoted as <sentrel/Arguments.h> does, a blank between any two. Control characters and
// too many words are left to the agent, which keeps the record of what it refuses.
std::string JoinQuoted(const std::vector<std::string>& words);

// Whether the bytes are well-formed UTF-8 without a NUL, which is all that the bus carries.
bool IsText(const std::string& bytes);

}  // namespace cli

#endif
