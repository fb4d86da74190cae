// SPDX-License-Identifier: Apache-2.0
// Who may run, who waits and who is turned away.
#include "passage/Quota.h"

#include <gtest/gtest.h>

using agent::Quota;
using agent::QuotaLimits;

namespace {

enum class Entry { kRun, kWait, kRefused };

class QuotaTest : public ::testing::Test {
protected:
    Entry Enter(Quota& quota, uid_t uid, std::uint64_t id) {
        const agent::Result<Quota::Entry> entry = quota.Enter(uid, id, now);
        reason = entry ? "" : entry.Reason();
        if (!entry) {
            return Entry::kRefused;
        }
        return *entry == Quota::Entry::kRun ? Entry::kRun : Entry::kWait;
    }

    static QuotaLimits Small() {
        QuotaLimits limits;
        limits.running = 2;
        limits.waiting = 3;
        limits.perMinute = 60;
        limits.total = 3;
        return limits;
    }

    typedef std::vector<std::uint64_t> Ids;
    Quota::TimePoint now = Quota::TimePoint(std::chrono::hours(5));
    std::string reason;
};

}  // namespace

TEST_F(QuotaTest, OneUidRunsItsNumberThenWaitsThenIsRefused) {
    Quota quota(Small());
    EXPECT_EQ(Enter(quota, 1, 1), Entry::kRun);
    EXPECT_EQ(Enter(quota, 1, 2), Entry::kRun);
    for (std::uint64_t id = 3; id < 6; ++id) {
        EXPECT_EQ(Enter(quota, 1, id), Entry::kWait);
    }
    EXPECT_EQ(reason, "");
    EXPECT_EQ(Enter(quota, 1, 6), Entry::kRefused);
    EXPECT_NE(reason, "");
    EXPECT_EQ(Enter(quota, 2, 7), Entry::kRun);  // another uid is not concerned
    EXPECT_EQ(quota.Running(), 3u);
    EXPECT_EQ(quota.Waiting(), 3u);
}

TEST_F(QuotaTest, WaitingOnesAreServedInOrderAsPlacesComeFree) {
    Quota quota(Small());
    for (std::uint64_t id = 1; id < 6; ++id) {
        EXPECT_NE(Enter(quota, 1, id), Entry::kRefused);
    }
    EXPECT_EQ(quota.Leave(1, 2), Ids({3}));
    EXPECT_EQ(quota.Leave(1, 1), Ids({4}));
    EXPECT_EQ(quota.Leave(1, 4), Ids({5}));
    EXPECT_EQ(quota.Leave(1, 5), Ids());
    EXPECT_EQ(quota.Leave(1, 3), Ids());
    EXPECT_EQ(quota.Running(), 0u);
}

TEST_F(QuotaTest, UidsThatWaitForTheSharedPlacesTakeTurns) {
    QuotaLimits limits = Small();
    limits.total = 1;
    Quota quota(limits);
    EXPECT_EQ(Enter(quota, 9, 1), Entry::kRun);
    EXPECT_EQ(Enter(quota, 1, 11), Entry::kWait);
    EXPECT_EQ(Enter(quota, 1, 12), Entry::kWait);
    EXPECT_EQ(Enter(quota, 1, 13), Entry::kWait);
    EXPECT_EQ(Enter(quota, 2, 21), Entry::kWait);
    EXPECT_EQ(quota.Leave(9, 1), Ids({11}));
    EXPECT_EQ(quota.Leave(1, 11), Ids({21}));  // not behind all of the first uid's
    EXPECT_EQ(quota.Leave(2, 21), Ids({12}));
    EXPECT_EQ(quota.Leave(1, 12), Ids({13}));
}

TEST_F(QuotaTest, AUidAtItsOwnLimitDoesNotBlockTheNext) {
    QuotaLimits limits = Small();
    limits.running = 1;
    limits.total = 2;
    Quota quota(limits);
    EXPECT_EQ(Enter(quota, 1, 1), Entry::kRun);
    EXPECT_EQ(Enter(quota, 2, 2), Entry::kRun);
    EXPECT_EQ(Enter(quota, 1, 3), Entry::kWait);
    EXPECT_EQ(Enter(quota, 3, 4), Entry::kWait);
    EXPECT_EQ(quota.Leave(2, 2), Ids({4}));
    EXPECT_EQ(quota.Leave(3, 4), Ids());
    EXPECT_EQ(quota.Leave(1, 1), Ids({3}));
}

TEST_F(QuotaTest, OneThatGivesUpItsWaitingIsNotStarted) {
    Quota quota(Small());
    for (std::uint64_t id = 1; id < 5; ++id) {
        EXPECT_NE(Enter(quota, 1, id), Entry::kRefused);
    }
    EXPECT_EQ(quota.Leave(1, 3), Ids());
    EXPECT_EQ(quota.Leave(1, 1), Ids({4}));
    EXPECT_EQ(quota.Leave(1, 777), Ids());  // unknown: nothing is freed
    EXPECT_EQ(quota.Running(), 2u);
}

TEST_F(QuotaTest, AMinutesNumberIsABurstThatFillsAgainWithTime) {
    Quota quota(Small());
    for (std::uint64_t id = 0; id < 60; ++id) {
        EXPECT_EQ(Enter(quota, 1, id), Entry::kRun);
        EXPECT_EQ(quota.Leave(1, id), Ids());
    }
    EXPECT_EQ(Enter(quota, 1, 60), Entry::kRefused);
    EXPECT_NE(reason.find("minute"), std::string::npos);
    now += std::chrono::milliseconds(999);
    EXPECT_EQ(Enter(quota, 1, 61), Entry::kRefused);
    now += std::chrono::milliseconds(2);
    EXPECT_EQ(Enter(quota, 1, 62), Entry::kRun);
    EXPECT_EQ(Enter(quota, 1, 63), Entry::kRefused);
}

TEST_F(QuotaTest, RefusedRequestsCostNoTokensAndKeepNoPlace) {
    Quota quota(Small());
    for (std::uint64_t id = 1; id < 6; ++id) {
        EXPECT_NE(Enter(quota, 1, id), Entry::kRefused);
    }
    for (std::uint64_t id = 100; id < 300; ++id) {
        EXPECT_EQ(Enter(quota, 1, id), Entry::kRefused);
        EXPECT_NE(reason.find("waiting"), std::string::npos);
    }
    EXPECT_EQ(quota.Leave(1, 1), Ids({3}));
    EXPECT_EQ(Enter(quota, 1, 400), Entry::kWait);
}
