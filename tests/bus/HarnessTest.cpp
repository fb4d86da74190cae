// SPDX-License-Identifier: Apache-2.0
// The tests' own tools: they must notice what they are there to notice.
#include <fcntl.h>
#include <gtest/gtest-spi.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <cstdio>
#include <filesystem>
#include <thread>

#include "AgentProcess.h"
#include "ChildProcess.h"
#include "Monitor.h"
#include "PrivateBus.h"
#include "Resources.h"
#include "RunProgram.h"

namespace {

const testing::TestInfo& ThisTest() {
    return *testing::UnitTest::GetInstance()->current_test_info();
}

TEST(HarnessTest, ADescriptorLeftOpenFailsTheTest) {
    test::NothingLeftBehind listener(50);
    listener.OnTestStart(ThisTest());
    const test::Descriptor left(open("/dev/null", O_RDONLY | O_CLOEXEC));
    ASSERT_GE(left.Get(), 0);
    EXPECT_NONFATAL_FAILURE(listener.OnTestEnd(ThisTest()), "descriptor left: ");
}

TEST(HarnessTest, ADescriptorClosedTooMuchFailsTheTest) {
    test::Descriptor closed(open("/dev/null", O_RDONLY | O_CLOEXEC));
    ASSERT_GE(closed.Get(), 0);
    test::NothingLeftBehind listener(50);
    listener.OnTestStart(ThisTest());
    closed.Close();
    EXPECT_NONFATAL_FAILURE(listener.OnTestEnd(ThisTest()), "descriptor gone: ");
}

TEST(HarnessTest, ADescriptorThatHasBecomeAnotherFileFailsTheTest) {
    const test::Descriptor replaced(open("/dev/null", O_RDONLY | O_CLOEXEC));
    const test::Descriptor other(open("/dev/zero", O_RDONLY | O_CLOEXEC));
    ASSERT_GE(replaced.Get(), 0);
    ASSERT_GE(other.Get(), 0);
    test::NothingLeftBehind listener(50);
    listener.OnTestStart(ThisTest());
    ASSERT_EQ(replaced.Get(), dup3(other.Get(), replaced.Get(), O_CLOEXEC));
    const std::string left = "descriptor left: " + std::to_string(replaced.Get()) + " -> /dev/zero";
    EXPECT_NONFATAL_FAILURE(listener.OnTestEnd(ThisTest()), left.c_str());
}

TEST(HarnessTest, ADescriptorWhoseFileHasAnotherPathIsTheSame) {
    const std::string path = test::PrivateBus::Folder() + "/before";
    const test::Descriptor file(open(path.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600));
    ASSERT_GE(file.Get(), 0);
    const test::Resources before = test::Resources::Now();
    ASSERT_EQ(0, std::rename(path.c_str(), (test::PrivateBus::Folder() + "/after").c_str()));
    EXPECT_EQ("", before.Difference(test::Resources::Now()));
}

TEST(HarnessTest, AThreadLeftRunningFailsTheTest) {
    test::Pipe end;
    test::NothingLeftBehind listener(50);
    listener.OnTestStart(ThisTest());
    std::thread thread([&end] { (void)test::WaitFor(end.Reader(), POLLIN, 30000); });
    EXPECT_NONFATAL_FAILURE(listener.OnTestEnd(ThisTest()), "threads: ");
    ASSERT_EQ(1, write(end.Writer(), "\n", 1));
    thread.join();
}

TEST(HarnessTest, AChildLeftUnreapedFailsTheTest) {
    test::NothingLeftBehind listener(50);
    listener.OnTestStart(ThisTest());
    const pid_t child = test::Fork([] { return 0; });
    EXPECT_NONFATAL_FAILURE(listener.OnTestEnd(ThisTest()), "children: ");
    EXPECT_EQ(0, test::Reap(child, 10000));
}

TEST(HarnessTest, AWholeTestWithBusAgentAndMonitorLeavesNothing) {
    const test::Resources before = test::Resources::Now();
    {
        test::PrivateBus bus;
        test::AgentProcess agent;
        test::Monitor monitor;
        EXPECT_NE("", before.Difference(test::Resources::Now()));
    }
    EXPECT_EQ("", before.Difference(test::Resources::Now()));
}

TEST(HarnessTest, AChildThatCrashesIsSeen) {
    const pid_t child = test::Fork([]() -> int {
        signal(SIGABRT, SIG_DFL);
        raise(SIGKILL);
        return 0;
    });
    const int status = test::Reap(child, 10000);
    ASSERT_TRUE(WIFSIGNALED(status));
    EXPECT_EQ(SIGKILL, WTERMSIG(status));
}

TEST(HarnessTest, AChildThatHangsIsSeen) {
    const pid_t child = test::Fork([] {
        pause();
        return 0;
    });
    EXPECT_THROW((void)test::Reap(child, 50), std::runtime_error);
    test::KillAndReap(child);
}

TEST(HarnessTest, AnExceptionInAChildIsNotSuccess) {
    const pid_t child = test::Fork([]() -> int { throw std::runtime_error("on purpose"); });
    const int status = test::Reap(child, 10000);
    ASSERT_TRUE(WIFEXITED(status));
    EXPECT_EQ(99, WEXITSTATUS(status));
}

TEST(HarnessTest, ALineThatDoesNotComeIsSeen) {
    test::Pipe silent;
    EXPECT_THROW((void)silent.ReadLine(50), std::runtime_error);
    silent.CloseWriter();
    EXPECT_THROW((void)silent.ReadLine(10000), std::runtime_error);
}

TEST(HarnessTest, ABusThatCannotStartIsSeen) {
    EXPECT_THROW(test::PrivateBus bus("<busconfig><nonsense/></busconfig>"), std::runtime_error);
}

TEST(HarnessTest, AnAgentThatCannotOwnItsNameIsSeen) {
    test::PrivateBus bus;
    test::AgentProcess first;
    EXPECT_THROW(test::AgentProcess second, std::runtime_error);
}

TEST(HarnessTest, TheBusDiesWithTheProcessThatStartedIt) {
    test::PrivateBus::Address();
    test::Pipe told;
    test::Pipe end;
    const pid_t child = test::Fork([&told, &end] {
        test::PrivateBus bus;
        const std::string line = std::to_string(bus.Pid()) + "\n";
        (void)!write(told.Writer(), line.data(), line.size());
        // Without the bus's destructor.
        _exit(test::WaitFor(end.Reader(), POLLIN, 30000) ? 0 : 2);
        return 1;
    });
    const pid_t pid = std::stoi(told.ReadLine(30000));
    const test::Descriptor bus(static_cast<int>(syscall(SYS_pidfd_open, pid, 0)));
    ASSERT_GE(bus.Get(), 0);
    { const test::PlainConnection early; }
    ASSERT_EQ(1, write(end.Writer(), "\n", 1));
    EXPECT_EQ(0, test::Reap(child, 10000));
    // The orphan is not ours to reap, but its end can be seen.
    ASSERT_TRUE(test::WaitFor(bus.Get(), POLLIN, 30000));
    EXPECT_THROW(test::PlainConnection late, std::runtime_error);
}

TEST(HarnessTest, ARunRemovesItsOwnFolderAndThoseOfTheDead) {
    const std::string base = test::PrivateBus::Folder() + "/tmp";
    const pid_t dead = test::Fork([] { return 0; });
    ASSERT_EQ(0, test::Reap(dead, test::kLimit));
    const std::string living = "sentrel-bus-" + std::to_string(getpid()) + "-x";
    std::filesystem::create_directories(base + "/sentrel-bus-" + std::to_string(dead) + "-x/rules");
    std::filesystem::create_directory(base + "/" + living);
    const test::Finished run =
        test::RunProgram({"env", "TMPDIR=" + base, std::filesystem::read_symlink("/proc/self/exe"),
                          "--gtest_filter=HarnessTest.TheBusCanBeStartedAgainAtItsAddress"});
    EXPECT_EQ(0, run.exit) << run.output << run.errors;
    EXPECT_TRUE(test::Holds(run.output, "[  PASSED  ] 1 test")) << run.output;
    std::vector<std::string> left;
    for (const auto& entry : std::filesystem::directory_iterator(base)) {
        left.push_back(entry.path().filename());
    }
    EXPECT_EQ(std::vector<std::string>{living}, left);
}

TEST(HarnessTest, AProgramThatCannotBeStartedIsSeen) {
    EXPECT_EQ(99, test::RunProgram({"/no/such/program"}).exit);
}

TEST(HarnessTest, TheBusCanBeStartedAgainAtItsAddress) {
    test::PrivateBus bus;
    std::string firstName;
    {
        test::PlainConnection first;
        firstName = first.UniqueName();
    }
    bus.Stop();
    EXPECT_THROW(test::PlainConnection none, std::runtime_error);
    bus.Start();
    test::PlainConnection second;
    EXPECT_FALSE(second.UniqueName().empty());
}

TEST(HarnessTest, TheMonitorSeesEveryMessageInOrder) {
    test::PrivateBus bus;
    test::PlainConnection connection;
    test::Monitor monitor;
    connection.AskBus("ListNames");
    connection.AskBus("GetId");
    std::vector<std::string> calls;
    for (const test::Seen& message : monitor.Take()) {
        if (message.type == DBUS_MESSAGE_TYPE_METHOD_CALL) {
            calls.push_back(message.member);
        }
    }
    EXPECT_EQ((std::vector<std::string>{"ListNames", "GetId"}), calls);
    EXPECT_TRUE(monitor.Take().empty());
}

TEST(HarnessTest, TheAgentReportsWhatItReceived) {
    test::PrivateBus bus;
    test::AgentProcess agent({"--name", "org.sentrel.Other"});
    test::PlainConnection connection;
    DBusMessage* call =
        dbus_message_new_method_call("org.sentrel.Other", "/a/b", "org.sentrel.I", "M");
    const char* text = "one";
    const dbus_int32_t number = -2;
    dbus_message_append_args(call, DBUS_TYPE_STRING, &text, DBUS_TYPE_INT32, &number,
                             DBUS_TYPE_INVALID);
    dbus_connection_send(connection.Get(), call, nullptr);
    dbus_message_unref(call);
    dbus_connection_flush(connection.Get());
    EXPECT_EQ("call sender=" + connection.UniqueName() +
                  " destination=org.sentrel.Other path=/a/b interface=org.sentrel.I member=M"
                  " signature=si reply=1 start=1 descriptors=0 | one | -2",
              agent.NextReport());
}

}  // namespace
