// SPDX-License-Identifier: Apache-2.0
// What one exported call puts on the bus, whole and in order, as a monitor sees it.
#include <gtest/gtest.h>
#include <sentrel/SR_API.h>
#include <sys/resource.h>
#include <sys/wait.h>

#include <csignal>
#include <cstdlib>

#include "ChildProcess.h"
#include "Fixture.h"

namespace {

using test::AgentProcess;
using test::Monitor;
using test::Seen;
using test::Texts;

class WireTest : public test::BusTest {
protected:
    // Everything until the connection of the one call is gone, with the caller's unique name
    // written as CALLER and the agent's as AGENT.
    static std::vector<Seen> Conversation(Monitor& monitor) {
        std::string caller;
        return monitor.TakeUntil([&caller](const Seen& message) {
            if (message.member == "NameOwnerChanged" && message.arguments.at(1).empty()) {
                caller = message.arguments.at(0);
            }
            return message.member == "NameOwnerChanged" && !caller.empty() &&
                   message.arguments.at(0) == caller && message.arguments.at(2).empty();
        });
    }

    static std::string NewName(const std::vector<Seen>& conversation) {
        for (const Seen& message : conversation) {
            if (message.member == "NameOwnerChanged" && message.arguments.at(1).empty()) {
                return message.arguments.at(0);
            }
        }
        return std::string();
    }

    static Texts Written(const std::vector<Seen>& conversation, const std::string& agent) {
        const std::string caller = NewName(conversation);
        Texts result;
        for (const Seen& message : conversation) {
            std::string text = message.Text();
            Replace(text, caller, "CALLER");
            Replace(text, agent, "AGENT");
            result.push_back(text);
        }
        return result;
    }

    static const Seen& Find(const std::vector<Seen>& conversation, const std::string& member) {
        static const Seen kNone;
        for (const Seen& message : conversation) {
            if (message.member == member) {
                return message;
            }
        }
        return kNone;
    }

