// SPDX-License-Identifier: Apache-2.0
// Who calls, asked of a private bus: one question for many callers' calls, and what becomes of
// those whom the bus does not know.
#include "gate/Callers.h"

#include <gtest/gtest.h>
#include <sentrel/SR_DBusDispatcher.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <sstream>

#include "Monitor.h"
#include "PrivateBus.h"
#include "RunProgram.h"
#include "answer/Strangers.h"
#include "base/Events.h"

namespace {

using agent::Caller;
using agent::Callers;

class CallersTest : public testing::Test {
protected:
    CallersTest()
        : connection(sentrel::SR_DBusConnection::SystemBus(dispatcher)),
          callers(std::make_unique<Callers>(connection)) {}

    void Restart(const agent::CallerLimits& limits) {
        callers = std::make_unique<Callers>(connection, limits);
    }
    void Ask(const std::string& name) {
        callers->Ask(
            name, 1, [this](const Caller& caller) { known.push_back(caller); },
            [this](const std::string& reason) { unknown.push_back(reason); });
    }
    void RunUntilAnswers(std::size_t count) {
        bool late = false;
        const auto limit = agent::Timer::Make(
            dispatcher, std::chrono::steady_clock::now() + std::chrono::seconds(20),
            [&late] { late = true; });
        late = !limit;
        for (;;) {
            dispatcher.DispatchPending();
            if (known.size() + unknown.size() >= count || late) {
                break;
            }
            dispatcher.Dispatch();
        }
        EXPECT_EQ(count, known.size() + unknown.size());
    }
    long Questions() {
        const std::vector<test::Seen> seen = monitor.Take();
        return std::count_if(seen.begin(), seen.end(), [](const test::Seen& message) {
            return message.member == "GetConnectionCredentials";
        });
    }

