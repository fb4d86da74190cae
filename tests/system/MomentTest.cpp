// SPDX-License-Identifier: Apache-2.0
// What is forced is there from the first moment on: callers in tight loops look for the moment in
// which a mount stands without its flags, or a node without its mode and owner, and for the one in
// which a name means something else.
#include <fcntl.h>
#include <grp.h>
#include <linux/fs.h>
#include <sys/file.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/sysmacros.h>
#include <sys/wait.h>
#include <sys/xattr.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <functional>

#include "AttackFixture.h"

namespace {

const uid_t kMember = 1500;
const uid_t kNobody = 65534;

// What the attackers and the test tell each other.
struct Shared {
    std::atomic<int> turn{0};        // the request that is under way
    std::atomic<int> readyCount{0};  // attackers that have begun
    std::atomic<long> tries{0};
    std::atomic<long> refusals{0};   // reached what is mounted, and its flags were there
    std::atomic<int> firstWrite{0};  // these: the request at which it came about; 0: never
    std::atomic<int> firstRoot{0};
    std::atomic<int> firstWrong{0};
};

void Note(std::atomic<int>& first, int turn) {
    int none = 0;
    (void)first.compare_exchange_strong(none, turn);
}

// The mounts that the kernel lists with `part` in their line.
std::vector<std::string> MountsWith(const std::string& part) {
    std::vector<std::string> found;
    std::istringstream table(Contents("/proc/self/mountinfo"));
    for (std::string line; std::getline(table, line);) {
        if (test::Holds(line, part)) {
            found.push_back(line);
        }
    }
    return found;
}

std::string OptionsOf(const std::string& line) {
    std::istringstream fields(line);
    std::string field;
    for (int i = 0; i < 6; ++i) {
        fields >> field;
    }
    return "," + field + ",";
}

bool HasFlags(const std::string& line, const std::vector<std::string>& flags) {
    for (const std::string& flag : flags) {
        if (!test::Holds(OptionsOf(line), "," + flag + ",")) {
            return false;
        }
    }
    return true;
}

class MomentTest : public AttackTest {
protected:
    void SetUp() override {
        AttackTest::SetUp();
        if (!mounted) {
            return;
        }
        void* const memory = mmap(nullptr, sizeof(Shared), PROT_READ | PROT_WRITE,
                                  MAP_SHARED | MAP_ANONYMOUS, -1, 0);
        ASSERT_NE(MAP_FAILED, memory);
        shared = new (memory) Shared;
        // Where the sources lie nothing protects them but the closed directory above.
        MakeDirectory(At("hidden"), 0700);
        ASSERT_EQ(0, mount("none", At("hidden").c_str(), "tmpfs", 0, "mode=700"));
        for (const char* name : {"hidden/data", "hidden/other"}) {
            MakeDirectory(At(name), 0755);
            MakeFile(At(name) + "/file", "kept", 0666);
            const std::string program = At(name) + "/program";
            MakeFile(program, Contents(STAND_IN_TOOL), 0755);
            ASSERT_EQ(0, chmod(program.c_str(), 04755));
        }
    }
    void TearDown() override {
        for (const pid_t pid : attackers) {
            test::KillAndReap(pid);
        }
        AttackTest::TearDown();
        if (shared != nullptr) {
            (void)munmap(shared, sizeof(Shared));
        }
    }

