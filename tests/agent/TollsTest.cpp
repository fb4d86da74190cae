// SPDX-License-Identifier: Apache-2.0
// What a user may send, what is turned away with an answer and what without one.
#include "gate/Tolls.h"

#include <gtest/gtest.h>

using agent::Admission;
using agent::Tolls;

namespace {

class TollsTest : public ::testing::Test {
protected:
    Admission Count(uid_t uid) { return tolls.Count(uid, now); }
    int Take(uid_t uid, int messages, Admission wanted) {
        int count = 0;
        for (int i = 0; i < messages; ++i) {
            count += Count(uid) == wanted ? 1 : 0;
        }
        return count;
    }

    Tolls tolls{60};  // 300 messages a minute, 100 of them at once
    Tolls::TimePoint now = Tolls::TimePoint(std::chrono::hours(5));
};

TEST_F(TollsTest, ABurstIsTakenThenTurnedAwayAndFillsAgainWithTime) {
    EXPECT_EQ(100, Take(1, 100, Admission::kTaken));
    EXPECT_EQ(Admission::kFirstAway, Count(1));
    EXPECT_EQ(Admission::kTaken, Count(2));  // another user is not concerned
    now += std::chrono::milliseconds(199);
    EXPECT_EQ(Admission::kAway, Count(1));
    now += std::chrono::milliseconds(2);
    EXPECT_EQ(Admission::kTaken, Count(1));
    EXPECT_EQ(Admission::kAway, Count(1));
}

TEST_F(TollsTest, OneOfASecondIsTheFirstToBeTurnedAway) {
    EXPECT_EQ(100, Take(1, 100, Admission::kTaken));
    int first = 0;
    for (int i = 0; i < 20; ++i) {
        first += Take(1, 20, Admission::kFirstAway);
        now += std::chrono::milliseconds(100);
    }
    EXPECT_EQ(2, first);
}

TEST_F(TollsTest, BeyondAMinutesWorthThatWasTurnedAwayThereIsSilenceUntilTimeHasPassed) {
    EXPECT_EQ(100, Take(1, 100, Admission::kTaken));
    EXPECT_EQ(Admission::kFirstAway, Count(1));
    EXPECT_EQ(299, Take(1, 299, Admission::kAway));
    EXPECT_EQ(1000, Take(1, 1000, Admission::kSilent));
    EXPECT_EQ(Admission::kTaken, Count(2));
    now += std::chrono::milliseconds(201);
    EXPECT_EQ(Admission::kTaken, Count(1));
    EXPECT_EQ(Admission::kAway, Count(1));
    EXPECT_EQ(Admission::kSilent, Count(1));
}

TEST_F(TollsTest, MessagesOfAFullMinuteComeThroughAndNoMore) {
    const Tolls::TimePoint start = now;
    int taken = 0;
    for (; now < start + std::chrono::minutes(2); now += std::chrono::milliseconds(10)) {
        taken += Count(1) == Admission::kTaken ? 1 : 0;
    }
    EXPECT_GE(taken, 699);  // the burst and two minutes' worth
    EXPECT_LE(taken, 701);
}

TEST_F(TollsTest, AUserWhoComesBackAfterAMinuteFindsItsBurstAgain) {
    (void)Take(1, 2000, Admission::kSilent);
    now += std::chrono::seconds(61);
    EXPECT_EQ(Admission::kTaken, Count(2));
    EXPECT_EQ(100, Take(1, 100, Admission::kTaken));
    EXPECT_EQ(Admission::kFirstAway, Count(1));
}

TEST_F(TollsTest, RootIsNotCounted) {
    EXPECT_EQ(10000, Take(0, 10000, Admission::kTaken));
}

}  // namespace
