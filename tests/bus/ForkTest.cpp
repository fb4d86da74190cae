// SPDX-License-Identifier: Apache-2.0
// Exported calls on both sides of a fork.
#include <gtest/gtest.h>
#include <sentrel/SR_API.h>

#include "ChildProcess.h"
#include "Fixture.h"
#include "Resources.h"

namespace {

using test::AgentProcess;
using test::kLimit;

const int kPoison = 0x5EED;

class ForkTest : public test::BusTest {
protected:
    // Whether a call with this number as its text got its own answer.
    static bool CallWorks(int number) {
        const std::string text = std::to_string(number);
        int result = kPoison;
        return SR_Mount(text.data(), static_cast<unsigned>(text.size()), 1, &result) == SR_OK &&
               result == number;
    }

    AgentProcess agent{{"--reply", "echo"}};
};

TEST_F(ForkTest, AChildCallsBeforeItsParentEverDid) {
    EXPECT_EQ(0, test::Reap(test::Fork([] { return CallWorks(1) ? 0 : 1; }), kLimit));
    EXPECT_TRUE(CallWorks(2));
}

TEST_F(ForkTest, AChildCallsAfterItsParentDidAndTheParentGoesOn) {
    EXPECT_TRUE(CallWorks(1));
    const pid_t child = test::Fork([] { return CallWorks(2) && CallWorks(3) ? 0 : 1; });
    EXPECT_TRUE(CallWorks(4));
    EXPECT_EQ(0, test::Reap(child, kLimit));
    EXPECT_TRUE(CallWorks(5));
}

TEST_F(ForkTest, AGrandchildCallsToo) {
    EXPECT_TRUE(CallWorks(1));
    const pid_t child = test::Fork([] {
        const pid_t grandchild = test::Fork([] { return CallWorks(2) ? 0 : 1; });
        return CallWorks(3) && test::Reap(grandchild, kLimit) == 0 ? 0 : 1;
    });
    EXPECT_EQ(0, test::Reap(child, kLimit));
}

TEST_F(ForkTest, AChildInheritsNothingOfACall) {
    EXPECT_TRUE(CallWorks(1));
    const pid_t child = test::Fork([] {
        const test::Resources before = test::Resources::Now();
        const bool worked = CallWorks(2);
        return worked && before.Difference(test::Resources::Now()).empty() ? 0 : 1;
    });
    EXPECT_EQ(0, test::Reap(child, kLimit));
}

TEST_F(ForkTest, TenChildrenAndTheirParentCallAtOnce) {
    std::vector<pid_t> children;
    for (int i = 0; i < 10; ++i) {
        children.push_back(test::Fork([i] {
            bool good = true;
            for (int k = 0; k < 10; ++k) {
                good = CallWorks(i * 10 + k) && good;
            }
            return good ? 0 : 1;
        }));
    }
    for (int i = 0; i < 10; ++i) {
        EXPECT_TRUE(CallWorks(1000 + i));
    }
    for (const pid_t child : children) {
        EXPECT_EQ(0, test::Reap(child, kLimit));
    }
}

}  // namespace
