// SPDX-License-Identifier: Apache-2.0
// Names of users and groups, looked up in the system's account database while rules are loaded.
// Stateless; a test derives from it.
#ifndef SENTREL_AGENT_ACCOUNTS_H
#define SENTREL_AGENT_ACCOUNTS_H

#include <sys/types.h>

#include <string>

namespace agent {

class Accounts {
public:
    Accounts() = default;
    Accounts(const Accounts&) = delete;
    Accounts& operator=(const Accounts&) = delete;
    virtual ~Accounts() = default;

    // False when there is no such account; the output is then left alone.
    virtual bool FindUser(const std::string& name, uid_t& uid) const;
    virtual bool FindGroup(const std::string& name, gid_t& gid) const;
    // The group that a user's account names.
    virtual bool FindPrimaryGroup(uid_t uid, gid_t& gid) const;
};

}  // namespace agent

#endif
