// SPDX-License-Identifier: Apache-2.0
// Callers with a file whose file system never answers. Whoever asks that file system hangs, and
// even SIGKILL does not end it; the agent must not be the one. As root, in a mount namespace of
// this process's own.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <csignal>
#include <memory>

#include "Monitor.h"
#include "MountNamespace.h"
#include "PrivateBus.h"
#include "Programs.h"
#include "Skip.h"

namespace {

const uid_t kNobody = 65534;

typedef std::chrono::steady_clock Clock;

double Seconds(Clock::time_point since) {
    return std::chrono::duration<double>(Clock::now() - since).count();
}

// The file system. Its end sets free everybody who hangs over it.
class SilentFiles {
public:
    SilentFiles(const std::string& place, const std::string& operation)
        : folder(place), pid(test::Spawn({SILENT_FILES, place, operation}, {}, output.Writer())) {
        output.CloseWriter();
        state = output.ReadLine(test::kLimit);
    }
    SilentFiles(const SilentFiles&) = delete;
    SilentFiles& operator=(const SilentFiles&) = delete;
    ~SilentFiles() {
        test::KillAndReap(pid);
        (void)umount2(folder.c_str(), MNT_DETACH);
    }
    // Until it has left one more request without an answer.
    void AwaitSilence() { ASSERT_EQ("silent", output.ReadLine(test::kLimit)); }

    std::string state;

private:
    std::string folder;
    test::Pipe output;
    pid_t pid;
};

bool BecomeNobody() {
    return setgid(kNobody) == 0 && setuid(kNobody) == 0 && prctl(PR_SET_DUMPABLE, 1) == 0;
}

class SilentFilesTest : public testing::Test {
protected:
    void SetUp() override {
        NEEDS_MOUNT_NAMESPACE();
        place = test::PrivateBus::Folder() + "/place";
        ASSERT_EQ(0, mkdir(place.c_str(), 0755));
        bus = std::make_unique<test::PrivateBus>();
        tools = std::make_unique<test::FakeTools>();
        tools->Add("systemctl", "exit 17");
        rules = std::make_unique<test::RuleFolder>();
        rules->Write("units.toml",
                     "[[rule]]\nname = \"units\"\nagent = \"sr_systemctl\"\nverb = \"start\"\n"
                     "unit = \"*\"\npermit = true\nuser = \"*\"\n");
        agent = std::make_unique<test::RunningAgent>(std::vector<std::string>{
            "--rules", rules->Folder(), "--tool-path", tools->Folder(), "--audit-stderr"});
        connection = std::make_unique<test::PlainConnection>();
    }
    // The files first: until they are gone neither the callers nor the looks can end.
    void TearDown() override {
        files.reset();
        for (const pid_t caller : callers) {
            test::KillAndReap(caller);
        }
        connection.reset();
        agent.reset();
        (void)rmdir(place.c_str());
    }

    // False where that cannot be mounted.
    bool MountSilentOn(const std::string& operation) {
        files = std::make_unique<SilentFiles>(place, operation);
        return files->state == "ready";
    }

    // A caller of nobody's with `count` calls under way at once, whose output is the file. It tells
    // each answer on `answers`, and stays.
    void StartCaller(int count) {
        callers.push_back(test::Fork([this, count] {
            const int file = BecomeNobody() ? open((place + "/file").c_str(), O_WRONLY) : -1;
            if (file < 0) {
                return 90;
            }
            const test::PlainConnection mine;
            test::Calls calls(mine.Get());
            for (int i = 0; i < count; ++i) {
                calls.Add("sr_systemctl", "start x", file);
            }
            for (const std::string& answer : calls.Wait()) {
                Tell(answer);
            }
            for (;;) {
                pause();
            }
        }));
    }

