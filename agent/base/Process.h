// SPDX-License-Identifier: Apache-2.0
// Processes by descriptor, which unlike a pid never comes to mean another process. By system call:
// not every C library's header declares these for C++.
#ifndef SENTREL_AGENT_PROCESS_H
#define SENTREL_AGENT_PROCESS_H

#include <errno.h>
#include <poll.h>
#include <sys/syscall.h>
#include <sys/types.h>
#include <sys/wait.h>
#include <unistd.h>

namespace agent {

// Close-on-exec. -1 with errno when there is no such process.
inline int OpenProcess(pid_t pid) {
    return static_cast<int>(syscall(SYS_pidfd_open, pid, 0U));
}

inline bool SignalProcess(int pidfd, int number) {
    return syscall(SYS_pidfd_send_signal, pidfd, number, nullptr, 0U) == 0;
}

// A copy of the other process's descriptor: the same open file. Close-on-exec.
inline int CopyDescriptor(int pidfd, int number) {
    return static_cast<int>(syscall(SYS_pidfd_getfd, pidfd, number, 0U));
}

// Whether it has not ended; a zombie has.
inline bool IsAlive(int pidfd) {
    pollfd slot = {pidfd, POLLIN, 0};
    return poll(&slot, 1, 0) == 0;
}

// Waits for the end of a child and takes its remains away; with WNOHANG it does not wait.
inline siginfo_t Reap(int pidfd, int options = 0) {
    siginfo_t end = {};
    while (waitid(P_PIDFD, static_cast<id_t>(pidfd), &end, WEXITED | options) != 0 &&
           errno == EINTR) {
    }
    return end;
}

}  // namespace agent

#endif
