// SPDX-License-Identifier: Apache-2.0
//
// A request is a Job here, from its arrival until nothing of it is left. It passes through these
// states, downwards only; each is ended by whom it names:
//
//   kArrived   nothing is begun. Take() has a process look at the caller, or refuses.
//   kLooking   that process works. The relay tells what it found, within its limit.
//   kLooked    earlier ones of the same sender still look. The last of them to be known has this
//              one decided: it is refused, runs, or waits for a place.
//   kWaiting   it has a permit and no place. A job that leaves its place starts it, or its deadline
//              refuses it.
//   kRunning   the executor has it, and says what the answer is, in time in any case.
//   kAnswered  its process has not ended yet, and keeps the place. The executor says when it has.
//   kGone      whoever still speaks of it is not heard.
//
// A refusal leads from each of the first four to kGone, with a line for the caller, a line in the
// audit and the answer; so does EndAll(). Any other step throws: the bookkeeping would be wrong,
// and with it who gets which answer.
#include "Requests.h"

#include <sentrel/SR_Status.h>

#include <algorithm>
#include <optional>
#include <stdexcept>

#include "relay/Descriptor.h"
#include "rules/Database.h"

namespace agent {

namespace {

enum class State { kArrived, kLooking, kLooked, kWaiting, kRunning, kAnswered, kGone };

bool MayFollow(State from, State to) {
    switch (from) {
        case State::kArrived:
            return to == State::kLooking || to == State::kGone;
        case State::kLooking:
            return to == State::kLooked || to == State::kGone;
        case State::kLooked:
            return to == State::kWaiting || to == State::kRunning || to == State::kGone;
        case State::kWaiting:
            return to == State::kRunning || to == State::kGone;
        case State::kRunning:
            return to == State::kAnswered;
        case State::kAnswered:
            return to == State::kGone;
        case State::kGone:
            return false;
    }
    return false;
}

const char kEnding[] = "the agent is ending";

}  // namespace

struct Requests::Job {
    std::uint64_t id = 0;
    State state = State::kArrived;
    Arrival arrival;  // with the answer, until that is given
    Parsed parsed;
    CallerFacts facts;
    std::optional<Permit> permit;
    std::shared_ptr<Relay> relay;  // none: no output
    AuditRequest audit;
    std::unique_ptr<Timer> deadline;  // while it waits for a place

