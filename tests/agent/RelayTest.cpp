// SPDX-License-Identifier: Apache-2.0
// The relay's process: its rights, and that it holds up nobody.
#include "relay/Relay.h"

#include <errno.h>
#include <linux/filter.h>
#include <linux/seccomp.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/syscall.h>

#include "RunFixture.h"
#include "base/Process.h"
#include "decide/Accounts.h"

using agent::OwnedFd;
using agent::Relay;
using std::chrono::milliseconds;

namespace {

class RelayTest : public RunFixture {
protected:
    static bool WriteAll(int fd, const std::string& text) {
        std::size_t done = 0;
        while (done < text.size()) {
            pollfd slot = {fd, POLLOUT, 0};
            const std::size_t piece = std::min<std::size_t>(text.size() - done, 4096);
            const ssize_t count =
                poll(&slot, 1, 10000) == 1 ? write(fd, text.data() + done, piece) : -1;
            if (count <= 0) {
                return false;
            }
            done += static_cast<std::size_t>(count);
        }
        return true;
    }

    // Null when it cannot be started.
    std::shared_ptr<Relay> Begin(const agent::RelayTask& task, const Relay::Known& known) {
        return Begin(task, known, caller);
    }
    std::shared_ptr<Relay> Begin(const agent::RelayTask& task, const Relay::Known& known,
                                 const agent::Caller& asking) {
        const auto started = relays->Start(task, asking, known);
        return started ? *started : nullptr;
    }

    bool RunToItsEnd(const std::shared_ptr<Relay>& relay) {
        return RunUntil([&relay] { return relay->Ended(); });
    }

    static std::string StatusLine(pid_t pid, const std::string& name) {
        std::istringstream status(Contents("/proc/" + std::to_string(pid) + "/status"));
        std::string line;
        while (std::getline(status, line)) {
            if (line.find(name + ":") == 0) {
                return line.substr(name.size() + 2);
            }
        }
        return "";
    }
};

}  // namespace

TEST_F(RelayTest, WhatIsWrittenArrivesAndIsCounted) {
    TestPipe pipe;
    const std::shared_ptr<Relay> relay = relays->Start(std::move(pipe.writer), caller);
    ASSERT_TRUE(relay);
    ASSERT_TRUE(WriteAll(relay->GetInput(), "first\n"));
    EXPECT_EQ(ReadLines(pipe.reader.Get(), 1), "first\n");
    relay->Say("a reason");
    relay->CloseInput();
    ASSERT_TRUE(RunToItsEnd(relay));
    EXPECT_EQ(test::ReadReady(pipe.reader.Get()), "a reason\n");
    EXPECT_EQ(relay->Copied(), 15u);
    EXPECT_EQ(relay->Dropped(), 0u);
    EXPECT_EQ(relays->Count(), 0u);
}

TEST_F(RelayTest, ItHasTheCallersIdsAndNoOtherRight) {
    TestPipe pipe;
    const std::shared_ptr<Relay> relay = relays->Start(std::move(pipe.writer), caller);
    ASSERT_TRUE(WriteAll(relay->GetInput(), "ready\n"));
    ASSERT_EQ(ReadLines(pipe.reader.Get(), 1), "ready\n");
    const std::string uid = std::to_string(caller.uid);
    EXPECT_EQ(StatusLine(relay->GetPid(), "Uid"), uid + "\t" + uid + "\t" + uid + "\t" + uid);
    const std::string gid = std::to_string(caller.groups[0]);
    EXPECT_EQ(StatusLine(relay->GetPid(), "Gid"), gid + "\t" + gid + "\t" + gid + "\t" + gid);
    for (const char* set : {"CapInh", "CapPrm", "CapEff", "CapAmb"}) {
        EXPECT_EQ(StatusLine(relay->GetPid(), set), "0000000000000000") << set;
    }
    EXPECT_EQ(StatusLine(relay->GetPid(), "NoNewPrivs"), "1");
    EXPECT_EQ(StatusLine(relay->GetPid(), "Seccomp"), "2");
    if (geteuid() == 0) {  // nobody else may look
        const std::string list = "ls /proc/" + std::to_string(relay->GetPid()) + "/fd > ";
        ASSERT_EQ(system((list + (directory / "list")).c_str()), 0);
        EXPECT_EQ(Contents(directory / "list"), "0\n1\n2\n3\n");
    }
}