    // A process of nobody's that hangs in its execution of another program, since that closes the
    // file. Another that shares its connection calls from there on, as often as there are
    // descriptors.
    void StartCallerThatHangsInExecution(const std::vector<int>& descriptors) {
        test::Pipe go;
        callers.push_back(test::Fork([this, &descriptors, &go] {
            const int file =
                BecomeNobody() ? open((place + "/file").c_str(), O_WRONLY | O_CLOEXEC) : -1;
            if (file < 0) {
                return 90;
            }
            const test::PlainConnection mine;
            if (fork() == 0) {
                (void)prctl(PR_SET_PDEATHSIG, SIGKILL);
                (void)go.ReadLine(test::kLimit);
                for (const int descriptor : descriptors) {
                    Tell(test::Call(mine.Get(), "sr_systemctl", "start x", descriptor).text);
                }
                for (;;) {
                    pause();
                }
            }
            (void)execl("/bin/sleep", "sleep", "100", static_cast<char*>(nullptr));
            return 91;
        }));
        files->AwaitSilence();
        ASSERT_EQ(3, write(go.Writer(), "go\n", 3));
    }

    void Tell(const std::string& answer) const {
        const std::string line = answer + "\n";
        (void)!write(answers.Writer(), line.data(), line.size());
    }

    // What anybody else gets meanwhile, and how soon.
    void ExpectOthersAreServed() {
        const Clock::time_point start = Clock::now();
        EXPECT_EQ("0 17", test::Call(connection->Get(), "sr_systemctl", "start y").text);
        EXPECT_LT(Seconds(start), 1.5);
        RecordProperty("other_ms", static_cast<int>(Seconds(start) * 1000));
        EXPECT_FALSE(test::WaitFor(answers.Reader(), POLLIN, 0)) << "the first hung no more";
    }

    void ExpectAnswer(const std::string& answer, Clock::time_point start) {
        EXPECT_EQ(answer, answers.ReadLine(test::kLimit));
        EXPECT_LT(Seconds(start), 5);
        RecordProperty("answer_ms", static_cast<int>(Seconds(start) * 1000));
    }

    std::string Status() {
        DBusMessage* question =
            dbus_message_new_method_call("org.sentrel.sr_agent", "/org/sentrel/sr_agent",
                                         "org.sentrel.sr_agent.Control1", "Status");
        return test::Send(connection->Get(), question).text;
    }