    static std::string AgentName(AgentProcess& agent, test::PlainConnection& asker) {
        DBusMessage* call = dbus_message_new_method_call(DBUS_SERVICE_DBUS, DBUS_PATH_DBUS,
                                                         DBUS_INTERFACE_DBUS, "GetNameOwner");
        const char* name = test::kService;
        dbus_message_append_args(call, DBUS_TYPE_STRING, &name, DBUS_TYPE_INVALID);
        DBusMessage* reply =
            dbus_connection_send_with_reply_and_block(asker.Get(), call, 30000, nullptr);
        dbus_message_unref(call);
        EXPECT_NE(nullptr, reply);
        const std::string owner = Seen::Of(reply).arguments.at(0);
        dbus_message_unref(reply);
        EXPECT_GT(agent.Pid(), 0);
        return owner;
    }

private:
    static void Replace(std::string& text, const std::string& what, const std::string& by) {
        for (std::size_t at = 0; (at = text.find(what, at)) != std::string::npos; at += by.size()) {
            text.replace(at, what.size(), by);
        }
    }
};

const char kBus[] = "org.freedesktop.DBus";

TEST_F(WireTest, OneCallIsThisConversationAndNothingElse) {
    AgentProcess agent({"--text", "0 42"});
    std::string owner;
    {
        test::PlainConnection asker;
        owner = AgentName(agent, asker);
    }
    Monitor monitor;
    ASSERT_EQ(SR_OK, SR_Mount("-t tmpfs none /run/x", 20, 5, nullptr));
    const std::vector<Seen> conversation = Conversation(monitor);
    const std::string fromBus = std::string(kBus) + ">CALLER";
    const std::string toBus = std::string("call CALLER>") + kBus + " /org/freedesktop/DBus " + kBus;
    const std::string signal = " /org/freedesktop/DBus " + std::string(kBus);
    const std::string rule = std::string("s(") + test::kRule + ")";
    EXPECT_EQ((Texts{
                  toBus + ".Hello ()",
                  "return " + fromBus + " s(CALLER)",
                  "signal " + std::string(kBus) + ">" + signal +
                      ".NameOwnerChanged sss(CALLER, , CALLER)",
                  "signal " + fromBus + signal + ".NameAcquired s(CALLER)",
                  toBus + ".AddMatch " + rule,
                  "return " + fromBus + " ()",
                  "call CALLER>org.sentrel.sr_agent /org/sentrel/sr_agent "
                  "org.sentrel.sr_agent.CallCommand ssi(sr_mount, -t tmpfs none /run/x, 5)",
                  "return AGENT>CALLER s(0 42)",
                  toBus + ".RemoveMatch " + rule,
                  "return " + fromBus + " ()",
                  "signal " + fromBus + signal + ".NameLost s(CALLER)",
                  "signal " + std::string(kBus) + ">" + signal +
                      ".NameOwnerChanged sss(CALLER, CALLER, )",
              }),
              Written(conversation, owner));
    EXPECT_TRUE(monitor.Take().empty());
}

TEST_F(WireTest, TheCallWantsItsReplyMayStartTheAgentAndCarriesNoDescriptor) {
    AgentProcess agent;
    Monitor monitor;
    ASSERT_EQ(SR_OK, SR_Systemctl("x", 1, 5, nullptr));
    const std::vector<Seen> conversation = Conversation(monitor);
    const Seen call = Find(conversation, "CallCommand");
    EXPECT_EQ(DBUS_MESSAGE_TYPE_METHOD_CALL, call.type);
    EXPECT_FALSE(call.noReply);
    EXPECT_FALSE(call.noAutoStart);
    EXPECT_FALSE(call.descriptors);
    EXPECT_EQ("ssi", call.signature);
    EXPECT_NE(0U, call.serial);
    EXPECT_EQ(0U, call.replySerial);
    EXPECT_EQ("", call.error);
    std::size_t answers = 0;
    for (const Seen& message : conversation) {
        if (message.replySerial == call.serial && message.signature == "s" &&
            message.destination == call.sender && message.sender != kBus) {
            ++answers;
        }
    }
    EXPECT_EQ(1U, answers);
    EXPECT_NE(std::string::npos, agent.NextReport().find(" reply=1 start=1 descriptors=0"));
}

TEST_F(WireTest, ACallWithoutAnAgentStillRemovesItsRule) {
    Monitor monitor;
    ASSERT_EQ(SR_COMM_NO_SERVICE, SR_Mount("x", 1, 5, nullptr));
    const std::vector<Seen> conversation = Conversation(monitor);
    EXPECT_EQ(
        (Texts{"Hello()", std::string("AddMatch(") + test::kRule + ")",
               "CallCommand(sr_mount, x, 5)", std::string("RemoveMatch(") + test::kRule + ")"}),
        test::CallsFrom(conversation, NewName(conversation)));
}

// libdbus ends a process that hands it such a text, unless its environment says otherwise.
TEST_F(WireTest, ATextThatIsNotUtf8EndsTheProcessBeforeTheCallIsSent) {
    AgentProcess agent;
    Monitor monitor;
    const pid_t child = test::Fork([] {
        const rlimit none = {0, 0};
        setrlimit(RLIMIT_CORE, &none);
        unsetenv("DBUS_FATAL_WARNINGS");
        signal(SIGABRT, SIG_DFL);
        return SR_Mount("\xff", 1, 5, nullptr);
    });
    const int status = test::Reap(child, 30000);
    ASSERT_TRUE(WIFSIGNALED(status)) << status;
    EXPECT_EQ(SIGABRT, WTERMSIG(status));
    const std::vector<Seen> conversation = Conversation(monitor);
    EXPECT_EQ((Texts{"Hello()", std::string("AddMatch(") + test::kRule + ")"}),
              test::CallsFrom(conversation, NewName(conversation)));
    EXPECT_EQ("", Find(conversation, "CallCommand").member);
    EXPECT_TRUE(monitor.Take().empty());
}

TEST_F(WireTest, EachCallHasAConnectionOfItsOwn) {
    AgentProcess agent;
    Monitor monitor;
    ASSERT_EQ(SR_OK, SR_Mount("x", 1, 5, nullptr));
    const std::string first = NewName(Conversation(monitor));
    ASSERT_EQ(SR_OK, SR_Mount("x", 1, 5, nullptr));
    const std::string second = NewName(Conversation(monitor));
    EXPECT_FALSE(first.empty());
    EXPECT_FALSE(second.empty());
    EXPECT_NE(first, second);
}

}  // namespace
