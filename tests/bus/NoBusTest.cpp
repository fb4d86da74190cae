// SPDX-License-Identifier: Apache-2.0
// Exported calls when the bus or the agent is not what it should be. No failure may touch the
// result, end the process or take longer than its reason.
#include <gtest/gtest.h>
#include <sys/wait.h>

#include <functional>
#include <thread>

#include "Fixture.h"
#include "SR_API.h"

namespace {

using test::AgentProcess;
using test::BriefWithoutToggles;
using test::End;
using test::Failed;
using test::Framed;
using test::Texts;

const int kPoison = 0x5EED;
const char kAgent[] = "sr_insmod";
const char kDisconnected[] =
    "Message recipient disconnected from message bus without replying "
    "(org.freedesktop.DBus.Error.NoReply)";

// The linker leads libdbus's blocking call through the wrapper at the end of this file, which keeps
// the timeouts that the library gave and the last error that it got, "TEXT (NAME)".
std::vector<int> givenTimeouts;
std::string gotError;
// What happens right before and right behind the call; and, unless empty, what happens instead.
std::function<void()> before;
std::function<void()> behind;
std::function<void(DBusConnection*, DBusMessage*, DBusError*)> instead;

class NoBusTest : public test::BusTest {
protected:
    NoBusTest() : result(kPoison) {
        givenTimeouts.clear();
        gotError.clear();
    }
    ~NoBusTest() override {
        before = nullptr;
        behind = nullptr;
        instead = nullptr;
    }

    int Call(const std::string& text = "x") {
        return SR_Insmod(text.data(), static_cast<unsigned>(text.size()), 5, &result);
    }

    // The next call reaches the agent, and then ends as if nobody had answered in time.
    static void TimeOutBehindTheReportOf(AgentProcess& agent) {
        instead = [&agent](DBusConnection* connection, DBusMessage* call, DBusError* error) {
            EXPECT_TRUE(dbus_connection_send(connection, call, nullptr));
            dbus_connection_flush(connection);
            EXPECT_NE(std::string::npos, agent.NextReport().find(" member=CallCommand "));
            dbus_set_error_const(error, DBUS_ERROR_NO_REPLY, "nobody answered in time");
        };
    }

    // The name of the bus error in the one line that tells of it.
    static std::string LoggedError() {
        std::string name;
        for (const std::string& line : test::Brief(test::TakeLog())) {
            const std::size_t from = line.rfind('(');
            if (line.compare(0, 13, "E SendMessage") == 0 && from != std::string::npos) {
                name += line.substr(from + 1, line.find(')', from) - from - 1);
            }
        }
        return name;
    }

