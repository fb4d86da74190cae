// SPDX-License-Identifier: Apache-2.0
// The system calls on mounts that have no name: a mount that is made, gets its flags, and only then
// is put where others see it. By number: not every C library declares them.
#ifndef SENTREL_AGENT_MOUNTCALLS_H
#define SENTREL_AGENT_MOUNTCALLS_H

#include <fcntl.h>
#include <linux/mount.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cstdint>

#include "base/Descriptors.h"

namespace agent {

// A mount of its own of what `path` below `directory` is ("" for that itself), which stands
// nowhere and goes with its descriptor. None: errno tells.
inline OwnedFd CloneMount(int directory, const char* path) {
    const unsigned flags = OPEN_TREE_CLONE | OPEN_TREE_CLOEXEC | AT_SYMLINK_NOFOLLOW |
                           (*path == '\0' ? AT_EMPTY_PATH : 0U);
    return OwnedFd(static_cast<int>(syscall(SYS_open_tree, directory, path, flags)));
}

// All at once or none, MOUNT_ATTR_ of linux/mount.h; `propagation` as for mount(2), 0 to leave it.
inline bool SetMountFlags(int mount, std::uint64_t set, std::uint64_t clear,
                          std::uint64_t propagation = 0) {
    mount_attr attributes = {};
    attributes.attr_set = set;
    attributes.attr_clr = clear;
    attributes.propagation = propagation;
    return syscall(SYS_mount_setattr, mount, "", AT_EMPTY_PATH, &attributes, sizeof attributes) ==
           0;
}

// Puts a mount that stands nowhere onto the very directory behind `target`, or on top of what
// stands there. The descriptor then means the mount in its place.
inline bool PlaceMount(int mount, int target) {
    return syscall(SYS_move_mount, mount, "", target, "",
                   MOVE_MOUNT_F_EMPTY_PATH | MOVE_MOUNT_T_EMPTY_PATH) == 0;
}

}  // namespace agent

#endif
