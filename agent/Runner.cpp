// SPDX-License-Identifier: Apache-2.0
//
// A job's life. A relay is started if there is an output, then the tool (a refusal has none: its
// one line is written into the pipe instead). When the tool has ended, the relay is told so and
// has a moment for its last writes; then the answer goes out. A tool that is late is asked to end
// (TERM), then made to (KILL), and its caller is answered whatever happened: a job whose tool
// cannot die stays in the list, without an answer, until the tool does.
//
// The handlers of a job's watches only change the job; jobs are destroyed by Turn() alone, outside
// any handler.

#include "Runner.h"

#include <poll.h>
#include <sentrel/SR_Status.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <csignal>

#include "Child.h"
#include "Relay.h"

namespace agent {

namespace {

typedef std::chrono::steady_clock Clock;
typedef std::chrono::milliseconds Milliseconds;

const std::size_t kMostJobs = 32;
const int kTick = 100;
// After the deadline, which is TERM's time.
const Milliseconds kKillAfter(2000);
const Milliseconds kAnswerAfter(2800);
// For the relay, from the end of the tool.
const Milliseconds kRelayTime(kLastWritesMilliseconds + 200);

}  // namespace

class Runner::Job {
public:
    Job(OwedAnswer owed, Clock::time_point end)
        : answer(std::move(owed)),
          deadline(end),
          late(false),
          killed(false),
          finishing(false),
          status(SR_FAIL),
          returnValue(0) {}

    // False when the relay could not be started; then there is nothing to run.
    bool StartRelay(sentrel::SR_MainLoop& mainLoop, const Output& output);
    void StartTool(sentrel::SR_MainLoop& mainLoop, const std::string& program,
                   const std::vector<std::string>& words);
    // Ends a job that runs no tool.
    void Say(int refusal, const std::string& line);

    // Does what its time has come for.
    void Check(Clock::time_point now);
    void End(Clock::time_point now) { deadline = std::min(deadline, now); }
    bool Answered() const { return answer == nullptr; }
    bool Done() const { return answer == nullptr && tool == nullptr; }

private:
    void ToolEnded();
    void RelayEnded();
    void LearnEnd();
    void Finish(int finalStatus, int finalValue);
    void GiveAnswer();

