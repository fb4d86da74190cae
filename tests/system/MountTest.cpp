// SPDX-License-Identifier: Apache-2.0
// Real mounts, unmounts and nodes, made with the system's own tools in a mount namespace that ends
// with the test's process, and what a caller may try against them.
#include <linux/filter.h>
#include <linux/loop.h>
#include <linux/mount.h>
#include <linux/seccomp.h>
#include <sys/ioctl.h>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/statvfs.h>
#include <sys/syscall.h>
#include <sys/sysmacros.h>

#include <cstddef>
#include <cstring>

#include "FuseMount.h"
#include "MountNamespace.h"
#include "RunFixture.h"
#include "run/Aftercheck.h"
#include "run/Unmount.h"

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
        plan.operation = agent::Operation::kMount;
        plan.argv = {"/usr/bin/mount", "-i", "-n", "--no-canonicalize"};
        plan.argv.insert(plan.argv.end(), options.begin(), options.end());
        plan.argv.insert(plan.argv.end(), {"--", source, where});
        plan.makesMount = true;
        plan.requiredMountFlags = {"nosuid", "nodev"};
        plan.pins.push_back(MakePin(plan.argv.size() - 1, Pin::kDirectory, where));
        return plan;
    }

    static Plan BindPlan(const std::string& source, const std::string& where) {
        Plan plan = MountPlan({"-o", "bind,nosuid,nodev"}, source, where);
        plan.pins.push_back(MakePin(plan.argv.size() - 2, Pin::kAny, source));
        plan.bind.emplace();
        plan.bind->set = MOUNT_ATTR_NOSUID | MOUNT_ATTR_NODEV;
        return plan;
    }

    static Plan UmountPlan(const std::string& where, const std::vector<std::string>& flags = {}) {
        Plan plan;
        plan.operation = agent::Operation::kUmount;
        plan.argv = {"/usr/bin/umount", "-i", "--no-canonicalize"};
        plan.argv.insert(plan.argv.end(), flags.begin(), flags.end());
        plan.argv.insert(plan.argv.end(), {"--", where});
        plan.pins.push_back(MakePin(plan.argv.size() - 1, Pin::kMountPoint, where));
        return plan;
    }

    // Of the device 1:3.
    static Plan NodePlan(const std::string& path, mode_t type) {
        Plan plan;
        plan.operation = agent::Operation::kMknod;
        plan.argv = {"mknod", "-m", "0640", "--", path};
        plan.pins.push_back(MakePin(4, Pin::kParent, path));
        plan.node.emplace();
        plan.node->type = type;
        plan.node->mode = 0640;
        plan.node->majorNumber = 1;
        plan.node->minorNumber = 3;
        return plan;
    }

    // One that a stand-in makes, to which no flag is given.
    Plan StandInMount(const std::vector<std::string>& words) const {
        Plan plan = ToolPlan(words);
        plan.makesMount = true;
        plan.requiredMountFlags = {"nosuid", "nodev"};
        plan.pins.push_back(MakePin(plan.argv.size() - 1, Pin::kDirectory, plan.argv.back()));
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

TEST_F(MountTest, ABindMountKeepsTheFlagsOfItsSourceThatNobodyNames) {
    const std::string source = directory / "source";
    ASSERT_EQ(mkdir(source.c_str(), 0755), 0);
    ASSERT_EQ(mount("none", source.c_str(), "tmpfs", MS_NOEXEC | MS_NOATIME | MS_RDONLY, ""), 0);
    Plan plan = BindPlan(source, target);
    ExpectFine(Run(plan));
    EXPECT_EQ(MountedOn(target).find("ro,nosuid,nodev,noexec,noatime "), 0u) << MountedOn(target);
    ASSERT_EQ(umount2(target.c_str(), UMOUNT_NOFOLLOW), 0);
    plan.bind->clear = MOUNT_ATTR_NOEXEC | MOUNT_ATTR__ATIME;
    ExpectFine(Run(plan));
    EXPECT_EQ(MountedOn(target).find("ro,nosuid,nodev,relatime "), 0u) << MountedOn(target);
    EXPECT_EQ(umount2(source.c_str(), UMOUNT_NOFOLLOW), 0);
}

TEST_F(MountTest, AFileIsNotBoundToADirectory) {
    const std::string source = directory / "source";
    ASSERT_TRUE(WriteFile(source, "", 0644));
    const Result result = Run(BindPlan(source, target));
    ExpectFine(result, 32);
    EXPECT_EQ(result.outcome.exit, 32);
    EXPECT_EQ(result.output, "mount: " + target + ": mount failed: Invalid argument.\n");
}

// A kernel without the calls, as far as this process and its children can tell.
void RefuseCall(long number) {
    sock_filter program[] = {
        BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, nr)),
        BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, static_cast<std::uint32_t>(number), 0, 1),
        BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ERRNO | ENOSYS),
        BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW),
    };
    const sock_fprog filter = {sizeof program / sizeof program[0], program};
    ASSERT_EQ(prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &filter), 0);
}

