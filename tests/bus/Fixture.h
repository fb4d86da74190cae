// SPDX-License-Identifier: Apache-2.0
// What most bus tests share: a fresh bus, an empty log, and helpers to look at either.
#ifndef SENTREL_TESTS_FIXTURE_H
#define SENTREL_TESTS_FIXTURE_H

#include <gtest/gtest.h>

#include <functional>
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

// The brief log without the lines that tell how libdbus switched its watches and timeouts.
inline Texts BriefWithoutToggles() {
    Texts result;
    for (const std::string& line : Brief(TakeLog())) {
        if (line.compare(0, 9, "D Toggle ") != 0) {
            result.push_back(line);
        }
    }
    return result;
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
