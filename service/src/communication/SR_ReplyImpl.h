// SPDX-License-Identifier: Apache-2.0
// Inside the library: the two numbers at the head of the agent's reply text.
#ifndef SENTREL_SR_REPLYIMPL_H
#define SENTREL_SR_REPLYIMPL_H

#include <string>

namespace sentrel {

// Reads a status, white space and a return value, as a formatted stream in the classic locale
// would, whatever the program's locale: a number that cannot be read is 0; one that overflows is
// the nearest int; and behind either nothing more is read. What follows the two is ignored.
void ReadReply(const std::string& text, int& status, int& returnValue);

}  // namespace sentrel

#endif
