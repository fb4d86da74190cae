// SPDX-License-Identifier: Apache-2.0
// Interfaces, their tables, and the adaptor's dispatch by member; no bus.
#include "SR_DBusInterface.h"

#include <gtest/gtest.h>

#include <boost/make_shared.hpp>
#include <stdexcept>
#include <string>
#include <type_traits>
#include <vector>

#include "LogRecorder.h"
#include "SR_DBusAdaptor.h"
#include "SR_DBusError.h"
#include "SR_DBusMessageImpl.h"

namespace {

using sentrel::Callback;
using sentrel::Slot;
using sentrel::SR_DBusBaseAdaptor;
using sentrel::SR_DBusBaseProxy;
using sentrel::SR_DBusCallMessage;
using sentrel::SR_DBusErrorMessage;
using sentrel::SR_DBusException;
using sentrel::SR_DBusI;
using sentrel::SR_DBusIAdaptor;
using sentrel::SR_DBusIProxy;
using sentrel::SR_DBusMessage;
using sentrel::SR_DBusReturnMessage;

typedef Slot<SR_DBusMessage, const SR_DBusCallMessage&> Method;

DBusMessage* HandleOf(const SR_DBusMessage& message) {
    return SR_DBusMessage::Impl::Of(message);
}

// A call as it arrives; a null member leaves the field out.
SR_DBusCallMessage Received(const char* member, const char* interfaceName = "org.x.If") {
    DBusMessage* call = dbus_message_new(DBUS_MESSAGE_TYPE_METHOD_CALL);
    dbus_message_set_serial(call, 77);
    EXPECT_TRUE(dbus_message_set_sender(call, ":1.5"));
    EXPECT_TRUE(dbus_message_set_path(call, "/x"));
    EXPECT_TRUE(dbus_message_set_interface(call, interfaceName));
    EXPECT_TRUE(dbus_message_set_member(call, member));
    return SR_DBusCallMessage(new SR_DBusMessage::Impl(call), false /* addRef */);
}

class Adaptor : public SR_DBusIAdaptor {
public:
    explicit Adaptor(const std::string& name) : SR_DBusIAdaptor(name) {}

    void Serve(const std::string& member,
               SR_DBusMessage (Adaptor::*method)(const SR_DBusCallMessage&)) {
        AddMethod(
            member,
            Method(
                boost::make_shared<Callback<Adaptor, SR_DBusMessage, const SR_DBusCallMessage&> >(
                    this, method)));
    }
    SR_DBusMessage Echo(const SR_DBusCallMessage& call) {
        ++calls;
        SR_DBusReturnMessage reply(call);
        EXPECT_TRUE(reply.GetWriter().AppendString(call.GetMember()));
        return reply;
    }
    SR_DBusMessage Other(const SR_DBusCallMessage& call) {
        return SR_DBusErrorMessage(call, "org.x.Error.Other", "other");
    }
    SR_DBusMessage Throw(const SR_DBusCallMessage& /*call*/) {
        throw SR_DBusException("org.x.Error.Thrown", "thrown");
    }
    SR_DBusMessage Same(const SR_DBusCallMessage& call) { return call; }
    using SR_DBusIAdaptor::AddMethod;

