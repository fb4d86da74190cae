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
#include <linux/capability.h>
#include <linux/magic.h>
#include <signal.h>
#include <sys/fsuid.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/statfs.h>
#include <sys/syscall.h>
#include <sys/sysmacros.h>
#include <sys/un.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <fstream>
#include <sstream>

#include "base/Process.h"

namespace agent {

namespace {

const int kHighest = 1048576;  // no process has more descriptors than this

// While it lives, this thread asks the kernel with the caller's rights.
class AsCaller {
public:
    AsCaller(uid_t uid, gid_t gid) : active(geteuid() == 0) {
        if (!active) {
            return;
        }
        DropPtrace(uid);
        oldGroup = static_cast<gid_t>(setfsgid(gid));
        oldUser = static_cast<uid_t>(setfsuid(uid));
    }
    AsCaller(const AsCaller&) = delete;
    AsCaller& operator=(const AsCaller&) = delete;
    ~AsCaller() {
        if (!active) {
            return;
        }
        (void)setfsuid(oldUser);
        (void)setfsgid(oldGroup);
        // An agent that went on with the wrong rights could do anything.
        if (static_cast<uid_t>(setfsuid(oldUser)) != oldUser ||
            (dropped && syscall(SYS_capset, &header, kept) != 0)) {
            abort();
        }
    }

    // setfsuid reports no failure; asking again tells.
    static bool Is(uid_t uid) {
        return geteuid() != 0 || static_cast<uid_t>(setfsuid(static_cast<uid_t>(-1))) == uid;
    }

private:
    // With CAP_SYS_PTRACE the kernel would let us look into anything. For a root caller it stays:
    // without it the kernel lets nobody look into a process with more capabilities than its own,
    // and there is nothing that root could gain.
    void DropPtrace(uid_t uid) {
        if (uid == 0 || syscall(SYS_capget, &header, kept) != 0) {
            return;
        }
        __user_cap_data_struct reduced[2] = {kept[0], kept[1]};
        reduced[0].effective &= ~(1U << CAP_SYS_PTRACE);
        dropped = syscall(SYS_capset, &header, reduced) == 0;
        if (!dropped) {
            abort();
        }
    }

    bool active;
    bool dropped = false;
    uid_t oldUser = 0;
    gid_t oldGroup = 0;
    __user_cap_header_struct header = {_LINUX_CAPABILITY_VERSION_3, 0};
    __user_cap_data_struct kept[2] = {};
};

// The process's real group. The kernel compares all its groups with the one we ask with, and the
// bus does not say which of the caller's groups is the first.
bool GroupOf(const Caller& caller, gid_t& group) {
    // By lines: the process chooses its name, which stands there too, but without a newline.
    std::ifstream status("/proc/" + std::to_string(caller.pid) + "/status");
    std::string line;
    while (std::getline(status, line) && line.compare(0, 4, "Gid:") != 0) {
    }
    if (!(std::istringstream(line.substr(std::min<std::size_t>(4, line.size()))) >> group)) {
        return false;
    }
    return caller.groups.empty() ||
           std::find(caller.groups.begin(), caller.groups.end(), group) != caller.groups.end();
}

// Without asking the file system, which may be a caller's own program that never answers.
bool Identify(int fd, struct stat& seen) {
    struct statx found = {};
    if (statx(fd, "", AT_EMPTY_PATH | AT_STATX_DONT_SYNC, STATX_TYPE | STATX_INO, &found) != 0) {
        return false;
    }
    seen.st_mode = found.stx_mode;
    seen.st_ino = found.stx_ino;
    seen.st_dev = makedev(found.stx_dev_major, found.stx_dev_minor);
    seen.st_rdev = makedev(found.stx_rdev_major, found.stx_rdev_minor);
    return true;
}

bool Look(const Caller& caller, gid_t group, int number, struct stat& seen) {
    const std::string path =
        "/proc/" + std::to_string(caller.pid) + "/fd/" + std::to_string(number);
    OwnedFd file;
    {
        const AsCaller rights(caller.uid, group);
        if (AsCaller::Is(caller.uid)) {
            file.Reset(open(path.c_str(), O_PATH | O_CLOEXEC));
        }
    }
    // The change of ids has taken it back.
    (void)prctl(PR_SET_PDEATHSIG, SIGKILL);
    return file && Identify(file.Get(), seen);
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
std::string SocketRefusal(int fd) {
    if (!IsStreamSocket(fd)) {
        return "the output descriptor is a socket of another kind";
    }
    sockaddr_un address = {};
    socklen_t length = sizeof address;
    if (getpeername(fd, reinterpret_cast<sockaddr*>(&address), &length) != 0) {
        return "the output descriptor is a socket that is not connected";
    }
    // Without a name, with one that is no path, or with one that may fill all of its room.
    const std::size_t start = offsetof(sockaddr_un, sun_path);
    const std::string name(address.sun_path, std::max<std::size_t>(length, start) - start);
    return IsOfTheLog(name.substr(0, name.find('\0')))
               ? "the output descriptor leads to the system's log"
               : "";
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

// Empty when it is of a kind that output may go to.
std::string KindRefusal(int fd, const struct stat& file) {
    const int flags = fcntl(fd, F_GETFL);
    if (flags < 0 || (flags & O_PATH) != 0 || (flags & O_ACCMODE) == O_RDONLY) {
        return "the output descriptor is not open for writing";
    }
    if (S_ISFIFO(file.st_mode)) {
        return "";
    }
    if (S_ISSOCK(file.st_mode)) {
        return SocketRefusal(fd);
    }
    if (S_ISREG(file.st_mode)) {
        return IsControlFileSystem(fd) ? "the output descriptor is a file of the kernel's" : "";
    }
    const bool null = S_ISCHR(file.st_mode) && file.st_rdev == makedev(1, 3);
    if (null || (S_ISCHR(file.st_mode) && isatty(fd) == 1)) {
        return "";
    }
    return "the output descriptor is of a kind that is not written to";
}

Descriptor Refused(const char* reason) {
    Descriptor result;
    result.refusal = reason;
    return result;
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

Descriptor TakeDescriptor(const Caller& caller, int number) {
    if (number <= 0) {
        return Descriptor();
    }
    if (number >= kHighest) {
        return Refused("the output descriptor's number is out of range");
    }
    if (caller.pid <= 0 || caller.uid == static_cast<uid_t>(-1)) {
        return Refused("the output descriptor's process is not known");
    }
    const OwnedFd process(OpenProcess(caller.pid));
    gid_t group = 0;
    if (!process || !GroupOf(caller, group)) {
        return Refused("the output descriptor's process is gone or is not the caller's");
    }
    struct stat before = {};
    struct stat taken = {};
    struct stat after = {};
    if (!Look(caller, group, number, before)) {
        return Refused("there is no such output descriptor, or it is not the caller's");
    }
    Descriptor result;
    result.fd.Reset(CopyDescriptor(process.Get(), number));
    if (!result.fd || !Identify(result.fd.Get(), taken)) {
        return Refused("the output descriptor cannot be taken");
    }
    if (!Look(caller, group, number, after) || !SameFile(before, taken) ||
        !SameFile(taken, after) || !IsAlive(process.Get())) {
        return Refused("the output descriptor changed while it was taken");
    }
    result.refusal = KindRefusal(result.fd.Get(), taken);
    if (!result.refusal.empty()) {
        result.fd.Reset();
    }
    return result;
}

}  // namespace agent
