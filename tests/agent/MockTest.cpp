// SPDX-License-Identifier: Apache-2.0
// The agent that answers from a table, asked over plain libdbus.
#include <gtest/gtest.h>

#include <chrono>
#include <fstream>
#include <memory>

#include "Monitor.h"
#include "PrivateBus.h"
#include "Programs.h"

namespace {

class MockTest : public testing::Test {
protected:
    std::string Table(const std::string& text) const {
        const std::string file = tools.File("table.toml");
        std::ofstream(file) << text;
        return file;
    }
    void Serve(const std::string& text) {
        agent = std::make_unique<test::RunningAgent>(
            std::vector<std::string>{"--mock", Table(text), "--tool-path", tools.Folder()});
        connection = std::make_unique<test::PlainConnection>();
    }
    std::string Answer(const char* name, const char* text, int descriptor = 0) {
        const test::Reply reply = test::Call(connection->Get(), name, text, descriptor);
        EXPECT_EQ("", reply.error);
        return reply.text;
    }

    test::PrivateBus bus;
    test::FakeTools tools;
    std::unique_ptr<test::RunningAgent> agent;
    std::unique_ptr<test::PlainConnection> connection;
};

TEST_F(MockTest, TheFirstRowThatFitsAnswersAndTheRestIsRefused) {
    Serve(
        "[[answer]]\nagent = \"sr_mount\"\ntext = \"*/media/*\"\nstatus = 0\nvalue = 32\n"
        "[[answer]]\nagent = \"sr_mount\"\nstatus = 9\n"
        "[[answer]]\nagent = \"sr_umount\"\ntext = \"?\"\nstatus = 2\nvalue = 1\n");
    EXPECT_EQ("0 32", Answer("sr_mount", "-t ext4 /dev/sda1 /media/x"));
    EXPECT_EQ("9 0", Answer("sr_mount", "'what cannot be read"));
    EXPECT_EQ("2 1", Answer("sr_umount", "x"));
    EXPECT_EQ("7 0", Answer("sr_umount", "xx"));
    EXPECT_EQ("7 0", Answer("sr_none", "x"));
}

TEST_F(MockTest, InATextOnlyAStarAndAQuestionMarkAreSpecialAndTheyTakeASlashToo) {
    Serve(
        "[[answer]]\nagent = \"*\"\ntext = \"[ab]\"\nstatus = 0\nvalue = 1\n"
        "[[answer]]\nagent = \"*\"\ntext = \"x[!a]?\"\nstatus = 0\nvalue = 2\n"
        "[[answer]]\nagent = \"*\"\ntext = 'a\\*'\nstatus = 0\nvalue = 3\n"
        "[[answer]]\nagent = \"*\"\ntext = \"-o ? *\"\nstatus = 0\nvalue = 4\n"
        "[[answer]]\nagent = \"*\"\ntext = \"\"\nstatus = 0\nvalue = 5\n");
    EXPECT_EQ("0 1", Answer("sr_umount", "[ab]"));
    EXPECT_EQ("7 0", Answer("sr_umount", "a"));
    EXPECT_EQ("0 2", Answer("sr_umount", "x[!a]/"));
    EXPECT_EQ("7 0", Answer("sr_umount", "xb/"));
    EXPECT_EQ("0 3", Answer("sr_umount", "a\\/b/c"));
    EXPECT_EQ("7 0", Answer("sr_umount", "a*"));
    EXPECT_EQ("0 4", Answer("sr_umount", "-o \xc3\xa4 /a/b"));
    EXPECT_EQ("0 5", Answer("sr_umount", ""));
}

TEST_F(MockTest, TheOutputOfARowIsThereWhenTheAnswerIs) {
    Serve("[[answer]]\nagent = \"*\"\nstatus = 0\noutput = \"one\\ntwo\"\n");
    test::Pipe output;
    EXPECT_EQ("0 0", Answer("sr_insmod", "x", output.Writer()));
    EXPECT_EQ("one\ntwo\n", test::ReadReady(output.Reader()));
    EXPECT_EQ("1 0", Answer("sr_insmod", "x", output.Reader()));
}

TEST_F(MockTest, ADelayedAnswerComesAfterOneThatWasAskedForLaterAndNotTooEarly) {
    Serve(
        "[[answer]]\nagent = \"sr_mount\"\nstatus = 0\nvalue = 1\ndelay = 300\n"
        "[[answer]]\nagent = \"*\"\nstatus = 0\nvalue = 2\n");
    const auto start = std::chrono::steady_clock::now();
    test::Calls slow(connection->Get());
    slow.Add("sr_mount", "x");
    EXPECT_EQ("0 2", Answer("sr_umount", "x"));
    EXPECT_EQ(std::vector<std::string>{"0 1"}, slow.Wait());
    EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(300));
}

TEST_F(MockTest, ItsStatusTellsThatItIsOneAndHowMuchItServed) {
    Serve("[[answer]]\nagent = \"*\"\nstatus = 0\n");
    EXPECT_EQ("0 0", Answer("sr_mount", "x"));
    const std::string status =
        test::Send(connection->Get(),
                   dbus_message_new_method_call("org.sentrel.sr_agent", "/org/sentrel/sr_agent",
                                                "org.sentrel.sr_agent.Control1", "Status"))
            .text;
    EXPECT_EQ(0U, status.find("{\"version\":\"")) << status;
    EXPECT_TRUE(test::Holds(status, "\",\"mock\":true,\"answers\":1,\"served\":1}")) << status;
}

TEST_F(MockTest, NoToolIsEverStarted) {
    tools.Add("rmmod", ": > \"$DIR/ran\"");
    Serve("[[answer]]\nagent = \"*\"\nstatus = 0\n");
    EXPECT_EQ("0 0", Answer("sr_rmmod", "x"));
    EXPECT_FALSE(std::ifstream(tools.File("ran")).good());
}

TEST_F(MockTest, ATableThatIsWrongIsRefusedWithItsLine) {
    const std::pair<const char*, const char*> wrong[] = {
        {"[[answer]]\nagent = \"x\"\n", ":1: an answer needs 'agent' and 'status'"},
        {"[[answer]]\nagent = 1\nstatus = 0\n", ":2: 'agent' must be a text"},
        {"[[answer]]\nagent = \"x\"\nstatus = -1\n", ":3: 'status' must be a number from 0"},
        {"[[answer]]\nagent = \"x\"\nstatus = 0\nwhat = 1\n", ":4: there is no field 'what'"},
        {"[[answer]\n", ":1: "},
        {"[[other]]\n", ": only [[answer]] tables are expected"}};
    for (const auto& entry : wrong) {
        const test::Finished finished = test::RunAgent({"--mock", Table(entry.first)});
        EXPECT_EQ(1, finished.exit) << entry.first;
        EXPECT_TRUE(test::Holds(finished.errors, entry.second)) << finished.errors;
    }
}

}  // namespace
