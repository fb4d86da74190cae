// SPDX-License-Identifier: Apache-2.0
// Events of the loop with a function for a handler: a descriptor that became readable (or
// writable), and a time that has come.
//
// Ownership: neither the loop nor the descriptor is owned; both must outlive the event. A handler
// may destroy its own event.
// Threads: the one that runs the loop.
#ifndef SENTREL_AGENT_EVENTS_H
#define SENTREL_AGENT_EVENTS_H

#include <poll.h>
#include <sentrel/SR_MainLoop.h>
#include <sys/timerfd.h>

#include <algorithm>
#include <boost/make_shared.hpp>
#include <cerrno>
#include <chrono>
#include <functional>
#include <system_error>

#include "Descriptors.h"

namespace agent {

class Watch : public sentrel::SR_WatchEvent {
public:
    Watch(sentrel::SR_MainLoop& mainLoop, int fd, const std::function<void()>& function,
          int awaited = POLLIN)
        : SR_WatchEvent(fd, awaited, &mainLoop), handler(function) {
        callback = boost::make_shared<sentrel::Callback<Watch, void, sentrel::SR_WatchEvent&> >(
            this, &Watch::Ready);
    }
    void Disable() { enabled = false; }

private:
    void Ready(sentrel::SR_WatchEvent& /*event*/) {
        const std::function<void()> kept = handler;  // the handler may destroy this object
        kept();
    }

    std::function<void()> handler;
};

// Fires once. The loop's own timers go by the wall clock and may be late by a whole interval; a
// deadline must neither jump with the clock nor wait, so this one is a descriptor of the monotonic
// clock.
class Timer {
public:
    // Fires at once when the time has passed. Throws std::system_error when no descriptor is left.
    Timer(sentrel::SR_MainLoop& mainLoop, std::chrono::steady_clock::time_point when,
          const std::function<void()>& function)
        : fd(Arm(when)), watch(mainLoop, fd.Get(), [this, function] {
              watch.Disable();
              const std::function<void()> kept = function;
              kept();
          }) {}

private:
    static int Arm(std::chrono::steady_clock::time_point when) {
        const std::chrono::nanoseconds at = std::max<std::chrono::nanoseconds>(
            when.time_since_epoch(), std::chrono::nanoseconds(1));
        itimerspec spec = {};
        spec.it_value.tv_sec = static_cast<time_t>(at.count() / 1000000000);
        spec.it_value.tv_nsec = static_cast<long>(at.count() % 1000000000);
        const int timer = timerfd_create(CLOCK_MONOTONIC, TFD_CLOEXEC | TFD_NONBLOCK);
        if (timer < 0 || timerfd_settime(timer, TFD_TIMER_ABSTIME, &spec, nullptr) != 0) {
            throw std::system_error(errno, std::generic_category(), "cannot set a timer");
        }
        return timer;
    }

    OwnedFd fd;
    Watch watch;
};

}  // namespace agent

#endif
