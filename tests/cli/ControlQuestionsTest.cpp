// SPDX-License-Identifier: Apache-2.0
// The questions to the agent's second interface: what is sent, and what is made of the answer.
#include <gtest/gtest.h>

#include "AgentProcess.h"
#include "Command.h"
#include "PrivateBus.h"

namespace {

using test::AgentProcess;
using test::Finished;
using test::Holds;
using test::ReadJson;
using test::RunCommand;

const char kAllowed[] =
    R"({"decision":"allow","status":0,"rule":"/etc/sentrel/rules.d/a.toml:3","reason":"may",)"
    R"("argv":["/usr/bin/mount","-o","a b"],"added":"later"})";
const char kDenied[] = R"({"decision":"deny","status":7,"rule":"","reason":"no rule \u001b[2J"})";
const char kStatus[] =
    R"({"version":"9","uptime_s":93784,"rules":4,"running":1,"waiting":0,"abandoned":0,)"
    R"("served":12,"refused":3})";
const char kMounts[] =
    R"([{"target":"/run/a\n","source":"none","type":"tmpfs","rule":"a.toml:3","uid":1000,)"
    R"("since":"2026-01-31T12:00:00Z"}])";

class ControlQuestionsTest : public testing::Test {
protected:
    test::PrivateBus bus;
};

std::string Heard(AgentProcess& agent) {
    const std::string report = agent.NextReport();
    return report.substr(report.find("interface="));
}

TEST_F(ControlQuestionsTest, EachQuestionIsOneCallOfItsMethod) {
    AgentProcess agent({"--text", "{}"});
    const std::string head = "interface=org.sentrel.sr_agent.Control1 member=";
    (void)RunCommand({"test", "mount-cifs", "-o", "a b", "//h/s"});
    EXPECT_EQ(head +
                  "Test signature=ss reply=1 start=1 descriptors=0 | sr_mount_cifs | "
                  "-o 'a b' //h/s",
              Heard(agent));
    (void)RunCommand({"status"});
    EXPECT_EQ(head + "Status signature= reply=1 start=1 descriptors=0", Heard(agent));
    (void)RunCommand({"reload"});
    EXPECT_EQ(head + "Reload signature= reply=1 start=1 descriptors=0", Heard(agent));
    (void)RunCommand({"mounts"});
    EXPECT_EQ(head + "Mounts signature= reply=1 start=1 descriptors=0", Heard(agent));
}

TEST_F(ControlQuestionsTest, ADecisionToAllowIsA0WithItsReason) {
    AgentProcess agent({"--text", kAllowed});
    const Finished finished = RunCommand({"test", "mount", "/x"});
    EXPECT_EQ(0, finished.exit);
    EXPECT_EQ(
        "decision:  allow\nstatus:    0 OK\nrule:      /etc/sentrel/rules.d/a.toml:3\n"
        "reason:    may\nargv:      /usr/bin/mount -o 'a b'\nadded:     later\n",
        finished.output);
    EXPECT_EQ("", finished.errors);
}

TEST_F(ControlQuestionsTest, ADecisionToDenyIsA126AndItsReasonIsShownSafely) {
    AgentProcess agent({"--text", kDenied});
    const Finished finished = RunCommand({"test", "mount", "/x"});
    EXPECT_EQ(126, finished.exit);
    EXPECT_EQ("decision:  deny\nstatus:    7 RULE_NO_FOUND\nreason:    no rule \\x1b[2J\n",
              finished.output);
}

TEST_F(ControlQuestionsTest, ADecisionThatIsAnErrorIsA126) {
    AgentProcess agent({"--text", R"({"decision":"error","status":2,"rule":"a:1","reason":"x"})"});
    EXPECT_EQ(126, RunCommand({"test", "mount", "/x"}).exit);
}

TEST_F(ControlQuestionsTest, TheStatusIsALineForEachFigure) {
    AgentProcess agent({"--text", kStatus});
    const Finished finished = RunCommand({"status"});
    EXPECT_EQ(0, finished.exit);
    EXPECT_EQ(
        "version:   9\nuptime:    1 d 2 h 3 min 4 s\nrules:     4\nrunning:   1\nwaiting:   0\n"
        "abandoned: 0\nserved:    12\nrefused:   3\n",
        finished.output);
}

TEST_F(ControlQuestionsTest, AReloadThatSucceedsShowsItsWarnings) {
    AgentProcess agent({"--text", R"({"rules":2,"errors":[],"warnings":["a:1: never"]})"});
    const Finished finished = RunCommand({"reload"});
    EXPECT_EQ(0, finished.exit);
    EXPECT_EQ("rules:     2\nwarnings:  a:1: never\n", finished.output);
}

TEST_F(ControlQuestionsTest, AReloadWithErrorsIsA126ThatTellsWhichRulesHold) {
    AgentProcess agent({"--text", R"({"rules":2,"errors":["a:1: x","b:2: y"],"warnings":[]})"});
    const Finished finished = RunCommand({"reload"});
    EXPECT_EQ(126, finished.exit);
    EXPECT_EQ("rules:     2\nerrors:    a:1: x\nerrors:    b:2: y\n", finished.output);
    EXPECT_EQ("sentrel: reload: the rules are as they were: mend the errors, then reload again\n",
              finished.errors);
    EXPECT_EQ(126, RunCommand({"--json", "reload"}).exit);
}

TEST_F(ControlQuestionsTest, EachMountIsALine) {
    AgentProcess agent({"--text", kMounts});
    const Finished finished = RunCommand({"mounts"});
    EXPECT_EQ(0, finished.exit);
    EXPECT_EQ(
        "none on /run/a\\x0a type tmpfs (rule a.toml:3, uid 1000, since 2026-01-31T12:00:00Z)\n",
        finished.output);
}

TEST_F(ControlQuestionsTest, WithoutMountsThereIsNoLine) {
    AgentProcess agent({"--text", "[]"});
    const Finished finished = RunCommand({"mounts"});
    EXPECT_EQ(0, finished.exit);
    EXPECT_EQ("", finished.output);
    EXPECT_EQ("[]\n", RunCommand({"mounts", "--json"}).output);
}

TEST_F(ControlQuestionsTest, ForAProgramTheAnswerIsPassedOn) {
    const std::pair<const char*, std::vector<std::string> > questions[] = {
        {kAllowed, {"--json", "test", "mount", "/x"}},
        {kDenied, {"test", "--json", "mount", "/x"}},
        {kStatus, {"status", "--json"}},
        {kMounts, {"--json", "mounts"}}};
    for (const auto& question : questions) {
        AgentProcess agent({"--text", question.first});
        const Finished finished = RunCommand(question.second);
        EXPECT_EQ(ReadJson(question.first, "x"), ReadJson(finished.output, "x"));
        EXPECT_EQ("", finished.errors);
    }
}

TEST_F(ControlQuestionsTest, EachFailureHasItsExitStatusAndItsAdvice) {
    struct Row {
        const char* error;
        int exit;
        const char* advice;
    };
    for (const Row& row : {Row{"AccessDenied", 126, "ask as root"},
                           Row{"UnknownMethod", 125, "does not answer such questions"},
                           Row{"UnknownInterface", 125, "does not answer such questions"},
                           Row{"UnknownObject", 125, "does not answer such questions"},
                           Row{"Failed", 125, "sentrel doctor"}}) {
        const std::string error = std::string("org.freedesktop.DBus.Error.") + row.error;
        AgentProcess agent({"--reply", "error", "--error", error, "--text", "the\x1bwords"});
        for (const char* question : {"status", "reload", "mounts"}) {
            const Finished finished = RunCommand({question});
            EXPECT_EQ(row.exit, finished.exit) << row.error;
            EXPECT_EQ("", finished.output);
            EXPECT_EQ(0U, finished.errors.find(std::string("sentrel: ") + question + ": " + error +
                                               ": the\\x1bwords\nsentrel: what to do: "))
                << finished.errors;
            EXPECT_TRUE(Holds(finished.errors, row.advice)) << row.error;
            const Finished json = RunCommand({"--json", question});
            EXPECT_EQ(row.exit, json.exit);
            EXPECT_EQ("", json.errors);
            EXPECT_EQ("True", ReadJson(json.output, "x['error'] == '" + error +
                                                        "' and x['text'] == 'the\\x1bwords' and "
                                                        "x['exit'] == " +
                                                        std::to_string(row.exit)));
        }
        EXPECT_EQ("", RunCommand({"-q", "status"}).errors);
        EXPECT_EQ(row.exit, RunCommand({"test", "mount", "/x"}).exit);
    }
}

TEST_F(ControlQuestionsTest, NobodyThereIsA127) {
    const Finished finished = RunCommand({"status"});
    EXPECT_EQ(127, finished.exit);
    EXPECT_TRUE(Holds(finished.errors, "systemctl start sentrel-agent\n"));
}

TEST_F(ControlQuestionsTest, ABusThatIsAwayIsA125) {
    bus.Stop();
    EXPECT_EQ(125, RunCommand({"status"}).exit);
    EXPECT_EQ(125, RunCommand({"test", "mount", "/x"}).exit);
}

TEST_F(ControlQuestionsTest, AnAnswerThatCannotBeReadIsA125) {
    const std::vector<std::string> wrong[] = {{"--text", "no json"},
                                              {"--text", "{"},
                                              {"--text", "7"},
                                              {"--reply", "int", "--text", "7"},
                                              {"--reply", "none"}};
    for (const auto& options : wrong) {
        AgentProcess agent(options);
        for (const char* question : {"status", "reload", "mounts"}) {
            const Finished finished = RunCommand({question});
            EXPECT_EQ(125, finished.exit) << testing::PrintToString(options);
            EXPECT_EQ("", finished.output);
            EXPECT_NE("", finished.errors);
        }
        EXPECT_EQ(125, RunCommand({"test", "mount", "/x"}).exit);
    }
}

TEST_F(ControlQuestionsTest, AnAnswerThatMeansHarmIsA125WithItsReason) {
    std::string members = "{";
    for (int i = 0; i < 10000; ++i) {
        members += "\"" + std::to_string(i) + "\":0,";
    }
    const std::pair<std::string, const char*> wrong[] = {
        {"{\"rules\":", "it is no JSON, at byte 10"},
        {"{\"rules\":1e999}", "it holds a number that is no integer of 64 bits"},
        {"{\"rules\":1.5}", "it holds a number that is no integer of 64 bits"},
        {std::string(100000, '['), "it is nested too deeply"},
        {members + "\"\":0}", "an object has too many members"}};
    for (const auto& row : wrong) {
        AgentProcess agent({"--text", row.first});
        const std::string reason = std::string("the answer is not readable: ") + row.second;
        const Finished finished = RunCommand({"status"});
        EXPECT_EQ(125, finished.exit);
        EXPECT_EQ("", finished.output);
        EXPECT_EQ(0U, finished.errors.find("sentrel: status: org.sentrel.Error.Answer: " + reason))
            << finished.errors;
        const Finished json = RunCommand({"--json", "status"});
        EXPECT_EQ(125, json.exit);
        EXPECT_EQ("", json.errors);
        EXPECT_EQ("True", ReadJson(json.output, "x['text'].startswith('" + reason + "')"));
    }
}

TEST_F(ControlQuestionsTest, AFigureThatIsNoneIsShownAsItCame) {
    AgentProcess agent({"--text", R"({"uptime_s":"long","status":99999999999,"rules":-1})"});
    EXPECT_EQ("uptime_s:  long\nstatus:    99999999999\nrules:     -1\n",
              RunCommand({"status"}).output);
}

}  // namespace
