// SPDX-License-Identifier: Apache-2.0
//
// An operation ends twice: with its answer, and with its process. Ordinarily the process comes
// first; then its output gets a moment to arrive, and the answer goes out. When the last moment for
// an answer comes before, the answer goes out and the process is left to its end: a tool that the
// kernel does not let die cannot be helped, but it is counted until it is gone.
//
// The deadline itself is kept by the process (Child.cpp), so it holds even while this loop is busy.
#include "Executor.h"

#include <fcntl.h>
#include <sentrel/SR_Status.h>
#include <signal.h>

#include <algorithm>

#include "base/Process.h"

namespace agent {

struct Executor::Operation {
    std::uint64_t id = 0;
    TimePoint received;
    TimePoint answerBy;
    std::shared_ptr<Relay> output;
    Done done;
    Gone gone;
    OwnedFd report;
    OwnedFd pidfd;
    std::unique_ptr<Watch> end;
    std::unique_ptr<Timer> limit;
    std::unique_ptr<Timer> grace;
    ChildReport last;
    Outcome outcome;
    bool answered = false;
    bool ended = true;

    // Takes over what the process has reported until now.
    void ReadReports() {
        ChildReport next;
        while (read(report.Get(), &next, sizeof next) == static_cast<ssize_t>(sizeof next)) {
            last = next;
        }
    }

