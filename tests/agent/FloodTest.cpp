// SPDX-License-Identifier: Apache-2.0
// Callers that ask without end or take no answers, and a bus that goes away: what the running agent
// spends on them.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <ctime>
#include <fstream>
#include <memory>

#include "MountNamespace.h"
#include "OtherUsers.h"
#include "PrivateBroker.h"
#include "PrivateBus.h"
#include "Programs.h"
#include "Resources.h"
#include "SilentCaller.h"
#include "Skip.h"

namespace {

// Seconds of the processor that a living process has used.
double ProcessorTime(pid_t pid) {
    clockid_t clock = 0;
    timespec used = {};
    if (clock_getcpuclockid(pid, &clock) != 0 || clock_gettime(clock, &used) != 0) {
        throw std::runtime_error("asking for a process's time");
    }
    return static_cast<double>(used.tv_sec) + static_cast<double>(used.tv_nsec) / 1e9;
}

// The same of all children that have been reaped.
double TimeOfTheReaped() {
    rusage usage = {};
    (void)getrusage(RUSAGE_CHILDREN, &usage);
    const auto seconds = [](const timeval& time) {
        return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_usec) / 1e6;
    };
    return seconds(usage.ru_utime) + seconds(usage.ru_stime);
}

DBusMessage* Description() {
    return dbus_message_new_method_call("org.sentrel.sr_agent", "/org/sentrel/sr_agent",
                                        "org.freedesktop.DBus.Introspectable", "Introspect");
}

// How many seconds an honest call may take. A sanitizer makes the agent several times slower.
const double kLongestWait = test::UnderSanitizer() ? 15.0 : 5.0;
// How many kilobytes the agent may grow by. The address sanitizer keeps what was freed.
const long kMostMemory = test::UnderSanitizer() ? 1048576 : 8192;

// Kilobytes of memory that are the process's own.
long OwnMemory(pid_t pid) {
    std::ifstream table("/proc/" + std::to_string(pid) + "/smaps_rollup");
    for (std::string word; table >> word;) {
        if (word == "Private_Dirty:") {
            long kilobytes = 0;
            table >> kilobytes;
            return kilobytes;
        }
    }
    throw std::runtime_error("reading how much memory a process has");
}

// A process of another user that runs `body` and says "ready" when it has done so; it stays with
// all that it has until it is ended.
class Attacker {
public:
    template <typename Body>
    Attacker(uid_t uid, const Body& body) {
        pid = test::Fork([&] {
            if (geteuid() == 0 && (setgid(uid) != 0 || setuid(uid) != 0)) {
                return 90;
            }
            body();
            (void)!write(ready.Writer(), "ready\n", 6);
            (void)pause();
            return 0;
        });
        ready.CloseWriter();
    }
    ~Attacker() { test::KillAndReap(pid); }
    Attacker(const Attacker&) = delete;
    Attacker& operator=(const Attacker&) = delete;

    bool IsReady() const { return test::WaitFor(ready.Reader(), POLLIN, 0); }

private:
    test::Pipe ready;
    pid_t pid;
};

void AskWithoutReading() {
    static test::SilentCaller caller;  // stays as long as the process
    for (int call = 0; call < 5000; ++call) {
        if (!caller.Write(Description(), 2000)) {
            break;
        }
    }
}

