// SPDX-License-Identifier: Apache-2.0
// Whole calls and single operations while libdbus fails in one place at a time: what comes out,
// what is logged, and that every reference has been given back. Also how many references there are.
#include <gtest/gtest.h>

#include <algorithm>
#include <boost/make_shared.hpp>
#include <functional>
#include <locale>
#include <memory>
#include <new>
#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>

#include "Access.h"
#include "FakeBus.h"
#include "LogRecorder.h"
#include "SR_API.h"
#include "SR_CommunicationClient.h"
#include "SR_DBusAdaptor.h"
#include "SR_DBusConnection.h"
#include "SR_DBusConnectionImpl.h"
#include "SR_DBusCredentials.h"
#include "SR_DBusDispatcher.h"
#include "SR_DBusError.h"
#include "SR_DBusMessageImpl.h"
#include "SR_LogImpl.h"

namespace {

using sentrel::SR_DBusAdaptor;
using sentrel::SR_DBusCallMessage;
using sentrel::SR_DBusConnection;
using sentrel::SR_DBusCredentials;
using sentrel::SR_DBusDispatcher;
using sentrel::SR_DBusErrorMessage;
using sentrel::SR_DBusException;
using sentrel::SR_DBusIAdaptor;
using sentrel::SR_DBusMessage;
using sentrel::SR_DBusReturnMessage;
using test::bus;

typedef std::vector<std::string> Lines;

const char kRule[] = "type='signal',interface='org.sentrel.sr_agent',path='/org/sentrel/sr_agent'";
const char kBlockingCall[] = "dbus_connection_send_with_reply_and_block";

class BusTest : public testing::Test {
protected:
    BusTest() {
        bus.Reset();
        test::TakeLog();
    }
    ~BusTest() override {
        EXPECT_TRUE(bus.Balanced()) << "a libdbus reference has not been given back";
        bus.Reset();
    }

    void Fail(const std::string& function, int at = 1) {
        bus.failing = function;
        bus.failAt = at;
    }
    // One exported call; the result is poisoned before.
    int Call() {
        result = kPoison;
        const int code = SR_Mount("-t tmpfs", 8, 1, &result);
        log = test::Brief(test::TakeLog());
        return code;
    }
    bool Logged(const std::string& line) const {
        return std::count(log.begin(), log.end(), line) == 1;
    }

    static constexpr int kPoison = 0x5a5a5a5a;
    int result = kPoison;
    Lines log;
};

class FailureTest : public BusTest {};

// "name: text" of what the function throws.
template <typename Function>
std::string Thrown(Function function) {
    try {
        function();
    } catch (const SR_DBusException& exception) {
        return std::string(exception.name()) + ": " + exception.what();
    }
    return "nothing";
}
const char kInjected[] = "org.x.Error.Injected: injected";

// ---- whole calls

TEST_F(FailureTest, WithoutAFailureTheCallSucceeds) {
    bus.reply = "0 7";
    EXPECT_EQ(0, Call());
    EXPECT_EQ(7, result);
    EXPECT_EQ((Lines{"dbus_bus_get_private 1", "dbus_connection_set_watch_functions",
                     "dbus_connection_set_timeout_functions",
                     std::string("dbus_bus_add_match ") + kRule, kBlockingCall,
                     std::string("dbus_bus_remove_match ") + kRule, "dbus_connection_close"}),
              bus.calls);
    EXPECT_FALSE(bus.connections.front().exitOnDisconnect);
    EXPECT_EQ(-1, bus.lastTimeout);
    EXPECT_TRUE(bus.nulls.empty());
}

}  // namespace

// The sink, by the symbol that its callers are linked to; the program is linked with --wrap.
#define SINK(prefix) \
    prefix##_ZN7sentrel6SR_Log12PrintMessageENS0_11EDebugLevelEPKcS3_iRKNS_10SR_LogTextE
extern "C" void SINK(__real_)(sentrel::SR_Log::EDebugLevel level, const char* file,
                              const char* function, int line, const sentrel::SR_LogText& text);
extern "C" void SINK(__wrap_)(sentrel::SR_Log::EDebugLevel level, const char* file,
                              const char* function, int line, const sentrel::SR_LogText& text);

namespace {

// What the sink was given, as the line that must come of it.
Lines given;

}  // namespace

void SINK(__wrap_)(sentrel::SR_Log::EDebugLevel level, const char* file, const char* function,
                   int line, const sentrel::SR_LogText& text) {
    const std::string path(file);
    given.push_back(std::string(sentrel::SR_Log::LevelToChars(level)) + " [SR] [" +
                    path.substr(path.rfind('/') + 1) + "(" + function + "() +" +
                    std::to_string(line) + ")]" + std::string(text.Text(), text.Size()));
    SINK(__real_)(level, file, function, line, text);
}

