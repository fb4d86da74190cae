// SPDX-License-Identifier: Apache-2.0
// Exported calls when the bus or the agent is not what it should be. No failure may touch the
// result, end the process or take longer than its reason.
#include <gtest/gtest.h>

#include <sys/wait.h>

#include <thread>

#include "Fixture.h"
#include "SR_API.h"

namespace {

using test::AgentProcess;
using test::Texts;

const int kPoison = 0x5EED;

// Set to shorten libdbus's own reply timeout; the timeouts that the library gave.
int replyTimeout = -1;
std::vector<int> givenTimeouts;

class NoBusTest : public test::BusTest {
protected:
    NoBusTest() : result(kPoison) {
        replyTimeout = -1;
        givenTimeouts.clear();
    }

    int Call() { return SR_Insmod("x", 1, 5, &result); }

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
}

TEST_F(NoBusTest, WithoutASocketACallFails) {
    bus.Stop();
    ASSERT_EQ(0, unlink((test::PrivateBus::Folder() + "/bus").c_str()));
    EXPECT_EQ(SR_COMM_FAILED, Call());
    EXPECT_EQ(kPoison, result);
    EXPECT_EQ("org.freedesktop.DBus.Error.FileNotFound", LoggedError());
}

TEST_F(NoBusTest, ABusThatDiesDuringTheCallEndsIt) {
    AgentProcess agent({"--reply", "never"});
    std::thread killer([this, &agent] {
        (void)agent.NextReport();
        bus.Stop();
    });
    EXPECT_EQ(SR_COMM_FAILED, Call());
    killer.join();
    EXPECT_EQ(kPoison, result);
    const std::string error = LoggedError();
    EXPECT_TRUE(error == "org.freedesktop.DBus.Error.NoReply" ||
                error == "org.freedesktop.DBus.Error.Disconnected")
        << error;
}

TEST_F(NoBusTest, ABusThatDiesDuringTheCallIsLoggedAsNotConnected) {
    AgentProcess agent({"--reply", "never"});
    std::thread killer([this, &agent] {
        (void)agent.NextReport();
        bus.Stop();
    });
    EXPECT_EQ(SR_COMM_FAILED, Call());
    killer.join();
    std::size_t told = 0;
    for (const std::string& line : test::Brief(test::TakeLog())) {
        EXPECT_NE("D ~Impl Terminating connection is connected", line);
        told += line == "D ~Impl Terminating connection no connected" ? 1U : 0U;
    }
    EXPECT_EQ(1U, told);
}

TEST_F(NoBusTest, AnAgentThatDiesDuringTheCallEndsIt) {
    AgentProcess agent({"--reply", "exit"});
    EXPECT_EQ(SR_COMM_FAILED, Call());
    EXPECT_EQ(kPoison, result);
    EXPECT_EQ("org.freedesktop.DBus.Error.NoReply", LoggedError());
    EXPECT_EQ(0, agent.WaitForEnd());
}

TEST_F(NoBusTest, AnAgentThatDropsItsConnectionEndsTheCall) {
    AgentProcess agent({"--reply", "close"});
    EXPECT_EQ(SR_COMM_FAILED, Call());
    EXPECT_EQ(kPoison, result);
    EXPECT_EQ("org.freedesktop.DBus.Error.NoReply", LoggedError());
    int status = 0;
    EXPECT_EQ(0, waitpid(agent.Pid(), &status, WNOHANG)) << "the process itself lives on";
}

TEST_F(NoBusTest, AnAgentThatNeverAnswersEndsInATimeout) {
    AgentProcess agent({"--reply", "never"});
    replyTimeout = 100;
    EXPECT_EQ(SR_COMM_FAILED, Call());
    EXPECT_EQ(kPoison, result);
    EXPECT_EQ("org.freedesktop.DBus.Error.NoReply", LoggedError());
}

TEST_F(NoBusTest, TheLibraryLeavesTheTimeoutToLibdbus) {
    AgentProcess agent;
    EXPECT_EQ(SR_OK, Call());
    EXPECT_EQ((std::vector<int>{-1}), givenTimeouts);
}

TEST_F(NoBusTest, ALateAnswerGoesNowhereAndTheNextCallWorks) {
    {
        AgentProcess late({"--delay", "300", "--text", "0 1"});
        replyTimeout = 50;
        EXPECT_EQ(SR_COMM_FAILED, Call());
        EXPECT_EQ(kPoison, result);
        replyTimeout = -1;
        // Waits behind the late answer.
        EXPECT_EQ(SR_OK, Call());
        EXPECT_EQ(1, result);
    }
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
    return __real_dbus_connection_send_with_reply_and_block(
        connection, message, replyTimeout != -1 ? replyTimeout : timeout, error);
}
