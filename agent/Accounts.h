// SPDX-License-Identifier: Apache-2.0
// Users and groups of the system's account database. Each question may take long or for ever, for
// the database may be far away: the agent asks in processes of their own only (Relay.h,
// RuleLoader.h). Stateless; a test derives from it.
#ifndef SENTREL_AGENT_ACCOUNTS_H
#define SENTREL_AGENT_ACCOUNTS_H

#include <sys/types.h>

#include <map>
#include <optional>
#include <set>
#include <stdexcept>
#include <string>

namespace agent {

// The database could not answer; never that there is no such account.
class LookUpFailed : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

class Accounts {
public:
    Accounts() = default;
    Accounts(const Accounts&) = delete;
    Accounts& operator=(const Accounts&) = delete;
    virtual ~Accounts() = default;

    // False when there is no such account; the output is then left alone. Throw LookUpFailed.
    virtual bool FindUser(const std::string& name, uid_t& uid) const;
    virtual bool FindGroup(const std::string& name, gid_t& gid) const;
    // The group that a user's account names.
    virtual bool FindPrimaryGroup(uid_t uid, gid_t& gid) const;
    // Those of `asked` that the user's account is in; none when it has no account.
    virtual std::set<gid_t> FindGroupsOf(uid_t uid, const std::set<gid_t>& asked) const;
};

// What the rules must know of a caller's account.
struct AccountQuestions {
    std::set<gid_t> groups;  // whether it is in these
    bool primary = false;    // which one is its own

    bool Any() const { return primary || !groups.empty(); }
};

// What is known of it.
struct Account {
    std::set<gid_t> asked;  // the groups of which it is known whether it is in them
    std::set<gid_t> groups;
    std::optional<gid_t> primary;
};

// Throws LookUpFailed.
Account LookUp(const Accounts& accounts, uid_t uid, const AccountQuestions& questions);

// What a database said of names, to be asked again elsewhere.
struct AccountTable {
    struct Answer {
        bool found = false;
        id_t id = 0;
        std::string failure;  // empty: it did not fail
    };
    std::map<std::string, Answer> users;
    std::map<std::string, Answer> groups;
};

// Asks another and writes down what it said.
class RecordedAccounts : public Accounts {
public:
    explicit RecordedAccounts(const Accounts& database) : source(database) {}
    bool FindUser(const std::string& name, uid_t& uid) const override;
    bool FindGroup(const std::string& name, gid_t& gid) const override;
    const AccountTable& GetTable() const { return table; }

private:
    const Accounts& source;
    mutable AccountTable table;
};

// Says what is in a table, and asks nobody.
class TabledAccounts : public Accounts {
public:
    explicit TabledAccounts(const AccountTable& answers) : table(answers) {}
    bool FindUser(const std::string& name, uid_t& uid) const override;
    bool FindGroup(const std::string& name, gid_t& gid) const override;

private:
    const AccountTable& table;
};

}  // namespace agent

#endif