    // `once` in a loop, as that user, until the test ends.
    void Attack(uid_t uid, const std::function<void()>& once) {
        const int before = shared->readyCount;
        attackers.push_back(test::Fork([&] {
            if (prctl(PR_SET_PDEATHSIG, SIGKILL) != 0 || setgroups(0, nullptr) != 0 ||
                setgid(uid) != 0 || setuid(uid) != 0) {
                return 90;
            }
            (void)signal(SIGPIPE, SIG_IGN);
            ++shared->readyCount;
            for (;;) {
                ++shared->tries;
                once();
            }
            return 0;
        }));
        while (shared->readyCount == before) {
            ASSERT_EQ(0, waitpid(attackers.back(), nullptr, WNOHANG));
            ASSERT_EQ(0, usleep(100));
        }
    }
    void AttackFileAt(const std::string& directory) {
        const std::string file = directory + "/file";
        Attack(kMember, [this, file] {
            const int turn = shared->turn;
            const int opened = open(file.c_str(), O_WRONLY | O_CLOEXEC);
            if (opened >= 0) {
                Note(shared->firstWrite, turn);
                (void)close(opened);
            } else if (errno == EROFS) {
                ++shared->refusals;
            }
        });
    }
    void AttackProgramAt(const std::string& directory) {
        const std::string program = directory + "/program";
        Attack(kNobody, [this, program] {
            const int turn = shared->turn;
            if (access(program.c_str(), F_OK) != 0) {
                return;
            }
            const pid_t child = vfork();
            if (child == 0) {
                (void)execl(program.c_str(), "program", "euid", static_cast<char*>(nullptr));
                _exit(errno == EACCES ? 3 : 4);
            }
            int status = 0;
            (void)waitpid(child, &status, 0);
            if (WIFEXITED(status) && WEXITSTATUS(status) == 42) {
                Note(shared->firstRoot, turn);
            } else if (WIFEXITED(status) && WEXITSTATUS(status) == 3) {
                ++shared->refusals;
            }
        });
    }
    void ExpectNeverReached() const {
        EXPECT_EQ(0, shared->firstWrite) << "a file was opened for writing";
        EXPECT_EQ(0, shared->firstRoot) << "a set-uid program had effect";
        EXPECT_EQ(0, shared->firstWrong);
        RecordProperty("tries", std::to_string(shared->tries));
        std::printf("tries %ld, refused by the flags %ld\n", shared->tries.load(),
                    shared->refusals.load());
    }

    static std::string BindRule(const std::string& source, const std::string& target,
                                const std::string& more) {
        return Rule("sr_mount", "source = \"/mnt/hidden/" + source + "\"\ntarget = \"" + target +
                                    "\"\ntype = \"none\"\noptions.allow = [\"bind\", \"rw\", "
                                    "\"exec\"]\n" +
                                    more);
    }
    static std::string UmountRule() {
        return Rule("sr_umount",
                    "target = \"/mnt/**\"\noptions.allow = \"lazy\"\nopen_parents = true\n");
    }
    // A directory of the member's own, in which he may rename whatever he likes.
    static void MakeOpen() {
        MakeDirectory(At("open"), 0755);
        ASSERT_EQ(0, chown(At("open").c_str(), kMember, kMember));
    }
    static void ClearMountsOf(const std::string& root) {
        for (const std::string& line : MountsWith(root)) {
            std::istringstream fields(line);
            std::string point;
            fields >> point >> point >> point >> point >> point;
            (void)umount2(point.c_str(), MNT_DETACH);
        }
    }

    Shared* shared = nullptr;
    std::vector<pid_t> attackers;
};

const std::vector<std::string> kForced = {"nosuid", "nodev", "ro", "noexec"};
const char kAlways[] = "options.always = [\"ro\", \"noexec\"]\n";

}  // namespace

// ---- mounts

TEST_F(MomentTest, ABindMountIsNeverWritableNorDoSetUserIdProgramsWorkInIt) {
    MakeDirectory(At("to"), 0755);
    Serve(BindRule("data", "/mnt/to", kAlways) + UmountRule(), false);
    AttackFileAt(At("to"));
    AttackProgramAt(At("to"));
    int done = 0;
    for (int i = 1; i <= 200; ++i) {
        shared->turn = i;
        done += Answer("sr_mount", "--bind /mnt/hidden/data /mnt/to") == "0 0" ? 1 : 0;
        (void)Answer("sr_umount", "-l /mnt/to");
    }
    EXPECT_EQ(200, done);
    ExpectNeverReached();
    EXPECT_LT(0, shared->refusals);  // so they were there when it was
}

