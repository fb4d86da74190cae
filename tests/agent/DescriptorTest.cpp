// SPDX-License-Identifier: Apache-2.0
// Taking the caller's descriptor: what is given, and what no caller gets us to write to.
#include "relay/Descriptor.h"

#include <grp.h>
#include <linux/capability.h>
#include <signal.h>
#include <sys/fsuid.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/wait.h>

#include <functional>

#include "ChildProcess.h"
#include "MountNamespace.h"
#include "RunFixture.h"
#include "StreamListener.h"
#include "base/AsCaller.h"
#include "base/Process.h"

using agent::Caller;
using agent::OwnedFd;

namespace {

struct Taken {
    OwnedFd fd;
    std::string refusal;
};

Taken TakeFrom(const Caller& caller, int number) {
    agent::Result<OwnedFd> result = agent::TakeDescriptor(caller, number);
    Taken taken;
    if (result) {
        taken.fd = std::move(*result);
    } else {
        taken.refusal = result.Reason();
    }
    return taken;
}

// A process of the caller's. `open` runs in it and returns the number of a descriptor, or -1; then
// it stays until the end of this object. `become` may turn it into another program.
class CallerProcess {
public:
    // `savedUid`: what the process could become again.
    explicit CallerProcess(const std::function<int()>& open,
                           const std::function<void()>& become = nullptr, uid_t savedUid = kNobody)
        : saved(savedUid) {
        TestPipe numbers;
        caller = TestCaller();
        const pid_t pid = fork();
        if (pid == 0) {
            (void)prctl(PR_SET_PDEATHSIG, SIGKILL);
            Live(numbers.writer.Get(), open, become);
        }
        caller.pid = pid;
        numbers.writer.Reset();
        if (read(numbers.reader.Get(), &number, sizeof number) != sizeof number) {
            number = -1;
        }
        // Closed by the change into another program.
        char rest = 0;
        changed = become && read(numbers.reader.Get(), &rest, 1) == 0;
    }
    CallerProcess(const CallerProcess&) = delete;
    CallerProcess& operator=(const CallerProcess&) = delete;
    ~CallerProcess() {
        (void)kill(caller.pid, SIGKILL);
        (void)waitpid(caller.pid, nullptr, 0);
    }

    Taken Take() const { return TakeFrom(caller, number); }

    Caller caller;
    int number = -1;
    bool changed = false;
    uid_t saved;

private:
    [[noreturn]] void Live(int report, const std::function<int()>& open,
                           const std::function<void()>& become) const {
        if (geteuid() == 0 &&
            (setgroups(0, nullptr) != 0 || setresgid(kNobody, kNobody, kNobody) != 0 ||
             setresuid(kNobody, kNobody, saved) != 0 || prctl(PR_SET_DUMPABLE, 1) != 0)) {
            _exit(1);
        }
        const int opened = open();
        (void)!write(report, &opened, sizeof opened);
        if (become) {
            become();
            _exit(1);
        }
        for (;;) {
            pause();
        }
    }
};

class DescriptorTest : public ::testing::Test {
protected:
    void ExpectTaken(const std::function<int()>& open) {
        const CallerProcess process(open);
        ASSERT_GE(process.number, 0);
        const Taken taken = process.Take();
        EXPECT_TRUE(taken.fd) << taken.refusal;
        EXPECT_EQ(taken.refusal, "");
    }

    void ExpectRefused(const std::function<int()>& open, const std::string& reason) {
        const CallerProcess process(open);
        ASSERT_GE(process.number, 0);
        const Taken taken = process.Take();
        EXPECT_FALSE(taken.fd);
        EXPECT_NE(taken.refusal.find(reason), std::string::npos) << taken.refusal;
    }

    static int Pair(int type, int domain = AF_UNIX) {
        int ends[2];
        return socketpair(domain, type, 0, ends) == 0 ? ends[0] : -1;
    }

