// SPDX-License-Identifier: Apache-2.0
// What most bus tests share: a fresh bus, an empty log, and helpers to look at either.
#ifndef SENTREL_TESTS_FIXTURE_H
#define SENTREL_TESTS_FIXTURE_H

#include <gtest/gtest.h>

#include <functional>
#include <regex>
#include <string>
#include <vector>

#include "AgentProcess.h"
#include "LogRecorder.h"
#include "Monitor.h"
#include "PrivateBus.h"

namespace test {

const char kService[] = "org.sentrel.sr_agent";
const char kPath[] = "/org/sentrel/sr_agent";
const char kRule[] = "type='signal',interface='org.sentrel.sr_agent',path='/org/sentrel/sr_agent'";
const char kErrorPrefix[] = "org.freedesktop.DBus.Error.";

typedef std::vector<std::string> Texts;

class BusTest : public testing::Test {
protected:
    void SetUp() override { (void)TakeLog(); }

    PrivateBus bus;
};

// The brief log without the lines that tell how libdbus switched its watches and timeouts: how many
// there are is libdbus's affair, but not what they say.
inline Texts BriefWithoutToggles() {
    static const std::regex kToggled(R"(D Toggle (Watch|Timeout) PTR toggled \((on|off)\))");
    Texts result;
    for (const std::string& line : Brief(TakeLog())) {
        if (line.compare(2, 7, "Toggle ") == 0) {
            EXPECT_TRUE(std::regex_match(line, kToggled)) << line;
        } else {
            result.push_back(line);
        }
    }
    return result;
}

// What libdbus says of the connection at its end.
enum class End { kConnected, kLost };

// The lines of a call from beginning to end: `held` tells what happened while it had a connection,
// `last` stands behind the end of the connection and of its dispatcher.
inline Texts Whole(const Texts& held, const Texts& last) {
    Texts lines = {"D SR_DBusDispatcher create new dispatcher addr: PTR",
                   "D SR_DBusDispatcher create new dispatcher addr: PTR",
                   "D Impl SR_DBusConnection::Impl::Impl 1"};
    lines.insert(lines.end(), held.begin(), held.end());
    lines.push_back("D ~SR_DBusDispatcher destroy dispatcher addr: PTR");
    lines.insert(lines.end(), last.begin(), last.end());
    lines.push_back("D ~SR_DBusDispatcher destroy dispatcher addr: PTR");
    return lines;
}

// The lines of every call that comes as far as the agent, around what the reply brings.
inline Texts Framed(const Texts& received, const Texts& last, End end = End::kConnected) {
    const std::string name("Connection (unique name: :UNIQUE) ");
    Texts held = {"D SR_DBusIProxy Adding a new DBusIProxy org.sentrel.sr_agent",
                  "D AddMatch " + name + "added match rule " + kRule};
    held.insert(held.end(), received.begin(), received.end());
    held.push_back("D RemoveMatch " + name + "removed match rule " + kRule);
    held.push_back("D ~Impl Terminating connection PTR");
    held.push_back(end == End::kConnected ? "D ~Impl Terminating connection is connected"
                                          : "D ~Impl Terminating connection no connected");
    return Whole(held, last);
}

// The last lines of a call that fails by a bus error, "TEXT (NAME)".
inline Texts Failed(const std::string& error, const std::string& agent, int status = 6) {
    return {"E SendMessage  service: org.sentrel.sr_agent has dbus error: " + error +
                " for agent: " + agent,
            "E SR_Agent [Client][Status]" + std::to_string(status)};
}

// The name of the bus error that `action` throws; "nothing thrown" otherwise.
template <typename Exception>
std::string ThrownName(const std::function<void()>& action) {
    try {
        action();
    } catch (const Exception& exception) {
        return exception.name();
    }
    return "nothing thrown";
}

// Calls of the bus's own methods and of others that were seen, as "MEMBER(ARGUMENTS)" each.
inline Texts CallsFrom(const std::vector<Seen>& seen, const std::string& sender) {
    Texts result;
    for (const Seen& message : seen) {
        if (message.type != DBUS_MESSAGE_TYPE_METHOD_CALL || message.sender != sender) {
            continue;
        }
        std::string text = message.member + "(";
        for (std::size_t i = 0; i < message.arguments.size(); ++i) {
            text += (i > 0 ? ", " : "") + message.arguments[i];
        }
        result.push_back(text + ")");
    }
    return result;
}

}  // namespace test

#endif
