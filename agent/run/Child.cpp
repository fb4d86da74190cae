// SPDX-License-Identifier: Apache-2.0
#include "Child.h"

#include <fcntl.h>
#include <poll.h>
#include <sentrel/SR_Status.h>
#include <signal.h>
#include <sys/signalfd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <string>

#include "Aftercheck.h"
#include "Handover.h"
#include "Pinning.h"
#include "Secret.h"
#include "ToolChild.h"
#include "base/Descriptors.h"
#include "base/Outcome.h"
#include "base/Process.h"
#include "base/Tools.h"

namespace agent {

namespace {

const int kReport = 3;  // the report pipe's number here

// A descriptor that becomes readable when the agent wants the operation to end.
int WatchTermination() {
    sigset_t awaited;
    (void)sigemptyset(&awaited);
    (void)sigaddset(&awaited, SIGTERM);
    return signalfd(-1, &awaited, SFD_CLOEXEC);
}

// False when the time has passed first, or `stop` (-1: none) became readable.
bool WaitReadable(int fd, int stop, std::chrono::steady_clock::time_point until) {
    for (;;) {
        // Rounded up: a wait that ends a moment early would be one more turn of this loop.
        const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
            until - std::chrono::steady_clock::now() + std::chrono::microseconds(999));
        pollfd slots[] = {{fd, POLLIN, 0}, {stop, POLLIN, 0}};
        const int ready = poll(slots, 2, static_cast<int>(std::max<long long>(left.count(), 0)));
        if (ready >= 0) {
            return slots[0].revents != 0;
        }
    }
}

Outcome Failed(const Refusal& refusal) {
    Outcome outcome;
    outcome.status = refusal.status;
    outcome.reason = refusal.reason;
    return outcome;
}

class RequestChild {
public:
    RequestChild(const Permit& permit, const Caller& caller_, const ChildSetup& setup_)
        : plan(permit.GetPlan()), caller(caller_), setup(setup_), job{plan, {}, {}, {}, {}} {}

    [[noreturn]] void Run(pid_t parent) {
        if (!Begin(parent)) {
            // Which descriptor leads where is not known now, so nothing is written to any. The
            // agent sees an end without an answer.
            _exit(1);
        }
        const Check started = Prepare();
        Finish(started ? AwaitTool() : Failed(started.GetRefusal()));
    }

private:
    // Until there is a tool.
    Check Prepare() {
        Check ready = SetUp();
        ready = ready ? PinPaths() : ready;
        ready = ready ? TakeSecret() : ready;
        return ready ? StartTool() : ready;
    }

    // 0 is /dev/null, 1 and 2 the output, 3 the report.
    bool Begin(pid_t parent) const {
        const int null = open("/dev/null", O_RDWR);
        const int output = setup.output >= 0 ? setup.output : null;
        ChildStart start = StartOfTool();
        start.descriptors = {null, output, output, setup.report};
        // A tool must not hold the report open: the agent would wait for the end of it.
        return null >= 0 && BeginChild(start, parent) && fcntl(kReport, F_SETFD, FD_CLOEXEC) == 0;
    }

    Check SetUp() {
        (void)umask(022);
        termination.Reset(WatchTermination());
        // Not where the agent was started: a working directory keeps its mount busy.
        if (chdir("/") != 0 || !termination) {
            return Refusal{"the tool's process cannot be set up", SR_FORK_FAILED};
        }
        return Fine();
    }

    // Rebuilds the arguments with the pinned paths in the places of the named ones.
    Check PinPaths() {
        if (plan.argv.empty()) {
            return Refusal{"there is no tool to run"};
        }
        // Again, although the agent has looked at its start: it may have been replaced since.
        Check trusted = plan.bind || plan.node ? Fine() : CheckTool(plan.argv[0]);
        if (!trusted) {
            return trusted;
        }
        job.arguments = plan.argv;
        for (const Pin& pin : plan.pins) {
            if (pin.argument == 0 || pin.argument >= job.arguments.size()) {
                return Refusal{"", SR_RULE_NO_FOUND};
            }
            Result<PinnedPath> pinned = PinPath(pin);
            if (!pinned) {
                return pinned.GetRefusal();
            }
            job.arguments[pin.argument] = pinned->Reach();
            job.pinned.push_back(std::move(*pinned));
        }
        if ((plan.makesMount && job.Find(Pin::kDirectory) == nullptr) ||
            (plan.bind && job.Find(Pin::kAny) == nullptr) ||
            (plan.node && job.Find(Pin::kParent) == nullptr)) {
            return Refusal{"there is no path for what is to be made"};
        }
        return Fine();
    }

    Check TakeSecret() {
        Result<OwnedFd> secret = OpenSecret(plan, caller, job.arguments);
        if (!secret) {
            return secret.GetRefusal();
        }
        job.secret = std::move(*secret);
        return Fine();
    }

