// SPDX-License-Identifier: Apache-2.0
// The running agent as root, in a mount namespace of this process's own, and callers who try to get
// more out of it than its rules give. Where a script stands in for a tool, it says why.
#include <fcntl.h>
#include <grp.h>
#include <gtest/gtest.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/utsname.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <cstdlib>
#include <filesystem>

#include "AttackFixture.h"

namespace {

// ---- modules; a script stands in for insmod where the kernel loads none

class ModuleTest : public AttackTest {
protected:
    void ServeModules() {
        tools->Add("insmod",
                   ": > \"$DIR/ran\"; echo \"$#\"; printf '<%s>' \"$1\" \"$3\" \"$4\"; echo; cat "
                   "\"$2\"; exit 5");
        Serve(Rule("sr_insmod", "path = \"/mnt/**\"\nparameters = [\"index=*\", \"enable\"]\n"),
              true);
    }
};

TEST_F(ModuleTest, TheToolGetsTwoDashesTheVeryFileAndTheParametersAndNothingElse) {
    MakeDirectory(At("modules"), 0755);
    MakeFile(At("modules/snd.ko"), "the module\n", 0644);
    ServeModules();
    test::Pipe output;
    EXPECT_EQ("0 5", Answer("sr_insmod", "/mnt/modules/snd.ko index=1,2 enable", output.Writer()));
    EXPECT_EQ("4\n<--><index=1,2><enable>\nthe module\n", test::ReadReady(output.Reader()));
}

TEST_F(ModuleTest, AModuleBelowADirectoryThatOthersMayWriteIsRefused) {
    MakeDirectory(At("modules"), 0755);
    MakeFile(At("modules/snd.ko"), "x\n", 0644);
    MakeDirectory(At("open"), 0777);
    MakeDirectory(At("open/deep"), 0755);
    MakeDirectory(At("group"), 0775);
    MakeDirectory(At("sticky"), 01777);
    MakeDirectory(At("theirs"), 0755);
    ServeModules();
    ASSERT_EQ(0, chown(At("theirs").c_str(), test::PlainAccount(), 0));
    for (const char* name : {"open", "open/deep", "group", "sticky", "theirs"}) {
        const std::string path = At(name) + "/snd.ko";
        MakeFile(path, "x\n", 0644);
        ExpectRefused("sr_insmod", path);
    }
    EXPECT_EQ("0 5", Answer("sr_insmod", "/mnt/modules/snd.ko"));  // where it stands is all
}

TEST_F(ModuleTest, AModuleThatAnotherOwnsOrMayWriteIsRefused) {
    MakeFile(At("theirs.ko"), "x\n", 0644, test::PlainAccount());
    MakeFile(At("open.ko"), "x\n", 0666);
    MakeFile(At("group.ko"), "x\n", 0664);
    ServeModules();
    for (const char* name : {"theirs.ko", "open.ko", "group.ko"}) {
        ExpectRefused("sr_insmod", At(name));
    }
}

TEST_F(ModuleTest, ALinkToAModuleIsRefused) {
    MakeDirectory(At("modules"), 0755);
    MakeFile(At("modules/snd.ko"), "x\n", 0644);
    ASSERT_EQ(0, symlink("modules/snd.ko", At("link.ko").c_str()));
    ASSERT_EQ(0, symlink("modules", At("way").c_str()));
    ServeModules();
    ExpectRefused("sr_insmod", At("link.ko"));
    ExpectRefused("sr_insmod", At("way/snd.ko"));
}

TEST_F(ModuleTest, ARealModuleIsLoadedAndTakenOut) {
    utsname system = {};
    ASSERT_EQ(0, uname(&system));
    const std::string path =
        std::string("/usr/lib/modules/") + system.release + "/kernel/drivers/net/dummy.ko";
    if (!Exists("/proc/modules") || !Found("insmod") || !Found("rmmod") || !Exists(path)) {
        SENTREL_SKIP("this kernel loads no modules, or has no dummy.ko, or there is no insmod");
    }
    if (test::Holds(Contents("/proc/modules"), "dummy ")) {
        SENTREL_SKIP("the module of the test is in use");
    }
    Serve(Rule("sr_insmod", "path = \"/usr/lib/modules/**\"\n") +
              Rule("sr_rmmod", "module = \"dummy\"\n"),
          false);
    EXPECT_EQ("0 0", Answer("sr_insmod", path));
    EXPECT_TRUE(test::Holds(Contents("/proc/modules"), "dummy "));
    EXPECT_EQ("0 0", Answer("sr_rmmod", "dummy"));
    EXPECT_FALSE(test::Holds(Contents("/proc/modules"), "dummy "));
}

// ---- shares; a script stands in for mount.cifs, as this needs a server

class ShareTest : public AttackTest {
protected:
    void ServeShares() {
        MakeDirectory(At("share"), 0755);
        tools->Add("mount.cifs", ": > \"$DIR/ran\"; cat <&$PASSWD_FD");
        Serve(Rule("sr_mount_cifs",
                   "source = \"//host/share\"\ntarget = \"/mnt/share\"\n"
                   "options.allow = [\"credentials=/mnt/**\"]\n"),
              true);
        connection = test::ConnectAs(test::PlainAccount());
    }
    static std::string Request(const std::string& file) {
        return "-o credentials=" + file + " //host/share /mnt/share";
    }
};

TEST_F(ShareTest, ACredentialsFileThatTheCallerMayNotReadIsRefusedAndShownNowhere) {
    const uid_t uid = test::PlainAccount();
    MakeDirectory(At("home"), 0755);
    ASSERT_EQ(0, chown(At("home").c_str(), uid, uid));
    MakeFile(At("secret"), "password=Geheimnis\n", 0600);
    MakeFile(At("readable"), "password=Geheimnis\n", 0644);  // may be read, but is not his own
    ASSERT_EQ(0, symlink(At("secret").c_str(), At("home/link").c_str()));
    ASSERT_EQ(0, link(At("secret").c_str(), At("home/name").c_str()));
    ASSERT_EQ(0, mkfifo(At("home/pipe").c_str(), 0600));
    ASSERT_EQ(0, chown(At("home/pipe").c_str(), uid, uid));
    ServeShares();
    // A process of that user's: it is to be told why.
    test::Pipe output;
    const std::vector<std::string> names = {"secret",    "readable", "home/link", "home/name",
                                            "home/pipe", "home",     "home/none"};
    const pid_t caller = test::Fork([&] {
        if (setgroups(0, nullptr) != 0 || setgid(uid) != 0 || setuid(uid) != 0) {
            return 90;
        }
        (void)prctl(PR_SET_DUMPABLE, 1);  // as one that was started by its user
        const test::PlainConnection mine;
        return static_cast<int>(std::count_if(names.begin(), names.end(), [&](const auto& name) {
            return test::Call(mine.Get(), "sr_mount_cifs", Request(At(name)).c_str(),
                              output.Writer())
                       .text != "7 0";
        }));
    });
    EXPECT_EQ(0, test::Reap(caller, test::kLimit));
    EXPECT_FALSE(Exists(tools->File("ran")));
    std::string said;
    for (std::size_t i = 0; i < names.size(); ++i) {
        said += output.ReadLine(test::kLimit) + "\n";
    }
    agent->Signal(SIGTERM);
    EXPECT_EQ(0, agent->WaitForEnd());
    said += agent->Said();
    EXPECT_FALSE(test::Holds(said, "Geheimnis")) << said;
}

TEST_F(ShareTest, TheCallersOwnCredentialsFileIsHandedOn) {
    MakeFile(At("own"), "password=Geheimnis\n", 0600, test::PlainAccount());
    ServeShares();
    // Nothing gets mounted by the script, and the agent notices.
    EXPECT_EQ("1 0", Answer("sr_mount_cifs", Request(At("own"))));
    EXPECT_TRUE(Exists(tools->File("ran")));
}

TEST_F(ShareTest, ARealShareIsMountedAndUnmounted) {
    const char* share = std::getenv("SENTREL_TEST_SHARE");  // "//HOST/SHARE", open to guests
    if (!KernelKnows("cifs") || !Found("mount.cifs") || share == nullptr) {
        SENTREL_SKIP("this kernel has no cifs, or there is no mount.cifs or SENTREL_TEST_SHARE");
    }
    MakeDirectory(At("share"), 0755);
    Serve(Rule("sr_mount_cifs", std::string("source = \"") + share +
                                    "\"\ntarget = \"/mnt/share\"\noptions.allow = \"guest\"\n") +
              Rule("sr_umount_cifs", "target = \"/mnt/share\"\n"),
          false);
    EXPECT_EQ("0 0", Answer("sr_mount_cifs", std::string("-o guest ") + share + " /mnt/share"));
    EXPECT_TRUE(test::Holds(MountedOn("/mnt/share"), " - cifs "));
    EXPECT_EQ("0 0", Answer("sr_umount_cifs", "/mnt/share"));
    EXPECT_EQ("", MountedOn("/mnt/share"));
}

// ---- units; elsewhere a script stands in for systemctl, as this needs a running manager

TEST_F(AttackTest, ARealManagerIsAskedForAUnit) {
    if (!Exists("/run/systemd/system") || !Found("systemctl")) {
        SENTREL_SKIP("no systemd is running here");
    }
    Serve(Rule("sr_systemctl", "verb = \"is-active\"\nunit = \"*\"\n"), false);
    test::Pipe output;
    EXPECT_EQ("0 0", Answer("sr_systemctl", "is-active basic.target", output.Writer()));
    EXPECT_EQ("active\n", test::ReadReady(output.Reader()));
    ExpectRefused("sr_systemctl", "stop basic.target");
}

// ---- mounts, with the system's own tools

TEST_F(AttackTest, AMountPointSwappedForALinkBetweenCheckAndMountIsNotFollowed) {
    // A directory of the caller's, in which he may rename whatever he likes.
    MakeDirectory(At("open"), 0777);
    MakeDirectory(At("open/target"), 0755);
    MakeDirectory(At("elsewhere"), 0755);
    // The agent has checked when it starts this; then comes the caller's part, then the real tool.
    tools->Add("mount",
               "/bin/mv /mnt/open/target /mnt/open/moved && /bin/ln -s /mnt/elsewhere "
               "/mnt/open/target || exit 90\nexec /usr/bin/mount \"$@\"");
    Serve(Rule("sr_mount",
               "source = \"none\"\ntarget = \"/mnt/open/*\"\ntype = \"tmpfs\"\n"
               "open_parents = true\n"),
          true);
    test::Pipe output;
    const std::string answer =
        Answer("sr_mount", "-t tmpfs none /mnt/open/target", output.Writer());
    EXPECT_EQ("0 0", answer) << test::ReadReady(output.Reader());
    EXPECT_EQ("/mnt/elsewhere", std::filesystem::read_symlink("/mnt/open/target"));
    EXPECT_EQ("", MountedOn("/mnt/elsewhere"));
    EXPECT_NE("", MountedOn("/mnt/open/moved"));  // the very directory that was checked

    // And once the link is there, it is refused.
    tools->Add("mount", ": > \"$DIR/ran\"");
    ExpectRefused("sr_mount", "-t tmpfs none /mnt/open/target");
    EXPECT_EQ("", MountedOn("/mnt/elsewhere"));
}

TEST_F(AttackTest, RemountAndBindOverASystemDirectoryAreRefusedWhateverElseIsAllowed) {
    for (const char* name : {"from", "to", "memory"}) {
        MakeDirectory(At(name), 0755);
    }
    MakeFile(At("from/file"), "seen", 0644);
    const std::string fields =
        "source = [\"*\", \"/**\"]\ntype = \"*\"\noptions.allow = [\"*\", \"*=/**\"";
    // Everything on every directory, and binding on one; a wildcard never means "bind".
    Serve(Rule("sr_mount", "target = \"/mnt/to\"\n" + fields + ", \"bind\"]\n") +
              Rule("sr_mount", "target = \"/**\"\n" + fields + "]\n"),
          false);
    EXPECT_EQ("0 0", Answer("sr_mount", "--bind /mnt/from /mnt/to"));
    EXPECT_EQ("seen", Contents("/mnt/to/file"));
    EXPECT_EQ("0 0", Answer("sr_mount", "-t tmpfs -o ro none /mnt/memory"));
    const std::string before = Contents("/proc/self/mountinfo");
    for (const char* text :
         {"--bind /mnt/from /etc", "-o bind /mnt/from /etc", "-o bind,ro /mnt/from /usr/bin",
          "-o rbind /mnt/from /etc", "--rbind /mnt/from /etc", "-o move /mnt/to /etc",
          "--bind /mnt/from /mnt/to/../../etc", "-o remount,rw none /mnt/memory",
          "-t tmpfs -o remount,rw none /mnt/memory", "-o remount,bind,rw /mnt/from /mnt/to",
          "-o remount,suid,dev none /mnt/memory", "-o remount,rw /dev/root /"}) {
        ExpectRefused("sr_mount", text);
    }
    EXPECT_EQ(before, Contents("/proc/self/mountinfo"));
}

class ImageTest : public AttackTest {
protected:
    // A file system of the type in a file, mounted over a loop device by the agent, looked at, and
    // unmounted.
    void MountImage(const std::string& type, const std::string& make) {
        if (!KernelKnows(type)) {
            SENTREL_SKIP("this kernel has no " + type);
        }
        if (access("/dev/loop-control", R_OK) != 0 || !Found(make)) {
            SENTREL_SKIP("no loop devices, or no " + make);
        }
        MakeDirectory(At("target"), 0755);
        ASSERT_EQ(0, system(("truncate -s 8M /mnt/image && " + make +
                             " /mnt/image >/dev/null 2>&1 </dev/null")
                                .c_str()));
        Serve(Rule("sr_mount", "source = \"/mnt/*\"\ntarget = \"/mnt/*\"\ntype = \"" + type +
                                   "\"\noptions.allow = [\"loop\", \"noatime\"]\n") +
                  Rule("sr_umount", "target = \"/mnt/*\"\n"),
              false);
        test::Pipe output;
        EXPECT_EQ("0 0",
                  Answer("sr_mount", "-t " + type + " -o loop,noatime /mnt/image /mnt/target",
                         output.Writer()))
            << test::ReadReady(output.Reader());
        const std::string line = MountedOn("/mnt/target");
        EXPECT_TRUE(test::Holds(line, " /mnt/target rw,nosuid,nodev,noatime ")) << line;
        EXPECT_TRUE(test::Holds(line, " - " + type + " /dev/loop")) << line;
        EXPECT_FALSE(LoopDevice().empty());
        MakeFile("/mnt/target/file", "kept", 0644);
        EXPECT_EQ("0 0", Answer("sr_umount", "/mnt/target"));
        EXPECT_EQ("", MountedOn("/mnt/target"));
        EXPECT_FALSE(Exists("/mnt/target/file"));
        EXPECT_EQ("", LoopDevice());
    }
    // The one that has the image; empty when none has.
    static std::string LoopDevice() {
        std::error_code ignored;
        for (const auto& entry : std::filesystem::directory_iterator("/sys/block", ignored)) {
            if (Contents(entry.path() / "loop/backing_file") == "/mnt/image\n") {
                return entry.path().filename();
            }
        }
        return "";
    }
};

TEST_F(ImageTest, AnExt4ImageIsMountedOverALoopDeviceAndNothingOfItIsLeft) {
    MountImage("ext4", "mkfs.ext4");
}

TEST_F(ImageTest, AVfatImageIsMountedOverALoopDeviceAndNothingOfItIsLeft) {
    MountImage("vfat", "mkfs.vfat");
}

}  // namespace
