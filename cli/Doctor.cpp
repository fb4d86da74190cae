// SPDX-License-Identifier: Apache-2.0
#include "Doctor.h"

#include <grp.h>
#include <pwd.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>

#include "ForProgram.h"
#include "Quote.h"
#include "Told.h"

namespace cli {

namespace {

const int kLimit = 3000;  // milliseconds; a healthy agent refuses the probe at once
const char kGroup[] = "sentrel";
const char kAddress[] = "DBUS_SYSTEM_BUS_ADDRESS";
const char kReload[] = "systemctl reload dbus";
const char kPolicyFile[] = "/etc/dbus-1/system.d/org.sentrel.sr_agent.conf";

bool IsError(const Answer& answer, const char* last) {
    return answer.error == std::string("org.freedesktop.DBus.Error.") + last;
}

// No error of these comes from an agent that has received the call.
bool IsSilence(const Answer& answer) {
    return IsError(answer, "NoReply") || IsError(answer, "Timeout") ||
           IsError(answer, "TimedOut") || IsError(answer, "Disconnected");
}

Step Good(const char* name, const std::string& detail) {
    return Step{name, State::kGood, detail, {}, 0};
}

Step Unknown(const char* name, const std::string& detail) {
    return Step{name, State::kUnknown, detail, {}, 0};
}

// For programs: the command itself has found the library.
Step LibraryStep(const Installed& installed) {
    const std::string file = installed.libDir + "/libsentrel-client.so.1";
    if (installed.found) {
        return Good("library", "the loader finds it");
    }
    if (installed.listed) {
        return Step{"library",
                    State::kFailed,
                    "the loader has not seen " + file + " yet",
                    {"ldconfig"},
                    kUsage};
    }
    return Good("library", file +
                               "; the loader does not look there: link programs with -Wl,-rpath," +
                               installed.libDir);
}

Step BusStep(const Answer& connected, const std::string& address) {
    const std::string place = address.empty() ? "the system's own address" : address;
    if (connected.error.empty()) {
        return Good("bus", "reached at " + place);
    }
    Step step{"bus", State::kFailed, place + ": " + connected.text, {}, kUsage};
    if (!address.empty()) {
        step.advice.push_back(std::string("unset ") + kAddress);
    }
    step.advice.emplace_back("systemctl start dbus");
    return step;
}

// The line that brings a file to where it is read.
std::string Copy(const Placed& placed, const std::string& folder) {
    const std::string name = placed.aside.substr(placed.aside.find_last_of('/') + 1);
    return "install -D -m 644 " + JoinQuoted({placed.aside, folder + "/" + name});
}

Step NameStep(const Findings& findings, const Installed* installed) {
    if (findings.owned) {
        return Good("name", "org.sentrel.sr_agent is owned");
    }
    if (IsError(findings.probe, "AccessDenied")) {
        return Unknown("name", "nobody owns it; the bus starts the agent for those who may send");
    }
    const std::string why = findings.probe.error.empty() ? "" : ": " + findings.probe.text;
    std::vector<std::string> advice;
    if (installed != nullptr && !installed->activation.aside.empty()) {
        advice.push_back(Copy(installed->activation, "/usr/local/share/dbus-1/system-services"));
        advice.emplace_back(kReload);
    }
    if (installed != nullptr && !installed->unit.aside.empty()) {
        advice.push_back("systemctl link " + JoinQuoted({installed->unit.aside}));
    }
    advice.emplace_back("systemctl start sentrel-agent");
    advice.emplace_back("journalctl -u sentrel-agent");
    return Step{"name", State::kFailed, "nobody owns org.sentrel.sr_agent" + why, advice,
                kNobodyThere};
}

std::string MakeGroup(const Installed* installed) {
    const Placed none;
    const Placed& file = installed != nullptr ? installed->group : none;
    const std::string path = file.file.empty() ? file.aside : file.file;
    return path.empty() ? "groupadd --system " + std::string(kGroup)
                        : "systemd-sysusers " + JoinQuoted({path});
}

std::vector<std::string> PermissionAdvice(const Person& person, const Installed* installed) {
    std::vector<std::string> advice;
    if (installed != nullptr && installed->policy.file.empty()) {
        advice.push_back(installed->policy.aside.empty()
                             ? std::string("install the agent's policy, ") + kPolicyFile
                             : Copy(installed->policy, "/etc/dbus-1/system.d"));
    }
    if (!person.groupExists && !person.root) {
        advice.push_back(MakeGroup(installed));
    }
    // The bus takes no notice of a group that was not there when it read the policy.
    if (!advice.empty()) {
        advice.emplace_back(kReload);
    }
    if (!person.root && !person.member) {
        if (person.listed) {
            advice.push_back("log out and in again, or for one shell: newgrp " +
                             std::string(kGroup));
        } else {
            advice.push_back("usermod -aG " + std::string(kGroup) + " " +
                             JoinQuoted({person.name}));
            advice.emplace_back("log out and in again");
        }
        return advice;
    }
    if (installed != nullptr && advice.empty()) {
        advice.emplace_back(kReload);
    }
    if (installed != nullptr && installed->policy.file.empty()) {
        return advice;
    }
    const std::string policy =
        person.root ? "<policy user=\"root\"><allow send_destination=\"org.sentrel.sr_agent\"/>"
                    : "<policy group=\"sentrel\"><allow send_destination=\"org.sentrel.sr_agent\" "
                      "send_interface=\"org.sentrel.sr_agent\"/><allow "
                      "send_destination=\"org.sentrel.sr_agent\" "
                      "send_interface=\"org.sentrel.sr_agent.Control1\"/>";
    advice.push_back(std::string("add within <busconfig> of ") + kPolicyFile + ": " + policy +
                     "</policy>");
    advice.emplace_back(kReload);
    return advice;
}

Step PermissionStep(const Findings& findings, const Person& person, const Installed* installed) {
    if (IsError(findings.probe, "AccessDenied")) {
        return Step{"permission", State::kFailed,
                    person.name + " may not send to the agent: " + findings.probe.text,
                    PermissionAdvice(person, installed), kRefused};
    }
    if (installed != nullptr && person.root && !person.groupExists && findings.owned) {
        return Step{
            "permission",
            State::kFailed,
            "there is no group " + std::string(kGroup) + ": nobody but root may send to the agent",
            {MakeGroup(installed), kReload},
            kRefused};
    }
    return findings.owned ? Good("permission", person.name + " may send to the agent")
                          : Unknown("permission", "not tried");
}

Step AnswerStep(const Findings& findings) {
    if (!findings.owned || IsError(findings.probe, "AccessDenied")) {
        return Unknown("answer", "not tried");
    }
    if (IsSilence(findings.probe)) {
        return Step{"answer",
                    State::kFailed,
                    "no answer: " + findings.probe.text,
                    {"journalctl -u sentrel-agent", "systemctl restart sentrel-agent"},
                    kUsage};
    }
    return Good("answer", "the agent answers");
}

Step RulesStep(const Findings& findings, const Step& before) {
    if (before.state != State::kGood) {
        return Unknown("rules", "not tried");
    }
    if (!findings.status.error.empty()) {
        return Unknown("rules", "the agent does not tell: " + findings.status.text);
    }
    const Told status = Told::Read(findings.status.text, Told::kObject);
    if (!status.error.empty()) {
        return Unknown("rules", "the agent's answer is not readable: " + status.error);
    }
    const std::string count = TextOf(status.objects[0], "rules");
    if (count.empty()) {
        return Unknown("rules", "the agent does not tell");
    }
    if (count != "0") {
        return Good("rules", count + " loaded");
    }
    return Step{"rules",
                State::kFailed,
                "none is loaded, so everything is refused",
                {"put rules into a file /etc/sentrel/rules.d/NAME.toml", "sentrel-agent --check",
                 "sentrel reload"},
                kRefused};
}

void Print(const std::vector<Step>& steps) {
    for (const Step& step : steps) {
        std::printf("%-8s %-11s %s\n", StateName(step.state), step.name,
                    Printable(step.detail).c_str());
        for (const std::string& line : step.advice) {
            std::printf("%-20s -> %s\n", "", Printable(line).c_str());
        }
    }
}

}  // namespace

const char* StateName(State state) {
    return state == State::kGood ? "ok" : state == State::kFailed ? "failed" : "unknown";
}

Person Person::Myself() {
    Person person;
    const uid_t uid = geteuid();
    const passwd* entry = getpwuid(uid);
    person.name = entry != nullptr ? entry->pw_name : std::to_string(uid);
    person.root = uid == 0;
    const group* found = getgrnam(kGroup);
    if (found == nullptr) {
        return person;
    }
    person.groupExists = true;
    for (char** name = found->gr_mem; *name != nullptr; ++name) {
        person.listed = person.listed || person.name == *name;
    }
    std::vector<gid_t> groups(static_cast<std::size_t>(std::max(getgroups(0, nullptr), 0)));
    const int count = getgroups(static_cast<int>(groups.size()), groups.data());
    groups.resize(static_cast<std::size_t>(std::max(count, 0)));
    person.member = getegid() == found->gr_gid ||
                    std::find(groups.begin(), groups.end(), found->gr_gid) != groups.end();
    return person;
}

std::vector<Step> Diagnose(const Findings& findings, const Person& person,
                           const std::string& address, const Installed& installed) {
    std::vector<Step> steps = {LibraryStep(installed), BusStep(findings.connected, address)};
    if (steps.back().state != State::kGood) {
        for (const char* name : {"name", "permission", "answer", "rules"}) {
            steps.push_back(Unknown(name, "not tried"));
        }
        return steps;
    }
    const Installed* const here = address.empty() ? &installed : nullptr;
    steps.push_back(NameStep(findings, here));
    steps.push_back(PermissionStep(findings, person, here));
    steps.push_back(AnswerStep(findings));
    steps.push_back(RulesStep(findings, steps.back()));
    return steps;
}

int Doctor(const Options& options) {
    const char* address = std::getenv(kAddress);
    const std::vector<Step> steps =
        Diagnose(Examine(kLimit), Person::Myself(), address != nullptr ? address : "",
                 Installed::OfThisMachine());
    int exit = 0;
    for (const Step& step : steps) {
        exit = exit == 0 && step.state == State::kFailed ? step.exit : exit;
    }
    if (options.json) {
        std::printf("%s\n", StepsLine(steps, exit).c_str());
    } else {
        Print(steps);
    }
    return exit;
}

}  // namespace cli
