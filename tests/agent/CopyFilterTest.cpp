// SPDX-License-Identifier: Apache-2.0
// The filter under which a relay copies: what it leaves, and how a call that it forbids ends.
#include "relay/CopyFilter.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <functional>

#include "ChildProcess.h"

namespace {

// How a process ends that does this behind the filter: its exit code, or minus its signal.
int EndOf(const std::function<int()>& behind) {
    const agent::Result<agent::CopyFilter> filter = agent::CopyFilter::Make();
    EXPECT_TRUE(filter);
    const pid_t child = test::Fork([&] {
        if (!filter || !filter->Load()) {
            return 98;
        }
        // Nothing that a return from here would do is allowed, nor what a sanitizer does at
        // _exit().
        (void)syscall(SYS_exit_group, behind());
        return 97;
    });
    const int status = test::Reap(child, test::kLimit);
    return WIFSIGNALED(status) ? -WTERMSIG(status) : WEXITSTATUS(status);
}

}  // namespace

TEST(CopyFilterTest, WhatCopyingNeedsGoesOnWorking) {
    test::Pipe pipe;
    EXPECT_EQ(EndOf([&pipe] {
                  char text[] = "x\n";
                  pollfd slot = {pipe.Reader(), POLLIN, 0};
                  return write(pipe.Writer(), text, 2) == 2 &&
                                 syscall(SYS_ppoll, &slot, 1, nullptr, nullptr, 0) == 1 &&
                                 read(pipe.Reader(), text, 2) == 2
                             ? 7
                             : 1;
              }),
              7);
}

TEST(CopyFilterTest, EveryOtherCallEndsTheProcessAtOnce) {
    const std::function<long()> calls[] = {
        [] { return syscall(SYS_getpid); },
        [] { return syscall(SYS_openat, AT_FDCWD, "/dev/null", O_RDONLY); },
        [] { return syscall(SYS_close, 1); },
        [] { return syscall(SYS_dup, 1); },
        [] { return syscall(SYS_ioctl, 1, 0, 0); },
        [] { return syscall(SYS_fcntl, 1, F_GETFL); },
        [] { return syscall(SYS_lseek, 1, 0, SEEK_SET); },
        [] { return syscall(SYS_socket, 1, 1, 0); },
        [] { return syscall(SYS_mprotect, nullptr, 0, PROT_EXEC); },
        [] { return syscall(SYS_execve, "/bin/true", nullptr, nullptr); },
        [] { return syscall(SYS_kill, 0, 0); },
        [] { return syscall(SYS_ptrace, 0, 0, 0, 0); },
        [] { return syscall(SYS_setuid, 0); },
        [] { return syscall(SYS_prctl, 0, 0, 0, 0, 0); },
        [] { return syscall(SYS_io_uring_setup, 1, nullptr); },
        [] { return syscall(100000L); },
    };
    for (const std::function<long()>& call : calls) {
        EXPECT_EQ(EndOf([&call] { return call() == -1 ? 1 : 2; }), -SIGSYS)
            << "call " << (&call - calls);
    }
}

#if defined(__x86_64__) && !defined(__ILP32__)
// The numbers of the other kind of program that this machine's kernel may know.
TEST(CopyFilterTest, AnAllowedCallInAnotherArchitecturesNumbersEndsTheProcessToo) {
    EXPECT_EQ(EndOf([] { return syscall(0x40000000L | SYS_write, 1, "", 0) == 0 ? 1 : 2; }),
              -SIGSYS);
}
#endif