TEST_F(MomentTest, WhatACallerAsksForDoesNotTakeAwayWhatIsForced) {
    MakeDirectory(At("to"), 0755);
    Serve(BindRule("data", "/mnt/to", kAlways), false);
    EXPECT_EQ("0 0", Answer("sr_mount", "-o bind,rw,exec /mnt/hidden/data /mnt/to"));
    EXPECT_TRUE(HasFlags(MountedOn("/mnt/to"), kForced)) << MountedOn("/mnt/to");
}

TEST_F(MomentTest, ABindMountBelowOpenDirectoriesHasItsFlagsThoughTheParentIsRenamed) {
    MakeOpen();
    MakeDirectory(At("open/dir"), 0755);
    MakeDirectory(At("open/dir/target"), 0755);
    ASSERT_EQ(0, chown(At("open/dir").c_str(), kMember, kMember));
    Serve(BindRule("data", "/mnt/open/dir/target", std::string(kAlways) + "open_parents = true\n"),
          false);
    const std::string request = "--bind /mnt/hidden/data /mnt/open/dir/target";
    const std::string answer = Answer("sr_mount", request);
    std::printf("an honest request: %s\n", answer.c_str());
    EXPECT_EQ("0 0", answer);
    EXPECT_TRUE(HasFlags(MountedOn("/mnt/open/dir/target"), kForced));
    ClearMountsOf(" /data /mnt/");

    const std::string from = At("open/dir");
    const std::string to = At("open/away");
    Attack(kMember, [from, to] {
        (void)rename(from.c_str(), to.c_str());
        (void)rename(to.c_str(), from.c_str());
    });
    AttackFileAt(At("open/dir/target"));
    AttackFileAt(At("open/away/target"));
    int done = 0;
    int wrong = 0;
    for (int i = 1; i <= 100; ++i) {
        shared->turn = i;
        done += Answer("sr_mount", request) == "0 0" ? 1 : 0;
        for (const std::string& line : MountsWith(" /data /mnt/")) {
            if (!HasFlags(line, kForced)) {
                wrong = wrong == 0 ? i : wrong;
            }
        }
        ClearMountsOf(" /data /mnt/");
    }
    std::printf("done %d of 100, left without its flags at request %d\n", done, wrong);
    EXPECT_LT(0, done);
    EXPECT_EQ(0, wrong);
    ExpectNeverReached();
}

TEST_F(MomentTest, AMountThatIsThereAlreadyKeepsItsFlags) {
    MakeOpen();
    MakeDirectory(At("open/target"), 0755);
    const std::string open = "open_parents = true\n";
    Serve(BindRule("data", "/mnt/open/target", kAlways + open) +
              BindRule("other", "/mnt/open/target", open),
          false);
    const std::string first = Answer("sr_mount", "--bind /mnt/hidden/data /mnt/open/target");
    // Whatever becomes of that one, here is one with its flags.
    if (first != "0 0") {
        ASSERT_EQ(0, mount(At("hidden/data").c_str(), At("open/target").c_str(), nullptr, MS_BIND,
                           nullptr));
        ASSERT_EQ(
            0, mount(nullptr, At("open/target").c_str(), nullptr,
                     MS_BIND | MS_REMOUNT | MS_RDONLY | MS_NOEXEC | MS_NOSUID | MS_NODEV, nullptr));
    }
    EXPECT_EQ("0 0", Answer("sr_mount", "--bind /mnt/hidden/other /mnt/open/target"));
    ASSERT_EQ(1U, MountsWith(" /data /mnt/").size());
    EXPECT_TRUE(HasFlags(MountsWith(" /data /mnt/")[0], kForced)) << MountsWith(" /data /mnt/")[0];
    ASSERT_EQ(1U, MountsWith(" /other /mnt/").size());
    EXPECT_TRUE(HasFlags(MountsWith(" /other /mnt/")[0], {"rw", "nosuid", "nodev"}));
}

