// SPDX-License-Identifier: Apache-2.0
// The way of a tool's output to the caller's descriptor: a pipe, and a child with the caller's ids
// and no other right that copies from the pipe to the descriptor. Only this child ever writes there
// and only it waits for a reader that does not read.
//
// Ownership: Relays owns every relay until its child has ended, and the child by its pidfd. A
// shared pointer to a relay may be kept longer. Relays must go before the loop.
// Threads: the one that runs the loop.
#ifndef SENTREL_AGENT_RELAY_H
#define SENTREL_AGENT_RELAY_H

#include <chrono>
#include <cstdint>
#include <functional>
#include <list>
#include <memory>
#include <string>

#include "Events.h"
#include "OwnedFd.h"
#include "Permit.h"

namespace agent {

struct RelayLimits {
    std::size_t cap = 1048576;  // bytes copied; what comes after is counted and dropped
    // From the moment when the agent is done with the relay; then the child is killed.
    std::chrono::milliseconds bound{10000};
};

class Relays;

class Relay {
public:
    Relay(const Relay&) = delete;
    Relay& operator=(const Relay&) = delete;
    ~Relay();

    // The pipe's end for the tool; -1 after CloseInput().
    int GetInput() const { return input.Get(); }
    // Puts a line into the pipe, a newline added; for a refusal. Does not block.
    void Say(const std::string& line);
    // Closes the agent's copy of the input: the relay ends when every other writer has closed it
    // too and all is copied.
    void CloseInput() { input.Reset(); }
    // Nobody waits for it any more: closes the input, and the bound begins.
    void Abandon();
    bool Ended() const { return ended; }
    // Called once when the relay ends, from the loop; an empty function calls nothing.
    void OnEnd(const std::function<void()>& function) { onEnd = function; }
    // Known once it has ended; 0 when it was killed.
    std::uint64_t Copied() const { return copied; }
    std::uint64_t Dropped() const { return dropped; }
    pid_t GetPid() const { return pid; }

private:
    friend class Relays;
    Relay(Relays& owner, pid_t child, OwnedFd&& childPidfd, OwnedFd&& writer, OwnedFd&& results);
    void ChildEnded();

    Relays& relays;
    pid_t pid;
    OwnedFd pidfd;
    OwnedFd input;
    OwnedFd report;
    Watch watch;
    std::unique_ptr<Timer> bound;
    std::function<void()> onEnd;
    bool ended = false;
    std::uint64_t copied = 0;
    std::uint64_t dropped = 0;
};

class Relays {
public:
    Relays(sentrel::SR_MainLoop& mainLoop, const RelayLimits& relayLimits);
    Relays(const Relays&) = delete;
    Relays& operator=(const Relays&) = delete;
    // Kills what still runs.
    ~Relays();

    // Starts a relay to `destination`. Null when no process or descriptor is left for it.
    std::shared_ptr<Relay> Start(OwnedFd&& destination, const Caller& caller);
    std::size_t Count() const { return running.size(); }

private:
    friend class Relay;
    std::shared_ptr<Relay> Take(const Relay* relay);

    sentrel::SR_MainLoop& loop;
    RelayLimits limits;
    std::list<std::shared_ptr<Relay> > running;
};

}  // namespace agent

#endif
