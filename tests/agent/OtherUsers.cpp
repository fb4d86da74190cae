// SPDX-License-Identifier: Apache-2.0
#include "OtherUsers.h"

#include <pwd.h>
#include <unistd.h>

#include <stdexcept>

namespace test {

std::vector<uid_t> Accounts() {
    std::vector<uid_t> uids;
    setpwent();
    while (const passwd* entry = getpwent()) {
        uids.push_back(entry->pw_uid);
    }
    endpwent();
    return uids;
}

uid_t PlainAccount() {
    const passwd* nobody = getpwnam("nobody");
    return geteuid() == 0 && nobody != nullptr ? nobody->pw_uid : getuid();
}

std::unique_ptr<PlainConnection> ConnectAs(uid_t uid) {
    const bool root = geteuid() == 0;
    if (root && seteuid(uid) != 0) {
        throw std::runtime_error("becoming another user");
    }
    std::unique_ptr<PlainConnection> connection;
    try {
        connection = std::make_unique<PlainConnection>();
    } catch (...) {
        (void)seteuid(getuid());
        throw;
    }
    if (root && seteuid(0) != 0) {
        throw std::runtime_error("becoming root again");
    }
    return connection;
}

}  // namespace test
