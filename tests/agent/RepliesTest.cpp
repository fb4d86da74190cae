// SPDX-License-Identifier: Apache-2.0
// How many answers a user may leave unread, on a private bus that tells what it holds and on one
// that does not.
#include "answer/Replies.h"

#include <gtest/gtest.h>
#include <sentrel/SR_DBusAdaptor.h>
#include <sentrel/SR_DBusDispatcher.h>
#include <sentrel/SR_DBusFilter.h>

#include <boost/make_shared.hpp>
#include <functional>
#include <memory>
#include <string>

#include "ChildProcess.h"
#include "Monitor.h"
#include "PrivateBus.h"
#include "SilentCaller.h"
#include "base/Events.h"

namespace {

using agent::Replies;

const uid_t kSomebody = 1500;
const std::size_t kAnswer = 20000;
const char kSilentBus[] =
    "  <policy context=\"mandatory\">\n"
    "    <deny send_destination=\"org.freedesktop.DBus\"\n"
    "          send_interface=\"org.freedesktop.DBus.Debug.Stats\"/>\n"
    "  </policy>\n";

// Hands every call to the test.
class RepliesTest : public testing::Test {
protected:
    typedef sentrel::Callback<RepliesTest, bool, const sentrel::SR_DBusCallMessage&> Taker;

    void Serve(const std::string& more, const agent::ReplyLimits& limits = agent::ReplyLimits()) {
        bus = std::make_unique<test::PrivateBus>(test::PrivateBus::Configuration(
            more + "  <limit name=\"max_replies_per_connection\">99999</limit>\n"));
        dispatcher = std::make_unique<sentrel::SR_DBusDispatcher>();
        connection = std::make_unique<sentrel::SR_DBusConnection>(
            sentrel::SR_DBusConnection::SystemBus(*dispatcher));
        filter = std::make_unique<sentrel::SR_DBusFilter>(
            *connection, sentrel::Slot<bool, const sentrel::SR_DBusCallMessage&>(
                             boost::make_shared<Taker>(this, &RepliesTest::Take)));
        replies = std::make_unique<Replies>(*connection, limits);
        replies->OnLeftAlone([this](uid_t uid, std::size_t) {
            EXPECT_EQ(user, uid);
            ++leftAlone;
        });
    }
    void TearDown() override {
        replies.reset();
        filter.reset();
        connection.reset();
        dispatcher.reset();
    }

    // Sends calls that are all answered with a long text.
    void Ask(test::SilentCaller& caller, int calls, bool wantsReply = true) {
        for (int i = 0; i < calls; ++i) {
            DBusMessage* call = dbus_message_new_method_call(connection->GetUniqueName(), "/",
                                                             "org.sentrel.X", "Ask");
            dbus_message_set_no_reply(call, wantsReply ? FALSE : TRUE);
            ASSERT_TRUE(caller.Write(call, test::kLimit));
        }
        asked += calls;
        RunUntil([this] { return seen >= asked; });
        Settle();
    }
    void RunUntil(const std::function<bool()>& done) {
        bool late = false;
        const auto limit = agent::Timer::Make(
            *dispatcher, std::chrono::steady_clock::now() + std::chrono::seconds(20),
            [&late] { late = true; });
        late = !limit;
        while (!done() && !late) {
            dispatcher->DispatchPending();
            if (!done()) {
                dispatcher->Dispatch();
            }
        }
        EXPECT_FALSE(late);
    }
    // All that was asked of the bus before has been answered, and everything sent has left.
    void Settle() {
        const int before = settled;
        const test::PlainConnection other;
        DBusMessage* call = dbus_message_new_method_call(connection->GetUniqueName(), "/",
                                                         "org.sentrel.X", "Settle");
        (void)dbus_connection_send(other.Get(), call, nullptr);
        dbus_message_unref(call);
        dbus_connection_flush(other.Get());
        RunUntil([this, before] { return settled > before; });
        // The bus answers in order.
        (void)connection->HasName("org.sentrel.X");
        dispatcher->DispatchPending();
    }

    // Somebody who read only after it had too much.
    void ExpectToBeAnsweredAgain() {
        test::SilentCaller caller;
        Ask(caller, 100);
        EXPECT_EQ(1, leftAlone);
        EXPECT_GE(caller.Read(), 40);
        bool answered = false;
        RunUntil([&] {
            Ask(caller, 1);
            answered = caller.Read() > 0;
            return answered;
        });
        EXPECT_TRUE(answered);
    }

