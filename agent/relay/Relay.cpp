// SPDX-License-Identifier: Apache-2.0
//
// Everything that may fail is had before there is a child: its pipes, its limit, its filter, and
// the room for its descriptor. A child without a limit, or one that is not watched, would be killed
// and might hang where nobody counts it.
#include "Relay.h"

#include <unistd.h>

#include <algorithm>
#include <cstdio>

namespace agent {

namespace {

std::chrono::steady_clock::time_point Now() {
    return std::chrono::steady_clock::now();
}

}  // namespace

Relay::Relay(Relays& relays_, uid_t uid_, const RelayTask& task, const Known& known_)
    : relays(relays_),
      uid(uid_),
      wanted(static_cast<bool>(task.output)),
      known(known_),
      questions(task.questions) {}

Check Relay::SetLookLimit() {
    Result<std::unique_ptr<Timer> > timer =
        Timer::Make(relays.loop, Now() + relays.limits.look, [this] { LookTooLong(); });
    if (!timer) {
        return timer.GetRefusal();
    }
    limit = std::move(*timer);
    return Fine();
}

void Relay::Attend(Child&& started, OwnedFd&& inputWriter, OwnedFd&& reportReader) {
    child = std::move(started);
    input = std::move(inputWriter);
    report = std::move(reportReader);
    end = std::make_unique<Watch>(relays.loop, child.GetDescriptor(), [this] { ChildEnded(); });
    reports = std::make_unique<Watch>(relays.loop, report.Get(), [this] { ReadLook(); });
}

Relay::~Relay() {}

void Relay::Say(const std::string& line) {
    const std::string text = line.substr(0, 1000) + "\n";
    // The pipe is empty but for other such lines, so this does not block; and SIGPIPE is the
    // program's to ignore, as everywhere in the agent.
    (void)!write(input.Get(), text.data(), text.size());
}

void Relay::Abandon() {
    CloseInput();
    // One that has nothing to copy ends within the limit for its look.
    if (ended || abandoned || found.state != LookReport::kTaken) {
        return;
    }
    abandoned = true;
    Result<std::unique_ptr<Timer> > bound =
        Timer::Make(relays.loop, Now() + relays.limits.bound, [this] { Kill(); });
    if (!bound) {
        return Kill();  // one that cannot be bounded is not left alone
    }
    limit = std::move(*bound);
}

void Relay::Kill() {
    CloseInput();
    if (!ended && !killed) {
        killed = Now();
        child.Signal(SIGKILL);
    }
}

bool Relay::Hangs() const {
    return killed && !ended && Now() - *killed > relays.limits.dying;
}

void Relay::ReadLook() {
    LookReport next;
    ssize_t count = 0;
    // Not beyond the last word on the look: what follows it is the report on the copying.
    while (known &&
           (count = read(report.Get(), &next, sizeof next)) == static_cast<ssize_t>(sizeof next)) {
        found = next;
        TakeAccount(next);
        if (found.state != LookReport::kLooking) {
            LookEnds(found.refusal);
            return;
        }
    }
    if (count == 0) {
        reports.reset();  // its end is near, and tells the rest
    }
}

void Relay::TakeAccount(const LookReport& next) {
    const std::size_t count = std::min(next.groupCount, LookReport::kGroups);
    account.groups.insert(next.groups, next.groups + count);
    if (next.accountKnown) {
        account.asked = questions.groups;
    }
    if (next.accountKnown && next.hasPrimary) {
        account.primary = next.primary;
    }
}

void Relay::LookEnds(const std::string& refusal) {
    reports.reset();
    CallerFacts facts;
    facts.executable = found.executable;
    facts.account = account;
    if (found.state == LookReport::kTaken) {
        facts.output = shared_from_this();
        limit.reset();
    } else {
        // A refusal always has a reason: without one the request would go on.
        facts.refusal = refusal.empty() ? "the output descriptor cannot be taken" : refusal;
        CloseInput();
    }
    if (!wanted) {
        facts.refusal.clear();
    }
    // Whoever is called may call back here, and must find that it has been told.
    const Known function = std::move(known);
    known = nullptr;
    try {
        function(facts);
    } catch (const std::exception&) {
        Kill();  // out of memory: whoever held the answer has let it go
    }
}

void Relay::LookTooLong() {
    Kill();
    if (known) {
        LookEnds("the output descriptor does not answer");
    }
}

void Relay::ChildEnded() {
    // Counted no more, and held here: whoever is told below may let go of it.
    const std::shared_ptr<Relay> kept = relays.Take(this);
    // Its last words may have come together with its end.
    ReadLook();
    if (known) {
        LookEnds("the output descriptor cannot be looked at");
    }
    CopyReport result;
    // Short after a child that was killed: then nothing is known of what it copied.
    if (read(report.Get(), &result, sizeof result) == static_cast<ssize_t>(sizeof result)) {
        counts = result;
    }
    end.reset();
    (void)child.Reap();
    ended = true;
    limit.reset();
    const std::function<void()> function = onEnd;
    if (function) {
        function();
    }
}

Relays::Relays(sentrel::SR_MainLoop& loop_, const RelayLimits& limits_)
    : loop(loop_), limits(limits_), filter(CopyFilter::Make()) {}

Relays::~Relays() {}

Check Relays::HasRoom(uid_t uid) const {
    // A caller can make its own children hang, and so many of them it may have; but what it costs
    // others is bounded by the number of all, which hung ones are no part of: they cost no time.
    // Root, who has to put things in order, is never kept out by others.
    std::size_t sound = 0;
    std::size_t own = 0;
    std::size_t ownHung = 0;
    std::size_t ownUnsure = 0;
    for (const std::shared_ptr<Relay>& relay : running) {
        const bool hangs = relay->Hangs();
        const bool callers = relay->uid == uid;
        sound += hangs ? 0 : 1;
        own += callers ? 1 : 0;
        ownHung += callers && hangs ? 1 : 0;
        ownUnsure += callers && (hangs || relay->killed || relay->known) ? 1 : 0;
    }
    const bool crowded =
        own >= limits.ofOne || ownUnsure >= limits.unsure || (uid != 0 && sound >= limits.all);
    if (ownHung >= limits.hung) {
        return Refusal{"too many processes hang over files of this user's"};
    }
    if (crowded) {
        return Refusal{"too many requests at once"};
    }
    return Fine();
}

Result<std::shared_ptr<Relay> > Relays::Start(const RelayTask& task, const Caller& caller,
                                              const Relay::Known& known) {
    // There is no relay without a filter, on whatever machine. One that could not be made may be
    // had now.
    if (!filter) {
        filter = CopyFilter::Make();
    }
    if (!filter) {
        return Refusal{filter.Reason(), SR_FORK_FAILED};
    }
    const Refusal refusal{"the process for it cannot be started", SR_FORK_FAILED};
    Result<Pipe> output = OpenPipe();
    Result<Pipe> report = OpenPipe(Reading::kNeverWaits);
    std::shared_ptr<Relay> relay(new Relay(*this, caller.uid, task, known));
    if (!output || !report || !relay->SetLookLimit()) {
        return refusal;
    }
    RelayChildSetup setup;
    setup.input = output->reader.Get();
    setup.report = report->writer.Get();
    setup.cap = limits.cap;
    setup.accountLimit = limits.look / 2;
    Result<Child> child =
        Child::Fork([&](pid_t parent) { RunRelayChild(setup, task, caller, *filter, parent); });
    if (!child) {
        return refusal;
    }
    relay->Attend(std::move(*child), std::move(output->writer), std::move(report->reader));
    running.push_back(relay);
    return relay;
}

std::size_t Relays::Hung() const {
    return static_cast<std::size_t>(
        std::count_if(running.begin(), running.end(),
                      [](const std::shared_ptr<Relay>& relay) { return relay->Hangs(); }));
}

std::shared_ptr<Relay> Relays::Take(const Relay* relay) {
    std::shared_ptr<Relay> taken;
    running.remove_if([relay, &taken](const std::shared_ptr<Relay>& entry) {
        if (entry.get() != relay) {
            return false;
        }
        taken = entry;
        return true;
    });
    return taken;
}

}  // namespace agent
