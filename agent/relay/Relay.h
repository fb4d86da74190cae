// SPDX-License-Identifier: Apache-2.0
// One process for each request, which does all that a caller can make hang: it looks at the
// caller's process, takes the caller's descriptor, and then, with the caller's ids and no other
// right, copies the tool's output from a pipe to it. The agent itself never reads about the
// caller's process and never holds the caller's file: even closing a copy asks the file system,
// which may be a program of the caller's that never answers, and against that no signal helps.
//
// A relay goes through these states, in the agent's eyes (RelayChild.h has the child's own):
//
//   looking   from Start() until the child's last word on the caller, or until the limit for looks
//             has passed: then it is killed. Either way `known` is called, once
//   copying   only with an output. It belongs to whoever got it through `known`, who ends it by
//             Abandon(): with the bound, or by Kill(): at once
//   ending    the child has been killed, or has nothing to copy and ends by itself within the limit
//             for looks. A killed one that is still there after `dying` hangs: it counts against
//             its uid, which gets no further child when too many do
//   ended     the loop has seen its end: reaped, counted out, OnEnd() called
//
// No state is left but by the child's end or a limit, so none lasts for ever but "hangs", and for
// that one the number is bounded. A request never waits for a relay: it asks whether one has ended.
//
// Ownership: Relays owns every relay until its child has ended, and the relay its child. A shared
// pointer to a relay may be kept longer. Relays must go before the loop.
// Threads: the one that runs the loop.
#ifndef SENTREL_AGENT_RELAY_H
#define SENTREL_AGENT_RELAY_H

#include <chrono>
#include <cstdint>
#include <functional>
#include <list>
#include <memory>
#include <optional>
#include <string>

#include "RelayChild.h"
#include "base/Caller.h"
#include "base/Descriptors.h"
#include "base/Events.h"
#include "base/Process.h"
#include "base/Result.h"

namespace agent {

struct RelayLimits {
    std::size_t cap = 1048576;  // bytes copied; what comes after is counted and dropped
    // For the look; and without an output, for the child's end as well. Then it is killed.
    std::chrono::milliseconds look{2000};
    // From the moment when the agent is done with the relay; then the child is killed.
    std::chrono::milliseconds bound{10000};
    // A killed child that is still there after this hangs.
    std::chrono::milliseconds dying{1000};
    std::size_t ofOne = 64;   // children of one uid
    std::size_t all = 256;    // children that do not hang, but for root's
    std::size_t hung = 8;     // of one uid; with so many it gets no further child
    std::size_t unsure = 20;  // of one uid: still looking or hung
};

class Relay;
class Relays;

// What the child found out about the caller.
struct CallerFacts {
    std::string executable;         // empty: unknown
    Account account;                // what was asked of it, when that is known
    std::shared_ptr<Relay> output;  // to be abandoned or killed in the end; none: no output
    std::string refusal;            // why there is none although one is wanted
};

class Relay : public std::enable_shared_from_this<Relay> {
public:
    typedef std::function<void(const CallerFacts&)> Known;

    Relay(const Relay&) = delete;
    Relay& operator=(const Relay&) = delete;
    // Kills the child, and does not wait for its end.
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
    // The same without a bound.
    void Kill();
    bool Ended() const { return ended; }
    // Called once when the relay ends, from the loop; an empty function calls nothing.
    void OnEnd(const std::function<void()>& function) { onEnd = function; }
    // Known once it has ended; 0 when it was killed.
    std::uint64_t Copied() const { return counts.copied; }
    std::uint64_t Dropped() const { return counts.dropped; }
    pid_t GetPid() const { return child.GetPid(); }

private:
    friend class Relays;

    Relay(Relays& relays_, uid_t uid_, const RelayTask& task, const Known& known_);
    Check SetLookLimit();
    void Attend(Child&& started, OwnedFd&& inputWriter, OwnedFd&& reportReader);
    bool Hangs() const;
    void ReadLook();
    void TakeAccount(const LookReport& next);
    void LookEnds(const std::string& refusal);
    void LookTooLong();
    void ChildEnded();

    Relays& relays;
    Child child;
    OwnedFd input;
    OwnedFd report;
    uid_t uid;
    bool wanted;  // an output is
    Known known;  // empty once it was called
    LookReport found;
    AccountQuestions questions;
    Account account;
    // Behind the descriptors that they watch, so that they go first.
    std::unique_ptr<Watch> end;
    std::unique_ptr<Watch> reports;  // until the look is over
    std::unique_ptr<Timer> limit;    // of the look, then the bound
    std::function<void()> onEnd;
    bool abandoned = false;
    std::optional<std::chrono::steady_clock::time_point> killed;
    bool ended = false;
    CopyReport counts;
};

class Relays {
public:
    Relays(sentrel::SR_MainLoop& loop_, const RelayLimits& limits_);
    Relays(const Relays&) = delete;
    Relays& operator=(const Relays&) = delete;
    // Kills what still runs, and waits for nothing.
    ~Relays();

    // Whether one more may be started for this uid.
    Check HasRoom(uid_t uid) const;
    // Starts a child that does `task`. `known` is called once, from the loop, within the limit for
    // looks; an output that has not answered by then is refused. A refusal, and never a call, when
    // no process, no descriptor or no filter for it can be had.
    Result<std::shared_ptr<Relay> > Start(const RelayTask& task, const Caller& caller,
                                          const Relay::Known& known);
    std::size_t Count() const { return running.size(); }
    // Children that were killed and do not end.
    std::size_t Hung() const;

private:
    friend class Relay;
    std::shared_ptr<Relay> Take(const Relay* relay);

    sentrel::SR_MainLoop& loop;
    RelayLimits limits;
    Result<CopyFilter> filter;  // of every child
    std::list<std::shared_ptr<Relay> > running;
};

}  // namespace agent

#endif