namespace {

TEST_F(FailureTest, EveryLineComesThroughTheOneSinkWithItsFiveArguments) {
    for (const std::string& failing : {std::string(), std::string(kBlockingCall)}) {
        SCOPED_TRACE("failing: " + failing);
        given.clear();
        bus.failing = failing;
        (void)SR_Mount("-t tmpfs", 8, 1, nullptr);
        Lines written;
        for (const test::LogLine& line : test::TakeLog()) {
            written.push_back((line.priority == 6 ? "ERR " : "DBG ") + line.text);
        }
        EXPECT_EQ(written, given);
        EXPECT_GE(given.size(), 10u);
    }
}

// "FILE FUNCTION BODY" for each line, pointers and names as in Brief.
Lines WithFiles(const std::vector<test::LogLine>& lines) {
    const Lines brief = test::Brief(lines);
    Lines result;
    for (std::size_t i = 0; i < lines.size(); ++i) {
        EXPECT_EQ(3, lines[i].priority);
        result.push_back(lines[i].File() + brief[i].substr(1));
    }
    return result;
}

TEST_F(FailureTest, TheLogOfASuccessIsComplete) {
    bus.reply = "0 7";
    EXPECT_EQ(0, SR_Mount("-t tmpfs", 8, 1, nullptr));
    EXPECT_EQ(
        (Lines{"SR_DBusDispatcher.cpp SR_DBusDispatcher create new dispatcher addr: PTR",
               "SR_DBusDispatcher.cpp SR_DBusDispatcher create new dispatcher addr: PTR",
               "SR_DBusConnection.cpp Impl SR_DBusConnection::Impl::Impl 1",
               "SR_DBusInterface.cpp SR_DBusIProxy Adding a new DBusIProxy org.sentrel.sr_agent",
               std::string("SR_DBusConnection.cpp AddMatch Connection (unique name: :UNIQUE) added "
                           "match rule ") +
                   kRule,
               "SR_CommunicationClient.cpp SendMessage responseSerial: 0 7",
               std::string("SR_DBusConnection.cpp RemoveMatch Connection (unique name: :UNIQUE) "
                           "removed match rule ") +
                   kRule,
               "SR_DBusConnection.cpp ~Impl Terminating connection PTR",
               "SR_DBusConnection.cpp ~Impl Terminating connection is connected",
               "SR_DBusDispatcher.cpp ~SR_DBusDispatcher destroy dispatcher addr: PTR",
               "SR_API.cpp SR_Agent response:",
               "SR_DBusDispatcher.cpp ~SR_DBusDispatcher destroy dispatcher addr: PTR"}),
        WithFiles(test::TakeLog()));
}

TEST_F(FailureTest, EachFailureOfTheBusBecomesItsCodeAndOneLine) {
    const char* const kUnknown = "org.freedesktop.DBus.Error.ServiceUnknown";
    const struct {
        const char* function;
        const char* error;
        int code;
    } table[] = {
        {"dbus_bus_get_private", "org.freedesktop.DBus.Error.NoServer", 6},
        {"dbus_bus_add_match", "org.freedesktop.DBus.Error.MatchRuleInvalid", 6},
        {"dbus_bus_add_match", "org.freedesktop.DBus.Error.NoMemory", 6},
        {kBlockingCall, "org.freedesktop.DBus.Error.NoReply", 6},
        {kBlockingCall, "org.freedesktop.DBus.Error.NoMemory", 6},
        {kBlockingCall, "org.freedesktop.DBus.Error.ServiceUnknow", 6},
        {kBlockingCall, "org.freedesktop.DBus.Error.ServiceUnknown2", 6},
        {kBlockingCall, kUnknown, 5},
        // Told by the name alone, wherever it comes from.
        {"dbus_bus_add_match", kUnknown, 5},
        {"dbus_bus_get_private", kUnknown, 5},
    };
    for (const auto& row : table) {
        SCOPED_TRACE(std::string(row.function) + " " + row.error);
        bus.Reset();
        Fail(row.function);
        bus.errorName = row.error;
        EXPECT_EQ(row.code, Call());
        EXPECT_EQ(kPoison, result);
        EXPECT_TRUE(Logged(std::string("E SendMessage  service: org.sentrel.sr_agent has dbus "
                                       "error: injected (") +
                           row.error + ") for agent: sr_mount"));
        EXPECT_TRUE(Logged("E SR_Agent [Client][Status]" + std::to_string(row.code)));
        EXPECT_TRUE(bus.Balanced());
    }
}

TEST_F(FailureTest, TheFailuresThatAreIgnoredLeaveTheCallASuccess) {
    const struct {
        const char* function;
        int at;
    } table[] = {
        {"dbus_bus_remove_match", 1},
        {"dbus_connection_set_watch_functions", 1},
        {"dbus_connection_set_timeout_functions", 1},
        {"dbus_message_set_member", 1},
        {"dbus_message_set_interface", 1},
        {"dbus_message_set_path", 1},
        {"dbus_message_set_destination", 1},
        {"dbus_message_iter_append_basic", 1},
        {"dbus_message_iter_append_basic", 2},
        {"dbus_message_iter_append_basic", 3},
    };
    for (const auto& row : table) {
        SCOPED_TRACE(std::string(row.function) + " " + std::to_string(row.at));
        bus.Reset();
        bus.reply = "0 7";
        Fail(row.function, row.at);
        EXPECT_EQ(0, Call());
        EXPECT_EQ(7, result);
        EXPECT_LE(bus.failAt, 0) << "the failure was met";
        EXPECT_TRUE(bus.Balanced());
        EXPECT_TRUE(Logged(std::string("D RemoveMatch Connection (unique name: :UNIQUE) removed "
                                       "match rule ") +
                           kRule));
    }
}

TEST_F(FailureTest, AMessageThatLibdbusCouldNotMakeIsHandedOnAsNull) {
    Fail("dbus_message_new");
    EXPECT_EQ(6, Call());
    EXPECT_EQ(
        (Lines{"dbus_message_iter_init_append", "dbus_message_set_member",
               "dbus_message_get_interface", "dbus_message_set_interface", "dbus_message_get_path",
               "dbus_message_set_path", "dbus_message_get_destination",
               "dbus_message_set_destination", kBlockingCall, "dbus_message_unref"}),
        bus.nulls);
    bus.Reset();
    Fail("dbus_message_new");
    {
        const SR_DBusCallMessage call;
        const SR_DBusCallMessage copy(call);
    }
    EXPECT_EQ((Lines{"dbus_message_ref", "dbus_message_unref", "dbus_message_unref"}), bus.nulls);
}

TEST_F(FailureTest, ABorrowedNullMessageIsNotReferenced) {
    { const SR_DBusMessage message(new SR_DBusMessage::Impl(nullptr), true /* addRef */); }
    EXPECT_EQ((Lines{"dbus_message_unref"}), bus.nulls);
}

TEST_F(FailureTest, AReplyThatCannotBeReadIs6) {
    const auto makeEmpty = [] { return dbus_message_new(DBUS_MESSAGE_TYPE_METHOD_RETURN); };
    const auto makeNumber = [] {
        DBusMessage* reply = dbus_message_new(DBUS_MESSAGE_TYPE_METHOD_RETURN);
        const dbus_int32_t number = 0;
        EXPECT_TRUE(dbus_message_append_args(reply, DBUS_TYPE_INT32, &number, DBUS_TYPE_INVALID));
        return reply;
    };
    for (const std::function<DBusMessage*()>& make :
         {std::function<DBusMessage*()>(makeEmpty), std::function<DBusMessage*()>(makeNumber)}) {
        bus.Reset();
        bus.makeReply = make;
        EXPECT_EQ(6, Call());
        EXPECT_EQ(kPoison, result);
        EXPECT_TRUE(
            Logged("E SendMessage  service: org.sentrel.sr_agent has dbus error: type "
                   "mismatch (org.freedesktop.DBus.Error.InvalidArgs) for agent: "
                   "sr_mount"));
        EXPECT_TRUE(bus.Balanced());
    }
}

TEST_F(FailureTest, ATextWithoutAUniqueNameEndsThere) {
    bus.uniqueName = nullptr;
    EXPECT_EQ(0, Call());
    EXPECT_TRUE(Logged("D AddMatch Connection (unique name: "));
    EXPECT_TRUE(Logged("D RemoveMatch Connection (unique name: "));
}

TEST_F(FailureTest, AConnectionLostDuringTheCallIsNotClosed) {
    bus.onCall = [](const std::string& function) {
        if (function == kBlockingCall) {
            bus.connections.front().connected = false;
        }
    };
    Fail(kBlockingCall);
    bus.errorName = "org.freedesktop.DBus.Error.Disconnected";
    EXPECT_EQ(6, Call());
    EXPECT_TRUE(Logged("D ~Impl Terminating connection no connected"));
    EXPECT_EQ(0, std::count(bus.calls.begin(), bus.calls.end(), "dbus_connection_close"));
}

// ---- single operations

class OperationTest : public BusTest {
protected:
    SR_DBusConnection Open() { return SR_DBusConnection::SystemBus(dispatcher); }
    test::FakeConnection& Fake() { return bus.connections.back(); }

