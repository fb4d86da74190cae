// SPDX-License-Identifier: Apache-2.0
// The command as a process: exit statuses and messages. The agent runs scripts for tools.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <memory>

#include "PrivateBus.h"
#include "Programs.h"

namespace {

class CliTest : public testing::Test {
protected:
    void Serve(bool allowAll = true) {
        std::vector<std::string> options = {"--tool-path", tools.Folder()};
        if (allowAll) {
            options.push_back("--allow-all");
        }
        agent = std::make_unique<test::RunningAgent>(options);
    }

    test::PrivateBus bus;
    test::FakeTools tools;
    std::unique_ptr<test::RunningAgent> agent;
};

bool Holds(const std::string& text, const std::string& part) {
    return text.find(part) != std::string::npos;
}

TEST_F(CliTest, ItEndsAsTheToolEndedUpTo124) {
    tools.Add("umount", "exit $1");
    Serve();
    for (const char* code : {"0", "1", "32", "124"}) {
        const test::Finished finished = test::RunCommand({"umount", code});
        EXPECT_EQ(std::stoi(code), finished.Exit());
        EXPECT_EQ("", finished.errors);
    }
}

TEST_F(CliTest, AToolsExitCodeAbove124BecomesA125ThatNamesIt) {
    tools.Add("umount", "exit $1");
    Serve();
    for (const char* code : {"125", "126", "255"}) {
        const test::Finished finished = test::RunCommand({"umount", code});
        EXPECT_EQ(125, finished.Exit());
        EXPECT_EQ(std::string("sentrel: umount: the tool's exit code is ") + code + "\n",
                  finished.errors);
    }
}

TEST_F(CliTest, TheToolsOutputAppearsOnStandardOutput) {
    tools.Add("mount", "echo out; echo err >&2; exit 32");
    Serve();
    const test::Finished finished = test::RunCommand({"mount", "/x"});
    EXPECT_EQ(32, finished.Exit());
    EXPECT_EQ("out\nerr\n", finished.output);
    EXPECT_EQ("", finished.errors);
}

TEST_F(CliTest, EveryWordReachesTheToolAsItWasGiven) {
    tools.Add("systemctl", "shift 2; printf '<%s>' \"$@\"");
    Serve();
    const test::Finished finished = test::RunCommand(
        {"systemctl", "--trace", "--help", "it's", "a \"b\" \\", "", "$x", "\xc3\xa4", "--"});
    EXPECT_EQ(0, finished.Exit());
    EXPECT_EQ("<--trace><--help><it's><a \"b\" \\><><$x><\xc3\xa4><-->", finished.output);
}

TEST_F(CliTest, EachOperationReachesItsAgent) {
    for (const char* tool : {"mount", "umount", "mknod", "insmod", "rmmod", "systemctl"}) {
        tools.Add(tool, "echo \"${0##*/} $*\"");
    }
    Serve();
    const std::vector<std::pair<const char*, const char*> > expected = {
        {"mount", "mount x\n"},
        {"umount", "umount x\n"},
        {"mount-cifs", "mount -t cifs x\n"},
        {"umount-cifs", "umount x\n"},
        {"mknod", "mknod x\n"},
        {"insmod", "insmod x\n"},
        {"rmmod", "rmmod x\n"},
        {"systemctl", "systemctl --no-pager --no-ask-password x\n"}};
    for (const auto& entry : expected) {
        EXPECT_EQ(entry.second, test::RunCommand({entry.first, "x"}).output) << entry.first;
        EXPECT_EQ(entry.second, test::RunCommand({"raw", entry.first, "x"}).output) << entry.first;
    }
}

TEST_F(CliTest, RawSendsTheTextAsItIs) {
    tools.Add("mount", "printf '<%s>' \"$@\"");
    Serve();
    EXPECT_EQ("<a b><c>", test::RunCommand({"raw", "mount", "'a b' c"}).output);
    const test::Finished open = test::RunCommand({"raw", "mount", "'a"});
    EXPECT_EQ(126, open.Exit());
    EXPECT_TRUE(Holds(open.output, "a quote that is not closed"));
}

TEST_F(CliTest, ARefusalIsA126ThatSaysWhatToDo) {
    Serve(false);
    const test::Finished finished = test::RunCommand({"mount", "/x"});
    EXPECT_EQ(126, finished.Exit());
    EXPECT_EQ("sentrel-agent: no rule allows this\n", finished.output);
    EXPECT_EQ(
        "sentrel: mount: status 7, RULE_NO_FOUND: no rule allows this, or one forbids it\n"
        "sentrel: what to do: ask the administrator for a rule that allows it\n",
        finished.errors);
}

TEST_F(CliTest, AMissingToolIsA126) {
    Serve();
    const test::Finished finished = test::RunCommand({"insmod", "x.ko"});
    EXPECT_EQ(126, finished.Exit());
    EXPECT_TRUE(Holds(finished.errors, "status 10, FEATURE_ISNT_IMPLEMENTED"));
}

TEST_F(CliTest, NobodyThereIsA127) {
    const test::Finished finished = test::RunCommand({"mount", "/x"});
    EXPECT_EQ(127, finished.Exit());
    EXPECT_EQ(
        "sentrel: mount: status 5, COMM_NO_SERVICE: nobody owns the agent's name on the bus\n"
        "sentrel: what to do: start sentrel-agent\n",
        finished.errors);
}

TEST_F(CliTest, ABusThatIsAwayIsA125) {
    bus.Stop();
    const test::Finished finished = test::RunCommand({"mount", "/x"});
    EXPECT_EQ(125, finished.Exit());
    EXPECT_TRUE(Holds(finished.errors, "status 6, COMM_FAILED"));
}

TEST_F(CliTest, WithoutAStandardOutputTheToolRunsWithoutOne) {
    tools.Add("mount", "echo text; exit 8");
    Serve();
    EXPECT_EQ(8, test::RunCommand({"mount", "/x"}, true).Exit());
}

TEST_F(CliTest, WrongUsageIsA125BeforeAnythingIsSent) {
    tools.Add("mount", ": > \"$DIR/ran\"");
    Serve();
    const std::vector<std::vector<std::string> > wrong = {{},
                                                          {"mount"},
                                                          {"mknod"},
                                                          {"format", "x"},
                                                          {"--wrong"},
                                                          {"raw"},
                                                          {"raw", "mount"},
                                                          {"raw", "format", "x"},
                                                          {"raw", "mount", "a", "b"},
                                                          {"errors", "x"},
                                                          {"version", "x"},
                                                          {"mount", "\xff"},
                                                          {"raw", "mount", "\xc3"},
                                                          {"mount", std::string(8193, 'x')},
                                                          {"raw", "mount", std::string(8193, 'x')}};
    for (const auto& words : wrong) {
        const test::Finished finished = test::RunCommand(words);
        EXPECT_EQ(125, finished.Exit()) << testing::PrintToString(words);
        EXPECT_EQ("", finished.output);
        EXPECT_TRUE(Holds(finished.errors, "sentrel: ")) << testing::PrintToString(words);
    }
    EXPECT_NE(0, access(tools.File("ran").c_str(), F_OK));
}

TEST_F(CliTest, AWordThatIsNotUtf8IsNamed) {
    EXPECT_TRUE(Holds(test::RunCommand({"mount", "good",
                                        "b\x80"
                                        "d"})
                          .errors,
                      "mount: word 2 is not valid UTF-8"));
}

TEST_F(CliTest, TheLibrarysLogIsPrintedOnlyWithTrace) {
    tools.Add("mount", "exit 0");
    Serve();
    EXPECT_EQ("", test::RunCommand({"mount", "/x"}).errors);
    const test::Finished traced = test::RunCommand({"--trace", "mount", "/x"});
    EXPECT_EQ(0, traced.Exit());
    EXPECT_EQ("", traced.output);
    EXPECT_TRUE(Holds(traced.errors, "D SENTREL SR_Log.cpp: PrintMessage("));
    EXPECT_TRUE(Holds(traced.errors, "responseSerial: 0 0\n"));
    agent.reset();
    EXPECT_TRUE(Holds(test::RunCommand({"--trace", "mount", "/x"}).errors, "E SENTREL "));
}

TEST_F(CliTest, ErrorsVersionAndHelpNeedNoAgent) {
    const test::Finished errors = test::RunCommand({"errors"});
    EXPECT_EQ(0, errors.Exit());
    for (const char* line :
         {"0       OK ", "1       FAIL ", "2       INVALID_REGEX ", "3       COMM_OK ",
          "4       COMM_SERVICE_EXISTS ", "5       COMM_NO_SERVICE           127",
          "6       COMM_FAILED               125", "7       RULE_NO_FOUND             126",
          "8       WAITPID_FAILED ", "9       FORK_FAILED ",
          "10      FEATURE_ISNT_IMPLEMENTED  126"}) {
        EXPECT_TRUE(Holds(errors.output, line)) << line;
    }
    const test::Finished version = test::RunCommand({"version"});
    EXPECT_EQ(0, version.Exit());
    EXPECT_TRUE(Holds(version.output, "v1.0 5d1e0c2a7b94f3e8a06c1b7d29e4f5a3"));
    EXPECT_EQ(version.output, test::RunCommand({"--version"}).output);
    const test::Finished help = test::RunCommand({"--help"});
    EXPECT_EQ(0, help.Exit());
    EXPECT_TRUE(Holds(help.output, "mount-cifs"));
}

}  // namespace
