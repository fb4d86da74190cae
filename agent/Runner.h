// SPDX-License-Identifier: Apache-2.0
// The fourth room: runs tools as children, each with a relay for its output, and answers when they
// have ended. Nothing here waits: what is to be done is done when the loop reports an end or when
// its time has come.
//
// Ownership: holds the answer of every request that is under way. Lives on the loop's thread; the
// loop must outlive it.
#ifndef SENTREL_AGENT_RUNNER_H
#define SENTREL_AGENT_RUNNER_H

#include <sentrel/SR_MainLoop.h>
#include <sys/types.h>

#include <list>
#include <memory>
#include <string>
#include <vector>

#include "Answer.h"
#include "Decider.h"
#include "Fd.h"
#include "Watch.h"

namespace agent {

// Where output goes, and with whose rights. A descriptor that is not open: nowhere.
struct Output {
    Fd descriptor;
    uid_t uid = 0;
    std::vector<gid_t> groups;
};

class Runner {
public:
    // A tool that has not ended after `deadlineMilliseconds` is ended.
    Runner(sentrel::SR_MainLoop& mainLoop, int deadlineMilliseconds);
    ~Runner();
    Runner(const Runner&) = delete;
    Runner& operator=(const Runner&) = delete;

    // Whether no more can be taken on; a refusal is then answered without a text.
    bool Full() const;

    // Starts `program` (an absolute path) and answers when it has ended.
    void Run(const Permit& permit, OwedAnswer answer, Output output, const std::string& program,
             const std::vector<std::string>& words);
    // Writes `reason` as a line to the output, then answers `status`.
    void Refuse(OwedAnswer answer, Output output, int status, const std::string& reason);

    // To be called in every turn of the loop.
    void Turn();
    // The time of everything under way is over from now on, and nothing new is taken on.
    void EndAll();
    // Whether every request has been answered. A tool that cannot die may be left.
    bool Settled() const;

private:
    class Job;

    void Keep(std::unique_ptr<Job> job);

    sentrel::SR_MainLoop& loop;  // not owned
    int deadline;
    bool ending;
    Tick tick;
    std::list<std::unique_ptr<Job> > jobs;
};

}  // namespace agent

#endif
