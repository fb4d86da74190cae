// SPDX-License-Identifier: Apache-2.0
// What the tests of running tools share: permits for any command, a loop with relays and an
// executor, a private directory, and a pipe that stands for the caller's descriptor.
#ifndef SENTREL_TESTS_RUNFIXTURE_H
#define SENTREL_TESTS_RUNFIXTURE_H

#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sentrel/SR_MainLoop.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <fstream>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include "ChildProcess.h"
#include "Permits.h"
#include "Skip.h"
#include "base/Process.h"
#include "run/Executor.h"

const uid_t kNobody = 65534;

inline agent::Caller TestCaller() {
    agent::Caller caller;
    caller.uid = geteuid() == 0 ? kNobody : geteuid();
    caller.groups = {geteuid() == 0 ? kNobody : getegid()};
    caller.pid = getpid();
    return caller;
}

inline std::string Contents(const std::string& path) {
    std::ifstream file(path);
    std::ostringstream text;
    text << file.rdbuf();
    return text.str();
}

inline bool WriteFile(const std::string& path, const std::string& text, mode_t mode) {
    {
        std::ofstream file(path);
        file << text;
    }
    return chmod(path.c_str(), mode) == 0;
}

// Waits until `count` lines have come; empty after 20 s.
inline std::string ReadLines(int fd, int count) {
    std::string text;
    while (count > 0) {
        pollfd slot = {fd, POLLIN, 0};
        char letter = 0;
        if (poll(&slot, 1, 20000) != 1 || read(fd, &letter, 1) != 1) {
            return "";
        }
        text += letter;
        count -= letter == '\n' ? 1 : 0;
    }
    return text;
}

inline bool WaitEnd(int pidfd) {
    return test::WaitFor(pidfd, POLLIN, test::kLimit);
}

class PrivateDirectory {
public:
    PrivateDirectory() {
        char name[] = "/tmp/sentrel-test-XXXXXX";
        path = mkdtemp(name);
        (void)chmod(path.c_str(), 0755);
    }
    PrivateDirectory(const PrivateDirectory&) = delete;
    PrivateDirectory& operator=(const PrivateDirectory&) = delete;
    ~PrivateDirectory() { (void)!system(("rm -rf --one-file-system " + path).c_str()); }

    std::string operator/(const std::string& name) const { return path + "/" + name; }

    std::string path;
};

struct TestPipe {
    TestPipe() {
        int ends[2];
        if (pipe2(ends, O_CLOEXEC) == 0) {
            reader.Reset(ends[0]);
            writer.Reset(ends[1]);
        }
    }
    agent::OwnedFd reader;
    agent::OwnedFd writer;
};

// A task that takes a descriptor of this process, as it would take a caller's.
inline agent::RelayTask TaskToTake(int number) {
    (void)prctl(PR_SET_PTRACER, PR_SET_PTRACER_ANY);  // where one must let others look
    agent::RelayTask task;
    task.output = [number, tester = getpid()]() -> agent::Result<agent::OwnedFd> {
        const agent::OwnedFd process(agent::OpenProcess(tester));
        return agent::OwnedFd(agent::CopyDescriptor(process.Get(), number));
    };
    return task;
}

// Relays to a descriptor of this process: the look is over when Start() returns.
class ReadyRelays : public agent::Relays {
public:
    ReadyRelays(sentrel::SR_MainLoop& mainLoop, const agent::RelayLimits& relayLimits)
        : Relays(mainLoop, relayLimits), mine(mainLoop) {}

    using Relays::Start;
    std::shared_ptr<agent::Relay> Start(agent::OwnedFd&& destination, const agent::Caller& caller) {
        const agent::OwnedFd given(std::move(destination));
        bool over = false;
        std::shared_ptr<agent::Relay> relay;
        const auto known = [&over, &relay](const agent::CallerFacts& facts) {
            over = true;
            relay = facts.output;
        };
        const bool started(Start(TaskToTake(given.Get()), caller, known));
        while (started && !over) {
            mine.Dispatch();  // within the limit for looks
        }
        return relay;
    }

private:
    sentrel::SR_MainLoop& mine;
};

class RunFixture : public ::testing::Test {
protected:
    struct Result {
        agent::Outcome outcome;
        int answers = 0;
        int ends = 0;
        std::string output;
    };

    void SetUp() override {
        // What ignores SIGPIPE in the agent ignores it here.
        ASSERT_NE(signal(SIGPIPE, SIG_IGN), SIG_ERR);
        tool = directory / "tool";
        const std::string content = Contents(STAND_IN_TOOL);
        ASSERT_FALSE(content.empty());
        ASSERT_TRUE(WriteFile(tool, content, 0755));
        Restart(agent::ExecutorLimits(), agent::RelayLimits());
    }

    void Restart(const agent::ExecutorLimits& limits, const agent::RelayLimits& relayLimits) {
        executor.reset();
        relays = std::make_unique<ReadyRelays>(loop, relayLimits);
        executor = std::make_unique<agent::Executor>(loop, limits);
    }

    // Runs the loop until `condition`; false after 20 s.
    template <typename Condition>
    bool RunUntil(Condition condition) {
        bool late = false;
        const auto limit =
            agent::Timer::Make(loop, std::chrono::steady_clock::now() + std::chrono::seconds(20),
                               [&late] { late = true; });
        late = !limit;
        while (!condition() && !late) {
            loop.Dispatch();
        }
        return condition();
    }

    agent::Plan ToolPlan(const std::vector<std::string>& words) const {
        agent::Plan plan;
        plan.operation = agent::Operation::kMount;
        plan.argv = {tool};
        plan.argv.insert(plan.argv.end(), words.begin(), words.end());
        return plan;
    }

    void Start(agent::Plan plan, Result& result, const std::shared_ptr<agent::Relay>& relay) {
        executor->Start(
            test::PermitFor(plan), caller, relay, std::chrono::steady_clock::now(),
            [&result](const agent::Outcome& outcome) {
                result.outcome = outcome;
                ++result.answers;
            },
            [&result] { ++result.ends; });
    }

    // Runs it to its end, with the output into a pipe.
    Result Run(agent::Plan plan) {
        Result result;
        TestPipe pipe;
        const int size = fcntl(pipe.writer.Get(), F_SETPIPE_SZ, 1048576);
        EXPECT_GE(size, 0);
        Start(std::move(plan), result, relays->Start(std::move(pipe.writer), caller));
        EXPECT_TRUE(RunUntil([&result] { return result.ends > 0; }));
        EXPECT_EQ(result.answers, 1);
        EXPECT_EQ(result.ends, 1);
        result.output = test::ReadReady(pipe.reader.Get());
        return result;
    }

    PrivateDirectory directory;
    std::string tool;
    agent::Caller caller = TestCaller();
    sentrel::SR_MainLoop loop;
    std::unique_ptr<ReadyRelays> relays;
    std::unique_ptr<agent::Executor> executor;
};

#endif
