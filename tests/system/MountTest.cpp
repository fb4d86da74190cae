// SPDX-License-Identifier: Apache-2.0
// Real mounts, unmounts and nodes, made with the system's own tools in a mount namespace that ends
// with the test's process, and what a caller may try against them.
#include <sys/ioctl.h>
#include <sys/mount.h>
#include <sys/sysmacros.h>

#include <linux/loop.h>

#include "FuseMount.h"
#include "MountNamespace.h"
#include "RunFixture.h"
#include "Unmount.h"

using agent::Pin;
using agent::Plan;

namespace {

class MountTest : public RunFixture {
protected:
    void SetUp() override {
        NEEDS_MOUNT_NAMESPACE();
        RunFixture::SetUp();
        target = directory / "target";
        ASSERT_EQ(mkdir(target.c_str(), 0755), 0);
    }

    void TearDown() override {
        while (umount2(target.c_str(), MNT_DETACH) == 0) {
        }
    }

    static Plan MountPlan(const std::vector<std::string>& options, const std::string& source,
                          const std::string& where) {
        Plan plan;
        plan.agent = "sr_mount";
        plan.argv = {"/usr/bin/mount", "-i", "--no-canonicalize"};
        plan.argv.insert(plan.argv.end(), options.begin(), options.end());
        plan.argv.insert(plan.argv.end(), {"--", source, where});
        plan.requiredMountFlags = {"nosuid", "nodev"};
        plan.pins.push_back(MakePin(plan.argv.size() - 1, Pin::kDirectory, where));
        return plan;
    }

    static Plan BindPlan(const std::string& source, const std::string& where) {
        Plan plan = MountPlan({"-o", "bind,nosuid,nodev"}, source, where);
        plan.pins.push_back(MakePin(plan.argv.size() - 2, Pin::kAny, source));
        return plan;
    }

    static Plan UmountPlan(const std::string& where, const std::vector<std::string>& flags = {}) {
        Plan plan;
        plan.agent = "sr_umount";
        plan.argv = {"/usr/bin/umount", "-i", "--no-canonicalize"};
        plan.argv.insert(plan.argv.end(), flags.begin(), flags.end());
        plan.argv.insert(plan.argv.end(), {"--", where});
        plan.pins.push_back(MakePin(plan.argv.size() - 1, Pin::kMountPoint, where));
        return plan;
    }

    static Plan NodePlan(const std::string& path, const std::vector<std::string>& behind) {
        Plan plan;
        plan.agent = "sr_mknod";
        plan.argv = {"/usr/bin/mknod", "-m", "0640", "--", path};
        plan.argv.insert(plan.argv.end(), behind.begin(), behind.end());
        plan.pins.push_back(MakePin(4, Pin::kParent, path));
        return plan;
    }

    static Pin MakePin(std::size_t argument, Pin::Kind kind, const std::string& path) {
        Pin pin;
        pin.argument = argument;
        pin.kind = kind;
        pin.path = path;
        return pin;
    }

    // The options and the type of the topmost mount on `where`; empty when there is none.
    static std::string MountedOn(const std::string& where) {
        std::istringstream table(Contents("/proc/self/mountinfo"));
        std::string line;
        std::string found;
        while (std::getline(table, line)) {
            std::istringstream fields(line);
            std::string skip, point, options;
            fields >> skip >> skip >> skip >> skip >> point >> options;
            if (point == where) {
                found = options + line.substr(line.find(" - "));
            }
        }
        return found;
    }

    void ExpectFine(const Result& result, int value = 0) {
        EXPECT_EQ(result.outcome.status, 0) << result.outcome.reason;
        EXPECT_EQ(result.outcome.value, value) << result.output;
    }

    bool Shell(const std::string& command) { return system(command.c_str()) == 0; }

    static bool KernelKnows(const std::string& type) {
        return Contents("/proc/filesystems").find("\t" + type + "\n") != std::string::npos;
    }

    static bool HasExt4OverLoop() {
        return KernelKnows("ext4") && access("/dev/loop-control", R_OK) == 0;
    }