    void Fail(int status, const std::string& reason) {
        outcome.status = status;
        outcome.value = 0;
        outcome.reason = reason;
    }
};

Executor::Executor(sentrel::SR_MainLoop& mainLoop, const ExecutorLimits& executorLimits)
    : loop(mainLoop), limits(executorLimits) {}

Executor::~Executor() {
    for (auto& entry : operations) {
        Operation& operation = *entry.second;
        if (!operation.ended) {
            (void)SignalProcess(operation.pidfd.Get(), SIGKILL);
            operation.end.reset();
            (void)Reap(operation.pidfd.Get(), WNOHANG);  // it may be one that does not die
        }
        if (operation.output) {
            operation.output->OnEnd(nullptr);
        }
    }
}

void Executor::Start(Permit&& permit, const Caller& caller, const std::shared_ptr<Relay>& output,
                     TimePoint received, const Done& done, const Gone& gone) {
    const Permit granted(std::move(permit));
    const std::uint64_t id = ++lastId;
    Operation& operation = *(operations[id] = std::make_unique<Operation>());
    operation.id = id;
    operation.received = received;
    operation.output = output;
    operation.done = done;
    operation.gone = gone;
    const TimePoint deadline = received + granted.GetPlan().deadline;
    operation.answerBy = deadline + limits.answerAfter;
    if (deadline <= std::chrono::steady_clock::now()) {
        operation.Fail(SR_WAITPID_FAILED, "the deadline passed before the tool could start");
    } else if (Launch(operation, granted, caller, deadline)) {
        if (output) {
            output->CloseInput();
        }
        return;
    }
    if (output) {
        output->Say(operation.outcome.reason);
        output->CloseInput();
    }
    AwaitOutput(operation);
}

bool Executor::Launch(Operation& operation, const Permit& permit, const Caller& caller,
                      TimePoint deadline) {
    operation.Fail(SR_FORK_FAILED, "the tool's process cannot be started");
    int ends[2];
    if (pipe2(ends, O_CLOEXEC | O_NONBLOCK) != 0) {
        return false;
    }
    operation.report.Reset(ends[0]);
    const OwnedFd writer(ends[1]);
    const std::uint64_t id = operation.id;
    try {
        operation.limit =
            std::make_unique<Timer>(loop, operation.answerBy, [this, id] { LimitReached(id); });
    } catch (const std::system_error&) {
        return false;
    }
    ChildSetup setup;
    setup.output = operation.output ? operation.output->GetInput() : -1;
    setup.report = writer.Get();
    setup.deadline = deadline;
    setup.killAfter = limits.killAfter;
    setup.parent = getpid();
    const pid_t child = fork();
    if (child < 0) {
        return false;
    }
    if (child == 0) {
        RunChild(permit, caller, setup);
    }
    operation.pidfd.Reset(OpenProcess(child));
    if (!operation.pidfd) {
        // The kernel may not let it end now, or ever, so it is not waited for.
        (void)kill(child, SIGKILL);
        (void)waitpid(child, nullptr, WNOHANG);
        return false;
    }
    operation.end =
        std::make_unique<Watch>(loop, operation.pidfd.Get(), [this, id] { ProcessEnded(id); });
    operation.ended = false;
    operation.outcome = Outcome();
    return true;
}

void Executor::ProcessEnded(std::uint64_t id) {
    Operation& operation = *operations.at(id);
    operation.end.reset();
    Reap(operation.pidfd.Get());
    operation.ended = true;
    operation.ReadReports();
    if (operation.answered) {
        const std::unique_ptr<Operation> kept = std::move(operations.at(id));
        operations.erase(id);
        kept->gone();
        return;
    }
    if (operation.last.stage == ChildReport::kFinished) {
        operation.outcome.status = operation.last.status;
        operation.outcome.value = operation.last.value;
        operation.outcome.exit = operation.last.exit;
        operation.outcome.signal = operation.last.signal;
        operation.outcome.reason = operation.last.reason;
    } else {
        operation.Fail(SR_WAITPID_FAILED, "the tool's end could not be learned");
    }
    AwaitOutput(operation);
}

void Executor::AwaitOutput(Operation& operation) {
    const std::uint64_t id = operation.id;
    if (!operation.output || operation.output->Ended()) {
        Deliver(id);
        return;
    }
    try {
        operation.grace = std::make_unique<Timer>(
            loop, std::min(std::chrono::steady_clock::now() + limits.grace, operation.answerBy),
            [this, id] { Deliver(id); });
    } catch (const std::system_error&) {
        Deliver(id);
        return;
    }
    operation.output->OnEnd([this, id] { Deliver(id); });
}

void Executor::LimitReached(std::uint64_t id) {
    Operation& operation = *operations.at(id);
    if (!operation.ended) {
        operation.ReadReports();
        // While its tool runs the process does what can be done, and stays until it is over. In any
        // other stage it hangs itself, over a path.
        if (operation.last.stage != ChildReport::kToolStarting) {
            (void)SignalProcess(operation.pidfd.Get(), SIGKILL);
        }
        operation.Fail(SR_WAITPID_FAILED, "the deadline passed and the tool did not end");
    }
    Deliver(id);
}

void Executor::Deliver(std::uint64_t id) {
    Operation& operation = *operations.at(id);
    operation.answered = true;
    operation.limit.reset();
    operation.grace.reset();
    Outcome outcome = operation.outcome;
    outcome.duration = std::chrono::duration_cast<std::chrono::milliseconds>(
        std::chrono::steady_clock::now() - operation.received);
    if (operation.output) {
        outcome.outBytes = operation.output->Copied();
        outcome.droppedBytes = operation.output->Dropped();
        operation.output->OnEnd(nullptr);
        operation.output->Abandon();
        operation.output.reset();
    }
    const Done done = std::move(operation.done);
    if (!operation.ended) {
        done(outcome);
        return;
    }
    const std::unique_ptr<Operation> kept = std::move(operations.at(id));
    operations.erase(id);
    done(outcome);
    kept->gone();
}

void Executor::EndAll() {
    for (auto& entry : operations) {
        if (!entry.second->ended) {
            (void)SignalProcess(entry.second->pidfd.Get(), SIGTERM);
        }
    }
}

std::size_t Executor::Running() const {
    return static_cast<std::size_t>(
        std::count_if(operations.begin(), operations.end(),
                      [](const auto& entry) { return !entry.second->ended; }));
}

std::size_t Executor::Abandoned() const {
    return static_cast<std::size_t>(std::count_if(
        operations.begin(), operations.end(),
        [](const auto& entry) { return !entry.second->ended && entry.second->answered; }));
}

}  // namespace agent