    int calls = 0;
};

void ExpectUnknownMethod(const SR_DBusMessage& reply, const char* member) {
    EXPECT_EQ(3, reply.GetType());
    EXPECT_STREQ("org.freedesktop.DBus.Error.UnknownMethod",
                 dbus_message_get_error_name(HandleOf(reply)));
    EXPECT_STREQ("s", dbus_message_get_signature(HandleOf(reply)));
    EXPECT_STREQ(member, reply.GetReader().GetString());
    EXPECT_STREQ(":1.5", reply.GetDestination());
    EXPECT_EQ(77u, dbus_message_get_reply_serial(HandleOf(reply)));
}

TEST(InterfaceTest, ANameIsKeptAsGiven) {
    for (const std::string& name : {std::string("org.x.If"), std::string(), std::string("any text"),
                                    std::string("a\0b", 3)}) {
        const SR_DBusI object(name);
        EXPECT_EQ(name, object.GetName());
    }
}

TEST(InterfaceTest, ANameIsCopied) {
    std::string name("org.x.If");
    const SR_DBusI object(name);
    name = "changed";
    EXPECT_EQ("org.x.If", object.GetName());
}

TEST(InterfaceTest, ConstructingAnAdaptorLogsOneLine) {
    test::TakeLog();
    const Adaptor adaptor("org.x.If");
    const std::vector<test::LogLine> lines = test::TakeLog();
    ASSERT_EQ(1u, lines.size());
    EXPECT_EQ(3, lines[0].priority);
    EXPECT_EQ("SR_DBusInterface.cpp", lines[0].File());
    EXPECT_EQ("SR_DBusIAdaptor", lines[0].Function());
    EXPECT_EQ("Adding a new DBusIAdaptor: org.x.If", lines[0].Body());
    EXPECT_EQ("org.x.If", adaptor.GetName());
}

TEST(InterfaceTest, DispatchingAndDestroyingLogsNothing) {
    test::TakeLog();
    {
        Adaptor adaptor("org.x.If");
        test::TakeLog();
        (void)adaptor.Dispatch(Received("Unknown"));
    }
    EXPECT_TRUE(test::TakeLog().empty());
}

TEST(InterfaceTest, AnEmptyTableAnswersEveryCallWithUnknownMethod) {
    Adaptor adaptor("org.x.If");
    for (const char* member : {"Echo", "Other", "X"}) {
        ExpectUnknownMethod(adaptor.Dispatch(Received(member)), member);
    }
}

TEST(InterfaceTest, ACallReachesItsHandlerAndItsReplyComesBackAsItIs) {
    Adaptor adaptor("org.x.If");
    adaptor.Serve("Echo", &Adaptor::Echo);
    adaptor.Serve("Other", &Adaptor::Other);
    const SR_DBusMessage reply = adaptor.Dispatch(Received("Echo"));
    EXPECT_EQ(2, reply.GetType());
    EXPECT_STREQ("Echo", reply.GetReader().GetString());
    EXPECT_EQ(1, adaptor.calls);
    const SR_DBusMessage error = adaptor.Dispatch(Received("Other"));
    EXPECT_EQ(3, error.GetType());
    EXPECT_STREQ("org.x.Error.Other", dbus_message_get_error_name(HandleOf(error)));
    EXPECT_EQ(1, adaptor.calls);
}

TEST(InterfaceTest, AHandlerMayReturnTheCallItself) {
    Adaptor adaptor("org.x.If");
    adaptor.Serve("Same", &Adaptor::Same);
    const SR_DBusCallMessage call = Received("Same");
    EXPECT_EQ(HandleOf(call), HandleOf(adaptor.Dispatch(call)));
}

TEST(InterfaceTest, MembersAreLookedUpByCase) {
    Adaptor adaptor("org.x.If");
    adaptor.Serve("Echo", &Adaptor::Echo);
    ExpectUnknownMethod(adaptor.Dispatch(Received("echo")), "echo");
    ExpectUnknownMethod(adaptor.Dispatch(Received("ECHO")), "ECHO");
    ExpectUnknownMethod(adaptor.Dispatch(Received("Ech")), "Ech");
    ExpectUnknownMethod(adaptor.Dispatch(Received("Echoo")), "Echoo");
    EXPECT_EQ(0, adaptor.calls);
}

TEST(InterfaceTest, TheInterfaceOfACallIsNotLookedAt) {
    Adaptor adaptor("org.x.If");
    adaptor.Serve("Echo", &Adaptor::Echo);
    EXPECT_EQ(2, adaptor.Dispatch(Received("Echo", "org.x.Stranger")).GetType());
    EXPECT_EQ(2, adaptor.Dispatch(Received("Echo", nullptr)).GetType());
}

TEST(InterfaceTest, ALaterHandlerReplacesTheEarlierOne) {
    Adaptor adaptor("org.x.If");
    adaptor.Serve("Echo", &Adaptor::Echo);
    adaptor.Serve("Echo", &Adaptor::Other);
    EXPECT_EQ(3, adaptor.Dispatch(Received("Echo")).GetType());
    EXPECT_EQ(0, adaptor.calls);
}

TEST(InterfaceTest, AMethodIsEnteredInOneExpressionAlsoThatOfABase) {
    struct Derived : Adaptor {
        Derived() : Adaptor("org.x.If") {
            AddMethod("Echo", this, &Derived::Echo);
            AddMethod("Own", this, &Derived::Own);
        }
        SR_DBusMessage Own(const SR_DBusCallMessage& call) { return Other(call); }
    };
    Derived adaptor;
    EXPECT_EQ(2, adaptor.Dispatch(Received("Echo")).GetType());
    EXPECT_EQ(3, adaptor.Dispatch(Received("Own")).GetType());
    EXPECT_EQ(1, adaptor.calls);
    Adaptor other("org.x.Other");
    other.AddMethod("Echo", &adaptor, &Adaptor::Echo);
    EXPECT_EQ(2, other.Dispatch(Received("Echo")).GetType());
    EXPECT_EQ(2, adaptor.calls) << "the method of the object that was given";
    EXPECT_EQ(0, other.calls);
}

TEST(InterfaceTest, ACallWithoutAMemberThrowsLogicError) {
    Adaptor adaptor("org.x.If");
    adaptor.Serve("Echo", &Adaptor::Echo);
    EXPECT_THROW((void)adaptor.Dispatch(Received(nullptr)), std::logic_error);
    EXPECT_EQ(0, adaptor.calls);
}

TEST(InterfaceTest, AHandlersExceptionLeavesDispatch) {
    Adaptor adaptor("org.x.If");
    adaptor.Serve("Throw", &Adaptor::Throw);
    std::string name;
    try {
        (void)adaptor.Dispatch(Received("Throw"));
    } catch (const SR_DBusException& exception) {
        name = exception.name();
    }
    EXPECT_EQ("org.x.Error.Thrown", name);
}

TEST(InterfaceTest, AnAdaptorIntrospectsAsNothing) {
    const SR_DBusIAdaptor adaptor("org.x.If");
    EXPECT_EQ(nullptr, adaptor.Introspect());
}

class First : public SR_DBusIAdaptor {
public:
    explicit First(const std::string& name) : SR_DBusIAdaptor(name) {}
    const char* Introspect() const override { return "<interface name=\"first\"/>"; }
};

class Second : public SR_DBusIAdaptor {
public:
    explicit Second(const std::string& name) : SR_DBusIAdaptor(name) {}
};

class Served : public First, public Second {
public:
    Served(const std::string& first, const std::string& second) : First(first), Second(second) {}

