// SPDX-License-Identifier: Apache-2.0
// The pidfd system calls, by number: the C library's header of Debian 12 cannot be used from C++.
#ifndef SENTREL_AGENT_PIDFD_H
#define SENTREL_AGENT_PIDFD_H

#include <sys/syscall.h>
#include <sys/types.h>
#include <unistd.h>

namespace agent {

// Each returns -1 with errno on failure. Descriptors are close-on-exec.
inline int PidFdOpen(pid_t pid) {
    return static_cast<int>(syscall(SYS_pidfd_open, pid, 0));
}

inline int PidFdGetFd(int pidfd, int number) {
    return static_cast<int>(syscall(SYS_pidfd_getfd, pidfd, number, 0));
}

inline int PidFdSignal(int pidfd, int signal) {
    return static_cast<int>(syscall(SYS_pidfd_send_signal, pidfd, signal, nullptr, 0));
}

}  // namespace agent

#endif