TEST_F(MomentTest, OfTwoMountsThatRaceForOnePlaceBothHaveTheirFlags) {
    MakeDirectory(At("to"), 0755);
    Serve(BindRule("data", "/mnt/to", kAlways) + BindRule("other", "/mnt/to", ""), false);
    int wrong = 0;
    int refused = 0;
    for (int i = 1; i <= 60; ++i) {
        test::Calls both(connection->Get());
        both.Add("sr_mount", "--bind /mnt/hidden/data /mnt/to");
        both.Add("sr_mount", "--bind /mnt/hidden/other /mnt/to");
        const std::vector<std::string> answers = both.Wait();
        refused += answers == std::vector<std::string>{"0 0", "0 0"} ? 0 : 1;
        const auto data = MountsWith(" /data /mnt/");
        const auto other = MountsWith(" /other /mnt/");
        const bool right = data.size() == 1 && other.size() == 1 && HasFlags(data[0], kForced) &&
                           HasFlags(other[0], {"nosuid", "nodev"});
        wrong = !right && wrong == 0 ? i : wrong;
        while (umount2("/mnt/to", MNT_DETACH) == 0) {
        }
    }
    EXPECT_EQ(0, wrong) << "the first try at which one had lost a flag";
    EXPECT_EQ(0, refused);
}

// A script stands in for a mount(8), or a helper of it, that makes its mount in two steps.
TEST_F(MomentTest, AToolThatSetsFlagsInASecondStepIsSeenOnlyAfterIt) {
    MakeDirectory(At("to"), 0755);
    tools->Add("mount",
               "for last in \"$@\"; do :; done\n"
               "/usr/bin/mount -i -n --bind /mnt/hidden/data \"$last\" || exit 90\n"
               "/usr/bin/mount -i -n -o remount,bind,ro,noexec,nosuid,nodev \"$last\"");
    tools->Add("umount", "exit 1");
    Serve(Rule("sr_mount", std::string("source = \"none\"\ntarget = \"/mnt/to\"\n"
                                       "type = \"tmpfs\"\n") +
                               kAlways) +
              UmountRule(),
          true);
    AttackFileAt(At("to"));
    AttackProgramAt(At("to"));
    int done = 0;
    for (int i = 1; i <= 100; ++i) {
        shared->turn = i;
        done += Answer("sr_mount", "-t tmpfs none /mnt/to") == "0 0" ? 1 : 0;
        (void)Answer("sr_umount", "-l /mnt/to");
    }
    EXPECT_EQ(100, done);
    ExpectNeverReached();
    EXPECT_LT(0, shared->refusals);
}

// mount(8) looks the name of an image up again, whatever it is given.
TEST_F(MomentTest, AnImageExchangedForALinkIsNotOpenedThroughIt) {
    if (!KernelKnows("ext4") || access("/dev/loop-control", R_OK) != 0) {
        SENTREL_SKIP("no ext4 or no loop devices");
    }
    MakeOpen();
    MakeDirectory(At("to"), 0755);
    const std::string make = "mkfs.ext4 -q -F -d /mnt/hidden/";
    ASSERT_EQ(0, system(("truncate -s 8M /mnt/open/image /mnt/hidden/image && " + make +
                         "data /mnt/hidden/image && mkdir /mnt/hidden/none && " + make +
                         "none /mnt/open/image")
                            .c_str()));
    ASSERT_EQ(0, symlink("/mnt/hidden/image", At("open/link").c_str()));
    Serve(Rule("sr_mount",
               "source = \"/mnt/open/image\"\ntarget = \"/mnt/to\"\ntype = \"ext4\"\n"
               "options.allow = \"loop\"\nopen_parents = true\n"),
          false);
    const std::string image = At("open/image");
    const std::string link = At("open/link");
    Attack(kMember, [image, link] {
        (void)renameat2(AT_FDCWD, image.c_str(), AT_FDCWD, link.c_str(), RENAME_EXCHANGE);
    });
    int done = 0;
    int wrong = 0;
    for (int i = 1; i <= 100; ++i) {
        shared->turn = i;
        done += Answer("sr_mount", "-t ext4 -o loop /mnt/open/image /mnt/to") == "0 0" ? 1 : 0;
        wrong = wrong == 0 && Exists("/mnt/to/file") ? i : wrong;
        (void)umount2("/mnt/to", UMOUNT_NOFOLLOW);
    }
    std::printf("done %d of 100, the other image at try %d\n", done, wrong);
    EXPECT_EQ(0, wrong) << "the file system of an image that nobody allowed";
    EXPECT_LT(0, done);
}

