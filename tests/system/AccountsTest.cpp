// SPDX-License-Identifier: Apache-2.0
// The running agent and the account database: callers who lay down a group that a rule forbids, and
// a database that hangs, that is large, or that is not there. As root, with accounts of this
// process's own in place of the machine's.
#include <fcntl.h>
#include <grp.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <chrono>
#include <csignal>
#include <fstream>
#include <memory>
#include <sstream>

#include "MountNamespace.h"
#include "OtherUsers.h"
#include "PrivateBus.h"
#include "Programs.h"
#include "Skip.h"

namespace {

typedef std::chrono::steady_clock Clock;

const uid_t kPlain = 1500;
const gid_t kDenied = 1600;

const char kModules[] =
    "[[rule]]\nname = \"modules\"\nagent = \"sr_rmmod\"\npermit = true\nuser = \"*\"\n"
    "module = \"*\"\n";
const char kUnits[] =
    "[[rule]]\nname = \"units\"\nagent = \"sr_systemctl\"\npermit = true\nuser = \"*\"\n"
    "verb = \"start\"\nunit = \"*\"\n";
const char kNotForGroup[] =
    "[[rule]]\nname = \"not for them\"\nagent = \"sr_rmmod\"\npermit = false\nuser = \"@denied\"\n";

double Seconds(Clock::time_point since) {
    return std::chrono::duration<double>(Clock::now() - since).count();
}

std::string Contents(const std::string& path) {
    std::ifstream file(path);
    std::ostringstream text;
    text << file.rdbuf();
    return text.str();
}

class AccountsTest : public testing::Test {
protected:
    void SetUp() override {
        NEEDS_MOUNT_NAMESPACE();
        ASSERT_EQ(0, mount("none", "/mnt", "tmpfs", MS_NOSUID | MS_NODEV, "mode=755"));
        ready = true;
        const std::string groups = Contents("/etc/group");
        Replace("/etc/passwd", Contents("/etc/passwd") + "plain:x:1500:1500::/:/bin/sh\n");
        Replace("/etc/group", groups + "plain:x:1500:\ndenied:x:1600:plain\n");
        bus = std::make_unique<test::PrivateBus>();
        tools = std::make_unique<test::FakeTools>();
        tools->Add("rmmod", "exit 18");
        tools->Add("systemctl", "exit 17");
        rules = std::make_unique<test::RuleFolder>();
    }
    void TearDown() override {
        connection.reset();
        agent.reset();
        while (ready && !covered.empty()) {
            (void)umount2(covered.back().c_str(), MNT_DETACH);
            covered.pop_back();
        }
        if (ready) {
            (void)umount2("/mnt", MNT_DETACH);
        }
    }

    void Cover(const std::string& file, const std::string& by) {
        ASSERT_EQ(0, mount(by.c_str(), file.c_str(), nullptr, MS_BIND, nullptr)) << file;
        covered.push_back(file);
    }
    void Replace(const std::string& file, const std::string& text) {
        const std::string place = "/mnt/" + std::to_string(covered.size());
        std::ofstream(place) << text;
        ASSERT_EQ(0, chmod(place.c_str(), 0644));
        Cover(file, place);
    }
    // Whoever opens the file waits until somebody writes to it, and nobody does.
    void LetHang(const std::string& file) {
        const std::string place = "/mnt/" + std::to_string(covered.size());
        ASSERT_EQ(0, mkfifo(place.c_str(), 0644));
        Cover(file, place);
    }
    void Uncover() {
        ASSERT_EQ(0, umount2(covered.back().c_str(), MNT_DETACH));
        covered.pop_back();
    }

    std::vector<std::string> Options() const {
        return {"--rules",        rules->Folder(), "--tool-path", tools->Folder(),
                "--audit-stderr", "--limit",       "minute=9000"};
    }
    void Serve(const std::string& text) {
        rules->Write("all.toml", text);
        agent = std::make_unique<test::RunningAgent>(Options());
        connection = test::ConnectAs(kPlain);
    }
    std::string Answer(const char* name, const char* text) {
        return test::Call(connection->Get(), name, text).text;
    }