    PrivateDirectory directory;
};

int OpenPipe() {
    int ends[2];
    return pipe(ends) == 0 ? ends[1] : -1;
}

std::string Rights() {
    std::istringstream status(Contents("/proc/thread-self/status"));
    std::string line;
    std::string found;
    while (std::getline(status, line)) {
        if (line.find("Uid:") == 0 || line.find("Gid:") == 0 || line.find("Cap") == 0) {
            found += line + "\n";
        }
    }
    return found;
}

}  // namespace

TEST_F(DescriptorTest, NumbersUpToZeroMeanNoOutput) {
    for (const int number : {0, -1, -1000, static_cast<int>(0x80000000)}) {
        const Taken taken = TakeFrom(TestCaller(), number);
        EXPECT_FALSE(taken.fd);
        EXPECT_EQ(taken.refusal, "");
    }
}

TEST_F(DescriptorTest, NumbersThatDoNotExistAreRefused) {
    const CallerProcess process(OpenPipe);
    for (const int number : {999, 1048575, 1048576, 2147483647}) {
        const Taken taken = TakeFrom(process.caller, number);
        EXPECT_FALSE(taken.fd);
        EXPECT_NE(taken.refusal, "");
    }
}

TEST_F(DescriptorTest, WhatOutputMayGoToIsTaken) {
    ExpectTaken(OpenPipe);
    ExpectTaken([] { return Pair(SOCK_STREAM); });
    ExpectTaken([] { return open("/dev/null", O_WRONLY); });
    ExpectTaken([] { return memfd_create("file", 0); });
    ExpectTaken([] {
        const int terminal = posix_openpt(O_RDWR | O_NOCTTY);
        return grantpt(terminal) == 0 && unlockpt(terminal) == 0
                   ? open(ptsname(terminal), O_WRONLY | O_NOCTTY)
                   : -1;
    });
}

TEST_F(DescriptorTest, WhatOutputMayNotGoToIsRefused) {
    ExpectRefused([] { return open("/tmp", O_RDONLY | O_DIRECTORY); }, "not open for writing");
    ExpectRefused([] { return open("/dev/null", O_RDONLY); }, "not open for writing");
    ExpectRefused([] { return open("/dev/null", O_PATH); }, "not open for writing");
    ExpectRefused([] { return Pair(SOCK_DGRAM); }, "another kind");
    ExpectRefused([] { return Pair(SOCK_SEQPACKET); }, "another kind");
    ExpectRefused([] { return socket(AF_INET, SOCK_STREAM, 0); }, "another kind");
    ExpectRefused([] { return open("/dev/zero", O_WRONLY); }, "kind that is not written");
    ExpectRefused([] { return open("/proc/self/comm", O_WRONLY); }, "file of the kernel's");
    ExpectRefused([] { return open("/proc/self/oom_score_adj", O_RDWR); }, "file of the kernel's");
}

// What such a stream writes stands in the log, and the tool's lines would stand there too.
TEST_F(DescriptorTest, ASocketThatLeadsToTheSystemsLogIsRefused) {
    ASSERT_EQ(mkdir((directory / "dev").c_str(), 0755), 0);
    const test::StreamListener log(directory / "dev/log");
    ExpectRefused([&log] { return log.Connect(); }, "leads to the system's log");
    ASSERT_EQ(rename((directory / "dev/log").c_str(), (directory / "plain").c_str()), 0);
    ExpectRefused([&log, this] { return log.Connect(directory / "plain"); },
                  "leads to the system's log");  // it is what it was bound as
    const test::StreamListener other(directory / "catalog");
    ExpectTaken([&other] { return other.Connect(); });
}

