// SPDX-License-Identifier: Apache-2.0
//
// The descriptor's status flags are shared with the caller, so it is never made non-blocking.
// Instead what was read waits in a buffer as large as the cap, and is written in pieces that a
// ready pipe takes without blocking: the tool is drained even when nobody reads at the other end.
#include "RelayChild.h"

#include <errno.h>
#include <fcntl.h>
#include <grp.h>
#include <limits.h>
#include <linux/audit.h>
#include <linux/capability.h>
#include <linux/filter.h>
#include <linux/seccomp.h>
#include <poll.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstring>

#include "base/Process.h"
#include "base/Signals.h"

namespace agent {

namespace {

const int kInput = 0;
const int kOutput = 1;
const int kReport = 3;
const gid_t kNobody = 65534;
const std::size_t kTail = 128;  // room in the buffer for the last line

// The architectures whose numbers the compiler knows here; without a filter on others.
#if defined(__x86_64__) && !defined(__ILP32__)
const unsigned kArchitecture = AUDIT_ARCH_X86_64;
#elif defined(__i386__)
const unsigned kArchitecture = AUDIT_ARCH_I386;
#elif defined(__aarch64__) && defined(__AARCH64EL__)
const unsigned kArchitecture = AUDIT_ARCH_AARCH64;
#elif defined(__arm__) && defined(__ARMEL__)
const unsigned kArchitecture = AUDIT_ARCH_ARM;
#elif defined(__riscv) && __riscv_xlen == 64
const unsigned kArchitecture = AUDIT_ARCH_RISCV64;
#else
#define SENTREL_NO_SYSTEM_CALL_FILTER
#endif

bool OnlyCopyingAllowed() {
#ifdef SENTREL_NO_SYSTEM_CALL_FILTER
    return true;
#else
    const auto load = [](std::size_t offset) {
        return sock_filter BPF_STMT(BPF_LD | BPF_W | BPF_ABS, static_cast<unsigned>(offset));
    };
    // A match jumps to the last statement, which allows.
    const auto allow = [](long call, unsigned char distance) {
        return sock_filter BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, static_cast<unsigned>(call),
                                    distance, 0);
    };
    sock_filter program[] = {
        load(offsetof(seccomp_data, arch)),
        BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, kArchitecture, 1, 0),
        BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_KILL_PROCESS),
        load(offsetof(seccomp_data, nr)),
        allow(SYS_read, 6),
        allow(SYS_write, 5),
        allow(SYS_ppoll, 4),
        allow(SYS_exit, 3),
        allow(SYS_exit_group, 2),
        allow(SYS_rt_sigreturn, 1),
        BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_KILL_PROCESS),
        BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW),
    };
    const sock_fprog filter = {sizeof program / sizeof program[0], program};
    return prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &filter) == 0;
#endif
}

bool BecomeCaller(const Caller& caller) {
    if (geteuid() == 0) {
        const gid_t group = caller.groups.empty() ? kNobody : caller.groups.front();
        if (caller.uid == static_cast<uid_t>(-1) ||
            setgroups(caller.groups.size(), caller.groups.data()) != 0 ||
            setresgid(group, group, group) != 0 ||
            setresuid(caller.uid, caller.uid, caller.uid) != 0) {
            return false;
        }
    } else if (geteuid() != caller.uid) {
        return false;
    }
    // A root caller's relay loses its capabilities here, and nothing gives them back.
    __user_cap_header_struct header = {_LINUX_CAPABILITY_VERSION_3, 0};
    const __user_cap_data_struct none[2] = {};
    return syscall(SYS_capset, &header, none) == 0;
}

// The pipe's end, what is at hand and the report become 0, 1 and 3; all else is closed. With
// nothing at hand, 1 is taken by the pipe's end as well until the output is known; so is 2, where
// nobody can write to it.
bool KeepOnly(const RelayChildSetup& setup) {
    const int wanted[] = {setup.input, setup.atHand >= 0 ? setup.atHand : setup.input, setup.input,
                          setup.report};
    const int count = 4;
    int high[count];
    for (int i = 0; i < count; ++i) {
        high[i] = fcntl(wanted[i], F_DUPFD, count);
        if (high[i] < 0) {
            return false;
        }
    }
    for (int i = 0; i < count; ++i) {
        if (dup2(high[i], i) < 0) {
            return false;
        }
    }
    return syscall(SYS_close_range, static_cast<unsigned>(count), ~0U, 0U) == 0;
}

void SetRelaysSignals() {
    ResetSignals();
    IgnoreSignal(SIGPIPE);
    IgnoreSignal(SIGXFSZ);
    sigset_t none;
    sigemptyset(&none);
    (void)sigprocmask(SIG_SETMASK, &none, nullptr);
}

class Copy {
public:
    Copy(char* memory, std::size_t capacity) : buffer(memory), cap(capacity) {}

    void Run() {
        while (open || written < filled) {
            pollfd slots[2] = {{open ? kInput : -1, POLLIN, 0},
                               {written < filled ? kOutput : -1, POLLOUT, 0}};
            if (syscall(SYS_ppoll, slots, 2, nullptr, nullptr, 0) < 0) {
                continue;
            }
            if (slots[0].revents != 0) {
                Read();
            }
            if (slots[1].revents != 0) {
                Write();
            }
        }
    }

