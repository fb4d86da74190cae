// SPDX-License-Identifier: Apache-2.0
// Leads each request through the rooms behind the gate: parse, decide, run, answer. Every request
// gets its one answer and its lines in the audit.
//
// Ownership: holds each answer until it is given, and each request until its process has ended.
// Store, audit and loop are not owned and must outlive it. Threads: the one that runs the loop.
#ifndef SENTREL_AGENT_REQUESTS_H
#define SENTREL_AGENT_REQUESTS_H

#include <sentrel/SR_MainLoop.h>

#include <cstdint>
#include <map>
#include <memory>
#include <string>

#include "Audit.h"
#include "Executor.h"
#include "Mounts.h"
#include "Quota.h"
#include "Refusals.h"
#include "Relay.h"
#include "RuleStore.h"
#include "Service.h"

namespace agent {

struct Figures {
    std::size_t running = 0;
    std::size_t waiting = 0;
    std::size_t abandoned = 0;
    std::uint64_t served = 0;   // a tool was run
    std::uint64_t refused = 0;  // none was
};

class Requests {
public:
    Requests(sentrel::SR_MainLoop& mainLoop, const RuleStore& ruleStore, Audit& requestAudit,
             const QuotaLimits& limits);
    ~Requests();
    Requests(const Requests&) = delete;
    Requests& operator=(const Requests&) = delete;

    void Take(const Arrival& arrival);
    // Nothing new is taken on, what waits is refused and what runs is asked to end.
    void EndAll();
    // Whether every answer has been given.
    bool Settled() const;

    Figures GetFigures() const;
    std::vector<MountRecord> ListMounts() { return mounts.List(); }

private:
    struct Job;

    void Admit(const std::shared_ptr<Job>& job);
    void Refuse(Job& job, int status, const std::string& reason, const std::string& detail);
    void Launch(Job& job);
    void Done(std::uint64_t id, const Outcome& outcome);
    void Leave(std::uint64_t id);
    void WaitedTooLong(std::uint64_t id);
    void Record(const Job& job);

    sentrel::SR_MainLoop& loop;
    const RuleStore& store;
    Audit& audit;
    Relays relays;
    Refusals refusals;
    Quota quota;
    Mounts mounts;
    Executor executor;  // goes before the relays
    std::map<std::uint64_t, std::shared_ptr<Job> > jobs;
    std::uint64_t lastId = 0;
    std::uint64_t served = 0;
    std::uint64_t refused = 0;
    bool ending = false;
};

}  // namespace agent

#endif
