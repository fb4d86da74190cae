// SPDX-License-Identifier: Apache-2.0
// In which order, and when, what was let in is begun.
#include "gate/WorkQueue.h"

#include <gtest/gtest.h>

#include <string>

using agent::WorkQueue;

namespace {

class WorkQueueTest : public testing::Test {
protected:
    WorkQueue::Work Note(char letter) {
        return [this, letter] { begun += letter; };
    }
    void Turn(int count) {
        for (int i = 0; i < count; ++i) {
            loop.Dispatch();
        }
    }

    sentrel::SR_MainLoop loop;
    WorkQueue queue{loop};
    std::string begun;
};

TEST_F(WorkQueueTest, WhatComesAloneIsBegunAtOnce) {
    queue.Add(1, Note('a'));
    EXPECT_EQ("a", begun);
    EXPECT_EQ(0U, queue.Waiting());
}

TEST_F(WorkQueueTest, UsersTakeTurnsAndEachKeepsItsOrder) {
    queue.Add(1, Note('a'));
    queue.Add(1, Note('b'));
    queue.Add(1, Note('c'));
    queue.Add(2, Note('x'));
    queue.Add(1, Note('d'));
    queue.Add(2, Note('y'));
    while (queue.Waiting() > 0) {
        loop.Dispatch();
    }
    EXPECT_EQ("abxcyd", begun);
}

TEST_F(WorkQueueTest, AfterSomeQuietTurnsSomethingIsBegunInEach) {
    queue.Add(1, Note('a'));
    for (const char letter : {'b', 'c', 'd'}) {
        queue.Add(1, Note(letter));
    }
    Turn(8 + 3);
    EXPECT_EQ("abcd", begun);
    EXPECT_EQ(0U, queue.Waiting());
}

TEST_F(WorkQueueTest, WhatNeverStopsArrivingHoldsNothingBackForLong) {
    queue.Add(1, Note('a'));
    queue.Add(1, Note('b'));
    const auto start = std::chrono::steady_clock::now();
    while (begun == "a" && std::chrono::steady_clock::now() - start < std::chrono::seconds(20)) {
        queue.Arrived();
        loop.Dispatch();
    }
    EXPECT_EQ("ab", begun);
}

TEST_F(WorkQueueTest, OneUserMayHaveOnlySoMuchWaiting) {
    for (int i = 0; i < 5000; ++i) {
        queue.Add(0, Note('a'));
    }
    EXPECT_LE(queue.Waiting(), 1024U);
    EXPECT_GE(begun.size(), 5000U - 1024U);
}

TEST_F(WorkQueueTest, FinishBeginsEverything) {
    for (int i = 0; i < 100; ++i) {
        queue.Add(static_cast<uid_t>(i % 3), Note('a'));
    }
    queue.Finish();
    EXPECT_EQ(100U, begun.size());
    EXPECT_EQ(0U, queue.Waiting());
}

}  // namespace
