// SPDX-License-Identifier: Apache-2.0
// Processes by descriptor, which unlike a pid never comes to mean another process; and how the
// agent makes its own. What each of its children does first stands here once: a child that forgets
// a piece of it keeps a descriptor of a caller's, or outlives the agent with the agent's rights.
//
// Ownership: a Child owns the process until it has been reaped. Threads: the agent has one, so a
// child may do what any program may, also allocate memory.
#ifndef SENTREL_AGENT_PROCESS_H
#define SENTREL_AGENT_PROCESS_H

#include <errno.h>
#include <poll.h>
#include <signal.h>
#include <sys/syscall.h>
#include <sys/types.h>
#include <sys/wait.h>
#include <unistd.h>

#include <functional>
#include <vector>

#include "Descriptors.h"
#include "Result.h"

namespace agent {

// The calls are made by number: not every C library's header declares them for C++.

// Close-on-exec. -1 with errno when there is no such process.
inline int OpenProcess(pid_t pid) {
    return static_cast<int>(syscall(SYS_pidfd_open, pid, 0U));
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

// A child of this process, until it has been reaped. Movable, one owner at a time.
class Child {
public:
    // None.
    Child() = default;
    Child(Child&& other) noexcept;
    Child& operator=(Child&& other) noexcept;
    Child(const Child&) = delete;
    Child& operator=(const Child&) = delete;
    // Kills one that was not reaped. It does not wait, since the kernel may not let it end now, or
    // ever: one that has not ended by then remains a zombie of this process until that ends.
    ~Child();

    // Makes a child in which `body` runs, with the number of this process; it begins with
    // BeginChild() and ends with _exit. Where it returns or throws nevertheless, the child ends
    // with 1: it never gets back to the loop, where it would be a second agent.
    static Result<Child> Fork(const std::function<void(pid_t parent)>& body);

    // Whether there is one that has not been reaped.
    explicit operator bool() const { return static_cast<bool>(process) && !reaped; }
    pid_t GetPid() const { return pid; }
    // Readable when it has ended. Stays open until this object goes, so that an event of the loop
    // may go later than the process.
    int GetDescriptor() const { return process.Get(); }

    // Nothing once it was reaped.
    void Signal(int number) const;
    // Waits for its end; its remains stay, and keep its number and its group's from others.
    siginfo_t AwaitEnd() const;
    // Waits for its end and takes its remains away.
    siginfo_t Reap();

private:
    Child(pid_t pid_, OwnedFd&& process_);
    void Abandon();

    pid_t pid = -1;
    OwnedFd process;
    bool reaped = false;
};

struct ChildStart {
    // A session of its own: the terminal's signals and its control are not for it.
    bool ownSession = true;
    // These stay ignored, every other one is as a new process has it; and no signal is blocked but
    // `blocked`, if that is not 0.
    std::vector<int> ignored;
    int blocked = 0;
    // They become 0, 1, 2 and so on, not close-on-exec, and all behind them is closed; -1 leaves
    // its number as it is. Empty: the child has all of its parent's.
    std::vector<int> descriptors;
};

// What a child does before anything else. False, with errno where there is one, when it must not go
// on; what it has by then is not known.
bool BeginChild(const ChildStart& start, pid_t parent);

// Dies with its parent from now on. False when the parent has died already: then this has come too
// late. The kernel takes it back with every change of ids, so it is said again behind each.
bool DieWith(pid_t parent);

}  // namespace agent

#endif