    Check StartTool() {
        const Refusal refusal{"the tool's process cannot be started", SR_FORK_FAILED};
        Result<Pipe> failure = OpenPipe();
        Result<Handover> handover = OpenHandover();
        if (!failure || !handover) {
            return refusal;
        }
        job.giver = std::move(handover->giver);
        taker = std::move(handover->taker);
        Tell(ChildReport::kToolStarting);  // before the tool can show itself
        Result<Child> started =
            Child::Fork([&](pid_t self) { RunTool(job, failure->writer, self); });
        if (!started) {
            return refusal;
        }
        tool = std::move(*started);
        // The tool's are now the only ends, so that the reading tells of its start or its end.
        failure->writer.Reset();
        job.giver.Reset();
        int error = 0;
        if (read(failure->reader.Get(), &error, sizeof error) !=
            static_cast<ssize_t>(sizeof error)) {
            return Fine();  // closed by the exec
        }
        return Refusal{plan.argv[0] + ": " + std::strerror(error), SR_FORK_FAILED};
    }

    // The deadline is kept here and not in the agent, so that it holds while the agent's loop is
    // busy, and each tool has somebody of its own who waits for it.
    Outcome AwaitTool() {
        const bool late = !WaitReadable(tool.GetDescriptor(), termination.Get(), setup.deadline);
        const bool ending = late && std::chrono::steady_clock::now() < setup.deadline;
        if (late) {
            Signal(SIGTERM);
            const auto patience = std::chrono::steady_clock::now() + setup.killAfter;
            if (!WaitReadable(tool.GetDescriptor(), -1, patience)) {
                Signal(SIGKILL);
            }
        }
        const siginfo_t end = tool.AwaitEnd();
        if (late) {
            // Those of its group that outlived it: its remains keep the group's number from others
            // until it is reaped, so this meets nobody else.
            Signal(SIGKILL);
        }
        (void)tool.Reap();
        Tell(ChildReport::kToolEnded);
        Outcome result;
        const bool exited = end.si_code == CLD_EXITED;
        (exited ? result.exit : result.signal) = end.si_status;
        result.value = exited ? end.si_status : 128 + end.si_status;
        if (late) {
            result.status = SR_WAITPID_FAILED;
            result.reason = ending ? "the agent is ending" : "the deadline passed";
        } else if (result.value == 0 && plan.makesMount) {
            ShowMount(result);
        }
        return result;
    }

    // The group, and the tool itself while it has not made its group yet.
    void Signal(int number) const {
        (void)kill(-tool.GetPid(), number);
        tool.Signal(number);
    }

    // What the tool's process has made, on the pinned mount point.
    void ShowMount(Outcome& result) const {
        const PinnedPath& target = *job.Find(Pin::kDirectory);
        const Result<OwnedFd> mount = Take(taker);
        if (!mount) {
            result.status = SR_FAIL;
            result.reason = target.pin.path + ": " + mount.Reason();
            return;
        }
        const Check placed = PutInPlace(*mount, target, !plan.bind);
        if (!placed) {
            result.exit = result.value = FailMount(target, placed.Reason());
            return;
        }
        const Check checked = CheckMount(*mount, target.pin.path, plan.requiredMountFlags);
        if (!checked) {
            result.status = SR_FAIL;
            result.reason = checked.Reason();
        }
    }

    static void Tell(ChildReport::Stage stage) {
        ChildReport report;
        report.stage = stage;
        (void)!write(kReport, &report, sizeof report);
    }

    // The report first: an answer must not wait for the line that goes to the output.
    [[noreturn]] static void Finish(const Outcome& outcome) {
        ChildReport report;
        report.stage = ChildReport::kFinished;
        report.status = outcome.status;
        report.exit = outcome.exit;
        report.signal = outcome.signal;
        if (outcome.status == SR_OK) {
            report.value = outcome.value;
        } else {
            (void)snprintf(report.reason, sizeof report.reason, "%s", outcome.reason.c_str());
        }
        (void)!write(kReport, &report, sizeof report);
        if (outcome.status != SR_OK) {
            const std::string line = outcome.reason + "\n";
            (void)!write(STDOUT_FILENO, line.data(), line.size());
        }
        _exit(0);
    }

    const Plan& plan;
    const Caller& caller;
    const ChildSetup& setup;
    Tool job;
    Child tool;
    OwnedFd taker;  // of a finished mount
    OwnedFd termination;
};

}  // namespace

[[noreturn]] void RunChild(const Permit& permit, const Caller& caller, const ChildSetup& setup,
                           pid_t parent) {
    RequestChild(permit, caller, setup).Run(parent);
}

}  // namespace agent
