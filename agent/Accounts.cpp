// SPDX-License-Identifier: Apache-2.0
// See Accounts.h.
#include "Accounts.h"

#include <grp.h>
#include <pwd.h>

#include <vector>

namespace agent {

namespace {
const std::size_t kEntrySize = 65536;
}

bool Accounts::FindUser(const std::string& name, uid_t& uid) const {
    std::vector<char> buffer(kEntrySize);
    struct passwd entry = {};
    struct passwd* found = nullptr;
    if (getpwnam_r(name.c_str(), &entry, buffer.data(), buffer.size(), &found) != 0 ||
        found == nullptr) {
        return false;
    }
    uid = found->pw_uid;
    return true;
}

bool Accounts::FindGroup(const std::string& name, gid_t& gid) const {
    std::vector<char> buffer(kEntrySize);
    struct group entry = {};
    struct group* found = nullptr;
    if (getgrnam_r(name.c_str(), &entry, buffer.data(), buffer.size(), &found) != 0 ||
        found == nullptr) {
        return false;
    }
    gid = found->gr_gid;
    return true;
}

bool Accounts::FindPrimaryGroup(uid_t uid, gid_t& gid) const {
    std::vector<char> buffer(kEntrySize);
    struct passwd entry = {};
    struct passwd* found = nullptr;
    if (getpwuid_r(uid, &entry, buffer.data(), buffer.size(), &found) != 0 || found == nullptr) {
        return false;
    }
    gid = found->pw_gid;
    return true;
}

}  // namespace agent
