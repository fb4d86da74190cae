// SPDX-License-Identifier: Apache-2.0
// What has been let in and not begun. To begin a request takes a while (a process is made for it),
// and while that lasts nothing is read. The bus hands on what it has at once as long as the agent's
// socket has room; once the socket was full, it hands the rest on bit by bit, behind everybody's
// messages, for as long as more comes in. So reading goes first: a little work is begun when
// nothing has arrived for some turns of the loop, or when enough was read since the last time.
// Users take turns, each user's work is begun in its order.
//
// Ownership: the loop is not owned and must outlive the object; what waits when the object goes is
// dropped. Threads: the one that runs the loop.
#ifndef SENTREL_AGENT_WORKQUEUE_H
#define SENTREL_AGENT_WORKQUEUE_H

#include <sys/types.h>

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <memory>

#include "base/Descriptors.h"
#include "base/Events.h"

namespace agent {

class WorkQueue {
public:
    typedef std::function<void()> Work;

    // Throws std::system_error when no descriptor is left.
    explicit WorkQueue(sentrel::SR_MainLoop& loop_);

    // Something was read.
    void Arrived() { ++arrivals; }
    // Begins it at once when nothing waits and nothing was begun just now; else in its turn.
    void Add(uid_t uid, const Work& work);
    // Begins everything.
    void Finish();
    std::size_t Waiting() const { return waiting; }

private:
    typedef std::chrono::steady_clock Clock;

    void LoopTurned();
    void BeginSome();
    void BeginNext();

    sentrel::SR_MainLoop& loop;
    OwnedFd always;                   // readable
    std::unique_ptr<Watch> eachTurn;  // of the loop, while something waits
    std::map<uid_t, std::deque<Work> > works;
    std::deque<uid_t> order;  // users with work, the next one first
    std::size_t waiting = 0;
    std::uint64_t arrivals = 0;
    std::uint64_t seen = 0;  // of the arrivals, at the last turn
    int quiet = 0;           // turns without one
    Clock::time_point begun;
};

}  // namespace agent

#endif
