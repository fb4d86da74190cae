// SPDX-License-Identifier: Apache-2.0
// The connection's half of dispatching: the status callback and the one step.
#include <gtest/gtest.h>

#include <boost/make_shared.hpp>

#include "Access.h"
#include "Fixture.h"
#include "SR_DBusDispatcher.h"
#include "SR_DBusError.h"

namespace {

using sentrel::SR_DBusConnection;
using test::Texts;

typedef SR_DBusConnection::Impl Impl;

class BusDispatchTest : public test::BusTest {
protected:
    BusDispatchTest()
        : impl(boost::make_shared<Impl>(DBUS_BUS_SYSTEM)), connection(impl, dispatcher) {
        dispatcher.DispatchPending();
        (void)test::TakeLog();
    }

    void Report(DBusDispatchStatus status) {
        Impl::GetDispatchStatus_stub(impl->connection, status, impl.get());
    }

    sentrel::SR_DBusDispatcher dispatcher;
    boost::shared_ptr<Impl> impl;
    SR_DBusConnection connection;
};

DBusHandlerResult CountSignals(DBusConnection* /*connection*/, DBusMessage* message, void* count) {
    if (dbus_message_is_signal(message, "org.sentrel.I", "Happened")) {
        ++*static_cast<int*>(count);
    }
    return DBUS_HANDLER_RESULT_NOT_YET_HANDLED;
}

TEST_F(BusDispatchTest, AStatusWithoutDataIsLoggedOnly) {
    Impl::GetDispatchStatus_stub(impl->connection, DBUS_DISPATCH_DATA_REMAINS, nullptr);
    EXPECT_EQ((Texts{"D GetDispatchStatus_stub P-dispather == 0 !!!"}),
              test::Brief(test::TakeLog()));
    EXPECT_TRUE(test::QueueOf(dispatcher).empty());
}

TEST_F(BusDispatchTest, AStatusBeforeTheDispatcherIsBoundIsLoggedOnly) {
    const auto unbound = boost::make_shared<Impl>(DBUS_BUS_SYSTEM);
    (void)test::TakeLog();
    for (const DBusDispatchStatus status :
         {DBUS_DISPATCH_DATA_REMAINS, DBUS_DISPATCH_COMPLETE, DBUS_DISPATCH_NEED_MEMORY}) {
        Impl::GetDispatchStatus_stub(unbound->connection, status, unbound.get());
        EXPECT_EQ((Texts{"D GetDispatchStatus_stub P-dispather == 0 !!!"}),
                  test::Brief(test::TakeLog()));
    }
    dbus_connection_unref(unbound->connection);  // the reference meant for a first handle
}

TEST_F(BusDispatchTest, EachStatusOfRemainingDataQueuesTheConnectionOnce) {
    Report(DBUS_DISPATCH_DATA_REMAINS);
    EXPECT_EQ((std::list<Impl*>{impl.get()}), test::QueueOf(dispatcher));
    Report(DBUS_DISPATCH_DATA_REMAINS);
    EXPECT_EQ((std::list<Impl*>{impl.get(), impl.get()}), test::QueueOf(dispatcher));
    EXPECT_TRUE(test::TakeLog().empty());
}

TEST_F(BusDispatchTest, ACompleteOrUnknownStatusDoesNothing) {
    Report(DBUS_DISPATCH_COMPLETE);
    Report(static_cast<DBusDispatchStatus>(3));
    EXPECT_TRUE(test::QueueOf(dispatcher).empty());
    EXPECT_TRUE(test::TakeLog().empty());
}

TEST_F(BusDispatchTest, AStatusOfNeededMemoryIsLoggedAsAnErrorAndQueuesNothing) {
    Report(DBUS_DISPATCH_NEED_MEMORY);
    EXPECT_TRUE(test::QueueOf(dispatcher).empty());
    EXPECT_EQ((Texts{"E GetDispatchStatus_stub Connection PTR needs memory"}),
              test::Brief(test::TakeLog()));
}

TEST_F(BusDispatchTest, OneStepDispatchesOneMessageAndTellsWhetherMoreWait) {
    connection.AddMatch("type='signal',interface='org.sentrel.I'");
    dispatcher.DispatchPending();
    test::PlainConnection sender;
    for (int i = 0; i < 3; ++i) {
        DBusMessage* signal = dbus_message_new_signal("/a", "org.sentrel.I", "Happened");
        dbus_connection_send(sender.Get(), signal, nullptr);
        dbus_message_unref(signal);
    }
    sender.AskBus("GetId");
    // Reads what the bus sent before its answer.
    EXPECT_FALSE(connection.HasName("org.sentrel.Nobody"));
    int count = 0;
    ASSERT_TRUE(dbus_connection_add_filter(impl->connection, CountSignals, &count, nullptr));
    EXPECT_FALSE(impl->Dispatch());
    EXPECT_EQ(1, count);
    EXPECT_FALSE(impl->Dispatch());
    EXPECT_EQ(2, count);
    EXPECT_TRUE(impl->Dispatch());
    EXPECT_EQ(3, count);
    EXPECT_TRUE(impl->Dispatch());
    EXPECT_EQ(3, count);
    dbus_connection_remove_filter(impl->connection, CountSignals, &count);
    test::QueueOf(dispatcher).clear();
}

TEST_F(BusDispatchTest, ALostConnectionIsLoggedAsTerminatedAndDone) {
    bus.Stop();
    EXPECT_THROW((void)connection.HasName("org.a"), sentrel::SR_DBusException);
    (void)test::TakeLog();
    EXPECT_TRUE(impl->Dispatch());
    EXPECT_TRUE(impl->Dispatch());
    EXPECT_EQ(
        (Texts{"D Dispatch Connection PTR terminated ", "D Dispatch Connection PTR terminated "}),
        test::Brief(test::TakeLog()));
    // libdbus still holds its own Disconnected signal: it was not asked.
    EXPECT_EQ(DBUS_DISPATCH_DATA_REMAINS, dbus_connection_get_dispatch_status(impl->connection));
}

}  // namespace
