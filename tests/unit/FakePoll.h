// SPDX-License-Identifier: Apache-2.0
// poll(2) and gettimeofday(2) inside the test program: time stands still unless the test moves it,
// and the wait is whatever the test says. Also events whose handlers are functions.
#ifndef SENTREL_TESTS_FAKEPOLL_H
#define SENTREL_TESTS_FAKEPOLL_H

#include <poll.h>

#include <boost/make_shared.hpp>
#include <functional>
#include <vector>

#include "SR_MainLoop.h"

namespace test {

// One call of poll as it was made.
struct PollCall {
    std::vector<pollfd> slots;
    nfds_t count;
    int timeout;
};

// Runs during the wait: may fill in results, move the time, and return what poll returns. Empty:
// nothing is ready.
extern std::function<int(pollfd* slots, nfds_t count, int timeout)> onPoll;
// All calls since it was cleared.
extern std::vector<PollCall> polls;
// The wall clock, in microseconds.
extern long long wallClock;
// Calls of gettimeofday so far.
extern int clockReadings;
// Whether they fail, and tell no time.
extern bool clockFails;

// Forgets all of the above; the clock then stands at a time of its own.
void ResetPoll();

// For onPoll: these slots get these results, in slot order.
int Results(pollfd* slots, nfds_t count, const std::vector<int>& results);

template <typename Event>
class Handler : public sentrel::BaseCallback<void, Event&> {
public:
    explicit Handler(const std::function<void()>& handler) : function(handler) {}

    void call(Event& /*event*/) const override {
        // A copy: the handler may destroy the event, and this object with it.
        const std::function<void()> handler = function;
        handler();
    }

private:
    std::function<void()> function;
};

// What an event's destructor runs.
typedef std::function<void()> Farewell;

class Watch : public sentrel::SR_WatchEvent {
public:
    Watch(sentrel::SR_MainLoop& mainLoop, int fd, const std::function<void()>& handler)
        : SR_WatchEvent(fd, POLLIN, &mainLoop) {
        callback = boost::make_shared<Handler<sentrel::SR_WatchEvent> >(handler);
    }
    ~Watch() override {
        if (farewell) {
            farewell();
        }
    }

    void Enable(bool on) { enabled = on; }
    void SetFlags(int mask) { flags = mask; }
    void MoveTo(int fd) { descriptor = fd; }
    bool HasCallback() const { return callback != nullptr; }

    Farewell farewell;
};

class Timer : public sentrel::SR_TimeoutEvent {
public:
    Timer(sentrel::SR_MainLoop& mainLoop, int milliseconds, bool repeats,
          const std::function<void()>& handler)
        : SR_TimeoutEvent(milliseconds, repeats, &mainLoop) {
        callback = boost::make_shared<Handler<sentrel::SR_TimeoutEvent> >(handler);
    }
    ~Timer() override {
        if (farewell) {
            farewell();
        }
    }

    void Enable(bool on) { enabled = on; }
    double Expiry() const { return expiry; }
    void SetExpiry(double time) { expiry = time; }

    Farewell farewell;
};

}  // namespace test

#endif