    SR_DBusDispatcher dispatcher;
};

TEST_F(OperationTest, AConnectionCarriesOneReferenceForItselfAndOnePerHandle) {
    {
        const SR_DBusConnection first = Open();
        EXPECT_EQ(2, Fake().references);
        {
            const SR_DBusConnection copy(first);
            EXPECT_EQ(3, Fake().references);
            const SR_DBusConnection another(copy);
            EXPECT_EQ(4, Fake().references);
        }
        EXPECT_EQ(2, Fake().references);
        EXPECT_TRUE(Fake().connected) << "the copies' end leaves it open";
    }
    EXPECT_EQ(0, Fake().references);
    EXPECT_FALSE(Fake().connected);
}

TEST_F(OperationTest, TheFirstHandleMayGoBeforeItsCopy) {
    std::unique_ptr<SR_DBusConnection> first(new SR_DBusConnection(Open()));
    std::unique_ptr<SR_DBusConnection> copy(new SR_DBusConnection(*first));
    first.reset();
    EXPECT_EQ(2, Fake().references);
    EXPECT_TRUE(Fake().connected);
    copy.reset();
    EXPECT_EQ(0, Fake().references);
}

TEST_F(OperationTest, AConnectionsEndNamesItsAddress) {
    std::stringstream address;
    {
        const SR_DBusConnection connection = Open();
        address << SR_DBusConnection::Impl::Of(connection);
        test::TakeLog();
    }
    const std::vector<test::LogLine> lines = test::TakeLog();
    ASSERT_EQ(2u, lines.size());
    EXPECT_EQ("Terminating connection " + address.str(), lines[0].Body());
    EXPECT_EQ("Terminating connection is connected", lines[1].Body());
}

TEST_F(OperationTest, AMessageCarriesOneReferencePerObject) {
    {
        const SR_DBusCallMessage call;
        DBusMessage* handle = SR_DBusMessage::Impl::Of(call);
        EXPECT_EQ(1, bus.messages.at(handle));
        {
            const SR_DBusMessage copy(call);
            EXPECT_EQ(2, bus.messages.at(handle));
        }
        EXPECT_EQ(1, bus.messages.at(handle));
    }
    EXPECT_TRUE(bus.messages.empty());
}

TEST_F(OperationTest, AReplyKeepsTheOneReferenceItCameWith) {
    SR_DBusConnection connection = Open();
    SR_DBusCallMessage call;
    {
        const SR_DBusMessage reply = connection.SendReplyAndBlock(call, -1);
        EXPECT_EQ(1, bus.messages.at(SR_DBusMessage::Impl::Of(reply)));
        EXPECT_EQ(2u, bus.messages.size());
    }
    EXPECT_EQ(1u, bus.messages.size());
}

TEST_F(OperationTest, AnUnreachableBusThrowsAndQueuesNothing) {
    Fail("dbus_bus_get_private");
    EXPECT_EQ(kInjected, Thrown([&] { Open(); }));
    EXPECT_TRUE(bus.connections.empty());
    // A queued connection that does not exist would be dispatched here.
    dispatcher.DispatchPending();
}

TEST_F(OperationTest, ABlockingCallThrowsWhatTheBusSaid) {
    SR_DBusConnection connection = Open();
    SR_DBusCallMessage call;
    Fail(kBlockingCall);
    EXPECT_EQ(kInjected, Thrown([&] { connection.SendReplyAndBlock(call, -1); }));
}

TEST_F(OperationTest, TheTimeoutOfABlockingCallIsTheOneGiven) {
    SR_DBusConnection connection = Open();
    SR_DBusCallMessage call;
    for (const int timeout : {-1, 0, 1, 2147483647}) {
        (void)connection.SendReplyAndBlock(call, timeout);
        EXPECT_EQ(timeout, bus.lastTimeout);
    }
}

TEST_F(OperationTest, AHandlesTimeoutOtherThanMinusOneOverridesTheOneGiven) {
    SR_DBusConnection connection = Open();
    SR_DBusCallMessage call;
    for (const int timeout : {0, -2, 1, 2147483647}) {
        test::TimeoutOf(connection) = timeout;
        (void)connection.SendReplyAndBlock(call, 4000);
        EXPECT_EQ(timeout, bus.lastTimeout);
    }
    test::TimeoutOf(connection) = -1;
    (void)connection.SendReplyAndBlock(call, 4000);
    EXPECT_EQ(4000, bus.lastTimeout);
}

TEST_F(OperationTest, SettersAndAppendsReportThatLibdbusFailed) {
    SR_DBusCallMessage call;
    sentrel::SR_DBusMessageIter writer = call.GetWriter();
    const struct {
        const char* function;
        std::function<bool()> run;
    } table[] = {
        {"dbus_message_set_path", [&] { return call.SetPath("/x"); }},
        {"dbus_message_set_member", [&] { return call.SetMember("Member"); }},
        {"dbus_message_set_interface", [&] { return call.SetInterface("org.x.If"); }},
        {"dbus_message_set_destination", [&] { return call.SetDestination("org.x.Name"); }},
        {"dbus_message_iter_append_basic", [&] { return writer.AppendString("text"); }},
        {"dbus_message_iter_append_basic", [&] { return writer.AppendInt32(5); }},
    };
    for (const auto& row : table) {
        Fail(row.function);
        EXPECT_FALSE(row.run()) << row.function;
        EXPECT_TRUE(row.run()) << row.function;
    }
}

TEST_F(OperationTest, SendReportsOnlyWhetherTheMessageWasTaken) {
    SR_DBusConnection connection = Open();
    const SR_DBusCallMessage call;
    dbus_uint32_t serial = 0;
    EXPECT_TRUE(connection.Send(call, &serial));
    EXPECT_EQ(4711u, serial);
    EXPECT_TRUE(connection.Send(call, nullptr));
    Fail("dbus_connection_send");
    EXPECT_FALSE(connection.Send(call, &serial));
}

TEST_F(OperationTest, HasNameReturnsTheBussAnswerOrThrows) {
    SR_DBusConnection connection = Open();
    EXPECT_FALSE(connection.HasName("org.x.Nobody"));
    bus.hasOwner = true;
    EXPECT_TRUE(connection.HasName("org.x.Somebody"));
    Fail("dbus_bus_name_has_owner");
    EXPECT_EQ(kInjected, Thrown([&] { (void)connection.HasName("org.x.Somebody"); }));
}

Lines Released() {
    Lines released;
    const std::string start = "dbus_bus_release_name ";
    for (const std::string& call : bus.calls) {
        if (call.compare(0, start.size(), start) == 0) {
            released.push_back(call.substr(start.size()));
        }
    }
    return released;
}

TEST_F(OperationTest, ARefusedRequestThrowsAndIsNotRecorded) {
    {
        SR_DBusConnection connection = Open();
        Fail("dbus_bus_request_name");
        EXPECT_EQ(kInjected, Thrown([&] { connection.RequestName("org.x.A", 0); }));
        EXPECT_EQ(0, std::count(bus.calls.begin(), bus.calls.end(),
                                "dbus_bus_add_match destination='org.x.A'"));
    }
    EXPECT_EQ(Lines(), Released());
}

TEST_F(OperationTest, EveryAnswerToARequestIsRecordedAndReleasedInOrder) {
    {
        SR_DBusConnection connection = Open();
        int flags = 0;
        const struct {
            int answer;
            const char* name;
        } table[] = {{DBUS_REQUEST_NAME_REPLY_PRIMARY_OWNER, "org.x.A"},
                     {DBUS_REQUEST_NAME_REPLY_IN_QUEUE, "org.x.B"},
                     {DBUS_REQUEST_NAME_REPLY_EXISTS, "org.x.C"},
                     {DBUS_REQUEST_NAME_REPLY_ALREADY_OWNER, "org.x.A"},
                     {-1, "org.x.D"}};  // no error set: goes on like a success
        for (const auto& row : table) {
            bus.requestNameAnswer = row.answer;
            connection.RequestName(row.name, flags);
            const std::string name(row.name);
            EXPECT_EQ("dbus_bus_request_name " + name + " " + std::to_string(flags),
                      bus.calls[bus.calls.size() - 2]);
            EXPECT_EQ("dbus_bus_add_match destination='" + name + "'", bus.calls.back());
            ++flags;
        }
    }
    EXPECT_EQ((Lines{"org.x.A", "org.x.B", "org.x.C", "org.x.A", "org.x.D"}), Released());
    EXPECT_EQ("dbus_connection_close", bus.calls.back()) << "released before it is closed";
}

TEST_F(OperationTest, AnErrorBesideAnyOtherAnswerToARequestIsNotThrown) {
    {
        SR_DBusConnection connection = Open();
        bus.requestNameError = true;
        bus.requestNameAnswer = DBUS_REQUEST_NAME_REPLY_PRIMARY_OWNER;
        EXPECT_EQ("nothing", Thrown([&] { connection.RequestName("org.x.A", 0); }));
        EXPECT_EQ("dbus_bus_add_match destination='org.x.A'", bus.calls.back());
    }
    EXPECT_EQ((Lines{"org.x.A"}), Released());
}

TEST_F(OperationTest, ANameWhoseMatchRuleFailsStaysRecorded) {
    {
        SR_DBusConnection connection = Open();
        Fail("dbus_bus_add_match");
        EXPECT_EQ(kInjected, Thrown([&] { connection.RequestName("org.x.A", 4); }));
    }
    EXPECT_EQ((Lines{"org.x.A"}), Released());
}

TEST_F(OperationTest, AFailedReleaseIsIgnored) {
    {
        SR_DBusConnection connection = Open();
        connection.RequestName("org.x.A", 0);
        connection.RequestName("org.x.B", 0);
        Fail("dbus_bus_release_name");
    }
    EXPECT_EQ((Lines{"org.x.A", "org.x.B"}), Released());
    EXPECT_FALSE(Fake().connected);
}

TEST_F(OperationTest, AFailedMatchRuleThrowsAndLogsNothing) {
    SR_DBusConnection connection = Open();
    Fail("dbus_bus_add_match");
    test::TakeLog();
    EXPECT_EQ(kInjected, Thrown([&] { connection.AddMatch("type='signal'"); }));
    EXPECT_TRUE(test::TakeLog().empty());
}

TEST_F(OperationTest, AFailedRemovalThrowsOnlyWhenAskedTo) {
    SR_DBusConnection connection = Open();
    Fail("dbus_bus_remove_match");
    test::TakeLog();
    EXPECT_EQ(kInjected, Thrown([&] { connection.RemoveMatch("rule", true /* throwOnError */); }));
    EXPECT_TRUE(test::TakeLog().empty());
    Fail("dbus_bus_remove_match");
    EXPECT_EQ("nothing", Thrown([&] { connection.RemoveMatch("rule", false); }));
    EXPECT_EQ((Lines{"D RemoveMatch Connection (unique name: :UNIQUE) removed match rule rule"}),
              test::Brief(test::TakeLog()));
}

// A bound handle that cannot be completed gives back what it took.
TEST_F(OperationTest, AnExceptionWhileTheWatchesAreSetLeavesNoReference) {
    for (const char* function :
         {"dbus_connection_set_watch_functions", "dbus_connection_set_timeout_functions"}) {
        bus.Reset();
        bus.onCall = [function](const std::string& called) {
            if (called == function) {
                throw std::bad_alloc();
            }
        };
        // The dispatcher keeps the queued connection, so it must not be the fixture's.
        SR_DBusDispatcher failed;
        EXPECT_THROW(SR_DBusConnection::SystemBus(failed), std::bad_alloc) << function;
        EXPECT_TRUE(bus.Balanced()) << function;
    }
}

TEST_F(OperationTest, AProxyWhoseRuleIsRefusedGivesItsHandleBack) {
    SR_DBusConnection connection = Open();
    Fail("dbus_bus_add_match");
    EXPECT_EQ(kInjected, Thrown([&] {
                  const sentrel::SR_CommunicationClient client(connection, "org.x.If", "/x");
              }));
    EXPECT_EQ(2, Fake().references);
    EXPECT_EQ("dbus_bus_add_match type='signal',interface='org.x.If',path='/x'", bus.calls.back())
        << "nothing is removed";
}

// ---- credentials

typedef sentrel::BaseCallback<void, const SR_DBusCredentials*> Answer;

struct CountedAnswer : Answer {
    void call(const SR_DBusCredentials* credentials) const override {
        ++(credentials != nullptr ? known : unknown);
    }
    mutable int known = 0;
    mutable int unknown = 0;
};

class CredentialsFailureTest : public OperationTest {
protected:
    CredentialsFailureTest() : connection(Open()), answer(boost::make_shared<CountedAnswer>()) {}

