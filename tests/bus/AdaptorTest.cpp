// SPDX-License-Identifier: Apache-2.0
// The serving half: objects at a path, served by a loop and called over the bus.
#include "SR_DBusAdaptor.h"

#include <gtest/gtest.h>

#include <boost/make_shared.hpp>
#include <memory>
#include <stdexcept>

#include "Access.h"
#include "Fixture.h"
#include "Loop.h"
#include "SR_DBusError.h"

namespace {

using sentrel::SR_DBusAdaptor;
using sentrel::SR_DBusCallMessage;
using sentrel::SR_DBusConnection;
using sentrel::SR_DBusException;
using sentrel::SR_DBusIAdaptor;
using sentrel::SR_DBusMessage;
using sentrel::SR_DBusReturnMessage;
using test::Seen;
using test::Texts;

const char kObject[] = "/org/sentrel/served";

std::string Error(const char* name) {
    return std::string(test::kErrorPrefix) + name;
}

// An interface whose handlers are functions.
class Interface : public SR_DBusIAdaptor {
public:
    typedef std::function<SR_DBusMessage(const SR_DBusCallMessage&)> Handler;

    explicit Interface(const char* name, const char* introspection = nullptr)
        : SR_DBusIAdaptor(name), text(introspection) {}

    const char* Introspect() const override { return text; }

    void On(const char* member, Handler handler) {
        AddMethod(member, sentrel::Slot<SR_DBusMessage, const SR_DBusCallMessage&>(
                              boost::make_shared<Function>(std::move(handler))));
    }

    // A handler that answers with one string.
    void Answer(const char* member, const std::string& answer) {
        On(member, [answer](const SR_DBusCallMessage& call) {
            SR_DBusReturnMessage reply(call);
            reply.GetWriter().AppendString(answer);
            return SR_DBusMessage(reply);
        });
    }

private:
    class Function : public sentrel::BaseCallback<SR_DBusMessage, const SR_DBusCallMessage&> {
    public:
        explicit Function(Handler function) : handler(std::move(function)) {}
        SR_DBusMessage call(const SR_DBusCallMessage& message) const override {
            return handler(message);
        }

    private:
        Handler handler;
    };

    const char* text;
};

struct InterfaceA : public Interface {
    InterfaceA() : Interface("org.sentrel.A", "  <interface name=\"org.sentrel.A\"/>\n") {}
};

struct InterfaceB : public Interface {
    InterfaceB() : Interface("org.sentrel.B") {}
};

struct Object : public InterfaceB, public InterfaceA, public SR_DBusAdaptor {
    explicit Object(SR_DBusConnection& served) : SR_DBusAdaptor(served, kObject) {}
};

class AdaptorTest : public test::BusTest {
protected:
    AdaptorTest()
        : server(SR_DBusConnection::SystemBus(loop.dispatcher)),
          client(SR_DBusConnection::SystemBus(loop.dispatcher)),
          object(new Object(server)) {}

    ~AdaptorTest() override { loop.dispatcher.DispatchPending(); }

    DBusMessage* Call(const char* interfaceName, const char* member, const char* path = kObject) {
        return dbus_message_new_method_call(server.GetUniqueName(), path, interfaceName, member);
    }

    Seen Ask(const char* interfaceName, const char* member, const char* path = kObject) {
        return loop.Ask(client, Call(interfaceName, member, path));
    }

    // Everything sent before has been received, and what it caused has been sent.
    void Settle() {
        EXPECT_EQ(DBUS_MESSAGE_TYPE_METHOD_RETURN, Ask("org.freedesktop.DBus.Peer", "Ping").type);
    }

    void Send(DBusMessage* message) {
        EXPECT_TRUE(dbus_connection_send(SR_DBusConnection::Impl::Of(client), message, nullptr));
        dbus_message_unref(message);
    }

