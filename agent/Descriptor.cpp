// SPDX-License-Identifier: Apache-2.0
#include "Descriptor.h"

#include <linux/magic.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <sys/vfs.h>

#include <cerrno>
#include <cstring>

#include "PidFd.h"

namespace agent {

namespace {

const int kNumberLimit = 1048576;

bool IsStreamSocket(int fd) {
    int type = 0;
    socklen_t length = sizeof(type);
    return getsockopt(fd, SOL_SOCKET, SO_TYPE, &type, &length) == 0 && type == SOCK_STREAM;
}

// A file whose writes are commands to the kernel is no place for output.
bool IsOrdinaryFile(int fd) {
    struct statfs system = {};
    if (fstatfs(fd, &system) != 0) {
        return false;
    }
    switch (system.f_type) {
        case PROC_SUPER_MAGIC:
        case SYSFS_MAGIC:
        case DEBUGFS_MAGIC:
        case TRACEFS_MAGIC:
        case SECURITYFS_MAGIC:
        case CGROUP_SUPER_MAGIC:
        case CGROUP2_SUPER_MAGIC:
            return false;
        default:
            return true;
    }
}

// Null when output may go there.
const char* Objection(int fd) {
    const int flags = fcntl(fd, F_GETFL);
    if (flags < 0 || (flags & O_PATH) != 0 || (flags & O_ACCMODE) == O_RDONLY) {
        return "it is not open for writing";
    }
    struct stat status = {};
    if (fstat(fd, &status) != 0) {
        return "its kind cannot be learned";
    }
    const bool isNull = S_ISCHR(status.st_mode) && status.st_rdev == makedev(1, 3);
    const bool usable = S_ISFIFO(status.st_mode) ||
                        (S_ISSOCK(status.st_mode) && IsStreamSocket(fd)) || isNull ||
                        (S_ISCHR(status.st_mode) && isatty(fd) != 0) ||
                        (S_ISREG(status.st_mode) && IsOrdinaryFile(fd));
    return usable ? nullptr : "it is of a kind that output does not go to";
}

}  // namespace

bool TakeDescriptor(pid_t pid, int number, Fd& taken, std::string& error) {
    if (number <= 0 || number >= kNumberLimit) {
        error = "the number is out of range";
        return false;
    }
    const Fd process(PidFdOpen(pid));
    if (!process.Open()) {
        error = std::string("its process cannot be reached: ") + std::strerror(errno);
        return false;
    }
    Fd found(PidFdGetFd(process.Get(), number));
    if (!found.Open()) {
        error = std::string("it cannot be taken over: ") + std::strerror(errno);
        return false;
    }
    const char* objection = Objection(found.Get());
    if (objection != nullptr) {
        error = objection;
        return false;
    }
    taken = std::move(found);
    return true;
}

}  // namespace agent
