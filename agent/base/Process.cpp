// SPDX-License-Identifier: Apache-2.0
// Order in BeginChild(): the signals first, since the agent's own blocked and ignored ones are not
// for its children; then the death signal, as early as can be, for everything behind it may take
// long; the descriptors last, because from then on nothing that fails can be told to anybody but
// through what was arranged.
#include "Process.h"

#include <fcntl.h>
#include <sys/eventfd.h>
#include <sys/prctl.h>
#include <sys/resource.h>

#include <cstring>
#include <string>
#include <utility>

#include "Signals.h"

namespace agent {

namespace {

// First all out of the way, then each to its place: one that stands in another's place would be
// overwritten before its turn.
bool ArrangeDescriptors(const std::vector<int>& wanted) {
    const int count = static_cast<int>(wanted.size());
    std::vector<int> high(wanted.size(), -1);
    for (std::size_t i = 0; i < wanted.size(); ++i) {
        high[i] = wanted[i] < 0 ? -1 : fcntl(wanted[i], F_DUPFD, count);
        if (wanted[i] >= 0 && high[i] < 0) {
            return false;
        }
    }
    for (int i = 0; i < count; ++i) {
        const int source = high[static_cast<std::size_t>(i)];
        if (source >= 0 && dup2(source, i) < 0) {
            return false;
        }
    }
    return syscall(SYS_close_range, static_cast<unsigned>(count), ~0U, 0U) == 0;
}

siginfo_t WaitFor(int pidfd, int options) {
    siginfo_t end = {};
    while (waitid(P_PIDFD, static_cast<id_t>(pidfd), &end, WEXITED | options) != 0 &&
           errno == EINTR) {
    }
    return end;
}

}  // namespace

Child::Child(pid_t pid_, OwnedFd&& process_) : pid(pid_), process(std::move(process_)) {}

Child::Child(Child&& other) noexcept
    : pid(std::exchange(other.pid, -1)),
      process(std::move(other.process)),
      reaped(std::exchange(other.reaped, false)) {}

Child& Child::operator=(Child&& other) noexcept {
    if (this != &other) {
        Abandon();
        pid = std::exchange(other.pid, -1);
        process = std::move(other.process);
        reaped = std::exchange(other.reaped, false);
    }
    return *this;
}

Child::~Child() {
    Abandon();
}

void Child::Abandon() {
    if (*this) {
        Signal(SIGKILL);
        (void)WaitFor(process.Get(), WNOHANG);
    }
}

// A child that cannot be held by a descriptor would have to be killed by its number, and might hang
// unseen. So the room for its descriptor is kept before there is a child at all.
Result<Child> Child::Fork(const std::function<void(pid_t parent)>& body) {
    OwnedFd room(eventfd(0, EFD_CLOEXEC));
    const pid_t parent = getpid();
    const pid_t pid = room ? fork() : -1;
    if (pid == 0) {
        room.Reset();
        try {
            body(parent);
        } catch (...) {
            _exit(1);
        }
        _exit(1);
    }
    if (pid < 0) {
        return Refusal{std::string("no process can be made: ") + std::strerror(errno),
                       SR_FORK_FAILED};
    }
    room.Reset();
    OwnedFd process(OpenProcess(pid));
    if (!process) {
        // The kernel had no memory, or another process took the last descriptor of the system.
        // This is the one place where a number is used: nobody has reaped it, so it is still its.
        const int error = errno;
        (void)kill(pid, SIGKILL);
        (void)waitpid(pid, nullptr, WNOHANG);
        return Refusal{std::string("no process can be watched: ") + std::strerror(error),
                       SR_FORK_FAILED};
    }
    return Child(pid, std::move(process));
}

void Child::Signal(int number) const {
    if (*this) {
        (void)syscall(SYS_pidfd_send_signal, process.Get(), number, nullptr, 0U);
    }
}

siginfo_t Child::AwaitEnd() const {
    return WaitFor(process.Get(), WNOWAIT);
}

siginfo_t Child::Reap() {
    const siginfo_t end = WaitFor(process.Get(), 0);
    reaped = true;
    return end;
}

bool BeginChild(const ChildStart& start, pid_t parent) {
    ResetSignals();
    for (const int number : start.ignored) {
        IgnoreSignal(number);
    }
    sigset_t blocked;
    (void)sigemptyset(&blocked);
    if (start.blocked != 0) {
        (void)sigaddset(&blocked, start.blocked);
    }
    (void)sigprocmask(SIG_SETMASK, &blocked, nullptr);
    if (!DieWith(parent)) {
        return false;
    }
    // Fails only where the child is a session's first process already.
    if (start.ownSession && setsid() < 0) {
        return false;
    }
    // A copy of the agent's memory, and of what a caller trusted it with, is for nobody's disk.
    const rlimit none = {0, 0};
    (void)setrlimit(RLIMIT_CORE, &none);
    return start.descriptors.empty() || ArrangeDescriptors(start.descriptors);
}

bool DieWith(pid_t parent) {
    return prctl(PR_SET_PDEATHSIG, SIGKILL) == 0 && getppid() == parent;
}

}  // namespace agent
