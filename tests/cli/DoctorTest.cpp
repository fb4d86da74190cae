// SPDX-License-Identifier: Apache-2.0
// The doctor on a private bus, in each situation that it is made for.
#include <gtest/gtest.h>

#include <fstream>
#include <memory>

#include "AgentProcess.h"
#include "Command.h"
#include "PrivateBus.h"

namespace {

using test::Finished;
using test::Holds;
using test::ReadJson;
using test::RunCommand;

const char kDenied[] =
    "<policy context=\"mandatory\"><deny send_destination=\"org.sentrel.sr_agent\"/></policy>\n";

std::string States(const std::string& json) {
    return ReadJson(json, "' '.join(s['step'] + '=' + s['state'] for s in x['steps'])");
}

TEST(DoctorTest, WhenAllIsWellItEndsWith0) {
    test::PrivateBus bus;
    test::AgentProcess agent({"--text", R"({"rules":3})"});
    const Finished finished = RunCommand({"doctor"});
    EXPECT_EQ(0, finished.exit) << finished.output;
    EXPECT_EQ("", finished.errors);
    EXPECT_TRUE(Holds(finished.output, "ok       rules       3 loaded\n"));
    EXPECT_FALSE(Holds(finished.output, "->"));
    EXPECT_EQ("'library=ok bus=ok name=ok permission=ok answer=ok rules=ok'",
              States(RunCommand({"doctor", "--json"}).output));
}

TEST(DoctorTest, ItsProbeIsACallThatCarriesNothingOut) {
    test::PrivateBus bus;
    test::AgentProcess agent({"--text", R"({"rules":3})"});
    (void)RunCommand({"doctor"});
    EXPECT_TRUE(Holds(agent.NextReport(),
                      "interface=org.sentrel.sr_agent member=CallCommand signature= reply=1"));
    EXPECT_TRUE(Holds(agent.NextReport(), "interface=org.sentrel.sr_agent.Control1 member=Status"));
}

TEST(DoctorTest, ARefusalByTheAgentItselfIsAnAnswer) {
    test::PrivateBus bus;
    test::AgentProcess agent({"--reply", "error", "--error",
                              "org.freedesktop.DBus.Error.InvalidArgs", "--text", "wrong"});
    EXPECT_EQ("'library=ok bus=ok name=ok permission=ok answer=ok rules=unknown'",
              States(RunCommand({"--json", "doctor"}).output));
}

TEST(DoctorTest, WithoutABusItTellsWhereItLooked) {
    const std::string address = test::PrivateBus::Address();
    const Finished finished = RunCommand({"doctor"});
    EXPECT_EQ(125, finished.exit);
    EXPECT_TRUE(Holds(finished.output, "failed   bus         " + address + ": "));
    EXPECT_TRUE(Holds(finished.output, "-> unset DBUS_SYSTEM_BUS_ADDRESS\n"));
    const Finished json = RunCommand({"--json", "doctor"});
    EXPECT_EQ(125, json.exit);
    EXPECT_EQ("(False, 125, 6)", ReadJson(json.output, "(x['ok'], x['exit'], len(x['steps']))"));
}

TEST(DoctorTest, WithoutAnAgentItNamesTheUnit) {
    test::PrivateBus bus;
    const Finished finished = RunCommand({"doctor"});
    EXPECT_EQ(127, finished.exit);
    EXPECT_TRUE(Holds(finished.output, "failed   name "));
    EXPECT_TRUE(Holds(finished.output, "-> systemctl start sentrel-agent\n"));
    EXPECT_EQ("'library=ok bus=ok name=failed permission=unknown answer=unknown rules=unknown'",
              States(RunCommand({"--json", "doctor"}).output));
}

TEST(DoctorTest, APolicyThatDeniesIsNamedWithWhatToDo) {
    test::PrivateBus bus(test::PrivateBus::Configuration(kDenied));
    test::AgentProcess agent;
    const Finished finished = RunCommand({"--json", "doctor"});
    EXPECT_EQ(126, finished.exit);
    EXPECT_EQ("'library=ok bus=ok name=ok permission=failed answer=unknown rules=unknown'",
              States(finished.output));
    EXPECT_EQ("True", ReadJson(finished.output, "len(x['steps'][3]['advice']) > 0"));
    EXPECT_TRUE(Holds(RunCommand({"doctor"}).output, "failed   permission "));
}

TEST(DoctorTest, AnAgentThatNeverAnswersIsSilent) {
    test::PrivateBus bus;
    test::AgentProcess agent({"--reply", "never"});
    const Finished finished = RunCommand({"doctor"});
    EXPECT_EQ(125, finished.exit);
    EXPECT_TRUE(Holds(finished.output, "ok       permission "));
    EXPECT_TRUE(Holds(finished.output, "failed   answer "));
    EXPECT_TRUE(Holds(finished.output, "-> systemctl restart sentrel-agent\n"));
}

TEST(DoctorTest, AnAgentThatEndsWhenCalledIsAway) {
    test::PrivateBus bus;
    test::AgentProcess agent({"--reply", "exit"});
    EXPECT_EQ(127, RunCommand({"doctor"}).exit);
    EXPECT_EQ(0, agent.WaitForEnd());
}

TEST(DoctorTest, WithoutRulesItTellsWhereTheyGo) {
    test::PrivateBus bus;
    test::AgentProcess agent({"--text", R"({"rules":0})"});
    const Finished finished = RunCommand({"doctor"});
    EXPECT_EQ(126, finished.exit);
    EXPECT_TRUE(Holds(finished.output, "failed   rules "));
    EXPECT_TRUE(Holds(finished.output, "/etc/sentrel/rules.d/"));
}

TEST(DoctorTest, AnAgentThatTheBusStartsIsFound) {
    const std::string folder = test::PrivateBus::Folder();
    std::ofstream(folder + "/org.sentrel.sr_agent.service")
        << "[D-BUS Service]\nName=org.sentrel.sr_agent\nUser=root\nExec=" << SENTREL_SCRIPTED_AGENT
        << " --address " << test::PrivateBus::Address() << " --text '{\"rules\":1}'\n";
    test::PrivateBus bus(
        test::PrivateBus::Configuration("<servicedir>" + folder + "</servicedir>\n"));
    const Finished finished = RunCommand({"--json", "doctor"});
    EXPECT_EQ(0, finished.exit);
    EXPECT_EQ("'library=ok bus=ok name=ok permission=ok answer=ok rules=ok'",
              States(finished.output))
        << finished.output;
}

}  // namespace