    // The loop device of a new ext4 image; empty when one could not be made.
    std::string AttachImage() {
        const std::string image = directory / "image";
        if (!Shell("truncate -s 8M " + image + " && mkfs.ext4 -q -F " + image +
                   " && losetup --find --show " + image + " > " + (directory / "device"))) {
            return "";
        }
        const std::string line = Contents(directory / "device");
        return line.substr(0, line.find('\n'));
    }

    // Mounts an image of the type over a loop device, looks at it, and unmounts it.
    void MountImage(const std::string& type, const std::string& make) {
        if (!KernelKnows(type)) {
            SENTREL_SKIP("this kernel has no " + type);
        }
        if (access("/dev/loop-control", R_OK) != 0 ||
            !Shell("command -v " + make + " >/dev/null")) {
            SENTREL_SKIP("no loop devices, or no " + make);
        }
        const std::string image = directory / "image";
        ASSERT_TRUE(Shell("truncate -s 8M " + image + " && " + make + " " + image + " >/dev/null"));
        Plan plan = MountPlan({"-t", type, "-o", "loop,nosuid,nodev"}, image, target);
        plan.pins.push_back(MakePin(plan.argv.size() - 2, Pin::kFile, image));
        ExpectFine(Run(plan));
        EXPECT_NE(MountedOn(target).find(" - " + type + " /dev/loop"), std::string::npos);
        EXPECT_TRUE(WriteFile(target + "/file", "kept", 0644));
        ExpectFine(Run(UmountPlan(target)));
        EXPECT_EQ(MountedOn(target), "");
    }

    std::string target;
};

}  // namespace

TEST_F(MountTest, AMemoryFileSystemIsMountedAndUnmounted) {
    ExpectFine(Run(MountPlan({"-t", "tmpfs", "-o", "size=64k,nosuid,nodev"}, "none", target)));
    EXPECT_EQ(MountedOn(target).find("rw,nosuid,nodev"), 0u) << MountedOn(target);
    EXPECT_NE(MountedOn(target).find("tmpfs none"), std::string::npos);
    ExpectFine(Run(UmountPlan(target)));
    EXPECT_EQ(MountedOn(target), "");
}

TEST_F(MountTest, ADirectoryIsBoundToAnotherBelowRootsOwnDirectories) {
    ASSERT_EQ(mount("none", "/mnt", "tmpfs", MS_NOSUID, "mode=755"), 0);
    const std::string source = directory / "source";
    const std::string where = "/mnt/where";
    ASSERT_EQ(mkdir(source.c_str(), 0755), 0);
    ASSERT_EQ(mkdir(where.c_str(), 0755), 0);
    ASSERT_TRUE(WriteFile(source + "/file", "seen through the binding", 0644));
    ExpectFine(Run(BindPlan(source, where)));
    EXPECT_EQ(Contents(where + "/file"), "seen through the binding");
    EXPECT_NE(MountedOn(where).find("nosuid,nodev"), std::string::npos);
    ExpectFine(Run(UmountPlan(where)));
    EXPECT_EQ(Contents(where + "/file"), "");
    EXPECT_EQ(umount2("/mnt", 0), 0);
}

// mount(8) binds first and sets the flags afterwards, which it cannot do by a pinned descriptor.
TEST_F(MountTest, ABindingThatCannotGetItsFlagsIsTakenBack) {
    const std::string source = directory / "source";
    ASSERT_EQ(mkdir(source.c_str(), 0755), 0);
    const Result result = Run(BindPlan(source, target));
    EXPECT_EQ(result.outcome.status, 1);
    EXPECT_NE(result.outcome.reason.find("unmounted again"), std::string::npos);
    EXPECT_EQ(MountedOn(target), "");
}

TEST_F(MountTest, AnExt4ImageIsMountedOverALoopDevice) {
    MountImage("ext4", "mkfs.ext4 -q -F");
}

TEST_F(MountTest, AVfatImageIsMountedOverALoopDevice) {
    MountImage("vfat", "mkfs.vfat");
}