    test::Loop loop;
    SR_DBusConnection server;
    SR_DBusConnection client;
    std::unique_ptr<Object> object;
};

TEST_F(AdaptorTest, ACallGoesToTheAdaptorOfItsInterface) {
    object->InterfaceA::Answer("Do", "from A");
    object->InterfaceB::Answer("Do", "from B");
    EXPECT_EQ((Texts{"from A"}), Ask("org.sentrel.A", "Do").arguments);
    EXPECT_EQ((Texts{"from B"}), Ask("org.sentrel.B", "Do").arguments);
}

TEST_F(AdaptorTest, ACallWithoutAnInterfaceGoesToTheFirstThatHasTheMember) {
    object->InterfaceA::Answer("Both", "from A");
    object->InterfaceB::Answer("Both", "from B");
    object->InterfaceB::Answer("OnlyB", "from B");
    EXPECT_EQ((Texts{"from A"}), Ask(nullptr, "Both").arguments);
    EXPECT_EQ((Texts{"from B"}), Ask(nullptr, "OnlyB").arguments);
    const Seen unknown = Ask(nullptr, "Nobodys");
    EXPECT_EQ(Error("UnknownMethod"), unknown.error);
    EXPECT_EQ((Texts{"Nobodys"}), unknown.arguments);
}

TEST_F(AdaptorTest, AnUnknownInterfaceIsAnErrorWithItsName) {
    object->InterfaceA::Answer("Do", "from A");
    const Seen answer = Ask("org.sentrel.C", "Do");
    EXPECT_EQ(Error("UnknownInterface"), answer.error);
    EXPECT_EQ((Texts{"org.sentrel.C"}), answer.arguments);
}

TEST_F(AdaptorTest, AnUnknownMemberIsAnErrorWithItsName) {
    object->InterfaceA::Answer("Do", "from A");
    for (const char* member : {"Other", "do", "DO"}) {
        const Seen answer = Ask("org.sentrel.A", member);
        EXPECT_EQ(Error("UnknownMethod"), answer.error);
        EXPECT_EQ((Texts{member}), answer.arguments);
    }
}

TEST_F(AdaptorTest, TheAnswerGoesBackToTheCaller) {
    object->InterfaceA::Answer("Do", "x");
    const Seen answer = Ask("org.sentrel.A", "Do");
    EXPECT_EQ(DBUS_MESSAGE_TYPE_METHOD_RETURN, answer.type);
    EXPECT_EQ(server.GetUniqueName(), answer.sender);
    EXPECT_EQ(client.GetUniqueName(), answer.destination);
}

TEST_F(AdaptorTest, AHandlerSeesTheCallersArguments) {
    std::string seen;
    object->InterfaceA::On("Do", [&seen](const SR_DBusCallMessage& call) {
        sentrel::SR_DBusMessageIter reader = call.GetReader();
        seen = reader.GetString();
        seen += " " + std::to_string((++reader).GetInt32());
        return SR_DBusMessage(SR_DBusReturnMessage(call));
    });
    DBusMessage* call = Call("org.sentrel.A", "Do");
    const char* text = "text";
    const dbus_int32_t number = -3;
    dbus_message_append_args(call, DBUS_TYPE_STRING, &text, DBUS_TYPE_INT32, &number,
                             DBUS_TYPE_INVALID);
    EXPECT_TRUE(loop.Ask(client, call).arguments.empty());
    EXPECT_EQ("text -3", seen);
}

TEST_F(AdaptorTest, ACallThatWantsNoReplyIsServedAndNotAnswered) {
    int served = 0;
    object->InterfaceA::On("Do", [&served](const SR_DBusCallMessage& call) {
        ++served;
        EXPECT_FALSE(SR_DBusAdaptor::WantsReply(call));
        return SR_DBusMessage(SR_DBusReturnMessage(call));
    });
    object->InterfaceA::On("Throw", [&served](const SR_DBusCallMessage&) -> SR_DBusMessage {
        ++served;
        throw std::runtime_error("unheard");
    });
    test::Monitor monitor;
    for (const char* member : {"Do", "Throw", "Unknown"}) {
        DBusMessage* call = Call("org.sentrel.A", member);
        dbus_message_set_no_reply(call, TRUE);
        Send(call);
    }
    Settle();
    EXPECT_EQ(2, served);
    std::size_t answers = 0;
    for (const Seen& message : monitor.Take()) {
        answers += message.sender == server.GetUniqueName() ? 1U : 0U;
    }
    EXPECT_EQ(1U, answers) << "the answer to the ping only";
}

TEST_F(AdaptorTest, ABusExceptionBecomesAnErrorReplyOfItsName) {
    object->InterfaceA::On("Do", [](const SR_DBusCallMessage&) -> SR_DBusMessage {
        throw SR_DBusException("org.sentrel.Error.Mine", "my text");
    });
    const Seen answer = Ask("org.sentrel.A", "Do");
    EXPECT_EQ("org.sentrel.Error.Mine", answer.error);
    EXPECT_EQ((Texts{"my text"}), answer.arguments);
}

TEST_F(AdaptorTest, AStandardExceptionBecomesAFailure) {
    object->InterfaceA::On("Do", [](const SR_DBusCallMessage&) -> SR_DBusMessage {
        throw std::runtime_error("broken");
    });
    const Seen answer = Ask("org.sentrel.A", "Do");
    EXPECT_EQ(Error("Failed"), answer.error);
    EXPECT_EQ((Texts{"broken"}), answer.arguments);
}

TEST_F(AdaptorTest, WhateverElseIsThrownBecomesAFailure) {
    object->InterfaceA::On("Do", [](const SR_DBusCallMessage&) -> SR_DBusMessage { throw 42; });
    const Seen answer = Ask("org.sentrel.A", "Do");
    EXPECT_EQ(Error("Failed"), answer.error);
    EXPECT_EQ(1U, answer.arguments.size());
}

TEST_F(AdaptorTest, AnExceptionOfAnInvalidNameOrTextDoesNotEndTheProcess) {
    struct Case {
        const char* name;
        const char* text;
        std::string expected;
    };
    const Case cases[] = {{"no name at all", "text", Error("Failed")},
                          {"", "text", Error("Failed")},
                          {"org.sentrel.Error.Good", "\xff\xfe", "org.sentrel.Error.Good"}};
    for (const Case& each : cases) {
        object->InterfaceA::On("Do", [&each](const SR_DBusCallMessage&) -> SR_DBusMessage {
            throw SR_DBusException(each.name, each.text);
        });
        const Seen answer = Ask("org.sentrel.A", "Do");
        EXPECT_EQ(each.expected, answer.error);
        EXPECT_EQ(1U, answer.arguments.size());
    }
    object->InterfaceA::On("Do", [](const SR_DBusCallMessage&) -> SR_DBusMessage {
        throw std::runtime_error("\xff");
    });
    EXPECT_EQ(Error("Failed"), Ask("org.sentrel.A", "Do").error);
}

TEST_F(AdaptorTest, AHandlerMayAnswerLater) {
    std::vector<SR_DBusCallMessage> kept;
    object->InterfaceA::On("Slow", [&kept](const SR_DBusCallMessage& call) {
        kept.push_back(call);
        return SR_DBusMessage(call);
    });
    object->InterfaceA::On("Finish", [&](const SR_DBusCallMessage& call) {
        for (const SR_DBusCallMessage& each : kept) {
            SR_DBusReturnMessage reply(each);
            reply.GetWriter().AppendString("at last");
            EXPECT_TRUE(object->Reply(each, reply));
        }
        return SR_DBusMessage(SR_DBusReturnMessage(call));
    });
    DBusPendingCall* slow = nullptr;
    DBusMessage* call = Call("org.sentrel.A", "Slow");
    ASSERT_TRUE(
        dbus_connection_send_with_reply(SR_DBusConnection::Impl::Of(client), call, &slow, 20000));
    dbus_message_unref(call);
    Settle();
    EXPECT_EQ(1U, kept.size());
    EXPECT_FALSE(dbus_pending_call_get_completed(slow));
    (void)Ask("org.sentrel.A", "Finish");
    loop.RunUntil([slow] { return dbus_pending_call_get_completed(slow) != 0; });
    DBusMessage* reply = dbus_pending_call_steal_reply(slow);
    ASSERT_NE(nullptr, reply);
    EXPECT_EQ((Texts{"at last"}), Seen::Of(reply).arguments);
    dbus_message_unref(reply);
    dbus_pending_call_unref(slow);
}

TEST_F(AdaptorTest, AKeptCallOutlivesItsObject) {
    std::unique_ptr<SR_DBusCallMessage> kept;
    object->InterfaceA::On("Slow", [&kept](const SR_DBusCallMessage& call) {
        kept.reset(new SR_DBusCallMessage(call));
        return SR_DBusMessage(call);
    });
    Send(Call("org.sentrel.A", "Slow"));
    Settle();
    ASSERT_NE(nullptr, kept);
    object.reset();
    EXPECT_STREQ("Slow", kept->GetMember());
    EXPECT_STREQ(client.GetUniqueName(), kept->GetSender());
}

TEST_F(AdaptorTest, IntrospectionTellsEveryInterfaceThatHasAText) {
    for (const char* interfaceName : {"org.freedesktop.DBus.Introspectable", ""}) {
        const Seen answer = Ask(interfaceName[0] != '\0' ? interfaceName : nullptr, "Introspect");
        ASSERT_EQ("s", answer.signature);
        const std::string text = answer.arguments.at(0);
        EXPECT_EQ(0U, text.find("<!DOCTYPE node PUBLIC"));
        for (const char* part : {"<node>", "  <interface name=\"org.sentrel.A\"/>\n",
                                 "\"org.freedesktop.DBus.Introspectable\"",
                                 "\"org.freedesktop.DBus.Peer\"", "</node>\n"}) {
            EXPECT_NE(std::string::npos, text.find(part)) << part;
        }
        EXPECT_EQ(std::string::npos, text.find("org.sentrel.B"));
    }
    EXPECT_EQ(Error("UnknownMethod"), Ask("org.freedesktop.DBus.Introspectable", "Other").error);
}

TEST_F(AdaptorTest, ACallThatCarriesADescriptorIsRefused) {
    int served = 0;
    object->InterfaceA::On("Do", [&served](const SR_DBusCallMessage& call) {
        ++served;
        return SR_DBusMessage(SR_DBusReturnMessage(call));
    });
    DBusMessage* call = Call("org.sentrel.A", "Do");
    const int descriptor = 0;
    ASSERT_TRUE(dbus_message_append_args(call, DBUS_TYPE_UNIX_FD, &descriptor, DBUS_TYPE_INVALID));
    const Seen answer = loop.Ask(client, call);
    EXPECT_EQ(Error("InvalidArgs"), answer.error);
    EXPECT_EQ((Texts{"descriptors are not accepted"}), answer.arguments);
    EXPECT_EQ(0, served);
}

TEST_F(AdaptorTest, APathThatIsTakenThrows) {
    const auto second = [this] { Object other(server); };
    EXPECT_EQ(Error("ObjectPathInUse"), test::ThrownName<SR_DBusException>(second));
    object->InterfaceA::Answer("Do", "still the first");
    EXPECT_EQ((Texts{"still the first"}), Ask("org.sentrel.A", "Do").arguments);
}

// libdbus's own answer for a path that nobody serves; an adaptor's has the bare member as its text.
void ExpectNobodyThere(const Seen& answer) {
    EXPECT_EQ(Error("UnknownMethod"), answer.error);
    ASSERT_EQ(1U, answer.arguments.size());
    EXPECT_EQ(0U, answer.arguments[0].find("Method \"Do\" with signature")) << answer.Text();
}

TEST_F(AdaptorTest, ThePathIsFreeAfterTheEnd) {
    object.reset();
    ExpectNobodyThere(Ask("org.sentrel.A", "Do"));
    EXPECT_NO_THROW(object.reset(new Object(server)));
    object->InterfaceA::Answer("Do", "again");
    EXPECT_EQ((Texts{"again"}), Ask("org.sentrel.A", "Do").arguments);
}

TEST_F(AdaptorTest, OtherPathsAreNotItsOwn) {
    object->InterfaceA::Answer("Do", "x");
    ExpectNobodyThere(Ask("org.sentrel.A", "Do", "/org/sentrel/other"));
    ExpectNobodyThere(Ask("org.sentrel.A", "Do", "/org/sentrel/served/x"));
}

TEST_F(AdaptorTest, ASignalToItsPathIsIgnored) {
    int served = 0;
    object->InterfaceA::On("Do", [&served](const SR_DBusCallMessage& call) {
        ++served;
        return SR_DBusMessage(SR_DBusReturnMessage(call));
    });
    test::Monitor monitor;
    DBusMessage* signal = dbus_message_new_signal(kObject, "org.sentrel.A", "Do");
    dbus_message_set_destination(signal, server.GetUniqueName());
    Send(signal);
    Settle();
    EXPECT_EQ(0, served);
    std::size_t sent = 0;
    for (const Seen& message : monitor.Take()) {
        sent += message.sender == server.GetUniqueName() ? 1U : 0U;
    }
    EXPECT_EQ(1U, sent) << "the answer to the ping only";
}

TEST_F(AdaptorTest, ConnectedTellsWhenTheBusIsGone) {
    EXPECT_TRUE(object->Connected());
    loop.dispatcher.DispatchPending();
    bus.Stop();
    loop.RunUntil([this] { return !object->Connected(); });
    EXPECT_FALSE(object->Connected());
}

TEST_F(AdaptorTest, ItKeepsTheConnectionOpen) {
    std::unique_ptr<SR_DBusConnection> own(
        new SR_DBusConnection(SR_DBusConnection::SystemBus(loop.dispatcher)));
    const std::string name = own->GetUniqueName();
    {
        Object other(*own);
        own.reset();
        other.InterfaceA::Answer("Do", "here");
        DBusMessage* call =
            dbus_message_new_method_call(name.c_str(), kObject, "org.sentrel.A", "Do");
        EXPECT_EQ((Texts{"here"}), loop.Ask(client, call).arguments);
    }
    // The connection ended while it stood in the queue, which must not be drained any more.
    test::QueueOf(loop.dispatcher).clear();
}

}  // namespace