TEST_F(MountTest, AKernelThatCannotFinishABindMountFirstMakesNone) {
    const std::string source = directory / "source";
    ASSERT_EQ(mkdir(source.c_str(), 0755), 0);
    for (const long number : {SYS_open_tree, SYS_mount_setattr, SYS_move_mount}) {
        const pid_t child = test::Fork([&] {
            RefuseCall(number);
            Restart(agent::ExecutorLimits(), agent::RelayLimits());
            const Result result = Run(BindPlan(source, target));
            ExpectFine(result, 32);
            EXPECT_EQ(result.output.find("mount: " + target + ": "), 0u) << result.output;
            if (number == SYS_mount_setattr) {
                EXPECT_NE(result.output.find("Linux 5.12 can"), std::string::npos);
            }
            EXPECT_EQ(MountedOn(target), "");
            return HasFailure() ? 1 : 0;
        });
        EXPECT_EQ(test::Reap(child, test::kLimit), 0);
    }
}

TEST_F(MountTest, WithoutANamespaceForTheToolNothingIsMounted) {
    const pid_t child = test::Fork([&] {
        RefuseCall(SYS_unshare);
        Restart(agent::ExecutorLimits(), agent::RelayLimits());
        const Result result = Run(MountPlan({"-t", "tmpfs"}, "none", target));
        EXPECT_EQ(result.outcome.status, 1);
        EXPECT_NE(result.output.find("a mount namespace for the tool cannot be had"),
                  std::string::npos)
            << result.output;
        EXPECT_EQ(MountedOn(target), "");
        return HasFailure() ? 1 : 0;
    });
    EXPECT_EQ(test::Reap(child, test::kLimit), 0);
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
    Plan plan = StandInMount({"swap-then-mount", target, moved, elsewhere, target});
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

TEST_F(MountTest, AMountWithoutTheRequiredFlagsIsSeenByNobody) {
    Plan plan = StandInMount({"mount-bare", target});
    const Result result = Run(plan);
    EXPECT_EQ(result.outcome.status, 1);
    EXPECT_EQ(result.outcome.value, 0);
    EXPECT_EQ(result.output, target + ": was mounted without nosuid; nobody has seen it\n");
    EXPECT_EQ(MountedOn(target), "");

    plan.requiredMountFlags.clear();
    ExpectFine(Run(plan));  // the stand-in does mount
    EXPECT_EQ(MountedOn(target).find("rw,relatime"), 0u);
}

TEST_F(MountTest, WhatAFailedOrKilledToolMountedIsSeenByNobody) {
    ExpectFine(Run(StandInMount({"mount-bare-and-fail", target})), 32);
    EXPECT_EQ(MountedOn(target), "");

    TestPipe pipe;
    Result result;
    Plan plan = StandInMount({"mount-bare-and-stay", target});
    plan.deadline = std::chrono::milliseconds(500);
    Start(plan, result, relays->Start(agent::OwnedFd(dup(pipe.writer.Get())), caller));
    EXPECT_EQ(ReadLines(pipe.reader.Get(), 1), "mounted\n");
    EXPECT_EQ(MountedOn(target), "");  // while the tool is still there
    ASSERT_TRUE(RunUntil([&result] { return result.ends > 0; }));
    EXPECT_EQ(result.outcome.status, 8);
    EXPECT_EQ(result.outcome.reason, "the deadline passed");
    EXPECT_EQ(MountedOn(target), "");
}

TEST_F(MountTest, ASignalThatEndsTheToolOfAMountIsAddedTo128) {
    const Result result = Run(StandInMount({"signal", "10", target}));
    EXPECT_EQ(result.outcome.status, 0);
    EXPECT_EQ(result.outcome.value, 138);
    EXPECT_EQ(result.outcome.signal, 10);
}

TEST_F(MountTest, WhatWasMountedBeforeAFailedToolStays) {
    ASSERT_EQ(mount("none", target.c_str(), "tmpfs", 0, ""), 0);
    ExpectFine(Run(StandInMount({"exit", "32", target})), 32);
    EXPECT_NE(MountedOn(target), "");
}

TEST_F(MountTest, ARemountReachesNothing) {
    ASSERT_EQ(mount("none", target.c_str(), "tmpfs", MS_NOSUID | MS_NODEV, ""), 0);
    ExpectFine(Run(MountPlan({"-o", "remount,suid,nodev"}, "none", target)), 32);
    EXPECT_EQ(MountedOn(target).find("rw,nosuid,nodev"), 0u);
}

TEST_F(MountTest, AToolThatMountsNothingDoesNotSucceed) {
    const Result result = Run(StandInMount({"args", target}));
    EXPECT_EQ(result.outcome.status, 1);
    EXPECT_NE(result.outcome.reason.find("nothing was mounted"), std::string::npos);
}

TEST_F(MountTest, TheSameFileSystemIsNotMountedTwiceOnOnePlace) {
    if (!HasExt4OverLoop()) {
        SENTREL_SKIP("no ext4 or no loop devices");
    }
    const std::string device = AttachImage();
    ASSERT_FALSE(device.empty());
    Plan plan = MountPlan({"-t", "ext4", "-o", "nosuid,nodev"}, device, target);
    plan.pins.push_back(MakePin(plan.argv.size() - 2, Pin::kFile, device));
    ExpectFine(Run(plan));
    const Result again = Run(plan);
    ExpectFine(again, 32);
    EXPECT_EQ(again.output, "mount: " + target + ": already mounted or mount point busy.\n");
    ExpectFine(Run(UmountPlan(target)));
    EXPECT_EQ(MountedOn(target), "");
    EXPECT_TRUE(Shell("losetup --detach " + device));
}

// What the image lies on is in use as long as the image is, and its name is not asked again.
TEST_F(MountTest, AnImageIsOpenedByItsPinWhereAnUnmountingFindsItInUse) {
    if (!HasExt4OverLoop()) {
        SENTREL_SKIP("no ext4 or no loop devices");
    }
    const std::string place = directory / "place";
    ASSERT_EQ(mkdir(place.c_str(), 0755), 0);
    ASSERT_EQ(mount("none", place.c_str(), "tmpfs", 0, ""), 0);
    const std::string image = place + "/image";
    const std::string make = " && mkfs.ext4 -q -F ";
    ASSERT_TRUE(Shell("truncate -s 8M " + image + make + image));
    ASSERT_TRUE(Shell("truncate -s 8M " + image + "2" + make + image + "2"));
    // The mount tool of this rule exchanges the two before it goes on.
    ASSERT_TRUE(WriteFile(directory / "swap",
                          "#!/bin/sh\n/bin/mv " + image + " " + image + "1 && /bin/mv " + image +
                              "2 " + image + " && exec /usr/bin/mount \"$@\"\n",
                          0755));
    Plan plan = MountPlan({"-t", "ext4", "-o", "loop,nosuid,nodev"}, image, target);
    plan.argv[0] = directory / "swap";
    plan.pins.push_back(MakePin(plan.argv.size() - 2, Pin::kFile, image));
    ExpectFine(Run(plan));
    std::string device = MountedOn(target);
    device = device.substr(device.find("/dev/"));
    device = device.substr(5, device.find(' ') - 5);
    EXPECT_EQ(Contents("/sys/block/" + device + "/loop/backing_file"), image + "1\n");
    EXPECT_EQ(umount2(place.c_str(), UMOUNT_NOFOLLOW), -1);
    EXPECT_EQ(errno, EBUSY);
    ExpectFine(Run(UmountPlan(target)));
    EXPECT_EQ(Contents("/sys/block/" + device + "/loop/backing_file"), "");
    EXPECT_EQ(umount2(place.c_str(), UMOUNT_NOFOLLOW), 0);
}

TEST_F(MountTest, AnImageHasOneLoopDeviceHoweverOftenItIsMounted) {
    if (!HasExt4OverLoop()) {
        SENTREL_SKIP("no ext4 or no loop devices");
    }
    const std::string image = directory / "image";
    const std::string other = directory / "other";
    ASSERT_EQ(mkdir(other.c_str(), 0755), 0);
    ASSERT_TRUE(Shell("truncate -s 16M " + image + " && mkfs.ext4 -q -F -E offset=4194304 " +
                      image + " 8M"));
    const auto plan = [&](const std::string& options, const std::string& where) {
        Plan made = MountPlan({"-t", "ext4", "-o", options + ",nosuid,nodev"}, image, where);
        made.pins.push_back(MakePin(made.argv.size() - 2, Pin::kFile, image));
        return made;
    };
    ExpectFine(Run(plan("offset=4M,sizelimit=8192K,noatime", target)));
    ExpectFine(Run(plan("loop,offset=4194304,sizelimit=8MiB", other)));
    EXPECT_EQ(MountedOn(target).find("rw,nosuid,nodev,noatime - ext4 /dev/loop"), 0u);
    EXPECT_EQ(MountedOn(target).substr(MountedOn(target).find(" - ")),
              MountedOn(other).substr(MountedOn(other).find(" - ")));
    const Result overlapping = Run(plan("offset=5M", other));
    ExpectFine(overlapping, 32);
    EXPECT_NE(overlapping.output.find("the image is in use by a loop device already"),
              std::string::npos)
        << overlapping.output;
    ExpectFine(Run(UmountPlan(other)));
    ExpectFine(Run(UmountPlan(target)));
    for (const char* size : {"offset=", "offset=-1", "offset=1T", "sizelimit=9999999999999999",
                             "offset=0x10", "sizelimit=1Kx"}) {
        const Result result = Run(plan(size, target));
        ExpectFine(result, 32);
        EXPECT_NE(result.output.find("its offset or size is malformed"), std::string::npos) << size;
    }
    ExpectFine(Run(plan("ro,offset=4M,sizelimit=8M", target)));
    EXPECT_EQ(MountedOn(target).find("ro,nosuid,nodev,relatime - ext4 /dev/loop"), 0u);
    ExpectFine(Run(UmountPlan(target)));
}

// What a tool's namespace has copies of is not kept by it once its request is answered.
TEST_F(MountTest, AMountIsGoneForGoodWhenItIsUnmounted) {
    if (!HasExt4OverLoop()) {
        SENTREL_SKIP("no ext4 or no loop devices");
    }
    const std::string device = AttachImage();
    ASSERT_FALSE(device.empty());
    Plan plan = MountPlan({"-t", "ext4", "-o", "nosuid,nodev"}, device, target);
    plan.pins.push_back(MakePin(plan.argv.size() - 2, Pin::kFile, device));
    for (int i = 0; i < 5; ++i) {
        ExpectFine(Run(plan));
        ExpectFine(Run(UmountPlan(target)));
        // Held by nobody, as only then it can be had like this.
        EXPECT_GE(agent::OwnedFd(open(device.c_str(), O_RDONLY | O_EXCL | O_CLOEXEC)).Get(), 0)
            << strerror(errno);
    }
    EXPECT_TRUE(Shell("losetup --detach " + device));
}

TEST_F(MountTest, ALoopDeviceOverADeviceIsMadeOfThePinnedOne) {
    if (!HasExt4OverLoop()) {
        SENTREL_SKIP("no ext4 or no loop devices");
    }
    const std::string device = AttachImage();
    ASSERT_FALSE(device.empty());
    Plan plan = MountPlan({"-t", "ext4", "-o", "loop,nosuid,nodev"}, device, target);
    plan.pins.push_back(MakePin(plan.argv.size() - 2, Pin::kFile, device));
    ExpectFine(Run(plan));
    EXPECT_NE(MountedOn(target).find(" - ext4 /dev/loop"), std::string::npos);
    EXPECT_EQ(MountedOn(target).find(" " + device + " "), std::string::npos);
    ExpectFine(Run(UmountPlan(target)));
    EXPECT_TRUE(Shell("losetup --detach " + device));
    const std::string pipe = directory / "pipe";
    ASSERT_EQ(mkfifo(pipe.c_str(), 0600), 0);
    plan = MountPlan({"-t", "ext4", "-o", "loop,nosuid,nodev"}, pipe, target);
    plan.pins.push_back(MakePin(plan.argv.size() - 2, Pin::kFile, pipe));
    ExpectFine(Run(plan), 32);
}

// As a mount made by mount(8) itself would be: the services that have a part of the system's tree
// see it too.
TEST_F(MountTest, AMountInASharedPlaceIsHandedOnToItsPeers) {
    const std::string place = directory / "place";
    const std::string peer = directory / "peer";
    ASSERT_EQ(mkdir(place.c_str(), 0755), 0);
    ASSERT_EQ(mkdir(peer.c_str(), 0755), 0);
    ASSERT_EQ(mount("none", place.c_str(), "tmpfs", 0, ""), 0);
    ASSERT_EQ(mount(nullptr, place.c_str(), nullptr, MS_SHARED, nullptr), 0);
    ASSERT_EQ(mount(place.c_str(), peer.c_str(), nullptr, MS_BIND, nullptr), 0);
    ASSERT_EQ(mkdir((place + "/a").c_str(), 0755), 0);
    ASSERT_EQ(mkdir((place + "/b").c_str(), 0755), 0);
    ExpectFine(Run(MountPlan({"-t", "tmpfs", "-o", "nosuid,nodev"}, "none", place + "/a")));
    ExpectFine(Run(BindPlan(target, place + "/b")));
    for (const char* name : {"/a", "/b"}) {
        EXPECT_EQ(MountedOn(peer + name).find("rw,nosuid,nodev,relatime "), 0u) << name;
        ExpectFine(Run(UmountPlan(place + name)));
        EXPECT_EQ(MountedOn(peer + name), "") << name;
    }
    EXPECT_EQ(umount2(peer.c_str(), MNT_DETACH), 0);
    EXPECT_EQ(umount2(place.c_str(), MNT_DETACH), 0);
}

// Else whoever may mount below the one place reaches the other.
TEST_F(MountTest, ABindMountIsNoPeerOfItsSource) {
    const std::string source = directory / "shared";
    ASSERT_EQ(mkdir(source.c_str(), 0755), 0);
    ASSERT_EQ(mount("none", source.c_str(), "tmpfs", 0, ""), 0);
    ASSERT_EQ(mount(nullptr, source.c_str(), nullptr, MS_SHARED, nullptr), 0);
    ASSERT_EQ(mkdir((source + "/sub").c_str(), 0755), 0);
    ExpectFine(Run(BindPlan(source, target)));
    ExpectFine(Run(MountPlan({"-t", "tmpfs", "-o", "nosuid,nodev"}, "none", target + "/sub")));
    EXPECT_NE(MountedOn(target + "/sub"), "");
    EXPECT_EQ(MountedOn(source + "/sub"), "");
    ExpectFine(Run(UmountPlan(target + "/sub")));
    // Nor does what root mounts in the source appear there, without the forced flags.
    ASSERT_EQ(mount("none", (source + "/sub").c_str(), "tmpfs", 0, ""), 0);
    EXPECT_EQ(MountedOn(target + "/sub"), "");
    EXPECT_EQ(umount2(source.c_str(), MNT_DETACH), 0);
}

// ---- the second look, at the mount in its place

TEST_F(MountTest, AMountInItsPlaceWithoutAFlagIsTakenBackThoughItsParentWasRenamed) {
    const std::string parent = directory / "parent";
    ASSERT_EQ(mkdir(parent.c_str(), 0755), 0);
    ASSERT_EQ(mkdir((parent + "/in").c_str(), 0755), 0);
    ASSERT_EQ(mount("none", (parent + "/in").c_str(), "tmpfs", MS_NODEV, ""), 0);
    const agent::OwnedFd mounted(open((parent + "/in").c_str(), O_PATH | O_CLOEXEC));
    ASSERT_EQ(rename(parent.c_str(), (directory / "away").c_str()), 0);
    const agent::Check fine = agent::CheckMount(mounted, "/x", {"nodev"});
    EXPECT_TRUE(fine) << fine.Reason();
    const agent::Check lacking = agent::CheckMount(mounted, "/x", {"nodev", "nosuid", "ro"});
    ASSERT_FALSE(lacking);
    EXPECT_EQ(lacking.Reason(), "/x: was mounted without nosuid; it is unmounted again");
    EXPECT_EQ(MountedOn(directory / "away/in"), "");
    // Who stands in it already has the flags as well.
    struct statvfs flags = {};
    ASSERT_EQ(fstatvfs(mounted.Get(), &flags), 0);
    EXPECT_EQ(flags.f_flag & (ST_NOSUID | ST_RDONLY), static_cast<unsigned>(ST_NOSUID | ST_RDONLY));
    const agent::Check gone = agent::CheckMount(mounted, "/x", {"nodev"});
    ASSERT_FALSE(gone);
    EXPECT_EQ(gone.Reason(), "/x: nothing is mounted there now; it is unmounted again");
}

TEST_F(MountTest, AMountThatCannotBeLookedAtIsTakenBack) {
    ASSERT_EQ(mount("none", target.c_str(), "tmpfs", MS_NOSUID | MS_NODEV, ""), 0);
    const pid_t child = test::Fork([&] {
        const agent::OwnedFd mounted(open(target.c_str(), O_PATH | O_CLOEXEC));
        // No number is left for the table of mounts.
        const rlimit none = {0, 0};
        if (setrlimit(RLIMIT_NOFILE, &none) != 0) {
            return 1;
        }
        const agent::Check known = agent::CheckMount(mounted, "/x", {"nosuid"});
        return !known &&
                       known.Reason() == "/x: the mount cannot be looked at; it is unmounted again"
                   ? 0
                   : 1;
    });
    EXPECT_EQ(test::Reap(child, test::kLimit), 0);
    EXPECT_EQ(MountedOn(target), "");
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
    plan.operation = agent::Operation::kUmount;
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
    const auto pinned = agent::PinPath(MakePin(1, Pin::kMountPoint, target));
    ASSERT_TRUE(pinned) << pinned.Reason();
    ExpectFine(Run(ToolPlan({"swap-then-umount", target, moved, elsewhere, moved + "/none"})), 32);
    EXPECT_EQ(agent::Unmount(*pinned, {"umount"}), 32);
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
        Plan plan = NodePlan("/mnt/served/new", S_IFIFO);
        EXPECT_EQ(Run(plan).output, "mknod: /mnt/served/new: Function not implemented\n");
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
    Plan plan = NodePlan(path, S_IFCHR);
    plan.node->owner = kNobody;
    plan.node->group = 7;
    ExpectFine(Run(plan));
    struct stat node = {};
    ASSERT_EQ(lstat(path.c_str(), &node), 0);
    EXPECT_EQ(node.st_mode, static_cast<mode_t>(S_IFCHR | 0640));
    EXPECT_EQ(node.st_rdev, makedev(1, 3));
    EXPECT_EQ(node.st_uid, kNobody);
    EXPECT_EQ(node.st_gid, 7u);
}

TEST_F(MountTest, ABlockDeviceAndANamedPipeAreMade) {
    struct stat node = {};
    ExpectFine(Run(NodePlan(directory / "block", S_IFBLK)));
    ASSERT_EQ(lstat((directory / "block").c_str(), &node), 0);
    EXPECT_EQ(node.st_mode, static_cast<mode_t>(S_IFBLK | 0640));
    EXPECT_EQ(node.st_rdev, makedev(1, 3));
    ExpectFine(Run(NodePlan(directory / "pipe", S_IFIFO)));
    ASSERT_EQ(lstat((directory / "pipe").c_str(), &node), 0);
    EXPECT_EQ(node.st_mode, static_cast<mode_t>(S_IFIFO | 0640));
    EXPECT_EQ(node.st_uid, 0u);
}

TEST_F(MountTest, ANodeIsNotMadeOverAnExistingFile) {
    const std::string path = directory / "file";
    ASSERT_TRUE(WriteFile(path, "kept", 0644));
    const Result result = Run(NodePlan(path, S_IFCHR));
    ExpectFine(result, 1);
    EXPECT_EQ(result.outcome.exit, 1);
    EXPECT_EQ(result.output, "mknod: " + path + ": File exists\n");
    EXPECT_EQ(Contents(path), "kept");
}

TEST_F(MountTest, AFailedNodeLeavesNothingBehind) {
    ASSERT_EQ(mount("none", target.c_str(), "tmpfs", 0, "mode=755"), 0);
    ASSERT_TRUE(WriteFile(target + "/file", "kept", 0644));
    ExpectFine(Run(NodePlan(target + "/file", S_IFCHR)), 1);
    EXPECT_TRUE(Shell("test \"$(ls -A " + target + ")\" = file"));
    ASSERT_EQ(mount(nullptr, target.c_str(), nullptr, MS_REMOUNT | MS_RDONLY, ""), 0);
    EXPECT_EQ(Run(NodePlan(target + "/new", S_IFCHR)).output,
              "mknod: " + target + "/new: Read-only file system\n");
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
