// SPDX-License-Identifier: Apache-2.0
#include "Relay.h"

#include <fcntl.h>
#include <signal.h>

#include "Pidfd.h"
#include "RelayChild.h"

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

}  // namespace

Relay::Relay(Relays& owner, pid_t child, OwnedFd&& childPidfd, OwnedFd&& writer, OwnedFd&& results)
    : relays(owner),
      pid(child),
      pidfd(std::move(childPidfd)),
      input(std::move(writer)),
      report(std::move(results)),
      watch(owner.loop, pidfd.Get(), [this] { ChildEnded(); }) {}

Relay::~Relay() {
    if (!ended) {
        (void)SignalProcess(pidfd.Get(), SIGKILL);
        Reap(pidfd.Get());
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
    if (ended || bound) {
        return;
    }
    const auto kill = [this] { (void)SignalProcess(pidfd.Get(), SIGKILL); };
    try {
        bound = std::make_unique<Timer>(
            relays.loop, std::chrono::steady_clock::now() + relays.limits.bound, kill);
    } catch (const std::system_error&) {
        kill();  // one that cannot be bounded is not left alone
    }
}

void Relay::ChildEnded() {
    RelayReport result;
    if (read(report.Get(), &result, sizeof result) == static_cast<ssize_t>(sizeof result)) {
        copied = result.copied;
        dropped = result.dropped;
    }
    Reap(pidfd.Get());
    ended = true;
    watch.Disable();
    bound.reset();
    const std::shared_ptr<Relay> kept = relays.Take(this);
    const std::function<void()> function = onEnd;
    if (function) {
        function();
    }
}

Relays::Relays(sentrel::SR_MainLoop& mainLoop, const RelayLimits& relayLimits)
    : loop(mainLoop), limits(relayLimits) {}

Relays::~Relays() {}

std::shared_ptr<Relay> Relays::Start(OwnedFd&& destination, const Caller& caller) {
    const OwnedFd target(std::move(destination));
    Pipe output;
    Pipe report;
    if (!output.Open() || !report.Open()) {
        return nullptr;
    }
    RelayChildSetup setup;
    setup.input = output.reader.Get();
    setup.destination = target.Get();
    setup.report = report.writer.Get();
    setup.cap = limits.cap;
    setup.parent = getpid();
    const pid_t child = fork();
    if (child < 0) {
        return nullptr;
    }
    if (child == 0) {
        RunRelayChild(setup, caller);
    }
    OwnedFd pidfd(OpenProcess(child));
    if (!pidfd) {
        (void)kill(child, SIGKILL);
        (void)waitpid(child, nullptr, 0);
        return nullptr;
    }
    std::shared_ptr<Relay> relay(new Relay(*this, child, std::move(pidfd), std::move(output.writer),
                                           std::move(report.reader)));
    running.push_back(relay);
    return relay;
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
