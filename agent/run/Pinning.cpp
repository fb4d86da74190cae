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
#include <optional>
#include <vector>

namespace agent {

namespace {

// The rule was compared with the path as a text. So the text must name one thing only: no component
// that leads back up, and none that is doubled.
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

// What a pin is refused with says that no rule allows it: the rule was checked against the path.
Refusal Refused(const std::string& path, const std::string& why) {
    return Refusal{path + ": " + why, SR_RULE_NO_FOUND};
}

Refusal RefusedByErrno(const std::string& path) {
    const int error = errno;
    return Refused(path, error == ELOOP ? "a symbolic link is in the way" : std::strerror(error));
}

// By the kernel's table, not by looking at it: the root of a mount whose server is gone hangs, and
// a descriptor of it would keep the mount busy.
std::optional<MountEntry> FindMountPoint(const PinnedPath& pinned) {
    const std::optional<std::uint64_t> parent = MountId(pinned.parent.Get());
    const Result<std::vector<MountEntry> > mounts = ReadMounts();
    if (!parent || !mounts) {
        return std::nullopt;
    }
    std::uint64_t below = *parent;
    std::optional<MountEntry> found;
    for (auto next = mounts->begin(); next != mounts->end();) {
        next = std::find_if(mounts->begin(), mounts->end(), [&](const MountEntry& entry) {
            return entry.parent == below && entry.point == pinned.pin.path;
        });
        if (next != mounts->end()) {
            found = *next;
            below = next->id;  // what is mounted on top of it
        }
    }
    return found;
}

Check PinObject(PinnedPath& pinned) {
    const Pin::Kind kind = pinned.pin.kind;
    const std::string& path = pinned.pin.path;
    OwnedFd object =
        OpenBelow(pinned.parent.Get(), pinned.name, kind == Pin::kDirectory ? O_DIRECTORY : 0);
    struct stat found = {};
    if (!object || fstat(object.Get(), &found) != 0) {
        return RefusedByErrno(path);
    }
    if (kind == Pin::kFile && S_ISDIR(found.st_mode)) {
        return Refused(path, "is a directory");
    }
    // A directory above may have been renamed between two components; what counts is what the
    // kernel calls the file now that nothing can change it any more.
    if (PathOf(object.Get()) != path) {
        return Refused(path, "is not what the rule was checked against");
    }
    if (kind == Pin::kMountPoint) {
        return Refused(path, "nothing is mounted there");
    }
    if (kind == Pin::kModule && !(S_ISREG(found.st_mode) && IsClosed(object.Get()))) {
        return Refused(path, "is not a file that only root can write");
    }
    pinned.blockDevice = S_ISBLK(found.st_mode);
    pinned.regularFile = S_ISREG(found.st_mode);
    pinned.object = std::move(object);
    return Fine();
}

// Opens the directory above, without any symbolic link in its path, and notes on the way whether
// all of them are closed to others. No descriptor: errno tells.
void OpenParent(const std::string& path, PinnedPath& pinned) {
    pinned.closedChain = true;
    pinned.parent.Reset(open("/", O_PATH | O_DIRECTORY | O_CLOEXEC));
    for (std::size_t at = 1; pinned.parent;) {
        pinned.closedChain = pinned.closedChain && IsClosed(pinned.parent.Get());
        if (at >= path.size()) {
            break;
        }
        const std::size_t slash = std::min(path.find('/', at), path.size());
        pinned.parent = OpenBelow(pinned.parent.Get(), path.substr(at, slash - at), O_DIRECTORY);
        at = slash + 1;
    }
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

// The kernel's own word, not a walk: a walk would meet what was exchanged meanwhile.
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
    // O_PATH opens nothing: no device notices, no pipe waits, and it needs no right to the file.
    how.flags = static_cast<unsigned>(O_PATH | O_CLOEXEC | flags);
    // No link anywhere, not even root's own: a rule names the place itself, and a link below /proc
    // leads wherever its process says.
    how.resolve = RESOLVE_NO_SYMLINKS | RESOLVE_NO_MAGICLINKS;
    return OwnedFd(
        static_cast<int>(syscall(SYS_openat2, directory, name.c_str(), &how, sizeof how)));
}

int PinnedPath::Inherited() const {
    return object ? object.Get() : parent.Get();
}

Result<PinnedPath> PinPath(const Pin& pin) {
    if (!IsPlainPath(pin.path)) {
        return Refused(pin.path, "is not a plain absolute path");
    }
    const std::size_t slash = pin.path.rfind('/');
    const std::string directory = slash == 0 ? "/" : pin.path.substr(0, slash);
    PinnedPath pinned;
    pinned.pin = pin;
    pinned.name = pin.path.substr(slash + 1);
    OpenParent(directory, pinned);
    if (!pinned.parent) {
        return RefusedByErrno(pin.path);
    }
    if (pin.rootOwnedChain && !pinned.closedChain) {
        return Refused(pin.path, "a directory above it is open to others, or others serve it");
    }
    std::optional<MountEntry> mount;
    if (pin.kind == Pin::kMountPoint) {
        mount = FindMountPoint(pinned);
    }
    if (pin.kind != Pin::kParent && !mount) {
        const Check object = PinObject(pinned);
        if (!object) {
            return object.GetRefusal();
        }
        return pinned;
    }
    if (PathOf(pinned.parent.Get()) != directory) {
        return Refused(pin.path, "is not what the rule was checked against");
    }
    pinned.mount = mount.value_or(MountEntry());
    return pinned;
}

}  // namespace agent