    RelayReport report;

private:
    void Read() {
        char scratch[4096];
        const bool keep = received < cap && !gone;
        const ssize_t count = keep ? read(kInput, buffer + received, cap - received)
                                   : read(kInput, scratch, sizeof scratch);
        if (count < 0 && (errno == EINTR || errno == EAGAIN)) {
            return;
        }
        if (count <= 0) {
            open = false;
            LastLine();
        } else if (keep) {
            received += static_cast<std::size_t>(count);
            filled = received;
        } else {
            report.dropped += static_cast<std::uint64_t>(count);
        }
    }

    void LastLine() {
        if (report.dropped > 0 && !gone) {
            const int length = snprintf(buffer + filled, kTail, "\n[%llu more bytes dropped]\n",
                                        static_cast<unsigned long long>(report.dropped));
            filled += static_cast<std::size_t>(length);
        }
    }

    void Write() {
        const std::size_t piece = std::min<std::size_t>(filled - written, PIPE_BUF);
        const ssize_t count = write(kOutput, buffer + written, piece);
        if (count >= 0) {
            written += static_cast<std::size_t>(count);
            report.copied += static_cast<std::uint64_t>(count);
        } else if (errno != EINTR && errno != EAGAIN) {
            gone = true;  // the reader has gone; the tool is still drained
            report.dropped += filled - written;
            written = filled;
        }
    }

    char* buffer;
    std::size_t cap;
    std::size_t received = 0;
    std::size_t filled = 0;
    std::size_t written = 0;
    bool open = true;
    bool gone = false;
};

// A text that does not fit is left out.
template <std::size_t size>
void Put(char (&field)[size], const std::string& text) {
    if (text.size() < size) {
        std::memcpy(field, text.c_str(), text.size() + 1);
    }
}

bool Send(const LookReport& report) {
    return write(kReport, &report, sizeof report) == static_cast<ssize_t>(sizeof report);
}

// Makes the caller's descriptor number 1 and leaves no copy of it. The first close tells whether
// the file's system answers: better now than when the tool has run.
bool PlaceOutput(OwnedFd&& taken) {
    OwnedFd output(std::move(taken));
    if (output.Get() == kOutput) {
        return output.Release() == kOutput;
    }
    return dup2(output.Get(), kOutput) == kOutput;
}

bool SendAccount(LookReport report, const Account& account) {
    report.hasPrimary = account.primary.has_value();
    report.primary = account.primary.value_or(0);
    for (const gid_t group : account.groups) {
        if (report.groupCount == LookReport::kGroups) {
            if (!Send(report)) {
                return false;
            }
            report.groupCount = 0;
        }
        report.groups[report.groupCount++] = group;
    }
    report.accountKnown = true;
    return Send(report);
}

// What the account database loads into a process, opens or starts there goes with that process, and
// so does one that never answers.
void FindAccount(const RelayTask& task, const LookReport& report, std::chrono::milliseconds limit) {
    const pid_t parent = getpid();
    const pid_t child = fork();
    if (child == 0) {
        (void)close(kInput);
        if (prctl(PR_SET_PDEATHSIG, SIGKILL) == 0 && getppid() == parent) {
            try {
                (void)SendAccount(report, task.account());
            } catch (const std::exception&) {
                _exit(1);
            }
        }
        _exit(0);
    }
    if (child < 0) {
        return;
    }
    const OwnedFd process(OpenProcess(child));
    pollfd slot = {process.Get(), POLLIN, 0};
    if (!process || poll(&slot, 1, static_cast<int>(limit.count())) <= 0) {
        (void)kill(child, SIGKILL);
    }
    (void)waitpid(child, nullptr, WNOHANG);
}

// Whether there is something to copy to.
bool TakeLook(const RelayTask& task, const RelayChildSetup& setup) {
    LookReport report;
    Put(report.executable, task.executable ? task.executable() : "");
    if (!Send(report)) {
        return false;
    }
    if (task.account && task.questions.Any()) {
        FindAccount(task, report, setup.accountLimit);
    }
    report.state = LookReport::kNoOutput;
    if (task.output) {
        Descriptor output = task.output();
        Put(report.refusal, output.refusal);
        if (output.fd && PlaceOutput(std::move(output.fd))) {
            report.state = LookReport::kTaken;
        } else if (output.fd || !output.refusal.empty()) {
            report.state = LookReport::kRefused;
        }
    }
    return Send(report) && report.state == LookReport::kTaken;
}

}  // namespace

[[noreturn]] void RunRelayChild(const RelayChildSetup& setup, const RelayTask& task,
                                const Caller& caller) {
    SetRelaysSignals();
    (void)setsid();
    const rlimit none = {0, 0};
    (void)setrlimit(RLIMIT_CORE, &none);
    if (!KeepOnly(setup) || prctl(PR_SET_PDEATHSIG, SIGKILL) != 0 || getppid() != setup.parent) {
        _exit(1);
    }
    if (!TakeLook(task, setup)) {
        _exit(0);
    }
    void* memory = mmap(nullptr, setup.cap + kTail, PROT_READ | PROT_WRITE,
                        MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (memory == MAP_FAILED || !BecomeCaller(caller)) {
        _exit(1);
    }
    // After the changes of ids, which take the death signal back. Not to be looked into by the
    // caller's other processes: this is a copy of the agent's memory.
    if (prctl(PR_SET_DUMPABLE, 0) != 0 || prctl(PR_SET_PDEATHSIG, SIGKILL) != 0 ||
        getppid() != setup.parent || prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) != 0 ||
        !OnlyCopyingAllowed()) {
        _exit(1);
    }
    Copy copy(static_cast<char*>(memory), setup.cap);
    copy.Run();
    (void)write(kReport, &copy.report, sizeof copy.report);
    _exit(0);
}

}  // namespace agent
