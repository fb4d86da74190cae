// SPDX-License-Identifier: Apache-2.0
#include "Aftercheck.h"

#include <errno.h>
#include <fcntl.h>
#include <linux/mount.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/sysmacros.h>

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <cstring>

#include "MountTable.h"

namespace agent {

namespace {

// The mount that stands on the pinned directory, else (after a remount) the one whose root it is.
// Found by the ids of mounts: a path could lead elsewhere by now.
bool FindMount(int directory, MountEntry& found, bool& isNew) {
    std::uint64_t id = 0;
    const std::string path = PathOf(directory);
    if (path.empty() || !MountId(directory, id)) {
        return false;
    }
    bool any = false;
    for (const MountEntry& entry : ReadMounts()) {
        if (entry.point != path || (entry.parent != id && entry.id != id)) {
            continue;
        }
        if (!any || entry.parent == id) {
            found = entry;
            isNew = entry.parent == id;
            any = true;
        }
    }
    return any;
}

bool HasOption(const std::string& options, const std::string& wanted) {
    return ("," + options + ",").find("," + wanted + ",") != std::string::npos;
}

std::uint64_t Attribute(const std::string& flag) {
    if (flag == "nosuid") {
        return MOUNT_ATTR_NOSUID;
    }
    if (flag == "nodev") {
        return MOUNT_ATTR_NODEV;
    }
    if (flag == "noexec") {
        return MOUNT_ATTR_NOEXEC;
    }
    return flag == "ro" ? MOUNT_ATTR_RDONLY : 0;
}

// The flags first, for those who stand in it already: an unmounting does not reach them.
bool TakeBack(const MountEntry& mount, const std::vector<std::string>& flags) {
    const std::size_t slash = mount.point.rfind('/');
    const std::string name = mount.point.substr(slash + 1);
    bool closed = true;
    const OwnedFd parent = OpenDirectory(slash == 0 ? "/" : mount.point.substr(0, slash), closed);
    OwnedFd root = OpenBelow(parent.Get(), name, 0);
    std::uint64_t id = 0;
    if (!parent || !root || !MountId(root.Get(), id) || id != mount.id) {
        return false;
    }
    mount_attr attributes = {};
    for (const std::string& flag : flags) {
        attributes.attr_set |= Attribute(flag);
    }
    (void)syscall(SYS_mount_setattr, root.Get(), "", AT_EMPTY_PATH, &attributes, sizeof attributes);
    root.Reset();
    return fchdir(parent.Get()) == 0 && (umount2(name.c_str(), UMOUNT_NOFOLLOW) == 0 ||
                                         umount2(name.c_str(), UMOUNT_NOFOLLOW | MNT_DETACH) == 0);
}

bool IsNumber(const std::string& text, unsigned value) {
    char* end = nullptr;
    const unsigned long number = std::strtoul(text.c_str(), &end, 0);
    return !text.empty() && *end == '\0' && number == value;
}

// argv behind the path: TYPE [MAJOR MINOR].
bool IsDescribed(const struct stat& node, const std::vector<std::string>& argv, std::size_t path) {
    if (path + 1 >= argv.size()) {
        return false;
    }
    const std::string& type = argv[path + 1];
    if (type == "p") {
        return S_ISFIFO(node.st_mode);
    }
    const bool rightType =
        type == "b" ? S_ISBLK(node.st_mode) : (type == "c" || type == "u") && S_ISCHR(node.st_mode);
    return rightType && path + 3 < argv.size() && IsNumber(argv[path + 2], major(node.st_rdev)) &&
           IsNumber(argv[path + 3], minor(node.st_rdev));
}

}  // namespace

bool CheckMount(const PinnedPath& pinned, const std::vector<std::string>& flags, bool toolSucceeded,
                std::string& reason) {
    MountEntry mount;
    bool isNew = false;
    const bool found = FindMount(pinned.object.Get(), mount, isNew);
    if (!toolSucceeded && (!found || !isNew)) {
        return true;
    }
    if (!found) {
        reason = pinned.pin.path + ": nothing was mounted there";
        return false;
    }
    const auto missing =
        std::find_if(flags.begin(), flags.end(),
                     [&mount](const std::string& flag) { return !HasOption(mount.options, flag); });
    if (missing == flags.end()) {
        return true;
    }
    reason =
        pinned.pin.path + ": was mounted without " + *missing +
        (TakeBack(mount, flags) ? "; it is unmounted again" : "; it could not be unmounted again");
    return false;
}

bool FinishNode(const PinnedPath& pinned, const Plan& plan, std::string& reason) {
    const OwnedFd node = OpenBelow(pinned.parent.Get(), pinned.name, 0);
    struct stat found = {};
    // With a second name, or another owner, it is not the one just made.
    if (!node || fstat(node.Get(), &found) != 0 || found.st_nlink != 1 ||
        found.st_uid != geteuid() || !IsDescribed(found, plan.argv, pinned.pin.argument)) {
        reason = pinned.pin.path + ": is not the node that was made";
        return false;
    }
    const std::string path = "/proc/self/fd/" + std::to_string(node.Get());
    const bool bits =
        (found.st_mode & 07000) == 0 || chmod(path.c_str(), found.st_mode & 0777) == 0;
    const bool keep = plan.owner == static_cast<uid_t>(-1) && plan.group == static_cast<gid_t>(-1);
    if (bits && (keep || fchownat(node.Get(), "", plan.owner, plan.group, AT_EMPTY_PATH) == 0)) {
        return true;
    }
    reason = pinned.pin.path + ": cannot set its owner: " + std::strerror(errno);
    (void)unlinkat(pinned.parent.Get(), pinned.name.c_str(), 0);
    return false;
}

}  // namespace agent