class FloodTest : public testing::Test {
protected:
    void SetUp() override {
        tools.Add("systemctl", "exit 17");
        rules.Write("units.toml",
                    "[[rule]]\nname = \"units\"\nagent = \"sr_systemctl\"\nverb = \"start\"\n"
                    "unit = \"*\"\npermit = true\nuser = \"*\"\n");
    }
    void Serve(const std::string& configuration, const std::string& minute) {
        if (!bus) {
            bus = std::make_unique<test::PrivateBus>(configuration);
        }
        Start(minute);
    }
    void Start(const std::string& minute) {
        agent = std::make_unique<test::RunningAgent>(
            std::vector<std::string>{"--rules", rules.Folder(), "--tool-path", tools.Folder(),
                                     "--audit-stderr", "--limit", "minute=" + minute});
    }
    // Asks until all attackers are ready, at least twenty times; the longest wait in seconds.
    static double LongestWait(const std::vector<std::unique_ptr<Attacker> >& attackers) {
        const test::PlainConnection mine;
        double longest = 0;
        bool ready = false;
        for (int i = 0; i < 20 || !ready; ++i) {
            const auto start = std::chrono::steady_clock::now();
            EXPECT_EQ("0 17", test::Call(mine.Get(), "sr_systemctl", "start x").text);
            const std::chrono::duration<double> passed = std::chrono::steady_clock::now() - start;
            longest = std::max(longest, passed.count());
            ready = std::all_of(
                attackers.begin(), attackers.end(),
                [](const std::unique_ptr<Attacker>& attacker) { return attacker->IsReady(); });
        }
        RecordProperty("longest_wait_ms", static_cast<int>(longest * 1000));
        return longest;
    }
    // Answers that another caller gets within some milliseconds.
    static int CallWithin(int milliseconds) {
        const test::PlainConnection mine;
        DBusMessage* call = test::NewCall("sr_systemctl", "start x", 0);
        DBusMessage* answer =
            dbus_connection_send_with_reply_and_block(mine.Get(), call, milliseconds, nullptr);
        dbus_message_unref(call);
        const int answers = answer != nullptr ? 1 : 0;
        if (answer != nullptr) {
            dbus_message_unref(answer);
        }
        return answers;
    }
    static void ExpectItServes() {
        const test::PlainConnection mine;
        EXPECT_EQ("0 17", test::Call(mine.Get(), "sr_systemctl", "start x").text);
    }

    test::FakeTools tools;
    test::RuleFolder rules;
    std::unique_ptr<test::PrivateBus> bus;
    std::unique_ptr<test::RunningAgent> agent;
};

TEST_F(FloodTest, WhileItsOutputIsStuckTheAgentLeavesTheProcessorAlone) {
    Serve(test::PrivateBus::Configuration(
              "  <limit name=\"max_incoming_bytes\">65536</limit>\n"
              "  <limit name=\"max_replies_per_connection\">99999</limit>\n"),
          "1000");
    // Some megabytes of answers for root, who may have many unread: the bus takes some of them
    // and nothing more from the agent.
    auto flooder = std::make_unique<test::SilentCaller>();
    for (int i = 0; i < 3000; ++i) {
        ASSERT_TRUE(flooder->Write(Description(), test::kLimit));
    }
    double used = 1;
    for (int window = 0; window < 10 && used > 0.02; ++window) {
        const double before = ProcessorTime(agent->Pid());
        const test::Pipe silent;
        EXPECT_FALSE(test::WaitFor(silent.Reader(), POLLIN, 1000));
        used = ProcessorTime(agent->Pid()) - before;
    }
    EXPECT_LE(used, 0.02) << "seconds of the processor within one second";
    EXPECT_EQ(0, CallWithin(200)) << "its output is not stuck";
    flooder.reset();
    ExpectItServes();
}

TEST_F(FloodTest, CallsWithoutEndAreTurnedAwayWithOneLineASecondForAllOfThem) {
    const uid_t uid = test::PlainAccount();
    if (uid == 0) {
        SENTREL_SKIP("root's calls are not counted, and there is no other account");
    }
    Serve(test::PrivateBus::Configuration(""), "60");  // 300 calls, 100 of them at once
    const auto caller = test::ConnectAs(uid);
    const auto start = std::chrono::steady_clock::now();
    int refused = 0;
    int away = 0;
    for (int i = 0; i < 400; ++i) {
        const std::string answer = test::Call(caller->Get(), "sr_rmmod", "x").text;
        refused += answer == "7 0" ? 1 : 0;
        away += answer == "1 0" ? 1 : 0;
    }
    const std::chrono::duration<double> passed = std::chrono::steady_clock::now() - start;
    EXPECT_EQ(400, refused + away);
    EXPECT_GE(refused, 100);
    EXPECT_LE(refused, 100 + static_cast<int>(passed.count() * 5) + 1);

    int lines = 0;
    for (int counted = 0; counted < away; ++lines) {
        const std::string line = agent->NextLineWith("too many calls in a minute: ");
        EXPECT_TRUE(test::Holds(line, " uid=" + std::to_string(uid) + " ")) << line;
        EXPECT_TRUE(test::Holds(line, "decision=deny status=1 ")) << line;
        counted += std::atoi(line.c_str() + line.find("minute: ") + 8);
        EXPECT_LE(counted, away);
    }
    EXPECT_LE(lines, static_cast<int>(passed.count()) + 1);
    if (geteuid() != uid) {
        ExpectItServes();  // another user
    }
}

