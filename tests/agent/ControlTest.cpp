// SPDX-License-Identifier: Apache-2.0
// The second interface, for people: what would be decided, how the agent is, what it mounted; and
// the rules, how they are checked, refused and replaced.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <fstream>
#include <memory>

#include "Monitor.h"
#include "PrivateBus.h"
#include "Programs.h"
#include "Skip.h"

namespace {

const char kPath[] = "/org/sentrel/sr_agent";
const char kControl[] = "org.sentrel.sr_agent.Control1";

std::string RuleFor(const std::string& module) {
    return "[[rule]]\nname = \"of " + module + "\"\nagent = \"sr_rmmod\"\nmodule = \"" + module +
           "\"\npermit = true\nuser = \"*\"\n";
}

test::Reply Ask(DBusConnection* connection, const char* member, const char* agent = nullptr,
                const char* text = nullptr) {
    DBusMessage* call =
        dbus_message_new_method_call("org.sentrel.sr_agent", kPath, kControl, member);
    if (agent != nullptr) {
        (void)dbus_message_append_args(call, DBUS_TYPE_STRING, &agent, DBUS_TYPE_STRING, &text,
                                       DBUS_TYPE_INVALID);
    }
    return test::Send(connection, call);
}

class ControlTest : public testing::Test {
protected:
    void SetUp() override { tools.Add("rmmod", "exit 0"); }
    void Serve() {
        agent = std::make_unique<test::RunningAgent>(std::vector<std::string>{
            "--rules", rules.Folder(), "--tool-path", tools.Folder(), "--audit-stderr"});
        connection = std::make_unique<test::PlainConnection>();
    }
    std::string Text(const char* member, const char* name = nullptr, const char* text = nullptr) {
        const test::Reply reply = Ask(connection->Get(), member, name, text);
        EXPECT_EQ("", reply.error) << reply.text;
        return reply.text;
    }
    std::string Call(const char* text) {
        return test::Call(connection->Get(), "sr_rmmod", text).text;
    }

