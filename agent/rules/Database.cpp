// SPDX-License-Identifier: Apache-2.0
// By the reentrant functions of the C library, with as much room as an entry needs. An account that
// is not there and a database that does not answer are told apart: the second throws.
#include "Database.h"

#include <grp.h>
#include <pwd.h>

#include <cerrno>
#include <cstring>
#include <vector>

namespace agent {

namespace {

const std::size_t kFirstSize = 4096;
const std::size_t kLargestSize = 67108864;  // an entry with millions of members

// Asks with room enough for the entry. False when there is none.
template <typename Entry, typename Function>
bool Ask(std::vector<char>& buffer, Entry& entry, const Function& function) {
    for (std::size_t size = kFirstSize;; size *= 2) {
        buffer.resize(size);
        Entry* found = nullptr;
        const int error = function(&entry, buffer.data(), buffer.size(), &found);
        if (error == 0) {
            return found != nullptr;
        }
        if (error != EINTR && (error != ERANGE || size >= kLargestSize)) {
            throw LookUpFailed(std::strerror(error));
        }
    }
}

template <typename Find>
std::optional<id_t> Record(AccountTable::Answer& answer, const Find& find) {
    try {
        answer.id = find();
    } catch (const LookUpFailed& failure) {
        answer.failure = failure.what();
        throw;
    }
    return answer.id;
}

template <typename Table>
std::optional<id_t> Tell(const Table& table, const std::string& name) {
    const auto answer = table.find(name);
    if (answer == table.end() || !answer->second.failure.empty()) {
        throw LookUpFailed(answer == table.end() ? "nobody has asked" : answer->second.failure);
    }
    return answer->second.id;
}

bool HasMember(const struct group& entry, const std::string& name) {
    for (char* const* member = entry.gr_mem; member != nullptr && *member != nullptr; ++member) {
        if (name == *member) {
            return true;
        }
    }
    return false;
}

// All that the database gives for the name; what it could not learn is silently left out.
std::set<gid_t> ListGroups(const std::string& name, gid_t primary) {
    std::vector<gid_t> list(64);
    int count = static_cast<int>(list.size());
    while (getgrouplist(name.c_str(), primary, list.data(), &count) < 0) {
        if (list.size() > 1048576) {
            throw LookUpFailed("the groups are too many");
        }
        list.resize(list.size() * 2);
        count = static_cast<int>(list.size());
    }
    return std::set<gid_t>(list.begin(), list.begin() + count);
}

}  // namespace

std::optional<uid_t> Database::FindUser(const std::string& name) const {
    std::vector<char> buffer;
    struct passwd entry = {};
    if (!Ask(buffer, entry, [&name](passwd* out, char* room, std::size_t size, passwd** found) {
            return getpwnam_r(name.c_str(), out, room, size, found);
        })) {
        return std::nullopt;
    }
    return entry.pw_uid;
}

std::optional<gid_t> Database::FindGroup(const std::string& name) const {
    std::vector<char> buffer;
    struct group entry = {};
    if (!Ask(buffer, entry, [&name](group* out, char* room, std::size_t size, group** found) {
            return getgrnam_r(name.c_str(), out, room, size, found);
        })) {
        return std::nullopt;
    }
    return entry.gr_gid;
}

std::optional<gid_t> Database::FindPrimaryGroup(uid_t uid) const {
    std::vector<char> buffer;
    struct passwd entry = {};
    if (!Ask(buffer, entry, [uid](passwd* out, char* room, std::size_t size, passwd** found) {
            return getpwuid_r(uid, out, room, size, found);
        })) {
        return std::nullopt;
    }
    return entry.pw_gid;
}

// The list of a user's groups says nothing of a database that did not answer, so each group is
// asked for besides; and some databases know the list better than the groups' members.
std::set<gid_t> Database::FindGroupsOf(uid_t uid, const std::set<gid_t>& asked) const {
    std::vector<char> buffer;
    struct passwd user = {};
    if (!Ask(buffer, user, [uid](passwd* out, char* room, std::size_t size, passwd** found) {
            return getpwuid_r(uid, out, room, size, found);
        })) {
        return {};
    }
    const std::string name = user.pw_name;
    const std::set<gid_t> list = ListGroups(name, user.pw_gid);
    std::set<gid_t> groups;
    for (const gid_t gid : asked) {
        struct group entry = {};
        const bool found =
            Ask(buffer, entry, [gid](group* out, char* room, std::size_t size, group** result) {
                return getgrgid_r(gid, out, room, size, result);
            });
        if (list.count(gid) != 0 || (found && HasMember(entry, name))) {
            groups.insert(gid);
        }
    }
    return groups;
}

std::optional<uid_t> RecordedNames::FindUser(const std::string& name) const {
    return Record(table.users[name], [&] { return source.FindUser(name); });
}

std::optional<gid_t> RecordedNames::FindGroup(const std::string& name) const {
    return Record(table.groups[name], [&] { return source.FindGroup(name); });
}

std::optional<uid_t> TabledNames::FindUser(const std::string& name) const {
    return Tell(table.users, name);
}

std::optional<gid_t> TabledNames::FindGroup(const std::string& name) const {
    return Tell(table.groups, name);
}

}  // namespace agent