TEST_F(DescriptorTest, AStreamToTheJournalIsRefused) {
    NEEDS_MOUNT_NAMESPACE();
    ASSERT_EQ(mount("none", "/run", "tmpfs", MS_NOSUID | MS_NODEV, "mode=755"), 0);
    for (const char* folder :
         {"/run/systemd", "/run/systemd/journal", "/run/systemd/journal.own"}) {
        ASSERT_EQ(mkdir(folder, 0755), 0);
    }
    for (const char* path : {"/run/systemd/journal/stdout", "/run/systemd/journal.own/stdout",
                             "/run/systemd/journal/dev-log"}) {
        const test::StreamListener journal(path);
        ExpectRefused([&journal] { return journal.Connect(); }, "leads to the system's log");
    }
    EXPECT_EQ(umount2("/run", MNT_DETACH), 0);
}

// Its owner could connect it to anything as soon as it has been looked at.
TEST_F(DescriptorTest, ASocketThatIsNotConnectedIsRefused) {
    ExpectRefused([] { return socket(AF_UNIX, SOCK_STREAM, 0); }, "not connected");
}

// As in a container, or under a unit that leaves it fewer capabilities.
TEST_F(DescriptorTest, WithoutTheRightToChangeGroupsNothingIsOpenedAsTheCallerAndNothingEnds) {
    NEEDS_ROOT();
    const pid_t child = test::Fork([] {
        __user_cap_header_struct header = {_LINUX_CAPABILITY_VERSION_3, 0};
        __user_cap_data_struct rights[2] = {};
        if (syscall(SYS_capget, &header, rights) != 0) {
            return 1;
        }
        rights[0].effective &= ~(1U << CAP_SETGID);
        rights[0].permitted &= ~(1U << CAP_SETGID);
        if (syscall(SYS_capset, &header, rights) != 0) {
            return 2;
        }
        bool called = false;
        const OwnedFd opened = agent::OpenAsCaller(1500, 1500, {1500}, [&called] {
            called = true;
            return OwnedFd();
        });
        return opened || called || setfsuid(static_cast<uid_t>(-1)) != 0 ? 3 : 0;
    });
    EXPECT_EQ(test::Reap(child, test::kLimit), 0);
}

TEST_F(DescriptorTest, ADescriptorThatMayOnlyReadRootsFileIsNeverWrittenThrough) {
    NEEDS_ROOT();
    const std::string path = directory / "roots";
    ASSERT_TRUE(WriteFile(path, "as it was", 0644));
    const CallerProcess process([&path] { return open(path.c_str(), O_RDONLY); });
    ASSERT_GE(process.number, 0);
    // The trap is real: root may open it for writing through /proc.
    const std::string link =
        "/proc/" + std::to_string(process.caller.pid) + "/fd/" + std::to_string(process.number);
    EXPECT_TRUE(OwnedFd(open(link.c_str(), O_WRONLY)));
    const Taken taken = process.Take();
    EXPECT_FALSE(taken.fd);
    EXPECT_NE(taken.refusal, "");
    EXPECT_EQ(Contents(path), "as it was");
}

TEST_F(DescriptorTest, ASetUserIdProgramBehindThePidGetsNothing) {
    NEEDS_ROOT();
    const std::string program = directory / "program";
    ASSERT_TRUE(WriteFile(program, Contents(STAND_IN_TOOL), 0755));
    const auto become = [&program] {
        const OwnedFd null(open("/dev/null", O_RDWR));
        (void)dup2(null.Get(), STDOUT_FILENO);
        (void)execl(program.c_str(), "program", "stay", static_cast<char*>(nullptr));
    };
    {
        const CallerProcess ordinary(OpenPipe, become);
        ASSERT_TRUE(ordinary.changed);
        EXPECT_TRUE(ordinary.Take().fd) << ordinary.Take().refusal;
    }
    ASSERT_EQ(chmod(program.c_str(), 04755), 0);
    const CallerProcess privileged(OpenPipe, become);
    ASSERT_TRUE(privileged.changed);
    ASSERT_GE(privileged.number, 0);
    ASSERT_NE(Contents("/proc/" + std::to_string(privileged.caller.pid) + "/status")
                  .find("Uid:\t65534\t0\t0\t0"),
              std::string::npos);
    const Taken taken = privileged.Take();
    EXPECT_FALSE(taken.fd);
    EXPECT_NE(taken.refusal, "");
}