    // The answer to a process of the user's that is in the group, has a user namespace of its own,
    // with `groups` laid down in it or not, and then connects to the bus.
    std::string AnswerInNamespace(bool layDown) {
        test::Pipe going;
        test::Pipe said;
        const pid_t caller = test::Fork([&] {
            const gid_t group = kDenied;
            if (setgroups(1, &group) != 0 || setgid(kPlain) != 0 || setuid(kPlain) != 0 ||
                prctl(PR_SET_DUMPABLE, 1) != 0) {
                return 90;
            }
            if (unshare(CLONE_NEWUSER) != 0) {
                (void)!write(said.Writer(), "no namespace\n", 13);
                return 0;
            }
            (void)!write(said.Writer(), "mapped?\n", 8);
            (void)going.ReadLine(test::kLimit);
            if (layDown && setgroups(0, nullptr) != 0) {
                return 91;
            }
            const test::PlainConnection mine;
            const std::string answer = test::Call(mine.Get(), "sr_rmmod", "x").text + "\n";
            (void)!write(said.Writer(), answer.c_str(), answer.size());
            return 0;
        });
        std::string answer = said.ReadLine(test::kLimit);
        if (answer == "mapped?") {
            // As newuidmap(1) and newgidmap(1) do, which are set-uid root.
            const std::string process = "/proc/" + std::to_string(caller);
            std::ofstream(process + "/uid_map") << "1500 1500 1\n";
            std::ofstream(process + "/gid_map") << "1500 1500 1\n";
            (void)!write(going.Writer(), "go\n", 3);
            answer = said.ReadLine(test::kLimit);
        }
        EXPECT_EQ(0, test::Reap(caller, test::kLimit));
        return answer;
    }