TEST_F(MountTest, AMountedDeviceKeepsItsName) {
    if (!HasExt4OverLoop()) {
        SENTREL_SKIP("no ext4 or no loop devices");
    }
    const std::string device = AttachImage();
    ASSERT_FALSE(device.empty());
    Plan plan = MountPlan({"-t", "ext4", "-o", "nosuid,nodev"}, device, target);
    plan.pins.push_back(MakePin(plan.argv.size() - 2, Pin::kFile, device));
    plan.pins.back().rootOwnedChain = true;
    ExpectFine(Run(plan));
    EXPECT_NE(MountedOn(target).find(" - ext4 " + device + " "), std::string::npos);
    ExpectFine(Run(UmountPlan(target)));
    EXPECT_TRUE(Shell("losetup --detach " + device));
}

TEST_F(MountTest, AMountPointSwappedForALinkAfterTheCheckIsNotFollowed) {
    const std::string moved = directory / "moved";
    const std::string elsewhere = directory / "elsewhere";
    ASSERT_EQ(mkdir(elsewhere.c_str(), 0755), 0);
    // The stand-in swaps the directory between the pinning and the mounting.
    Plan plan = ToolPlan({"swap-then-mount", target, moved, elsewhere, target});
    plan.pins.push_back(MakePin(5, Pin::kDirectory, target));
    plan.requiredMountFlags = {"nosuid", "nodev"};
    ExpectFine(Run(plan));
    EXPECT_EQ(MountedOn(elsewhere), "");
    EXPECT_NE(MountedOn(moved), "");  // the very directory that was checked
    EXPECT_EQ(umount2(moved.c_str(), UMOUNT_NOFOLLOW), 0);
}

TEST_F(MountTest, TheTestsSwapIsFollowedByAToolWithoutThePin) {
    const std::string elsewhere = directory / "elsewhere";
    ASSERT_EQ(mkdir(elsewhere.c_str(), 0755), 0);
    ExpectFine(Run(ToolPlan({"swap-then-mount", target, directory / "moved", elsewhere, target})));
    EXPECT_NE(MountedOn(elsewhere), "");  // so the test above would notice
    EXPECT_EQ(umount2(elsewhere.c_str(), UMOUNT_NOFOLLOW), 0);
}

TEST_F(MountTest, AMountPointThatIsALinkIsRefused) {
    const std::string link = directory / "link";
    ASSERT_EQ(symlink("target", link.c_str()), 0);
    const Result result = Run(MountPlan({"-t", "tmpfs", "-o", "nosuid,nodev"}, "none", link));
    EXPECT_EQ(result.outcome.status, 7);
    EXPECT_EQ(MountedOn(target), "");
}

TEST_F(MountTest, AMountWithoutTheRequiredFlagsIsUnmountedAgain) {
    Plan plan = ToolPlan({"mount-bare", target});
    plan.pins.push_back(MakePin(2, Pin::kDirectory, target));
    ExpectFine(Run(plan));  // the stand-in does mount
    EXPECT_EQ(MountedOn(target).find("rw,relatime"), 0u);
    ASSERT_EQ(umount2(target.c_str(), UMOUNT_NOFOLLOW), 0);

    plan.requiredMountFlags = {"nosuid", "nodev"};
    const Result result = Run(plan);
    EXPECT_EQ(result.outcome.status, 1);
    EXPECT_EQ(result.outcome.value, 0);
    EXPECT_EQ(result.output, target + ": was mounted without nosuid; it is unmounted again\n");
    EXPECT_EQ(MountedOn(target), "");
}

TEST_F(MountTest, WhatAFailedOrKilledToolMountedIsUnmountedAgain) {
    Plan plan = ToolPlan({"mount-bare-and-fail", target});
    plan.pins.push_back(MakePin(2, Pin::kDirectory, target));
    plan.requiredMountFlags = {"nosuid", "nodev"};
    EXPECT_EQ(Run(plan).outcome.status, 1);
    EXPECT_EQ(MountedOn(target), "");

    plan.argv[1] = "mount-bare-and-stay";
    plan.deadline = std::chrono::milliseconds(500);
    const Result result = Run(plan);
    EXPECT_EQ(result.outcome.status, 8);
    EXPECT_NE(result.outcome.reason.find("unmounted again"), std::string::npos);
    EXPECT_EQ(MountedOn(target), "");
}

