// SPDX-License-Identifier: Apache-2.0
// A caller's file of credentials for a share, in mount.cifs(8)'s own form. Pure functions.
#ifndef SENTREL_AGENT_CREDENTIALS_H
#define SENTREL_AGENT_CREDENTIALS_H

#include <string>

namespace agent {

struct Credentials {
    std::string user;  // these two: empty when the file does not say
    std::string domain;
    std::string password;
};

const std::size_t kLargestCredentials = 4096;

// Reads lines such as "username=me"; blanks before a key are passed over, as are lines that say
// something else. False, with a reason that repeats nothing of the text, when there is no password
// or a value that the grammar would not take as an option's.
bool ReadCredentials(const std::string& text, Credentials& credentials, std::string& reason);

}  // namespace agent

#endif
