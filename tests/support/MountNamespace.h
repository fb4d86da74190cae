// SPDX-License-Identifier: Apache-2.0
// A mount namespace for the test's process, so that its mounts are seen by nobody else and end with
// it.
#ifndef SENTREL_TESTS_MOUNTNAMESPACE_H
#define SENTREL_TESTS_MOUNTNAMESPACE_H

#include <sched.h>
#include <sys/mount.h>

#include <cerrno>
#include <cstring>

#include "Skip.h"

namespace test {

inline bool EnterMountNamespace() {
    return unshare(CLONE_NEWNS) == 0 &&
           mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0;
}

}  // namespace test

// Leaves the test where that cannot be had.
#define NEEDS_MOUNT_NAMESPACE()                                                                  \
    do {                                                                                         \
        NEEDS_ROOT();                                                                            \
        if (!::test::EnterMountNamespace()) {                                                    \
            SENTREL_SKIP(std::string("no mount namespace of its own: ") + std::strerror(errno)); \
        }                                                                                        \
    } while (false)

#endif
