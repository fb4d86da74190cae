// SPDX-License-Identifier: Apache-2.0
// The running agent with a system's log whose reader has stopped, has gone or comes back, or with a
// standard error that nobody reads. As root, with a /dev and a /run of this process's own.
#include <gtest/gtest.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>

#include <algorithm>
#include <chrono>
#include <map>
#include <memory>

#include "LogReader.h"
#include "Monitor.h"
#include "MountNamespace.h"
#include "PrivateBus.h"
#include "Programs.h"

namespace {

typedef std::chrono::steady_clock Clock;

const char kSyslog[] = "/dev/log";
const char kJournal[] = "/run/systemd/journal/socket";
const int kCalls = 60;

double Seconds(Clock::time_point since) {
    return std::chrono::duration<double>(Clock::now() - since).count();
}

bool MakePlaces() {
    if (mount("none", "/dev", "tmpfs", MS_NOSUID, "mode=755") != 0 ||
        mount("none", "/run", "tmpfs", MS_NOSUID | MS_NODEV, "mode=755") != 0) {
        return false;
    }
    const mode_t old = umask(0);
    const std::pair<const char*, unsigned> nodes[] = {
        {"/dev/null", 3}, {"/dev/zero", 5}, {"/dev/random", 8}, {"/dev/urandom", 9}};
    const bool made = std::all_of(std::begin(nodes), std::end(nodes), [](const auto& node) {
        return mknod(node.first, S_IFCHR | 0666, makedev(1, node.second)) == 0;
    });
    (void)umask(old);
    return made && mkdir("/run/systemd", 0755) == 0 && mkdir("/run/systemd/journal", 0755) == 0;
}

class SilentLogTest : public testing::Test {
protected:
    void SetUp() override {
        NEEDS_MOUNT_NAMESPACE();
        ASSERT_TRUE(MakePlaces());
        bus = std::make_unique<test::PrivateBus>();
        tools = std::make_unique<test::FakeTools>();
        tools->Add("systemctl", "exit 17");
        rules = std::make_unique<test::RuleFolder>();
        rules->Write("units.toml",
                     "[[rule]]\nname = \"units\"\nagent = \"sr_systemctl\"\nverb = \"start\"\n"
                     "unit = \"*\"\npermit = true\nuser = \"*\"\n");
    }
    void TearDown() override {
        connection.reset();
        agent.reset();
        (void)umount2("/run", MNT_DETACH);
        (void)umount2("/dev", MNT_DETACH);
    }
    void Serve(std::vector<std::string> options = {}) {
        options.insert(options.begin(), {"--rules", rules->Folder(), "--tool-path", tools->Folder(),
                                         "--limit", "minute=9000"});
        agent = std::make_unique<test::RunningAgent>(options);
        connection = std::make_unique<test::PlainConnection>();
    }
    // The longest of so many calls, one after the other; less than 0 when one was not answered.
    double LongestOf(int calls) {
        double longest = 0;
        for (int i = 0; i < calls; ++i) {
            const Clock::time_point start = Clock::now();
            const test::Reply reply = test::Call(connection->Get(), "sr_systemctl", "start x");
            if (reply.text != "0 17") {
                ADD_FAILURE() << "call " << i << ": " << reply.error << " " << reply.text
                              << " after " << Seconds(start) << " s";
                return -1;
            }
            longest = std::max(longest, Seconds(start));
        }
        return longest;
    }
    // Lines of the audit until the one of request `last`, in what the log was given.
    static int CountLines(const test::LogReader& reader, int last) {
        const std::string end = "phase=end id=" + std::to_string(last) + " ";
        for (int count = 0;;) {
            const std::string entry = reader.Next();
            count += test::Holds(entry, " sentrel-agent: phase=") ? 1 : 0;
            if (test::Holds(entry, end)) {
                return count;
            }
        }
    }

