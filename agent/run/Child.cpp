// SPDX-License-Identifier: Apache-2.0
#include "Child.h"

#include <errno.h>
#include <fcntl.h>
#include <grp.h>
#include <linux/openat2.h>
#include <poll.h>
#include <sentrel/SR_Status.h>
#include <signal.h>
#include <sys/fsuid.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/signalfd.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <vector>

#include "Aftercheck.h"
#include "Bind.h"
#include "Credentials.h"
#include "Handover.h"
#include "LoopDevice.h"
#include "Node.h"
#include "Pinning.h"
#include "Stage.h"
#include "Unmount.h"
#include "base/Descriptors.h"
#include "base/Process.h"
#include "base/Signals.h"
#include "base/Tools.h"

namespace agent {

namespace {

const int kReport = 3;  // the report pipe's number here
const int kMountFailure = 32;
const std::size_t kLongestSecret = 4096;  // fits into a pipe that nobody reads yet

// A caller must not be able to end a tool half-way by closing its descriptor; ignored signals stay
// ignored in the tool.
void SetToolsSignals() {
    ResetSignals();
    IgnoreSignal(SIGPIPE);
}

void BlockSignals(bool termination) {
    sigset_t blocked;
    (void)sigemptyset(&blocked);
    if (termination) {
        (void)sigaddset(&blocked, SIGTERM);
    }
    (void)sigprocmask(SIG_SETMASK, &blocked, nullptr);
}

// A descriptor that becomes readable when the agent wants the operation to end.
int WatchTermination() {
    sigset_t awaited;
    (void)sigemptyset(&awaited);
    (void)sigaddset(&awaited, SIGTERM);
    return signalfd(-1, &awaited, SFD_CLOEXEC);
}

// 0 is /dev/null, 1 and 2 the output, 3 the report; all else is closed.
bool ArrangeDescriptors(const ChildSetup& setup) {
    const int null = open("/dev/null", O_RDWR);
    const int sources[] = {null, setup.output >= 0 ? setup.output : null,
                           setup.output >= 0 ? setup.output : null, setup.report};
    int high[4];
    for (int i = 0; i < 4; ++i) {
        high[i] = fcntl(sources[i], F_DUPFD, 4);
        if (high[i] < 0) {
            return false;
        }
    }
    for (int i = 0; i < 4; ++i) {
        if (dup2(high[i], i) < 0) {
            return false;
        }
    }
    return fcntl(kReport, F_SETFD, FD_CLOEXEC) == 0 && syscall(SYS_close_range, 4U, ~0U, 0U) == 0;
}

// A parent that died before this was said is no longer the parent.
bool DieWith(pid_t parent) {
    return prctl(PR_SET_PDEATHSIG, SIGKILL) == 0 && getppid() == parent;
}

void Limit(int resource, rlim_t most) {
    rlimit limit = {};
    if (getrlimit(static_cast<__rlimit_resource_t>(resource), &limit) == 0) {
        limit.rlim_max = std::min(limit.rlim_max, most);
        limit.rlim_cur = limit.rlim_max;
        (void)setrlimit(static_cast<__rlimit_resource_t>(resource), &limit);
    }
}

// A number of processes is not among them: root is exempt from it.
void LimitTool(Operation operation) {
    Limit(RLIMIT_FSIZE, RowOf(operation).largestFile);
    Limit(RLIMIT_NOFILE, 64);
    Limit(RLIMIT_CORE, 0);
    Limit(RLIMIT_CPU, 10);
    Limit(RLIMIT_AS, 268435456);
}

// False when the time has passed first, or `stop` (-1: none) became readable.
bool WaitReadable(int fd, int stop, std::chrono::steady_clock::time_point until) {
    for (;;) {
        const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
            until - std::chrono::steady_clock::now() + std::chrono::microseconds(999));
        pollfd slots[] = {{fd, POLLIN, 0}, {stop, POLLIN, 0}};
        const int ready = poll(slots, 2, static_cast<int>(std::max<long long>(left.count(), 0)));
        if (ready >= 0) {
            return slots[0].revents != 0;
        }
    }
}

class RequestChild {
public:
    RequestChild(const Permit& granted, const Caller& asking, const ChildSetup& given)
        : plan(granted.GetPlan()), caller(asking), setup(given) {}

    [[noreturn]] void Run() {
        ChildReport report;
        std::string reason;
        report.status = SR_FORK_FAILED;
        if (!Prepare()) {
            reason = "the tool's process cannot be set up";
        } else if (PinPaths(report, reason) && OpenSecret(report, reason) &&
                   StartTool(report, reason)) {
            AwaitTool(report, reason);
        }
        Finish(report, reason);
    }

private:
    bool Prepare() {
        SetToolsSignals();
        BlockSignals(true);
        (void)setsid();
        (void)umask(022);
        Limit(RLIMIT_CORE, 0);  // may hold a secret
        if (!DieWith(setup.parent) || chdir("/") != 0 || !ArrangeDescriptors(setup)) {
            return false;
        }
        termination.Reset(WatchTermination());
        return static_cast<bool>(termination);
    }

