// SPDX-License-Identifier: Apache-2.0
// The operations of the command as a process: exit statuses, messages, output.
#include <gtest/gtest.h>

#include <memory>

#include "AgentProcess.h"
#include "Command.h"
#include "FarAgent.h"
#include "PrivateBus.h"

namespace {

using test::FarAgent;
using test::Finished;
using test::Holds;
using test::Output;
using test::ReadJson;
using test::RunCommand;

const char kStart[] = "sentrel: what to do: start the agent: systemctl start sentrel-agent\n";

class CliTest : public testing::Test {
protected:
    test::PrivateBus bus;
};

TEST_F(CliTest, ItEndsAsTheToolEndedUpTo124) {
    for (const char* code : {"0", "1", "32", "124"}) {
        FarAgent agent(std::string("0 ") + code);
        const Finished finished = RunCommand({"umount", "/x"});
        EXPECT_EQ(std::stoi(code), finished.exit);
        EXPECT_EQ("", finished.errors);
    }
}

TEST_F(CliTest, AToolsExitCodeAbove124BecomesA125ThatNamesIt) {
    for (const char* code : {"125", "126", "127", "255", "-1"}) {
        FarAgent agent(std::string("0 ") + code);
        const Finished finished = RunCommand({"umount", "/x"});
        EXPECT_EQ(125, finished.exit);
        EXPECT_EQ(std::string("sentrel: umount: the tool's exit code is ") + code + "\n",
                  finished.errors);
    }
}

TEST_F(CliTest, EachStatusHasItsExitStatusItsTextAndItsAdvice) {
    struct Row {
        const char* status;
        int exit;
        const char* name;
        const char* advice;
    };
    for (const Row& row :
         {Row{"1", 126, "FAIL", "the agent's log"}, Row{"2", 126, "INVALID_REGEX", "mend"},
          Row{"5", 127, "COMM_NO_SERVICE", "systemctl start sentrel-agent"},
          Row{"6", 125, "COMM_FAILED", "sentrel doctor"},
          Row{"7", 126, "RULE_NO_FOUND", "sentrel test"},
          Row{"8", 126, "WAITPID_FAILED", "try again"}, Row{"9", 126, "FORK_FAILED", "log"},
          Row{"10", 126, "FEATURE_ISNT_IMPLEMENTED", "install the tool"}}) {
        FarAgent agent(std::string(row.status) + " 0", "a reason\n");
        const Finished finished = RunCommand({"mount", "/x"});
        EXPECT_EQ(row.exit, finished.exit) << row.name;
        EXPECT_EQ("a reason\n", finished.output);
        EXPECT_EQ(0U, finished.errors.find(std::string("sentrel: mount: status ") + row.status +
                                           ", " + row.name + ": "))
            << finished.errors;
        const std::size_t advice = finished.errors.find("\nsentrel: what to do: ");
        ASSERT_NE(std::string::npos, advice) << row.name;
        EXPECT_NE(std::string::npos, finished.errors.find(row.advice, advice)) << row.name;
    }
}

TEST_F(CliTest, AStatusThatNobodyKnowsIsA126) {
    FarAgent agent("77 0");
    const Finished finished = RunCommand({"mount", "/x"});
    EXPECT_EQ(126, finished.exit);
    EXPECT_TRUE(Holds(finished.errors, "status 77, "));
    EXPECT_TRUE(Holds(finished.errors, "the agent answered with an unknown status"));
}

TEST_F(CliTest, NobodyThereIsA127) {
    const Finished finished = RunCommand({"mount", "/x"});
    EXPECT_EQ(127, finished.exit);
    EXPECT_EQ(
        std::string("sentrel: mount: status 5, COMM_NO_SERVICE: nobody owns the agent's name on "
                    "the bus\n") +
            kStart,
        finished.errors);
}

TEST_F(CliTest, ABusThatIsAwayIsA125) {
    bus.Stop();
    const Finished finished = RunCommand({"mount", "/x"});
    EXPECT_EQ(125, finished.exit);
    EXPECT_TRUE(Holds(finished.errors, "status 6, COMM_FAILED"));
}

TEST_F(CliTest, QuietSaysNothingAboutAnOutcome) {
    for (const char* option : {"-q", "--quiet"}) {
        const Finished finished = RunCommand({option, "mount", "/x"});
        EXPECT_EQ(127, finished.exit);
        EXPECT_EQ("", finished.errors);
    }
    FarAgent agent("0 200", "text");
    const Finished finished = RunCommand({"--quiet", "mount", "/x"});
    EXPECT_EQ(125, finished.exit);
    EXPECT_EQ("text", finished.output);
    EXPECT_EQ("", finished.errors);
    EXPECT_NE("", RunCommand({"-q", "mount"}).errors);  // wrong usage is always told
}

TEST_F(CliTest, EachOperationReachesItsAgentWithItsQuotedWords) {
    FarAgent agent("0 0");
    const std::pair<const char*, const char*> expected[] = {
        {"mount", "sr_mount"},           {"umount", "sr_umount"},
        {"mount-cifs", "sr_mount_cifs"}, {"umount-cifs", "sr_umount_cifs"},
        {"mknod", "sr_mknod"},           {"insmod", "sr_insmod"},
        {"rmmod", "sr_rmmod"},           {"systemctl", "sr_systemctl"}};
    for (const auto& entry : expected) {
        EXPECT_EQ(0, RunCommand({entry.first, "--json", "it's", "a b", "", "\xc3\xa4"}).exit);
        EXPECT_EQ(std::string(entry.second) + " --json 'it'\\''s' 'a b' '' '\xc3\xa4'",
                  agent.NextReport());
        EXPECT_EQ(0, RunCommand({"raw", entry.first, "-x 'a b"}).exit);
        EXPECT_EQ(std::string(entry.second) + " -x 'a b", agent.NextReport());
    }
}

TEST_F(CliTest, WithoutAStandardOutputThereIsNoDescriptor) {
    FarAgent agent("0 8", "text");
    EXPECT_EQ(8, RunCommand({"mount", "/x"}, Output::kClosed).exit);
    EXPECT_EQ("sr_mount /x (no output)", agent.NextReport());
}

TEST_F(CliTest, OutputReachesAFileOrAPipeAsItIs) {
    const std::string bytes = "a\x1b[31m\xff\r\n\xc2\x9b";
    FarAgent agent("0 0", bytes);
    EXPECT_EQ(bytes, RunCommand({"mount", "/x"}).output);
}

TEST_F(CliTest, OutputIsFilteredOnTheWayToATerminal) {
    FarAgent agent("0 3", "a\t\x1b[31m\xff\r\n\xc2\x9b\xc3\xa4\n");
    const Finished finished = RunCommand({"mount", "/x"}, Output::kTerminal);
    EXPECT_EQ(3, finished.exit);
    EXPECT_EQ("a\t\\x1b[31m\\xff\\x0d\n\\xc2\\x9b\xc3\xa4\n", finished.output);
    EXPECT_EQ("", finished.errors);
}

TEST_F(CliTest, RawOutputReachesATerminalAsItIs) {
    FarAgent agent("0 0", "\x1b[31m\xff\r\n");
    EXPECT_EQ("\x1b[31m\xff\r\n", RunCommand({"--raw", "mount", "/x"}, Output::kTerminal).output);
}

TEST_F(CliTest, ARefusalOnATerminalIsFilteredToo) {
    FarAgent agent("7 0", "no: \x1b]0;x\a\n");
    const Finished finished = RunCommand({"mount", "/x"}, Output::kTerminal);
    EXPECT_EQ(126, finished.exit);
    EXPECT_EQ("no: \\x1b]0;x\\x07\n", finished.output);
    EXPECT_TRUE(Holds(finished.errors, "RULE_NO_FOUND"));
}

TEST_F(CliTest, ALongOutputReachesATerminalWhole) {
    const std::string text(1000000, 'x');
    FarAgent agent("0 0", text);
    EXPECT_TRUE(text == RunCommand({"mount", "/x"}, Output::kTerminal).output);
}

TEST_F(CliTest, AWriterThatStaysDoesNotHoldTheCommandUp) {
    FarAgent agent("0 0", "text", true);
    EXPECT_EQ("text", RunCommand({"mount", "/x"}, Output::kTerminal).output);
    EXPECT_EQ("'text'", ReadJson(RunCommand({"--json", "mount", "/x"}).output, "x['output']"));
}

TEST_F(CliTest, ForAProgramOneObjectHoldsItAll) {
    FarAgent agent("0 32", "a \"b\"\\\n\x1b[m\xc3\xa4\xff");
    const Finished finished = RunCommand({"--json", "mount", "/x"});
    EXPECT_EQ(32, finished.exit);
    EXPECT_EQ("", finished.errors);
    EXPECT_EQ(
        "[('operation', 'mount'), ('status', 0), ('name', 'OK'), ('value', 32), ('exit', 32), "
        "('output', 'a \"b\"\\\\\\n\\x1b[m\\xe4\\ufffd'), "
        "('text', \"the tool's exit code is 32\"), ('advice', '')]",
        ReadJson(finished.output, "list(x.items())"));
}

TEST_F(CliTest, ForAProgramARefusalIsAnObjectToo) {
    FarAgent agent("7 0", "no rule\n");
    const Finished finished = RunCommand({"--json", "raw", "rmmod", "x"});
    EXPECT_EQ(126, finished.exit);
    EXPECT_EQ("", finished.errors);
    EXPECT_EQ("('rmmod', 7, 'RULE_NO_FOUND', 0, 126, 'no rule\\n', True)",
              ReadJson(finished.output,
                       "(x['operation'], x['status'], x['name'], x['value'], x['exit'], "
                       "x['output'], len(x['advice']) > 0)"));
}

TEST_F(CliTest, ForAProgramNobodyThereIsAnObjectToo) {
    const Finished finished = RunCommand({"--json", "mount", "/x"});
    EXPECT_EQ(127, finished.exit);
    EXPECT_EQ("(5, 127, '')", ReadJson(finished.output, "(x['status'], x['exit'], x['output'])"));
}

TEST_F(CliTest, WrongUsageIsA125BeforeAnythingIsSent) {
    FarAgent agent("0 0");
    const std::string tooLong(8193, 'x');
    const std::vector<std::vector<std::string> > wrong = {{},
                                                          {"mount"},
                                                          {"mknod"},
                                                          {"format", "x"},
                                                          {"--wrong"},
                                                          {"--json=x", "mount", "x"},
                                                          {"raw"},
                                                          {"raw", "mount"},
                                                          {"raw", "format", "x"},
                                                          {"raw", "mount", "a", "b"},
                                                          {"raw", "--wrong", "mount", "a"},
                                                          {"test"},
                                                          {"test", "mount"},
                                                          {"test", "format", "x"},
                                                          {"status", "x"},
                                                          {"reload", "x"},
                                                          {"mounts", "x"},
                                                          {"doctor", "x"},
                                                          {"errors", "x"},
                                                          {"version", "x"},
                                                          {"status", "--wrong"},
                                                          {"mount", "\xff"},
                                                          {"raw", "mount", "\xc3"},
                                                          {"test", "mount", "\xed\xa0\x80"},
                                                          {"mount", tooLong},
                                                          {"raw", "mount", tooLong},
                                                          {"test", "mount", tooLong}};
    for (const auto& words : wrong) {
        const Finished finished = RunCommand(words);
        EXPECT_EQ(125, finished.exit) << testing::PrintToString(words);
        EXPECT_EQ("", finished.output);
        EXPECT_TRUE(Holds(finished.errors, "sentrel: see sentrel --help\n"))
            << testing::PrintToString(words);
    }
    (void)RunCommand({"mount", "sent"});
    EXPECT_EQ("sr_mount sent", agent.NextReport());  // the first that came
}

TEST_F(CliTest, AWrongWordIsNamedAndShownWithoutItsEscapes) {
    EXPECT_TRUE(Holds(RunCommand({"mount", "good",
                                  "b\x80"
                                  "d"})
                          .errors,
                      "mount: word 2 is not valid UTF-8"));
    EXPECT_TRUE(Holds(RunCommand({"\x1b[2J"}).errors, "no such operation: \\x1b[2J\n"));
    EXPECT_TRUE(Holds(RunCommand({"mount", std::string(8193, 'x')}).errors,
                      "mount: the words make more than 8192 bytes of text"));
}

TEST_F(CliTest, AsMuchTextAsTheAgentTakesIsSent) {
    FarAgent agent("0 0");
    const std::string most(8192, 'x');
    EXPECT_EQ(0, RunCommand({"mount", most}).exit);
    EXPECT_EQ("sr_mount " + most, agent.NextReport());
}

TEST_F(CliTest, TheLibrarysLogIsPrintedOnlyWithTrace) {
    {
        FarAgent agent("0 0");
        EXPECT_EQ("", RunCommand({"mount", "/x"}).errors);
        const Finished traced = RunCommand({"--trace", "mount", "/x"});
        EXPECT_EQ(0, traced.exit);
        EXPECT_EQ("", traced.output);
        EXPECT_TRUE(Holds(traced.errors, "D SENTREL SR_Log.cpp: PrintMessage("));
        EXPECT_TRUE(Holds(traced.errors, "responseSerial: 0 0\n"));
    }
    EXPECT_TRUE(Holds(RunCommand({"--trace", "mount", "/x"}).errors, "E SENTREL "));
}

TEST_F(CliTest, ErrorsVersionAndHelpNeedNoBus) {
    bus.Stop();
    const Finished errors = RunCommand({"errors"});
    EXPECT_EQ(0, errors.exit);
    for (const char* line :
         {"0       OK ", "1       FAIL ", "2       INVALID_REGEX ", "3       COMM_OK ",
          "4       COMM_SERVICE_EXISTS ", "5       COMM_NO_SERVICE           127",
          "6       COMM_FAILED               125", "7       RULE_NO_FOUND             126",
          "8       WAITPID_FAILED ", "9       FORK_FAILED ",
          "10      FEATURE_ISNT_IMPLEMENTED  126"}) {
        EXPECT_TRUE(Holds(errors.output, line)) << line;
    }
    const Finished version = RunCommand({"version"});
    EXPECT_EQ(0, version.exit);
    EXPECT_TRUE(Holds(version.output, "v1.0 5d1e0c2a7b94f3e8a06c1b7d29e4f5a3"));
    EXPECT_EQ(version.output, RunCommand({"--version"}).output);
    const Finished help = RunCommand({"--help"});
    EXPECT_EQ(0, help.exit);
    EXPECT_TRUE(Holds(help.output, "mount-cifs"));
    EXPECT_EQ(help.output, RunCommand({"doctor", "--help"}).output);
    EXPECT_EQ(help.output, RunCommand({"-h"}).output);
    EXPECT_EQ(help.output, RunCommand({"help"}).output);
    EXPECT_EQ(help.output, RunCommand({"help", "doctor"}).output);
}

TEST_F(CliTest, EachOperationHasAHelpWithAnExampleAndNothingOfItIsSent) {
    bus.Stop();
    for (const char* name : {"mount", "umount", "mount-cifs", "umount-cifs", "mknod", "insmod",
                             "rmmod", "systemctl"}) {
        const Finished help = RunCommand({name, "--help"});
        EXPECT_EQ(0, help.exit);
        EXPECT_EQ("", help.errors);
        EXPECT_TRUE(Holds(help.output, "Usage: sentrel [OPTION]... " + std::string(name) + " "));
        EXPECT_TRUE(Holds(help.output, "\n  sentrel " + std::string(name) + " "));
        EXPECT_EQ(help.output, RunCommand({name, "-h"}).output);
        EXPECT_EQ(help.output, RunCommand({"help", name}).output);
        EXPECT_EQ(help.output, RunCommand({"test", name, "--help"}).output);
    }
    EXPECT_EQ(125, RunCommand({"help", "mount", "x"}).exit);
}

TEST_F(CliTest, AMistypedNameIsAnsweredWithTheOneThatWasMeant) {
    bus.Stop();
    const std::pair<std::vector<std::string>, const char*> mistyped[] = {
        {{"mout", "/x"}, "sentrel: no such operation: mout; did you mean mount?\n"},
        {{"dcotor"}, "sentrel: no such operation: dcotor; did you mean doctor?\n"},
        {{"help", "mkond"}, "sentrel: help: no such operation: mkond; did you mean mknod?\n"},
        {{"raw", "mount_cifs", "x"},
         "sentrel: raw: no such operation: mount_cifs; did you mean mount-cifs?\n"},
        {{"test", "rmod", "x"}, "sentrel: no such operation: rmod; did you mean rmmod?\n"},
        {{"banana"}, "sentrel: no such operation: banana\n"}};
    for (const auto& [words, message] : mistyped) {
        const Finished finished = RunCommand(words);
        EXPECT_EQ(125, finished.exit);
        EXPECT_EQ(message + std::string("sentrel: see sentrel --help\n"), finished.errors);
    }
}

TEST_F(CliTest, ErrorsAndVersionAreReadByPrograms) {
    bus.Stop();
    EXPECT_EQ(
        "[(0, None), (1, 126), (2, 126), (3, None), (4, None), (5, 127), (6, 125), (7, 126), "
        "(8, 126), (9, 126), (10, 126)]",
        ReadJson(RunCommand({"--json", "errors"}).output, "[(e['status'], e['exit']) for e in x]"));
    EXPECT_EQ("['advice', 'exit', 'name', 'status', 'text']",
              ReadJson(RunCommand({"errors", "--json"}).output, "sorted(x[0])"));
    EXPECT_EQ("['interface', 'version']",
              ReadJson(RunCommand({"version", "--json"}).output, "sorted(x)"));
}

}  // namespace