    OwedAnswer answer;
    Clock::time_point deadline;
    bool late;
    bool killed;
    bool finishing;                 // the outcome is known, the relay has its last writes
    Clock::time_point finishLimit;  // means something while finishing
    int status;
    int returnValue;
    Fd toolOutput;  // the pipe's write end, until the tool has it
    Fd report;      // where the tool's process says why it could not become the tool
    Fd relayEnd;    // closed to tell the relay that the tool has ended
    std::unique_ptr<Child> tool;
    std::unique_ptr<Child> relay;
    // After the children: a watch goes before the pidfd that it watches.
    std::unique_ptr<Watch> toolWatch;
    std::unique_ptr<Watch> relayWatch;
};

bool Runner::Job::StartRelay(sentrel::SR_MainLoop& mainLoop, const Output& output) {
    if (!output.descriptor.Open()) {
        return true;
    }
    Fd input;
    Fd endReader;
    if (!MakePipe(input, toolOutput) || !MakePipe(endReader, relayEnd)) {
        return false;
    }
    RelayStart start;
    start.input = input.Get();
    start.output = output.descriptor.Get();
    start.end = endReader.Get();
    start.uid = output.uid;
    start.groups = output.groups;
    const pid_t self = getpid();
    relay = Child::Fork([&start, self] { return BecomeRelay(start, self); });
    if (relay == nullptr) {
        return false;
    }
    relayWatch =
        std::make_unique<Watch>(relay->PidFd(), POLLIN, mainLoop, [this] { RelayEnded(); });
    return true;
}

void Runner::Job::StartTool(sentrel::SR_MainLoop& mainLoop, const std::string& program,
                            const std::vector<std::string>& words) {
    Fd reportWriter;
    if (!MakePipe(report, reportWriter) || fcntl(report.Get(), F_SETFL, O_NONBLOCK) != 0) {
        Finish(SR_FORK_FAILED, 0);
        return;
    }
    ToolStart start;
    start.program = program;
    start.words = words;
    start.output = toolOutput.Get();
    const int reportTo = reportWriter.Get();
    const pid_t self = getpid();
    tool = Child::Fork([&start, reportTo, self] { return BecomeTool(start, reportTo, self); });
    toolOutput.Close();
    if (tool == nullptr) {
        Finish(SR_FORK_FAILED, 0);
        return;
    }
    toolWatch = std::make_unique<Watch>(tool->PidFd(), POLLIN, mainLoop, [this] { ToolEnded(); });
}

void Runner::Job::Say(int refusal, const std::string& line) {
    if (toolOutput.Open()) {
        // Short, and the pipe is empty: this does not block.
        (void)write(toolOutput.Get(), line.data(), line.size());
        toolOutput.Close();
    }
    Finish(refusal, 0);
}

void Runner::Job::ToolEnded() {
    if (late) {
        // What is left of its group, while the unreaped child still holds the group's number.
        tool->SignalGroup(SIGKILL);
    }
    if (!tool->Ended()) {
        return;
    }
    toolWatch->Disable();
    LearnEnd();
}

void Runner::Job::LearnEnd() {
    int reason = 0;
    int code = 0;
    if (late) {
        Finish(SR_WAITPID_FAILED, 0);
    } else if (read(report.Get(), &reason, sizeof(reason)) == sizeof(reason)) {
        const bool missing = reason == ENOENT || reason == ENOTDIR;
        Finish(missing ? SR_FEATURE_ISNT_IMPLEMENTED : SR_FORK_FAILED, 0);
    } else if (tool->ExitCode(code)) {
        Finish(SR_OK, code);
    } else {
        Finish(SR_WAITPID_FAILED, 0);
    }
}

void Runner::Job::RelayEnded() {
    if (!relay->Ended()) {
        return;
    }
    relayWatch->Disable();
    if (finishing) {
        GiveAnswer();
    }
}

void Runner::Job::Finish(int finalStatus, int finalValue) {
    status = finalStatus;
    returnValue = finalValue;
    finishing = true;
    finishLimit = Clock::now() + kRelayTime;
    relayEnd.Close();
    if (relay == nullptr || relay->Ended()) {
        GiveAnswer();
    }
}

void Runner::Job::GiveAnswer() {
    if (answer != nullptr) {
        answer->Give(status, returnValue);
        answer.reset();
    }
}

void Runner::Job::Check(Clock::time_point now) {
    if (tool != nullptr && !tool->Ended()) {
        if (now >= deadline && !late) {
            late = true;
            tool->SignalGroup(SIGTERM);
        }
        if (now >= deadline + kKillAfter && !killed) {
            killed = true;
            tool->SignalGroup(SIGKILL);
        }
        if (now >= deadline + kAnswerAfter && answer != nullptr) {
            status = SR_WAITPID_FAILED;
            returnValue = 0;
            GiveAnswer();
        }
        return;
    }
    if (tool != nullptr && !finishing) {
        toolWatch->Disable();
        LearnEnd();
    }
    if (finishing && now >= finishLimit) {
        GiveAnswer();
    }
    if (answer == nullptr && tool != nullptr) {
        toolWatch.reset();
        tool.reset();
    }
}

Runner::Runner(sentrel::SR_MainLoop& mainLoop, int deadlineMilliseconds)
    : loop(mainLoop), deadline(deadlineMilliseconds), ending(false), tick(kTick, mainLoop) {}

Runner::~Runner() {}

bool Runner::Full() const {
    return ending || jobs.size() >= kMostJobs;
}

void Runner::Run(const Permit& /*permit*/, OwedAnswer answer, Output output,
                 const std::string& program, const std::vector<std::string>& words) {
    auto job = std::make_unique<Job>(std::move(answer), Clock::now() + Milliseconds(deadline));
    if (job->StartRelay(loop, output)) {
        job->StartTool(loop, program, words);
    } else {
        job->Say(SR_FORK_FAILED, std::string());
    }
    Keep(std::move(job));
}

void Runner::Refuse(OwedAnswer answer, Output output, int status, const std::string& reason) {
    if (Full()) {
        answer->Give(status, 0);
        return;
    }
    auto job = std::make_unique<Job>(std::move(answer), Clock::now() + Milliseconds(deadline));
    (void)job->StartRelay(loop, output);
    job->Say(status, "sentrel-agent: " + reason + "\n");
    Keep(std::move(job));
}

void Runner::Keep(std::unique_ptr<Job> job) {
    jobs.push_back(std::move(job));
    tick.Enable(true);
}

void Runner::Turn() {
    const Clock::time_point now = Clock::now();
    for (auto entry = jobs.begin(); entry != jobs.end();) {
        (*entry)->Check(now);
        entry = (*entry)->Done() ? jobs.erase(entry) : std::next(entry);
    }
    tick.Enable(!jobs.empty());
}

bool Runner::Settled() const {
    return std::all_of(jobs.begin(), jobs.end(), [](const auto& job) { return job->Answered(); });
}

void Runner::EndAll() {
    ending = true;
    for (const auto& job : jobs) {
        job->End(Clock::now());
    }
}

}  // namespace agent
