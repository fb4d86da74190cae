// SPDX-License-Identifier: Apache-2.0
// The C interface, through the shared library, against an agent in another process.
#include <gtest/gtest.h>

#include <cstring>

#include <sentrel/SR_API.h>
#include "Fixture.h"
#include "StatusNames.h"

namespace {

using test::AgentProcess;
using test::BriefWithoutToggles;
using test::Failed;
using test::Framed;
using test::Texts;

const int kPoison = 0x5EED;

typedef int (*Operation)(const char*, unsigned int, int, int*);

struct Row {
    Operation operation;
    const char* agent;
};

const Row kRows[] = {{SR_Mount, "sr_mount"},           {SR_Umount, "sr_umount"},
                     {SR_Mount_Cifs, "sr_mount_cifs"}, {SR_Umount_Cifs, "sr_umount_cifs"},
                     {SR_Mknod, "sr_mknod"},           {SR_Insmod, "sr_insmod"},
                     {SR_Rmmod, "sr_rmmod"},           {SR_Systemctl, "sr_systemctl"}};

class ApiTest : public test::BusTest {
protected:
    int Call(const std::string& text, int* result) {
        return SR_Mount(text.data(), static_cast<unsigned>(text.size()), 5, result);
    }

    // The arguments part of the agent's next report.
    static std::string Arguments(AgentProcess& agent) {
        const std::string report = agent.NextReport();
        return report.substr(report.find(" | ") + 3);
    }
};

TEST_F(ApiTest, EachOperationReachesItsAgentWithTextAndDescriptor) {
    AgentProcess agent({"--reply", "echo"});
    int number = 100;
    for (const Row& row : kRows) {
        const std::string text = "argument " + std::to_string(++number);
        int result = kPoison;
        EXPECT_EQ(SR_OK,
                  row.operation(text.data(), static_cast<unsigned>(text.size()), number, &result));
        EXPECT_EQ(number, result) << row.agent;
        EXPECT_EQ(std::string(row.agent) + " | " + text + " | " + std::to_string(number),
                  Arguments(agent));
    }
}

TEST_F(ApiTest, ADescriptorOfAnyValueIsPassedThroughUnchanged) {
    AgentProcess agent;
    for (const int descriptor : {0, -1, 2147483647, -2147483647 - 1}) {
        EXPECT_EQ(SR_OK, SR_Mknod("x", 1, descriptor, nullptr));
        EXPECT_EQ("sr_mknod | x | " + std::to_string(descriptor), Arguments(agent));
    }
}

TEST_F(ApiTest, NullArgumentsAreRefusedWithoutATrace) {
    test::Monitor monitor;
    for (const Row& row : kRows) {
        int result = kPoison;
        EXPECT_EQ(SR_COMM_FAILED, row.operation(nullptr, 3, 1, &result));
        EXPECT_EQ(kPoison, result);
    }
    EXPECT_EQ(SR_COMM_FAILED, SR_Mount(nullptr, 0, 1, nullptr));
    EXPECT_TRUE(test::TakeLog().empty());
    EXPECT_TRUE(monitor.Take().empty());
}

TEST_F(ApiTest, AnEmptyTextIsSentAsAnEmptyString) {
    AgentProcess agent({"--text", "0 3"});
    int result = kPoison;
    EXPECT_EQ(SR_OK, SR_Mount("not looked at", 0, 7, &result));
    EXPECT_EQ(3, result);
    EXPECT_EQ("sr_mount |  | 7", Arguments(agent));
}

TEST_F(ApiTest, ATextNeedsNoNulAndOnlyItsLengthIsSent) {
    AgentProcess agent;
    const char text[] = {'a', 'b', 'c', 'd'};
    EXPECT_EQ(SR_OK, SR_Umount(text, 3, 1, nullptr));
    EXPECT_EQ("sr_umount | abc | 1", Arguments(agent));
}

TEST_F(ApiTest, ATextEndsOnTheWireAtItsFirstNul) {
    AgentProcess agent;
    EXPECT_EQ(SR_OK, SR_Umount("ab\0cd", 5, 1, nullptr));
    EXPECT_EQ("sr_umount | ab | 1", Arguments(agent));
}

TEST_F(ApiTest, ATextOfCharactersOfSeveralBytesArrivesUnchanged) {
    AgentProcess agent;
    const std::string text(
        "o=\xC3\xA4 \xE2\x82\xAC \xF0\x9F\x90\xA7.");  // two, three and four bytes
    for (const Row& row : kRows) {
        EXPECT_EQ(SR_OK,
                  row.operation(text.data(), static_cast<unsigned>(text.size()), 1, nullptr));
        EXPECT_EQ(std::string(row.agent) + " | " + text + " | 1", Arguments(agent));
    }
}

TEST_F(ApiTest, AMegabyteOfTextArrives) {
    AgentProcess agent;
    const std::string text(1024 * 1024, 'y');
    EXPECT_EQ(SR_OK, Call(text, nullptr));
    EXPECT_EQ("sr_mount | 1048576 times y | 5", Arguments(agent));
}

TEST_F(ApiTest, ANullResultDropsTheReturnValue) {
    AgentProcess agent({"--text", "0 42"});
    EXPECT_EQ(SR_OK, Call("x", nullptr));
}

TEST_F(ApiTest, TheReturnValueIsStoredOnSuccess) {
    AgentProcess agent({"--text", "0 7"});
    int result = kPoison;
    EXPECT_EQ(SR_OK, Call("x", &result));
    EXPECT_EQ(7, result);
}

TEST_F(ApiTest, AStatusOf3FromTheAgentReachesTheCallerAsSuccess) {
    AgentProcess agent({"--text", "3 42"});
    int result = kPoison;
    EXPECT_EQ(SR_OK, Call("x", &result));
    EXPECT_EQ(42, result);
}

TEST_F(ApiTest, EveryOtherStatusIsPassedThroughAndLeavesTheResultAlone) {
    for (const int status : {1, 2, 4, 5, 6, 7, 8, 9, 10, 11, 1000, -1}) {
        AgentProcess agent({"--text", std::to_string(status) + " 42"});
        int result = kPoison;
        EXPECT_EQ(status, Call("x", &result));
        EXPECT_EQ(kPoison, result);
    }
}

TEST_F(ApiTest, AnAbsentAgentIs5AndLeavesTheResultAlone) {
    int result = kPoison;
    EXPECT_EQ(SR_COMM_NO_SERVICE, Call("x", &result));
    EXPECT_EQ(kPoison, result);
}

TEST_F(ApiTest, TheLogOfASuccessfulCallIsComplete) {
    AgentProcess agent({"--text", "0 42"});
    ASSERT_EQ(SR_OK, Call("x", nullptr));
    EXPECT_EQ(Framed({"D SendMessage responseSerial: 0 42"}, {"D SR_Agent response:"}),
              BriefWithoutToggles());
}

TEST_F(ApiTest, TheLogOfAnAgentsStatusIsComplete) {
    AgentProcess agent({"--text", "9 42"});
    ASSERT_EQ(9, Call("x", nullptr));
    EXPECT_EQ(Framed({"D SendMessage responseSerial: 9 42"}, {"E SR_Agent [Client][Status]9"}),
              BriefWithoutToggles());
}

// In the failing kinds the exchange's own line stands behind the end of the connection and of its
// dispatcher: its handlers run when both are gone.
TEST_F(ApiTest, TheLogOfACallWithoutAnAgentIsComplete) {
    ASSERT_EQ(SR_COMM_NO_SERVICE, Call("x", nullptr));
    EXPECT_EQ(
        Framed({}, Failed("The name org.sentrel.sr_agent was not provided by any .service files "
                          "(org.freedesktop.DBus.Error.ServiceUnknown)",
                          "sr_mount", 5)),
        BriefWithoutToggles());
}

TEST_F(ApiTest, TheLogOfAnErrorReplyIsComplete) {
    AgentProcess agent({"--reply", "error", "--error", "org.sentrel.Error.No", "--text", "no way"});
    ASSERT_EQ(SR_COMM_FAILED, Call("x", nullptr));
    EXPECT_EQ(Framed({}, Failed("no way (org.sentrel.Error.No)", "sr_mount")),
              BriefWithoutToggles());
}

TEST_F(ApiTest, TheLogOfAReplyWithoutAStringIsComplete) {
    for (const char* kind : {"int", "none"}) {
        AgentProcess agent({"--reply", kind, "--text", "0"});
        ASSERT_EQ(SR_COMM_FAILED, Call("x", nullptr));
        EXPECT_EQ(Framed({}, Failed("type mismatch (org.freedesktop.DBus.Error.InvalidArgs)",
                                    "sr_mount")),
                  BriefWithoutToggles());
    }
}

TEST_F(ApiTest, TheLogOfACallWithoutABusIsComplete) {
    bus.Stop();
    ASSERT_EQ(SR_COMM_FAILED, Call("x", nullptr));
    EXPECT_EQ(test::Whole({}, Failed("Failed to connect to socket " + test::PrivateBus::Folder() +
                                         "/bus: Connection refused "
                                         "(org.freedesktop.DBus.Error.NoServer)",
                                     "sr_mount")),
              BriefWithoutToggles());
}

TEST_F(ApiTest, ItsOwnLinesNameTheirSourceFile) {
    ASSERT_EQ(SR_COMM_NO_SERVICE, Call("x", nullptr));
    std::size_t found = 0;
    for (const test::LogLine& line : test::TakeLog()) {
        EXPECT_EQ("SENTREL", line.tag);
        EXPECT_EQ(0, line.id);
        if (line.Function() == "SR_Agent") {
            EXPECT_EQ("SR_API.cpp", line.File());
            ++found;
        } else if (line.Function() == "SendMessage") {
            EXPECT_EQ("SR_CommunicationClient.cpp", line.File());
            ++found;
        }
    }
    EXPECT_EQ(2U, found);
}

TEST_F(ApiTest, ConfigInfoIsTheSameConstantEachTime) {
    const char* info = SR_ConfigInfo();
    EXPECT_STREQ("v1.0 5d1e0c2a7b94f3e8a06c1b7d29e4f5a3", info);
    EXPECT_EQ(info, SR_ConfigInfo());
    EXPECT_TRUE(test::TakeLog().empty());
}

TEST_F(ApiTest, ErrorToStringKnowsTheWholeTableAndNothingElse) {
    for (const auto& row : kStatusNames) {
        EXPECT_STREQ(row.name, SR_ErrorToString(row.value));
        EXPECT_EQ(SR_ErrorToString(row.value), SR_ErrorToString(row.value));
    }
    for (const int status : kNamelessStatuses) {
        EXPECT_STREQ("Unknown error", SR_ErrorToString(status)) << status;
    }
}

TEST_F(ApiTest, ACallWorksAgainAfterEachKindOfFailure) {
    int result = kPoison;
    EXPECT_EQ(SR_COMM_NO_SERVICE, Call("x", &result));
    bus.Stop();
    EXPECT_EQ(SR_COMM_FAILED, Call("x", &result));
    bus.Start();
    EXPECT_EQ(kPoison, result);
    AgentProcess agent({"--text", "0 1"});
    EXPECT_EQ(SR_OK, Call("x", &result));
    EXPECT_EQ(1, result);
}

}  // namespace