    int result;
};

TEST_F(NoBusTest, WithoutABusACallFails) {
    bus.Stop();
    EXPECT_EQ(SR_COMM_FAILED, Call());
    EXPECT_EQ(kPoison, result);
    EXPECT_EQ("org.freedesktop.DBus.Error.NoServer", LoggedError());
    EXPECT_TRUE(givenTimeouts.empty());
}

TEST_F(NoBusTest, WithoutASocketACallFails) {
    bus.Stop();
    const std::string socket = test::PrivateBus::Folder() + "/bus";
    ASSERT_EQ(0, unlink(socket.c_str()));
    EXPECT_EQ(SR_COMM_FAILED, Call());
    EXPECT_EQ(kPoison, result);
    EXPECT_EQ(test::Whole({}, Failed("Failed to connect to socket " + socket +
                                         ": No such file or directory "
                                         "(org.freedesktop.DBus.Error.FileNotFound)",
                                     kAgent)),
              BriefWithoutToggles());
}

TEST_F(NoBusTest, ABusThatDiesDuringTheCallEndsItAndTheLogTellsSo) {
    AgentProcess agent({"--reply", "never"});
    std::thread killer([this, &agent] {
        (void)agent.NextReport();
        bus.Stop();
    });
    EXPECT_EQ(SR_COMM_FAILED, Call());
    killer.join();
    EXPECT_EQ(kPoison, result);
    ASSERT_NE("", gotError);
    const std::string name = gotError.substr(gotError.rfind('('));
    EXPECT_TRUE(name == "(org.freedesktop.DBus.Error.NoReply)" ||
                name == "(org.freedesktop.DBus.Error.Disconnected)")
        << gotError;
    EXPECT_EQ(Framed({}, Failed(gotError, kAgent), End::kLost), BriefWithoutToggles());
}

TEST_F(NoBusTest, ABusThatDiesBeforeTheCallIsSentFailsIt) {
    AgentProcess agent;
    before = [this] { bus.Stop(); };
    EXPECT_EQ(SR_COMM_FAILED, Call());
    EXPECT_EQ(kPoison, result);
    EXPECT_NE("", gotError);
    EXPECT_EQ(Framed({}, Failed(gotError, kAgent), End::kLost), BriefWithoutToggles());
}

TEST_F(NoBusTest, ABusThatDiesBehindTheReplyDoesNotFailTheCall) {
    AgentProcess agent({"--text", "0 7"});
    behind = [this] { bus.Stop(); };
    EXPECT_EQ(SR_OK, Call());
    EXPECT_EQ(7, result);
    EXPECT_EQ(Framed({"D SendMessage responseSerial: 0 7"}, {"D SR_Agent response:"}, End::kLost),
              BriefWithoutToggles());
}

TEST_F(NoBusTest, AnAgentThatDiesDuringTheCallEndsIt) {
    AgentProcess agent({"--reply", "exit"});
    EXPECT_EQ(SR_COMM_FAILED, Call());
    EXPECT_EQ(kPoison, result);
    EXPECT_EQ(Framed({}, Failed(kDisconnected, kAgent)), BriefWithoutToggles());
    EXPECT_EQ(0, agent.WaitForEnd());
}

TEST_F(NoBusTest, AnAgentThatDropsItsConnectionEndsTheCall) {
    AgentProcess agent({"--reply", "close"});
    EXPECT_EQ(SR_COMM_FAILED, Call());
    EXPECT_EQ(kPoison, result);
    EXPECT_EQ(Framed({}, Failed(kDisconnected, kAgent)), BriefWithoutToggles());
    int status = 0;
    EXPECT_EQ(0, waitpid(agent.Pid(), &status, WNOHANG)) << "the process itself lives on";
}

TEST_F(NoBusTest, AnAgentThatNeverAnswersEndsInATimeout) {
    AgentProcess agent({"--reply", "never"});
    TimeOutBehindTheReportOf(agent);
    EXPECT_EQ(SR_COMM_FAILED, Call());
    EXPECT_EQ(kPoison, result);
    EXPECT_EQ(
        Framed({}, Failed("nobody answered in time (org.freedesktop.DBus.Error.NoReply)", kAgent)),
        BriefWithoutToggles());
}

// Of its own: a bus that takes no match rules.
TEST(RefusedRuleTest, ARefusedRuleFailsTheCallBeforeItIsSent) {
    const test::PrivateBus bus(test::PrivateBus::Limits::kNoRules);
    AgentProcess agent;
    (void)test::TakeLog();
    givenTimeouts.clear();
    int result = kPoison;
    EXPECT_EQ(SR_COMM_FAILED, SR_Insmod("x", 1, 5, &result));
    EXPECT_EQ(kPoison, result);
    EXPECT_TRUE(givenTimeouts.empty());
    EXPECT_EQ(test::Whole({"D SR_DBusIProxy Adding a new DBusIProxy org.sentrel.sr_agent",
                           "D ~Impl Terminating connection PTR",
                           "D ~Impl Terminating connection is connected"},
                          Failed("Connection \":UNIQUE\" is not allowed to add more match rules "
                                 "(increase limits in configuration file if required; "
                                 "max_match_rules_per_connection=0) "
                                 "(org.freedesktop.DBus.Error.LimitsExceeded)",
                                 kAgent)),
              BriefWithoutToggles());
}

TEST_F(NoBusTest, TheLibraryLeavesTheTimeoutToLibdbus) {
    AgentProcess agent;
    EXPECT_EQ(SR_OK, Call());
    EXPECT_EQ((std::vector<int>{-1}), givenTimeouts);
}

TEST_F(NoBusTest, ALateAnswerGoesNowhereAndTheNextCallGetsItsOwn) {
    // Answers both calls when the second has come: the first one too late.
    AgentProcess late({"--reply", "echo", "--hold", "2"});
    TimeOutBehindTheReportOf(late);
    EXPECT_EQ(SR_COMM_FAILED, Call("1"));
    EXPECT_EQ(kPoison, result);
    instead = nullptr;
    test::Monitor monitor;
    EXPECT_EQ(SR_OK, Call("2"));
    EXPECT_EQ(2, result);
    Texts answers;
    for (const test::Seen& message : monitor.Take()) {
        if (message.type == DBUS_MESSAGE_TYPE_METHOD_RETURN && message.signature == "s" &&
            message.sender != "org.freedesktop.DBus") {
            answers.push_back(message.arguments.at(0));
        }
    }
    EXPECT_EQ((Texts{"0 1", "0 2"}), answers);
}

TEST_F(NoBusTest, RepliesOfAnotherShapeFail) {
    for (const char* kind : {"none", "int"}) {
        AgentProcess agent({"--reply", kind, "--text", "0"});
        EXPECT_EQ(SR_COMM_FAILED, Call());
        EXPECT_EQ(kPoison, result);
        EXPECT_EQ("org.freedesktop.DBus.Error.InvalidArgs", LoggedError());
    }
}

TEST_F(NoBusTest, MoreArgumentsOrAMegabyteDoNoHarm) {
    for (const char* kind : {"two", "huge"}) {
        AgentProcess agent({"--reply", kind, "--text", "0 17"});
        result = kPoison;
        EXPECT_EQ(SR_OK, Call());
        EXPECT_EQ(17, result);
    }
}

TEST_F(NoBusTest, AnErrorReplyOfAnyNameFailsWithItsName) {
    for (const char* name : {"a.b", "org.freedesktop.DBus.Error.NoReply",
                             "org.freedesktop.DBus.Error.Timeout", "org.sentrel.Error.Busy"}) {
        AgentProcess agent({"--reply", "error", "--error", name, "--text", ""});
        EXPECT_EQ(SR_COMM_FAILED, Call());
        EXPECT_EQ(kPoison, result);
        EXPECT_EQ(name, LoggedError());
    }
}

TEST_F(NoBusTest, AnAgentThatComesBackIsFoundAgain) {
    { AgentProcess agent({"--text", "0 1"}); }
    // Its name leaves the bus when the bus notices; ask until then.
    int status = SR_OK;
    for (int i = 0; i < 1000 && status != SR_COMM_NO_SERVICE; ++i) {
        status = Call();
    }
    EXPECT_EQ(SR_COMM_NO_SERVICE, status);
    AgentProcess again({"--text", "0 2"});
    EXPECT_EQ(SR_OK, Call());
    EXPECT_EQ(2, result);
}

}  // namespace

extern "C" DBusMessage* __real_dbus_connection_send_with_reply_and_block(DBusConnection*,
                                                                         DBusMessage*, int,
                                                                         DBusError*);
extern "C" DBusMessage* __wrap_dbus_connection_send_with_reply_and_block(DBusConnection*,
                                                                         DBusMessage*, int,
                                                                         DBusError*);

DBusMessage* __wrap_dbus_connection_send_with_reply_and_block(DBusConnection* connection,
                                                              DBusMessage* message, int timeout,
                                                              DBusError* error) {
    givenTimeouts.push_back(timeout);
    if (before) {
        before();
    }
    DBusMessage* reply = nullptr;
    if (instead) {
        instead(connection, message, error);
    } else {
        reply =
            __real_dbus_connection_send_with_reply_and_block(connection, message, timeout, error);
    }
    if (dbus_error_is_set(error)) {
        gotError = std::string(error->message) + " (" + error->name + ")";
    }
    if (behind) {
        behind();
    }
    return reply;
}
