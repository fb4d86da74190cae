// SPDX-License-Identifier: Apache-2.0
// What a serving program has beside its objects: a first look at every message, answers without the
// call, what a peer has not read, and a socket of which both directions are served.
#include <gtest/gtest.h>

#include <boost/make_shared.hpp>
#include <functional>
#include <memory>
#include <stdexcept>

#include "Access.h"
#include "ChildProcess.h"
#include "Fixture.h"
#include "Loop.h"
#include "SR_DBusAdaptor.h"
#include "SR_DBusBacklog.h"
#include "SR_DBusCredentials.h"
#include "SR_DBusFilter.h"
#include "SR_DBusMessageImpl.h"
#include "SR_DBusReturnAddress.h"
#include "SilentCaller.h"

namespace {

using sentrel::SR_DBusAdaptor;
using sentrel::SR_DBusBacklog;
using sentrel::SR_DBusCallMessage;
using sentrel::SR_DBusConnection;
using sentrel::SR_DBusFilter;
using sentrel::SR_DBusMessage;
using sentrel::SR_DBusReturnAddress;
using test::Seen;
using test::Texts;

const char kObject[] = "/org/sentrel/served";
const char kInterface[] = "org.sentrel.Served";

template <typename Result, typename Argument>
class Function : public sentrel::BaseCallback<Result, Argument> {
public:
    explicit Function(std::function<Result(Argument)> called) : function(std::move(called)) {}
    Result call(Argument argument) const override { return function(argument); }

private:
    std::function<Result(Argument)> function;
};

template <typename Result, typename Argument>
sentrel::Slot<Result, Argument> SlotOf(std::function<Result(Argument)> function) {
    return sentrel::Slot<Result, Argument>(
        boost::make_shared<Function<Result, Argument> >(std::move(function)));
}

// Answers "Do" with the text that it is given, or a long one.
class Object : public sentrel::SR_DBusIAdaptor, public SR_DBusAdaptor {
public:
    Object(SR_DBusConnection& served, std::string answer)
        : SR_DBusIAdaptor(kInterface), SR_DBusAdaptor(served, kObject), text(std::move(answer)) {
        AddMethod("Do", SlotOf<SR_DBusMessage, const SR_DBusCallMessage&>(
                            [this](const SR_DBusCallMessage& call) {
                                ++calls;
                                sentrel::SR_DBusReturnMessage reply(call);
                                (void)reply.GetWriter().AppendString(text);
                                return SR_DBusMessage(reply);
                            }));
        AddMethod("Throw", SlotOf<SR_DBusMessage, const SR_DBusCallMessage&>(
                               [](const SR_DBusCallMessage&) -> SR_DBusMessage {
                                   throw std::runtime_error("broken");
                               }));
    }
    const char* Introspect() const override {
        return "  <interface name=\"org.sentrel.Served\"/>\n";
    }

    int calls = 0;

private:
    std::string text;
};

class ServerTest : public test::BusTest {
protected:
    ServerTest()
        : server(SR_DBusConnection::SystemBus(loop.dispatcher)),
          client(SR_DBusConnection::SystemBus(loop.dispatcher)),
          object(std::make_unique<Object>(server, "done")) {}
    ~ServerTest() override { loop.dispatcher.DispatchPending(); }

    DBusMessage* Call(const char* interfaceName, const char* member,
                      const char* path = kObject) const {
        return dbus_message_new_method_call(server.GetUniqueName(), path, interfaceName, member);
    }
    Seen Ask(const char* interfaceName, const char* member, const char* path = kObject) {
        return loop.Ask(client, Call(interfaceName, member, path));
    }
    std::unique_ptr<SR_DBusFilter> Filter(std::function<bool(const SR_DBusCallMessage&)> function) {
        return std::make_unique<SR_DBusFilter>(
            server, SlotOf<bool, const SR_DBusCallMessage&>(std::move(function)));
    }
    static bool IsFromTheBus(const SR_DBusMessage& message) {
        return message.GetSender() == nullptr ||
               std::string(message.GetSender()) == "org.freedesktop.DBus";
    }

