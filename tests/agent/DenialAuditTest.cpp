// SPDX-License-Identifier: Apache-2.0
// The matrix of requests that must be refused, put to the running agent as the users in question:
// each one is answered 7 or 1 and leaves exactly one line in the audit, the one of its refusal.
#include <gtest/gtest.h>
#include <unistd.h>

#include <iostream>
#include <map>
#include <memory>

#include "Denials.h"
#include "OtherUsers.h"
#include "PrivateBus.h"
#include "Programs.h"

namespace {

const std::size_t kLongestText = 8192;  // what is longer is a D-Bus error, and not a request

std::string Replaced(std::string text, const std::string& from, const std::string& to) {
    for (std::size_t at = text.find(from); at != std::string::npos;
         at = text.find(from, at + to.size())) {
        text.replace(at, from.size(), to);
    }
    return text;
}

std::string OwnExecutable() {
    char path[4096] = {};
    return readlink("/proc/self/exe", path, sizeof path - 1) > 0 ? path : "";
}

class DenialAuditTest : public testing::Test {
protected:
    DenialAuditTest() : player(std::to_string(test::PlainAccount())) {
        for (const char* tool :
             {"mount", "umount", "mount.cifs", "mknod", "insmod", "rmmod", "systemctl"}) {
            tools.Add(tool, ": > \"$DIR/ran\"");
        }
        // The users of the narrow rules need not exist on this system.
        std::string text = Replaced(kNarrowRules, "user = \"player\"", "user = " + player);
        text = Replaced(text, "owner = \"player\"", "owner = \"root\"");
        text = Replaced(text, "group = \"media\"", "group = \"root\"");
        rules.Write("narrow.toml", Replaced(text, "/usr/bin/player", OwnExecutable()));
        agent = std::make_unique<test::RunningAgent>(
            std::vector<std::string>{"--rules", rules.Folder(), "--tool-path", tools.Folder(),
                                     "--audit-stderr", "--limit", "minute=9999"});
        for (const uid_t uid : test::Accounts()) {
            others.push_back(std::to_string(uid));
        }
    }

    // The text with the number of the account that is the player here.
    std::string Localized(const std::string& text) const {
        return Replaced(text, "uid=1000", "uid=" + player);
    }

    DBusConnection* As(const std::string& uid) {
        std::unique_ptr<test::PlainConnection>& connection = connections[uid];
        if (!connection) {
            connection = test::ConnectAs(static_cast<uid_t>(std::stoul(uid)));
        }
        return connection->Get();
    }

    // What the agent would decide, in words.
    std::string Judgement(const DenialCase& one) {
        DBusMessage* question =
            dbus_message_new_method_call("org.sentrel.sr_agent", "/org/sentrel/sr_agent",
                                         "org.sentrel.sr_agent.Control1", "Test");
        const std::string text = Localized(one.text);
        const char* words[] = {one.operation.c_str(), text.c_str()};
        (void)dbus_message_append_args(question, DBUS_TYPE_STRING, &words[0], DBUS_TYPE_STRING,
                                       &words[1], DBUS_TYPE_INVALID);
        return test::Send(As(player), question).text;
    }

    void ExpectRefused(const DenialCase& one, const std::string& uid) {
        const std::string text = Localized(one.text);
        const std::string what = one.operation + " " + text + " by " + uid;
        const test::Reply reply = test::Call(As(uid), one.operation.c_str(), text.c_str());
        ASSERT_TRUE(reply.text == "7 0" || reply.text == "1 0")
            << what << ": " << reply.text << reply.error;
        byRule += reply.text == "7 0" ? 1 : 0;
        ++asked;
        // Its number follows the one of the case before, so there was no other line between them.
        const std::string line = agent->NextLine();
        EXPECT_TRUE(
            test::Holds(line, "phase=end id=" + std::to_string(asked) + " uid=" + uid + " "))
            << what << ": " << line;
        EXPECT_TRUE(test::Holds(line, " decision=deny status=" + reply.text.substr(0, 1) + " "))
            << what << ": " << line;
    }

    test::PrivateBus bus;
    test::FakeTools tools;
    test::RuleFolder rules;
    const std::string player;
    std::vector<std::string> others;
    std::unique_ptr<test::RunningAgent> agent;
    std::map<std::string, std::unique_ptr<test::PlainConnection> > connections;
    int asked = 0;
    int byRule = 0;
};

TEST_F(DenialAuditTest, EveryCaseOfTheMatrixIsRefusedAndHasExactlyOneLineInTheAudit) {
    for (const DenialCase& good : GoodCases()) {
        const std::string judgement = Judgement(good);
        ASSERT_TRUE(test::Holds(judgement, "\"decision\":\"allow\""))
            << good.operation << ": " << judgement;
    }
    std::size_t next = 0;
    int leftOut = 0;
    for (const DenialCase& one : DenialCases()) {
        const bool carried =
            one.text.size() <= kLongestText && one.text.find('\0') == std::string::npos;
        std::string uid = player;
        if (one.caller.uid != 1000) {
            uid = others[next++ % others.size()];
        }
        // This program is the only one that can ask, and only root can be another user.
        const bool possible = one.caller.executable == MakeCaller(1000).executable &&
                              (one.caller.uid == 1000 || (geteuid() == 0 && uid != player));
        if (!carried || !possible) {
            ++leftOut;
            continue;
        }
        ASSERT_NO_FATAL_FAILURE(ExpectRefused(one, uid));
    }
    EXPECT_EQ("", agent->Said());
    EXPECT_NE(0, access(tools.File("ran").c_str(), F_OK));
    std::cout << "refused and audited: " << asked << " cases, " << byRule << " by the rules, "
              << asked - byRule << " malformed; left out: " << leftOut << "\n";
    EXPECT_GE(asked, 500);
    EXPECT_LE(leftOut, geteuid() == 0 ? 50 : 250);
}

}  // namespace