TEST_F(MountTest, WhatWasMountedBeforeAFailedToolStays) {
    ASSERT_EQ(mount("none", target.c_str(), "tmpfs", 0, ""), 0);
    Plan plan = ToolPlan({"exit", "32", target});
    plan.pins.push_back(MakePin(3, Pin::kDirectory, target));
    plan.requiredMountFlags = {"nosuid"};
    EXPECT_EQ(Run(plan).outcome.value, 32);
    EXPECT_NE(MountedOn(target), "");
}

TEST_F(MountTest, ARemountThatTakesAFlagAwayIsUndoneToo) {
    ASSERT_EQ(mount("none", target.c_str(), "tmpfs", MS_NOSUID | MS_NODEV, ""), 0);
    const Result result = Run(MountPlan({"-o", "remount,suid,nodev"}, "none", target));
    EXPECT_EQ(result.outcome.status, 1) << result.output;
    EXPECT_EQ(MountedOn(target), "");
}

TEST_F(MountTest, AToolThatMountsNothingDoesNotSucceed) {
    Plan plan = ToolPlan({"args", target});
    plan.pins.push_back(MakePin(2, Pin::kDirectory, target));
    plan.requiredMountFlags = {"nosuid"};
    const Result result = Run(plan);
    EXPECT_EQ(result.outcome.status, 1);
    EXPECT_NE(result.outcome.reason.find("nothing was mounted"), std::string::npos);
}

TEST_F(MountTest, AFailedMountIsTheToolsOwnExitCode) {
    const Result result = Run(MountPlan({"-t", "nosuchfs", "-o", "nosuid,nodev"}, "none", target));
    EXPECT_EQ(result.outcome.status, 0);
    EXPECT_EQ(result.outcome.value, 32);
    EXPECT_EQ(result.output.find("mount: "), 0u) << result.output;
}

TEST_F(MountTest, ALinkToAMountPointIsNotUnmountedThrough) {
    const std::string link = directory / "link";
    ASSERT_EQ(mount("none", target.c_str(), "tmpfs", MS_NOSUID, ""), 0);
    ASSERT_EQ(symlink(target.c_str(), link.c_str()), 0);
    const Result result = Run(UmountPlan(link));
    EXPECT_EQ(result.outcome.status, 7);
    EXPECT_NE(MountedOn(target), "");
}

// Somebody renames the mount point in a mount namespace of his own while the tool starts.
TEST_F(MountTest, AMountPointSwappedForALinkIsNotUnmountedThrough) {
    const std::string elsewhere = directory / "elsewhere";
    ASSERT_EQ(mkdir(elsewhere.c_str(), 0755), 0);
    ASSERT_EQ(mount("none", elsewhere.c_str(), "tmpfs", 0, ""), 0);
    ASSERT_EQ(mount("none", target.c_str(), "tmpfs", 0, ""), 0);
    Plan plan = ToolPlan({"swap-then-umount", target, directory / "moved", elsewhere, target});
    plan.agent = "sr_umount";
    plan.pins.push_back(MakePin(5, Pin::kMountPoint, target));
    ExpectFine(Run(plan));
    EXPECT_NE(MountedOn(elsewhere), "");
    EXPECT_EQ(MountedOn(target), "");
    EXPECT_EQ(MountedOn(directory / "moved"), "");
    EXPECT_EQ(umount2(elsewhere.c_str(), UMOUNT_NOFOLLOW), 0);
}

TEST_F(MountTest, TheTestsSwapIsFollowedByAnUmountToolWithoutThePin) {
    const std::string elsewhere = directory / "elsewhere";
    ASSERT_EQ(mkdir(elsewhere.c_str(), 0755), 0);
    ASSERT_EQ(mount("none", elsewhere.c_str(), "tmpfs", 0, ""), 0);
    ASSERT_EQ(mount("none", target.c_str(), "tmpfs", 0, ""), 0);
    ExpectFine(Run(ToolPlan({"swap-then-umount", target, directory / "moved", elsewhere, target})));
    EXPECT_EQ(MountedOn(elsewhere), "");  // so the test above would notice
    EXPECT_NE(MountedOn(directory / "moved"), "");
    EXPECT_EQ(umount2((directory / "moved").c_str(), UMOUNT_NOFOLLOW), 0);
}