    // Rebuilds the arguments with the pinned paths in the places of the named ones.
    bool PinPaths(ChildReport& report, std::string& reason) {
        if (plan.argv.empty()) {
            report.status = SR_FAIL;
            reason = "there is no tool to run";
            return false;
        }
        const Check trusted = plan.bind || plan.node ? Fine() : CheckTool(plan.argv[0]);
        report.status = trusted ? SR_OK : trusted.Status();
        if (!trusted) {
            reason = trusted.Reason();
            return false;
        }
        arguments = plan.argv;
        for (const Pin& pin : plan.pins) {
            pinned.emplace_back();
            if (pin.argument == 0 || pin.argument >= arguments.size() ||
                !PinPath(pin, pinned.back(), reason)) {
                report.status = SR_RULE_NO_FOUND;
                return false;
            }
            arguments[pin.argument] = pinned.back().Reach();
        }
        if ((plan.makesMount && Find(Pin::kDirectory) == nullptr) ||
            (plan.bind && Find(Pin::kAny) == nullptr) ||
            (plan.node && Find(Pin::kParent) == nullptr)) {
            report.status = SR_FAIL;
            reason = "there is no path for what is to be made";
            return false;
        }
        return true;
    }

    // The last of the kind: of two directories that is the mount point. Null when there is none.
    const PinnedPath* Find(Pin::Kind kind) const {
        const PinnedPath* found = nullptr;
        for (const PinnedPath& path : pinned) {
            if (path.pin.kind == kind &&
                (found == nullptr || path.pin.argument > found->pin.argument)) {
                found = &path;
            }
        }
        return found;
    }

    bool OpenSecret(ChildReport& report, std::string& reason) {
        std::string text = plan.secret;
        if (!plan.secretFile.empty()) {
            std::string content;
            Credentials credentials;
            report.status = SR_RULE_NO_FOUND;
            reason = "the file with the secret cannot be read as the caller's own";
            if (!ReadSecretFile(content) || !ReadCredentials(content, credentials, reason)) {
                return false;
            }
            AddOption("user", credentials.user);
            AddOption("domain", credentials.domain);
            text = credentials.password;
        }
        if (text.empty()) {
            return true;
        }
        int ends[2];
        report.status = SR_FORK_FAILED;
        reason = "the secret cannot be handed on";
        if (text.size() > kLongestSecret || pipe2(ends, O_CLOEXEC) != 0) {
            return false;
        }
        secret.Reset(ends[0]);
        const OwnedFd writer(ends[1]);
        return write(writer.Get(), text.data(), text.size()) == static_cast<ssize_t>(text.size());
    }

    // Before all other options, so that what is forced stays the last word; not where it is given.
    void AddOption(const std::string& key, const std::string& value) {
        const auto end = std::find(arguments.begin(), arguments.end(), "--");
        auto list = std::find(arguments.begin(), end, "-o");
        if (value.empty()) {
            return;
        }
        if (list == end || list + 1 == end) {
            arguments.insert(arguments.begin() + 1, {"-o", key + "=" + value});
            return;
        }
        ++list;
        if (("," + *list).find("," + key + "=") == std::string::npos) {
            *list = key + "=" + value + "," + *list;
        }
    }

    // With the caller's file-system ids and groups for the time of the opening.
    bool ReadSecretFile(std::string& text) const {
        const bool root = geteuid() == 0;
        if (root) {
            const gid_t group = caller.groups.empty() ? 65534 : caller.groups.front();
            if (setgroups(caller.groups.size(), caller.groups.data()) != 0) {
                return false;
            }
            (void)setfsgid(group);
            (void)setfsuid(caller.uid);
            if (static_cast<uid_t>(setfsuid(static_cast<uid_t>(-1))) != caller.uid) {
                return false;
            }
        }
        open_how how = {};
        // Not blocking: it may be a pipe by now.
        how.flags = O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY;
        how.resolve = RESOLVE_NO_SYMLINKS | RESOLVE_NO_MAGICLINKS;
        const OwnedFd file(static_cast<int>(
            syscall(SYS_openat2, AT_FDCWD, plan.secretFile.c_str(), &how, sizeof how)));
        if (root) {
            (void)setfsuid(0);
            (void)setfsgid(0);
            (void)setgroups(0, nullptr);
            // The change of ids took the death signal back.
            if (!DieWith(setup.parent)) {
                return false;
            }
        }
        struct stat found = {};
        if (!file || fstat(file.Get(), &found) != 0 || !S_ISREG(found.st_mode) ||
            found.st_uid != caller.uid) {
            return false;
        }
        char content[kLargestCredentials + 1];  // one more than may be there
        const ssize_t count = read(file.Get(), content, sizeof content);
        if (count <= 0) {
            return false;
        }
        text.assign(content, static_cast<std::size_t>(count));
        return true;
    }

