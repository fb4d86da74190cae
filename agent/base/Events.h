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
#include <cstring>
#include <functional>
#include <memory>
#include <string>

#include "Descriptors.h"
#include "Result.h"

namespace agent {

class Watch : public sentrel::SR_WatchEvent {
public:
    Watch(sentrel::SR_MainLoop& loop_, int fd, const std::function<void()>& function,
          int awaited = POLLIN)
        : SR_WatchEvent(fd, awaited, &loop_), handler(function) {
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
    // Fires at once when the time has passed. Refused when no descriptor is left.
    static Result<std::unique_ptr<Timer> > Make(sentrel::SR_MainLoop& loop,
                                                std::chrono::steady_clock::time_point when,
                                                const std::function<void()>& function) {
        const std::chrono::nanoseconds at = std::max<std::chrono::nanoseconds>(
            when.time_since_epoch(), std::chrono::nanoseconds(1));
        itimerspec spec = {};
        spec.it_value.tv_sec = static_cast<time_t>(at.count() / 1000000000);
        spec.it_value.tv_nsec = static_cast<long>(at.count() % 1000000000);
        OwnedFd fd(timerfd_create(CLOCK_MONOTONIC, TFD_CLOEXEC | TFD_NONBLOCK));
        if (!fd || timerfd_settime(fd.Get(), TFD_TIMER_ABSTIME, &spec, nullptr) != 0) {
            return Refusal{std::string("no timer can be made: ") + std::strerror(errno)};
        }
        return std::unique_ptr<Timer>(new Timer(loop, std::move(fd), function));
    }
    Timer(const Timer&) = delete;
    Timer& operator=(const Timer&) = delete;

private:
    Timer(sentrel::SR_MainLoop& loop, OwnedFd&& timer, const std::function<void()>& function)
        : fd(std::move(timer)), watch(loop, fd.Get(), [this, function] {
              watch.Disable();
              const std::function<void()> kept = function;  // the handler may destroy this object
              kept();
          }) {}

    OwnedFd fd;
    Watch watch;
};

}  // namespace agent

#endif