TEST_F(RelayTest, ARootCallersRelayHasNoCapabilitiesEither) {
    NEEDS_ROOT();
    TestPipe pipe;
    caller.uid = 0;
    caller.groups = {0};
    const std::shared_ptr<Relay> relay = relays->Start(std::move(pipe.writer), caller);
    ASSERT_TRUE(WriteAll(relay->GetInput(), "ready\n"));
    ASSERT_EQ(ReadLines(pipe.reader.Get(), 1), "ready\n");
    EXPECT_EQ(StatusLine(relay->GetPid(), "CapPrm"), "0000000000000000");
}

TEST_F(RelayTest, AFilterThatCouldNotBeMadeAtTheStartIsMadeWhenItIsNeeded) {
    rlimit before = {};
    ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &before), 0);
    {
        const OwnedFd next(dup(STDIN_FILENO));
        const rlimit none = {static_cast<rlim_t>(next.Get()), before.rlim_max};
        ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &none), 0);
    }
    Restart(agent::ExecutorLimits(), agent::RelayLimits());
    TestPipe pipe;
    EXPECT_FALSE(pipe.writer);  // there was no descriptor left for the filter either
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &before), 0);
    TestPipe output;
    const std::shared_ptr<Relay> relay = relays->Start(std::move(output.writer), caller);
    ASSERT_NE(relay, nullptr);
    ASSERT_TRUE(WriteAll(relay->GetInput(), "ready\n"));
    EXPECT_EQ(ReadLines(output.reader.Get(), 1), "ready\n");
}

TEST_F(RelayTest, AFullPipeThatNobodyReadsHoldsUpNoWriter) {
    TestPipe pipe;
    ASSERT_GT(fcntl(pipe.writer.Get(), F_SETPIPE_SZ, 4096), 0);
    ASSERT_TRUE(WriteAll(pipe.writer.Get(), std::string(4096, 'f')));  // full before it starts
    const std::shared_ptr<Relay> relay = relays->Start(OwnedFd(dup(pipe.writer.Get())), caller);
    ASSERT_TRUE(WriteAll(relay->GetInput(), std::string(3000000, 'x')));
    relay->CloseInput();
    EXPECT_EQ(fcntl(pipe.writer.Get(), F_GETFL) & O_NONBLOCK, 0);
    pipe.writer.Reset();
    // Now somebody reads after all.
    std::string all;
    char piece[65536];
    ssize_t count = 0;
    while ((count = read(pipe.reader.Get(), piece, sizeof piece)) > 0) {
        all.append(piece, static_cast<std::size_t>(count));
    }
    ASSERT_TRUE(RunToItsEnd(relay));
    EXPECT_EQ(all, std::string(4096, 'f') + std::string(1048576, 'x') +
                       "\n[1951424 more bytes dropped]\n");
    EXPECT_EQ(relay->Dropped(), 1951424u);
}

TEST_F(RelayTest, MuchThatComesAtOnceDoesNotBlockItOnASmallPipe) {
    TestPipe pipe;
    ASSERT_GT(fcntl(pipe.writer.Get(), F_SETPIPE_SZ, 4096), 0);
    const std::shared_ptr<Relay> relay = relays->Start(std::move(pipe.writer), caller);
    ASSERT_TRUE(WriteAll(relay->GetInput(), "ready\n"));
    ASSERT_EQ(ReadLines(pipe.reader.Get(), 1), "ready\n");
    ASSERT_EQ(kill(relay->GetPid(), SIGSTOP), 0);
    ASSERT_TRUE(WriteAll(relay->GetInput(), std::string(60000, 'x')));
    ASSERT_EQ(kill(relay->GetPid(), SIGCONT), 0);
    EXPECT_TRUE(WriteAll(relay->GetInput(), std::string(2000000, 'x')));
}

TEST_F(RelayTest, AReaderThatHasGoneEndsNothingButTheCopying) {
    TestPipe pipe;
    pipe.reader.Reset();
    const std::shared_ptr<Relay> relay = relays->Start(std::move(pipe.writer), caller);
    ASSERT_TRUE(WriteAll(relay->GetInput(), std::string(3000000, 'x')));
    relay->CloseInput();
    ASSERT_TRUE(RunToItsEnd(relay));
    EXPECT_EQ(relay->Copied(), 0u);
    EXPECT_EQ(relay->Dropped(), 3000000u);
}

