// SPDX-License-Identifier: Apache-2.0
// The system's account database. Each question may take long or for ever, for the database may be
// far away: the agent asks in processes of their own only (relay/Relay.h, RuleLoader.h). Stateless.
#ifndef SENTREL_AGENT_DATABASE_H
#define SENTREL_AGENT_DATABASE_H

#include <map>
#include <set>
#include <string>

#include "decide/Accounts.h"

namespace agent {

class Database : public Accounts {
public:
    bool FindUser(const std::string& name, uid_t& uid) const override;
    bool FindGroup(const std::string& name, gid_t& gid) const override;
    bool FindPrimaryGroup(uid_t uid, gid_t& gid) const override;
    std::set<gid_t> FindGroupsOf(uid_t uid, const std::set<gid_t>& asked) const override;
};

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
class RecordedNames : public Names {
public:
    explicit RecordedNames(const Names& database) : source(database) {}
    bool FindUser(const std::string& name, uid_t& uid) const override;
    bool FindGroup(const std::string& name, gid_t& gid) const override;
    const AccountTable& GetTable() const { return table; }

private:
    const Names& source;
    mutable AccountTable table;
};

// Says what is in a table, and asks nobody.
class TabledNames : public Names {
public:
    explicit TabledNames(const AccountTable& answers) : table(answers) {}
    bool FindUser(const std::string& name, uid_t& uid) const override;
    bool FindGroup(const std::string& name, gid_t& gid) const override;

private:
    const AccountTable& table;
};

}  // namespace agent

#endif
