// SPDX-License-Identifier: Apache-2.0
//
// Two traps lie here. Opening /proc/PID/fd/N makes a new open file with the opener's rights, so
// root could write through a descriptor that its owner may only read: the descriptor is copied with
// pidfd_getfd instead. And the process behind the pid may have become a set-uid program since it
// connected: so before and after the copy the kernel is asked, with the caller's own rights,
// whether the caller may look into that process, and all three must show the same file.
#include "Descriptor.h"

#include <fcntl.h>
#include <limits.h>
#include <linux/magic.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/statfs.h>
#include <sys/sysmacros.h>
#include <sys/un.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <fstream>
#include <optional>
#include <sstream>

#include "base/AsCaller.h"
#include "base/Process.h"

namespace agent {

namespace {

const int kHighest = 1048576;  // no process has more descriptors than this

// The process's real group. The kernel compares all its groups with the one we ask with, and the
// bus does not say which of the caller's groups is the first.
std::optional<gid_t> RealGroup(const Caller& caller) {
    // By lines: the process chooses its name, which stands there too, but without a newline.
    std::ifstream status("/proc/" + std::to_string(caller.pid) + "/status");
    std::string line;
    while (std::getline(status, line) && line.compare(0, 4, "Gid:") != 0) {
    }
    gid_t group = 0;
    const bool read = static_cast<bool>(
        std::istringstream(line.substr(std::min<std::size_t>(4, line.size()))) >> group);
    if (!read || (!caller.groups.empty() && std::find(caller.groups.begin(), caller.groups.end(),
                                                      group) == caller.groups.end())) {
        return std::nullopt;
    }
    return group;
}

// Without asking the file system, which may be a caller's own program that never answers.
std::optional<struct stat> Identify(int fd) {
    struct statx found = {};
    if (statx(fd, "", AT_EMPTY_PATH | AT_STATX_DONT_SYNC, STATX_TYPE | STATX_INO, &found) != 0) {
        return std::nullopt;
    }
    struct stat seen = {};
    seen.st_mode = found.stx_mode;
    seen.st_ino = found.stx_ino;
    seen.st_dev = makedev(found.stx_dev_major, found.stx_dev_minor);
    seen.st_rdev = makedev(found.stx_rdev_major, found.stx_rdev_minor);
    return seen;
}

// What the caller itself would see under this number; with its rights the kernel refuses what lies
// in a process that is not the caller's to look into.
std::optional<struct stat> SeeAsCaller(const Caller& caller, gid_t group, int number) {
    const std::string path =
        "/proc/" + std::to_string(caller.pid) + "/fd/" + std::to_string(number);
    const OwnedFd file = OpenAsCaller(caller.uid, group, caller.groups, [&path] {
        return OwnedFd(open(path.c_str(), O_PATH | O_CLOEXEC));
    });
    return file ? Identify(file.Get()) : std::nullopt;
}

bool SameFile(const struct stat& one, const struct stat& other) {
    return one.st_dev == other.st_dev && one.st_ino == other.st_ino;
}

bool IsStreamSocket(int fd) {
    int domain = 0;
    int type = 0;
    socklen_t length = sizeof domain;
    if (getsockopt(fd, SOL_SOCKET, SO_DOMAIN, &domain, &length) != 0) {
        return false;
    }
    length = sizeof type;
    return getsockopt(fd, SOL_SOCKET, SO_TYPE, &type, &length) == 0 && domain == AF_UNIX &&
           type == SOCK_STREAM;
}

// Whether a socket of this address is where a system's log is read. The address is the one that its
// owner bound it to: it stays the same in every namespace, and whatever is renamed or mounted. The
// journal has instances of its own names beside the first, and a daemon may bind its socket from
// within a directory that it serves.
bool IsOfTheLog(const std::string& address) {
    const auto ends = [&address](const std::string& end) {
        return address.size() >= end.size() &&
               address.compare(address.size() - end.size(), end.size(), end) == 0;
    };
    return address.find("systemd/journal") != std::string::npos || ends("dev/log") ||
           ends("run/log");
}

// Lines in there are the caller's, but a hasty reader might take them for the agent's. One that is
// not connected could be connected to a log later; one that is stays as it is.
Check CheckSocket(int fd) {
    if (!IsStreamSocket(fd)) {
        return Refusal{"the output descriptor is a socket of another kind"};
    }
    sockaddr_un address = {};
    socklen_t length = sizeof address;
    if (getpeername(fd, reinterpret_cast<sockaddr*>(&address), &length) != 0) {
        return Refusal{"the output descriptor is a socket that is not connected"};
    }
    // Without a name, with one that is no path, or with one that may fill all of its room.
    const std::size_t start = offsetof(sockaddr_un, sun_path);
    const std::string name(address.sun_path, std::max<std::size_t>(length, start) - start);
    if (IsOfTheLog(name.substr(0, name.find('\0')))) {
        return Refusal{"the output descriptor leads to the system's log"};
    }
    return Fine();
}

// File systems in which writing is a command to the kernel.
bool IsControlFileSystem(int fd) {
    static const std::uint32_t kMagic[] = {
        PROC_SUPER_MAGIC, SYSFS_MAGIC,        DEBUGFS_MAGIC,       TRACEFS_MAGIC,
        SECURITYFS_MAGIC, CGROUP_SUPER_MAGIC, CGROUP2_SUPER_MAGIC, SELINUX_MAGIC,
        SMACK_MAGIC,      EFIVARFS_MAGIC,     BPF_FS_MAGIC,        0x62656570 /* configfs */,
        BINFMTFS_MAGIC};
    struct statfs system = {};
    if (fstatfs(fd, &system) != 0) {
        return true;
    }
    return std::find(std::begin(kMagic), std::end(kMagic),
                     static_cast<std::uint32_t>(system.f_type)) != std::end(kMagic);
}

// Whether it is of a kind that output may go to.
Check CheckKind(int fd, const struct stat& file) {
    const int flags = fcntl(fd, F_GETFL);
    if (flags < 0 || (flags & O_PATH) != 0 || (flags & O_ACCMODE) == O_RDONLY) {
        return Refusal{"the output descriptor is not open for writing"};
    }
    if (S_ISFIFO(file.st_mode)) {
        return Fine();
    }
    if (S_ISSOCK(file.st_mode)) {
        return CheckSocket(fd);
    }
    if (S_ISREG(file.st_mode)) {
        if (IsControlFileSystem(fd)) {
            return Refusal{"the output descriptor is a file of the kernel's"};
        }
        return Fine();
    }
    const bool null = S_ISCHR(file.st_mode) && file.st_rdev == makedev(1, 3);
    if (null || (S_ISCHR(file.st_mode) && isatty(fd) == 1)) {
        return Fine();
    }
    return Refusal{"the output descriptor is of a kind that is not written to"};
}

}  // namespace

std::string ExecutableOf(pid_t pid) {
    char path[PATH_MAX];
    const ssize_t length =
        readlink(("/proc/" + std::to_string(pid) + "/exe").c_str(), path, sizeof path);
    return length > 0 && length < static_cast<ssize_t>(sizeof path)
               ? std::string(path, static_cast<std::size_t>(length))
               : std::string();
}

Result<OwnedFd> TakeDescriptor(const Caller& caller, int number) {
    if (number <= 0) {
        return OwnedFd();
    }
    if (number >= kHighest) {
        return Refusal{"the output descriptor's number is out of range"};
    }
    if (caller.pid <= 0 || caller.uid == static_cast<uid_t>(-1)) {
        return Refusal{"the output descriptor's process is not known"};
    }
    const OwnedFd process(OpenProcess(caller.pid));
    const std::optional<gid_t> group = RealGroup(caller);
    if (!process || !group) {
        return Refusal{"the output descriptor's process is gone or is not the caller's"};
    }
    const auto before = SeeAsCaller(caller, *group, number);
    if (!before) {
        return Refusal{"there is no such output descriptor, or it is not the caller's"};
    }
    OwnedFd output(CopyDescriptor(process.Get(), number));
    const auto taken = output ? Identify(output.Get()) : std::nullopt;
    if (!taken) {
        return Refusal{"the output descriptor cannot be taken"};
    }
    // The second look closes the gap in which the process could have become a set-uid program; the
    // last question tells that all of this was one process's and no later one's of that number.
    const auto after = SeeAsCaller(caller, *group, number);
    if (!after || !SameFile(*before, *taken) || !SameFile(*taken, *after) ||
        !IsAlive(process.Get())) {
        return Refusal{"the output descriptor changed while it was taken"};
    }
    const Check kind = CheckKind(output.Get(), *taken);
    if (!kind) {
        return kind.GetRefusal();
    }
    return output;
}

}  // namespace agent
