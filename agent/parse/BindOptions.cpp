// SPDX-License-Identifier: Apache-2.0
// One row for each option, with the flags of mount_setattr(2) that it sets and clears.
#include "BindOptions.h"

#include <linux/mount.h>

namespace agent {

namespace {

struct Row {
    const char* option;
    std::uint64_t set;
    std::uint64_t clear;
};

// The kernel takes one of the three ways to keep access times only in the place of all. The first
// two rows say what a bind mount is anyway. What protects, the source's mount keeps: "rw" and its
// like take nothing from it, only from what is named before them.
const Row kRows[] = {
    {"bind", 0, 0},
    {"defaults", 0, 0},
    {"ro", MOUNT_ATTR_RDONLY, 0},
    {"rw", 0, MOUNT_ATTR_RDONLY},
    {"nosuid", MOUNT_ATTR_NOSUID, 0},
    {"suid", 0, MOUNT_ATTR_NOSUID},
    {"nodev", MOUNT_ATTR_NODEV, 0},
    {"dev", 0, MOUNT_ATTR_NODEV},
    {"noexec", MOUNT_ATTR_NOEXEC, 0},
    {"exec", 0, MOUNT_ATTR_NOEXEC},
    {"nosymfollow", MOUNT_ATTR_NOSYMFOLLOW, 0},
    {"symfollow", 0, MOUNT_ATTR_NOSYMFOLLOW},
    {"noatime", MOUNT_ATTR_NOATIME, MOUNT_ATTR__ATIME},
    {"relatime", MOUNT_ATTR_RELATIME, MOUNT_ATTR__ATIME},
    {"atime", MOUNT_ATTR_RELATIME, MOUNT_ATTR__ATIME},
    {"strictatime", MOUNT_ATTR_STRICTATIME, MOUNT_ATTR__ATIME},
    {"nodiratime", MOUNT_ATTR_NODIRATIME, 0},
    {"diratime", 0, MOUNT_ATTR_NODIRATIME},
};

const Row* Find(const std::string& option) {
    for (const Row& row : kRows) {
        if (option == row.option) {
            return &row;
        }
    }
    return nullptr;
}

}  // namespace

bool IsBindOption(const std::string& option) {
    return Find(option) != nullptr;
}

void AddBindOption(const std::string& option, BindFlags& flags) {
    const Row* const row = Find(option);
    if (row == nullptr) {
        return;
    }
    const std::uint64_t kept = MOUNT_ATTR_RDONLY | MOUNT_ATTR_NOSUID | MOUNT_ATTR_NODEV |
                               MOUNT_ATTR_NOEXEC | MOUNT_ATTR_NOSYMFOLLOW;
    flags.set = (flags.set & ~row->clear) | row->set;
    flags.clear = (flags.clear & ~row->set) | (row->clear & ~kept);
}

}  // namespace agent