// ---- the table beside the kernel's, whose lock anybody may hold

TEST_F(MomentTest, WhoeverHoldsTheLockOfTheTableOfMountsDelaysNoMount) {
    MakeDirectory(At("to"), 0755);
    ASSERT_EQ(0, mount("none", "/run", "tmpfs", MS_NOSUID | MS_NODEV, "mode=755"));
    ASSERT_EQ(0, mkdir("/run/mount", 0755));
    MakeFile("/run/mount/utab", "", 0644);
    MakeFile("/run/mount/utab.lock", "", 0644);
    Attack(kNobody, [this] {
        static const int lock = open("/run/mount/utab.lock", O_RDONLY | O_CLOEXEC);
        if (flock(lock, LOCK_EX) == 0) {
            ++shared->refusals;
        }
        (void)pause();
    });
    while (shared->refusals == 0) {
        ASSERT_EQ(0, usleep(100));
    }
    Serve(Rule("sr_mount",
               "source = \"none\"\ntarget = \"/mnt/to\"\ntype = \"tmpfs\"\n"
               "options.allow = \"_netdev\"\ndeadline = 5\n") +
              BindRule("data", "/mnt/to", "deadline = 5\n"),
          false);
    const auto begin = std::chrono::steady_clock::now();
    EXPECT_EQ("0 0", Answer("sr_mount", "-t tmpfs -o _netdev none /mnt/to"));
    EXPECT_EQ("0 0", Answer("sr_mount", "--bind /mnt/hidden/data /mnt/to"));
    const std::chrono::duration<double> took = std::chrono::steady_clock::now() - begin;
    std::printf("took %.2f s\n", took.count());
    EXPECT_EQ("", Contents("/run/mount/utab"));
    EXPECT_TRUE(test::Holds(MountedOn("/mnt/to"), " /data /mnt/to "));
    (void)umount2("/run", MNT_DETACH);
}

// ---- nodes

class NodeMomentTest : public MomentTest {
protected:
    void ServeNodes(const std::string& owner) {
        Serve(Rule("sr_mknod",
                   "path = \"/mnt/open/*\"\nkind = \"c\"\nmajor = 1\nminor = 3\n"
                   "mode = [\"0666\", \"0660\"]\nopen_parents = true\n" +
                       owner),
              false);
    }
};

TEST_F(NodeMomentTest, ANodeExchangedForAnotherFileLeavesThatAsItIs) {
    MakeOpen();
    MakeFile(At("open/precious"), "root's", 0600);
    const test::Descriptor precious(open(At("open/precious").c_str(), O_RDONLY | O_CLOEXEC));
    ServeNodes("owner = \"nobody\"\n");
    const std::string node = At("open/node");
    const std::string file = At("open/precious");
    std::atomic<long>& exchanges = shared->refusals;
    Attack(kMember, [&exchanges, node, file] {
        if (renameat2(AT_FDCWD, node.c_str(), AT_FDCWD, file.c_str(), RENAME_EXCHANGE) == 0) {
            ++exchanges;
        }
    });
    int wrong = 0;
    int made = 0;
    for (int i = 1; i <= 200 && wrong == 0; ++i) {
        shared->turn = i;
        made += Answer("sr_mknod", "-m 666 /mnt/open/node c 1 3") == "0 0" ? 1 : 0;
        struct stat found = {};
        ASSERT_EQ(0, fstat(precious.Get(), &found));
        if (found.st_mode != (S_IFREG | 0600) || found.st_uid != 0) {
            wrong = i;
        }
        // As at the beginning, while the attacker holds still.
        ASSERT_EQ(0, kill(attackers[0], SIGSTOP));
        ASSERT_EQ(attackers[0], waitpid(attackers[0], nullptr, WUNTRACED));
        if (lstat(file.c_str(), &found) == 0 && S_ISCHR(found.st_mode)) {
            ASSERT_EQ(0, rename(node.c_str(), file.c_str()));
        } else {
            (void)unlink(node.c_str());
        }
        ASSERT_EQ(0, fstat(precious.Get(), &found));
        ASSERT_EQ(1U, found.st_nlink);
        ASSERT_EQ(0, kill(attackers[0], SIGCONT));
    }
    std::printf("made %d, exchanged %ld times, root's file changed at try %d\n", made,
                exchanges.load(), wrong);
    EXPECT_EQ(0, wrong);
    EXPECT_LT(0, exchanges);
    EXPECT_EQ(200, made);
}

