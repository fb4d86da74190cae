// SPDX-License-Identifier: Apache-2.0
// How a tool is run: what it is given, what it can do to others, and how its end is learned.
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>

#include <set>

#include "RunFixture.h"
#include "base/Process.h"
#include "passage/Quota.h"
#include "run/Credentials.h"

using agent::Pin;
using agent::Plan;
using std::chrono::milliseconds;

namespace {

class ExecutorTest : public RunFixture {
protected:
    static agent::ExecutorLimits ShortLimits() {
        agent::ExecutorLimits limits;
        limits.killAfter = milliseconds(150);
        limits.answerAfter = milliseconds(400);
        return limits;
    }

    Plan PinPlan(Pin::Kind kind, const std::string& path) const {
        Plan plan = ToolPlan({"args", "PATH"});
        Pin pin;
        pin.argument = 2;
        pin.kind = kind;
        pin.path = path;
        plan.pins.push_back(pin);
        return plan;
    }

    void ExpectRefused(const Plan& plan, const std::string& reason) {
        const Result result = Run(plan);
        EXPECT_EQ(result.outcome.status, 7);
        EXPECT_EQ(result.outcome.value, 0);
        EXPECT_NE(result.outcome.reason.find(reason), std::string::npos) << result.outcome.reason;
        EXPECT_EQ(result.output, result.outcome.reason + "\n");
    }
};

struct Pids {
    pid_t tool = 0;
    pid_t child = 0;
};

Pids ReadPids(int fd) {
    Pids pids;
    std::istringstream line(ReadLines(fd, 1));
    std::string word;
    line >> word >> pids.tool >> pids.child;
    return pids;
}

}  // namespace

TEST_F(ExecutorTest, TheToolsExitCodeIsTheValue) {
    const Result result = Run(ToolPlan({"exit", "42"}));
    EXPECT_EQ(result.outcome.status, 0);
    EXPECT_EQ(result.outcome.value, 42);
    EXPECT_EQ(result.outcome.exit, 42);
}

TEST_F(ExecutorTest, ASignalThatEndsTheToolIsAddedTo128) {
    const Result result = Run(ToolPlan({"signal", "10"}));
    EXPECT_EQ(result.outcome.status, 0);
    EXPECT_EQ(result.outcome.value, 138);
    EXPECT_EQ(result.outcome.signal, 10);
}

TEST_F(ExecutorTest, TheEnvironmentIsExactlyTheBuiltOne) {
    ASSERT_EQ(setenv("LD_PRELOAD_TEST", "x", 1), 0);
    ASSERT_EQ(setenv("LIBMOUNT_FSTAB", "/tmp/x", 1), 0);
    EXPECT_EQ(Run(ToolPlan({"env"})).output,
              "PATH=/usr/sbin:/usr/bin:/sbin:/bin\nLANG=C.UTF-8\nSYSTEMD_PAGER=\n"
              "SYSTEMD_COLORS=0\n");
}

TEST_F(ExecutorTest, TheToolSeesNoDescriptorButTheStandardOnes) {
    const agent::OwnedFd leak(open("/dev/null", O_RDONLY));  // not close-on-exec
    ASSERT_TRUE(leak);
    EXPECT_EQ(Run(ToolPlan({"fds"})).output, "fd 0\nfd 1\nfd 2\n");
}

TEST_F(ExecutorTest, TheToolSeesAPinnedPathsDescriptorAndNoOther) {
    Plan plan = PinPlan(Pin::kDirectory, directory.path);
    plan.argv[1] = "fds";
    const std::string output = Run(plan).output;
    EXPECT_EQ(output.find("fd 0\nfd 1\nfd 2\nfd "), 0u) << output;
    EXPECT_EQ(std::count(output.begin(), output.end(), '\n'), 4) << output;
}

