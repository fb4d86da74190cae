// SPDX-License-Identifier: Apache-2.0
// The platform log for systems that have none: every entry goes to syslog(3), whose state is the
// program's own.
#include <gtest/gtest.h>
#include <syslog.h>

#include <string>
#include <vector>

#include "FakeSyslog.h"
#include "SR_LogImpl.h"

namespace {

using test::SyslogEntry;
using test::TakeSyslog;

class LogDlogTest : public testing::Test {
protected:
    LogDlogTest() { TakeSyslog(); }
    ~LogDlogTest() override { EXPECT_EQ(0, test::SyslogStateChanges()); }
};

TEST_F(LogDlogTest, EachPriorityHasItsSyslogSeverity) {
    const struct {
        int priority;
        int severity;
    } table[] = {{3, LOG_DEBUG}, {4, LOG_INFO}, {5, LOG_WARNING}, {6, LOG_ERR}};
    for (const auto& row : table) {
        (void)__dlog_print(0, row.priority, "TAG", "%s", "text");
        const std::vector<SyslogEntry> entries = TakeSyslog();
        ASSERT_EQ(1u, entries.size());
        EXPECT_EQ(row.severity, entries[0].priority) << row.priority;
    }
}

TEST_F(LogDlogTest, APriorityOutsideTheFourIsAnError) {
    for (const int priority : {-1, 0, 1, 2, 7, 8}) {
        (void)__dlog_print(0, priority, "TAG", "%s", "text");
        const std::vector<SyslogEntry> entries = TakeSyslog();
        ASSERT_EQ(1u, entries.size());
        EXPECT_EQ(LOG_ERR, entries[0].priority) << priority;
    }
}

TEST_F(LogDlogTest, TheFacilityIsLeftToTheProgram) {
    for (int priority = 3; priority <= 6; ++priority) {
        (void)__dlog_print(0, priority, "TAG", "%s", "text");
    }
    for (const SyslogEntry& entry : TakeSyslog()) {
        EXPECT_EQ(0, entry.priority & LOG_FACMASK);
    }
}

TEST_F(LogDlogTest, TheTagStandsBeforeTheText) {
    (void)__dlog_print(0, 3, "TAG", "%s: %s(%d) > %s", "f.cpp", "F", 12, "body");
    const std::vector<SyslogEntry> entries = TakeSyslog();
    ASSERT_EQ(1u, entries.size());
    EXPECT_EQ("TAG: f.cpp: F(12) > body", entries[0].text);
}

TEST_F(LogDlogTest, PercentSignsInTheTextAreNotAFormat) {
    (void)__dlog_print(0, 3, "%n", "%s", "%s%n 100%");
    const std::vector<SyslogEntry> entries = TakeSyslog();
    ASSERT_EQ(1u, entries.size());
    EXPECT_EQ("%s: %s", entries[0].format);
    EXPECT_EQ("%n: %s%n 100%", entries[0].text);
}

TEST_F(LogDlogTest, ALongEntryIsCut) {
    const std::string body(5000, 'x');
    (void)__dlog_print(0, 3, "TAG", "%s", body.c_str());
    const std::vector<SyslogEntry> entries = TakeSyslog();
    ASSERT_EQ(1u, entries.size());
    EXPECT_EQ("TAG: " + std::string(2047, 'x'), entries[0].text);
}

TEST_F(LogDlogTest, TheLengthOfTheTextIsReturned) {
    EXPECT_EQ(4, __dlog_print(0, 3, "TAG", "%s", "text"));
    EXPECT_EQ(0, __dlog_print(0, 3, "TAG", "%s", ""));
}

TEST_F(LogDlogTest, ALineOfTheLibraryArrivesWhole) {
    SR_LOG(ERR, "something " << 5);
    const int line = __LINE__ - 1;
    const std::vector<SyslogEntry> entries = TakeSyslog();
    ASSERT_EQ(1u, entries.size());
    EXPECT_EQ(LOG_ERR, entries[0].priority);
    const std::string end =
        ") > [SR] [LogDlogTest.cpp(TestBody() +" + std::to_string(line) + ")]something 5";
    const std::string start = "SENTREL: SR_Log.cpp: PrintMessage(";
    ASSERT_GT(entries[0].text.size(), start.size() + end.size());
    EXPECT_EQ(start, entries[0].text.substr(0, start.size()));
    EXPECT_EQ(end, entries[0].text.substr(entries[0].text.size() - end.size()));
}

}  // namespace
