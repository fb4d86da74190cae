// SPDX-License-Identifier: Apache-2.0
// What the doctor says of each thing that it may find.
#include <gtest/gtest.h>

#include "Doctor.h"

namespace {

using cli::Answer;
using cli::Diagnose;
using cli::Findings;
using cli::Installed;
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

// Every file where it is read.
Installed InPlace() {
    Installed installed;
    installed.libDir = "/usr/lib";
    installed.policy.file = "/usr/share/dbus-1/system.d/org.sentrel.sr_agent.conf";
    installed.activation.file = "/usr/share/dbus-1/system-services/org.sentrel.sr_agent.service";
    installed.unit.file = "/usr/lib/systemd/system/sentrel-agent.service";
    installed.group.file = "/usr/lib/sysusers.d/sentrel.conf";
    return installed;
}

// On another bus than the system's own, whose policy nobody knows.
std::vector<Step> DiagnoseElsewhere(const Findings& findings, const Person& person) {
    return Diagnose(findings, person, "unix:path=/x", InPlace());
}

Person AnnOfTheGroup() {
    Person person = Ann();
    person.groupExists = true;
    person.member = true;
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
    const std::vector<Step> steps = DiagnoseElsewhere(findings, person);
    EXPECT_EQ("gggfuu", States(steps));
    EXPECT_EQ(126, steps[3].exit);
    return steps[3].advice;
}

Lines AdviceWhenDeniedHere(const Person& person, const Installed& installed) {
    Findings findings = Healthy();
    findings.probe = {Error("AccessDenied"), "rejected"};
    return Diagnose(findings, person, "", installed)[3].advice;
}

TEST(DiagnosisTest, WhenAllIsWellNoAdviceIsGiven) {
    const std::vector<Step> steps = Diagnose(Healthy(), AnnOfTheGroup(), "", InPlace());
    EXPECT_EQ("gggggg", States(steps));
    for (const Step& step : steps) {
        EXPECT_TRUE(step.advice.empty()) << step.name;
    }
    EXPECT_EQ("3 loaded", steps[5].detail);
}

TEST(DiagnosisTest, ABusThatIsAwayLeavesTheRestUntried) {
    Findings findings;
    findings.connected = {Error("FileNotFound"), "no such socket"};
    std::vector<Step> steps = Diagnose(findings, AnnOfTheGroup(), "", InPlace());
    EXPECT_EQ("gfuuuu", States(steps));
    EXPECT_EQ(Lines({"systemctl start dbus"}), steps[1].advice);
    EXPECT_EQ(125, steps[1].exit);
    steps = DiagnoseElsewhere(findings, Ann());
    EXPECT_EQ("unix:path=/x: no such socket", steps[1].detail);
    EXPECT_EQ(Lines({"unset DBUS_SYSTEM_BUS_ADDRESS", "systemctl start dbus"}), steps[1].advice);
}

TEST(DiagnosisTest, ANameThatNobodyOwnsAsksForTheUnit) {
    Findings findings;
    findings.probe = {Error("ServiceUnknown"), "not provided"};
    const std::vector<Step> steps = Diagnose(findings, AnnOfTheGroup(), "", InPlace());
    EXPECT_EQ("ggfuuu", States(steps));
    EXPECT_EQ(Lines({"systemctl start sentrel-agent", "journalctl -u sentrel-agent"}),
              steps[2].advice);
    EXPECT_EQ(127, steps[2].exit);
}

TEST(DiagnosisTest, AnActivationThatIsDeniedIsAMatterOfThePermission) {
    Findings findings;
    findings.probe = {Error("AccessDenied"), "rejected"};
    const std::vector<Step> steps = Diagnose(findings, AnnOfTheGroup(), "", InPlace());
    EXPECT_EQ("ggufuu", States(steps));
    EXPECT_EQ("nobody owns it; the bus starts the agent for those who may send", steps[2].detail);
    EXPECT_EQ(126, steps[3].exit);
}

TEST(DiagnosisTest, WhoIsNotInTheGroupIsToldToJoinIt) {
    Person person = Ann();
    person.groupExists = true;
    EXPECT_EQ(Lines({"usermod -aG sentrel ann", "log out and in again"}), AdviceWhenDenied(person));
    person.name = "an n";
    EXPECT_EQ("usermod -aG sentrel 'an n'", AdviceWhenDenied(person)[0]);
}

TEST(DiagnosisTest, AGroupThatIsMissingIsMadeFirst) {
    EXPECT_EQ(Lines({"groupadd --system sentrel", "systemctl reload dbus",
                     "usermod -aG sentrel ann", "log out and in again"}),
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

TEST(DiagnosisTest, ALibraryThatTheLoaderHasNotSeenIsShownToIt) {
    Installed installed = InPlace();
    installed.libDir = "/usr/local/lib";
    installed.found = false;
    std::vector<Step> steps = Diagnose(Healthy(), AnnOfTheGroup(), "", installed);
    EXPECT_EQ("fggggg", States(steps));
    EXPECT_EQ(Lines({"ldconfig"}), steps[0].advice);
    EXPECT_EQ("the loader has not seen /usr/local/lib/libsentrel-client.so.1 yet", steps[0].detail);
    // Where it does not look, as in a home, there is nothing to mend.
    installed.libDir = "/home/ann/opt/lib";
    installed.listed = false;
    steps = Diagnose(Healthy(), AnnOfTheGroup(), "", installed);
    EXPECT_EQ("gggggg", States(steps));
    EXPECT_NE(std::string::npos, steps[0].detail.find("-Wl,-rpath,/home/ann/opt/lib"));
}

TEST(DiagnosisTest, APolicyWhereTheBusDoesNotReadItIsBroughtThere) {
    Installed installed = InPlace();
    installed.policy = {"", "/opt/x y/share/dbus-1/system.d/org.sentrel.sr_agent.conf"};
    EXPECT_EQ(Lines({"install -D -m 644 '/opt/x y/share/dbus-1/system.d/org.sentrel.sr_agent.conf' "
                     "/etc/dbus-1/system.d/org.sentrel.sr_agent.conf",
                     "systemctl reload dbus"}),
              AdviceWhenDeniedHere(AnnOfTheGroup(), installed));
    installed.policy.aside.clear();
    EXPECT_EQ(Lines({"install the agent's policy, "
                     "/etc/dbus-1/system.d/org.sentrel.sr_agent.conf",
                     "systemctl reload dbus"}),
              AdviceWhenDeniedHere(AnnOfTheGroup(), installed));
}

TEST(DiagnosisTest, APolicyInPlaceIsFirstReadAgain) {
    EXPECT_EQ("systemctl reload dbus", AdviceWhenDeniedHere(AnnOfTheGroup(), InPlace())[0]);
}

TEST(DiagnosisTest, AGroupThatIsMissingIsMadeOfTheInstalledFile) {
    EXPECT_EQ(Lines({"systemd-sysusers /usr/lib/sysusers.d/sentrel.conf", "systemctl reload dbus",
                     "usermod -aG sentrel ann", "log out and in again"}),
              AdviceWhenDeniedHere(Ann(), InPlace()));
}

TEST(DiagnosisTest, RootIsToldThatTheGroupIsMissingForTheOthers) {
    Person root;
    root.name = "root";
    root.root = true;
    std::vector<Step> steps = Diagnose(Healthy(), root, "", InPlace());
    EXPECT_EQ("gggfgg", States(steps));
    EXPECT_EQ(Lines({"systemd-sysusers /usr/lib/sysusers.d/sentrel.conf", "systemctl reload dbus"}),
              steps[3].advice);
    EXPECT_EQ("gggggg", States(DiagnoseElsewhere(Healthy(), root)));
    root.groupExists = true;
    EXPECT_EQ("gggggg", States(Diagnose(Healthy(), root, "", InPlace())));
}

TEST(DiagnosisTest, AnActivationAndAUnitThatNobodyReadsAreBroughtThere) {
    Installed installed = InPlace();
    installed.activation = {"", "/opt/a/org.sentrel.sr_agent.service"};
    installed.unit = {"", "/opt/b/sentrel-agent.service"};
    Findings findings;
    findings.probe = {Error("ServiceUnknown"), "not provided"};
    EXPECT_EQ(Lines({"install -D -m 644 /opt/a/org.sentrel.sr_agent.service "
                     "/usr/local/share/dbus-1/system-services/org.sentrel.sr_agent.service",
                     "systemctl reload dbus", "systemctl link /opt/b/sentrel-agent.service",
                     "systemctl start sentrel-agent", "journalctl -u sentrel-agent"}),
              Diagnose(findings, AnnOfTheGroup(), "", installed)[2].advice);
}

TEST(DiagnosisTest, TheLoadersListsAreReadLineByLine) {
    using std::string_literals::operator""s;
    EXPECT_TRUE(cli::IsCached("glibc\0/usr/lib/libone.so.1\0x"s, "libone.so.1"));
    EXPECT_FALSE(cli::IsCached("glibc\0/usr/lib/libone.so.1.2\0x"s, "libone.so.1"));
    EXPECT_FALSE(cli::IsCached("glibc\0/usr/lib/otherlibone.so.1\0x"s, "libone.so.1"));
    EXPECT_FALSE(cli::IsCached("", "libone.so.1"));
    EXPECT_TRUE(cli::IsListed("# /opt/lib\n/usr/local/lib\n", "/usr/local/lib"));
    EXPECT_TRUE(cli::IsListed("/usr/local/lib/", "/usr/local/lib"));
    EXPECT_FALSE(cli::IsListed("# /opt/lib\n/usr/local/lib/more\n", "/usr/local/lib"));
}

TEST(DiagnosisTest, AnAgentThatIsSilentIsToBeRestarted) {
    for (const char* error : {"NoReply", "Timeout", "TimedOut", "Disconnected"}) {
        Findings findings = Healthy();
        findings.probe = {Error(error), "nothing came"};
        const std::vector<Step> steps = Diagnose(findings, AnnOfTheGroup(), "", InPlace());
        EXPECT_EQ("ggggfu", States(steps)) << error;
        EXPECT_EQ(125, steps[4].exit);
        EXPECT_EQ(Lines({"journalctl -u sentrel-agent", "systemctl restart sentrel-agent"}),
                  steps[4].advice);
    }
}

TEST(DiagnosisTest, AnAgentWithoutRulesRefusesEverything) {
    Findings findings = Healthy();
    findings.status.text = R"({"rules":0})";
    const std::vector<Step> steps = Diagnose(findings, AnnOfTheGroup(), "", InPlace());
    EXPECT_EQ("gggggf", States(steps));
    EXPECT_EQ(126, steps[5].exit);
    EXPECT_EQ("sentrel reload", steps[5].advice.back());
}

TEST(DiagnosisTest, AnAgentThatDoesNotTellItsRulesIsNoFailure) {
    Findings findings = Healthy();
    for (const Answer& answer :
         {Answer{Error("UnknownMethod"), "none"}, Answer{"", "?"}, Answer{"", "{}"}}) {
        findings.status = answer;
        EXPECT_EQ("gggggu", States(Diagnose(findings, AnnOfTheGroup(), "", InPlace())));
    }
}

}  // namespace