TEST_F(ExecutorTest, TheToolRunsInAStateOfItsOwnWithLimits) {
    ASSERT_NE(signal(SIGHUP, SIG_IGN), SIG_ERR);
    sigset_t blocked;
    sigemptyset(&blocked);
    sigaddset(&blocked, SIGUSR1);
    ASSERT_EQ(sigprocmask(SIG_BLOCK, &blocked, nullptr), 0);
    Plan plan = ToolPlan({"state"});
    plan.operation = agent::Operation::kMknod;
    EXPECT_EQ(Run(plan).output,
              "cwd /\nstdin /dev/null\numask 18\nown session yes\nown group yes\n"
              "ignored " +
                  std::to_string(SIGPIPE) +
                  "\nblocked none\nnofile 64\ncore 0\nfsize 0\ncpu 10\nas 268435456\n");
}

TEST_F(ExecutorTest, AMountToolMayWriteItsSmallTable) {
    EXPECT_NE(Run(ToolPlan({"state"})).output.find("\nfsize 1048576\n"), std::string::npos);
}

TEST_F(ExecutorTest, WithoutADescriptorTheOutputGoesNowhere) {
    Result result;
    Start(ToolPlan({"flood", "300000"}), result, nullptr);
    ASSERT_TRUE(RunUntil([&result] { return result.ends > 0; }));
    EXPECT_EQ(result.outcome.status, 0);
    EXPECT_EQ(result.outcome.value, 0);
}

TEST_F(ExecutorTest, AMissingToolIsNotImplemented) {
    Plan plan = ToolPlan({});
    plan.argv[0] = directory / "missing";
    const Result result = Run(plan);
    EXPECT_EQ(result.outcome.status, 10);
    EXPECT_EQ(result.output, result.outcome.reason + "\n");
}

TEST_F(ExecutorTest, AToolThatOthersMayWriteIsNotRun) {
    ASSERT_EQ(chmod(tool.c_str(), 0775), 0);
    EXPECT_EQ(Run(ToolPlan({"exit", "0"})).outcome.status, 9);
}

TEST_F(ExecutorTest, AToolOfAnotherUserIsNotRun) {
    NEEDS_ROOT();
    ASSERT_EQ(chown(tool.c_str(), kNobody, kNobody), 0);
    EXPECT_EQ(Run(ToolPlan({"exit", "0"})).outcome.status, 9);
}

TEST_F(ExecutorTest, AFileThatIsNoProgramCannotBeStarted) {
    ASSERT_TRUE(WriteFile(directory / "text", "no program\n", 0755));
    Plan plan = ToolPlan({});
    plan.argv[0] = directory / "text";
    const Result result = Run(plan);
    EXPECT_EQ(result.outcome.status, 9);
    EXPECT_NE(result.outcome.reason.find("Exec format error"), std::string::npos);
}

TEST_F(ExecutorTest, TheSecretArrivesOnItsDescriptorAndNowhereElse) {
    Plan plan = ToolPlan({"secret"});
    plan.secret = "pass,word=hunter2";
    const std::string output = Run(plan).output;
    const std::string first = "secret [pass,word=hunter2] 17\n";
    EXPECT_EQ(output.find(first), 0u) << output;
    EXPECT_EQ(output.find("hunter2", first.size()), std::string::npos) << output;
    EXPECT_NE(output.find("PASSWD_FD="), std::string::npos);
}

TEST_F(ExecutorTest, AFileOfTheCallersOwnMayHoldTheSecret) {
    const std::string path = directory / "credentials";
    ASSERT_TRUE(WriteFile(path, "password=from-a-file", 0600));
    ASSERT_EQ(chown(path.c_str(), caller.uid, caller.groups[0]), 0);
    Plan plan = ToolPlan({"secret"});
    plan.secretFile = path;
    const std::string output = Run(plan).output;
    const std::string first = "secret [from-a-file] 11\n";
    EXPECT_EQ(output.find(first), 0u) << output;
    EXPECT_EQ(output.find("from-a-file", first.size()), std::string::npos) << output;
}