TEST_F(RelayTest, ASocketOrANonBlockingPipeGetsTheWholeOutput) {
    int ends[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends), 0);
    int pipeEnds[2];
    ASSERT_EQ(pipe2(pipeEnds, O_CLOEXEC | O_NONBLOCK), 0);
    ASSERT_EQ(fcntl(pipeEnds[0], F_SETFL, 0), 0);
    const std::pair<int, int> channels[] = {{ends[0], ends[1]}, {pipeEnds[0], pipeEnds[1]}};
    for (const auto& channel : channels) {
        const OwnedFd reader(channel.first);
        const std::shared_ptr<Relay> relay = relays->Start(OwnedFd(channel.second), caller);
        ASSERT_TRUE(WriteAll(relay->GetInput(), std::string(1000000, 'x')));
        relay->CloseInput();
        std::size_t total = 0;
        char piece[65536];
        ssize_t count = 0;
        while ((count = read(reader.Get(), piece, sizeof piece)) > 0) {
            total += static_cast<std::size_t>(count);
        }
        EXPECT_EQ(total, 1000000u);
        EXPECT_TRUE(RunToItsEnd(relay));
    }
}

TEST_F(RelayTest, OneThatIsAbandonedIsKilledAfterItsBound) {
    agent::RelayLimits limits;
    limits.bound = milliseconds(100);
    Restart(agent::ExecutorLimits(), limits);
    TestPipe pipe;
    const std::shared_ptr<Relay> relay = relays->Start(std::move(pipe.writer), caller);
    const OwnedFd held(fcntl(relay->GetInput(), F_DUPFD_CLOEXEC, 3));  // a writer that stays
    relay->Abandon();
    ASSERT_TRUE(RunToItsEnd(relay));
    EXPECT_EQ(relays->Count(), 0u);
    EXPECT_EQ(ReadLines(pipe.reader.Get(), 1), "");  // its copy of the descriptor is closed
}

TEST_F(RelayTest, TheEndIsToldOnceAndTheRelayMayBeDroppedThere) {
    TestPipe pipe;
    std::shared_ptr<Relay> relay = relays->Start(std::move(pipe.writer), caller);
    int told = 0;
    relay->OnEnd([&] {
        ++told;
        relay.reset();
    });
    relay->CloseInput();
    ASSERT_TRUE(RunUntil([&told] { return told > 0; }));
    EXPECT_EQ(told, 1);
    EXPECT_FALSE(relay);
}

TEST_F(RelayTest, TheEndOfAllRelaysKillsThoseThatRun) {
    TestPipe pipe;
    std::shared_ptr<Relay> relay = relays->Start(std::move(pipe.writer), caller);
    const OwnedFd pidfd(agent::OpenProcess(relay->GetPid()));
    relay.reset();
    executor.reset();
    relays.reset();
    EXPECT_TRUE(WaitEnd(pidfd.Get()));
}

TEST_F(RelayTest, WhatTheLookFindsIsToldOnceAndAnOutputIsCopiedTo) {
    TestPipe pipe;
    int told = 0;
    agent::CallerFacts found;
    agent::RelayTask task = TaskToTake(pipe.writer.Get());
    task.executable = [] { return std::string("/usr/bin/some"); };
    const auto known = [&](const agent::CallerFacts& facts) {
        ++told;
        found = facts;
    };
    const std::shared_ptr<Relay> relay = Begin(task, known);
    ASSERT_TRUE(relay);
    EXPECT_EQ(told, 0);  // never before Start() has returned
    ASSERT_TRUE(RunUntil([&told] { return told > 0; }));
    EXPECT_EQ(found.executable, "/usr/bin/some");
    EXPECT_EQ(found.output, relay);
    relay->Say("a line");
    relay->CloseInput();
    ASSERT_TRUE(RunToItsEnd(relay));
    EXPECT_EQ(ReadLines(pipe.reader.Get(), 1), "a line\n");
    EXPECT_EQ(told, 1);
}

TEST_F(RelayTest, ALookWithoutAnOutputTellsTheExecutableAndEnds) {
    agent::CallerFacts found;
    bool told = false;
    agent::RelayTask task;
    task.executable = [] { return std::string(4000, 'x'); };  // more than there is room for
    const auto known = [&](const agent::CallerFacts& facts) {
        told = true;
        found = facts;
    };
    const std::shared_ptr<Relay> relay = Begin(task, known);
    ASSERT_TRUE(RunToItsEnd(relay));
    EXPECT_TRUE(told);
    EXPECT_EQ(found.executable, "");
    EXPECT_FALSE(found.output);
    EXPECT_EQ(found.refusal, "");
    EXPECT_EQ(relays->Count(), 0u);
}

