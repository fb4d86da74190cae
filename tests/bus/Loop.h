// SPDX-License-Identifier: Apache-2.0
// A dispatcher that a test runs on its own thread, with timers and calls that end the run.
#ifndef SENTREL_TESTS_LOOP_H
#define SENTREL_TESTS_LOOP_H

#include <gtest/gtest.h>

#include <boost/make_shared.hpp>
#include <chrono>
#include <functional>
#include <memory>

#include "Monitor.h"
#include "SR_DBusConnectionImpl.h"
#include "SR_DBusDispatcher.h"

namespace test {

// A repeating timer that calls a function. Destroy it before its loop.
class Timer : public sentrel::SR_TimeoutEvent {
public:
    Timer(int milliseconds, sentrel::SR_MainLoop& mainLoop, std::function<void()> function)
        : SR_TimeoutEvent(milliseconds, true, &mainLoop), action(std::move(function)) {
        callback = boost::make_shared<sentrel::Callback<Timer, void, sentrel::SR_TimeoutEvent&> >(
            this, &Timer::Fired);
    }

private:
    void Fired(sentrel::SR_TimeoutEvent& /*event*/) { action(); }

    std::function<void()> action;
};

class Loop {
public:
    // Takes turns until `done`, tested before each wait. Fails the test after 30 s.
    void RunUntil(const std::function<bool()>& done) {
        const Timer waker(500, dispatcher, [] {});  // so that the limit is looked at
        const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(30);
        for (;;) {
            dispatcher.DispatchPending();
            if (done()) {
                return;
            }
            if (std::chrono::steady_clock::now() > end) {
                ADD_FAILURE() << "the loop did not come to its end in time";
                return;
            }
            dispatcher.Dispatch();
        }
    }

    // Sends a call from `client`, a connection of this loop, and runs until its answer is there;
    // gives `call` back to libdbus.
    Seen Ask(sentrel::SR_DBusConnection& client, DBusMessage* call, int timeout = 20000) {
        DBusPendingCall* pending = nullptr;
        EXPECT_TRUE(dbus_connection_send_with_reply(sentrel::SR_DBusConnection::Impl::Of(client),
                                                    call, &pending, timeout));
        dbus_message_unref(call);
        RunUntil([pending] { return dbus_pending_call_get_completed(pending) != 0; });
        Seen answer;
        DBusMessage* reply = dbus_pending_call_steal_reply(pending);
        if (reply != nullptr) {
            answer = Seen::Of(reply);
            dbus_message_unref(reply);
        }
        dbus_pending_call_unref(pending);
        return answer;
    }

    sentrel::SR_DBusDispatcher dispatcher;
};

}  // namespace test

#endif