    std::vector<std::string> Names() const {
        std::vector<std::string> names;
        for (const auto& entry : interfaces) {
            names.push_back(entry.first);
        }
        return names;
    }
    const SR_DBusIAdaptor* At(const std::string& name) const { return interfaces.at(name); }
};

TEST(InterfaceTest, TheAdaptorsOfOneObjectShareATableSortedByName) {
    const Served object("org.b", "org.a");
    EXPECT_EQ((std::vector<std::string>{"org.a", "org.b"}), object.Names());
    EXPECT_EQ(static_cast<const SR_DBusIAdaptor*>(static_cast<const First*>(&object)),
              object.At("org.b"));
    EXPECT_EQ(static_cast<const SR_DBusIAdaptor*>(static_cast<const Second*>(&object)),
              object.At("org.a"));
    EXPECT_STREQ("<interface name=\"first\"/>", object.At("org.b")->Introspect());
}

TEST(InterfaceTest, OfTwoAdaptorsWithOneNameTheLaterIsInTheTable) {
    const Served object("org.same", "org.same");
    EXPECT_EQ((std::vector<std::string>{"org.same"}), object.Names());
    EXPECT_EQ(static_cast<const SR_DBusIAdaptor*>(static_cast<const Second*>(&object)),
              object.At("org.same"));
}

TEST(InterfaceTest, TwoObjectsHaveTablesOfTheirOwn) {
    const Served one("org.a", "org.b");
    const Served two("org.c", "org.d");
    EXPECT_EQ((std::vector<std::string>{"org.a", "org.b"}), one.Names());
    EXPECT_EQ((std::vector<std::string>{"org.c", "org.d"}), two.Names());
}

// The calling side, with an object half that only takes note.
class Noting : public virtual SR_DBusBaseProxy {
public:
    SR_DBusMessage InvokeImpl(SR_DBusCallMessage& call) override {
        invoked = HandleOf(call);
        seenInterface = call.GetInterface();
        return call;
    }
    std::vector<std::string> Names() const {
        std::vector<std::string> names;
        for (const auto& entry : interfaces) {
            names.push_back(entry.first);
        }
        return names;
    }

