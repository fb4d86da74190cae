// SPDX-License-Identifier: Apache-2.0
// Leads each request through the rooms behind the gate: parse, look at the caller, decide, run,
// answer. Every request gets one answer at the most and its lines in the audit. The look happens in
// another process (Relay.h), so one that hangs holds up nobody but its own connection, and that not
// long.
//
// Ownership: holds each answer until it is given, and each request until its process has ended.
// Store, audit and loop are not owned and must outlive it. Threads: the one that runs the loop.
#ifndef SENTREL_AGENT_REQUESTS_H
#define SENTREL_AGENT_REQUESTS_H

#include <sentrel/SR_MainLoop.h>

#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <string>

#include "Mounts.h"
#include "Quota.h"
#include "answer/Audit.h"
#include "answer/Refusals.h"
#include "answer/Strangers.h"
#include "base/Outcome.h"
#include "base/Result.h"
#include "gate/Service.h"
#include "parse/Parse.h"
#include "relay/Relay.h"
#include "rules/RuleStore.h"
#include "run/Executor.h"

namespace agent {

struct Figures {
    std::size_t running = 0;
    std::size_t waiting = 0;
    std::size_t abandoned = 0;  // processes that do not end; answered long ago
    std::uint64_t served = 0;   // a tool was run
    std::uint64_t refused = 0;  // none was
};

class Requests : public RequestTaker {
public:
    Requests(sentrel::SR_MainLoop& loop_, const RuleStore& store_, Audit& audit_,
             const QuotaLimits& limits);
    Requests(const Requests&) = delete;
    Requests& operator=(const Requests&) = delete;

    void Take(const Arrival& arrival) override;
    void TakeUnknown(const std::string& sender, const std::optional<Call>& call,
                     const std::string& reason) override;
    void TakeTooMany(uid_t uid) override;
    void TakeLeftAlone(uid_t uid, std::size_t unreadBytes) override;
    // Calls `known` once, with what the rules for the operation need of the caller's process and
    // account or, when that does not come, without. False, and never a call, when there is no room
    // for that.
    bool LearnOf(const Caller& caller, const std::string& operation,
                 const std::function<void(const Caller&)>& known);
    // Nothing new is taken on, what waits is refused and what runs is asked to end.
    void EndAll();
    // Whether every answer has been given.
    bool Settled() const;

    Figures GetFigures() const;
    std::vector<MountRecord> ListMounts() { return mounts.List(); }

private:
    struct Job;

    Check MayLook(uid_t uid) const;
    void TurnAway(const Arrival& arrival);
    void Looked(std::uint64_t id, const CallerFacts& facts);
    void Decide(const std::shared_ptr<Job>& job);
    void Drop(const Job& job);
    void Admit(const std::shared_ptr<Job>& job);
    void WaitedTooLong(std::uint64_t id);
    void Refuse(const std::shared_ptr<Job>& job, const Refusal& refusal);
    // `detail` is for the audit only.
    void Refuse(const std::shared_ptr<Job>& job, const Refusal& refusal, const std::string& detail);
    void Launch(Job& job);
    void Done(std::uint64_t id, const Outcome& outcome);
    void Gone(std::uint64_t id);
    void LeavePlace(const Job& job);
    void Record(const Job& job);

    sentrel::SR_MainLoop& loop;
    const RuleStore& store;
    Audit& audit;
    Relays relays;
    Refusals refusals;
    Strangers strangers;
    Quota quota;
    Mounts mounts;
    Executor executor;                                   // goes before the relays
    std::map<std::uint64_t, std::shared_ptr<Job>> jobs;  // in the order of arrival
    std::uint64_t lastId = 0;
    std::uint64_t served = 0;
    std::uint64_t refused = 0;
    bool ending = false;
};

// Why a text cannot be read. The parser's own words may quote the text, so where that mentions a
// password they are not for a log nor for another's eyes.
std::string ReasonOf(const Parsed& parsed, const AuditRequest& described);
// Fills in the arguments as the audit shows them, from the text and its words, which Parse() gives.
void DescribeArguments(const std::string& text,
                       const std::optional<std::vector<std::string>>& words, bool parsed,
                       AuditRequest& audit);

}  // namespace agent

#endif