    std::unique_ptr<test::PrivateBus> bus;
    std::unique_ptr<test::FakeTools> tools;
    std::unique_ptr<test::RuleFolder> rules;
    std::unique_ptr<test::RunningAgent> agent;
    std::unique_ptr<test::PlainConnection> connection;
};

TEST_F(SilentLogTest, AStoppedReaderHoldsUpNoAnswerAndHasEveryLineWhenItReadsAgain) {
    const test::LogReader reader(kSyslog);
    Serve();
    const double longest = LongestOf(kCalls);
    ASSERT_GE(longest, 0);
    EXPECT_LT(longest, 5);
    std::cout << "the longest of " << kCalls << " answers took " << longest << " s\n";
    EXPECT_EQ(2 * kCalls, CountLines(reader, kCalls));
    EXPECT_GE(LongestOf(1), 0);
    EXPECT_EQ(2, CountLines(reader, kCalls + 1));
}

TEST_F(SilentLogTest, AStoppedJournalHoldsUpNoAnswerEither) {
    const test::LogReader reader(kJournal);
    Serve();
    ASSERT_GE(LongestOf(kCalls), 0);
    std::string entry;
    do {
        entry = reader.Next();
    } while (!test::Holds(entry, "\nSENTREL_PHASE=end\nSENTREL_ID=" + std::to_string(kCalls)));
    for (const char* field :
         {"\nSENTREL_UID=0\n", "\nSENTREL_DECISION=allow\n", "\nSENTREL_STATUS=0\n",
          "\nSENTREL_EXIT=17\n", "\nSYSLOG_IDENTIFIER=sentrel-agent\n", "\nSYSLOG_FACILITY=10\n"}) {
        EXPECT_TRUE(test::Holds(entry, field)) << entry;
    }
}

TEST_F(SilentLogTest, LinesThatTheLogDidNotTakeAreCountedInTheLog) {
    const test::LogReader reader(kSyslog);
    Serve();
    const int denied = 1500;
    for (int i = 0; i < denied; i += 20) {  // no more looks are taken on at once
        test::Calls calls(connection->Get());
        for (int j = 0; j < 20; ++j) {
            calls.Add("sr_rmmod", "x");
        }
        for (const std::string& answer : calls.Wait()) {
            ASSERT_EQ("7 0", answer);
        }
    }
    int written = 0;
    int lost = 0;
    while (lost == 0) {
        const std::string entry = reader.Next();
        const std::string name = " sentrel-agent: ";
        const bool ours = test::Holds(entry, "<84>") && test::Holds(entry, "lines were lost here");
        written += test::Holds(entry, name + "phase=end") ? 1 : 0;
        lost = ours ? std::stoi(entry.substr(entry.find(name) + name.size())) : 0;
    }
    EXPECT_GE(written, 256);
    EXPECT_EQ(denied, written + lost);
    std::cout << written << " lines written, " << lost << " lost and said so\n";
    EXPECT_GE(LongestOf(1), 0);
    EXPECT_EQ(2, CountLines(reader, denied + 1));
}

TEST_F(SilentLogTest, ALogThatGoesAndComesBackIsPickedUp) {
    auto reader = std::make_unique<test::LogReader>(kSyslog);
    Serve();
    EXPECT_GE(LongestOf(1), 0);
    EXPECT_EQ(2, CountLines(*reader, 1));
    reader.reset();
    ASSERT_EQ(0, unlink(kSyslog));
    EXPECT_GE(LongestOf(1), 0);
    EXPECT_TRUE(test::Holds(agent->NextLineWith("phase=end id=2 "), "decision=allow"));
    reader = std::make_unique<test::LogReader>(kSyslog);
    EXPECT_GE(LongestOf(1), 0);
    EXPECT_EQ(2, CountLines(*reader, 3));
}

TEST_F(SilentLogTest, AStandardErrorThatNobodyReadsHoldsUpNoAnswer) {
    Serve({"--audit-stderr"});
    const int calls = 3000;  // more than the pipe takes
    for (int i = 0; i < calls; i += 20) {
        test::Calls batch(connection->Get());
        for (int j = 0; j < 20; ++j) {
            batch.Add("sr_systemctl", (std::string("stop ") + std::string(200, 'x')).c_str());
        }
        for (const std::string& answer : batch.Wait()) {
            ASSERT_EQ("7 0", answer) << i;
        }
    }
    int written = 0;
    int lost = 0;
    while (lost == 0) {
        const std::string line = agent->NextLine();
        const std::string name = "sentrel-agent: ";
        written += line.find(name + "phase=end") == 0 ? 1 : 0;
        lost = test::Holds(line, "lines were lost here") ? std::stoi(line.substr(name.size())) : 0;
    }
    EXPECT_EQ(calls, written + lost);
}

}  // namespace
