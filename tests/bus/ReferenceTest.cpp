// SPDX-License-Identifier: Apache-2.0
// The exact calls by which the connection holds and lets go of libdbus's: the linker leads them
// through the wrappers at the end of this file, which write them down.
#include <gtest/gtest.h>

#include <boost/make_shared.hpp>
#include <memory>

#include "Access.h"
#include "Fixture.h"
#include "SR_DBusConnectionImpl.h"
#include "SR_DBusDispatcher.h"
#include "SR_DBusError.h"

namespace {

using sentrel::SR_DBusConnection;
using test::Texts;

Texts journal;
bool namelessConnection = false;
int timesUniqueNameWasAsked = 0;

Texts TakeJournal() {
    Texts taken;
    taken.swap(journal);
    return taken;
}

class ReferenceTest : public test::BusTest {
protected:
    ReferenceTest() { journal.clear(); }
    ~ReferenceTest() override {
        namelessConnection = false;
        timesUniqueNameWasAsked = 0;
    }

    sentrel::SR_DBusDispatcher dispatcher;
};

TEST_F(ReferenceTest, OpeningTakesTwoAndTheEndGivesTwoBack) {
    { const SR_DBusConnection connection = SR_DBusConnection::SystemBus(dispatcher); }
    EXPECT_EQ((Texts{"get_private 1", "ref", "status_function", "exit_on_disconnect 0",
                     "watch_functions", "timeout_functions", "unref", "close", "unref"}),
              TakeJournal());
}

TEST_F(ReferenceTest, ACopyTakesOneAndGivesOneBack) {
    const SR_DBusConnection connection = SR_DBusConnection::SystemBus(dispatcher);
    (void)TakeJournal();
    {
        const SR_DBusConnection copy(connection);
        EXPECT_EQ((Texts{"ref"}), TakeJournal());
    }
    EXPECT_EQ((Texts{"unref"}), TakeJournal());
}

TEST_F(ReferenceTest, NamesAreReleasedBeforeTheConnectionIsClosed) {
    {
        SR_DBusConnection connection = SR_DBusConnection::SystemBus(dispatcher);
        connection.RequestName("org.sentrel.A", 0);
        connection.RequestName("org.sentrel.B", 0);
        connection.RequestName("org.sentrel.A", 0);
        (void)TakeJournal();
    }
    EXPECT_EQ((Texts{"unref", "release org.sentrel.A", "release org.sentrel.B",
                     "release org.sentrel.A", "close", "unref"}),
              TakeJournal());
}

TEST_F(ReferenceTest, ALostConnectionIsNeitherReleasedNorClosed) {
    {
        SR_DBusConnection connection = SR_DBusConnection::SystemBus(dispatcher);
        connection.RequestName("org.sentrel.A", 0);
        bus.Stop();
        EXPECT_THROW((void)connection.HasName("org.a"), sentrel::SR_DBusException);
        (void)TakeJournal();
    }
    EXPECT_EQ((Texts{"unref", "unref"}), TakeJournal());
}

TEST_F(ReferenceTest, AFailedOpeningTakesNothing) {
    bus.Stop();
    EXPECT_THROW((void)SR_DBusConnection::SystemBus(dispatcher), sentrel::SR_DBusException);
    EXPECT_EQ((Texts{"get_private 1"}), TakeJournal());
}

TEST_F(ReferenceTest, AConnectionThatEndedIsNotDispatched) {
    const auto impl = boost::make_shared<SR_DBusConnection::Impl>(DBUS_BUS_SYSTEM);
    SR_DBusConnection connection(impl, dispatcher);
    bus.Stop();
    EXPECT_THROW((void)connection.HasName("org.a"), sentrel::SR_DBusException);
    (void)TakeJournal();
    ASSERT_FALSE(test::QueueOf(dispatcher).empty());
    EXPECT_EQ(impl.get(), test::QueueOf(dispatcher).front());
    dispatcher.DispatchPending();
    EXPECT_EQ(Texts(), TakeJournal());
    EXPECT_TRUE(test::QueueOf(dispatcher).empty());
}

TEST_F(ReferenceTest, WithoutAUniqueNameTheRestOfTheMatchLineIsLost) {
    namelessConnection = true;
    SR_DBusConnection connection = SR_DBusConnection::SystemBus(dispatcher);
    EXPECT_EQ(nullptr, connection.GetUniqueName());
    (void)test::TakeLog();
    connection.AddMatch("type='signal'");
    connection.RemoveMatch("type='signal'", true);
    EXPECT_EQ(
        (Texts{"D AddMatch Connection (unique name: ", "D RemoveMatch Connection (unique name: "}),
        test::BriefWithoutToggles());
}

// libdbus answers under the lock that it holds while any connection of the process says hello, so
// that a second question would wait for another thread's.
TEST_F(ReferenceTest, TheUniqueNameIsAskedForOnceWhenTheConnectionOpens) {
    SR_DBusConnection connection = SR_DBusConnection::SystemBus(dispatcher);
    ASSERT_NE(nullptr, connection.GetUniqueName());
    EXPECT_EQ(':', *connection.GetUniqueName());
    const SR_DBusConnection copy(connection);
    EXPECT_EQ(connection.GetUniqueName(), copy.GetUniqueName());
    connection.AddMatch("type='signal'");
    connection.RemoveMatch("type='signal'", true);
    EXPECT_EQ(1, timesUniqueNameWasAsked);
}

}  // namespace