    bool Ask() {
        return SR_DBusCredentials::Ask(connection, ":1.5",
                                       sentrel::Slot<void, const SR_DBusCredentials*>(answer));
    }
    // Nobody but the test holds the answer, and it was not called.
    void ExpectReleased() {
        EXPECT_EQ(1, answer.use_count());
        EXPECT_EQ(0, answer->known + answer->unknown);
        EXPECT_TRUE(Fake().filters.empty());
    }

    SR_DBusConnection connection;
    boost::shared_ptr<CountedAnswer> answer;
};

TEST_F(CredentialsFailureTest, AQuestionThatCannotBeSentIsNotAsked) {
    Fail("dbus_connection_send");
    EXPECT_FALSE(Ask());
    ExpectReleased();
    EXPECT_EQ(0, std::count(bus.calls.begin(), bus.calls.end(), "dbus_connection_add_filter"));
}

TEST_F(CredentialsFailureTest, AQuestionWhoseAnswerCannotBeAwaitedReleasesTheSlot) {
    Fail("dbus_connection_add_filter");
    EXPECT_FALSE(Ask());
    EXPECT_LE(bus.failAt, 0) << "the failure was met";
    ExpectReleased();
}

TEST_F(CredentialsFailureTest, NothingIsAskedOnALostConnection) {
    Fake().connected = false;
    EXPECT_FALSE(Ask());
    ExpectReleased();
    EXPECT_EQ(Lines(), bus.sent);
}

TEST_F(CredentialsFailureTest, AQuestionUnderWayIsReleasedWithTheConnection) {
    {
        SR_DBusConnection other = Open();
        EXPECT_TRUE(SR_DBusCredentials::Ask(
            other, ":1.5", sentrel::Slot<void, const SR_DBusCredentials*>(answer)));
        EXPECT_EQ(2, answer.use_count());
    }
    ExpectReleased();
}

TEST_F(CredentialsFailureTest, AnAnswerThatIsNoDictionaryIsNone) {
    ASSERT_TRUE(Ask());
    ASSERT_EQ(1u, Fake().filters.size());
    DBusMessage* reply = dbus_message_new(DBUS_MESSAGE_TYPE_METHOD_RETURN);
    const char* text = "no dictionary";
    EXPECT_TRUE(dbus_message_append_args(reply, DBUS_TYPE_STRING, &text, DBUS_TYPE_INVALID));
    EXPECT_TRUE(dbus_message_set_sender(reply, DBUS_SERVICE_DBUS));
    EXPECT_TRUE(dbus_message_set_reply_serial(reply, 4711));
    const test::FakeFilter filter = Fake().filters.front();
    EXPECT_EQ(DBUS_HANDLER_RESULT_HANDLED, filter.function(Fake().Get(), reply, filter.data));
    dbus_message_unref(reply);
    EXPECT_EQ(1, answer->unknown);
    EXPECT_EQ(0, answer->known);
    EXPECT_EQ(1, answer.use_count());
    EXPECT_TRUE(Fake().filters.empty()) << "asked once, answered once";
}

TEST_F(CredentialsFailureTest, ABlockingQuestionAnsweredByNoDictionaryThrows) {
    EXPECT_EQ("org.freedesktop.DBus.Error.InvalidArgs: type mismatch",
              Thrown([&] { const SR_DBusCredentials credentials(connection, ":1.5"); }));
}

// ---- the serving half

class Served : public SR_DBusIAdaptor, public SR_DBusAdaptor {
public:
    explicit Served(SR_DBusConnection& handle)
        : SR_DBusIAdaptor("org.x.If"), SR_DBusAdaptor(handle, "/x") {
        AddMethod("Call", this, &Served::Call);
    }
    SR_DBusMessage Call(const SR_DBusCallMessage& call) { return handler(call); }