TEST_F(FloodTest, TheFirstThatIsTurnedAwayIsToldWhy) {
    const uid_t uid = test::PlainAccount();
    if (uid == 0 || geteuid() != 0) {
        SENTREL_SKIP("two users are needed, so root and another account");
    }
    Serve(test::PrivateBus::Configuration(""), "60");
    // A process of that user's, since the agent looks at the descriptors of who asks.
    test::Pipe reason;
    test::Pipe told;  // closes when the reason has been read
    const pid_t caller = test::Fork([&] {
        told.CloseWriter();
        if (setgid(uid) != 0 || setuid(uid) != 0) {
            return 90;
        }
        (void)prctl(PR_SET_DUMPABLE, 1);  // as one that was started by its user
        const test::PlainConnection mine;
        for (int i = 0; i < 400; ++i) {
            const int descriptor = i < 98 ? 0 : reason.Writer();
            if (test::Call(mine.Get(), "sr_rmmod", "x", descriptor).text == "1 0") {
                (void)test::ReadAll(told.Reader());
                return 0;
            }
        }
        return 1;
    });
    std::string line;
    do {
        line = reason.ReadLine(test::kLimit);
    } while (line == "sentrel-agent: no rule allows this");
    EXPECT_EQ("sentrel-agent: too many calls in a minute", line);
    told.CloseWriter();
    EXPECT_EQ(0, test::Reap(caller, test::kLimit));
    (void)agent->NextLineWith("too many calls in a minute: 1 turned away");
}

TEST_F(FloodTest, QuestionsCountAsCallsDo) {
    const uid_t uid = test::PlainAccount();
    if (uid == 0 || geteuid() != 0) {
        SENTREL_SKIP("two users are needed, so root and another account");
    }
    Serve(test::PrivateBus::Configuration(""), "60");
    const pid_t caller = test::Fork([&] {
        if (setgid(uid) != 0 || setuid(uid) != 0) {
            return 90;
        }
        const test::PlainConnection mine;
        for (int i = 0; i < 400; ++i) {
            const test::Reply reply = test::Send(
                mine.Get(),
                dbus_message_new_method_call("org.sentrel.sr_agent", "/org/sentrel/sr_agent",
                                             "org.sentrel.sr_agent.Control1", "Status"));
            if (!reply.error.empty()) {
                const bool limited = reply.error == "org.freedesktop.DBus.Error.LimitsExceeded";
                return limited && i >= 100 ? 0 : 2;
            }
        }
        return 1;
    });
    EXPECT_EQ(0, test::Reap(caller, test::kLimit));
    (void)agent->NextLineWith("too many calls in a minute: 1 turned away");
    ExpectItServes();
}

TEST_F(FloodTest, WhenTheBusIsRestartedTheAgentEndsWithItsLineAndNoSpinningAndTheNextServes) {
    Serve(test::PrivateBus::Configuration(""), "1000");
    ExpectItServes();
    const double before = ProcessorTime(agent->Pid());
    bus->Stop();
    const double reaped = TimeOfTheReaped();
    (void)agent->NextLineWith("sentrel-agent: the connection to the bus is lost");
    const int status = agent->WaitForEnd();
    ASSERT_TRUE(WIFEXITED(status));
    EXPECT_EQ(1, WEXITSTATUS(status));
    // All its life, without what was before the end; in it is one tool that was run.
    EXPECT_LT(TimeOfTheReaped() - reaped - before, 0.25);
    bus->Start();
    Serve("", "1000");
    ExpectItServes();
}

// The bus lets anybody send a signal to anybody.
TEST_F(FloodTest, LargeSignalsOfSomebodyElseDoNotHoldUpTheOthers) {
    const uid_t uid = test::PlainAccount();
    Serve(test::PrivateBus::Configuration(""), "1000");
    std::vector<std::unique_ptr<Attacker> > attackers;
    for (int i = 0; i < 3; ++i) {
        attackers.push_back(std::make_unique<Attacker>(uid, [] {
            const std::string text(30000000, 'x');
            const char* const body = text.c_str();
            DBusMessage* signal = dbus_message_new_signal("/x", "org.example.X", "Large");
            (void)dbus_message_set_destination(signal, "org.sentrel.sr_agent");
            (void)dbus_message_append_args(signal, DBUS_TYPE_STRING, &body, DBUS_TYPE_INVALID);
            test::SilentCaller sender;
            (void)sender.Write(signal, test::kLimit);
        }));
    }
    EXPECT_LT(LongestWait(attackers), kLongestWait) << "seconds";
}

