// SPDX-License-Identifier: Apache-2.0
// Users and groups, as whoever knows them tells: the system's database (rules/Database.h), what
// it once said, or a test.
#ifndef SENTREL_AGENT_ACCOUNTS_H
#define SENTREL_AGENT_ACCOUNTS_H

#include <sys/types.h>

#include <optional>
#include <set>
#include <stdexcept>
#include <string>

#include "base/Caller.h"

namespace agent {

// The database could not answer; never that there is no such account.
class LookUpFailed : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

// Names, as rules write them.
class Names {
public:
    Names() = default;
    Names(const Names&) = delete;
    Names& operator=(const Names&) = delete;
    virtual ~Names() = default;

    // Nothing when there is no such account. Throw LookUpFailed.
    virtual std::optional<uid_t> FindUser(const std::string& name) const = 0;
    virtual std::optional<gid_t> FindGroup(const std::string& name) const = 0;
};

// Names, and what belongs to them. Throws LookUpFailed.
class Accounts : public Names {
public:
    // The group that a user's account names. Nothing as above.
    virtual std::optional<gid_t> FindPrimaryGroup(uid_t uid) const = 0;
    // Those of `asked` that the user's account is in; none when it has no account.
    virtual std::set<gid_t> FindGroupsOf(uid_t uid, const std::set<gid_t>& asked) const = 0;
};

// Throws LookUpFailed.
Account LookUp(const Accounts& accounts, uid_t uid, const AccountQuestions& questions);

}  // namespace agent

#endif
