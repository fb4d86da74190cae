// SPDX-License-Identifier: Apache-2.0
// Exported calls of a process that is interrupted by signals all the time.
#include <gtest/gtest.h>
#include <poll.h>
#include <sentrel/SR_API.h>
#include <sys/time.h>
#include <unistd.h>

#include <csignal>

#include "ChildProcess.h"
#include "Fixture.h"

namespace {

using test::AgentProcess;

const int kPoison = 0x5EED;

volatile sig_atomic_t interruptions = 0;

void Count(int /*signal*/) {
    interruptions = interruptions + 1;
}

// Handles a signal without restarting what it interrupts, until destroyed.
class Handled {
public:
    explicit Handled(int number) : signal(number) {
        interruptions = 0;
        struct sigaction action = {};
        action.sa_handler = Count;
        sigaction(signal, &action, &old);
    }
    ~Handled() { sigaction(signal, &old, nullptr); }

private:
    int signal;
    struct sigaction old;
};

class SignalsTest : public test::BusTest {
protected:
    // Calls until as many calls and interruptions have been seen; the number of bad calls.
    static int BadCalls(AgentProcess& agent, int calls, int wanted) {
        int bad = 0;
        for (int i = 0; (i < calls || interruptions < wanted) && i < 100000; ++i) {
            const std::string text = std::to_string(i);
            int result = kPoison;
            const int status =
                SR_Mount(text.data(), static_cast<unsigned>(text.size()), 1, &result);
            bad += status == SR_OK && result == i ? 0 : 1;
            (void)agent.NextReport();
            (void)test::TakeLog();
        }
        return bad;
    }
};

TEST_F(SignalsTest, CallsSucceedUnderATimerThatFiresAllTheTime) {
    AgentProcess agent({"--reply", "echo"});
    const Handled handled(SIGALRM);
    itimerval often = {};
    often.it_interval.tv_usec = 200;
    often.it_value.tv_usec = 200;
    ASSERT_EQ(0, setitimer(ITIMER_REAL, &often, nullptr));
    EXPECT_EQ(0, BadCalls(agent, 300, 300));
    const itimerval never = {};
    setitimer(ITIMER_REAL, &never, nullptr);
    EXPECT_GE(interruptions, 300);
}

TEST_F(SignalsTest, CallsSucceedWhileAnotherProcessSendsSignals) {
    AgentProcess agent({"--reply", "echo"});
    const Handled handled(SIGUSR1);
    const pid_t parent = getpid();
    const pid_t sender = test::Fork([parent] {
        for (;;) {
            kill(parent, SIGUSR1);
        }
        return 0;
    });
    EXPECT_EQ(0, BadCalls(agent, 200, 1000));
    test::KillAndReap(sender);
    EXPECT_GE(interruptions, 1000);
}

TEST_F(SignalsTest, AWaitThatIsInterruptedStillGetsItsAnswer) {
    AgentProcess agent({"--delay", "300", "--text", "0 8"});
    const Handled handled(SIGALRM);
    itimerval often = {};
    often.it_interval.tv_usec = 1000;
    often.it_value.tv_usec = 1000;
    int result = kPoison;
    ASSERT_EQ(0, setitimer(ITIMER_REAL, &often, nullptr));
    EXPECT_EQ(SR_OK, SR_Mount("x", 1, 1, &result));
    const itimerval never = {};
    setitimer(ITIMER_REAL, &never, nullptr);
    EXPECT_EQ(8, result);
    EXPECT_GT(interruptions, 10);
}

}  // namespace