TEST_F(FloodTest, LargeCallsOfSomebodyElseDoNotHoldUpTheOthers) {
    const uid_t uid = test::PlainAccount();
    Serve(test::PrivateBus::Configuration(""), "1000");
    std::vector<std::unique_ptr<Attacker> > attackers;
    for (int i = 0; i < 4; ++i) {
        attackers.push_back(std::make_unique<Attacker>(uid, [] {
            const std::string text(10000000, 'x');
            const char* const body = text.c_str();
            test::SilentCaller sender;
            for (int call = 0; call < 2; ++call) {
                DBusMessage* large = Description();
                (void)dbus_message_append_args(large, DBUS_TYPE_STRING, &body, DBUS_TYPE_INVALID);
                (void)sender.Write(large, test::kLimit);
            }
        }));
    }
    EXPECT_LT(LongestWait(attackers), kLongestWait) << "seconds";
}

// The bus holds so little for the agent here that a few seconds do what a minute does otherwise.
TEST_F(FloodTest, CallersWhoReadNoAnswersCostNobodyElseAnAnswer) {
    const uid_t uid = test::PlainAccount();
    if (uid == 0 || geteuid() != 0) {
        SENTREL_SKIP("two users are needed, so root and another account");
    }
    Serve(test::PrivateBus::Configuration(
              "  <limit name=\"max_incoming_bytes\">4000000</limit>\n"
              "  <limit name=\"max_replies_per_connection\">99999</limit>\n"),
          "9999");  // so many calls that only what is unread can end it
    const long before = OwnMemory(agent->Pid());
    std::vector<std::unique_ptr<Attacker> > attackers;
    for (int i = 0; i < 3; ++i) {
        attackers.push_back(std::make_unique<Attacker>(uid, &AskWithoutReading));
    }
    EXPECT_LT(LongestWait(attackers), kLongestWait) << "seconds";
    const std::string line = agent->NextLineWith("does not read its answers: left alone");
    EXPECT_TRUE(test::Holds(line, " uid=" + std::to_string(uid) + " ")) << line;
    EXPECT_TRUE(test::Holds(line, "decision=deny status=1 ")) << line;
    EXPECT_FALSE(test::Holds(agent->Said(), "does not read its answers"));  // once
    EXPECT_LT(OwnMemory(agent->Pid()) - before, kMostMemory) << "kilobytes";
    // That user is served again when the ones that do not read have gone.
    attackers.clear();
    const auto mine = test::ConnectAs(uid);
    EXPECT_EQ("0 17", test::Call(mine->Get(), "sr_systemctl", "start x").text);
}

// It accounts for each user by itself, and does not tell what is unread.
TEST_F(FloodTest, OnDbusBrokerTooCallersWhoReadNoAnswersCostNobodyElseAnAnswer) {
    NEEDS_MOUNT_NAMESPACE();
    if (test::PrivateBroker::Program().empty()) {
        SENTREL_SKIP("dbus-broker is not there");
    }
    const uid_t uid = test::PlainAccount();
    const test::PrivateBroker broker;
    Start("9999");
    const long before = OwnMemory(agent->Pid());
    std::vector<std::unique_ptr<Attacker> > attackers;
    for (int i = 0; i < 3; ++i) {
        attackers.push_back(std::make_unique<Attacker>(uid, &AskWithoutReading));
    }
    EXPECT_LT(LongestWait(attackers), kLongestWait) << "seconds";
    EXPECT_LT(OwnMemory(agent->Pid()) - before, kMostMemory) << "kilobytes";
}

