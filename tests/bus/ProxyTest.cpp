// SPDX-License-Identifier: Apache-2.0
// Client objects on a real bus: their match rules, and how a call's header is filled in.
#include <gtest/gtest.h>

#include <memory>

#include "Access.h"
#include "Fixture.h"
#include "SR_CommunicationClient.h"
#include "SR_DBusDispatcher.h"
#include "SR_DBusError.h"
#include "SR_DBusProxy.h"

namespace {

using sentrel::SR_CommunicationClient;
using sentrel::SR_DBusCallMessage;
using sentrel::SR_DBusConnection;
using sentrel::SR_DBusException;
using sentrel::SR_DBusIProxy;
using sentrel::SR_DBusProxy;
using test::AgentProcess;
using test::Texts;

const char kObject[] = "/org/sentrel/object";

std::string NameOfError(const std::function<void()>& action) {
    return test::ThrownName<SR_DBusException>(action);
}

struct InterfaceA : public SR_DBusIProxy {
    InterfaceA() : SR_DBusIProxy("org.sentrel.A") {}
};

struct InterfaceB : public SR_DBusIProxy {
    InterfaceB() : SR_DBusIProxy("org.sentrel.B") {}
};

struct InterfaceAAgain : public SR_DBusIProxy {
    InterfaceAAgain() : SR_DBusIProxy("org.sentrel.A") {}
};

// An interface that no match rule can name.
struct UnmatchableInterface : public SR_DBusIProxy {
    UnmatchableInterface() : SR_DBusIProxy("z'z") {}
};

struct OneInterface : public InterfaceA, public SR_DBusProxy {
    explicit OneInterface(SR_DBusConnection& connection)
        : SR_DBusProxy(connection, kObject, test::kService) {}
};

struct TwoInterfaces : public InterfaceB, public InterfaceA, public SR_DBusProxy {
    explicit TwoInterfaces(SR_DBusConnection& connection)
        : SR_DBusProxy(connection, kObject, test::kService) {}
};

struct SameInterfaceTwice : public InterfaceA, public InterfaceAAgain, public SR_DBusProxy {
    explicit SameInterfaceTwice(SR_DBusConnection& connection)
        : SR_DBusProxy(connection, kObject, test::kService) {}
};

struct ProxyBeforeInterface : public SR_DBusProxy, public InterfaceA {
    explicit ProxyBeforeInterface(SR_DBusConnection& connection)
        : SR_DBusProxy(connection, kObject, test::kService) {}
};

struct RefusedInterface : public UnmatchableInterface, public InterfaceA, public SR_DBusProxy {
    explicit RefusedInterface(SR_DBusConnection& connection)
        : SR_DBusProxy(connection, kObject, test::kService) {}
};

std::string Rule(const std::string& name) {
    return "type='signal',interface='" + name + "',path='" + kObject + "'";
}

class ProxyTest : public test::BusTest {
protected:
    ProxyTest() : connection(SR_DBusConnection::SystemBus(dispatcher)) {}

    // What building and destroying a client puts on the bus.
    template <typename Client>
    Texts LifeOnTheBus() {
        test::Monitor monitor;
        { Client client(connection); }
        return test::CallsFrom(monitor.Take(), connection.GetUniqueName());
    }

    static SR_DBusCallMessage Call(const char* member) {
        SR_DBusCallMessage call;
        call.SetMember(member);
        return call;
    }

    // The header fields of an agent's report that a proxy may fill in.
    static std::string Header(const std::string& report) {
        const std::size_t from = report.find("destination=");
        return report.substr(from, report.find(" signature=") - from);
    }

