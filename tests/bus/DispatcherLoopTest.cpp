// SPDX-License-Identifier: Apache-2.0
// The drain and the run loop on real connections.
#include <gtest/gtest.h>
#include <sys/wait.h>

#include <boost/make_shared.hpp>
#include <chrono>

#include "Access.h"
#include "ChildProcess.h"
#include "Fixture.h"
#include "Loop.h"
#include "SR_API.h"
#include "SR_DBusAdaptor.h"

namespace {

using sentrel::SR_DBusCallMessage;
using sentrel::SR_DBusConnection;
using sentrel::SR_DBusDispatcher;
using sentrel::SR_DBusMessage;
using test::Texts;

typedef SR_DBusConnection::Impl Impl;

// A connection that hears the signals of org.sentrel.I and does something for each.
class Listener {
public:
    Listener(SR_DBusDispatcher& dispatcher, std::function<void()> function)
        : impl(boost::make_shared<Impl>(DBUS_BUS_SYSTEM)),
          connection(impl, dispatcher),
          action(std::move(function)) {
        connection.AddMatch("type='signal',interface='org.sentrel.I'");
        EXPECT_TRUE(dbus_connection_add_filter(impl->connection, Heard, this, nullptr));
    }

    // Reads from the bus what it sent until now, without dispatching it.
    void Read() { EXPECT_FALSE(connection.HasName("org.sentrel.Nobody")); }

    const boost::shared_ptr<Impl> impl;
    SR_DBusConnection connection;

private:
    static DBusHandlerResult Heard(DBusConnection* /*connection*/, DBusMessage* message,
                                   void* self) {
        if (dbus_message_is_signal(message, "org.sentrel.I", "Happened")) {
            static_cast<Listener*>(self)->action();
        }
        return DBUS_HANDLER_RESULT_NOT_YET_HANDLED;
    }

    std::function<void()> action;
};

class DispatcherLoopTest : public test::BusTest {
protected:
    static void SendSignals(int count) {
        test::PlainConnection sender;
        for (int i = 0; i < count; ++i) {
            DBusMessage* signal = dbus_message_new_signal("/a", "org.sentrel.I", "Happened");
            dbus_connection_send(sender.Get(), signal, nullptr);
            dbus_message_unref(signal);
        }
        sender.AskBus("GetId");
    }