TEST_F(FloodTest, WhatIsFarTooMuchGetsNoAnswerAtAll) {
    const uid_t uid = test::PlainAccount();
    if (uid == 0 || geteuid() != 0) {
        SENTREL_SKIP("two users are needed, so root and another account");
    }
    Serve(test::PrivateBus::Configuration(
              "  <limit name=\"max_replies_per_connection\">99999</limit>\n"),
          "60");
    // 100 are looked at, 300 more get a short answer, and a few more of both as time passes.
    const char* const kinds[][3] = {
        {"/org/sentrel/sr_agent", "org.freedesktop.DBus.Introspectable", "Introspect"},
        {"/org/sentrel/sr_agent", "org.freedesktop.DBus.Peer", "Ping"},
        {"/org/sentrel/sr_agent", "org.freedesktop.DBus.Properties", "GetAll"},
        {"/org/sentrel/sr_agent", "org.sentrel.sr_agent", "CallCommand"},
        {"/org/sentrel/sr_agent", "org.sentrel.sr_agent.Control1", "Status"},
        {"/no/such/object", "org.example.X", "X"},
    };
    const pid_t caller = test::Fork([&] {
        if (setgid(uid) != 0 || setuid(uid) != 0) {
            return 90;
        }
        test::SilentCaller mine;
        const auto start = std::chrono::steady_clock::now();
        const auto passed = [start] {
            return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
        };
        int answers = 0;
        const auto read = [&](int wanted) {
            while (answers < wanted && passed() < test::kLimit / 2000.0) {
                answers += mine.Read();
            }
        };
        // Who asks is known from the first on.
        (void)mine.Write(Description(), test::kLimit);
        read(1);
        for (int i = 1; i < 3000; ++i) {
            const auto& kind = kinds[i % 6];
            (void)mine.Write(
                dbus_message_new_method_call("org.sentrel.sr_agent", kind[0], kind[1], kind[2]),
                test::kLimit);
        }
        read(400);
        const int most = 400 + static_cast<int>(passed() * 10) + 1;
        return answers >= 400 && answers <= most ? 0 : 1;
    });
    EXPECT_EQ(0, test::Reap(caller, test::kLimit));
    ExpectItServes();
}

// The burst that a user may send, before the bus has said who it is.
TEST_F(FloodTest, AnHonestBurstOnAFreshConnectionIsAnsweredWhole) {
    const uid_t uid = test::PlainAccount();
    Serve(test::PrivateBus::Configuration(
              "  <limit name=\"max_replies_per_connection\">99999</limit>\n"),
          "120");
    const char* const kinds[][2] = {{"org.freedesktop.DBus.Introspectable", "Introspect"},
                                    {"org.freedesktop.DBus.Peer", "Ping"},
                                    {"org.sentrel.sr_agent", "CallCommand"}};  // malformed
    const pid_t caller = test::Fork([&] {
        if (geteuid() == 0 && (setgid(uid) != 0 || setuid(uid) != 0)) {
            return 90;
        }
        test::SilentCaller mine;
        for (int i = 0; i < 195; ++i) {
            const auto& kind = kinds[i % 3];
            (void)mine.Write(dbus_message_new_method_call(
                                 "org.sentrel.sr_agent", "/org/sentrel/sr_agent", kind[0], kind[1]),
                             test::kLimit);
        }
        const auto start = std::chrono::steady_clock::now();
        int answers = 0;
        while (answers < 195 &&
               std::chrono::steady_clock::now() - start < std::chrono::seconds(15)) {
            answers += mine.Read();
        }
        return answers == 195 ? 0 : 1;
    });
    EXPECT_EQ(0, test::Reap(caller, test::kLimit));
}

// Connections that come, send and go before the bus has said whose they are.
TEST_F(FloodTest, ConnectionsThatComeAndGoDoNotHoldUpTheOthers) {
    const uid_t uid = test::PlainAccount();
    if (uid == 0 || geteuid() != 0) {
        SENTREL_SKIP("two users are needed, so root and another account");
    }
    Serve(test::PrivateBus::Configuration(""), "120");
    std::vector<std::unique_ptr<Attacker> > attackers;
    for (int i = 0; i < 2; ++i) {
        attackers.push_back(std::make_unique<Attacker>(uid, [] {
            const std::string text(8000, 'x');
            for (int round = 0; round < 5; ++round) {
                std::vector<std::unique_ptr<test::SilentCaller> > callers;
                for (int one = 0; one < 60; ++one) {
                    callers.push_back(std::make_unique<test::SilentCaller>());
                }
                for (int call = 0; call < 16 * 60; ++call) {
                    (void)callers[static_cast<std::size_t>(call) % 60]->Write(
                        test::NewCall("sr_rmmod", text.c_str(), 0), 2000);
                }
            }
        }));
    }
    EXPECT_LT(LongestWait(attackers), kLongestWait) << "seconds";
}

}  // namespace
