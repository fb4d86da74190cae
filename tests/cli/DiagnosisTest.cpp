// SPDX-License-Identifier: Apache-2.0
// What the doctor says of each thing that it may find.
#include <gtest/gtest.h>

#include "Doctor.h"

namespace {

using cli::Answer;
using cli::Diagnose;
using cli::Findings;
using cli::Person;
using cli::State;
using cli::Step;

typedef std::vector<std::string> Lines;

std::string Error(const char* last) {
    return std::string("org.freedesktop.DBus.Error.") + last;
}

// All is well: the agent refuses the probe, as it does a call without arguments.
Findings Healthy() {
    Findings findings;
    findings.owned = true;
    findings.probe = {Error("InvalidArgs"), "the arguments must be \"ssi\""};
    findings.status = {"", R"({"rules":3})"};
    return findings;
}

Person Ann() {
    Person person;
    person.name = "ann";
    return person;
}

// One letter for each step: g(ood), f(ailed), u(nknown).
std::string States(const std::vector<Step>& steps) {
    std::string states;
    for (const Step& step : steps) {
        states += step.state == State::kGood ? 'g' : step.state == State::kFailed ? 'f' : 'u';
    }
    return states;
}

Lines AdviceWhenDenied(const Person& person) {
    Findings findings = Healthy();
    findings.probe = {Error("AccessDenied"), "rejected"};
    const std::vector<Step> steps = Diagnose(findings, person, "");
    EXPECT_EQ("ggfuu", States(steps));
    EXPECT_EQ(126, steps[2].exit);
    return steps[2].advice;
}

TEST(DiagnosisTest, WhenAllIsWellNoAdviceIsGiven) {
    const std::vector<Step> steps = Diagnose(Healthy(), Ann(), "");
    EXPECT_EQ("ggggg", States(steps));
    for (const Step& step : steps) {
        EXPECT_TRUE(step.advice.empty()) << step.name;
    }
    EXPECT_EQ("3 loaded", steps[4].detail);
}

TEST(DiagnosisTest, ABusThatIsAwayLeavesTheRestUntried) {
    Findings findings;
    findings.connected = {Error("FileNotFound"), "no such socket"};
    std::vector<Step> steps = Diagnose(findings, Ann(), "");
    EXPECT_EQ("fuuuu", States(steps));
    EXPECT_EQ(Lines({"systemctl start dbus"}), steps[0].advice);
    EXPECT_EQ(125, steps[0].exit);
    steps = Diagnose(findings, Ann(), "unix:path=/x");
    EXPECT_EQ("unix:path=/x: no such socket", steps[0].detail);
    EXPECT_EQ(Lines({"unset DBUS_SYSTEM_BUS_ADDRESS", "systemctl start dbus"}), steps[0].advice);
}

TEST(DiagnosisTest, ANameThatNobodyOwnsAsksForTheUnit) {
    Findings findings;
    findings.probe = {Error("ServiceUnknown"), "not provided"};
    const std::vector<Step> steps = Diagnose(findings, Ann(), "");
    EXPECT_EQ("gfuuu", States(steps));
    EXPECT_EQ(Lines({"systemctl start sentrel-agent", "journalctl -u sentrel-agent"}),
              steps[1].advice);
    EXPECT_EQ(127, steps[1].exit);
}

TEST(DiagnosisTest, AnActivationThatIsDeniedIsAMatterOfThePermission) {
    Findings findings;
    findings.probe = {Error("AccessDenied"), "rejected"};
    const std::vector<Step> steps = Diagnose(findings, Ann(), "");
    EXPECT_EQ("gufuu", States(steps));
    EXPECT_EQ("nobody owns it; the bus starts the agent for those who may send", steps[1].detail);
    EXPECT_EQ(126, steps[2].exit);
}

TEST(DiagnosisTest, WhoIsNotInTheGroupIsToldToJoinIt) {
    Person person = Ann();
    person.groupExists = true;
    EXPECT_EQ(Lines({"usermod -aG sentrel ann", "log out and in again"}), AdviceWhenDenied(person));
    person.name = "an n";
    EXPECT_EQ("usermod -aG sentrel 'an n'", AdviceWhenDenied(person)[0]);
}

TEST(DiagnosisTest, AGroupThatIsMissingIsMadeFirst) {
    EXPECT_EQ(
        Lines({"groupadd --system sentrel", "usermod -aG sentrel ann", "log out and in again"}),
        AdviceWhenDenied(Ann()));
}

TEST(DiagnosisTest, WhoHasJoinedSinceTheLoginLogsInAgain) {
    Person person = Ann();
    person.groupExists = true;
    person.listed = true;
    EXPECT_EQ(Lines({"log out and in again, or for one shell: newgrp sentrel"}),
              AdviceWhenDenied(person));
}

TEST(DiagnosisTest, AMemberIsShownThePolicysLine) {
    Person person = Ann();
    person.groupExists = true;
    person.member = true;
    EXPECT_EQ(Lines({"add within <busconfig> of /etc/dbus-1/system.d/org.sentrel.sr_agent.conf: "
                     "<policy group=\"sentrel\"><allow send_destination=\"org.sentrel.sr_agent\" "
                     "send_interface=\"org.sentrel.sr_agent\"/>"
                     "<allow send_destination=\"org.sentrel.sr_agent\" "
                     "send_interface=\"org.sentrel.sr_agent.Control1\"/></policy>",
                     "systemctl reload dbus"}),
              AdviceWhenDenied(person));
}

TEST(DiagnosisTest, RootIsShownThePolicysLineForRoot) {
    Person person = Ann();
    person.root = true;
    EXPECT_EQ(Lines({"add within <busconfig> of /etc/dbus-1/system.d/org.sentrel.sr_agent.conf: "
                     "<policy user=\"root\"><allow send_destination=\"org.sentrel.sr_agent\"/>"
                     "</policy>",
                     "systemctl reload dbus"}),
              AdviceWhenDenied(person));
}

TEST(DiagnosisTest, AnAgentThatIsSilentIsToBeRestarted) {
    for (const char* error : {"NoReply", "Timeout", "TimedOut", "Disconnected"}) {
        Findings findings = Healthy();
        findings.probe = {Error(error), "nothing came"};
        const std::vector<Step> steps = Diagnose(findings, Ann(), "");
        EXPECT_EQ("gggfu", States(steps)) << error;
        EXPECT_EQ(125, steps[3].exit);
        EXPECT_EQ(Lines({"journalctl -u sentrel-agent", "systemctl restart sentrel-agent"}),
                  steps[3].advice);
    }
}

TEST(DiagnosisTest, AnAgentWithoutRulesRefusesEverything) {
    Findings findings = Healthy();
    findings.status.text = R"({"rules":0})";
    const std::vector<Step> steps = Diagnose(findings, Ann(), "");
    EXPECT_EQ("ggggf", States(steps));
    EXPECT_EQ(126, steps[4].exit);
    EXPECT_EQ("sentrel reload", steps[4].advice.back());
}

TEST(DiagnosisTest, AnAgentThatDoesNotTellItsRulesIsNoFailure) {
    Findings findings = Healthy();
    for (const Answer& answer :
         {Answer{Error("UnknownMethod"), "none"}, Answer{"", "?"}, Answer{"", "{}"}}) {
        findings.status = answer;
        EXPECT_EQ("ggggu", States(Diagnose(findings, Ann(), "")));
    }
}

}  // namespace