    std::unique_ptr<test::PrivateBus> bus;
    std::unique_ptr<sentrel::SR_DBusDispatcher> dispatcher;
    std::unique_ptr<sentrel::SR_DBusConnection> connection;
    std::unique_ptr<sentrel::SR_DBusFilter> filter;
    std::unique_ptr<Replies> replies;
    uid_t user = kSomebody;  // whose the callers are
    int asked = 0;
    int seen = 0;
    int settled = 0;
    int leftAlone = 0;

private:
    bool Take(const sentrel::SR_DBusCallMessage& call) {
        if (call.GetMember() == nullptr || call.GetType() != DBUS_MESSAGE_TYPE_METHOD_CALL) {
            return false;
        }
        if (std::string(call.GetMember()) == "Settle") {
            ++settled;
        } else if (std::string(call.GetMember()) == "Ask") {
            ++seen;
            const sentrel::SR_DBusReturnAddress address(call);
            sentrel::SR_DBusMessage reply = address.Return();
            (void)reply.GetWriter().AppendString(std::string(kAnswer, 'x'));
            replies->Send(user, address, reply, kAnswer);
        }
        return true;
    }
};

agent::ReplyLimits Quick() {
    agent::ReplyLimits limits;
    limits.pause = std::chrono::milliseconds(0);
    return limits;
}

TEST_F(RepliesTest, WhoReadsGetsEveryAnswerHoweverManyTheyAre) {
    Serve("", Quick());
    test::SilentCaller caller;
    int got = 0;
    for (int i = 0; i < 30; ++i) {
        Ask(caller, 10);
        got += caller.Read();
    }
    EXPECT_EQ(300, got);  // 6 MB, six times what may be unread
    EXPECT_EQ(0, leftAlone);
}

TEST_F(RepliesTest, WhoDoesNotReadIsLeftAloneOnceAndGetsAnswersAgainWhenItHasRead) {
    Serve("", Quick());
    test::SilentCaller caller;
    Ask(caller, 300);
    EXPECT_EQ(1, leftAlone);
    const int got = caller.Read();
    EXPECT_LE(got, 65);  // what may be unread, and what the socket took
    EXPECT_GE(got, 40);
    Ask(caller, 1);  // the bus is asked
    (void)caller.Read();
    Ask(caller, 1);
    EXPECT_EQ(1, caller.Read());
    EXPECT_EQ(1, leftAlone);
}

TEST_F(RepliesTest, WhatAConnectionDidNotReadGoesWithIt) {
    Serve("", Quick());
    for (int i = 0; i < 3; ++i) {
        auto caller = std::make_unique<test::SilentCaller>();
        const std::string name = caller->Connection().UniqueName();
        Ask(*caller, 100);
        EXPECT_EQ(i + 1, leftAlone);
        caller.reset();
        replies->Forget(name);
    }
}

TEST_F(RepliesTest, AConnectionThatTheBusNoLongerKnowsOwesNothing) {
    Serve("", Quick());
    auto caller = std::make_unique<test::SilentCaller>();
    Ask(*caller, 100);
    EXPECT_EQ(1, leftAlone);
    caller.reset();
    test::SilentCaller next;  // nobody said that the first is gone
    Ask(next, 1);             // the bus is asked
    (void)next.Read();
    Ask(next, 1);
    EXPECT_EQ(1, next.Read());
}

TEST_F(RepliesTest, AllConnectionsOfAUserShareOneMeasure) {
    Serve("", Quick());
    test::SilentCaller callers[4];
    int got = 0;
    for (test::SilentCaller& caller : callers) {
        Ask(caller, 60);
    }
    EXPECT_GE(leftAlone, 1);
    for (test::SilentCaller& caller : callers) {
        got += caller.Read();
    }
    EXPECT_LE(got, 120);  // a megabyte, and what their sockets took
}

TEST_F(RepliesTest, WhereTheBusDoesNotTellWhatWasSentFadesWithTime) {
    agent::ReplyLimits limits = Quick();
    limits.fade = 60 * 1000000;  // a megabyte a second
    Serve(kSilentBus, limits);
    ExpectToBeAnsweredAgain();
}

TEST_F(RepliesTest, WhereTheBusDoesNotTellRootHasAMeasureOfItsOwn) {
    agent::ReplyLimits limits = Quick();
    limits.fade = 1;
    limits.mostOfRoot = limits.most;
    limits.fadeOfRoot = 60 * 1000000;
    user = 0;
    Serve(kSilentBus, limits);
    ExpectToBeAnsweredAgain();
}

TEST_F(RepliesTest, ACallThatWantsNoReplyGetsNoneAndOwesNothing) {
    Serve("", Quick());
    test::SilentCaller caller;
    Ask(caller, 200, false);
    EXPECT_EQ(0, caller.Read());
    EXPECT_EQ(0, leftAlone);
}

}  // namespace
