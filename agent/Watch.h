// SPDX-License-Identifier: Apache-2.0
// The loop's events with a plain function as their handler. A handler must not destroy its own
// event: the function being run belongs to it.
#ifndef SENTREL_AGENT_WATCH_H
#define SENTREL_AGENT_WATCH_H

#include <sentrel/SR_MainLoop.h>

#include <boost/make_shared.hpp>
#include <functional>
#include <utility>

namespace agent {

class Watch : public sentrel::SR_WatchEvent {
public:
    // `events` is a poll(2) mask. Fires until it is disabled or destroyed.
    Watch(int watched, int events, sentrel::SR_MainLoop& mainLoop, std::function<void()> onReady)
        : SR_WatchEvent(watched, events, &mainLoop), handler(std::move(onReady)) {
        callback = boost::make_shared<sentrel::Callback<Watch, void, sentrel::SR_WatchEvent&> >(
            this, &Watch::Ready);
    }

    void Disable() { enabled = false; }

private:
    void Ready(sentrel::SR_WatchEvent& /*event*/) { handler(); }

    std::function<void()> handler;
};

// Bounds the loop's wait while it is enabled and does nothing else. The loop's timers go by the
// wall clock, which may be set at any time; what is due is found by the monotonic clock, in each
// turn of the loop, and this timer sees to it that turns come.
class Tick : public sentrel::SR_TimeoutEvent {
public:
    Tick(int milliseconds, sentrel::SR_MainLoop& mainLoop)
        : SR_TimeoutEvent(milliseconds, true, &mainLoop) {
        callback = boost::make_shared<sentrel::Callback<Tick, void, sentrel::SR_TimeoutEvent&> >(
            this, &Tick::Due);
        enabled = false;
    }

    void Enable(bool on) { enabled = on; }

private:
    void Due(sentrel::SR_TimeoutEvent& /*event*/) {}
};

}  // namespace agent

#endif
