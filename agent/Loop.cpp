// SPDX-License-Identifier: Apache-2.0
#include "Loop.h"

#include <sys/signalfd.h>
#include <unistd.h>

#include <chrono>
#include <csignal>
#include <memory>
#include <stdexcept>
#include <utility>

#include "base/Events.h"
#include "base/Result.h"

namespace agent {

namespace {

const std::chrono::seconds kLongestEnd(5);

// A descriptor on which the signals arrive; none when that cannot be had.
OwnedFd WatchedSignals() {
    (void)std::signal(SIGPIPE, SIG_IGN);
    (void)std::signal(SIGCHLD, SIG_DFL);  // ignored, it would make children vanish unseen
    sigset_t awaited;
    (void)sigemptyset(&awaited);
    for (const int number : {SIGTERM, SIGINT, SIGHUP}) {
        (void)sigaddset(&awaited, number);
    }
    if (sigprocmask(SIG_BLOCK, &awaited, nullptr) != 0) {
        return OwnedFd();
    }
    return OwnedFd(signalfd(-1, &awaited, SFD_CLOEXEC | SFD_NONBLOCK));
}

}  // namespace

Loop::Loop() : signals(WatchedSignals()), errors(StandardError(), dispatcher), library(dispatcher) {
    if (!signals) {
        throw std::runtime_error("the signals cannot be watched");
    }
}

void Loop::ReadSignals(const Tasks& tasks) {
    signalfd_siginfo information = {};
    while (read(signals.Get(), &information, sizeof information) ==
           static_cast<ssize_t>(sizeof information)) {
        if (information.ssi_signo == static_cast<unsigned>(SIGHUP)) {
            tasks.hangUp();
        } else {
            stop = true;
        }
    }
}

bool Loop::Run(const Tasks& tasks) {
    const Watch signalled(dispatcher, signals.Get(), [&] { ReadSignals(tasks); });
    std::unique_ptr<Timer> limit;
    for (;;) {
        dispatcher.DispatchPending();
        if (!limit && (stop || !tasks.connected())) {
            if (!tasks.connected()) {
                Complain("the connection to the bus is lost");
            }
            Result<std::unique_ptr<Timer>> timer =
                Timer::Make(dispatcher, std::chrono::steady_clock::now() + kLongestEnd,
                            [this] { late = true; });
            if (!timer) {
                Complain(timer.Reason());
                return false;  // without a limit it might never end
            }
            limit = std::move(*timer);
            tasks.endAll();
        }
        if (limit && (late || tasks.settled())) {
            return tasks.connected();
        }
        dispatcher.Dispatch();
    }
}

}  // namespace agent
