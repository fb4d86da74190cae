// SPDX-License-Identifier: Apache-2.0
#include "Pinning.h"

#include <errno.h>
#include <fcntl.h>
#include <limits.h>
#include <linux/openat2.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/vfs.h>

#include <algorithm>
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

// Owners and modes are there what a server or another user's process says they are. That of "/" is
// the system's own, whatever it is.
bool IsServedByOthers(int fd, dev_t device) {
    static const unsigned long kServed[] = {
        0x6969,      // NFS
        0xff534d42,  // CIFS
        0xfe534d42,  // SMB 2 and 3
        0x517b,      // SMB
        0x65735546,  // FUSE
        0x01021997,  // 9p
        0x00c36400,  // Ceph
        0x5346414f,  // AFS
        0x6b414653,  // AFS of the kernel's own
        0x73757245,  // Coda
    };
    struct stat root = {};
    struct statfs found = {};
    if (stat("/", &root) == 0 && root.st_dev == device) {
        return false;
    }
    return fstatfs(fd, &found) != 0 ||
           std::count(std::begin(kServed), std::end(kServed),
                      static_cast<unsigned long>(found.f_type) & 0xffffffff) != 0;
}

// Only its owner, who is root (or the agent itself on a desk), may change what it holds.
bool IsClosed(int fd) {
    struct stat found = {};
    return fstat(fd, &found) == 0 && (found.st_uid == 0 || found.st_uid == geteuid()) &&
           (found.st_mode & (S_IWGRP | S_IWOTH)) == 0 && !IsServedByOthers(fd, found.st_dev);
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

// By the kernel's table, not by looking at it: the root of a mount whose server is gone hangs, and
// a descriptor of it would keep the mount busy.
bool FindMountPoint(PinnedPath& pinned) {
    std::uint64_t below = 0;
    std::vector<MountEntry> mounts;
    if (!MountId(pinned.parent.Get(), below) || !ReadMounts(mounts)) {
        return false;
    }
    bool found = false;
    for (auto next = mounts.begin(); next != mounts.end();) {
        next = std::find_if(mounts.begin(), mounts.end(), [&](const MountEntry& entry) {
            return entry.parent == below && entry.point == pinned.pin.path;
        });
        if (next != mounts.end()) {
            found = true;
            pinned.mount = *next;
            below = next->id;  // what is mounted on top of it
        }
    }
    return found;
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
        return Refuse(path, "nothing is mounted there", reason);
    }
    if (kind == Pin::kModule && !(S_ISREG(found.st_mode) && IsClosed(object.Get()))) {
        return Refuse(path, "is not a file that only root can write", reason);
    }
    pinned.blockDevice = S_ISBLK(found.st_mode);
    pinned.regularFile = S_ISREG(found.st_mode);
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

int PinnedPath::Inherited() const {
    return object ? object.Get() : parent.Get();
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
        return Refuse(pin.path, "a directory above it is open to others, or others serve it",
                      reason);
    }
    if (pin.kind != Pin::kParent && !(pin.kind == Pin::kMountPoint && FindMountPoint(pinned))) {
        return PinObject(pin.path, pinned, reason);
    }
    return PathOf(pinned.parent.Get()) == directory ||
           Refuse(pin.path, "is not what the rule was checked against", reason);
}

}  // namespace agent
