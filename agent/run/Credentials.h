// SPDX-License-Identifier: Apache-2.0
// A caller's file of credentials for a share, in mount.cifs(8)'s own form. Pure functions.
//
// The tool could read the file itself, but as root and by a name that the caller may exchange; and
// whatever stands in it would become options that no rule has seen.
#ifndef SENTREL_AGENT_CREDENTIALS_H
#define SENTREL_AGENT_CREDENTIALS_H

#include <string>

#include "base/Result.h"

namespace agent {

struct Credentials {
    std::string user;  // these two: empty when the file does not say
    std::string domain;
    std::string password;
};

const std::size_t kLargestCredentials = 4096;

// Reads lines such as "username=me"; blanks before a key are passed over, as are lines that say
// something else. Refused, with a reason that repeats nothing of the text, when there is no
// password or a value that the grammar would not take as an option's.
Result<Credentials> ReadCredentials(const std::string& text);

}  // namespace agent

#endif