TEST_F(MountTest, AMountPointSwappedForALinkAfterThePinningIsLeftAlone) {
    const std::string moved = directory / "moved";
    const std::string elsewhere = directory / "elsewhere";
    ASSERT_EQ(mkdir(elsewhere.c_str(), 0755), 0);
    ASSERT_EQ(mount("none", elsewhere.c_str(), "tmpfs", 0, ""), 0);
    ASSERT_EQ(mount("none", target.c_str(), "tmpfs", 0, ""), 0);
    agent::PinnedPath pinned;
    std::string reason;
    ASSERT_TRUE(agent::PinPath(MakePin(1, Pin::kMountPoint, target), pinned, reason)) << reason;
    ExpectFine(Run(ToolPlan({"swap-then-umount", target, moved, elsewhere, moved + "/none"})), 32);
    EXPECT_EQ(agent::Unmount(pinned, {"umount"}), 32);
    EXPECT_EQ(chdir("/"), 0);
    EXPECT_NE(MountedOn(elsewhere), "");
    EXPECT_NE(MountedOn(moved), "");
    EXPECT_EQ(umount2(moved.c_str(), UMOUNT_NOFOLLOW), 0);
    EXPECT_EQ(umount2(elsewhere.c_str(), UMOUNT_NOFOLLOW), 0);
}