TEST_F(ExecutorTest, TheUserAndTheDomainOfACredentialsFileBecomeOptions) {
    const std::string path = directory / "credentials";
    ASSERT_TRUE(WriteFile(path, "username=me\npassword=x\ndomain=HOME\n", 0600));
    ASSERT_EQ(chown(path.c_str(), caller.uid, caller.groups[0]), 0);
    const auto arguments = [&](const std::vector<std::string>& words) {
        Plan plan = ToolPlan(words);
        plan.secretFile = path;
        return Run(plan).output.substr(tool.size() + 1);
    };
    EXPECT_EQ(arguments({"args", "-o", "ro,nosuid", "--", "//nas/x"}),
              "args\n-o\ndomain=HOME,user=me,ro,nosuid\n--\n//nas/x\n");
    EXPECT_EQ(arguments({"args", "-o", "user=you,nosuid", "--", "//nas/x"}),
              "args\n-o\ndomain=HOME,user=you,nosuid\n--\n//nas/x\n");
    EXPECT_EQ(arguments({"args", "-o", "ro,domain=W,user=you", "--", "//nas/x"}),
              "args\n-o\nro,domain=W,user=you\n--\n//nas/x\n");
    EXPECT_EQ(arguments({"args", "-o", "cruser=a", "--", "-o"}),
              "args\n-o\ndomain=HOME,user=me,cruser=a\n--\n-o\n");
}

TEST_F(ExecutorTest, ACredentialsFileThatIsNoneIsRefusedWithItsReason) {
    const std::string path = directory / "credentials";
    const auto refused = [&](const std::string& content, const std::string& reason) {
        ASSERT_TRUE(WriteFile(path, content, 0600));
        ASSERT_EQ(chown(path.c_str(), caller.uid, caller.groups[0]), 0);
        Plan plan = ToolPlan({"secret"});
        plan.secretFile = path;
        ExpectRefused(plan, reason);
    };
    refused("", "cannot be read");
    refused("hunter2\n", "has no line 'password='");
    refused("username=me\n", "has no line 'password='");
    refused("password=x\n" + std::string(4086, '#'), "is larger than 4096 bytes");
    refused("password=x" + std::string(1, '\0') + "y\n", "holds a NUL");
    refused("password=x\nuser=a,uid=0\n", "has a malformed user");
}

TEST(Credentials, AreReadInTheToolsOwnForm) {
    const auto read = [](const std::string& text) {
        const agent::Result<agent::Credentials> found = agent::ReadCredentials(text);
        return found ? found->user + "|" + found->domain + "|" + found->password : found.Reason();
    };
    EXPECT_EQ(read("username=me\npassword=p,w=\"1 \ndomain=HOME"), "me|HOME|p,w=\"1 ");
    EXPECT_EQ(read(" \tuser=a$\r\n\tpass= p\r\n dom=H.-_\r\n"), "a$|H.-_| p");
    EXPECT_EQ(read("# x\n\nnonsense\nuid=0\nPassword=no\npassword=p\npasswordx=q"), "||p");
    EXPECT_EQ(read("password=p" + std::string(4086, '\n')), "||p");
    for (const char* name : {"-a", "a b", "a,b", "a/b", "a%b", "a\\b", "a=b", "\xc3\xa4"}) {
        EXPECT_EQ(read(std::string("password=p\nuser=") + name),
                  "the file of credentials has a malformed user");
        EXPECT_EQ(read(std::string("password=p\ndomain=") + name),
                  "the file of credentials has a malformed domain");
    }
    EXPECT_EQ(read("password=p\nuser=" + std::string(256, 'a')),
              "the file of credentials has a malformed user");
    EXPECT_EQ(read("password=\nuser=me"), "the file of credentials has no line 'password='");
}

TEST_F(ExecutorTest, AFileOfRootsIsNoSecretOfTheCallers) {
    NEEDS_ROOT();
    const std::string path = directory / "shadow";
    ASSERT_TRUE(WriteFile(path, "password=root-only", 0600));
    Plan plan = ToolPlan({"secret"});
    plan.secretFile = path;
    ExpectRefused(plan, "secret");
    ASSERT_EQ(chmod(path.c_str(), 0644), 0);  // readable, and still not the caller's
    ExpectRefused(plan, "secret");
}

