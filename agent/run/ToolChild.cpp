// SPDX-License-Identifier: Apache-2.0
#include "ToolChild.h"

#include <errno.h>
#include <fcntl.h>
#include <grp.h>
#include <signal.h>
#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>

#include "Bind.h"
#include "Handover.h"
#include "LoopDevice.h"
#include "Node.h"
#include "Stage.h"
#include "Unmount.h"

namespace agent {

namespace {

const int kMountFailure = 32;

void UnblockSignals() {
    sigset_t none;
    (void)sigemptyset(&none);
    (void)sigprocmask(SIG_SETMASK, &none, nullptr);
}

void Limit(int resource, rlim_t most) {
    rlimit limit = {};
    if (getrlimit(static_cast<__rlimit_resource_t>(resource), &limit) == 0) {
        // The hard limit too: a tool that runs as root could raise the other one again.
        limit.rlim_max = std::min(limit.rlim_max, most);
        limit.rlim_cur = limit.rlim_max;
        (void)setrlimit(static_cast<__rlimit_resource_t>(resource), &limit);
    }
}

// A number of processes is not among them: root is exempt from it.
void LimitTool(Operation operation) {
    Limit(RLIMIT_FSIZE, RowOf(operation).largestFile);
    // More than a tool needs. They are for one that a caller's image, module or server has made run
    // in a circle or grow: it ends before others go without.
    Limit(RLIMIT_NOFILE, 64);
    Limit(RLIMIT_CORE, 0);
    Limit(RLIMIT_CPU, 10);
    Limit(RLIMIT_AS, 268435456);
}

std::vector<char*> Pointers(std::vector<std::string>& texts) {
    std::vector<char*> pointers;
    pointers.reserve(texts.size() + 1);
    for (std::string& text : texts) {
        pointers.push_back(&text[0]);
    }
    pointers.push_back(nullptr);
    return pointers;
}

[[noreturn]] void GiveUp(const OwnedFd& failure) {
    const int error = errno;
    (void)!write(failure.Get(), &error, sizeof error);
    _exit(127);
}

// As the tool ended, so that whoever waits for this process sees the tool's own end.
[[noreturn]] void EndBy(int number) {
    UnblockSignals();
    (void)kill(getpid(), number);
    _exit(128 + number);
}

[[noreturn]] void ExecTool(Tool& tool, const OwnedFd& failure) {
    // Built from nothing: whatever a tool believes of its environment, no caller has said it.
    std::vector<std::string> environment = {"PATH=/usr/sbin:/usr/bin:/sbin:/bin", "LANG=C.UTF-8",
                                            "SYSTEMD_PAGER=", "SYSTEMD_COLORS=0"};
    bool ready = true;
    if (tool.secret) {
        environment.push_back("PASSWD_FD=" + std::to_string(tool.secret.Get()));
        ready = fcntl(tool.secret.Get(), F_SETFD, 0) == 0;
    }
    // A pinned path is reached by the number of its descriptor, so the tool inherits it. Not the
    // mount point's: the tool mounts on its stage, and would keep the other busy.
    const PinnedPath* const target = tool.plan.makesMount ? tool.Find(Pin::kDirectory) : nullptr;
    for (const PinnedPath& path : tool.pinned) {
        ready = ready && (&path == target || fcntl(path.Inherited(), F_SETFD, 0) == 0);
    }
    // Made before the limits, which are the tool's: nothing here needs memory behind them.
    const std::vector<char*> argv = Pointers(tool.arguments);
    const std::vector<char*> envp = Pointers(environment);
    UnblockSignals();
    LimitTool(tool.plan.operation);
    if (ready) {
        (void)execve(argv[0], argv.data(), envp.data());
    }
    GiveUp(failure);
}

// The tool as a child, in a mount namespace of its own. The polite signal is the tool's, and stays
// blocked here; the other ends both.
[[noreturn]] void RunApart(Tool& tool, OwnedFd& failure) {
    const PinnedPath& target = *tool.Find(Pin::kDirectory);
    const Result<std::string> stage = EnterStage(target.name);
    if (!stage) {
        failure.Reset();
        (void)Give(tool.giver, stage.GetRefusal());
        _exit(0);
    }
    tool.arguments[target.pin.argument] = *stage;
    OwnedFd loop;  // the device goes with its last user: held until the tool has mounted it
    const PinnedPath* const image = tool.Find(Pin::kFile);
    if (image != nullptr && NeedsLoop(*image, tool.arguments)) {
        Result<OwnedFd> device = AttachLoop(*image, tool.arguments);
        if (!device) {
            failure.Reset();
            _exit(FailMount(target, device.Reason()));
        }
        loop = std::move(*device);
    }
    Result<Child> child = Child::Fork([&](pid_t self) {
        ChildStart start = StartOfTool();
        start.ownSession = false;  // of this one's group, which is what the deadline is kept by
        if (!BeginChild(start, self)) {
            GiveUp(failure);
        }
        ExecTool(tool, failure);
    });
    if (!child) {
        GiveUp(failure);
    }
    failure.Reset();
    const siginfo_t end = child->Reap();
    const bool exited = end.si_code == CLD_EXITED;
    if (exited && end.si_status == 0) {
        (void)Give(tool.giver, TakeFromStage(*stage, tool.plan.requiredMountFlags));
    }
    // A helper that stays, as one for a file system in a process does, keeps the namespace. What it
    // was mounted on must not stay there with it.
    ClearStage(*stage);
    if (!exited) {
        EndBy(end.si_status);
    }
    _exit(end.si_status);
}

// What the agent does in a tool's place. The signal's mask and the failure's pipe are as an exec
// would leave them: from here on it is the tool that works, and that its deadline ends.
[[noreturn]] void WorkAsTool(const Tool& tool, OwnedFd& failure) {
    failure.Reset();
    UnblockSignals();
    if (const PinnedPath* mounted = tool.Find(Pin::kMountPoint)) {
        _exit(Unmount(*mounted, tool.plan.argv));
    }
    if (tool.plan.node) {
        _exit(MakeNode(*tool.Find(Pin::kParent), *tool.plan.node));
    }
    const Result<OwnedFd> mount = MakeBind(*tool.Find(Pin::kAny), *tool.plan.bind);
    if (!mount) {
        _exit(FailMount(*tool.Find(Pin::kDirectory), mount.Reason()));
    }
    _exit(Give(tool.giver, mount) ? 0 : FailMount(*tool.Find(Pin::kDirectory), ""));
}

}  // namespace

ChildStart StartOfTool() {
    ChildStart start;
    start.ignored = {SIGPIPE};
    start.blocked = SIGTERM;
    return start;
}

const PinnedPath* Tool::Find(Pin::Kind kind) const {
    const PinnedPath* found = nullptr;
    for (const PinnedPath& path : pinned) {
        if (path.pin.kind == kind &&
            (found == nullptr || path.pin.argument > found->pin.argument)) {
            found = &path;
        }
    }
    return found;
}

[[noreturn]] void RunTool(Tool& tool, OwnedFd& failure, pid_t parent) {
    // The groups of the agent are none of the tool's business; as root it needs no group.
    if (!BeginChild(StartOfTool(), parent) || (geteuid() == 0 && setgroups(0, nullptr) != 0)) {
        GiveUp(failure);
    }
    if (tool.Find(Pin::kMountPoint) != nullptr || tool.plan.node || tool.plan.bind) {
        WorkAsTool(tool, failure);
    }
    if (tool.plan.makesMount) {
        RunApart(tool, failure);
    }
    ExecTool(tool, failure);
}

int FailMount(const PinnedPath& target, const std::string& why) {
    const std::string line = "mount: " + target.pin.path + ": " + why + ".\n";
    (void)!write(STDERR_FILENO, line.data(), line.size());
    return kMountFailure;
}

}  // namespace agent