    void Pass(State to) {
        if (!MayFollow(state, to)) {
            throw std::logic_error("request " + std::to_string(id) + " cannot pass from state " +
                                   std::to_string(static_cast<int>(state)) + " to " +
                                   std::to_string(static_cast<int>(to)));
        }
        state = to;
    }
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

Requests::Requests(sentrel::SR_MainLoop& loop_, const RuleStore& store_, Audit& audit_,
                   const QuotaLimits& limits)
    : loop(loop_),
      store(store_),
      audit(audit_),
      relays(loop_, LimitsFor(limits)),
      strangers(loop_, audit_),
      quota(limits),
      executor(loop_, ExecutorLimits()) {}

Check Requests::MayLook(uid_t uid) const {
    return ending ? Check(Refusal{kEnding}) : relays.HasRoom(uid);
}

void Requests::Take(const Arrival& arrival) {
    if (arrival.admission != Admission::kTaken) {
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
    const Check room = MayLook(arrival.caller.uid);
    if (!room) {
        return Refuse(job, room.GetRefusal());
    }
    const std::uint64_t id = job->id;
    const AccountQuestions questions = store.QuestionsOf(arrival.call.operation);
    const auto started =
        relays.Start(TaskFor(arrival.caller, arrival.call.descriptor, questions), arrival.caller,
                     [this, id](const CallerFacts& facts) { Looked(id, facts); });
    if (!started) {
        return Refuse(job, started.GetRefusal());
    }
    job->Pass(State::kLooking);
    jobs[id] = job;
}

// Costs next to nothing: only the first of a second is told why.
void Requests::TurnAway(const Arrival& arrival) {
    arrival.answer->Set(SR_FAIL, 0);
    const Caller& caller = arrival.caller;
    if (arrival.admission == Admission::kFirstAway && arrival.call.descriptor > 0 &&
        MayLook(caller.uid)) {
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

bool Requests::LearnOf(const Caller& caller, const std::string& operation,
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
    const auto entry = jobs.find(id);
    if (entry == jobs.end()) {
        if (facts.output) {
            facts.output->Kill();  // refused in the meantime
        }
        return;
    }
    Job& known = *entry->second;
    known.Pass(State::kLooked);
    known.facts = facts;
    known.facts.output.reset();
    known.relay = facts.output;
    std::vector<std::shared_ptr<Job>> ready;
    for (const auto& next : jobs) {
        const Job& job = *next.second;
        if (job.arrival.call.sender != known.arrival.call.sender) {
            continue;
        }
        if (job.state == State::kLooking) {
            break;
        }
        if (job.state == State::kLooked) {
            ready.push_back(next.second);
        }
    }
    for (const std::shared_ptr<Job>& job : ready) {
        try {
            Decide(job);
        } catch (const std::exception&) {
            Drop(*job);  // out of memory
        }
    }
}

// Lets go of a job that cannot be brought further: its answer, "it failed", goes with it.
void Requests::Drop(const Job& job) {
    if (job.relay) {
        job.relay->Kill();
    }
    if (job.state == State::kLooked) {
        (void)jobs.erase(job.id);
    }
}

void Requests::Decide(const std::shared_ptr<Job>& job) {
    Caller& caller = job->arrival.caller;
    caller.executable = job->facts.executable;
    caller.account = job->facts.account;
    job->audit.executable = caller.executable;
    if (job->parsed.status != SR_OK) {
        return Refuse(job, {ReasonOf(job->parsed, job->audit), job->parsed.status});
    }
    Decision decision = store.Decide(caller, job->parsed.request);
    job->audit.rule = decision.rule;
    if (!decision.permit) {
        // The detail may name an option by its value.
        return Refuse(job, {decision.reason, decision.status},
                      Audit::HidesSome(job->audit) ? decision.reason : decision.detail);
    }
    if (!job->facts.refusal.empty()) {
        return Refuse(job, {job->facts.refusal});
    }
    job->permit.emplace(std::move(*decision.permit));
    Admit(job);
}

void Requests::Admit(const std::shared_ptr<Job>& job) {
    if (ending) {
        return Refuse(job, {kEnding});
    }
    const Result<Quota::Entry> entry =
        quota.Enter(job->arrival.caller.uid, job->id, std::chrono::steady_clock::now());
    if (!entry) {
        return Refuse(job, entry.GetRefusal());
    }
    if (*entry == Quota::Entry::kRun) {
        return Launch(*job);
    }
    job->Pass(State::kWaiting);
    // Those ahead may never end; whoever waits still gets an answer in time.
    Result<std::unique_ptr<Timer>> deadline =
        Timer::Make(loop, job->arrival.received + job->permit->GetPlan().deadline,
                    [this, id = job->id] { WaitedTooLong(id); });
    if (!deadline) {
        Refuse(job, {"the agent has no descriptors left"}, deadline.Reason());
        return LeavePlace(*job);
    }
    job->deadline = std::move(*deadline);
}

void Requests::WaitedTooLong(std::uint64_t id) {
    const std::shared_ptr<Job> job = jobs.at(id);
    Refuse(job, {"the deadline passed while other requests were ahead", SR_WAITPID_FAILED});
    LeavePlace(*job);
}

void Requests::Refuse(const std::shared_ptr<Job>& job, const Refusal& refusal) {
    Refuse(job, refusal, refusal.reason);
}

void Requests::Refuse(const std::shared_ptr<Job>& job, const Refusal& refusal,
                      const std::string& detail) {
    job->Pass(State::kGone);
    (void)jobs.erase(job->id);
    ++refused;
    audit.Denied(job->audit, refusal.status, detail);
    refusals.Say(job->arrival.caller.uid, job->relay, refusal.reason);
    job->relay.reset();
    job->arrival.answer->Set(refusal.status, 0);
    job->arrival.answer.reset();
}

void Requests::Launch(Job& job) {
    job.Pass(State::kRunning);
    job.deadline.reset();
    audit.Before(job.audit);
    ++served;
    const std::uint64_t id = job.id;
    const std::shared_ptr<Relay> relay = std::move(job.relay);
    executor.Start(
        std::move(*job.permit), job.arrival.caller, relay, job.arrival.received,
        [this, id](const Outcome& outcome) { Done(id, outcome); }, [this, id] { Gone(id); });
}

void Requests::Done(std::uint64_t id, const Outcome& outcome) {
    Job& job = *jobs.at(id);
    job.Pass(State::kAnswered);
    audit.After(job.audit, outcome);
    if (outcome.status == SR_OK && outcome.value == 0) {
        Record(job);
    }
    job.arrival.answer->Set(outcome.status, outcome.value);
    job.arrival.answer.reset();
}

void Requests::Gone(std::uint64_t id) {
    const std::shared_ptr<Job> job = jobs.at(id);
    job->Pass(State::kGone);
    (void)jobs.erase(id);
    LeavePlace(*job);
}

// Its place, or its place among those that wait, is free.
void Requests::LeavePlace(const Job& job) {
    for (const std::uint64_t id : quota.Leave(job.arrival.caller.uid, job.id)) {
        const auto next = jobs.find(id);
        if (next != jobs.end()) {
            Launch(*next->second);
        }
    }
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

void Requests::EndAll() {
    if (ending) {
        return;
    }
    ending = true;
    strangers.Flush();
    const std::map<std::uint64_t, std::shared_ptr<Job>> all = jobs;
    for (const auto& entry : all) {
        const std::shared_ptr<Job>& job = entry.second;
        if (job->state == State::kRunning) {
            job->arrival.answer->Set(SR_WAITPID_FAILED, 0);  // for one that does not end in time
        } else if (job->state != State::kAnswered) {
            Refuse(job, {kEnding});
        }
    }
    executor.EndAll();
}

bool Requests::Settled() const {
    return std::all_of(jobs.begin(), jobs.end(),
                       [](const auto& entry) { return entry.second->state == State::kAnswered; });
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