TEST_F(ExecutorTest, ALinkToTheSecretIsNotFollowed) {
    const std::string path = directory / "credentials";
    ASSERT_TRUE(WriteFile(path, "password=x", 0600));
    ASSERT_EQ(chown(path.c_str(), caller.uid, caller.groups[0]), 0);
    ASSERT_EQ(symlink(path.c_str(), (directory / "link").c_str()), 0);
    Plan plan = ToolPlan({"secret"});
    plan.secretFile = directory / "link";
    ExpectRefused(plan, "secret");
}

TEST_F(ExecutorTest, APinnedPathIsReachedByItsDescriptor) {
    ASSERT_TRUE(WriteFile(directory / "file", "the right one", 0644));
    Plan plan = PinPlan(Pin::kFile, directory / "file");
    EXPECT_EQ(Run(plan).output.find(tool + "\nargs\n/proc/self/fd/"), 0u);
    plan.argv[1] = "cat";
    EXPECT_EQ(Run(plan).output, "the right one");
}

TEST_F(ExecutorTest, ANodesDirectoryIsPinnedAndItsNameIsKept) {
    const std::string output = Run(PinPlan(Pin::kParent, directory / "new")).output;
    EXPECT_EQ(output.find(tool + "\nargs\n/proc/self/fd/"), 0u) << output;
    EXPECT_NE(output.find("/new\n"), std::string::npos) << output;
}

TEST_F(ExecutorTest, ASymbolicLinkAnywhereOnTheWayIsRefused) {
    ASSERT_EQ(mkdir((directory / "real").c_str(), 0755), 0);
    ASSERT_EQ(mkdir((directory / "real/below").c_str(), 0755), 0);
    ASSERT_TRUE(WriteFile(directory / "real/file", "", 0644));
    ASSERT_EQ(symlink("real", (directory / "link").c_str()), 0);
    ASSERT_EQ(symlink("file", (directory / "real/alias").c_str()), 0);
    const std::string link = "symbolic link";
    ExpectRefused(PinPlan(Pin::kDirectory, directory / "link"), link);
    ExpectRefused(PinPlan(Pin::kDirectory, directory / "link/below"), link);
    ExpectRefused(PinPlan(Pin::kFile, directory / "link/file"), link);
    ExpectRefused(PinPlan(Pin::kFile, directory / "real/alias"), link);
    ExpectRefused(PinPlan(Pin::kParent, directory / "link/new"), link);
    ExpectRefused(PinPlan(Pin::kMountPoint, directory / "link"), link);
    ExpectRefused(PinPlan(Pin::kDirectory, "/proc/self/cwd"), link);
    ExpectRefused(PinPlan(Pin::kFile, "/proc/self/fd/0"), link);
}

TEST_F(ExecutorTest, APathThatIsNotToTheLetterIsRefused) {
    for (const char* end : {"", "/", "/.", "/..", "//x", "/./x", "/../x"}) {
        const std::string path = directory.path + "/sub" + end;
        if (*end != '\0') {
            ExpectRefused(PinPlan(Pin::kDirectory, path), "plain absolute path");
        } else {
            ExpectRefused(PinPlan(Pin::kDirectory, path), "No such file");
        }
    }
    ExpectRefused(PinPlan(Pin::kDirectory, "relative"), "plain absolute path");
    ExpectRefused(PinPlan(Pin::kDirectory, ""), "plain absolute path");
    ExpectRefused(PinPlan(Pin::kDirectory, "/"), "plain absolute path");
}

TEST_F(ExecutorTest, APathOfAnotherKindIsRefused) {
    ASSERT_TRUE(WriteFile(directory / "file", "", 0644));
    ExpectRefused(PinPlan(Pin::kDirectory, directory / "file"), "Not a directory");
    ExpectRefused(PinPlan(Pin::kFile, directory.path), "is a directory");
    ExpectRefused(PinPlan(Pin::kMountPoint, directory.path), "nothing is mounted");
}