    std::string place;
    std::unique_ptr<test::PrivateBus> bus;
    std::unique_ptr<test::FakeTools> tools;
    std::unique_ptr<test::RuleFolder> rules;
    std::unique_ptr<test::RunningAgent> agent;
    std::unique_ptr<test::PlainConnection> connection;
    test::Pipe answers;
    std::unique_ptr<SilentFiles> files;
    std::vector<pid_t> callers;
};

#define NEEDS_SILENT_FILES(operation)                                            \
    do {                                                                         \
        if (!MountSilentOn(operation)) {                                         \
            SENTREL_SKIP("no file system of a program's here: " + files->state); \
        }                                                                        \
    } while (false)

TEST_F(SilentFilesTest, AFileWhoseClosingHangsIsRefusedInTimeAndOthersAreServedMeanwhile) {
    NEEDS_SILENT_FILES("flush");
    const Clock::time_point start = Clock::now();
    StartCaller(1);
    files->AwaitSilence();
    ExpectOthersAreServed();
    ExpectAnswer("1 0", start);
    const std::string line = agent->NextLineWith("decision=deny");
    EXPECT_TRUE(test::Holds(line, "the output descriptor does not answer")) << line;
    EXPECT_TRUE(test::Holds(line, "exe=\"/")) << line;  // it was read before the file was touched
}

TEST_F(SilentFilesTest, AFileSystemThatDoesNotSayWhatItIsHoldsUpNobodyEither) {
    NEEDS_SILENT_FILES("statfs");
    const Clock::time_point start = Clock::now();
    StartCaller(1);
    files->AwaitSilence();
    ExpectOthersAreServed();
    ExpectAnswer("1 0", start);
}

TEST_F(SilentFilesTest, SigtermEndsTheAgentAtOnceWhileALookHangs) {
    NEEDS_SILENT_FILES("flush");
    StartCaller(1);
    files->AwaitSilence();
    const Clock::time_point start = Clock::now();
    agent->Signal(SIGTERM);
    const int status = agent->WaitForEnd();
    EXPECT_LT(Seconds(start), 1.5);
    EXPECT_TRUE(WIFEXITED(status));
    EXPECT_EQ(0, WEXITSTATUS(status));
    EXPECT_EQ("1 0", answers.ReadLine(test::kLimit));
}

TEST_F(SilentFilesTest, SigtermEndsTheAgentWhileAChildHangsThatWasGivenUp) {
    NEEDS_SILENT_FILES("flush");
    StartCaller(1);
    ASSERT_EQ("1 0", answers.ReadLine(test::kLimit));
    const Clock::time_point start = Clock::now();
    agent->Signal(SIGTERM);
    const int status = agent->WaitForEnd();
    EXPECT_LT(Seconds(start), 1.5);
    EXPECT_TRUE(WIFEXITED(status));
}

TEST_F(SilentFilesTest, AUserWithManyThatHangIsRefusedAtOnceAndIsServedAgainWhenTheyAreGone) {
    NEEDS_SILENT_FILES("flush");
    StartCaller(8);
    for (int i = 0; i < 8; ++i) {
        files->AwaitSilence();
    }
    for (int i = 0; i < 8; ++i) {
        ASSERT_EQ("1 0", answers.ReadLine(test::kLimit));
        (void)agent->NextLineWith("does not answer");
    }
    // They hang once they have not ended for a second.
    const Clock::time_point limit = Clock::now() + std::chrono::seconds(20);
    while (!test::Holds(Status(), "\"abandoned\":8") && Clock::now() < limit) {
    }
    EXPECT_TRUE(test::Holds(Status(), "\"abandoned\":8")) << Status();
    const Clock::time_point start = Clock::now();
    StartCaller(1);
    EXPECT_EQ("1 0", answers.ReadLine(test::kLimit));
    EXPECT_LT(Seconds(start), 1.5);
    const std::string line = agent->NextLineWith("too many processes hang");
    EXPECT_TRUE(test::Holds(line, "uid=65534")) << line;
    EXPECT_EQ("0 17", test::Call(connection->Get(), "sr_systemctl", "start y").text);

    files.reset();
    while (!test::Holds(Status(), "\"abandoned\":0") && Clock::now() < limit) {
    }
    EXPECT_TRUE(test::Holds(Status(), "\"abandoned\":0")) << Status();
    callers.push_back(test::Fork([this] {
        if (!BecomeNobody()) {
            return 90;
        }
        const test::PlainConnection mine;
        Tell(test::Call(mine.Get(), "sr_systemctl", "start x").text);
        return 0;
    }));
    EXPECT_EQ("0 17", answers.ReadLine(test::kLimit));
}

TEST_F(SilentFilesTest, ACallerThatHangsInItsExecutionHoldsUpNobody) {
    NEEDS_SILENT_FILES("flush");
    Clock::time_point start = Clock::now();
    test::Pipe output;
    StartCallerThatHangsInExecution({output.Writer(), 0});
    ExpectOthersAreServed();
    ExpectAnswer("1 0", start);
    // Without an output nothing is refused; only its program stays unknown.
    start = Clock::now();
    ExpectAnswer("0 17", start);
    const std::string line = agent->NextLineWith("uid=65534 ");
    EXPECT_TRUE(test::Holds(line, "exe=\"\"")) << line;
}

TEST_F(SilentFilesTest, SigtermEndsTheAgentWhileACallerHangsInItsExecution) {
    NEEDS_SILENT_FILES("flush");
    StartCallerThatHangsInExecution({1});
    ExpectOthersAreServed();
    const Clock::time_point start = Clock::now();
    agent->Signal(SIGTERM);
    EXPECT_TRUE(WIFEXITED(agent->WaitForEnd()));
    EXPECT_LT(Seconds(start), 1.5);
}

}  // namespace