TEST_F(MountTest, AMountThatIsInUseStaysUnlessItMayBeLazy) {
    ASSERT_EQ(mount("none", target.c_str(), "tmpfs", 0, ""), 0);
    agent::OwnedFd user(open(target.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    const Result busy = Run(UmountPlan(target));
    EXPECT_EQ(busy.outcome.status, 0);
    EXPECT_EQ(busy.outcome.value, 32);
    EXPECT_EQ(busy.output, "umount: " + target + ": target is busy.\n");
    EXPECT_NE(MountedOn(target), "");
    ExpectFine(Run(UmountPlan(target, {"--lazy"})));
    EXPECT_EQ(MountedOn(target), "");
    ASSERT_EQ(mount("none", target.c_str(), "tmpfs", 0, ""), 0);
    ExpectFine(Run(UmountPlan(target, {"--force", "--lazy"})));
    EXPECT_EQ(MountedOn(target), "");
}

TEST_F(MountTest, OfTwoMountsOnOnePlaceTheUpperOneGoesFirst) {
    ASSERT_EQ(mount("lower", target.c_str(), "tmpfs", 0, ""), 0);
    ASSERT_EQ(mount("upper", target.c_str(), "tmpfs", 0, ""), 0);
    ExpectFine(Run(UmountPlan(target)));
    EXPECT_NE(MountedOn(target).find("tmpfs lower"), std::string::npos) << MountedOn(target);
    ExpectFine(Run(UmountPlan(target)));
    EXPECT_EQ(MountedOn(target), "");
}

TEST_F(MountTest, ALoopDeviceIsDetachedWhereThatIsAskedFor) {
    if (!HasExt4OverLoop()) {
        SENTREL_SKIP("no ext4 or no loop devices");
    }
    const std::string device = AttachImage();
    ASSERT_FALSE(device.empty());
    const std::string backing = "/sys/block/" + device.substr(5) + "/loop/backing_file";
    for (const bool detach : {false, true}) {
        ASSERT_EQ(mount(device.c_str(), target.c_str(), "ext4", 0, ""), 0);
        ExpectFine(Run(UmountPlan(target, detach ? std::vector<std::string>{"--detach-loop"}
                                                 : std::vector<std::string>{})));
        EXPECT_EQ(MountedOn(target), "");
        EXPECT_EQ(access(backing.c_str(), F_OK) == 0, !detach);
    }
}

TEST_F(MountTest, AMountWhoseServerIsGoneCanBeTakenOff) {
    const FuseMount hung(target, FuseMount::kHangs);
    if (!hung.IsMounted()) {
        SENTREL_SKIP("no file system that hangs is to be had");
    }
    Plan plan = UmountPlan(target, {"--force", "--lazy"});
    plan.deadline = std::chrono::milliseconds(5000);
    ExpectFine(Run(plan));
    EXPECT_EQ(MountedOn(target), "");
}

// What such a file system says about its directories' owner is anybody's word.
TEST_F(MountTest, AFileSystemThatOthersServeIsNoClosedDirectory) {
    ASSERT_EQ(mount("none", "/mnt", "tmpfs", MS_NOSUID, "mode=755"), 0);
    for (const char* name : {"/mnt/served", "/mnt/own", "/mnt/own/below"}) {
        ASSERT_EQ(mkdir(name, 0755), 0);
    }
    {
        const FuseMount served("/mnt/served", FuseMount::kAnswers);
        if (!served.IsMounted()) {
            (void)umount2("/mnt", MNT_DETACH);
            SENTREL_SKIP("no file system of others is to be had");
        }
        Plan plan = ToolPlan({"args", "/mnt/served/new"});
        plan.pins.push_back(MakePin(2, Pin::kParent, "/mnt/served/new"));
        EXPECT_EQ(Run(plan).outcome.reason, "/mnt/served/new: is not the node that was made");
        plan.pins[0].rootOwnedChain = true;
        const Result result = Run(plan);
        EXPECT_EQ(result.outcome.status, 7);
        EXPECT_NE(result.outcome.reason.find("others serve it"), std::string::npos);
    }
    Plan plan = ToolPlan({"args", "/mnt/own/below"});
    plan.pins.push_back(MakePin(2, Pin::kDirectory, "/mnt/own/below"));
    plan.pins[0].rootOwnedChain = true;
    ExpectFine(Run(plan));
    EXPECT_EQ(umount2("/mnt", MNT_DETACH), 0);
}

TEST_F(MountTest, ANameWithBlanksIsFoundAgain) {
    const std::string blank = directory / "two words\\and";
    ASSERT_EQ(mkdir(blank.c_str(), 0755), 0);
    ExpectFine(Run(MountPlan({"-t", "tmpfs", "-o", "nosuid,nodev"}, "none", blank)));
    ExpectFine(Run(UmountPlan(blank)));
    EXPECT_EQ(rmdir(blank.c_str()), 0);
}

TEST_F(MountTest, ADeviceNodeIsMadeAndGivenToItsOwner) {
    const std::string path = directory / "null";
    Plan plan = NodePlan(path, {"c", "1", "3"});
    plan.owner = kNobody;
    plan.group = 7;
    ExpectFine(Run(plan));
    struct stat node = {};
    ASSERT_EQ(lstat(path.c_str(), &node), 0);
    EXPECT_EQ(node.st_mode, static_cast<mode_t>(S_IFCHR | 0640));
    EXPECT_EQ(node.st_rdev, makedev(1, 3));
    EXPECT_EQ(node.st_uid, kNobody);
    EXPECT_EQ(node.st_gid, 7u);
}

TEST_F(MountTest, ANamedPipeIsMade) {
    const std::string path = directory / "pipe";
    ExpectFine(Run(NodePlan(path, {"p"})));
    struct stat node = {};
    ASSERT_EQ(lstat(path.c_str(), &node), 0);
    EXPECT_TRUE(S_ISFIFO(node.st_mode));
    EXPECT_EQ(node.st_uid, 0u);
}

TEST_F(MountTest, ANodeComesWithoutSetIdBits) {
    const std::string path = directory / "null";
    Plan plan = ToolPlan({"node-bare", path, "c", "1", "3"});
    plan.pins.push_back(MakePin(2, Pin::kParent, path));
    ExpectFine(Run(plan));
    struct stat node = {};
    ASSERT_EQ(lstat(path.c_str(), &node), 0);
    EXPECT_EQ(node.st_mode & 07777, 0755u);
}

TEST_F(MountTest, ANodeThatIsSomethingElseByNowIsNotGivenAway) {
    const std::string path = directory / "null";
    Plan plan = ToolPlan({"node-then-link", path, "c", "1", "3"});
    plan.pins.push_back(MakePin(2, Pin::kParent, path));
    plan.owner = kNobody;
    EXPECT_EQ(Run(plan).outcome.status, 1);
    struct stat passwd = {};
    ASSERT_EQ(stat("/etc/passwd", &passwd), 0);
    EXPECT_EQ(passwd.st_uid, 0u);

    // A second name of another file, as a caller might put it there.
    ASSERT_EQ(unlink(path.c_str()), 0);
    ASSERT_TRUE(WriteFile(directory / "precious", "", 0600));
    ASSERT_EQ(link((directory / "precious").c_str(), path.c_str()), 0);
    plan = ToolPlan({"args", path, "c", "1", "3"});
    plan.pins.push_back(MakePin(2, Pin::kParent, path));
    plan.owner = kNobody;
    EXPECT_EQ(Run(plan).outcome.status, 1);
    ASSERT_EQ(stat((directory / "precious").c_str(), &passwd), 0);
    EXPECT_EQ(passwd.st_uid, 0u);
}

TEST_F(MountTest, ASecondNameOfAnotherNodeIsNotGivenAway) {
    const std::string path = directory / "null";
    const std::string other = directory / "other";
    ASSERT_EQ(mknod(other.c_str(), S_IFCHR | 0600, makedev(1, 3)), 0);
    ASSERT_EQ(link(other.c_str(), path.c_str()), 0);
    Plan plan = ToolPlan({"args", path, "c", "1", "3"});
    plan.pins.push_back(MakePin(2, Pin::kParent, path));
    plan.owner = kNobody;
    EXPECT_EQ(Run(plan).outcome.status, 1);
    struct stat node = {};
    ASSERT_EQ(stat(other.c_str(), &node), 0);
    EXPECT_EQ(node.st_uid, 0u);
}

TEST_F(MountTest, ANodeIsNotMadeOverAnExistingFile) {
    const std::string path = directory / "file";
    ASSERT_TRUE(WriteFile(path, "kept", 0644));
    const Result result = Run(NodePlan(path, {"c", "1", "3"}));
    EXPECT_EQ(result.outcome.status, 0);
    EXPECT_EQ(result.outcome.value, 1);
    EXPECT_EQ(Contents(path), "kept");
}

TEST_F(MountTest, APathThatHangsHoldsUpItsOwnRequestOnly) {
    // A lookup below this mount waits for a mount daemon that never answers.
    TestPipe daemon;
    const std::string data = "fd=" + std::to_string(daemon.writer.Get()) +
                             ",pgrp=" + std::to_string(getpgrp()) +
                             ",minproto=5,maxproto=5,indirect";
    if (mount("none", target.c_str(), "autofs", 0, data.c_str()) != 0) {
        SENTREL_SKIP("no file system that hangs is to be had");
    }
    agent::ExecutorLimits limits;
    limits.killAfter = std::chrono::milliseconds(100);
    limits.answerAfter = std::chrono::milliseconds(300);
    Restart(limits, agent::RelayLimits());
    Result hung;
    Plan plan = ToolPlan({"args", target + "/x/below"});
    plan.pins.push_back(MakePin(2, Pin::kDirectory, target + "/x/below"));
    plan.deadline = std::chrono::milliseconds(1000);
    Start(plan, hung, nullptr);
    pollfd asked = {daemon.reader.Get(), POLLIN, 0};
    ASSERT_EQ(poll(&asked, 1, 10000), 1);  // it hangs now
    EXPECT_EQ(Run(ToolPlan({"exit", "3"})).outcome.value, 3);
    EXPECT_EQ(hung.answers, 0);
    ASSERT_TRUE(RunUntil([&hung] { return hung.ends > 0; }));
    EXPECT_EQ(hung.answers, 1);
    EXPECT_EQ(hung.outcome.status, 8);
    EXPECT_GE(hung.outcome.duration.count(), 1300);
    EXPECT_LT(hung.outcome.duration.count(), 3000);
}
