// SPDX-License-Identifier: Apache-2.0
#include "CopyFilter.h"

#include <errno.h>
#include <linux/seccomp.h>
#include <seccomp.h>
#include <sys/prctl.h>
#include <unistd.h>

#include <cstring>
#include <memory>
#include <string>

#include "base/Descriptors.h"

namespace agent {

namespace {

// What the loop of copying needs, and the end. No poll: the kernel would go on with one after a
// SIGSTOP by another call, restart_syscall; ppoll it just makes again.
const int kAllowed[] = {SCMP_SYS(read), SCMP_SYS(write),      SCMP_SYS(ppoll),
                        SCMP_SYS(exit), SCMP_SYS(exit_group), SCMP_SYS(rt_sigreturn)};

const std::size_t kMostInstructions = 127;

Refusal Failure(int error) {
    return Refusal{
        std::string("the relay's system call filter cannot be made: ") + std::strerror(error),
        SR_FORK_FAILED};
}

}  // namespace

// Of the machine's own architecture only: a call in another one's numbers ends the process too.
Result<CopyFilter> CopyFilter::Make() {
    const std::unique_ptr<void, void (*)(void*)> rules(seccomp_init(SCMP_ACT_KILL_PROCESS),
                                                       seccomp_release);
    if (!rules) {
        return Failure(ENOMEM);
    }
    int error = -seccomp_attr_set(rules.get(), SCMP_FLTATR_ACT_BADARCH, SCMP_ACT_KILL_PROCESS);
    for (const int call : kAllowed) {
        error = error != 0 ? error : -seccomp_rule_add(rules.get(), SCMP_ACT_ALLOW, call, 0);
    }
    Result<Pipe> pipe = OpenPipe();
    if (error != 0 || !pipe) {
        return error != 0 ? Failure(error) : pipe.GetRefusal();
    }
    // The library gives it to a descriptor only. It is some dozen instructions, far less than a
    // pipe holds, so writing all of it before reading any waits for nobody.
    error = -seccomp_export_bpf(rules.get(), pipe->writer.Get());
    pipe->writer.Reset();
    sock_filter program[kMostInstructions + 1];
    const ssize_t size = error == 0 ? read(pipe->reader.Get(), program, sizeof program) : -1;
    // A part of a filter would be another filter.
    if (size <= 0 || size == static_cast<ssize_t>(sizeof program) ||
        static_cast<std::size_t>(size) % sizeof(sock_filter) != 0) {
        return Failure(error != 0 ? error : EIO);
    }
    return CopyFilter({program, program + static_cast<std::size_t>(size) / sizeof(sock_filter)});
}

bool CopyFilter::Load() const {
    sock_fprog filter = {};
    filter.len = static_cast<unsigned short>(program.size());
    filter.filter = const_cast<sock_filter*>(program.data());
    // Without the first the kernel takes no filter from a process that has laid down its rights.
    return prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) == 0 &&
           prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &filter) == 0;
}

}  // namespace agent
