// SPDX-License-Identifier: Apache-2.0
// Runs what a permit allows, each request in a process of its own, and tells how it ended.
//
// Ownership: an operation lives here from Start() until its process has ended, also when its answer
// was given long before. The destructor kills the processes that are left, waits for none and calls
// nothing. The loop and the relays must outlive the executor. Threads: the one that runs the loop,
// the only one of the program: processes are made by fork.
#ifndef SENTREL_AGENT_EXECUTOR_H
#define SENTREL_AGENT_EXECUTOR_H

#include <chrono>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <string>

#include "Child.h"
#include "base/Caller.h"
#include "base/Descriptors.h"
#include "base/Events.h"
#include "base/Outcome.h"
#include "base/Permit.h"
#include "relay/Relay.h"

namespace agent {

struct ExecutorLimits {
    // From the deadline: the killing signal after the polite one, and the answer, whatever happens.
    std::chrono::milliseconds killAfter{2000};
    std::chrono::milliseconds answerAfter{3000};
    // From the tool's end: how long its output may take to arrive before the answer.
    std::chrono::milliseconds grace{1000};
};

class Executor {
public:
    typedef std::chrono::steady_clock::time_point TimePoint;
    typedef std::function<void(const Outcome&)> Done;
    typedef std::function<void()> Gone;

    Executor(sentrel::SR_MainLoop& loop_, const ExecutorLimits& limits_);
    Executor(const Executor&) = delete;
    Executor& operator=(const Executor&) = delete;
    ~Executor();

    // The deadline counts from `received`. `output` may be null. `done` is called once, with the
    // answer; `gone` once, after it, when nothing of the operation is left. Both may be called
    // before Start() returns, when nothing could be started.
    void Start(Permit&& permit, const Caller& caller, const std::shared_ptr<Relay>& output,
               TimePoint received, const Done& done, const Gone& gone);

    // Asks every operation to end: the tool gets the polite signal, and what follows the deadline.
    void EndAll();

    // Processes that have not ended; and those of them whose answer had to be given before.
    std::size_t Running() const;
    std::size_t Abandoned() const;

private:
    struct Operation;

    bool Launch(Operation& operation, const Permit& permit, const Caller& caller,
                TimePoint deadline);
    void ProcessEnded(std::uint64_t id);
    void LimitReached(std::uint64_t id);
    void Deliver(std::uint64_t id);
    void AwaitOutput(Operation& operation);

    sentrel::SR_MainLoop& loop;
    ExecutorLimits limits;
    std::uint64_t lastId = 0;
    std::map<std::uint64_t, std::unique_ptr<Operation> > operations;
};

}  // namespace agent

#endif
