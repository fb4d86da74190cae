// SPDX-License-Identifier: Apache-2.0
#include "Pinning.h"

#include <errno.h>
#include <fcntl.h>
#include <limits.h>
#include <linux/openat2.h>
#include <sys/stat.h>
#include <sys/syscall.h>

#include <cstring>
#include <vector>

namespace agent {

namespace {

bool IsPlainComponent(const std::string& name) {
    return !name.empty() && name != "." && name != "..";
}

bool IsPlainPath(const std::string& path) {
    if (path.size() < 2 || path[0] != '/' || path.size() >= PATH_MAX ||
        path.find('\0') != std::string::npos) {
        return false;
    }
    for (std::size_t at = 1; at <= path.size();) {
        const std::size_t slash = std::min(path.find('/', at), path.size());
        if (!IsPlainComponent(path.substr(at, slash - at))) {
            return false;
        }
        at = slash + 1;
    }
    return true;
}

// Only its owner, who is root (or the agent itself on a desk), may change what it lists.
bool IsClosed(int directory) {
    struct stat found = {};
    return fstat(directory, &found) == 0 && (found.st_uid == 0 || found.st_uid == geteuid()) &&
           (found.st_mode & (S_IWGRP | S_IWOTH)) == 0;
}

bool Refuse(const std::string& path, const std::string& why, std::string& reason) {
    reason = path + ": " + why;
    return false;
}

bool RefuseErrno(const std::string& path, std::string& reason) {
    const int error = errno;
    return Refuse(path, error == ELOOP ? "a symbolic link is in the way" : std::strerror(error),
                  reason);
}

bool IsMountRoot(int fd) {
    struct statx found = {};
    return statx(fd, "", AT_EMPTY_PATH | AT_STATX_DONT_SYNC, STATX_TYPE, &found) == 0 &&
           (found.stx_attributes_mask & STATX_ATTR_MOUNT_ROOT) != 0 &&
           (found.stx_attributes & STATX_ATTR_MOUNT_ROOT) != 0;
}

bool PinObject(const std::string& path, PinnedPath& pinned, std::string& reason) {
    const Pin::Kind kind = pinned.pin.kind;
    OwnedFd object =
        OpenBelow(pinned.parent.Get(), pinned.name, kind == Pin::kDirectory ? O_DIRECTORY : 0);
    struct stat found = {};
    if (!object || fstat(object.Get(), &found) != 0) {
        return RefuseErrno(path, reason);
    }
    if (kind == Pin::kFile && S_ISDIR(found.st_mode)) {
        return Refuse(path, "is a directory", reason);
    }
    if (PathOf(object.Get()) != path) {
        return Refuse(path, "is not what the rule was checked against", reason);
    }
    if (kind == Pin::kMountPoint) {
        // A directory entry that something is mounted on can neither be renamed nor replaced; the
        // descriptor must go, it would keep the mount busy.
        return IsMountRoot(object.Get()) || Refuse(path, "nothing is mounted there", reason);
    }
    pinned.blockDevice = S_ISBLK(found.st_mode);
    pinned.object = std::move(object);
    return true;
}

}  // namespace

std::string PinnedPath::Reach() const {
    // The name of a mounted device stays visible for as long as the mount lives, so it is kept
    // where nobody but root can make it mean another device.
    if (blockDevice && closedChain) {
        return pin.path;
    }
    const std::string base = "/proc/self/fd/" + std::to_string(Inherited());
    return Inherited() == parent.Get() ? base + "/" + name : base;
}

std::string PathOf(int fd) {
    char path[PATH_MAX];
    const ssize_t length =
        readlink(("/proc/self/fd/" + std::to_string(fd)).c_str(), path, sizeof path);
    return length > 0 && length < static_cast<ssize_t>(sizeof path)
               ? std::string(path, static_cast<std::size_t>(length))
               : std::string();
}

OwnedFd OpenBelow(int directory, const std::string& name, int flags) {
    open_how how = {};
    how.flags = static_cast<unsigned>(O_PATH | O_CLOEXEC | flags);
    how.resolve = RESOLVE_NO_SYMLINKS | RESOLVE_NO_MAGICLINKS;
    return OwnedFd(
        static_cast<int>(syscall(SYS_openat2, directory, name.c_str(), &how, sizeof how)));
}

OwnedFd OpenDirectory(const std::string& path, bool& closedChain) {
    OwnedFd directory(open("/", O_PATH | O_DIRECTORY | O_CLOEXEC));
    for (std::size_t at = 1; directory;) {
        closedChain = closedChain && IsClosed(directory.Get());
        if (at >= path.size()) {
            break;
        }
        const std::size_t slash = std::min(path.find('/', at), path.size());
        directory = OpenBelow(directory.Get(), path.substr(at, slash - at), O_DIRECTORY);
        at = slash + 1;
    }
    return directory;
}

// A directory whose name nobody but root can take away is reached by that name below its parent: a
// mount tool that works in two steps, as for a binding with flags, must meet its first step's mount
// in the second, and a descriptor would lead it below that mount.
int PinnedPath::Inherited() const {
    return object && !(pin.kind == Pin::kDirectory && closedChain) ? object.Get() : parent.Get();
}

bool PinPath(const Pin& pin, PinnedPath& pinned, std::string& reason) {
    if (!IsPlainPath(pin.path)) {
        return Refuse(pin.path, "is not a plain absolute path", reason);
    }
    const std::size_t slash = pin.path.rfind('/');
    const std::string directory = slash == 0 ? "/" : pin.path.substr(0, slash);
    pinned.pin = pin;
    pinned.name = pin.path.substr(slash + 1);
    pinned.closedChain = true;
    pinned.parent = OpenDirectory(directory, pinned.closedChain);
    if (!pinned.parent) {
        return RefuseErrno(pin.path, reason);
    }
    if (pin.rootOwnedChain && !pinned.closedChain) {
        return Refuse(pin.path, "a directory above it is open to others", reason);
    }
    if (pin.kind != Pin::kParent) {
        return PinObject(pin.path, pinned, reason);
    }
    return PathOf(pinned.parent.Get()) == directory ||
           Refuse(pin.path, "is not what the rule was checked against", reason);
}

}  // namespace agent