    std::function<SR_DBusMessage(const SR_DBusCallMessage&)> handler;
};

class ServingTest : public OperationTest {
protected:
    ServingTest() : connection(Open()) {}

    // A call as libdbus delivers it; null leaves a field out.
    DBusHandlerResult Deliver(const char* interfaceName, const char* member, bool noReply = false) {
        DBusMessage* call = dbus_message_new(DBUS_MESSAGE_TYPE_METHOD_CALL);
        dbus_message_set_serial(call, 77);
        EXPECT_TRUE(dbus_message_set_interface(call, interfaceName));
        EXPECT_TRUE(dbus_message_set_member(call, member));
        dbus_message_set_no_reply(call, noReply);
        const auto& path = Fake().paths.at("/x");
        const DBusHandlerResult answer =
            path.first.message_function(Fake().Get(), call, path.second);
        EXPECT_EQ(1, bus.messages.at(call)) << "the library keeps no reference on the call";
        dbus_message_unref(call);
        return answer;
    }

    SR_DBusConnection connection;
};

TEST_F(ServingTest, APathThatCannotBeRegisteredThrows) {
    Fail("dbus_connection_try_register_object_path");
    EXPECT_EQ(kInjected, Thrown([&] { Served object(connection); }));
    EXPECT_EQ(2, Fake().references);
}

TEST_F(ServingTest, WhereTheSocketCannotBeServedInBothDirectionsItStaysWatchedAsBefore) {
    const auto before = Fake().removeWatch;
    ASSERT_NE(nullptr, before);
    Fail("dbus_connection_set_watch_functions");
    EXPECT_THROW({ Served object(connection); }, std::bad_alloc);
    EXPECT_EQ(before, Fake().removeWatch);
    EXPECT_EQ(2, Fake().references);
    EXPECT_TRUE(Fake().paths.empty());
}

TEST_F(ServingTest, AServedObjectHoldsAHandleAndTakesItsPathBack) {
    {
        const Served object(connection);
        EXPECT_EQ(3, Fake().references);
        EXPECT_EQ(1u, Fake().paths.count("/x"));
    }
    EXPECT_EQ(2, Fake().references);
    EXPECT_TRUE(Fake().paths.empty());
}

TEST_F(ServingTest, WhatAHandlerThrowsBecomesAnErrorReply) {
    Served object(connection);
    const struct {
        std::function<void()> fail;
        const char* reply;
    } table[] = {
        {[] { throw SR_DBusException("org.x.Error.Mine", "mine"); }, "3 org.x.Error.Mine mine"},
        {[] { throw std::runtime_error("plain"); }, "3 org.freedesktop.DBus.Error.Failed plain"},
        {[] { throw std::runtime_error("\xff"); },
         "3 org.freedesktop.DBus.Error.Failed the handler failed without a readable text"},
        {[] { throw 5; },
         "3 org.freedesktop.DBus.Error.Failed the handler failed without a readable text"},
        {[] { throw SR_DBusException("no name", "text"); },
         "3 org.freedesktop.DBus.Error.Failed text"},
    };
    for (const auto& row : table) {
        bus.sent.clear();
        object.handler = [&row](const SR_DBusCallMessage& call) -> SR_DBusMessage {
            row.fail();
            return call;
        };
        EXPECT_EQ(DBUS_HANDLER_RESULT_HANDLED, Deliver("org.x.If", "Call"));
        EXPECT_EQ((Lines{row.reply}), bus.sent);
    }
}

TEST_F(ServingTest, NobodyIsAnsweredWhoAskedForNoReply) {
    Served object(connection);
    object.handler = [](const SR_DBusCallMessage& call) { return SR_DBusReturnMessage(call); };
    EXPECT_EQ(DBUS_HANDLER_RESULT_HANDLED, Deliver("org.x.If", "Call", true /* noReply */));
    EXPECT_EQ(Lines(), bus.sent);
    EXPECT_EQ(DBUS_HANDLER_RESULT_HANDLED, Deliver("org.x.If", "Call"));
    EXPECT_EQ((Lines{"2 "}), bus.sent);
}

TEST_F(ServingTest, AHandlerThatAnswersLaterKeepsTheCall) {
    Served object(connection);
    std::unique_ptr<SR_DBusCallMessage> kept;
    object.handler = [&kept](const SR_DBusCallMessage& call) {
        kept.reset(new SR_DBusCallMessage(call));
        return call;
    };
    DBusMessage* call = dbus_message_new(DBUS_MESSAGE_TYPE_METHOD_CALL);
    dbus_message_set_serial(call, 77);
    EXPECT_TRUE(dbus_message_set_interface(call, "org.x.If"));
    EXPECT_TRUE(dbus_message_set_member(call, "Call"));
    const auto& path = Fake().paths.at("/x");
    EXPECT_EQ(DBUS_HANDLER_RESULT_HANDLED,
              path.first.message_function(Fake().Get(), call, path.second));
    EXPECT_EQ(2, bus.messages.at(call));
    dbus_message_unref(call);
    EXPECT_EQ(Lines(), bus.sent);
    EXPECT_TRUE(object.Reply(*kept, SR_DBusErrorMessage(*kept, "org.x.Error.Late", "late")));
    EXPECT_EQ((Lines{"3 org.x.Error.Late late"}), bus.sent);
}

TEST_F(ServingTest, UnknownInterfacesAndMembersAreAnsweredAsSuch) {
    Served object(connection);
    object.handler = [](const SR_DBusCallMessage& call) { return SR_DBusReturnMessage(call); };
    (void)Deliver("org.x.Other", "Call");
    (void)Deliver("org.x.If", "Unknown");
    (void)Deliver(nullptr, "Call");
    (void)Deliver(nullptr, "Unknown");
    EXPECT_EQ((Lines{"3 org.freedesktop.DBus.Error.UnknownInterface org.x.Other",
                     "3 org.freedesktop.DBus.Error.UnknownMethod Unknown", "2 ",
                     "3 org.freedesktop.DBus.Error.UnknownMethod Unknown"}),
              bus.sent);
}

TEST_F(ServingTest, ACallWithoutAMemberDoesNotThrowIntoLibdbus) {
    Served object(connection);
    EXPECT_EQ(DBUS_HANDLER_RESULT_HANDLED, Deliver("org.x.If", nullptr));
    EXPECT_EQ(1u, bus.sent.size());
}

TEST_F(ServingTest, OtherMessagesThanCallsAreLeftToOthers) {
    const Served object(connection);
    const auto& path = Fake().paths.at("/x");
    for (const int type :
         {DBUS_MESSAGE_TYPE_METHOD_RETURN, DBUS_MESSAGE_TYPE_ERROR, DBUS_MESSAGE_TYPE_SIGNAL}) {
        DBusMessage* message = dbus_message_new(type);
        EXPECT_EQ(DBUS_HANDLER_RESULT_NOT_YET_HANDLED,
                  path.first.message_function(Fake().Get(), message, path.second));
        dbus_message_unref(message);
    }
    EXPECT_EQ(Lines(), bus.sent);
}

TEST_F(ServingTest, AReplyThatLibdbusCouldNotMakeOrSendIsGivenUp) {
    Served object(connection);
    object.handler = [](const SR_DBusCallMessage& call) { return SR_DBusReturnMessage(call); };
    Fail("dbus_message_new_method_return");
    EXPECT_EQ(DBUS_HANDLER_RESULT_HANDLED, Deliver("org.x.If", "Call"));
    EXPECT_EQ(1, std::count(bus.nulls.begin(), bus.nulls.end(), "dbus_connection_send"));
    bus.nulls.clear();
    Fail("dbus_message_new_error");
    EXPECT_EQ(DBUS_HANDLER_RESULT_HANDLED, Deliver("org.x.If", "Unknown"));
    EXPECT_EQ(1, std::count(bus.nulls.begin(), bus.nulls.end(), "dbus_connection_send"));
    Fail("dbus_connection_send");
    EXPECT_EQ(DBUS_HANDLER_RESULT_HANDLED, Deliver("org.x.If", "Call"));
    EXPECT_EQ(Lines(), bus.sent);
}

TEST_F(ServingTest, AnIntrospectionThatCannotBeFilledInIsAnsweredEmpty) {
    const Served object(connection);
    Fail("dbus_message_iter_append_basic");
    EXPECT_EQ(DBUS_HANDLER_RESULT_HANDLED,
              Deliver("org.freedesktop.DBus.Introspectable", "Introspect"));
    EXPECT_LE(bus.failAt, 0) << "the failure was met";
    EXPECT_EQ((Lines{"2 "}), bus.sent);
}

TEST_F(ServingTest, AFailedAllocationWhileAnErrorIsAnsweredDoesNotReachLibdbus) {
    Served object(connection);
    object.handler = [](const SR_DBusCallMessage&) -> SR_DBusMessage {
        throw SR_DBusException("org.x.Error.Mine", "mine");
    };
    int met = 0;
    bus.onNewError = [&met] {
        ++met;
        throw std::bad_alloc();
    };
    EXPECT_EQ(DBUS_HANDLER_RESULT_HANDLED, Deliver("org.x.If", "Call"));
    EXPECT_EQ(1, met);
    EXPECT_TRUE(bus.messages.empty());
    EXPECT_EQ(Lines(), bus.sent);
}

// ---- the handlers of the exchange

class HandlerTest : public BusTest {
protected:
    // Throws from inside one libdbus call, and returns the lines of the whole call.
    template <typename Thrown>
    Lines CallThatThrows(const std::string& function, const Thrown& thrown) {
        bus.onCall = [&](const std::string& called) {
            if (called == function) {
                throw thrown;
            }
        };
        EXPECT_EQ(6, Call()) << function;
        EXPECT_EQ(kPoison, result);
        EXPECT_TRUE(bus.Balanced()) << function;
        return log;
    }
};

const char* const kThrowingCalls[] = {"dbus_bus_get_private", "dbus_connection_set_watch_functions",
                                      "dbus_connection_set_timeout_functions", "dbus_bus_add_match",
                                      kBlockingCall};

TEST_F(HandlerTest, AStandardExceptionIs6) {
    for (const char* function : kThrowingCalls) {
        const Lines lines = CallThatThrows(function, std::runtime_error("out of order"));
        EXPECT_TRUE(
            Logged("E SendMessage sarvice: org.sentrel.sr_agent has exception error: out "
                   "of order for agent: sr_mount"))
            << function;
        EXPECT_EQ(2, std::count_if(lines.begin(), lines.end(),
                                   [](const std::string& line) { return line[0] == 'E'; }));
    }
}

TEST_F(HandlerTest, AFailedAllocationIs6) {
    CallThatThrows(kBlockingCall, std::bad_alloc());
    EXPECT_TRUE(
        Logged("E SendMessage sarvice: org.sentrel.sr_agent has exception error: "
               "std::bad_alloc for agent: sr_mount"));
}

TEST_F(HandlerTest, AnUnknownExceptionIs6) {
    for (const char* function : kThrowingCalls) {
        const Lines lines = CallThatThrows(function, 42);
        EXPECT_TRUE(
            Logged("E SendMessage sarvice: org.sentrel.sr_agent has unknown exception "
                   "error for agent: sr_mount"))
            << function;
        EXPECT_EQ(2, std::count_if(lines.begin(), lines.end(),
                                   [](const std::string& line) { return line[0] == 'E'; }));
    }
}

// The line of the handler comes when connection and local dispatcher are gone; the other
// dispatcher, which nobody uses, goes last.
Lines LinesOfACallThatFailed(const std::string& handlersLine) {
    return {
        "D SR_DBusDispatcher create new dispatcher addr: PTR",
        "D SR_DBusDispatcher create new dispatcher addr: PTR",
        "D Impl SR_DBusConnection::Impl::Impl 1",
        "D SR_DBusIProxy Adding a new DBusIProxy org.sentrel.sr_agent",
        std::string("D AddMatch Connection (unique name: :UNIQUE) added match rule ") + kRule,
        std::string("D RemoveMatch Connection (unique name: :UNIQUE) removed match rule ") + kRule,
        "D ~Impl Terminating connection PTR",
        "D ~Impl Terminating connection is connected",
        "D ~SR_DBusDispatcher destroy dispatcher addr: PTR",
        handlersLine,
        "E SR_Agent [Client][Status]6",
        "D ~SR_DBusDispatcher destroy dispatcher addr: PTR"};
}

TEST_F(HandlerTest, AHandlerRunsWhenConnectionAndDispatcherAreGone) {
    EXPECT_EQ(LinesOfACallThatFailed("E SendMessage sarvice: org.sentrel.sr_agent has exception "
                                     "error: text for agent: sr_mount"),
              CallThatThrows(kBlockingCall, std::runtime_error("text")));
    EXPECT_EQ(LinesOfACallThatFailed("E SendMessage sarvice: org.sentrel.sr_agent has unknown "
                                     "exception error for agent: sr_mount"),
              CallThatThrows(kBlockingCall, std::string("text")));
    EXPECT_EQ(LinesOfACallThatFailed("E SendMessage  service: org.sentrel.sr_agent has dbus "
                                     "error: text (org.x.Error) for agent: sr_mount"),
              CallThatThrows(kBlockingCall, SR_DBusException("org.x.Error", "text")));
}

TEST_F(HandlerTest, AnExceptionWithoutANameEndsTheLineThereAndEscapes) {
    bus.onCall = [](const std::string& called) {
        if (called == kBlockingCall) {
            const sentrel::SR_DBusError empty;
            throw SR_DBusException(empty);
        }
    };
    EXPECT_THROW(Call(), std::logic_error);
    EXPECT_EQ(kPoison, result);
    EXPECT_TRUE(bus.Balanced());
    Lines expected =
        LinesOfACallThatFailed("E SendMessage  service: org.sentrel.sr_agent has dbus error: ");
    expected.erase(expected.end() - 2);  // no status is logged: there is none
    EXPECT_EQ(expected, test::Brief(test::TakeLog()));
}

// ---- the reply

class ExchangeTest : public BusTest {};

TEST_F(ExchangeTest, TheReplysTwoNumbersAreStatusAndReturnValue) {
    const int max = 2147483647;
    const int min = -max - 1;
    const struct {
        const char* reply;
        int code;
        int result;  // poison: left alone
    } table[] = {
        {"0 42", 0, 42},
        {"0 -1", 0, -1},
        {" \t\n0\n7 and more", 0, 7},
        {"\v\f\r0\v8", 0, 8},
        {"\xC2\xA0"
         "7 1",
         0, 0},  // a blank to others, not to the wire
        {"+0 +5", 0, 5},
        {"0", 0, 0},
        {"", 0, 0},
        {"text", 0, 0},
        {"0 text", 0, 0},
        {"00 09", 0, 9},
        {"0q1 2", 0, 0},  // read as 0; what follows is no number
        {"7 1", 7, kPoison},
        {"9 0", 9, kPoison},
        {"-4 0", -4, kPoison},
        {"3 5", 0, 5},  // the code of a success, as every success of the exchange
        {"77 1", 77, kPoison},
        {"99999999999 5", max, kPoison},
        {"-99999999999 5", min, kPoison},
        {"0 99999999999", 0, max},
    };
    for (const auto& row : table) {
        SCOPED_TRACE(row.reply);
        bus.Reset();
        bus.reply = row.reply;
        EXPECT_EQ(row.code, Call());
        EXPECT_EQ(row.result, result);
        EXPECT_TRUE(Logged(std::string("D SendMessage responseSerial: ") + row.reply));
    }
}

TEST_F(ExchangeTest, TheProgramsLocaleDoesNotChangeHowAReplyIsRead) {
    struct Grouping : std::numpunct<char> {
        char do_thousands_sep() const override { return ','; }
        std::string do_grouping() const override { return "\3"; }
    };
    const std::locale before =
        std::locale::global(std::locale(std::locale::classic(), new Grouping));
    bus.reply = "0 1,234";
    EXPECT_EQ(0, Call());
    std::locale::global(before);
    EXPECT_EQ(1, result);
}

TEST_F(ExchangeTest, TheReturnValueIsStoredWhateverTheStatus) {
    sentrel::Communication communication;
    const sentrel::Message request("args", 1);
    sentrel::Message response("untouched", 4);
    response.SetAgent("untouched too");
    bus.reply = "7 1";
    EXPECT_EQ(7, communication.SendMessage("org.x.Agent", request, response));
    EXPECT_EQ(1, response.GetRv());
    EXPECT_EQ("untouched", response.Get());
    EXPECT_EQ(4, response.GetOutputStream());
    EXPECT_EQ("untouched too", response.GetAgent());
    Fail(kBlockingCall);
    EXPECT_EQ(6, communication.SendMessage("org.x.Agent", request, response));
    EXPECT_EQ(1, response.GetRv()) << "left alone when no reply came";
}

TEST_F(ExchangeTest, ANullResultDropsTheReturnValue) {
    bus.reply = "0 7";
    EXPECT_EQ(0, SR_Rmmod("x", 1, 1, nullptr));
    bus.reply = "9 7";
    EXPECT_EQ(9, SR_Rmmod("x", 1, 1, nullptr));
}

TEST_F(ExchangeTest, NullArgumentsTouchNothing) {
    result = kPoison;
    EXPECT_EQ(6, SR_Mount(nullptr, 5, 1, &result));
    EXPECT_EQ(kPoison, result);
    EXPECT_TRUE(test::TakeLog().empty());
    EXPECT_TRUE(bus.calls.empty());
}

}  // namespace