TEST_F(ExecutorTest, AModulesFileMustBeRootsOwnAndClosedToOthers) {
    NEEDS_ROOT();
    const std::string path = directory / "x.ko";
    const std::string reason = "is not a file that only root can write";
    ASSERT_TRUE(WriteFile(path, "module", 0644));
    EXPECT_EQ(Run(PinPlan(Pin::kModule, path)).outcome.status, 0);
    for (const mode_t mode : {0664U, 0646U, 0666U}) {
        ASSERT_EQ(chmod(path.c_str(), mode), 0);
        ExpectRefused(PinPlan(Pin::kModule, path), reason);
    }
    ASSERT_EQ(chmod(path.c_str(), 0644), 0);
    ASSERT_EQ(chown(path.c_str(), kNobody, 0), 0);
    ExpectRefused(PinPlan(Pin::kModule, path), reason);
    EXPECT_EQ(Run(PinPlan(Pin::kFile, path)).outcome.status, 0);  // an image may be anybody's
    ASSERT_EQ(mkfifo((directory / "pipe.ko").c_str(), 0600), 0);
    ExpectRefused(PinPlan(Pin::kModule, directory / "pipe.ko"), reason);
    ExpectRefused(PinPlan(Pin::kModule, directory.path), reason);
}

TEST_F(ExecutorTest, ADirectoryOpenToOthersIsRefusedWhereTheChainMustBeRoots) {
    ASSERT_EQ(mkdir((directory / "d").c_str(), 0755), 0);
    Plan plan = PinPlan(Pin::kDirectory, directory / "d");
    plan.pins[0].rootOwnedChain = true;
    ExpectRefused(plan, "open to others");  // below /tmp
    plan = PinPlan(Pin::kDirectory, "/usr/bin");
    plan.pins[0].rootOwnedChain = true;
    EXPECT_EQ(Run(plan).outcome.status, 0);
}

TEST_F(ExecutorTest, AToolThatHeedsTheDeadlinesSignalEndsByIt) {
    Plan plan = ToolPlan({"stay"});
    plan.deadline = milliseconds(200);
    const Result result = Run(plan);
    EXPECT_EQ(result.outcome.status, 8);
    EXPECT_EQ(result.outcome.value, 0);
    EXPECT_EQ(result.outcome.signal, SIGTERM);
    EXPECT_GE(result.outcome.duration.count(), 200);
    EXPECT_LT(result.outcome.duration.count(), 2000);
}

TEST_F(ExecutorTest, AToolThatIgnoresTheSignalIsKilledTwoSecondsLater) {
    Plan plan = ToolPlan({"ignore-term"});
    plan.deadline = milliseconds(200);
    const Result result = Run(plan);
    EXPECT_EQ(result.outcome.status, 8);
    EXPECT_EQ(result.outcome.signal, SIGKILL);
    EXPECT_GE(result.outcome.duration.count(), 2200);
    EXPECT_LT(result.outcome.duration.count(), 3200);
}

TEST_F(ExecutorTest, TheDeadlineEndsTheToolsChildrenToo) {
    Restart(ShortLimits(), agent::RelayLimits());
    TestPipe pipe;
    Result result;
    Plan plan = ToolPlan({"leave-child"});
    plan.deadline = milliseconds(300);
    std::shared_ptr<agent::Relay> relay = relays->Start(std::move(pipe.writer), caller);
    Start(plan, result, relay);
    ASSERT_TRUE(RunUntil([&result] { return result.ends > 0; }));
    EXPECT_EQ(result.outcome.status, 8);
    // The pipe's last writer has gone with the child, so the relay came to its end.
    EXPECT_TRUE(RunUntil([&relay] { return relay->Ended(); }));
    EXPECT_GT(relay->Copied(), 0u);
}

TEST_F(ExecutorTest, NothingIsStartedBehindTheDeadline) {
    Plan plan = ToolPlan({"exit", "0"});
    plan.deadline = milliseconds(0);
    const Result result = Run(plan);
    EXPECT_EQ(result.outcome.status, 8);
    EXPECT_EQ(result.output, result.outcome.reason + "\n");
}