    test::PrivateBus bus;
    test::FakeTools tools;
    test::RuleFolder rules;
    std::unique_ptr<test::RunningAgent> agent;
    std::unique_ptr<test::PlainConnection> connection;
};

TEST_F(ControlTest, TestTellsWhatWouldBeDecidedAndByWhichRuleAndRunsNothing) {
    tools.Add("rmmod", ": > \"$DIR/ran\"");
    rules.Write("a.toml", RuleFor("good"));
    rules.Write(
        "b.toml",
        "[[rule]]\nname = \"never\"\nagent = \"sr_rmmod\"\nmodule = \"bad\"\npermit = false\n");
    Serve();
    const std::string allowed = Text("Test", "sr_rmmod", "good");
    EXPECT_EQ(0U, allowed.find("{\"decision\":\"allow\",\"status\":0,\"rule\":\"")) << allowed;
    EXPECT_TRUE(test::Holds(allowed, "a.toml:1\"")) << allowed;
    EXPECT_EQ(getuid() == 0,
              test::Holds(allowed, "\"argv\":[\"" + tools.File("rmmod") + "\",\"--\",\"good\"]"))
        << allowed;
    const std::string forbidden = Text("Test", "sr_rmmod", "bad");
    EXPECT_EQ(0U, forbidden.find("{\"decision\":\"deny\",\"status\":7,\"rule\":\"")) << forbidden;
    EXPECT_TRUE(test::Holds(forbidden, "b.toml:1\"")) << forbidden;
    EXPECT_EQ(0U, Text("Test", "sr_rmmod", "other")
                      .find("{\"decision\":\"deny\",\"status\":7,\"rule\":\"\""));
    EXPECT_EQ(0U, Text("Test", "sr_rmmod", "a b").find("{\"decision\":\"error\",\"status\":1,"));
    EXPECT_EQ(0U, Text("Test", "sr_x", "").find("{\"decision\":\"error\",\"status\":10,"));
    EXPECT_FALSE(std::ifstream(tools.File("ran")).good());
}

TEST_F(ControlTest, WhatACallerChoseIsEscapedInTheAnswer) {
    Serve();
    const std::string answer = Text("Test", "sr_rmmod", "'a\"b\\' --\xc3\xa4");
    EXPECT_EQ('{', answer.front());
    EXPECT_EQ('}', answer.back());
    // Every quote inside belongs to a member or stands behind a backslash.
    EXPECT_FALSE(test::Holds(answer, "a\"b")) << answer;
}

TEST_F(ControlTest, StatusCountsWhatWasServedAndRefused) {
    rules.Write("a.toml", RuleFor("good"));
    Serve();
    EXPECT_EQ("0 0", Call("good"));
    EXPECT_EQ("7 0", Call("bad"));
    EXPECT_EQ("1 0", Call("'"));
    const std::string status = Text("Status");
    EXPECT_EQ(0U, status.find("{\"version\":\"")) << status;
    EXPECT_TRUE(test::Holds(status, "\",\"uptime_s\":")) << status;
    EXPECT_TRUE(test::Holds(status,
                            "\"rules\":1,\"running\":0,\"waiting\":0,\"abandoned\":0,"
                            "\"served\":1,\"refused\":2}"))
        << status;
}

TEST_F(ControlTest, ReloadReplacesTheRulesAndAFileThatIsWrongReplacesNothing) {
    rules.Write("a.toml", RuleFor("old"));
    Serve();
    EXPECT_EQ("0 0", Call("old"));
    rules.Write("a.toml", RuleFor("new"));
    EXPECT_EQ("0 0", Call("old")) << "not before the reload";
    EXPECT_EQ("{\"rules\":1,\"errors\":[],\"warnings\":[]}", Text("Reload"));
    EXPECT_EQ("7 0", Call("old"));
    EXPECT_EQ("0 0", Call("new"));
    rules.Write("b.toml", RuleFor("third") + "what = 1\n");
    const std::string result = Text("Reload");
    EXPECT_TRUE(test::Holds(result, "b.toml:7")) << result;
    EXPECT_EQ("0 0", Call("new"));
    EXPECT_EQ("7 0", Call("third"));
}

TEST_F(ControlTest, WhatIsNoUtf8IsReplacedInTheAnswer) {
    Serve();
    rules.Write("a\xff\xc3.toml", "[[rule]\n");
    const std::string result = Text("Reload");
    EXPECT_EQ(0U, result.find("{\"rules\":0,\"errors\":[\"")) << result;
    EXPECT_TRUE(test::Holds(result, "/a\xef\xbf\xbd\xef\xbf\xbd.toml:1")) << result;
}

TEST_F(ControlTest, SighupReloadsToo) {
    rules.Write("a.toml", RuleFor("old"));
    Serve();
    rules.Write("a.toml", RuleFor("new") + RuleFor("newer"));
    agent->Signal(SIGHUP);
    EXPECT_NE("", agent->NextLineWith("rules: 2 loaded"));
    EXPECT_EQ("0 0", Call("newer"));
    rules.Write("a.toml", "[[rule]\n");
    agent->Signal(SIGHUP);
    EXPECT_NE("", agent->NextLineWith("a.toml:1"));
    EXPECT_NE("", agent->NextLineWith("not loaded"));
    EXPECT_EQ("0 0", Call("newer"));
}

TEST_F(ControlTest, OnlyRootMayReloadAndOthersSeeNoCommand) {
    if (getuid() != 0) {
        SENTREL_SKIP("becoming another user needs root");
    }
    rules.Write("a.toml", RuleFor("good"));
    Serve();
    const pid_t other = test::Fork([] {
        if (setgid(65534) != 0 || setuid(65534) != 0) {
            return 90;
        }
        const test::PlainConnection mine;
        const test::Reply refused = Ask(mine.Get(), "Reload");
        const test::Reply tested = Ask(mine.Get(), "Test", "sr_rmmod", "good");
        return refused.error == "org.freedesktop.DBus.Error.AccessDenied" &&
                       test::Holds(tested.text, "\"allow\"") && !test::Holds(tested.text, "argv")
                   ? 0
                   : 1;
    });
    const int status = test::Reap(other, test::kLimit);
    EXPECT_TRUE(WIFEXITED(status));
    EXPECT_EQ(0, WEXITSTATUS(status));
}

TEST_F(ControlTest, MountsAreAnEmptyListBeforeTheFirst) {
    Serve();
    EXPECT_EQ("[]", Text("Mounts"));
}

TEST_F(ControlTest, BothInterfacesAreIntrospected) {
    Serve();
    const test::Reply text = test::Send(
        connection->Get(),
        dbus_message_new_method_call("org.sentrel.sr_agent", kPath,
                                     "org.freedesktop.DBus.Introspectable", "Introspect"));
    for (const char* part :
         {"\"org.sentrel.sr_agent\"", "\"org.sentrel.sr_agent.Control1\"", "\"CallCommand\"",
          "\"Test\"", "\"Status\"", "\"Reload\"", "\"Mounts\""}) {
        EXPECT_TRUE(test::Holds(text.text, part)) << part;
    }
}

TEST_F(ControlTest, QuestionsOfAnotherSignatureAreADBusError) {
    Serve();
    EXPECT_EQ("org.freedesktop.DBus.Error.InvalidArgs", Ask(connection->Get(), "Test").error);
    for (const char* member : {"Status", "Reload", "Mounts"}) {
        EXPECT_EQ("org.freedesktop.DBus.Error.InvalidArgs",
                  Ask(connection->Get(), member, "a", "b").error);
    }
    EXPECT_EQ("org.freedesktop.DBus.Error.UnknownMethod", Ask(connection->Get(), "Stop").error);
}

TEST_F(ControlTest, WrongRulesAtTheStartAreListedAndTheAgentEndsWith1) {
    rules.Write("a.toml", RuleFor("good"));
    rules.Write("b.toml", "[[rule]]\nname = \"x\"\n");
    const test::Finished finished = test::RunAgent({"--rules", rules.Folder()});
    EXPECT_EQ(1, finished.exit);
    EXPECT_TRUE(test::Holds(finished.errors, "b.toml:1: ")) << finished.errors;
    EXPECT_TRUE(test::Holds(finished.errors, "the rules are wrong"));
}

TEST_F(ControlTest, CheckSaysFileAndLineOfErrorsAndOfRulesThatNeverMatch) {
    rules.Write("a.toml", RuleFor("*") + RuleFor("never"));
    const test::Finished good = test::RunAgent({"--check", rules.Folder()});
    EXPECT_EQ(0, good.exit) << good.output;
    EXPECT_TRUE(test::Holds(good.output, "a.toml:7: ")) << good.output;
    EXPECT_TRUE(test::Holds(good.output, "2 rules can be used"));
    rules.Write("b.toml", "\n[[rule]]\nname = \"x\"\nagent = \"sr_rmmod\"\nwhat = 1\n");
    const test::Finished bad = test::RunAgent({"--check", "--rules", rules.Folder()});
    EXPECT_EQ(1, bad.exit);
    EXPECT_TRUE(test::Holds(bad.output, "b.toml:5: ")) << bad.output;
}

TEST_F(ControlTest, RulesThatOthersMayWriteAreNotLoaded) {
    rules.Write("a.toml", RuleFor("good"));
    ASSERT_EQ(0, chmod((rules.Folder() + "/a.toml").c_str(), 0666));
    EXPECT_EQ(1, test::RunAgent({"--check", rules.Folder()}).exit);
    EXPECT_EQ(1, test::RunAgent({"--rules", rules.Folder()}).exit);
    ASSERT_EQ(0, chmod((rules.Folder() + "/a.toml").c_str(), 0644));
    EXPECT_EQ(0, test::RunAgent({"--check", rules.Folder()}).exit);
    ASSERT_EQ(0, chmod(rules.Folder().c_str(), 0777));
    EXPECT_EQ(1, test::RunAgent({"--check", rules.Folder()}).exit);
}

}  // namespace