// The compiler need not know that these have no other declaration.
#define WRAPPED(result, name, parameters) \
    result __real_##name parameters;      \
    result __wrap_##name parameters;      \
    result __wrap_##name parameters

extern "C" {

WRAPPED(DBusConnection*, dbus_bus_get_private, (DBusBusType type, DBusError* error)) {
    journal.push_back("get_private " + std::to_string(type));
    return __real_dbus_bus_get_private(type, error);
}

WRAPPED(DBusConnection*, dbus_connection_ref, (DBusConnection * connection)) {
    journal.push_back("ref");
    return __real_dbus_connection_ref(connection);
}

WRAPPED(void, dbus_connection_unref, (DBusConnection * connection)) {
    journal.push_back("unref");
    __real_dbus_connection_unref(connection);
}

WRAPPED(void, dbus_connection_close, (DBusConnection * connection)) {
    journal.push_back("close");
    __real_dbus_connection_close(connection);
}

WRAPPED(int, dbus_bus_release_name,
        (DBusConnection * connection, const char* name, DBusError* error)) {
    EXPECT_EQ(nullptr, error);
    journal.push_back(std::string("release ") + name);
    return __real_dbus_bus_release_name(connection, name, error);
}

WRAPPED(void, dbus_connection_set_exit_on_disconnect,
        (DBusConnection * connection, dbus_bool_t exits)) {
    journal.push_back("exit_on_disconnect " + std::to_string(exits));
    __real_dbus_connection_set_exit_on_disconnect(connection, exits);
}

WRAPPED(void, dbus_connection_set_dispatch_status_function,
        (DBusConnection * connection, DBusDispatchStatusFunction function, void* data,
         DBusFreeFunction free)) {
    EXPECT_EQ(nullptr, free);
    journal.push_back("status_function");
    __real_dbus_connection_set_dispatch_status_function(connection, function, data, free);
}

WRAPPED(dbus_bool_t, dbus_connection_set_watch_functions,
        (DBusConnection * connection, DBusAddWatchFunction add, DBusRemoveWatchFunction remove,
         DBusWatchToggledFunction toggled, void* data, DBusFreeFunction free)) {
    EXPECT_EQ(nullptr, free);
    journal.push_back("watch_functions");
    return __real_dbus_connection_set_watch_functions(connection, add, remove, toggled, data, free);
}

WRAPPED(dbus_bool_t, dbus_connection_set_timeout_functions,
        (DBusConnection * connection, DBusAddTimeoutFunction add, DBusRemoveTimeoutFunction remove,
         DBusTimeoutToggledFunction toggled, void* data, DBusFreeFunction free)) {
    EXPECT_EQ(nullptr, free);
    journal.push_back("timeout_functions");
    return __real_dbus_connection_set_timeout_functions(connection, add, remove, toggled, data,
                                                        free);
}

WRAPPED(DBusDispatchStatus, dbus_connection_dispatch, (DBusConnection * connection)) {
    journal.push_back("dispatch");
    return __real_dbus_connection_dispatch(connection);
}

WRAPPED(const char*, dbus_bus_get_unique_name, (DBusConnection * connection)) {
    ++timesUniqueNameWasAsked;
    return namelessConnection ? nullptr : __real_dbus_bus_get_unique_name(connection);
}

}  // extern "C"