    test::PrivateBus bus;
    test::Monitor monitor;
    sentrel::SR_DBusDispatcher dispatcher;
    sentrel::SR_DBusConnection connection;
    std::unique_ptr<Callers> callers;
    std::vector<Caller> known;
    std::vector<std::string> unknown;
};

TEST_F(CallersTest, AConnectionsManyCallsAreOneQuestion) {
    const test::PlainConnection caller;
    for (int i = 0; i < 60; ++i) {
        Ask(caller.UniqueName());
    }
    EXPECT_TRUE(known.empty());
    RunUntilAnswers(60);
    Ask(caller.UniqueName());
    ASSERT_EQ(61U, known.size());  // at once now
    for (const Caller& one : known) {
        EXPECT_EQ(caller.UniqueName(), one.busName);
        EXPECT_EQ(geteuid(), one.uid);
        EXPECT_EQ(getpid(), one.pid);
        EXPECT_EQ("", one.executable);
    }
    EXPECT_EQ(1, Questions());
}

TEST_F(CallersTest, AnAnswerIsKeptUntilItsConnectionIsGoneAndOnlySoManyAre) {
    const test::PlainConnection callersOwn[3];
    Ask(callersOwn[0].UniqueName());
    RunUntilAnswers(1);
    ASSERT_NE(nullptr, callers->Find(callersOwn[0].UniqueName()));
    EXPECT_EQ(getpid(), callers->Find(callersOwn[0].UniqueName())->pid);
    callers->Forget(callersOwn[0].UniqueName());
    EXPECT_EQ(nullptr, callers->Find(callersOwn[0].UniqueName()));
    Ask(callersOwn[0].UniqueName());
    RunUntilAnswers(2);
    EXPECT_EQ(2, Questions());

    agent::CallerLimits limits;
    limits.kept = 2;
    Restart(limits);
    // The first is used again and so outlives the second.
    const std::pair<std::size_t, long> order[] = {{0, 1}, {1, 1}, {0, 0}, {2, 1}, {0, 0}, {1, 1}};
    std::size_t answers = known.size();
    for (const auto& step : order) {
        Ask(callersOwn[step.first].UniqueName());
        RunUntilAnswers(++answers);
        EXPECT_EQ(step.second, Questions()) << answers;
    }
}

TEST_F(CallersTest, WhomTheBusDoesNotKnowIsToldAndAskedAboutAgain) {
    for (std::size_t i = 1; i <= 2; ++i) {
        Ask(":1.99999");
        RunUntilAnswers(i);
    }
    EXPECT_EQ(2, Questions());
    EXPECT_EQ(std::vector<std::string>(2, "the bus does not know the caller"), unknown);
}

TEST_F(CallersTest, BeyondTheLimitsTheCallerStaysUnknownAtOnce) {
    agent::CallerLimits limits;
    limits.ofOne = 2;
    limits.all = 2;
    limits.waiting = 3;
    Restart(limits);
    const test::PlainConnection callersOwn[3];
    const auto refused = [this] { return unknown.size(); };
    Ask(callersOwn[0].UniqueName());
    Ask(callersOwn[0].UniqueName());
    EXPECT_EQ(0U, refused());
    Ask(callersOwn[0].UniqueName());  // one too many of one
    EXPECT_EQ(1U, refused());
    Ask(callersOwn[1].UniqueName());
    EXPECT_EQ(1U, refused());
    Ask(callersOwn[1].UniqueName());  // one too many of all that wait
    EXPECT_EQ(2U, refused());
    RunUntilAnswers(5);
    EXPECT_EQ(3U, known.size());
    EXPECT_EQ(std::vector<std::string>(2, "too many callers wait to be known"), unknown);

    Restart(limits);
    Ask(callersOwn[0].UniqueName());
    Ask(callersOwn[1].UniqueName());
    Ask(callersOwn[2].UniqueName());  // one question too many
    EXPECT_EQ(3U, refused());
    RunUntilAnswers(8);
}

TEST_F(CallersTest, NothingIsCalledWhenTheyAreGoneBeforeTheAnswer) {
    const test::PlainConnection caller;
    Ask(caller.UniqueName());
    callers.reset();
    Restart(agent::CallerLimits());
    Ask(caller.UniqueName());
    RunUntilAnswers(1);  // the second's only: the bus answers in order
}

TEST_F(CallersTest, ManyStrangersGetAFewLinesASecondAndTheRestIsCounted) {
    std::ostringstream lines;
    agent::Audit audit(lines);
    agent::Strangers strangers(dispatcher, audit);
    agent::AuditRequest request;
    request.operation = "sr_rmmod";
    request.arguments = {"x"};
    int described = 0;
    const auto describe = [&] {
        ++described;
        return request;
    };
    for (int i = 0; i < 100; ++i) {
        strangers.Unknown(describe, "nobody knows: :1.5");
    }
    EXPECT_EQ(5, described);
    const auto count = [&lines](const std::string& text) {
        std::istringstream all(lines.str());
        int found = 0;
        for (std::string line; std::getline(all, line);) {
            found += test::Holds(line, text) ? 1 : 0;
        }
        return found;
    };
    EXPECT_EQ(5, count("uid=4294967295 pid=0 exe=\"\" agent=\"sr_rmmod\" args=\"x\""));
    EXPECT_EQ(5, count("decision=deny status=1 reason=\"nobody knows: :1.5\""));
    EXPECT_EQ(5, count(""));
    bool late = false;
    const auto limit =
        agent::Timer::Make(dispatcher, std::chrono::steady_clock::now() + std::chrono::seconds(20),
                           [&late] { late = true; });
    late = !limit;
    while (count("") == 5 && !late) {
        dispatcher.Dispatch();
    }
    EXPECT_EQ(1, count("95 more messages of senders that are not known"));
    strangers.Unknown(describe, "nobody knows: :1.6");  // another second
    EXPECT_EQ(1, count(":1.6"));
}

TEST_F(CallersTest, MessagesTooManyAreOneLineForEachUserWhenTheSecondIsOver) {
    std::ostringstream lines;
    agent::Audit audit(lines);
    agent::Strangers strangers(dispatcher, audit);
    for (int i = 0; i < 300; ++i) {
        strangers.TooMany(static_cast<uid_t>(1 + i % 2));
    }
    EXPECT_EQ("", lines.str());
    strangers.Flush();
    const std::string text = lines.str();
    EXPECT_EQ(2, std::count(text.begin(), text.end(), '\n'));
    EXPECT_TRUE(test::Holds(text, " uid=2 "));
    EXPECT_TRUE(test::Holds(text, "too many calls in a minute: 150 turned away unread"));
}

}  // namespace