    bool ready = false;
    std::vector<std::string> covered;
    std::unique_ptr<test::PrivateBus> bus;
    std::unique_ptr<test::FakeTools> tools;
    std::unique_ptr<test::RuleFolder> rules;
    std::unique_ptr<test::RunningAgent> agent;
    std::unique_ptr<test::PlainConnection> connection;
};

TEST_F(AccountsTest, AGroupThatIsForbiddenCannotBeLaidDown) {
    Serve(std::string(kNotForGroup) + kModules);
    const std::string before = AnswerInNamespace(false);
    if (before == "no namespace") {
        SENTREL_SKIP("users may have no namespaces of their own here");
    }
    EXPECT_EQ("7 0", before);
    EXPECT_EQ("7 0", AnswerInNamespace(true));
    for (int i = 0; i < 2; ++i) {
        EXPECT_TRUE(test::Holds(agent->NextLineWith("decision=deny"), "not for them"));
    }
    // The group is not the connection's here either: only the uid is the caller's.
    EXPECT_EQ("7 0", Answer("sr_rmmod", "x"));
    connection = test::ConnectAs(test::PlainAccount());
    EXPECT_EQ("0 18", Answer("sr_rmmod", "x"));
}

TEST_F(AccountsTest, AGroupWithMoreMembersThanAnyBufferHoldsIsStillForbidden) {
    std::string members = "plain";
    for (int i = 0; i < 20000; ++i) {
        members += ",member" + std::to_string(i);
    }
    Replace("/etc/group",
            "root:x:0:\nnogroup:x:65534:\nplain:x:1500:\ndenied:x:1600:" + members + "\n");
    Serve(std::string(kNotForGroup) + kModules);
    EXPECT_EQ("7 0", Answer("sr_rmmod", "x"));
}

TEST_F(AccountsTest, ADatabaseThatCannotBeReadIsAnErrorOfTheRuleFileAndNotAGroupThatIsNotThere) {
    rules->Write("all.toml", std::string(kNotForGroup) + kModules);
    EXPECT_EQ("2 rules can be used\n", test::RunAgent({"--check", rules->Folder()}).output);
    const std::string users = Contents("/etc/passwd");
    ASSERT_EQ(0, mount("none", "/etc", "tmpfs", MS_NOSUID | MS_NODEV, "mode=755"));
    covered.push_back("/etc");
    std::ofstream("/etc/passwd") << users;  // and no file of groups
    const test::Finished check = test::RunAgent({"--check", rules->Folder()});
    EXPECT_TRUE(
        test::Holds(check.output, "/all.toml:5: group 'denied' cannot be looked up: No such file"))
        << check.output;
    EXPECT_FALSE(test::Holds(check.output, "there is no group")) << check.output;
    const test::Finished started = test::RunAgent(Options());
    EXPECT_EQ(1, started.exit);
    EXPECT_TRUE(test::Holds(started.errors, "cannot be looked up")) << started.errors;
}

// Before, the loop itself asked, and all were held up.
TEST_F(AccountsTest, ADatabaseThatHangsHoldsUpNobodyElseAndForbidsTheGroup) {
    Serve(std::string(kNotForGroup) + kModules + kUnits);
    EXPECT_EQ("7 0", Answer("sr_rmmod", "x"));
    LetHang("/etc/passwd");
    test::Calls waiting(connection->Get());
    const Clock::time_point start = Clock::now();
    for (int i = 0; i < 3; ++i) {
        waiting.Add("sr_rmmod", "x");
    }
    const auto other = test::ConnectAs(0);
    EXPECT_EQ("0 17", test::Call(other->Get(), "sr_systemctl", "start x").text);
    const double others = Seconds(start);
    EXPECT_EQ((std::vector<std::string>{"7 0", "7 0", "7 0"}), waiting.Wait());
    std::cout << "another's answer after " << others << " s, the callers' own after "
              << Seconds(start) << " s\n";
    EXPECT_LT(others, 5);
    EXPECT_LT(Seconds(start), 20);
    EXPECT_TRUE(test::Holds(agent->NextLineWith("is not known"), "decision=deny"));
    Uncover();
    EXPECT_EQ("7 0", Answer("sr_rmmod", "x"));
}

TEST_F(AccountsTest, ADatabaseThatHangsHoldsUpNobodyWhileACallersOwnGroupIsAsked) {
    Serve(
        "[[rule]]\nname = \"share\"\nagent = \"sr_mount\"\npermit = true\nuser = \"*\"\n"
        "source = \"none\"\ntarget = \"/mnt\"\ntype = \"tmpfs\"\noptions.allow = \"gid=%gid\"\n" +
        std::string(kUnits));
    EXPECT_EQ("7 0", Answer("sr_mount", "-t tmpfs -o gid=1501 none /mnt"));
    LetHang("/etc/passwd");
    test::Calls waiting(connection->Get());
    const Clock::time_point start = Clock::now();
    waiting.Add("sr_mount", "-t tmpfs -o gid=1500 none /mnt");
    const auto other = test::ConnectAs(0);
    EXPECT_EQ("0 17", test::Call(other->Get(), "sr_systemctl", "start x").text);
    EXPECT_LT(Seconds(start), 5);
    EXPECT_EQ((std::vector<std::string>{"7 0"}), waiting.Wait());
}

TEST_F(AccountsTest, ADatabaseThatHangsDuringAReloadHoldsUpNobodyAndTheOldRulesStay) {
    Serve(std::string(kNotForGroup) + kModules + kUnits);
    EXPECT_EQ("0 17", Answer("sr_systemctl", "start x"));
    rules->Write("all.toml", kNotForGroup);
    LetHang("/etc/group");
    agent->Signal(SIGHUP);
    const Clock::time_point start = Clock::now();
    double longest = 0;
    // Until the agent says that it has given up.
    for (std::string said; !test::Holds(said, "not loaded");) {
        const Clock::time_point asked = Clock::now();
        ASSERT_EQ("0 17", Answer("sr_systemctl", "start x"));
        longest = std::max(longest, Seconds(asked));
        ASSERT_LT(Seconds(start), 60);
        (void)test::WaitFor(agent->Log(), POLLIN, 200);
        said += agent->Said();
    }
    std::cout << "the longest answer took " << longest << " s, the reload " << Seconds(start)
              << " s\n";
    EXPECT_LT(longest, 5);
    Uncover();
    agent->Signal(SIGHUP);
    (void)agent->NextLineWith("1 loaded");
    EXPECT_EQ("7 0", Answer("sr_systemctl", "start x"));
}

}  // namespace
