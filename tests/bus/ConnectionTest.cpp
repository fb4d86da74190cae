// SPDX-License-Identifier: Apache-2.0
// The connection on a real bus: opening, sharing, calling, names, and the end in its two ways.
#include <gtest/gtest.h>

#include <boost/make_shared.hpp>
#include <chrono>
#include <iterator>
#include <memory>

#include "Access.h"
#include "Fixture.h"
#include "SR_DBusConnectionImpl.h"
#include "SR_DBusDispatcher.h"
#include "SR_DBusError.h"

namespace {

using sentrel::SR_DBusCallMessage;
using sentrel::SR_DBusConnection;
using sentrel::SR_DBusDispatcher;
using sentrel::SR_DBusException;
using test::AgentProcess;
using test::Texts;

const dbus_uint32_t kPoison = 0x5EED;

typedef SR_DBusConnection::Impl Impl;

std::string NameOfError(const std::function<void()>& action) {
    return test::ThrownName<SR_DBusException>(action);
}

// Tells when libdbus has freed a connection, which is when its last reference has gone. Whichever
// of the two goes first, the flag outlives both.
class Finalised {
public:
    explicit Finalised(DBusConnection* connection)
        : slot(-1), freed(std::make_shared<bool>(false)) {
        EXPECT_TRUE(dbus_connection_allocate_data_slot(&slot));
        EXPECT_TRUE(dbus_connection_set_data(connection, slot, new std::shared_ptr<bool>(freed),
                                             [](void* data) {
                                                 const std::unique_ptr<std::shared_ptr<bool>> flag(
                                                     static_cast<std::shared_ptr<bool>*>(data));
                                                 **flag = true;
                                             }));
    }
    ~Finalised() { dbus_connection_free_data_slot(&slot); }
    operator bool() const { return *freed; }

private:
    dbus_int32_t slot;
    std::shared_ptr<bool> freed;
};

class ConnectionTest : public test::BusTest {
protected:
    SR_DBusDispatcher dispatcher;

    static SR_DBusCallMessage CommandCall() {
        SR_DBusCallMessage call;
        call.SetDestination(test::kService);
        call.SetPath(test::kPath);
        call.SetInterface(test::kService);
        call.SetMember("CallCommand");
        return call;
    }

