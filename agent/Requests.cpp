// SPDX-License-Identifier: Apache-2.0
#include "Requests.h"

#include <sentrel/SR_Status.h>

#include <algorithm>
#include <optional>
#include <system_error>

#include "Descriptor.h"
#include "Grammar.h"
#include "Words.h"

namespace agent {

struct Requests::Job {
    std::uint64_t id = 0;
    Arrival arrival;
    Request request;
    std::optional<Permit> permit;
    OwnedFd output;
    AuditRequest audit;
    std::unique_ptr<Timer> wait;  // while it waits for a place
    bool launched = false;
};

namespace {

// A word behind one that holds a password may be a piece of it when the text makes no sense.
void DescribeArguments(const std::string& text, bool parsed, AuditRequest& audit) {
    std::string error;
    audit.split = SplitWords(text, audit.arguments, error);
    if (!audit.split) {
        audit.arguments = {text};
        return;
    }
    for (std::size_t i = 0; !parsed && i < audit.arguments.size(); ++i) {
        if (Audit::Redact(audit.arguments[i], true) != audit.arguments[i]) {
            audit.arguments.resize(i + 1);
        }
    }
}

}  // namespace

Requests::Requests(sentrel::SR_MainLoop& mainLoop, const RuleStore& ruleStore, Audit& requestAudit,
                   const QuotaLimits& limits)
    : loop(mainLoop),
      store(ruleStore),
      audit(requestAudit),
      relays(mainLoop, RelayLimits()),
      refusals(relays),
      quota(limits),
      executor(mainLoop, ExecutorLimits()) {}

Requests::~Requests() {}

void Requests::Take(const Arrival& arrival) {
    const std::shared_ptr<Job> job = std::make_shared<Job>();
    job->id = ++lastId;
    job->arrival = arrival;
    job->audit.id = job->id;
    job->audit.uid = arrival.caller.uid;
    job->audit.pid = arrival.caller.pid;
    job->audit.executable = arrival.caller.executable;
    job->audit.agent = arrival.call.agent;
    Descriptor taken = TakeDescriptor(arrival.caller, arrival.call.descriptor);
    job->output = std::move(taken.fd);

    const Parsed parsed = Parse(arrival.call.agent, arrival.call.text);
    DescribeArguments(arrival.call.text, parsed.status == kOk, job->audit);
    if (parsed.status != kOk) {
        return Refuse(*job, parsed.status, parsed.error, parsed.error);
    }
    job->request = parsed.request;
    Decision decision = store.Decide(arrival.caller, parsed.request);
    job->audit.rule = decision.rule;
    if (!decision.permit) {
        return Refuse(*job, decision.status, decision.reason, decision.detail);
    }
    if (!taken.refusal.empty()) {
        return Refuse(*job, SR_FAIL, taken.refusal, taken.refusal);
    }
    job->permit.emplace(std::move(*decision.permit));
    Admit(job);
}

void Requests::Admit(const std::shared_ptr<Job>& job) {
    std::string reason = "the agent is ending";
    const uid_t uid = job->arrival.caller.uid;
    const Quota::Entry entry =
        ending ? Quota::Entry::kRefused
               : quota.Enter(uid, job->id, std::chrono::steady_clock::now(), reason);
    if (entry == Quota::Entry::kRefused) {
        return Refuse(*job, SR_FAIL, reason, reason);
    }
    jobs[job->id] = job;
    if (entry == Quota::Entry::kRun) {
        return Launch(*job);
    }
    // Those ahead may never end; whoever waits still gets an answer in time.
    const std::uint64_t id = job->id;
    try {
        job->wait =
            std::make_unique<Timer>(loop, job->arrival.received + job->permit->GetPlan().deadline,
                                    [this, id] { WaitedTooLong(id); });
    } catch (const std::system_error&) {
        Refuse(*job, SR_FAIL, "the agent has no descriptors left", "no timer could be made");
        Leave(id);
    }
}

void Requests::WaitedTooLong(std::uint64_t id) {
    const std::shared_ptr<Job> job = jobs.at(id);
    const std::string reason = "the deadline passed while other requests were ahead";
    Refuse(*job, SR_WAITPID_FAILED, reason, reason);
    Leave(id);
}

void Requests::Refuse(Job& job, int status, const std::string& reason, const std::string& detail) {
    ++refused;
    audit.Denied(job.audit, status, detail);
    refusals.Say(job.arrival.caller, std::move(job.output), reason);
    job.arrival.answer->Set(status, 0);
    job.arrival.answer.reset();
}

void Requests::Launch(Job& job) {
    job.wait.reset();
    job.launched = true;
    audit.Before(job.audit);
    ++served;
    const std::uint64_t id = job.id;
    std::shared_ptr<Relay> relay;
    if (job.output) {
        relay = relays.Start(std::move(job.output), job.arrival.caller);
        if (!relay) {
            Outcome failed;
            failed.status = SR_FORK_FAILED;
            failed.reason = "the output's process cannot be started";
            Done(id, failed);
            Leave(id);
            return;
        }
    }
    executor.Start(
        std::move(*job.permit), job.arrival.caller, relay, job.arrival.received,
        [this, id](const Outcome& outcome) { Done(id, outcome); }, [this, id] { Leave(id); });
}

void Requests::Done(std::uint64_t id, const Outcome& outcome) {
    Job& job = *jobs.at(id);
    AuditResult result;
    result.status = outcome.status;
    result.exit = outcome.exit;
    result.signal = outcome.signal;
    result.duration = outcome.duration;
    result.outBytes = outcome.outBytes;
    result.droppedBytes = outcome.droppedBytes;
    result.reason = outcome.reason;
    audit.After(job.audit, result);
    if (outcome.status == SR_OK && outcome.value == 0) {
        Record(job);
    }
    job.arrival.answer->Set(outcome.status, outcome.value);
    job.arrival.answer.reset();
}

void Requests::Record(const Job& job) {
    const Request& request = job.request;
    if (request.agent == "sr_umount" || request.agent == "sr_umount_cifs") {
        mounts.Remove(request.target);
    } else if (request.agent == "sr_mount" || request.agent == "sr_mount_cifs") {
        MountRecord record;
        record.target = request.target;
        record.source = request.source;
        record.type = request.agent == "sr_mount" ? request.type : "cifs";
        record.rule = job.audit.rule;
        record.uid = job.arrival.caller.uid;
        mounts.Add(record);
    }
}

// Nothing is left of the request: its place is free for those that wait.
void Requests::Leave(std::uint64_t id) {
    const auto entry = jobs.find(id);
    if (entry == jobs.end()) {
        return;
    }
    const std::shared_ptr<Job> job = entry->second;
    jobs.erase(entry);
    for (const std::uint64_t next : quota.Leave(job->arrival.caller.uid, id)) {
        const auto waiting = jobs.find(next);
        if (waiting != jobs.end()) {
            Launch(*waiting->second);
        }
    }
}

void Requests::EndAll() {
    if (ending) {
        return;
    }
    ending = true;
    std::vector<std::shared_ptr<Job> > waiting;
    for (auto entry = jobs.begin(); entry != jobs.end();) {
        if (entry->second->launched) {
            if (entry->second->arrival.answer) {
                // For one that does not end in time.
                entry->second->arrival.answer->Set(SR_WAITPID_FAILED, 0);
            }
            ++entry;
        } else {
            waiting.push_back(entry->second);
            entry = jobs.erase(entry);
        }
    }
    for (const std::shared_ptr<Job>& job : waiting) {
        Refuse(*job, SR_FAIL, "the agent is ending", "the agent is ending");
    }
    executor.EndAll();
}

bool Requests::Settled() const {
    return std::none_of(jobs.begin(), jobs.end(),
                        [](const auto& entry) { return entry.second->arrival.answer != nullptr; });
}

Figures Requests::GetFigures() const {
    Figures figures;
    figures.running = executor.Running();
    figures.waiting = quota.Waiting();
    figures.abandoned = executor.Abandoned();
    figures.served = served;
    figures.refused = refused;
    return figures;
}

}  // namespace agent