    const DBusMessage* invoked = nullptr;
    std::string seenInterface;
};

class OneProxy : public SR_DBusIProxy {
public:
    explicit OneProxy(const std::string& name) : SR_DBusIProxy(name) {}
};

class OtherProxy : public SR_DBusIProxy {
public:
    explicit OtherProxy(const std::string& name) : SR_DBusIProxy(name) {}
};

class Client : public OneProxy, public OtherProxy, public Noting {
public:
    Client(const std::string& one, const std::string& other) : OneProxy(one), OtherProxy(other) {}
};

TEST(InterfaceTest, ConstructingAProxyLogsItsNameWithoutAColon) {
    test::TakeLog();
    const Client client("org.b", "org.a");
    EXPECT_EQ((std::vector<std::string>{"D SR_DBusIProxy Adding a new DBusIProxy org.b",
                                        "D SR_DBusIProxy Adding a new DBusIProxy org.a"}),
              test::Brief(test::TakeLog()));
}

TEST(InterfaceTest, TheProxiesOfOneObjectShareATableSortedByName) {
    EXPECT_EQ((std::vector<std::string>{"org.a", "org.b"}), Client("org.b", "org.a").Names());
    EXPECT_EQ((std::vector<std::string>{"org.x"}), Client("org.x", "org.x").Names());
}

TEST(InterfaceTest, InvokeGivesACallWithoutAnInterfaceTheProxysName) {
    Client client("org.one", "org.other");
    const SR_DBusCallMessage call;
    (void)client.OtherProxy::Invoke(call);
    EXPECT_EQ("org.other", client.seenInterface);
    EXPECT_STREQ("org.other", call.GetInterface()) << "written into the caller's message";
    EXPECT_EQ(HandleOf(call), client.invoked);
}

TEST(InterfaceTest, InvokeLeavesAnInterfaceThatIsSet) {
    Client client("org.one", "org.other");
    SR_DBusCallMessage call;
    EXPECT_TRUE(call.SetInterface("org.mine"));
    const SR_DBusMessage reply = client.OneProxy::Invoke(call);
    EXPECT_EQ("org.mine", client.seenInterface);
    EXPECT_EQ(HandleOf(call), HandleOf(reply)) << "what the object half returns is passed on";
}

TEST(InterfaceTest, InterfacesAreMadeOfTheirBases) {
    EXPECT_TRUE(std::is_abstract<SR_DBusBaseProxy>::value);
    EXPECT_TRUE(std::is_abstract<SR_DBusIProxy>::value);
    EXPECT_FALSE(std::is_abstract<SR_DBusIAdaptor>::value);
    EXPECT_FALSE(std::is_abstract<SR_DBusBaseAdaptor>::value);
    EXPECT_TRUE((std::is_base_of<SR_DBusI, SR_DBusIAdaptor>::value));
    EXPECT_TRUE((std::is_base_of<SR_DBusI, SR_DBusIProxy>::value));
    EXPECT_TRUE(std::has_virtual_destructor<SR_DBusI>::value);
}

}  // namespace