// More groups than one report holds.
TEST_F(RelayTest, TheLookTellsAllThatWasAskedOfTheAccount) {
    agent::CallerFacts found;
    agent::RelayTask task;
    task.executable = [] { return std::string("/usr/bin/some"); };
    task.questions.primary = true;
    for (gid_t group = 1000; group < 1200; ++group) {
        task.questions.groups.insert(group);
    }
    std::set<gid_t> member;
    for (gid_t group = 1000; group < 1200; group += 2) {
        member.insert(group);
    }
    task.account = [&] {
        agent::Account account;
        account.groups = member;
        account.primary = 77;
        return account;
    };
    const std::shared_ptr<Relay> relay =
        Begin(task, [&found](const agent::CallerFacts& facts) { found = facts; });
    ASSERT_TRUE(RunToItsEnd(relay));
    EXPECT_EQ(found.executable, "/usr/bin/some");
    EXPECT_EQ(found.account.groups, member);
    EXPECT_EQ(found.account.asked, task.questions.groups);
    ASSERT_TRUE(found.account.primary);
    EXPECT_EQ(*found.account.primary, 77u);
}

TEST_F(RelayTest, AnAccountThatCannotBeLookedUpOrTakesTooLongIsUnknownAndTheOutputIsTaken) {
    agent::RelayLimits limits;
    limits.look = milliseconds(2000);
    Restart(agent::ExecutorLimits(), limits);
    const TestPipe pipe;
    agent::RelayTask task = TaskToTake(pipe.writer.Get());
    task.questions.groups = {44};
    for (const bool hangs : {true, false}) {
        agent::CallerFacts found;
        bool told = false;
        task.account = [hangs]() -> agent::Account {
            while (hangs) {
                pause();
            }
            throw agent::LookUpFailed("no");
        };
        const auto known = [&](const agent::CallerFacts& facts) {
            told = true;
            found = facts;
        };
        const std::shared_ptr<Relay> relay = Begin(task, known);
        ASSERT_TRUE(RunUntil([&told] { return told; }));
        EXPECT_TRUE(found.account.asked.empty());
        EXPECT_EQ(found.output, relay) << found.refusal;
        found.output.reset();
        relay->CloseInput();
        ASSERT_TRUE(RunToItsEnd(relay));
    }
}

TEST_F(RelayTest, ARefusedOutputIsToldWithItsReason) {
    agent::CallerFacts found;
    agent::RelayTask task;
    task.output = [] { return agent::Refusal{"not this one"}; };
    const std::shared_ptr<Relay> relay =
        Begin(task, [&found](const agent::CallerFacts& facts) { found = facts; });
    ASSERT_TRUE(RunToItsEnd(relay));
    EXPECT_FALSE(found.output);
    EXPECT_EQ(found.refusal, "not this one");
    task.output = [] { return OwnedFd(); };  // neither one nor a reason
    const std::shared_ptr<Relay> other =
        Begin(task, [&found](const agent::CallerFacts& facts) { found = facts; });
    ASSERT_TRUE(RunToItsEnd(other));
    EXPECT_FALSE(found.output);
    EXPECT_EQ(found.refusal, "the output descriptor cannot be taken");
}

// A kernel without filters, as far as this process and its children can tell.
bool RefuseFilters() {
    sock_filter program[] = {
        BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, nr)),
        BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, SYS_prctl, 0, 3),
        BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, args)),
        BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, PR_SET_SECCOMP, 0, 1),
        BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ERRNO | EINVAL),
        BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW),
    };
    const sock_fprog filter = {sizeof program / sizeof program[0], program};
    return prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) == 0 &&
           prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &filter) == 0;
}

TEST_F(RelayTest, WithoutAFilterAnOutputIsRefusedBeforeAnythingIsCopied) {
    const TestPipe pipe;
    const pid_t child = test::Fork([&] {
        EXPECT_TRUE(RefuseFilters());
        Restart(agent::ExecutorLimits(), agent::RelayLimits());
        agent::CallerFacts found;
        const std::shared_ptr<Relay> relay =
            Begin(TaskToTake(pipe.writer.Get()),
                  [&found](const agent::CallerFacts& facts) { found = facts; });
        EXPECT_TRUE(relay);
        EXPECT_TRUE(relay && RunToItsEnd(relay));
        EXPECT_FALSE(found.output);
        EXPECT_EQ(found.refusal, "the process that copies the output cannot lay down its rights");
        return HasFailure() ? 1 : 0;
    });
    EXPECT_EQ(test::Reap(child, test::kLimit), 0);
}