    test::Loop loop;
    SR_DBusConnection server;
    SR_DBusConnection client;
    std::unique_ptr<Object> object;
};

// What SR_DBusBacklog::Ask() tells about a name.
struct Told {
    bool answered = false;
    bool gone = false;
    bool known = false;
    std::size_t bytes = 0;
};

Told AskBacklog(test::Loop& loop, SR_DBusConnection& connection, const std::string& name) {
    Told told;
    EXPECT_TRUE(SR_DBusBacklog::Ask(
        connection, name,
        SlotOf<void, const SR_DBusBacklog&>([&told](const SR_DBusBacklog& backlog) {
            told = {true, backlog.IsGone(), backlog.IsKnown(), backlog.GetBytes()};
        })));
    loop.RunUntil([&told] { return told.answered; });
    return told;
}

TEST_F(ServerTest, AFilterSeesEveryMessageBeforeAnyObjectDoes) {
    Texts seen;
    const auto filter = Filter([&seen](const SR_DBusCallMessage& message) {
        if (!IsFromTheBus(message)) {
            seen.push_back(std::to_string(message.GetType()) + " " +
                           (message.GetMember() != nullptr ? message.GetMember() : ""));
        }
        return false;
    });
    EXPECT_EQ((Texts{"done"}), Ask(kInterface, "Do").arguments);
    EXPECT_EQ(DBUS_MESSAGE_TYPE_METHOD_RETURN, Ask("org.freedesktop.DBus.Peer", "Ping").type);
    EXPECT_EQ(DBUS_MESSAGE_TYPE_ERROR, Ask("org.sentrel.Other", "Other", "/elsewhere").type);
    DBusMessage* signal = dbus_message_new_signal("/x", "org.sentrel.X", "Large");
    (void)dbus_message_set_destination(signal, server.GetUniqueName());
    (void)dbus_connection_send(SR_DBusConnection::Impl::Of(client), signal, nullptr);
    dbus_message_unref(signal);
    (void)Ask("org.freedesktop.DBus.Introspectable", "Introspect");
    EXPECT_EQ((Texts{"1 Do", "1 Ping", "1 Other", "4 Large", "1 Introspect"}), seen);
}

TEST_F(ServerTest, WhatAFilterTakesReachesNoObjectAndIsNotAnswered) {
    const auto filter = Filter([](const SR_DBusCallMessage& message) {
        return message.GetMember() != nullptr && std::string(message.GetMember()) != "Ping";
    });
    EXPECT_EQ("org.freedesktop.DBus.Error.NoReply",
              loop.Ask(client, Call(kInterface, "Do"), 200).error);
    EXPECT_EQ(DBUS_MESSAGE_TYPE_METHOD_RETURN, Ask("org.freedesktop.DBus.Peer", "Ping").type);
    EXPECT_EQ(0, object->calls);
}

TEST_F(ServerTest, WhatAFilterThrowsTakesTheMessage) {
    int throws = 0;
    auto filter = Filter([&throws](const SR_DBusCallMessage& message) {
        if (message.GetMember() != nullptr && std::string(message.GetMember()) == "Do") {
            ++throws;
            throw std::runtime_error("dropped");
        }
        return false;
    });
    EXPECT_EQ("org.freedesktop.DBus.Error.NoReply",
              loop.Ask(client, Call(kInterface, "Do"), 200).error);
    EXPECT_EQ(1, throws);
    filter.reset();
    EXPECT_EQ((Texts{"done"}), Ask(kInterface, "Do").arguments);
}

TEST_F(ServerTest, AFilterThatThrowsTakesNoAnswerOfTheBusAway) {
    const auto filter = Filter([](const SR_DBusCallMessage& message) -> bool {
        if (IsFromTheBus(message)) {
            throw std::runtime_error("dropped");
        }
        return false;
    });
    EXPECT_TRUE(AskBacklog(loop, server, server.GetUniqueName()).known);
}

TEST_F(ServerTest, WhoIsThereIsToldAtEveryPathWithAndWithoutAFilter) {
    for (int round = 0; round < 3; ++round) {
        // Without one, with one that takes nothing, and again without.
        const auto filter =
            round == 1 ? Filter([](const SR_DBusCallMessage&) { return false; }) : nullptr;
        for (const char* path : {kObject, "/", "/no/such/object"}) {
            const Seen pong = Ask("org.freedesktop.DBus.Peer", "Ping", path);
            EXPECT_EQ(DBUS_MESSAGE_TYPE_METHOD_RETURN, pong.type) << round << path;
            EXPECT_EQ("", pong.signature);
            EXPECT_EQ("org.freedesktop.DBus.Error.UnknownMethod",
                      Ask("org.freedesktop.DBus.Peer", "Other", path).error);
        }
    }
    const auto filter = Filter([](const SR_DBusCallMessage&) { return false; });
    const Seen id = Ask("org.freedesktop.DBus.Peer", "GetMachineId");
    char* const own = dbus_try_get_local_machine_id(nullptr);
    if (own != nullptr) {
        EXPECT_EQ((Texts{own}), id.arguments);
        dbus_free(own);
    } else {
        EXPECT_EQ(DBUS_MESSAGE_TYPE_ERROR, id.type);
    }
}

TEST_F(ServerTest, AnObjectSaysWhatItWouldAnswerAndSendsNothing) {
    std::unique_ptr<SR_DBusCallMessage> kept;
    auto filter = Filter([&kept](const SR_DBusCallMessage& message) {
        if (IsFromTheBus(message)) {
            return false;
        }
        kept.reset(new SR_DBusCallMessage(message));
        return true;
    });
    for (const auto& each : {std::pair<const char*, const char*>{"Do", ""},
                             {"Throw", "org.freedesktop.DBus.Error.Failed"},
                             {"Other", "org.freedesktop.DBus.Error.UnknownMethod"}}) {
        EXPECT_EQ("org.freedesktop.DBus.Error.NoReply",
                  loop.Ask(client, Call(kInterface, each.first), 200).error);
        ASSERT_NE(nullptr, kept);
        const SR_DBusMessage answer = object->Answer(*kept);
        const Seen seen = Seen::Of(sentrel::SR_DBusMessage::Impl::Of(answer));
        EXPECT_EQ(each.second, seen.error);
        EXPECT_EQ(client.GetUniqueName(), seen.destination);
    }
}

TEST_F(ServerTest, AReturnAddressAnswersWithoutTheCall) {
    std::unique_ptr<SR_DBusReturnAddress> address;
    const auto filter = Filter([&address](const SR_DBusCallMessage& message) {
        if (IsFromTheBus(message)) {
            return false;
        }
        address = std::make_unique<SR_DBusReturnAddress>(message);
        return true;
    });
    for (const bool isError : {false, true}) {
        DBusPendingCall* pending = nullptr;
        DBusMessage* call = Call(kInterface, "Do");
        ASSERT_TRUE(dbus_connection_send_with_reply(SR_DBusConnection::Impl::Of(client), call,
                                                    &pending, 20000));
        dbus_message_unref(call);
        loop.RunUntil([&address] { return address != nullptr; });
        EXPECT_EQ(client.GetUniqueName(), address->GetSender());
        EXPECT_TRUE(address->WantsReply());
        SR_DBusMessage reply =
            isError ? address->Error("org.sentrel.Error.Mine", "my text") : address->Return();
        if (!isError) {
            ASSERT_TRUE(reply.GetWriter().AppendString("my text"));
        }
        ASSERT_TRUE(server.Send(reply, nullptr));
        loop.RunUntil([pending] { return dbus_pending_call_get_completed(pending) != 0; });
        DBusMessage* answer = dbus_pending_call_steal_reply(pending);
        const Seen seen = Seen::Of(answer);
        EXPECT_EQ((Texts{"my text"}), seen.arguments);
        EXPECT_EQ(isError ? "org.sentrel.Error.Mine" : "", seen.error);
        dbus_message_unref(answer);
        dbus_pending_call_unref(pending);
        address.reset();
    }
    DBusMessage* call = Call(kInterface, "Do");
    dbus_message_set_no_reply(call, TRUE);
    (void)dbus_connection_send(SR_DBusConnection::Impl::Of(client), call, nullptr);
    dbus_message_unref(call);
    loop.RunUntil([&address] { return address != nullptr; });
    EXPECT_FALSE(address->WantsReply());
}

TEST_F(ServerTest, TheBusTellsWhatAPeerHasNotRead) {
    object.reset();
    object = std::make_unique<Object>(server, std::string(100000, 'x'));
    test::SilentCaller silent;
    const std::string name = silent.Connection().UniqueName();
    Told told = AskBacklog(loop, server, name);
    EXPECT_TRUE(told.known);
    EXPECT_FALSE(told.gone);
    EXPECT_EQ(0U, told.bytes);
    for (int i = 0; i < 50; ++i) {
        ASSERT_TRUE(silent.Write(Call(kInterface, "Do"), test::kLimit));
    }
    loop.RunUntil([this] { return object->calls == 50; });
    told = AskBacklog(loop, server, name);
    EXPECT_TRUE(told.known);
    EXPECT_GT(told.bytes, 3000000U);  // but for what its socket has taken
    EXPECT_LT(told.bytes, 5100000U);
    EXPECT_EQ(50, silent.Read());
    EXPECT_EQ(0U, AskBacklog(loop, server, name).bytes);
}

TEST_F(ServerTest, ANameThatNobodyHasIsGone) {
    const Told told = AskBacklog(loop, server, ":1.99999");
    EXPECT_TRUE(told.gone);
    EXPECT_FALSE(told.known);
    EXPECT_EQ(0U, told.bytes);
}

TEST_F(ServerTest, WithoutAConnectionNothingIsAsked) {
    bus.Stop();
    loop.RunUntil([this] { return !object->Connected(); });
    EXPECT_FALSE(SR_DBusBacklog::Ask(
        server, ":1.1", SlotOf<void, const SR_DBusBacklog&>([](const SR_DBusBacklog&) {})));
}

// While one peer takes no answers, what others send is read all the same, and the loop rests.
TEST_F(ServerTest, APeerThatTakesNoAnswersDoesNotMakeTheServerDeaf) {
    object.reset();
    bus.Stop();
    const test::PrivateBus small(test::PrivateBus::Configuration(
        "  <limit name=\"max_incoming_bytes\">65536</limit>\n"
        "  <limit name=\"max_replies_per_connection\">99999</limit>\n"));
    test::Loop ownLoop;
    SR_DBusConnection own = SR_DBusConnection::SystemBus(ownLoop.dispatcher);
    Object served(own, std::string(100000, 'x'));
    test::SilentCaller silent;
    const auto call = [&own] {
        return dbus_message_new_method_call(own.GetUniqueName(), kObject, kInterface, "Do");
    };
    for (int i = 0; i < 50; ++i) {
        ASSERT_TRUE(silent.Write(call(), test::kLimit));
    }
    ownLoop.RunUntil([&served] { return served.calls == 50; });
    // The bus takes nothing more from the server; what comes in is served none the less.
    EXPECT_GT(dbus_connection_get_outgoing_size(SR_DBusConnection::Impl::Of(own)), 1000000);
    test::SilentCaller other;
    ASSERT_TRUE(other.Write(call(), test::kLimit));
    ownLoop.RunUntil([&served] { return served.calls == 51; });
    // With nothing to do, a turn takes as long as its shortest timer.
    const test::Timer timer(300, ownLoop.dispatcher, [] {});
    const auto start = std::chrono::steady_clock::now();
    ownLoop.dispatcher.Dispatch();
    EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(250));
    // And when somebody reads again, the answers go on.
    int answers = 0;
    ownLoop.RunUntil([&] {
        answers += silent.Read();
        return answers >= 50;
    });
}

TEST_F(ServerTest, ASecondObjectOfAConnectionIsServedAndTheFirstStaysSoWhenItGoes) {
    struct Other : public sentrel::SR_DBusIAdaptor, public SR_DBusAdaptor {
        explicit Other(SR_DBusConnection& served)
            : SR_DBusIAdaptor("org.sentrel.Other"), SR_DBusAdaptor(served, "/other") {}
    };
    auto other = std::make_unique<Other>(server);
    EXPECT_EQ("org.freedesktop.DBus.Error.UnknownMethod",
              Ask("org.sentrel.Other", "Do", "/other").error);
    EXPECT_EQ((Texts{"done"}), Ask(kInterface, "Do").arguments);
    other.reset();
    EXPECT_EQ((Texts{"done"}), Ask(kInterface, "Do").arguments);
}

TEST_F(ServerTest, AServerWhoseBusGoesAwaySeesItsEnd) {
    EXPECT_EQ((Texts{"done"}), Ask(kInterface, "Do").arguments);
    bus.Stop();
    loop.RunUntil([this] { return !object->Connected(); });
    EXPECT_FALSE(object->Connected());
}

}  // namespace
