// SPDX-License-Identifier: Apache-2.0
#include "Bind.h"

#include <errno.h>
#include <sys/mount.h>
#include <sys/statvfs.h>

#include <cstring>
#include <string>

#include "MountCalls.h"

namespace agent {

namespace {

const unsigned long kNoSymFollow = 0x2000;  // as the kernel says it in statfs(2)

std::string Why(int error) {
    if (error == ENOSYS) {
        return "this kernel cannot give a bind mount its flags before others see it (Linux 5.12 "
               "can)";
    }
    return error == EINVAL ? "the source cannot be bound, or not with these options"
                           : std::string("bind failed: ") + std::strerror(error);
}

// What the mount itself says. Relatime is the absence of the other two.
bool HasFlags(int mount, std::uint64_t wanted) {
    static const struct {
        std::uint64_t attribute;
        unsigned long flag;
    } kFlags[] = {{MOUNT_ATTR_RDONLY, ST_RDONLY},        {MOUNT_ATTR_NOSUID, ST_NOSUID},
                  {MOUNT_ATTR_NODEV, ST_NODEV},          {MOUNT_ATTR_NOEXEC, ST_NOEXEC},
                  {MOUNT_ATTR_NOATIME, ST_NOATIME},      {MOUNT_ATTR_NODIRATIME, ST_NODIRATIME},
                  {MOUNT_ATTR_NOSYMFOLLOW, kNoSymFollow}};
    struct statvfs found = {};
    if (fstatvfs(mount, &found) != 0) {
        return false;
    }
    for (const auto& row : kFlags) {
        if ((wanted & row.attribute) != 0 && (found.f_flag & row.flag) == 0) {
            return false;
        }
    }
    return true;
}

}  // namespace

Result<OwnedFd> MakeBind(const PinnedPath& source, const BindFlags& flags) {
    OwnedFd mount = CloneMount(source.object.Get(), "");
    // A copy of a shared mount is its peer: what is mounted below the one appears below the other,
    // and goes there too. So no rule's place would end where it says. Private it has no peers.
    if (!mount || !SetMountFlags(mount.Get(), flags.set, flags.clear, MS_PRIVATE)) {
        return Refusal{Why(errno)};
    }
    // Asked once more: on a kernel that passes over a flag nobody would notice, and the mount would
    // stand for ever without what the rule wants of it.
    if (!HasFlags(mount.Get(), flags.set)) {
        return Refusal{"the bind mount did not get its flags"};
    }
    return mount;
}

}  // namespace agent