TEST_F(ExecutorTest, AChildThatDoesNotEndIsAnsweredForCountedAndReapedLater) {
    Restart(ShortLimits(), agent::RelayLimits());
    TestPipe pipe;
    Result result;
    Plan plan = ToolPlan({"ignore-term"});
    plan.deadline = milliseconds(300);
    Start(plan, result, relays->Start(agent::OwnedFd(dup(pipe.writer.Get())), caller));
    const Pids pids = ReadPids(pipe.reader.Get());
    ASSERT_GT(pids.child, 0);
    const agent::OwnedFd pidfd(agent::OpenProcess(pids.tool));
    // Stopped, it cannot keep the deadline: as one that the kernel holds.
    ASSERT_EQ(kill(pids.child, SIGSTOP), 0);
    ASSERT_TRUE(RunUntil([&result] { return result.answers > 0; }));
    EXPECT_EQ(result.outcome.status, 8);
    EXPECT_GE(result.outcome.duration.count(), 700);
    EXPECT_LT(result.outcome.duration.count(), 1500);
    EXPECT_EQ(result.ends, 0);
    EXPECT_EQ(executor->Abandoned(), 1u);
    EXPECT_EQ(executor->Running(), 1u);
    // Others are served meanwhile.
    EXPECT_EQ(Run(ToolPlan({"exit", "5"})).outcome.value, 5);
    ASSERT_EQ(kill(pids.child, SIGCONT), 0);
    EXPECT_TRUE(RunUntil([&result] { return result.ends > 0; }));
    EXPECT_EQ(result.answers, 1);
    EXPECT_EQ(executor->Abandoned(), 0u);
    EXPECT_EQ(executor->Running(), 0u);
    EXPECT_TRUE(WaitEnd(pidfd.Get()));
    EXPECT_EQ(waitpid(pids.child, nullptr, WNOHANG), -1);  // reaped
}

TEST_F(ExecutorTest, AChildThatIsKilledIsAnsweredForAndTakesItsToolAlong) {
    TestPipe pipe;
    Result result;
    Start(ToolPlan({"ignore-term"}), result,
          relays->Start(agent::OwnedFd(dup(pipe.writer.Get())), caller));
    const Pids pids = ReadPids(pipe.reader.Get());
    const agent::OwnedFd pidfd(agent::OpenProcess(pids.tool));
    ASSERT_EQ(kill(pids.child, SIGKILL), 0);
    ASSERT_TRUE(RunUntil([&result] { return result.ends > 0; }));
    EXPECT_EQ(result.outcome.status, 8);
    EXPECT_TRUE(WaitEnd(pidfd.Get()));
}

TEST_F(ExecutorTest, OutputBehindTheCapIsCountedAndDropped) {
    agent::RelayLimits limits;
    limits.cap = 10000;
    Restart(agent::ExecutorLimits(), limits);
    const Result result = Run(ToolPlan({"flood", "3000000"}));
    EXPECT_EQ(result.outcome.status, 0);
    EXPECT_EQ(result.outcome.value, 0);
    EXPECT_EQ(result.outcome.droppedBytes, 2990000u);
    EXPECT_EQ(result.output, std::string(10000, 'x') + "\n[2990000 more bytes dropped]\n");
    EXPECT_EQ(result.outcome.outBytes, result.output.size());
}

TEST_F(ExecutorTest, ACallerThatDoesNotReadHoldsUpNeitherToolNorAnswer) {
    TestPipe pipe;
    ASSERT_GT(fcntl(pipe.writer.Get(), F_SETPIPE_SZ, 4096), 0);
    Result result;
    Start(ToolPlan({"flood", "3000000"}), result, relays->Start(std::move(pipe.writer), caller));
    ASSERT_TRUE(RunUntil([&result] { return result.ends > 0; }));
    EXPECT_EQ(result.outcome.status, 0);
    EXPECT_EQ(result.outcome.value, 0);
    EXPECT_LT(result.outcome.duration.count(), 5000);
    EXPECT_EQ(relays->Count(), 1u);  // still waiting for the reader, without the agent
}

