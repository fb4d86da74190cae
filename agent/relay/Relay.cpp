// SPDX-License-Identifier: Apache-2.0
#include "Relay.h"

#include <fcntl.h>
#include <signal.h>

#include <algorithm>

#include "base/Process.h"

namespace agent {

namespace {

struct Pipe {
    OwnedFd reader;
    OwnedFd writer;

    bool Open() {
        int ends[2];
        if (pipe2(ends, O_CLOEXEC) != 0) {
            return false;
        }
        reader.Reset(ends[0]);
        writer.Reset(ends[1]);
        return true;
    }
};

std::chrono::steady_clock::time_point Now() {
    return std::chrono::steady_clock::now();
}

// The kernel may not let it end now, or ever, so it is not waited for.
void KillProcess(pid_t pid) {
    (void)kill(pid, SIGKILL);
    (void)waitpid(pid, nullptr, WNOHANG);
}

}  // namespace

Relay::Relay(Relays& owner, Child&& started, uid_t callersUid, const RelayTask& task,
             const Known& whenKnown)
    : relays(owner),
      pid(started.pid),
      pidfd(std::move(started.pidfd)),
      input(std::move(started.input)),
      report(std::move(started.report)),
      uid(callersUid),
      wanted(static_cast<bool>(task.output)),
      known(whenKnown),
      questions(task.questions),
      end(owner.loop, pidfd.Get(), [this] { ChildEnded(); }),
      reports(std::make_unique<Watch>(owner.loop, report.Get(), [this] { ReadLook(); })),
      limit(std::make_unique<Timer>(owner.loop, Now() + owner.limits.look,
                                    [this] { LookTooLong(); })) {}

Relay::~Relay() {
    if (!ended) {
        (void)SignalProcess(pidfd.Get(), SIGKILL);
        (void)Reap(pidfd.Get(), WNOHANG);
    }
}

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
    try {
        limit =
            std::make_unique<Timer>(relays.loop, Now() + relays.limits.bound, [this] { Kill(); });
    } catch (const std::system_error&) {
        Kill();  // one that cannot be bounded is not left alone
    }
}

void Relay::Kill() {
    CloseInput();
    if (!ended && !killed) {
        killed = true;
        killedAt = Now();
        (void)SignalProcess(pidfd.Get(), SIGKILL);
    }
}

bool Relay::Hangs() const {
    return killed && !ended && Now() - killedAt > relays.limits.dying;
}

void Relay::ReadLook() {
    LookReport next;
    ssize_t count = 0;
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
    Look look;
    look.executable = found.executable;
    look.account = account;
    if (found.state == LookReport::kTaken) {
        look.output = shared_from_this();
        limit.reset();
    } else {
        // A refusal always has a reason: without one the request would go on.
        look.refusal = refusal.empty() ? "the output descriptor cannot be taken" : refusal;
        CloseInput();
    }
    if (!wanted) {
        look.refusal.clear();
    }
    const Known function = std::move(known);
    known = nullptr;
    try {
        function(look);
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
    const std::shared_ptr<Relay> kept = relays.Take(this);
    ReadLook();
    if (known) {
        LookEnds("the output descriptor cannot be looked at");
    }
    RelayReport result;
    if (read(report.Get(), &result, sizeof result) == static_cast<ssize_t>(sizeof result)) {
        copied = result.copied;
        dropped = result.dropped;
    }
    (void)Reap(pidfd.Get());
    ended = true;
    end.Disable();
    limit.reset();
    const std::function<void()> function = onEnd;
    if (function) {
        function();
    }
}

Relays::Relays(sentrel::SR_MainLoop& mainLoop, const RelayLimits& relayLimits)
    : loop(mainLoop), limits(relayLimits) {}

Relays::~Relays() {}

bool Relays::HasRoom(uid_t uid, std::string& reason) const {
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
        reason = "too many processes hang over files of this user's";
    } else if (crowded) {
        reason = "too many requests at once";
    }
    return ownHung < limits.hung && !crowded;
}

std::shared_ptr<Relay> Relays::Start(const RelayTask& task, const Caller& caller,
                                     const Relay::Known& known, OwnedFd&& atHand) {
    const OwnedFd given(std::move(atHand));
    Pipe output;
    Pipe report;
    if (!output.Open() || !report.Open() || fcntl(report.reader.Get(), F_SETFL, O_NONBLOCK) != 0) {
        return nullptr;
    }
    RelayChildSetup setup;
    setup.input = output.reader.Get();
    setup.atHand = given.Get();
    setup.report = report.writer.Get();
    setup.cap = limits.cap;
    setup.parent = getpid();
    setup.accountLimit = limits.look / 2;
    Relay::Child child;
    child.pid = fork();
    if (child.pid < 0) {
        return nullptr;
    }
    if (child.pid == 0) {
        RunRelayChild(setup, task, caller);
    }
    // Leaves room for the two descriptors that are still needed: a child that cannot be watched
    // would be killed, and might hang unseen.
    output.reader.Reset();
    report.writer.Reset();
    child.pidfd.Reset(OpenProcess(child.pid));
    if (!child.pidfd) {
        KillProcess(child.pid);
        return nullptr;
    }
    child.input = std::move(output.writer);
    child.report = std::move(report.reader);
    const pid_t pid = child.pid;
    try {
        std::shared_ptr<Relay> relay(new Relay(*this, std::move(child), caller.uid, task, known));
        running.push_back(relay);
        return relay;
    } catch (const std::system_error&) {
        KillProcess(pid);
        return nullptr;
    }
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