    // Stops the bus and lets libdbus see it.
    void LoseBus(SR_DBusConnection& connection) {
        bus.Stop();
        EXPECT_NE("nothing thrown", NameOfError([&] { (void)connection.HasName("org.a"); }));
        EXPECT_FALSE(dbus_connection_get_is_connected(Impl::Of(connection)));
    }
};

TEST_F(ConnectionTest, EveryLogStatementStandsOnItsLine) {
    struct Expected {
        int priority;
        const char* function;
        int line;
        const char* body;  // with pointers and unique names replaced
    };
    const Expected expected[] = {
        {3, "Impl", 35, "SR_DBusConnection::Impl::Impl 1"},
        {3, "AddMatch", 180,
         "Connection (unique name: :UNIQUE) added match rule type='signal',path='/a'"},
        {3, "RemoveMatch", 193,
         "Connection (unique name: :UNIQUE) removed match rule type='signal',path='/a'"},
        {3, "GetDispatchStatus_stub", 99, "P-dispather == 0 !!!"},
        {6, "GetDispatchStatus_stub", 115, "Connection PTR needs memory"},
        {3, "~Impl", 51, "Terminating connection PTR"},
        {3, "~Impl", 55, "Terminating connection is connected"},
        {3, "Impl", 35, "SR_DBusConnection::Impl::Impl 1"},
        {3, "Dispatch", 79, "Connection PTR terminated "},
        {3, "~Impl", 51, "Terminating connection PTR"},
        {3, "~Impl", 68, "Terminating connection no connected"},
    };
    (void)test::TakeLog();
    {
        SR_DBusConnection connection = SR_DBusConnection::SystemBus(dispatcher);
        connection.AddMatch("type='signal',path='/a'");
        connection.RemoveMatch("type='signal',path='/a'", true);
        Impl* const impl = test::QueueOf(dispatcher).front();
        Impl::GetDispatchStatus_stub(impl->connection, DBUS_DISPATCH_DATA_REMAINS, nullptr);
        Impl::GetDispatchStatus_stub(impl->connection, DBUS_DISPATCH_NEED_MEMORY, impl);
        test::QueueOf(dispatcher).clear();
    }
    {
        SR_DBusConnection connection = SR_DBusConnection::SystemBus(dispatcher);
        LoseBus(connection);
        EXPECT_TRUE(test::QueueOf(dispatcher).front()->Dispatch());
        test::QueueOf(dispatcher).clear();
    }
    std::vector<test::LogLine> lines;
    for (const test::LogLine& line : test::TakeLog()) {
        if (line.File() == "SR_DBusConnection.cpp") {
            lines.push_back(line);
        }
    }
    const Texts brief = test::Brief(lines);
    ASSERT_EQ(std::size(expected), lines.size());
    for (std::size_t i = 0; i < lines.size(); ++i) {
        EXPECT_EQ(expected[i].priority, lines[i].priority);
        EXPECT_EQ(expected[i].function, lines[i].Function());
        EXPECT_EQ(expected[i].line, lines[i].Line());
        const std::string letter = expected[i].priority == 6 ? "E " : "D ";
        EXPECT_EQ(letter + expected[i].function + " " + expected[i].body, brief[i]);
    }
}

TEST_F(ConnectionTest, ABusThatCannotBeReachedIsAnExceptionAndNothingIsQueued) {
    bus.Stop();
    (void)test::TakeLog();
    try {
        SR_DBusConnection connection = SR_DBusConnection::SystemBus(dispatcher);
        FAIL() << "connected to nothing";
    } catch (const SR_DBusException& exception) {
        EXPECT_STREQ("org.freedesktop.DBus.Error.NoServer", exception.name());
        EXPECT_EQ("Failed to connect to socket " + test::PrivateBus::Folder() +
                      "/bus: Connection refused",
                  exception.what());
    }
    EXPECT_TRUE(test::QueueOf(dispatcher).empty());
    EXPECT_EQ((Texts{"D Impl SR_DBusConnection::Impl::Impl 1"}), test::Brief(test::TakeLog()));
}

TEST_F(ConnectionTest, ANewConnectionIsQueuedAndBound) {
    const auto impl = boost::make_shared<Impl>(DBUS_BUS_SYSTEM);
    EXPECT_EQ(nullptr, impl->dispatcher);
    EXPECT_TRUE(impl->ownedNames.empty());
    SR_DBusConnection connection(impl, dispatcher);
    EXPECT_EQ(&dispatcher, impl->dispatcher);
    ASSERT_FALSE(test::QueueOf(dispatcher).empty());
    EXPECT_EQ(impl.get(), test::QueueOf(dispatcher).front());
    EXPECT_EQ(-1, test::TimeoutOf(connection));
    dispatcher.DispatchPending();
}

TEST_F(ConnectionTest, TwoConnectionsAreTwoOnTheBus) {
    SR_DBusConnection first = SR_DBusConnection::SystemBus(dispatcher);
    SR_DBusConnection second = SR_DBusConnection::SystemBus(dispatcher);
    ASSERT_NE(nullptr, first.GetUniqueName());
    ASSERT_NE(nullptr, second.GetUniqueName());
    EXPECT_STRNE(first.GetUniqueName(), second.GetUniqueName());
    EXPECT_TRUE(second.HasName(first.GetUniqueName()));
}

TEST_F(ConnectionTest, ACopySharesTheConnectionAndOutlivesTheFirstHandle) {
    std::unique_ptr<SR_DBusConnection> first(
        new SR_DBusConnection(SR_DBusConnection::SystemBus(dispatcher)));
    const std::string name = first->GetUniqueName();
    test::TimeoutOf(*first) = 1234;
    SR_DBusConnection copy(*first);
    EXPECT_EQ(1234, test::TimeoutOf(copy));
    first.reset();
    EXPECT_EQ(name, copy.GetUniqueName());
    EXPECT_TRUE(copy.HasName(name));
}

TEST_F(ConnectionTest, ACopyThatGoesLeavesTheConnectionOpen) {
    SR_DBusConnection connection = SR_DBusConnection::SystemBus(dispatcher);
    const Finalised finalised(Impl::Of(connection));
    { const SR_DBusConnection copy(connection); }
    EXPECT_FALSE(finalised);
    EXPECT_FALSE(connection.HasName("org.sentrel.Nobody"));
}

TEST_F(ConnectionTest, TheLastHandleFreesTheConnectionWhateverTheOrder) {
    for (const bool firstGoesFirst : {true, false}) {
        std::unique_ptr<SR_DBusConnection> first(
            new SR_DBusConnection(SR_DBusConnection::SystemBus(dispatcher)));
        const Finalised finalised(Impl::Of(*first));
        std::unique_ptr<SR_DBusConnection> second(new SR_DBusConnection(*first));
        (firstGoesFirst ? first : second).reset();
        EXPECT_FALSE(finalised);
        (firstGoesFirst ? second : first).reset();
        EXPECT_TRUE(finalised);
    }
}

TEST_F(ConnectionTest, TheImplHoldsAReferenceOfItsOwn) {
    auto impl = boost::make_shared<Impl>(DBUS_BUS_SYSTEM);
    const Finalised finalised(impl->connection);
    { const SR_DBusConnection handle(impl, dispatcher); }
    EXPECT_FALSE(finalised);
    EXPECT_TRUE(dbus_connection_get_is_connected(impl->connection));
    impl.reset();
    EXPECT_TRUE(finalised);
}

TEST_F(ConnectionTest, ALostConnectionIsFreedToo) {
    std::unique_ptr<SR_DBusConnection> connection(
        new SR_DBusConnection(SR_DBusConnection::SystemBus(dispatcher)));
    const Finalised finalised(Impl::Of(*connection));
    LoseBus(*connection);
    (void)test::TakeLog();
    connection.reset();
    EXPECT_TRUE(finalised);
    EXPECT_EQ((Texts{"D ~Impl Terminating connection PTR",
                     "D ~Impl Terminating connection no connected"}),
              test::Brief(test::TakeLog()));
}

TEST_F(ConnectionTest, ALostBusDoesNotEndTheProcess) {
    SR_DBusConnection connection = SR_DBusConnection::SystemBus(dispatcher);
    LoseBus(connection);
    // libdbus would end the process while it dispatches its own Disconnected signal.
    while (dbus_connection_dispatch(Impl::Of(connection)) == DBUS_DISPATCH_DATA_REMAINS) {
    }
    EXPECT_EQ(DBUS_DISPATCH_COMPLETE, dbus_connection_get_dispatch_status(Impl::Of(connection)));
}

TEST_F(ConnectionTest, SendReplyAndBlockReturnsTheReply) {
    AgentProcess agent({"--text", "the answer"});
    SR_DBusConnection connection = SR_DBusConnection::SystemBus(dispatcher);
    SR_DBusCallMessage call = CommandCall();
    const sentrel::SR_DBusMessage reply = connection.SendReplyAndBlock(call, -1);
    EXPECT_EQ(DBUS_MESSAGE_TYPE_METHOD_RETURN, reply.GetType());
    EXPECT_STREQ("the answer", reply.GetReader().GetString());
}

TEST_F(ConnectionTest, AnErrorReplyIsThrownWithItsNameAndText) {
    AgentProcess agent({"--reply", "error", "--error", "org.sentrel.Error.E", "--text", "told so"});
    SR_DBusConnection connection = SR_DBusConnection::SystemBus(dispatcher);
    SR_DBusCallMessage call = CommandCall();
    try {
        (void)connection.SendReplyAndBlock(call, -1);
        FAIL() << "no exception";
    } catch (const SR_DBusException& exception) {
        EXPECT_STREQ("org.sentrel.Error.E", exception.name());
        EXPECT_STREQ("told so", exception.what());
    }
}

TEST_F(ConnectionTest, TheTimeoutGivenIsUsedWhileTheHandleHasNone) {
    AgentProcess agent({"--reply", "never"});
    SR_DBusConnection connection = SR_DBusConnection::SystemBus(dispatcher);
    SR_DBusCallMessage call = CommandCall();
    EXPECT_EQ("org.freedesktop.DBus.Error.NoReply",
              NameOfError([&] { (void)connection.SendReplyAndBlock(call, 50); }));
}

TEST_F(ConnectionTest, TheHandlesTimeoutOverridesALongerOne) {
    AgentProcess agent({"--reply", "never"});
    SR_DBusConnection connection = SR_DBusConnection::SystemBus(dispatcher);
    test::TimeoutOf(connection) = 50;
    SR_DBusCallMessage call = CommandCall();
    const auto before = std::chrono::steady_clock::now();
    EXPECT_EQ("org.freedesktop.DBus.Error.NoReply",
              NameOfError([&] { (void)connection.SendReplyAndBlock(call, 600000); }));
    EXPECT_LT(std::chrono::steady_clock::now() - before, std::chrono::seconds(20));
}

TEST_F(ConnectionTest, TheHandlesTimeoutOverridesAShorterOne) {
    AgentProcess agent({"--delay", "200", "--text", "late"});
    SR_DBusConnection connection = SR_DBusConnection::SystemBus(dispatcher);
    test::TimeoutOf(connection) = 30000;
    SR_DBusCallMessage call = CommandCall();
    EXPECT_STREQ("late", connection.SendReplyAndBlock(call, 1).GetReader().GetString());
}

TEST_F(ConnectionTest, SendQueuesTheMessageAndTellsItsSerial) {
    AgentProcess agent;
    SR_DBusConnection connection = SR_DBusConnection::SystemBus(dispatcher);
    SR_DBusCallMessage call = CommandCall();
    call.GetWriter().AppendString("sent");
    dbus_uint32_t serial = kPoison;
    EXPECT_TRUE(connection.Send(call, &serial));
    EXPECT_NE(kPoison, serial);
    EXPECT_NE(0U, serial);
    dbus_uint32_t next = kPoison;
    SR_DBusCallMessage other = CommandCall();
    EXPECT_TRUE(connection.Send(other, &next));
    EXPECT_EQ(serial + 1, next);
    SR_DBusCallMessage third = CommandCall();
    EXPECT_TRUE(connection.Send(third, nullptr));
    dbus_connection_flush(Impl::Of(connection));
    EXPECT_NE(std::string::npos, agent.NextReport().find(" | sent"));
    (void)agent.NextReport();
    (void)agent.NextReport();
}

TEST_F(ConnectionTest, HasNameTellsWhoIsThere) {
    AgentProcess agent;
    SR_DBusConnection connection = SR_DBusConnection::SystemBus(dispatcher);
    EXPECT_TRUE(connection.HasName(test::kService));
    EXPECT_TRUE(connection.HasName("org.freedesktop.DBus"));
    EXPECT_FALSE(connection.HasName("org.sentrel.Nobody"));
}

TEST_F(ConnectionTest, HasNameThrowsWhenTheBusIsGone) {
    SR_DBusConnection connection = SR_DBusConnection::SystemBus(dispatcher);
    bus.Stop();
    const std::string name = NameOfError([&] { (void)connection.HasName("org.a"); });
    EXPECT_TRUE(name == "org.freedesktop.DBus.Error.NoReply" ||
                name == "org.freedesktop.DBus.Error.Disconnected")
        << name;
    EXPECT_EQ("org.freedesktop.DBus.Error.Disconnected",
              NameOfError([&] { (void)connection.HasName("org.a"); }));
}

TEST_F(ConnectionTest, RequestNameOwnsTheNameAndAsksForItsMessages) {
    test::Monitor monitor;
    SR_DBusConnection connection = SR_DBusConnection::SystemBus(dispatcher);
    connection.RequestName("org.sentrel.A", DBUS_NAME_FLAG_DO_NOT_QUEUE);
    EXPECT_TRUE(connection.HasName("org.sentrel.A"));
    EXPECT_EQ((Texts{"Hello()", "RequestName(org.sentrel.A, 4)",
                     "AddMatch(destination='org.sentrel.A')", "NameHasOwner(org.sentrel.A)"}),
              test::CallsFrom(monitor.Take(), connection.GetUniqueName()));
}

TEST_F(ConnectionTest, ARefusedOrQueuedNameIsRecordedAllTheSame) {
    AgentProcess owner({"--name", "org.sentrel.Taken"});
    const auto impl = boost::make_shared<Impl>(DBUS_BUS_SYSTEM);
    SR_DBusConnection connection(impl, dispatcher);
    connection.RequestName("org.sentrel.Taken", DBUS_NAME_FLAG_DO_NOT_QUEUE);
    connection.RequestName("org.sentrel.Taken", 0);
    EXPECT_EQ((Texts{"org.sentrel.Taken", "org.sentrel.Taken"}), impl->ownedNames);
}

TEST_F(ConnectionTest, ANameTheBusAnswersWithAnErrorIsNotRecorded) {
    const auto impl = boost::make_shared<Impl>(DBUS_BUS_SYSTEM);
    SR_DBusConnection connection(impl, dispatcher);
    EXPECT_EQ("org.freedesktop.DBus.Error.InvalidArgs",
              NameOfError([&] { connection.RequestName("org.freedesktop.DBus", 0); }));
    EXPECT_TRUE(impl->ownedNames.empty());
}

TEST_F(ConnectionTest, EveryRequestedNameIsReleasedInOrder) {
    AgentProcess owner({"--name", "org.sentrel.Taken"});
    test::Monitor monitor;
    std::string name;
    {
        SR_DBusConnection connection = SR_DBusConnection::SystemBus(dispatcher);
        name = connection.GetUniqueName();
        for (const char* requested :
             {"org.sentrel.A", "org.sentrel.Taken", "org.sentrel.B", "org.sentrel.A"}) {
            connection.RequestName(requested, DBUS_NAME_FLAG_DO_NOT_QUEUE);
        }
        (void)monitor.Take();
    }
    const std::vector<test::Seen> end = monitor.TakeUntil([&name](const test::Seen& message) {
        return message.member == "NameOwnerChanged" && message.arguments.at(0) == name;
    });
    EXPECT_EQ((Texts{"ReleaseName(org.sentrel.A)", "ReleaseName(org.sentrel.Taken)",
                     "ReleaseName(org.sentrel.B)", "ReleaseName(org.sentrel.A)"}),
              test::CallsFrom(end, name));
}

TEST_F(ConnectionTest, TheConnectionLeavesTheBusWithItsLastHandle) {
    test::Monitor monitor;
    std::string name;
    {
        SR_DBusConnection connection = SR_DBusConnection::SystemBus(dispatcher);
        name = connection.GetUniqueName();
    }
    const std::vector<test::Seen> seen = monitor.TakeUntil([&name](const test::Seen& message) {
        return message.member == "NameOwnerChanged" && message.arguments.at(0) == name &&
               message.arguments.at(2).empty();
    });
    EXPECT_EQ((Texts{"Hello()"}), test::CallsFrom(seen, name));
}

// Why a dispatcher must not be run any more once one of its connections has ended.
TEST_F(ConnectionTest, AConnectionQueuesItselfOnceMoreWhenItIsClosed) {
    Impl* ended = nullptr;
    {
        const SR_DBusConnection connection = SR_DBusConnection::SystemBus(dispatcher);
        ended = test::QueueOf(dispatcher).front();
        dispatcher.DispatchPending();
        EXPECT_TRUE(test::QueueOf(dispatcher).empty());
    }
    EXPECT_EQ((std::list<Impl*>{ended}), test::QueueOf(dispatcher));
}

// Of its own: the daemon's default limit instead of the raised one.
TEST(ConnectionLimitTest, The257thConnectionOfAUserIsRefusedAndAFreedPlaceIsTaken) {
    test::PrivateBus bus(test::PrivateBus::Limits::kDefault);
    SR_DBusDispatcher dispatcher;
    std::vector<std::unique_ptr<SR_DBusConnection>> connections;
    for (int i = 0; i < 256; ++i) {
        connections.emplace_back(new SR_DBusConnection(SR_DBusConnection::SystemBus(dispatcher)));
    }
    EXPECT_EQ("org.freedesktop.DBus.Error.LimitsExceeded", NameOfError([&dispatcher] {
                  const SR_DBusConnection refused = SR_DBusConnection::SystemBus(dispatcher);
              }));
    const std::string gone = connections.back()->GetUniqueName();
    connections.pop_back();
    while (connections.front()->HasName(gone)) {
        // The bus takes note of the end between two questions.
    }
    const SR_DBusConnection taken = SR_DBusConnection::SystemBus(dispatcher);
    EXPECT_NE(nullptr, taken.GetUniqueName());
}

}  // namespace