TEST_F(NodeMomentTest, ANodeHasItsModeAndOwnerWhenItsNameAppears) {
    MakeOpen();
    ServeNodes("owner = \"nobody\"\n");
    const std::string node = At("open/node");
    Attack(kMember, [this, node] {
        struct stat found = {};
        const int turn = shared->turn;
        if (lstat(node.c_str(), &found) != 0) {
            return;
        }
        if (found.st_mode == (S_IFCHR | 0660) && found.st_uid == kNobody && found.st_gid == 0) {
            ++shared->refusals;
        } else {
            Note(shared->firstWrong, turn);
        }
    });
    for (int i = 1; i <= 100; ++i) {
        shared->turn = i;
        ASSERT_EQ("0 0", Answer("sr_mknod", "-m 660 /mnt/open/node c 1 3"));
        ASSERT_EQ(0, unlink(node.c_str()));
    }
    ExpectNeverReached();
    EXPECT_LT(0, shared->refusals);
}

TEST_F(NodeMomentTest, ANodeTakesNoGroupAndNoAccessListFromItsDirectory) {
    MakeOpen();
    ASSERT_EQ(0, chmod(At("open").c_str(), 02755));
    // As setfacl -d -m u::rwx,u:1500:rw,g::rwx,m::rwx,o::--- writes it.
    struct {
        std::uint32_t version = 2;
        struct {
            std::uint16_t tag;
            std::uint16_t bits;
            std::uint32_t id;
        } entries[5] = {{0x01, 7, 0xffffffff},
                        {0x02, 6, kMember},
                        {0x04, 7, 0xffffffff},
                        {0x10, 7, 0xffffffff},
                        {0x20, 0, 0xffffffff}};
    } list;
    const bool lists =
        setxattr(At("open").c_str(), "system.posix_acl_default", &list, sizeof list, 0) == 0;
    ServeNodes("");
    EXPECT_EQ("0 0", Answer("sr_mknod", "-m 660 /mnt/open/node c 1 3"));
    struct stat found = {};
    ASSERT_EQ(0, lstat(At("open/node").c_str(), &found));
    EXPECT_EQ(static_cast<mode_t>(S_IFCHR | 0660), found.st_mode);
    EXPECT_EQ(0U, found.st_uid);
    EXPECT_EQ(0U, found.st_gid);
    EXPECT_GT(0, getxattr(At("open/node").c_str(), "system.posix_acl_access", nullptr, 0));
    // Nothing else is left in the directory.
    std::size_t entries = 0;
    for (const auto& entry : std::filesystem::directory_iterator(At("open"))) {
        entries += entry.path().filename() == "node" ? 1 : 100;
    }
    EXPECT_EQ(1U, entries);
    if (!lists) {
        SENTREL_SKIP("no access lists here; the rest holds");
    }
}

TEST_F(NodeMomentTest, ANodeIsNotMadeOverAnExistingName) {
    MakeOpen();
    MakeFile(At("open/node"), "kept", 0644, kMember);
    ASSERT_EQ(0, symlink("nowhere", At("open/link").c_str()));
    ServeNodes("");
    test::Pipe output;
    EXPECT_EQ("0 1", Answer("sr_mknod", "/mnt/open/node c 1 3", output.Writer()));
    EXPECT_EQ("mknod: /mnt/open/node: File exists\n", test::ReadReady(output.Reader()));
    EXPECT_EQ("0 1", Answer("sr_mknod", "/mnt/open/link c 1 3"));
    EXPECT_EQ("kept", Contents("/mnt/open/node"));
    EXPECT_FALSE(Exists("/mnt/open/nowhere"));
}
