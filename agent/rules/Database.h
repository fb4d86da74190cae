// SPDX-License-Identifier: Apache-2.0
// The system's account database. Each question may take long or for ever, for the database may be
// far away: the agent asks in processes of their own only (relay/Relay.h, RuleLoader.h). Stateless.
#ifndef SENTREL_AGENT_DATABASE_H
#define SENTREL_AGENT_DATABASE_H

#include <map>
#include <optional>
#include <set>
#include <string>

#include "decide/Accounts.h"

namespace agent {

class Database : public Accounts {
public:
    std::optional<uid_t> FindUser(const std::string& name) const override;
    std::optional<gid_t> FindGroup(const std::string& name) const override;
    std::optional<gid_t> FindPrimaryGroup(uid_t uid) const override;
    std::set<gid_t> FindGroupsOf(uid_t uid, const std::set<gid_t>& asked) const override;
};

// What a database said of names, to be asked again elsewhere.
struct AccountTable {
    struct Answer {
        std::optional<id_t> id;  // nothing: there is no such account
        std::string failure;     // empty: it did not fail
    };
    std::map<std::string, Answer> users;
    std::map<std::string, Answer> groups;
};

// Asks another and writes down what it said.
class RecordedNames : public Names {
public:
    explicit RecordedNames(const Names& source_) : source(source_) {}
    std::optional<uid_t> FindUser(const std::string& name) const override;
    std::optional<gid_t> FindGroup(const std::string& name) const override;
    const AccountTable& GetTable() const { return table; }

private:
    const Names& source;
    mutable AccountTable table;
};

// Says what is in a table, and asks nobody.
class TabledNames : public Names {
public:
    explicit TabledNames(const AccountTable& table_) : table(table_) {}
    std::optional<uid_t> FindUser(const std::string& name) const override;
    std::optional<gid_t> FindGroup(const std::string& name) const override;

private:
    const AccountTable& table;
};

}  // namespace agent

#endif
