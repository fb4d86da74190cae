// SPDX-License-Identifier: Apache-2.0
#include "Requests.h"

#include <sentrel/SR_Status.h>

#include <algorithm>
#include <optional>

#include "relay/Descriptor.h"
#include "rules/Database.h"

namespace agent {

struct Requests::Job {
    std::uint64_t id = 0;
    Arrival arrival;
    Parsed parsed;
    std::optional<CallerFacts> look;
    std::optional<Permit> permit;
    std::shared_ptr<Relay> relay;  // none: no output
    AuditRequest audit;
    std::unique_ptr<Timer> wait;  // while it waits for a place
    bool launched = false;
};

namespace {

// No fewer than the quota lets run and wait, each of which keeps its relay.
RelayLimits LimitsFor(const QuotaLimits& quota) {
    RelayLimits limits;
    limits.ofOne = std::max(limits.ofOne, quota.running + quota.waiting);
    limits.unsure = std::max(limits.unsure, quota.running + quota.waiting);
    limits.all = std::max(limits.all, limits.ofOne);
    return limits;
}

RelayTask TaskFor(const Caller& caller, int descriptor, const AccountQuestions& questions) {
    RelayTask task;
    task.questions = questions;
    task.account = [uid = caller.uid, questions] { return LookUp(Database(), uid, questions); };
    task.executable = [caller] { return caller.pid > 0 ? ExecutableOf(caller.pid) : ""; };
    if (descriptor > 0) {
        task.output = [caller, descriptor] { return TakeDescriptor(caller, descriptor); };
    }
    return task;
}

}  // namespace

// A word behind one that holds a password may be a piece of it when the text makes no sense.
void DescribeArguments(const std::string& text,
                       const std::optional<std::vector<std::string>>& words, bool parsed,
                       AuditRequest& audit) {
    audit.split = words.has_value();
    audit.arguments = words.value_or(std::vector<std::string>{text});
    for (std::size_t i = 0; audit.split && !parsed && i < audit.arguments.size(); ++i) {
        if (Audit::Redact(audit.arguments[i], true) != audit.arguments[i]) {
            audit.arguments.resize(i + 1);
        }
    }
}

std::string ReasonOf(const Parsed& parsed, const AuditRequest& described) {
    return Audit::HidesSome(described) ? "the arguments cannot be read" : parsed.error;
}

Requests::Requests(sentrel::SR_MainLoop& mainLoop, const RuleStore& ruleStore, Audit& requestAudit,
                   const QuotaLimits& limits)
    : loop(mainLoop),
      store(ruleStore),
      audit(requestAudit),
      relays(mainLoop, LimitsFor(limits)),
      strangers(mainLoop, requestAudit),
      quota(limits),
      executor(mainLoop, ExecutorLimits()) {}

void Requests::Take(const Arrival& arrival) {
    if (arrival.turn != Turn::kTaken) {
        return TurnAway(arrival);
    }
    const std::shared_ptr<Job> job = std::make_shared<Job>();
    job->id = ++lastId;
    job->arrival = arrival;
    job->audit.id = job->id;
    job->audit.uid = arrival.caller.uid;
    job->audit.pid = arrival.caller.pid;
    job->audit.operation = arrival.call.operation;
    job->parsed = Parse(arrival.call.operation, arrival.call.text);
    DescribeArguments(arrival.call.text, job->parsed.words, job->parsed.status == SR_OK,
                      job->audit);
    const Check room = ending ? Refusal{"the agent is ending"} : relays.HasRoom(arrival.caller.uid);
    if (!room) {
        return Refuse(*job, room.Status(), room.Reason(), room.Reason());
    }
    const std::uint64_t id = job->id;
    const AccountQuestions questions = store.QuestionsOf(arrival.call.operation);
    const auto started =
        relays.Start(TaskFor(arrival.caller, arrival.call.descriptor, questions), arrival.caller,
                     [this, id](const CallerFacts& facts) { Looked(id, facts); });
    if (!started) {
        return Refuse(*job, started.Status(), started.Reason(), started.Reason());
    }
    looking[id] = job;
}

// Costs next to nothing: only the first of a second is told why.
void Requests::TurnAway(const Arrival& arrival) {
    arrival.answer->Set(SR_FAIL, 0);
    const Caller& caller = arrival.caller;
    if (arrival.turn == Turn::kFirstAway && arrival.call.descriptor > 0 && !ending &&
        relays.HasRoom(caller.uid)) {
        // The answer goes with the last copy of this: not before the reason was said.
        const auto say = [this, uid = caller.uid,
                          answer = arrival.answer](const CallerFacts& facts) {
            refusals.Say(uid, facts.output, "too many calls in a minute");
        };
        (void)relays.Start(TaskFor(caller, arrival.call.descriptor, AccountQuestions()), caller,
                           say);
    }
}

void Requests::TakeUnknown(const std::string& sender, const std::optional<Call>& call,
                           const std::string& reason) {
    ++refused;
    const auto describe = [&] {
        AuditRequest request;
        request.id = ++lastId;
        if (call) {
            request.operation = call->operation;
            const Parsed parsed = Parse(call->operation, call->text);
            DescribeArguments(call->text, parsed.words, false, request);
        }
        return request;
    };
    strangers.Unknown(describe, reason + ": " + sender);
}

void Requests::TakeTooMany(uid_t uid) {
    ++refused;
    strangers.TooMany(uid);
}

void Requests::TakeLeftAlone(uid_t uid, std::size_t unreadBytes) {
    AuditRequest request;
    request.id = ++lastId;
    request.uid = uid;
    audit.Denied(request, SR_FAIL,
                 "does not read its answers: left alone until it does, with " +
                     std::to_string(unreadBytes) + " bytes unread");
}

bool Requests::LookAt(const Caller& caller, const std::string& operation,
                      const std::function<void(const Caller&)>& known) {
    const auto found = [caller, known](const CallerFacts& facts) {
        Caller whole = caller;
        whole.executable = facts.executable;
        whole.account = facts.account;
        known(whole);
    };
    return relays.HasRoom(caller.uid) &&
           relays.Start(TaskFor(caller, 0, store.QuestionsOf(operation)), caller, found);
}

// A look may take longer than the next one; what came over one connection keeps its order.
void Requests::Looked(std::uint64_t id, const CallerFacts& facts) {
    const auto entry = looking.find(id);
    if (entry == looking.end()) {
        if (facts.output) {
            facts.output->Kill();  // refused in the meantime
        }
        return;
    }
    entry->second->look = facts;
    entry->second->look->output.reset();
    entry->second->relay = facts.output;
    const std::string sender = entry->second->arrival.call.sender;
    std::vector<std::shared_ptr<Job>> ready;
    for (auto next = looking.begin(); next != looking.end();) {
        if (next->second->arrival.call.sender != sender) {
            ++next;
        } else if (next->second->look) {
            ready.push_back(next->second);
            next = looking.erase(next);
        } else {
            break;
        }
    }
    for (const std::shared_ptr<Job>& job : ready) {
        Decide(job);
    }
}

void Requests::Decide(const std::shared_ptr<Job>& job) {
    Caller& caller = job->arrival.caller;
    caller.executable = job->look->executable;
    caller.account = job->look->account;
    job->audit.executable = caller.executable;
    if (job->parsed.status != SR_OK) {
        const std::string reason = ReasonOf(job->parsed, job->audit);
        return Refuse(*job, job->parsed.status, reason, reason);
    }
    Decision decision = store.Decide(caller, job->parsed.request);
    job->audit.rule = decision.rule;
    if (!decision.permit) {
        // The detail may name an option by its value.
        return Refuse(*job, decision.status, decision.reason,
                      Audit::HidesSome(job->audit) ? decision.reason : decision.detail);
    }
    if (!job->look->refusal.empty()) {
        return Refuse(*job, SR_FAIL, job->look->refusal, job->look->refusal);
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
    Result<std::unique_ptr<Timer>> wait =
        Timer::Make(loop, job->arrival.received + job->permit->GetPlan().deadline,
                    [this, id] { WaitedTooLong(id); });
    if (!wait) {
        Refuse(*job, SR_FAIL, "the agent has no descriptors left", wait.Reason());
        return Leave(id);
    }
    job->wait = std::move(*wait);
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
    refusals.Say(job.arrival.caller.uid, job.relay, reason);
    job.relay.reset();
    job.arrival.answer->Set(status, 0);
    job.arrival.answer.reset();
}

void Requests::Launch(Job& job) {
    job.wait.reset();
    job.launched = true;
    audit.Before(job.audit);
    ++served;
    const std::uint64_t id = job.id;
    const std::shared_ptr<Relay> relay = std::move(job.relay);
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
    const Request& request = job.parsed.request;
    const MountChange change = RowOf(request.operation).mounts;
    if (change == MountChange::kRemoves) {
        mounts.Remove(request.target);
    } else if (change != MountChange::kNone) {
        MountRecord record;
        record.target = request.target;
        record.source = request.source;
        record.type = request.type;
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
    strangers.Flush();
    std::vector<std::shared_ptr<Job>> waiting;
    for (const auto& entry : looking) {
        waiting.push_back(entry.second);
    }
    looking.clear();
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
    figures.abandoned = executor.Abandoned() + relays.Hung();
    figures.served = served;
    figures.refused = refused;
    return figures;
}

}  // namespace agent