    bool StartTool(ChildReport& report, std::string& reason) {
        report.status = SR_FORK_FAILED;
        int ends[2];
        if (pipe2(ends, O_CLOEXEC) != 0 || !OpenHandover(giver, taker)) {
            reason = "the tool's process cannot be started";
            return false;
        }
        const OwnedFd failure(ends[0]);
        OwnedFd failureWriter(ends[1]);
        const pid_t self = getpid();
        Tell(ChildReport::kToolStarting);  // before the tool can show itself
        tool = fork();
        if (tool == 0) {
            RunTool(self, failureWriter);
        }
        pidfd.Reset(tool > 0 ? OpenProcess(tool) : -1);
        if (!pidfd) {
            reason = "the tool's process cannot be started";
            return false;  // one that did start dies with this process
        }
        failureWriter.Reset();
        giver.Reset();
        int error = 0;
        if (read(failure.Get(), &error, sizeof error) != static_cast<ssize_t>(sizeof error)) {
            return true;  // closed by the exec
        }
        reason = plan.argv[0] + ": " + std::strerror(error);
        return false;
    }

    // The tool's process: it becomes the tool, or does the tool's work itself.
    [[noreturn]] void RunTool(pid_t parent, OwnedFd& failure) {
        if (!DieWith(parent) || setsid() <= 0 || (geteuid() == 0 && setgroups(0, nullptr) != 0)) {
            GiveUp(failure);
        }
        if (const PinnedPath* mounted = Find(Pin::kMountPoint)) {
            failure.Reset();  // as an exec would
            BlockSignals(false);
            _exit(Unmount(*mounted, plan.argv));
        }
        if (plan.node) {
            failure.Reset();
            BlockSignals(false);
            _exit(MakeNode(*Find(Pin::kParent), *plan.node));
        }
        if (plan.bind) {
            failure.Reset();
            BlockSignals(false);
            std::string why;
            const OwnedFd mount = MakeBind(*Find(Pin::kAny), *plan.bind, why);
            _exit(mount && Give(giver, mount, "") ? 0 : FailMount(why));
        }
        if (plan.makesMount) {
            RunApart(failure);
        }
        ExecTool(failure);
    }

    [[noreturn]] static void GiveUp(const OwnedFd& failure) {
        const int error = errno;
        (void)!write(failure.Get(), &error, sizeof error);
        _exit(127);
    }

    // In mount(8)'s words.
    int FailMount(const std::string& why) const {
        const std::string line = "mount: " + Find(Pin::kDirectory)->pin.path + ": " + why + ".\n";
        (void)!write(STDERR_FILENO, line.data(), line.size());
        return kMountFailure;
    }

    // The tool as a child, in a mount namespace of its own. The polite signal is the tool's, and
    // stays blocked here; the other ends both.
    [[noreturn]] void RunApart(OwnedFd& failure) {
        std::string reason;
        const PinnedPath& target = *Find(Pin::kDirectory);
        const std::string stage = EnterStage(target.name, reason);
        if (stage.empty()) {
            failure.Reset();
            (void)Give(giver, OwnedFd(), reason);
            _exit(0);
        }
        arguments[target.pin.argument] = stage;
        OwnedFd loop;
        const PinnedPath* const image = Find(Pin::kFile);
        if (image != nullptr && NeedsLoop(*image, arguments) &&
            !AttachLoop(*image, arguments, loop, reason)) {
            failure.Reset();
            _exit(FailMount(reason));
        }
        const pid_t self = getpid();
        const pid_t child = fork();
        if (child == 0) {
            if (!DieWith(self)) {
                GiveUp(failure);
            }
            ExecTool(failure);
        }
        if (child < 0) {
            GiveUp(failure);
        }
        failure.Reset();
        int status = 0;
        while (waitpid(child, &status, 0) < 0 && errno == EINTR) {
        }
        if (WIFEXITED(status) && WEXITSTATUS(status) == 0) {
            const OwnedFd mount = TakeFromStage(stage, plan.requiredMountFlags, reason);
            (void)Give(giver, mount, reason);
        }
        ClearStage(stage);
        if (WIFSIGNALED(status)) {
            EndBy(WTERMSIG(status));
        }
        _exit(WEXITSTATUS(status));
    }

    [[noreturn]] static void EndBy(int number) {
        BlockSignals(false);
        (void)kill(getpid(), number);
        _exit(128 + number);
    }

