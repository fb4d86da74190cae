// SPDX-License-Identifier: Apache-2.0
#include "Child.h"

#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>

#include <cerrno>
#include <csignal>

#include "PidFd.h"

namespace agent {

namespace {

const char* const kEnvironment[] = {"PATH=/usr/sbin:/usr/bin:/sbin:/bin", "LANG=C.UTF-8",
                                    "SYSTEMD_PAGER=", "SYSTEMD_COLORS=0", nullptr};

void ResetSignals() {
    for (int number = 1; number < NSIG; ++number) {
        (void)std::signal(number, number == SIGPIPE ? SIG_IGN : SIG_DFL);
    }
    sigset_t none;
    sigemptyset(&none);
    (void)sigprocmask(SIG_SETMASK, &none, nullptr);
}

// Puts the tool's descriptors in their places, `report` behind them as number 3, and closes all
// others. All of these are above 2 at first.
bool ArrangeDescriptors(int output, int report) {
    const int null = open("/dev/null", O_RDWR | O_CLOEXEC);
    if (null < 0) {
        return false;
    }
    const int target = output >= 0 ? output : null;
    if (dup2(null, 0) < 0 || dup2(target, 1) < 0 || dup2(target, 2) < 0) {
        return false;
    }
    return (report == 3 || dup3(report, 3, O_CLOEXEC) == 3) && close_range(4, ~0U, 0) == 0;
}

}  // namespace

Child::Child(pid_t childPid, Fd childPidfd)
    : pid(childPid), pidfd(std::move(childPidfd)), ended(false), exitCode(-1) {}

std::unique_ptr<Child> Child::Fork(const std::function<int()>& body) {
    const pid_t pid = fork();
    if (pid < 0) {
        return nullptr;
    }
    if (pid == 0) {
        int code = 127;
        try {
            code = body();
        } catch (...) {
        }
        _exit(code);
    }
    Fd pidfd(PidFdOpen(pid));
    if (!pidfd.Open()) {
        // Without it the end could not be seen: no child then.
        const int reason = errno;
        (void)kill(pid, SIGKILL);
        (void)waitpid(pid, nullptr, 0);
        errno = reason;
        return nullptr;
    }
    return std::unique_ptr<Child>(new Child(pid, std::move(pidfd)));
}

Child::~Child() {
    if (!Ended()) {
        Kill();
        // Not waited for: a child that cannot die would take the agent with it. It is left to
        // init when the agent ends.
        (void)Ended();
    }
}

bool Child::Ended() {
    if (ended) {
        return true;
    }
    siginfo_t end = {};
    const int result = waitid(P_PIDFD, static_cast<id_t>(pidfd.Get()), &end, WEXITED | WNOHANG);
    if (result == 0 && end.si_pid == 0) {
        return false;
    }
    if (result != 0 && errno == EINTR) {
        return false;
    }
    ended = true;
    if (result == 0) {
        exitCode = end.si_code == CLD_EXITED ? end.si_status : 128 + end.si_status;
    }
    return true;
}

bool Child::ExitCode(int& code) const {
    if (!ended || exitCode < 0) {
        return false;
    }
    code = exitCode;
    return true;
}

void Child::Kill() {
    if (!ended) {
        (void)PidFdSignal(pidfd.Get(), SIGKILL);
    }
}

void Child::SignalGroup(int signal) {
    // Not reaped, so the number is still this child's, and so is the group's.
    if (!ended) {
        (void)kill(-pid, signal);
        (void)PidFdSignal(pidfd.Get(), signal);
    }
}

int BecomeTool(const ToolStart& start, int report, pid_t agentPid) {
    std::vector<char*> argv;
    argv.push_back(const_cast<char*>(start.program.c_str()));
    for (const std::string& word : start.words) {
        argv.push_back(const_cast<char*>(word.c_str()));
    }
    argv.push_back(nullptr);
    const rlimit noCore = {0, 0};

    (void)setsid();
    (void)umask(022);
    (void)setrlimit(RLIMIT_CORE, &noCore);
    ResetSignals();
    bool good = prctl(PR_SET_PDEATHSIG, SIGKILL) == 0 && getppid() == agentPid && chdir("/") == 0;
    if (good) {
        good = ArrangeDescriptors(start.output, report);
        report = good ? 3 : report;
    }
    if (good) {
        (void)execve(start.program.c_str(), argv.data(), const_cast<char* const*>(kEnvironment));
    }
    const int reason = errno;
    (void)write(report, &reason, sizeof(reason));
    return 127;
}

}  // namespace agent
