// SPDX-License-Identifier: Apache-2.0
#include "Aftercheck.h"

#include <errno.h>
#include <sys/mount.h>
#include <sys/stat.h>

#include <cstring>
#include <optional>

#include "MountCalls.h"
#include "MountTable.h"

namespace agent {

namespace {

std::uint64_t Attribute(const std::string& flag) {
    static const struct {
        const char* flag;
        std::uint64_t attribute;
    } kAttributes[] = {{"nosuid", MOUNT_ATTR_NOSUID},
                       {"nodev", MOUNT_ATTR_NODEV},
                       {"noexec", MOUNT_ATTR_NOEXEC},
                       {"ro", MOUNT_ATTR_RDONLY},
                       {"nosymfollow", MOUNT_ATTR_NOSYMFOLLOW}};
    for (const auto& row : kAttributes) {
        if (flag == row.flag) {
            return row.attribute;
        }
    }
    return 0;
}

// The flags first, for those who stand in it already: an unmounting does not reach them. The link
// leads to the root of this mount, wherever that stands by now.
bool TakeBack(int mount, const std::vector<std::string>& flags) {
    std::uint64_t attributes = 0;
    for (const std::string& flag : flags) {
        attributes |= Attribute(flag);
    }
    (void)SetMountFlags(mount, attributes, 0);
    // EINVAL: it is not mounted.
    return umount2(("/proc/self/fd/" + std::to_string(mount)).c_str(), MNT_DETACH) == 0 ||
           errno == EINVAL;
}

// Empty when nothing is.
std::string WhatIsWrong(int mount, const std::vector<std::string>& flags) {
    const std::optional<std::uint64_t> id = MountId(mount);
    const Result<std::vector<MountEntry> > mounts = ReadMounts();
    if (!id || !mounts) {
        return "the mount cannot be looked at";
    }
    const MountEntry* entry = FindMount(*mounts, *id);
    if (entry == nullptr) {
        return "nothing is mounted there now";
    }
    const std::string missing = MissingFlag(*entry, flags);
    return missing.empty() ? "" : "was mounted without " + missing;
}

// Without asking its server.
bool SameRoot(int one, int other) {
    const unsigned flags = AT_EMPTY_PATH | AT_STATX_DONT_SYNC;
    struct statx first = {};
    struct statx second = {};
    return statx(one, "", flags, STATX_INO, &first) == 0 &&
           statx(other, "", flags, STATX_INO, &second) == 0 &&
           first.stx_dev_major == second.stx_dev_major &&
           first.stx_dev_minor == second.stx_dev_minor && first.stx_ino == second.stx_ino;
}

}  // namespace

Check PutInPlace(const OwnedFd& mount, const PinnedPath& target, bool once) {
    // The kernel would refuse it to mount(2), but not to this call: a caller that asks again and
    // again would pile mounts up.
    if (once && SameRoot(mount.Get(), target.object.Get())) {
        return Refusal{"already mounted or mount point busy"};
    }
    if (!PlaceMount(mount.Get(), target.object.Get())) {
        return Refusal{std::string("mount failed: ") + std::strerror(errno)};
    }
    return Fine();
}

// The second wall: what is seen here was finished before it was shown.
Check CheckMount(const OwnedFd& mount, const std::string& path,
                 const std::vector<std::string>& flags) {
    const std::string wrong = WhatIsWrong(mount.Get(), flags);
    if (wrong.empty()) {
        return Fine();
    }
    return Refusal{path + ": " + wrong +
                   (TakeBack(mount.Get(), flags) ? "; it is unmounted again"
                                                 : "; it could not be unmounted again")};
}

}  // namespace agent