// Its entry below /proc is the caller's: only the rule for tracing tells it from one of theirs.
TEST_F(DescriptorTest, AProgramThatLaidDownItsRightsForAWhileGetsNothing) {
    NEEDS_ROOT();
    EXPECT_TRUE(CallerProcess(OpenPipe, nullptr, kNobody).Take().fd);
    const CallerProcess process(OpenPipe, nullptr, 0);
    ASSERT_GE(process.number, 0);
    struct stat entry = {};
    ASSERT_EQ(stat(("/proc/" + std::to_string(process.caller.pid) + "/fd").c_str(), &entry), 0);
    ASSERT_EQ(entry.st_uid, kNobody);
    const Taken taken = process.Take();
    EXPECT_FALSE(taken.fd);
    EXPECT_NE(taken.refusal, "");
}

TEST_F(DescriptorTest, AProcessOfAnotherUserIsNotLookedInto) {
    NEEDS_ROOT();
    const TestPipe pipe;
    Caller caller = TestCaller();  // says nobody, but the pid is root's own
    EXPECT_FALSE(TakeFrom(caller, pipe.writer.Get()).fd);
    caller.uid = 0;
    caller.groups = {0};
    EXPECT_TRUE(TakeFrom(caller, pipe.writer.Get()).fd);
}

TEST_F(DescriptorTest, AProcessOfAGroupThatIsNotTheCallersIsNotLookedInto) {
    const CallerProcess process(OpenPipe);
    Caller caller = process.caller;
    caller.groups = {4242};
    EXPECT_FALSE(TakeFrom(caller, process.number).fd);
    caller.groups.clear();  // the bus does not say
    EXPECT_TRUE(TakeFrom(caller, process.number).fd);
}

TEST_F(DescriptorTest, AnUnknownOrEndedProcessIsRefused) {
    Caller caller = TestCaller();
    caller.pid = 0;
    EXPECT_NE(TakeFrom(caller, 1).refusal, "");
    const pid_t zombie = fork();
    if (zombie == 0) {
        _exit(0);
    }
    const OwnedFd pidfd(agent::OpenProcess(zombie));
    ASSERT_TRUE(WaitEnd(pidfd.Get()));
    caller.pid = zombie;
    EXPECT_NE(TakeFrom(caller, 1).refusal, "");
    ASSERT_EQ(waitpid(zombie, nullptr, 0), zombie);
    EXPECT_NE(TakeFrom(caller, 1).refusal, "");
}

TEST_F(DescriptorTest, TheSameOpenFileIsTakenWithItsFlagsAsTheyWere) {
    const CallerProcess process([] {
        const int file = memfd_create("file", 0);
        (void)!write(file, "abc", 3);
        return file;
    });
    const Taken taken = process.Take();
    ASSERT_TRUE(taken.fd) << taken.refusal;
    EXPECT_EQ(lseek(taken.fd.Get(), 0, SEEK_CUR), 3);  // a new opening would stand at 0
    EXPECT_EQ(fcntl(taken.fd.Get(), F_GETFL) & O_NONBLOCK, 0);
    EXPECT_EQ(fcntl(taken.fd.Get(), F_GETFD), FD_CLOEXEC);
}

TEST_F(DescriptorTest, TheAgentHasItsOwnRightsAgainAfterwards) {
    const std::string before = Rights();
    ASSERT_NE(before, "");
    const CallerProcess process(OpenPipe);
    EXPECT_TRUE(process.Take().fd);
    EXPECT_FALSE(TakeFrom(process.caller, 999).fd);
    EXPECT_EQ(Rights(), before);
}
