// SPDX-License-Identifier: Apache-2.0
//
// An operation ends twice: with its answer, and with its process. Ordinarily the process comes
// first; then its output gets a moment to arrive, and the answer goes out. When the last moment for
// an answer comes before, the answer goes out and the process is left to its end: a tool that the
// kernel does not let die cannot be helped, but it is counted until it is gone.
//
// The deadline itself is kept by the process (Child.cpp), so it holds even while this loop is busy.
#include "Executor.h"

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
    Child child;  // none: none was started; behind the report, so that it is killed first
    std::unique_ptr<Watch> end;
    std::unique_ptr<Timer> limit;
    std::unique_ptr<Timer> grace;
    ChildReport last;
    Outcome outcome;
    bool answered = false;

    bool HasEnded() const { return !child; }

    // Takes over what the process has reported until now. Each report is one write of less than
    // PIPE_BUF, so it comes whole or not at all, also from a process that is killed.
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

Executor::Executor(sentrel::SR_MainLoop& loop_, const ExecutorLimits& limits_)
    : loop(loop_), limits(limits_) {}

Executor::~Executor() {
    // The children are killed with their operations.
    for (auto& entry : operations) {
        if (entry.second->output) {
            entry.second->output->OnEnd(nullptr);
        }
    }
}

void Executor::Start(Permit&& permit, const Caller& caller, const std::shared_ptr<Relay>& output,
                     TimePoint received, const Done& done, const Gone& gone) {
    // Used up here, whatever comes of it: a permit starts one tool.
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
    // What may fail is had before there is a process: one without a limit could hold up its caller
    // for ever.
    const std::uint64_t id = operation.id;
    Result<Pipe> report = OpenPipe(Reading::kNeverWaits);
    Result<std::unique_ptr<Timer> > limit =
        Timer::Make(loop, operation.answerBy, [this, id] { LimitReached(id); });
    if (!report || !limit) {
        return false;
    }
    operation.report = std::move(report->reader);
    operation.limit = std::move(*limit);
    ChildSetup setup;
    setup.output = operation.output ? operation.output->GetInput() : -1;
    setup.report = report->writer.Get();
    setup.deadline = deadline;
    setup.killAfter = limits.killAfter;
    Result<Child> child =
        Child::Fork([&](pid_t parent) { RunChild(permit, caller, setup, parent); });
    if (!child) {
        return false;
    }
    operation.child = std::move(*child);
    operation.end = std::make_unique<Watch>(loop, operation.child.GetDescriptor(),
                                            [this, id] { ProcessEnded(id); });
    operation.outcome = Outcome();
    return true;
}

// Handlers know an operation by its number: `done` and `gone` belong to others, who may start and
// end operations while they run.
void Executor::ProcessEnded(std::uint64_t id) {
    Operation& operation = *operations.at(id);
    operation.end.reset();
    // Reaped only now that the loop does not watch it any more.
    (void)operation.child.Reap();
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
        // It was killed, or failed where it could not say so. A tool that it had started died with
        // it; what that had done by then nobody knows.
        operation.Fail(SR_WAITPID_FAILED, "the tool's end could not be learned");
    }
    AwaitOutput(operation);
}

// The answer tells how many bytes have come, so the relay gets a moment for the last of them; no
// more than that, since the reader is the caller's and may never read.
void Executor::AwaitOutput(Operation& operation) {
    const std::uint64_t id = operation.id;
    if (!operation.output || operation.output->Ended()) {
        Deliver(id);
        return;
    }
    Result<std::unique_ptr<Timer> > grace = Timer::Make(
        loop, std::min(std::chrono::steady_clock::now() + limits.grace, operation.answerBy),
        [this, id] { Deliver(id); });
    if (!grace) {
        return Deliver(id);
    }
    operation.grace = std::move(*grace);
    operation.output->OnEnd([this, id] { Deliver(id); });
}

void Executor::LimitReached(std::uint64_t id) {
    Operation& operation = *operations.at(id);
    if (!operation.HasEnded()) {
        operation.ReadReports();
        // While its tool runs the process does what can be done, and stays until it is over. In any
        // other stage it hangs itself, over a path.
        if (operation.last.stage != ChildReport::kToolStarting) {
            operation.child.Signal(SIGKILL);
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
    // `done` may end the program's loop or start the next request; behind it nothing of this
    // operation is touched but what is held here.
    const Done done = std::move(operation.done);
    if (!operation.HasEnded()) {
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
        entry.second->child.Signal(SIGTERM);
    }
}

std::size_t Executor::Running() const {
    return static_cast<std::size_t>(
        std::count_if(operations.begin(), operations.end(),
                      [](const auto& entry) { return !entry.second->HasEnded(); }));
}

std::size_t Executor::Abandoned() const {
    return static_cast<std::size_t>(std::count_if(
        operations.begin(), operations.end(),
        [](const auto& entry) { return !entry.second->HasEnded() && entry.second->answered; }));
}

}  // namespace agent