    [[noreturn]] void ExecTool(const OwnedFd& failure) {
        std::vector<std::string> environment = {"PATH=/usr/sbin:/usr/bin:/sbin:/bin",
                                                "LANG=C.UTF-8",
                                                "SYSTEMD_PAGER=", "SYSTEMD_COLORS=0"};
        bool ready = true;
        if (secret) {
            environment.push_back("PASSWD_FD=" + std::to_string(secret.Get()));
            ready = fcntl(secret.Get(), F_SETFD, 0) == 0;
        }
        const PinnedPath* const target = plan.makesMount ? Find(Pin::kDirectory) : nullptr;
        for (const PinnedPath& path : pinned) {
            ready = ready && (&path == target || fcntl(path.Inherited(), F_SETFD, 0) == 0);
        }
        // Made before the limits, which are the tool's: nothing here needs memory behind them.
        const std::vector<char*> argv = Pointers(arguments);
        const std::vector<char*> envp = Pointers(environment);
        BlockSignals(false);
        LimitTool(plan.operation);
        if (ready) {
            (void)execve(argv[0], argv.data(), envp.data());
        }
        GiveUp(failure);
    }

    static std::vector<char*> Pointers(std::vector<std::string>& texts) {
        std::vector<char*> pointers;
        pointers.reserve(texts.size() + 1);
        for (std::string& text : texts) {
            pointers.push_back(&text[0]);
        }
        pointers.push_back(nullptr);
        return pointers;
    }

    void AwaitTool(ChildReport& report, std::string& reason) {
        const bool late = !WaitReadable(pidfd.Get(), termination.Get(), setup.deadline);
        const bool ending = late && std::chrono::steady_clock::now() < setup.deadline;
        if (late) {
            Signal(SIGTERM);
            if (!WaitReadable(pidfd.Get(), -1,
                              std::chrono::steady_clock::now() + setup.killAfter)) {
                Signal(SIGKILL);
            }
        }
        siginfo_t end = {};
        while (waitid(P_PIDFD, static_cast<id_t>(pidfd.Get()), &end, WEXITED | WNOWAIT) != 0 &&
               errno == EINTR) {
        }
        if (late) {
            Signal(
                SIGKILL);  // those of its group that outlived it; the zombie keeps the group's id
        }
        (void)Reap(pidfd.Get());
        Tell(ChildReport::kToolEnded);
        (end.si_code == CLD_EXITED ? report.exit : report.signal) = end.si_status;
        report.status = late ? SR_WAITPID_FAILED : SR_OK;
        report.value = end.si_code == CLD_EXITED ? end.si_status : 128 + end.si_status;
        if (late) {
            reason = ending ? "the agent is ending" : "the deadline passed";
        }
        if (!late && report.value == 0 && plan.makesMount) {
            ShowMount(report, reason);
        }
    }

    // The group, and the tool itself while it has not made its group yet.
    void Signal(int number) const {
        (void)kill(-tool, number);
        (void)SignalProcess(pidfd.Get(), number);
    }

    // What the tool's process has made, on the pinned mount point.
    void ShowMount(ChildReport& report, std::string& reason) const {
        const PinnedPath& target = *Find(Pin::kDirectory);
        const OwnedFd mount = Take(taker, reason);
        if (!mount) {
            report.status = SR_FAIL;
            reason = target.pin.path + ": " + reason;
        } else if (!PutInPlace(mount, target, !plan.bind, reason)) {
            report.exit = report.value = FailMount(reason);
        } else if (!CheckMount(mount, target.pin.path, plan.requiredMountFlags, reason)) {
            report.status = SR_FAIL;
        }
    }

    static void Tell(ChildReport::Stage stage) {
        ChildReport report;
        report.stage = stage;
        (void)!write(kReport, &report, sizeof report);
    }

    [[noreturn]] static void Finish(ChildReport& report, const std::string& reason) {
        if (report.status != SR_OK) {
            report.value = 0;
            (void)snprintf(report.reason, sizeof report.reason, "%s", reason.c_str());
        }
        report.stage = ChildReport::kFinished;
        (void)!write(kReport, &report, sizeof report);
        if (report.status != SR_OK) {
            const std::string line = reason + "\n";
            (void)!write(STDOUT_FILENO, line.data(), line.size());
        }
        _exit(0);
    }

    const Plan& plan;
    const Caller& caller;
    const ChildSetup& setup;
    std::vector<std::string> arguments;
    std::vector<PinnedPath> pinned;
    OwnedFd secret;
    OwnedFd giver;  // these two: for a finished mount
    OwnedFd taker;
    pid_t tool = -1;
    OwnedFd pidfd;
    OwnedFd termination;
};

}  // namespace

[[noreturn]] void RunChild(const Permit& permit, const Caller& caller, const ChildSetup& setup) {
    RequestChild(permit, caller, setup).Run();
}

}  // namespace agent
