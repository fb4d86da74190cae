// SPDX-License-Identifier: Apache-2.0
#include "WorkQueue.h"

#include <sys/eventfd.h>

#include <cerrno>
#include <system_error>
#include <utility>

namespace agent {

namespace {

// libdbus reads 2 KiB in a turn: so many turns read more than a request can have.
const int kQuietTurns = 8;
const std::chrono::milliseconds kReading(1);
// Some pieces of work are small: of those, several are begun in a turn.
const std::chrono::microseconds kAtOnce(100);
// Only root, whose messages are not counted, can have more; then its next one is begun at once.
const std::size_t kMostOfOne = 1024;

}  // namespace

WorkQueue::WorkQueue(sentrel::SR_MainLoop& loop_)
    : loop(loop_), always(eventfd(1, EFD_CLOEXEC | EFD_NONBLOCK)) {
    if (!always) {
        throw std::system_error(errno, std::generic_category(), "cannot make a descriptor");
    }
}

void WorkQueue::Add(uid_t uid, const Work& work) {
    std::deque<Work>& own = works[uid];
    if (own.empty()) {
        order.push_back(uid);
    }
    own.push_back(work);
    ++waiting;
    if ((waiting == 1 && Clock::now() - begun >= kReading) || own.size() > kMostOfOne) {
        BeginSome();
    }
    if (waiting > 0 && !eachTurn) {
        quiet = 0;
        eachTurn = std::make_unique<Watch>(loop, always.Get(), [this] { LoopTurned(); });
    }
}

void WorkQueue::Finish() {
    while (waiting > 0) {
        BeginNext();
    }
    eachTurn.reset();
}

void WorkQueue::LoopTurned() {
    quiet = arrivals == seen ? quiet + 1 : 0;
    seen = arrivals;
    if (waiting > 0 && (quiet >= kQuietTurns || Clock::now() - begun >= kReading)) {
        BeginSome();
    }
    if (waiting == 0) {
        eachTurn.reset();  // what runs here is kept by its caller
    }
}

void WorkQueue::BeginSome() {
    const Clock::time_point start = Clock::now();
    do {
        BeginNext();
    } while (waiting > 0 && Clock::now() - start < kAtOnce);
    begun = Clock::now();
}

void WorkQueue::BeginNext() {
    const uid_t uid = order.front();
    order.pop_front();
    const auto own = works.find(uid);
    const Work next = std::move(own->second.front());
    own->second.pop_front();
    --waiting;
    if (own->second.empty()) {
        works.erase(own);
    } else {
        order.push_back(uid);
    }
    next();
}

}  // namespace agent
