// SPDX-License-Identifier: Apache-2.0
// Callers that ask without end or take no answers, and a bus that goes away: what the running agent
// spends on them.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <ctime>
#include <memory>

#include "OtherUsers.h"
#include "PrivateBus.h"
#include "Programs.h"
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

// Asks for the agent's description again and again, and reads no answer.
class Flooder {
public:
    Flooder() {
        if (!dbus_connection_get_unix_fd(connection.Get(), &socket)) {
            throw std::runtime_error("a connection without a socket");
        }
    }
    // Writes until nothing more is taken for `milliseconds`; false when that never happens.
    bool UntilStuck(int milliseconds) {
        for (dbus_uint32_t serial = 100; serial < 200000; ++serial) {
            const std::string call = Call(serial);
            for (std::size_t done = 0; done < call.size();) {
                const ssize_t count =
                    send(socket, call.data() + done, call.size() - done, MSG_NOSIGNAL);
                if (count > 0) {
                    done += static_cast<std::size_t>(count);
                } else if (errno != EAGAIN) {
                    return false;
                } else if (StaysStuck(milliseconds)) {
                    return true;
                }
            }
        }
        return false;
    }
    bool StaysStuck(int milliseconds) const {
        return !test::WaitFor(socket, POLLOUT, milliseconds);
    }

private:
    static std::string Call(dbus_uint32_t serial) {
        DBusMessage* message =
            dbus_message_new_method_call("org.sentrel.sr_agent", "/org/sentrel/sr_agent",
                                         "org.freedesktop.DBus.Introspectable", "Introspect");
        dbus_message_set_serial(message, serial);
        char* bytes = nullptr;
        int length = 0;
        (void)dbus_message_marshal(message, &bytes, &length);
        const std::string text(bytes, static_cast<std::size_t>(length));
        dbus_free(bytes);
        dbus_message_unref(message);
        return text;
    }

    test::PlainConnection connection;
    int socket = -1;
};

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
        agent = std::make_unique<test::RunningAgent>(
            std::vector<std::string>{"--rules", rules.Folder(), "--tool-path", tools.Folder(),
                                     "--audit-stderr", "--limit", "minute=" + minute});
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
    auto flooder = std::make_unique<Flooder>();
    // The bus takes nothing more from the agent: it holds too many of its answers already.
    ASSERT_TRUE(flooder->UntilStuck(1000));
    const double before = ProcessorTime(agent->Pid());
    ASSERT_TRUE(flooder->StaysStuck(2000));
    const double used = ProcessorTime(agent->Pid()) - before;
    RecordProperty("milliseconds", static_cast<int>(used * 1000));
    EXPECT_LT(used, 0.6) << "seconds of the processor within two seconds";
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

}  // namespace