TEST_F(ExecutorTest, ACallerThatClosesItsEndDoesNotEndTheTool) {
    TestPipe pipe;
    pipe.reader.Reset();
    Result result;
    Start(ToolPlan({"flood", "3000000"}), result, relays->Start(std::move(pipe.writer), caller));
    ASSERT_TRUE(RunUntil([&result] { return result.ends > 0; }));
    EXPECT_EQ(result.outcome.status, 0);
    EXPECT_EQ(result.outcome.value, 0);
    EXPECT_EQ(result.outcome.outBytes, 0u);
    EXPECT_EQ(result.outcome.droppedBytes, 3000000u);
}

TEST_F(ExecutorTest, AToolWhosePipeBreaksSeesAnErrorAndNoSignal) {
    TestPipe pipe;
    Result result;
    std::shared_ptr<agent::Relay> relay = relays->Start(std::move(pipe.writer), caller);
    Start(ToolPlan({"flood", "2000000000"}), result, relay);
    ASSERT_EQ(kill(relay->GetPid(), SIGKILL), 0);
    ASSERT_TRUE(RunUntil([&result] { return result.ends > 0; }));
    EXPECT_EQ(result.outcome.status, 0);
    EXPECT_EQ(result.outcome.value, 7);
}

TEST_F(ExecutorTest, TwoHundredRequestsAreServedWhileOneHangs) {
    Restart(ShortLimits(), agent::RelayLimits());
    agent::QuotaLimits limits;
    limits.running = 6;
    limits.waiting = 400;
    limits.perMinute = 400;
    agent::Quota quota(limits);
    std::vector<Result> results(200);
    std::size_t finished = 0;
    TestPipe hungPipe;
    std::function<void(std::size_t)> launch = [&](std::size_t id) {
        const bool hung = id == 0;
        Plan plan = hung ? ToolPlan({"ignore-term"}) : ToolPlan({"exit", std::to_string(id % 100)});
        plan.deadline = hung ? milliseconds(15000) : milliseconds(60000);
        executor->Start(
            test::PermitFor(plan), caller,
            hung ? relays->Start(agent::OwnedFd(dup(hungPipe.writer.Get())), caller) : nullptr,
            std::chrono::steady_clock::now(),
            [&results, id](const agent::Outcome& outcome) {
                results[id].outcome = outcome;
                ++results[id].answers;
            },
            [&, id] {
                ++finished;
                for (const std::uint64_t next : quota.Leave(caller.uid, id)) {
                    launch(static_cast<std::size_t>(next));
                }
            });
    };
    for (std::size_t id = 0; id < results.size(); ++id) {
        const agent::Result<agent::Quota::Entry> entry =
            quota.Enter(caller.uid, id, std::chrono::steady_clock::now());
        ASSERT_TRUE(entry) << entry.Reason();
        if (*entry == agent::Quota::Entry::kRun) {
            launch(id);
        }
    }
    ASSERT_TRUE(RunUntil([&finished] { return finished == 199; }));
    EXPECT_EQ(results[0].answers, 0);
    for (std::size_t id = 1; id < results.size(); ++id) {
        EXPECT_EQ(results[id].answers, 1);
        EXPECT_EQ(results[id].outcome.status, 0);
        EXPECT_EQ(results[id].outcome.value, static_cast<int>(id % 100));
    }
    const Pids pids = ReadPids(hungPipe.reader.Get());
    ASSERT_EQ(kill(pids.tool, SIGKILL), 0);
    ASSERT_TRUE(RunUntil([&finished] { return finished == 200; }));
    EXPECT_EQ(results[0].outcome.value, 128 + SIGKILL);
    EXPECT_EQ(quota.Running(), 0u);
}

