// SPDX-License-Identifier: Apache-2.0
// Exported calls from many threads at once.
#include <gtest/gtest.h>
#include <sentrel/SR_API.h>

#include <atomic>
#include <set>
#include <thread>

#include "Fixture.h"

namespace {

using test::AgentProcess;

const int kThreads = 64;
const int kPoison = 0x5EED;

class ThreadsTest : public test::BusTest {
protected:
    // Runs the function in 64 threads, each with its number, and waits for all.
    static void Together(const std::function<void(int)>& function) {
        std::vector<std::thread> threads;
        for (int i = 0; i < kThreads; ++i) {
            threads.emplace_back(function, i);
        }
        for (std::thread& thread : threads) {
            thread.join();
        }
    }

    static std::size_t LinesOf(const std::vector<test::LogLine>& lines, const std::string& body) {
        std::size_t count = 0;
        for (const test::LogLine& line : lines) {
            count += line.Body() == body ? 1U : 0U;
        }
        return count;
    }
};

TEST_F(ThreadsTest, SixtyFourCallsAtOnceEachGetTheirOwnAnswer) {
    // Answers nobody before all have asked: every call is under way at the same time.
    AgentProcess agent({"--reply", "echo", "--hold", std::to_string(kThreads)});
    std::vector<int> statuses(kThreads, kPoison);
    std::vector<int> results(kThreads, kPoison);
    Together([&](int number) {
        const std::size_t at = static_cast<std::size_t>(number);
        const std::string text = "number " + std::to_string(1000 + number);
        statuses[at] =
            SR_Mount(text.data(), static_cast<unsigned>(text.size()), number, &results[at]);
    });
    for (int i = 0; i < kThreads; ++i) {
        EXPECT_EQ(SR_OK, statuses[static_cast<std::size_t>(i)]);
        EXPECT_EQ(1000 + i, results[static_cast<std::size_t>(i)]);
    }
    std::set<std::string> reports;
    std::set<std::string> senders;
    for (int i = 0; i < kThreads; ++i) {
        const std::string report = agent.NextReport();
        reports.insert(report.substr(report.find(" | ")));
        senders.insert(report.substr(0, report.find(" destination=")));
    }
    EXPECT_EQ(static_cast<std::size_t>(kThreads), reports.size());
    EXPECT_EQ(static_cast<std::size_t>(kThreads), senders.size());
    EXPECT_EQ(static_cast<std::size_t>(kThreads), LinesOf(test::TakeLog(), "response:"));
}

TEST_F(ThreadsTest, ManyCallsOfManyThreadsAllSucceed) {
    AgentProcess agent({"--reply", "echo"});
    std::atomic<int> good(0);
    std::thread reader([&agent] {
        for (int i = 0; i < kThreads * 10; ++i) {
            (void)agent.NextReport();
        }
    });
    Together([&good](int number) {
        for (int i = 0; i < 10; ++i) {
            const int expected = number * 10 + i;
            const std::string text = std::to_string(expected);
            int result = kPoison;
            const int status =
                SR_Rmmod(text.data(), static_cast<unsigned>(text.size()), 1, &result);
            good += status == SR_OK && result == expected ? 1 : 0;
        }
    });
    reader.join();
    EXPECT_EQ(kThreads * 10, good);
}

TEST_F(ThreadsTest, FailuresOnManyThreadsStayApart) {
    std::atomic<int> absent(0);
    Together([&absent](int /*number*/) {
        int result = kPoison;
        absent += SR_Mount("x", 1, 1, &result) == SR_COMM_NO_SERVICE && result == kPoison ? 1 : 0;
    });
    EXPECT_EQ(kThreads, absent);
    EXPECT_EQ(static_cast<std::size_t>(kThreads), LinesOf(test::TakeLog(), "[Client][Status]5"));
}

TEST_F(ThreadsTest, ALostBusFailsTheCallsOfAllThreads) {
    AgentProcess agent({"--reply", "never"});
    std::atomic<int> failed(0);
    std::thread killer([this, &agent] {
        for (int i = 0; i < kThreads; ++i) {
            (void)agent.NextReport();
        }
        bus.Stop();
    });
    Together([&failed](int /*number*/) {
        int result = kPoison;
        failed += SR_Mount("x", 1, 1, &result) == SR_COMM_FAILED && result == kPoison ? 1 : 0;
    });
    killer.join();
    EXPECT_EQ(kThreads, failed);
}

}  // namespace