TEST_F(RelayTest, ALookThatTakesTooLongIsGivenUpWithWhatItFoundSoFar) {
    agent::RelayLimits limits;
    limits.look = milliseconds(200);
    Restart(agent::ExecutorLimits(), limits);
    agent::CallerFacts found;
    agent::RelayTask task;
    task.executable = [] { return std::string("/usr/bin/some"); };
    task.output = []() -> agent::Result<OwnedFd> {
        for (;;) {
            pause();
        }
    };
    const std::shared_ptr<Relay> relay =
        Begin(task, [&found](const agent::CallerFacts& facts) { found = facts; });
    ASSERT_TRUE(RunToItsEnd(relay));
    EXPECT_EQ(found.executable, "/usr/bin/some");
    EXPECT_FALSE(found.output);
    EXPECT_EQ(found.refusal, "the output descriptor does not answer");
    EXPECT_EQ(relays->Count(), 0u);
    EXPECT_EQ(relays->Hung(), 0u);
}

TEST_F(RelayTest, ALookThatDiesIsToldToo) {
    agent::CallerFacts found;
    int told = 0;
    agent::RelayTask task;
    task.output = []() -> agent::Result<OwnedFd> { _exit(3); };
    const auto known = [&](const agent::CallerFacts& facts) {
        ++told;
        found = facts;
    };
    const std::shared_ptr<Relay> relay = Begin(task, known);
    ASSERT_TRUE(RunToItsEnd(relay));
    EXPECT_EQ(told, 1);
    EXPECT_EQ(found.refusal, "the output descriptor cannot be looked at");
    task.output = nullptr;
    task.executable = []() -> std::string { _exit(3); };
    const std::shared_ptr<Relay> other = Begin(task, known);
    ASSERT_TRUE(RunToItsEnd(other));
    EXPECT_EQ(told, 2);
    EXPECT_EQ(found.refusal, "");  // none was wanted
}

TEST_F(RelayTest, OnlySoManyLooksOfOneUserAreOpenAtOnceHoweverYoungTheyAre) {
    agent::RelayLimits limits;
    limits.unsure = 3;
    Restart(agent::ExecutorLimits(), limits);
    agent::RelayTask task;
    task.executable = []() -> std::string {
        for (;;) {
            pause();
        }
    };
    std::shared_ptr<Relay> last;
    int started = 0;
    while (started < 10 && relays->HasRoom(caller.uid)) {
        last = Begin(task, [](const agent::CallerFacts&) {});
        ASSERT_TRUE(last);
        ++started;
    }
    EXPECT_EQ(3, started);
    const agent::Check room = relays->HasRoom(caller.uid);
    ASSERT_FALSE(room);
    EXPECT_EQ("too many requests at once", room.Reason());
    EXPECT_TRUE(relays->HasRoom(caller.uid + 1));
    last->Kill();
    ASSERT_TRUE(RunToItsEnd(last));
    EXPECT_TRUE(relays->HasRoom(caller.uid));
}

TEST_F(RelayTest, OneUserAndAllTogetherHaveOnlySoManyChildren) {
    agent::RelayLimits limits;
    limits.ofOne = 2;
    limits.all = 3;
    Restart(agent::ExecutorLimits(), limits);
    agent::Caller other = caller;
    other.uid = caller.uid + 1;
    agent::RelayTask task;
    task.executable = []() -> std::string {
        for (;;) {
            pause();
        }
    };
    const auto known = [](const agent::CallerFacts&) {};
    for (int i = 0; i < 2; ++i) {
        EXPECT_TRUE(relays->HasRoom(caller.uid));
        ASSERT_TRUE(Begin(task, known));
    }
    const agent::Check room = relays->HasRoom(caller.uid);
    ASSERT_FALSE(room);
    EXPECT_EQ(room.Reason(), "too many requests at once");
    EXPECT_TRUE(relays->HasRoom(other.uid));
    const std::shared_ptr<Relay> third = Begin(task, known, other);
    EXPECT_FALSE(relays->HasRoom(other.uid + 1));
    if (caller.uid != 0) {
        EXPECT_TRUE(relays->HasRoom(0)) << "others cannot keep root out";
    }
    third->Kill();
    ASSERT_TRUE(RunToItsEnd(third));
    EXPECT_TRUE(relays->HasRoom(other.uid));
}