    test::Loop loop;
    SR_DBusDispatcher& dispatcher = loop.dispatcher;
};

TEST_F(DispatcherLoopTest, DrainingAnEmptyQueueReturns) {
    dispatcher.DispatchPending();
    EXPECT_TRUE(test::QueueOf(dispatcher).empty());
}

TEST_F(DispatcherLoopTest, DrainingDispatchesEverythingThatWaits) {
    int heard = 0;
    Listener listener(dispatcher, [&heard] { ++heard; });
    SendSignals(5);
    listener.Read();
    EXPECT_EQ(0, heard);
    dispatcher.DispatchPending();
    EXPECT_EQ(5, heard);
    EXPECT_TRUE(test::QueueOf(dispatcher).empty());
}

TEST_F(DispatcherLoopTest, AConnectionQueuedTwiceIsDoneTwice) {
    std::string order;
    Listener twice(dispatcher, [&order] { order += "a"; });
    Listener once(dispatcher, [&order] { order += "b"; });
    dispatcher.DispatchPending();
    SendSignals(4);
    twice.Read();
    once.Read();
    std::list<Impl*> connections = {twice.impl.get(), once.impl.get(), twice.impl.get()};
    dispatcher.DispatchPending(connections);
    // In each round at its first and at its last place, until it has nothing left.
    EXPECT_EQ("abaababb", order);
    EXPECT_TRUE(connections.empty());
    dispatcher.DispatchPending();
}

TEST_F(DispatcherLoopTest, AGivenListIsDispatchedAndTheQueueIsLeftAlone) {
    int heard = 0;
    Listener listener(dispatcher, [&heard] { ++heard; });
    SendSignals(1);
    listener.Read();
    const std::size_t queued = test::QueueOf(dispatcher).size();
    EXPECT_GT(queued, 0U);
    std::list<Impl*> connections = {listener.impl.get()};
    dispatcher.DispatchPending(connections);
    EXPECT_EQ(1, heard);
    EXPECT_EQ(queued, test::QueueOf(dispatcher).size());
    dispatcher.DispatchPending();
    EXPECT_EQ(1, heard);
}

TEST_F(DispatcherLoopTest, ListedConnectionsAreDispatchedInTurn) {
    std::string order;
    Listener first(dispatcher, [&order] { order += "a"; });
    Listener second(dispatcher, [&order] { order += "b"; });
    dispatcher.DispatchPending();
    SendSignals(3);
    first.Read();
    second.Read();
    std::list<Impl*> connections = {first.impl.get(), second.impl.get()};
    dispatcher.DispatchPending(connections);
    EXPECT_EQ("ababab", order);
    dispatcher.DispatchPending();
}

TEST_F(DispatcherLoopTest, AConnectionQueuedWhileDispatchedStaysBehindTheSnapshot) {
    std::size_t queuedInside = 0;
    Listener* itself = nullptr;
    Listener listener(dispatcher, [&] {
        dispatcher.AddToQueue(itself->impl.get());
        queuedInside = test::QueueOf(dispatcher).size();
    });
    itself = &listener;
    dispatcher.DispatchPending();
    SendSignals(1);
    listener.Read();
    const std::size_t queued = test::QueueOf(dispatcher).size();
    dispatcher.DispatchPending();
    EXPECT_EQ(queued + 1, queuedInside);
    EXPECT_TRUE(test::QueueOf(dispatcher).empty());
}

TEST_F(DispatcherLoopTest, EnterEndsAfterTheTurnInWhichLeaveWasCalled) {
    int fired = 0;
    const test::Timer first(0, dispatcher, [&] {
        ++fired;
        dispatcher.Leave();
    });
    const test::Timer second(0, dispatcher, [&] { ++fired; });
    dispatcher.Enter();
    EXPECT_EQ(2, fired);
    dispatcher.Enter();
    EXPECT_EQ(4, fired);
}

TEST_F(DispatcherLoopTest, EnterRunsOneTurnAtLeastAndDrainsFirst) {
    int heard = 0;
    Listener listener(dispatcher, [&heard] { ++heard; });
    SendSignals(1);
    listener.Read();
    int heardBeforeTheWait = -1;
    const test::Timer timer(0, dispatcher, [&] {
        heardBeforeTheWait = heard;
        dispatcher.Leave();
    });
    dispatcher.Leave();  // before: without effect
    dispatcher.Enter();
    EXPECT_EQ(1, heardBeforeTheWait);
}

TEST_F(DispatcherLoopTest, TheLoopReadsTheSocketAndDispatchesInTheNextTurn) {
    int heard = 0;
    Listener listener(dispatcher, [&] { ++heard; });
    dispatcher.DispatchPending();
    SendSignals(3);
    EXPECT_EQ(0, heard);
    loop.RunUntil([&heard] { return heard == 3; });
    EXPECT_EQ(3, heard);
}

TEST_F(DispatcherLoopTest, ACallThatIsNotAnsweredEndsByTheLoopsTimer) {
    test::AgentProcess agent({"--reply", "never"});
    SR_DBusConnection connection = SR_DBusConnection::SystemBus(dispatcher);
    const test::Seen answer =
        loop.Ask(connection,
                 dbus_message_new_method_call(test::kService, "/a", "org.sentrel.I", "Wait"), 50);
    EXPECT_EQ("org.freedesktop.DBus.Error.NoReply", answer.error);
}

TEST_F(DispatcherLoopTest, AHundredCallsAreAnsweredThroughTheLoop) {
    test::AgentProcess agent({"--text", "yes"});
    SR_DBusConnection connection = SR_DBusConnection::SystemBus(dispatcher);
    for (int i = 0; i < 100; ++i) {
        const test::Seen answer = loop.Ask(
            connection, dbus_message_new_method_call(test::kService, "/a", "org.sentrel.I", "Do"));
        ASSERT_EQ((Texts{"yes"}), answer.arguments);
        (void)agent.NextReport();
    }
}

TEST_F(DispatcherLoopTest, ALostBusIsDispatchedAndNothingFiresAnyMore) {
    bool told = false;
    SR_DBusConnection connection = SR_DBusConnection::SystemBus(dispatcher);
    const DBusHandleMessageFunction filter = [](DBusConnection* /*connection*/,
                                                DBusMessage* message, void* flag) {
        if (dbus_message_is_signal(message, DBUS_INTERFACE_LOCAL, "Disconnected")) {
            *static_cast<bool*>(flag) = true;
        }
        return DBUS_HANDLER_RESULT_NOT_YET_HANDLED;
    };
    ASSERT_TRUE(dbus_connection_add_filter(Impl::Of(connection), filter, &told, nullptr));
    dispatcher.DispatchPending();
    bus.Stop();
    loop.RunUntil(
        [&connection] { return !dbus_connection_get_is_connected(Impl::Of(connection)); });
    EXPECT_FALSE(dbus_connection_get_is_connected(Impl::Of(connection)));
    // A lost connection counts as done, so libdbus's own signal is never dispatched.
    EXPECT_FALSE(told);
    EXPECT_TRUE(test::QueueOf(dispatcher).empty());
    dbus_connection_remove_filter(Impl::Of(connection), filter, &told);
}

// An agent made of the library's own serving half.
class Agent : public sentrel::SR_DBusIAdaptor, public sentrel::SR_DBusAdaptor {
public:
    explicit Agent(SR_DBusConnection& served)
        : SR_DBusIAdaptor(test::kService), SR_DBusAdaptor(served, test::kPath), calls(0) {
        AddMethod("CallCommand", this, &Agent::CallCommand);
    }

    SR_DBusMessage CallCommand(const SR_DBusCallMessage& call) {
        ++calls;
        sentrel::SR_DBusMessageIter reader = call.GetReader();
        EXPECT_STREQ("sr_mount", reader.GetString());
        EXPECT_STREQ("from a child", (++reader).GetString());
        EXPECT_EQ(5, (++reader).GetInt32());
        sentrel::SR_DBusReturnMessage reply(call);
        reply.GetWriter().AppendString("0 42");
        return reply;
    }

    int calls;
};

TEST_F(DispatcherLoopTest, AnAdaptorServedByEnterAnswersTheExportedCall) {
    SR_DBusConnection connection = SR_DBusConnection::SystemBus(dispatcher);
    connection.RequestName(test::kService, 0);
    Agent agent(connection);
    const pid_t child = test::Fork([] {
        int result = 0x5EED;
        const int status = SR_Mount("from a child", 12, 5, &result);
        return status == SR_OK && result == 42 ? 0 : 1;
    });
    int status = -1;
    const test::Timer timer(10, dispatcher, [&] {
        if (waitpid(child, &status, WNOHANG) == child) {
            dispatcher.Leave();
        }
    });
    dispatcher.Enter();
    EXPECT_EQ(0, status);
    EXPECT_EQ(1, agent.calls);
    test::QueueOf(dispatcher).clear();
}

}  // namespace
