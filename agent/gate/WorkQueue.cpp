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

WorkQueue::WorkQueue(sentrel::SR_MainLoop& mainLoop)
    : loop(mainLoop), always(eventfd(1, EFD_CLOEXEC | EFD_NONBLOCK)) {
    if (!always) {
        throw std::system_error(errno, std::generic_category(), "cannot make a descriptor");
    }
}

void WorkQueue::Add(uid_t uid, const Work& added) {
    std::deque<Work>& own = work[uid];
    if (own.empty()) {
        order.push_back(uid);
    }
    own.push_back(added);
    ++waiting;
    if ((waiting == 1 && Clock::now() - begun >= kReading) || own.size() > kMostOfOne) {
        BeginSome();
    }
    if (waiting > 0 && !turns) {
        quiet = 0;
        turns = std::make_unique<Watch>(loop, always.Get(), [this] { Turn(); });
    }
}

void WorkQueue::Finish() {
    while (waiting > 0) {
        BeginNext();
    }
    turns.reset();
}

void WorkQueue::Turn() {
    quiet = arrivals == seen ? quiet + 1 : 0;
    seen = arrivals;
    if (waiting > 0 && (quiet >= kQuietTurns || Clock::now() - begun >= kReading)) {
        BeginSome();
    }
    if (waiting == 0) {
        turns.reset();  // what runs here is kept by its caller
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
    const auto own = work.find(uid);
    const Work next = std::move(own->second.front());
    own->second.pop_front();
    --waiting;
    if (own->second.empty()) {
        work.erase(own);
    } else {
        order.push_back(uid);
    }
    next();
}

}  // namespace agent
