// SPDX-License-Identifier: Apache-2.0
// Thousands of calls leave the process as it was.
#include <gtest/gtest.h>
#include <sentrel/SR_API.h>

#include "Fixture.h"
#include "Resources.h"

namespace {

using test::AgentProcess;
using test::Resources;

const int kPoison = 0x5EED;
const int kWarmUp = 200;
const int kCalls = 5000;
// What allocator and caches may still take after the warm-up. A leak in every call would be 5,000
// of the allocator's smallest chunks of 32 bytes, more than twice this.
const std::size_t kHeapTolerance = 64 * 1024;
const std::size_t kResidentTolerance = 2 * 1024 * 1024;

class SoakTest : public test::BusTest {
protected:
    // One call after the other, each wanted to end with the status; the number of others.
    static int Call(int times, int status, AgentProcess* agent) {
        int others = 0;
        for (int i = 0; i < times; ++i) {
            int result = kPoison;
            others += SR_Mount("soak", 4, 1, &result) == status ? 0 : 1;
            others += result == (status == SR_OK ? 42 : kPoison) ? 0 : 1;
            if (agent != nullptr) {
                (void)agent->NextReport();
            }
            (void)test::TakeLog();
        }
        return others;
    }

    static void ExpectNothingGrows(int status, AgentProcess* agent) {
        EXPECT_EQ(0, Call(kWarmUp, status, agent));
        const Resources before = Resources::Now();
        const std::size_t heap = test::HeapInUse();
        const std::size_t resident = test::Resident();
        EXPECT_EQ(0, Call(kCalls, status, agent));
        EXPECT_LE(test::HeapInUse(), heap + kHeapTolerance);
        if (!test::UnderSanitizer()) {
            EXPECT_LE(test::Resident(), resident + kResidentTolerance);
        }
        EXPECT_EQ("", before.Difference(Resources::Now()));
    }
};

TEST_F(SoakTest, FiveThousandCallsLeaveNothing) {
    AgentProcess agent({"--text", "0 42"});
    ExpectNothingGrows(SR_OK, &agent);
}

TEST_F(SoakTest, FiveThousandCallsWithoutAnAgentLeaveNothing) {
    ExpectNothingGrows(SR_COMM_NO_SERVICE, nullptr);
}

TEST_F(SoakTest, FiveThousandCallsWithoutABusLeaveNothing) {
    bus.Stop();
    ExpectNothingGrows(SR_COMM_FAILED, nullptr);
}

TEST_F(SoakTest, FiveThousandErrorRepliesLeaveNothing) {
    AgentProcess agent({"--reply", "error", "--text", "no"});
    ExpectNothingGrows(SR_COMM_FAILED, &agent);
}

}  // namespace