    sentrel::SR_DBusDispatcher dispatcher;
    SR_DBusConnection connection;
};

TEST_F(ProxyTest, OneInterfaceAddsAndRemovesExactlyItsRule) {
    EXPECT_EQ((Texts{"AddMatch(" + Rule("org.sentrel.A") + ")",
                     "RemoveMatch(" + Rule("org.sentrel.A") + ")"}),
              LifeOnTheBus<OneInterface>());
}

TEST_F(ProxyTest, RulesGoInTheOrderOfTheTableNotOfInheritance) {
    EXPECT_EQ(
        (Texts{"AddMatch(" + Rule("org.sentrel.A") + ")", "AddMatch(" + Rule("org.sentrel.B") + ")",
               "RemoveMatch(" + Rule("org.sentrel.A") + ")",
               "RemoveMatch(" + Rule("org.sentrel.B") + ")"}),
        LifeOnTheBus<TwoInterfaces>());
}

TEST_F(ProxyTest, TwoInterfacesOfOneNameAreOneRule) {
    EXPECT_EQ((Texts{"AddMatch(" + Rule("org.sentrel.A") + ")",
                     "RemoveMatch(" + Rule("org.sentrel.A") + ")"}),
              LifeOnTheBus<SameInterfaceTwice>());
}

TEST_F(ProxyTest, AProxyBuiltBeforeItsInterfaceAddsNoRule) {
    // The table has the interface by the time of the destructor, whose removal the bus refuses.
    EXPECT_EQ((Texts{"RemoveMatch(" + Rule("org.sentrel.A") + ")"}),
              LifeOnTheBus<ProxyBeforeInterface>());
}

TEST_F(ProxyTest, AnObjectWithoutInterfacesAddsNoRule) {
    test::Monitor monitor;
    { SR_DBusProxy proxy(connection, kObject, test::kService); }
    EXPECT_TRUE(monitor.Take().empty());
}

TEST_F(ProxyTest, ARefusedRuleThrowsAndLeavesTheEarlierOnes) {
    test::Monitor monitor;
    EXPECT_EQ("org.freedesktop.DBus.Error.MatchRuleInvalid",
              NameOfError([this] { RefusedInterface client(connection); }));
    EXPECT_EQ((Texts{"AddMatch(" + Rule("org.sentrel.A") + ")", "AddMatch(" + Rule("z'z") + ")"}),
              test::CallsFrom(monitor.Take(), connection.GetUniqueName()));
}

TEST_F(ProxyTest, DestructionDoesNotThrowWhenTheBusRefusesOrIsGone) {
    std::unique_ptr<OneInterface> client(new OneInterface(connection));
    connection.RemoveMatch(Rule("org.sentrel.A"), true);
    EXPECT_NO_THROW(client.reset());
    client.reset(new OneInterface(connection));
    bus.Stop();
    EXPECT_NO_THROW(client.reset());
}

TEST_F(ProxyTest, TheInterfaceLogsItsNameWithoutAColon) {
    (void)test::TakeLog();
    { OneInterface client(connection); }
    EXPECT_EQ((Texts{"D SR_DBusIProxy Adding a new DBusIProxy org.sentrel.A",
                     "D AddMatch Connection (unique name: :UNIQUE) added match rule " +
                         Rule("org.sentrel.A"),
                     "D RemoveMatch Connection (unique name: :UNIQUE) removed match rule " +
                         Rule("org.sentrel.A")}),
              test::BriefWithoutToggles());
}

TEST_F(ProxyTest, InvokeFillsInTheCallersMessage) {
    AgentProcess agent({"--text", "done"});
    OneInterface client(connection);
    const SR_DBusCallMessage call = Call("Do");
    EXPECT_STREQ("done", client.Invoke(call).GetReader().GetString());
    EXPECT_STREQ("org.sentrel.A", call.GetInterface());
    EXPECT_STREQ(kObject, call.GetPath());
    EXPECT_STREQ(test::kService, call.GetDestination());
    EXPECT_EQ(
        "destination=org.sentrel.sr_agent path=/org/sentrel/object interface=org.sentrel.A "
        "member=Do",
        Header(agent.NextReport()));
}

TEST_F(ProxyTest, WhatTheCallSetsItKeeps) {
    AgentProcess agent({"--name", "org.sentrel.Elsewhere"});
    OneInterface client(connection);
    SR_DBusCallMessage call = Call("Do");
    call.SetInterface("org.sentrel.Other");
    call.SetPath("/other");
    call.SetDestination("org.sentrel.Elsewhere");
    (void)client.Invoke(call);
    EXPECT_EQ("destination=org.sentrel.Elsewhere path=/other interface=org.sentrel.Other member=Do",
              Header(agent.NextReport()));
}

TEST_F(ProxyTest, AnInterfaceThatTheCallSetsIsKeptAndTheRestIsFilledIn) {
    AgentProcess agent;
    OneInterface client(connection);
    SR_DBusCallMessage call = Call("Do");
    call.SetInterface("org.sentrel.Other");
    (void)client.Invoke(call);
    EXPECT_EQ(
        "destination=org.sentrel.sr_agent path=/org/sentrel/object interface=org.sentrel.Other "
        "member=Do",
        Header(agent.NextReport()));
}

TEST_F(ProxyTest, APathThatTheCallSetsIsKeptAndTheRestIsFilledIn) {
    AgentProcess agent;
    OneInterface client(connection);
    SR_DBusCallMessage call = Call("Do");
    call.SetPath("/other");
    (void)client.Invoke(call);
    EXPECT_EQ("destination=org.sentrel.sr_agent path=/other interface=org.sentrel.A member=Do",
              Header(agent.NextReport()));
}

TEST_F(ProxyTest, ADestinationThatTheCallSetsIsKeptAndTheRestIsFilledIn) {
    AgentProcess agent({"--name", "org.sentrel.Elsewhere"});
    OneInterface client(connection);
    SR_DBusCallMessage call = Call("Do");
    call.SetDestination("org.sentrel.Elsewhere");
    (void)client.Invoke(call);
    EXPECT_EQ(
        "destination=org.sentrel.Elsewhere path=/org/sentrel/object interface=org.sentrel.A "
        "member=Do",
        Header(agent.NextReport()));
}

TEST_F(ProxyTest, EachInterfaceOfAnObjectPutsItsOwnName) {
    AgentProcess agent;
    TwoInterfaces client(connection);
    (void)client.InterfaceB::Invoke(Call("Do"));
    (void)client.InterfaceA::Invoke(Call("Do"));
    EXPECT_NE(std::string::npos, agent.NextReport().find("interface=org.sentrel.B "));
    EXPECT_NE(std::string::npos, agent.NextReport().find("interface=org.sentrel.A "));
}

TEST_F(ProxyTest, AFailedCallKeepsItsHeaderAndMayBeRepeated) {
    OneInterface client(connection);
    const SR_DBusCallMessage call = Call("Do");
    EXPECT_EQ("org.freedesktop.DBus.Error.ServiceUnknown",
              NameOfError([&] { (void)client.Invoke(call); }));
    EXPECT_STREQ(kObject, call.GetPath());
    AgentProcess agent({"--text", "now"});
    EXPECT_STREQ("now", client.Invoke(call).GetReader().GetString());
}

TEST_F(ProxyTest, TheProxysTimeoutEndsACallThatIsNotAnswered) {
    AgentProcess agent({"--reply", "never"});
    OneInterface client(connection);
    EXPECT_EQ(-1, test::TimeoutOf(static_cast<SR_DBusProxy&>(client)));
    test::TimeoutOf(static_cast<SR_DBusProxy&>(client)) = 50;
    EXPECT_EQ("org.freedesktop.DBus.Error.NoReply",
              NameOfError([&] { (void)client.Invoke(Call("Do")); }));
}

TEST_F(ProxyTest, AProxyKeepsTheConnectionOpen) {
    AgentProcess agent({"--text", "done"});
    std::unique_ptr<SR_DBusConnection> own(
        new SR_DBusConnection(SR_DBusConnection::SystemBus(dispatcher)));
    OneInterface client(*own);
    own.reset();
    EXPECT_STREQ("done", client.Invoke(Call("Do")).GetReader().GetString());
}

// The agent's proxy.
class ClientTest : public ProxyTest {};

TEST_F(ClientTest, CallCommandSendsNameTextAndNumberAndReturnsTheText) {
    AgentProcess agent({"--text", "  any text\tat all "});
    SR_CommunicationClient client(connection, test::kService, test::kPath);
    EXPECT_EQ("  any text\tat all ", client.CallCommand("sr_x", "a b", -7));
    const std::string report = agent.NextReport();
    EXPECT_EQ(
        "destination=org.sentrel.sr_agent path=/org/sentrel/sr_agent "
        "interface=org.sentrel.sr_agent member=CallCommand",
        Header(report));
    EXPECT_EQ("ssi reply=1 start=1 descriptors=0 | sr_x | a b | -7",
              report.substr(report.find("signature=") + 10));
}

TEST_F(ClientTest, OnlyTheFirstArgumentOfAReplyIsRead) {
    AgentProcess agent({"--reply", "two", "--text", "first"});
    SR_CommunicationClient client(connection, test::kService, test::kPath);
    EXPECT_EQ("first", client.CallCommand("a", "", 0));
}

TEST_F(ClientTest, AMegabyteOfReplyIsReturnedWhole) {
    AgentProcess agent({"--reply", "huge", "--text", "start"});
    SR_CommunicationClient client(connection, test::kService, test::kPath);
    EXPECT_EQ("start " + std::string(1024 * 1024, 'x'), client.CallCommand("a", "", 0));
}

TEST_F(ClientTest, AReplyWithoutAStringThrowsTypeMismatch) {
    for (const char* kind : {"none", "int"}) {
        AgentProcess agent({"--reply", kind, "--text", "0"});
        SR_CommunicationClient client(connection, test::kService, test::kPath);
        try {
            (void)client.CallCommand("a", "", 0);
            FAIL() << "no exception";
        } catch (const SR_DBusException& exception) {
            EXPECT_STREQ("org.freedesktop.DBus.Error.InvalidArgs", exception.name());
            EXPECT_STREQ("type mismatch", exception.what());
        }
    }
}

TEST_F(ClientTest, TheTextEndsAtItsFirstNul) {
    AgentProcess agent;
    SR_CommunicationClient client(connection, test::kService, test::kPath);
    (void)client.CallCommand("a", std::string("b\0c", 3), 1);
    const std::string report = agent.NextReport();
    EXPECT_EQ(" | a | b | 1", report.substr(report.find(" | ")));
}

TEST_F(ClientTest, OneClientMayCallManyTimes) {
    AgentProcess agent({"--reply", "echo"});
    SR_CommunicationClient client(connection, test::kService, test::kPath);
    for (int i = 0; i < 50; ++i) {
        EXPECT_EQ("0 " + std::to_string(i), client.CallCommand("a", std::to_string(i), i));
    }
}

TEST_F(ClientTest, ItAddsAndRemovesTheRuleOfItsOneInterface) {
    test::Monitor monitor;
    { SR_CommunicationClient client(connection, test::kService, test::kPath); }
    EXPECT_EQ((Texts{std::string("AddMatch(") + test::kRule + ")",
                     std::string("RemoveMatch(") + test::kRule + ")"}),
              test::CallsFrom(monitor.Take(), connection.GetUniqueName()));
}

}  // namespace