// A process in the agent's place runs the plan; it is killed without warning.
class AgentDeathTest : public ExecutorTest {
protected:
    void ExpectNothingLeft(const Plan& plan) {
        TestPipe pipe;
        TestPipe relayPipe;
        const pid_t agentPid = fork();
        ASSERT_GE(agentPid, 0);
        if (agentPid == 0) {
            Restart(agent::ExecutorLimits(), agent::RelayLimits());
            Result result;
            const std::shared_ptr<agent::Relay> relay =
                relays->Start(agent::OwnedFd(dup(pipe.writer.Get())), caller);
            const std::string line = "pid " + std::to_string(relay->GetPid()) + " 0\n";
            (void)!write(relayPipe.writer.Get(), line.data(), line.size());
            Start(plan, result, relay);
            RunUntil([] { return false; });
            _exit(1);
        }
        const Pids pids = ReadPids(pipe.reader.Get());
        const Pids relayPid = ReadPids(relayPipe.reader.Get());
        ASSERT_GT(pids.tool, 0);
        ASSERT_GT(relayPid.tool, 0);
        const agent::OwnedFd all[] = {agent::OwnedFd(agent::OpenProcess(pids.tool)),
                                      agent::OwnedFd(agent::OpenProcess(pids.child)),
                                      agent::OwnedFd(agent::OpenProcess(relayPid.tool))};
        ASSERT_EQ(kill(agentPid, SIGKILL), 0);
        ASSERT_EQ(waitpid(agentPid, nullptr, 0), agentPid);
        for (const agent::OwnedFd& one : all) {
            ASSERT_TRUE(one);
            EXPECT_TRUE(WaitEnd(one.Get()));
        }
    }
};

TEST_F(AgentDeathTest, AKilledAgentLeavesNoProcessBehind) {
    ExpectNothingLeft(ToolPlan({"ignore-term"}));
}

TEST_F(AgentDeathTest, AKilledAgentLeavesNoSetUserIdToolBehind) {
    ASSERT_EQ(chmod(tool.c_str(), 04755), 0);
    ExpectNothingLeft(ToolPlan({"ignore-term"}));
}

TEST_F(AgentDeathTest, AKilledAgentLeavesNothingBehindAfterReadingASecretAsTheCaller) {
    const std::string path = directory / "credentials";
    ASSERT_TRUE(WriteFile(path, "password=x", 0600));
    ASSERT_EQ(chown(path.c_str(), caller.uid, caller.groups[0]), 0);
    Plan plan = ToolPlan({"ignore-term"});
    plan.secretFile = path;
    ExpectNothingLeft(plan);
}

TEST_F(ExecutorTest, TheEndOfTheExecutorEndsWhatRuns) {
    TestPipe pipe;
    Result result;
    Start(ToolPlan({"ignore-term"}), result,
          relays->Start(agent::OwnedFd(dup(pipe.writer.Get())), caller));
    const Pids pids = ReadPids(pipe.reader.Get());
    const agent::OwnedFd pidfd(agent::OpenProcess(pids.tool));
    executor.reset();
    EXPECT_TRUE(WaitEnd(pidfd.Get()));
    EXPECT_EQ(result.answers, 0);
}

TEST_F(ExecutorTest, NoDescriptorAndNoChildIsLeftBehind) {
    const auto descriptors = [] {
        std::size_t count = 0;
        for (int fd = 0; fd < 1024; ++fd) {
            count += fcntl(fd, F_GETFD) >= 0 ? 1 : 0;
        }
        return count;
    };
    // Other tests of this program have killed theirs and not waited.
    while (waitpid(-1, nullptr, 0) > 0) {
    }
    const std::size_t before = descriptors();
    for (int round = 0; round < 20; ++round) {
        EXPECT_EQ(Run(ToolPlan({"exit", "0"})).outcome.status, 0);
    }
    ASSERT_TRUE(RunUntil([this] { return relays->Count() == 0; }));
    EXPECT_EQ(descriptors(), before);
    EXPECT_EQ(waitpid(-1, nullptr, WNOHANG), -1);
    EXPECT_EQ(errno, ECHILD);
}
