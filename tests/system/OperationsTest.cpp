// SPDX-License-Identifier: Apache-2.0
// The C interface against the real agent and the real tools, as root, in a mount namespace of this
// process's own; the agent is started from here and so inside it too.
#include <fcntl.h>
#include <grp.h>
#include <gtest/gtest.h>
#include <sentrel/SR_API.h>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <sys/sysmacros.h>
#include <sys/vfs.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <fstream>
#include <memory>

#include "Command.h"
#include "Monitor.h"
#include "MountNamespace.h"
#include "PrivateBus.h"
#include "Programs.h"
#include "Skip.h"
#include "StreamListener.h"

namespace {

const long kTmpfs = 0x01021994;
const uid_t kNobody = 65534;

typedef int Operation(const char* args, unsigned int length, int descriptor, int* result);

struct Outcome {
    int status = -1;
    int result = -1;
    std::string output;
};

Outcome Ask(Operation* operation, const std::string& text) {
    test::Pipe output;
    Outcome outcome;
    outcome.status = operation(text.data(), static_cast<unsigned>(text.size()), output.Writer(),
                               &outcome.result);
    outcome.output = test::ReadReady(output.Reader());
    return outcome;
}

long FileSystemOf(const std::string& path) {
    struct statfs system = {};
    return statfs(path.c_str(), &system) == 0 ? static_cast<long>(system.f_type) : -1;
}

class OperationsTest : public testing::Test {
protected:
    void SetUp() override {
        NEEDS_MOUNT_NAMESPACE();
        place = test::PrivateBus::Folder() + "/place";
        ASSERT_EQ(0, mkdir(place.c_str(), 0755));
        bus = std::make_unique<test::PrivateBus>();
        rules = std::make_unique<test::RuleFolder>();
        // What root's own directories need no consent for, those of a test in /tmp do.
        WriteRules(place, "open_parents = true\n");
        agent = std::make_unique<test::RunningAgent>(
            std::vector<std::string>{"--rules", rules->Folder(), "--audit-stderr"});
    }
    void WriteRules(const std::string& where, const std::string& more) const {
        const std::string end = "permit = true\nuser = [0, 65534]\n" + more;
        const std::string at = "\"\ntarget = [\"" + where + "\", \"" + where + "/*\"]\n" + end;
        const std::string name = "[[rule]]\nname = \"x\"\nagent = \"";
        rules->Write("all.toml", name +
                                     "sr_mount\"\nsource = \"test\"\ntype = \"tmpfs\"\n"
                                     "options.allow = [\"size=*\", \"mode=*\"" +
                                     "]" + at.substr(1) + name + "sr_umount" + at + name +
                                     "sr_mknod\"\npath = \"" + where +
                                     "/*\"\nkind = \"c\"\nmajor = 1\nminor = \"3-5\"\n"
                                     "mode = \"0640\"\n" +
                                     end);
        rules->Write("bind.toml", name + "sr_mount\"\nsource = \"" + where +
                                      "/*\"\ntype = \"none\"\noptions.allow = \"bind\"" +
                                      at.substr(1));
    }
    void TearDown() override {
        if (!place.empty()) {
            while (umount2(place.c_str(), MNT_DETACH) == 0) {
            }
            (void)rmdir(place.c_str());
        }
    }
    void MountTmpfs() {
        const Outcome mounted = Ask(SR_Mount, "-t tmpfs -o size=1m,mode=755 test " + place);
        ASSERT_EQ(SR_OK, mounted.status);
        ASSERT_EQ(0, mounted.result) << mounted.output;
        ASSERT_EQ(kTmpfs, FileSystemOf(place));
    }

    std::string place;
    std::unique_ptr<test::PrivateBus> bus;
    std::unique_ptr<test::RuleFolder> rules;
    std::unique_ptr<test::RunningAgent> agent;
};

// A service's standard output leads to the journal, which the agent refuses; the command passes the
// output on.
TEST_F(OperationsTest, TheCommandServesAServiceWhoseOutputIsTheSystemsLog) {
    const std::string folder = test::PrivateBus::Folder() + "/dev";
    ASSERT_EQ(0, mkdir(folder.c_str(), 0755));
    {
        const test::StreamListener log(folder + "/log");
        const test::Descriptor output(log.Connect());
        const test::Descriptor reader(log.Accept());
        int result = -1;
        const std::string text = "-t tmpfs -o size=much test " + place;
        EXPECT_EQ(SR_FAIL,
                  SR_Mount(text.data(), static_cast<unsigned>(text.size()), output.Get(), &result));
        (void)agent->NextLineWith("leads to the system's log");
        EXPECT_EQ("", test::ReadReady(reader.Get()));
        const pid_t command =
            test::Spawn({SENTREL_COMMAND, "mount", "-t", "tmpfs", "-o", "size=much", "test", place},
                        {}, output.Get());
        EXPECT_EQ(32 << 8, test::Reap(command, test::kLimit));
        EXPECT_NE("", test::ReadReady(reader.Get()));  // the tool's own words
    }
    (void)unlink((folder + "/log").c_str());
    (void)rmdir(folder.c_str());
}

TEST_F(OperationsTest, AFileSystemIsMountedWithItsOptionsAndUnmountedAgain) {
    const bool before = FileSystemOf(place) == kTmpfs;
    MountTmpfs();
    struct statfs system = {};
    ASSERT_EQ(0, statfs(place.c_str(), &system));
    EXPECT_EQ(1048576U, static_cast<unsigned long>(system.f_blocks) *
                            static_cast<unsigned long>(system.f_bsize));
    std::ofstream(place + "/inside") << "x";
    EXPECT_EQ(0, access((place + "/inside").c_str(), F_OK));

    const Outcome unmounted = Ask(SR_Umount, place);
    EXPECT_EQ(SR_OK, unmounted.status);
    EXPECT_EQ(0, unmounted.result) << unmounted.output;
    EXPECT_NE(0, access((place + "/inside").c_str(), F_OK));
    EXPECT_EQ(before, FileSystemOf(place) == kTmpfs);
}

TEST_F(OperationsTest, ADeviceNodeIsMadeWithItsNumberAndMode) {
    MountTmpfs();
    const std::string path = place + "/a node";
    const Outcome made = Ask(SR_Mknod, "-m 640 '" + path + "' c 1 3");
    EXPECT_EQ(SR_OK, made.status);
    EXPECT_EQ(0, made.result) << made.output;
    struct stat status = {};
    ASSERT_EQ(0, stat(path.c_str(), &status));
    EXPECT_TRUE(S_ISCHR(status.st_mode));
    EXPECT_EQ(0640U, status.st_mode & 07777U);
    EXPECT_EQ(makedev(1, 3), status.st_rdev);
}

TEST_F(OperationsTest, APathThatIsNotThereIsRefusedAndAToolsFailureIsItsExitCode) {
    const Outcome missing = Ask(SR_Mount, "-t tmpfs test '" + place + "/not there'");
    EXPECT_EQ(SR_RULE_NO_FOUND, missing.status);
    EXPECT_TRUE(test::Holds(missing.output, "not there: No such file")) << missing.output;
    const Outcome unmounted = Ask(SR_Umount, place);
    EXPECT_EQ(SR_RULE_NO_FOUND, unmounted.status);
    EXPECT_TRUE(test::Holds(unmounted.output, "nothing is mounted there")) << unmounted.output;
    const Outcome failed = Ask(SR_Mount, "-t tmpfs -o size=nonsense test " + place);
    EXPECT_EQ(SR_OK, failed.status);
    EXPECT_EQ(32, failed.result);
    EXPECT_NE("", failed.output);
}

TEST_F(OperationsTest, WhatWasMountedThroughTheAgentIsListedAsLongAsItIsThere) {
    MountTmpfs();
    const test::PlainConnection mine;
    const auto list = [&mine] {
        return test::Send(mine.Get(), dbus_message_new_method_call(
                                          "org.sentrel.sr_agent", "/org/sentrel/sr_agent",
                                          "org.sentrel.sr_agent.Control1", "Mounts"))
            .text;
    };
    const std::string listed = list();
    EXPECT_EQ(0U, listed.find("[{\"target\":\"" + place +
                              "\",\"source\":\"test\",\"type\":\"tmpfs\",\"rule\":\""))
        << listed;
    EXPECT_TRUE(test::Holds(listed, "\"uid\":0,\"since\":\"2")) << listed;
    // Behind the agent's back.
    ASSERT_EQ(0, umount2(place.c_str(), 0));
    EXPECT_EQ("[]", list());
}

TEST_F(OperationsTest, EveryMountIsWithoutSetUserIdProgramsAndDevices) {
    MountTmpfs();
    struct statvfs system = {};
    ASSERT_EQ(0, statvfs(place.c_str(), &system));
    EXPECT_NE(0U, system.f_flag & ST_NOSUID);
    EXPECT_NE(0U, system.f_flag & ST_NODEV);
}

TEST_F(OperationsTest, ADirectoryAndAFileAreBoundBelowRootsOwnDirectories) {
    ASSERT_EQ(0, mount("none", "/mnt", "tmpfs", MS_NOSUID | MS_NODEV, "mode=755"));
    for (const char* name : {"/mnt/from", "/mnt/to"}) {
        ASSERT_EQ(0, mkdir(name, 0755));
    }
    std::ofstream("/mnt/from/file") << "seen";
    WriteRules("/mnt", "");
    agent->Signal(SIGHUP);
    (void)agent->NextLineWith("loaded");
    const Outcome bound = Ask(SR_Mount, "--bind /mnt/from /mnt/to");
    EXPECT_EQ(SR_OK, bound.status) << bound.output;
    EXPECT_EQ(0, bound.result) << bound.output;
    EXPECT_EQ(0, access("/mnt/to/file", F_OK));
    const Outcome unbound = Ask(SR_Umount, "/mnt/to");
    EXPECT_EQ(SR_OK, unbound.status) << unbound.output;
    EXPECT_NE(0, access("/mnt/to/file", F_OK));
    EXPECT_EQ(0, umount2("/mnt", 0));
}

TEST_F(OperationsTest, ABusyFileSystemStaysMountedAndSaysSo) {
    MountTmpfs();
    const test::Descriptor held(open(place.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    ASSERT_GE(held.Get(), 0);
    const Outcome busy = Ask(SR_Umount, place);
    EXPECT_EQ(SR_OK, busy.status);
    EXPECT_NE(0, busy.result);
    EXPECT_NE("", busy.output);
    EXPECT_EQ(kTmpfs, FileSystemOf(place));
}

TEST_F(OperationsTest, TheCommandMountsAndUnmountsToo) {
    const test::Finished mounted = test::RunCommand({"mount", "-t", "tmpfs", "test", place});
    EXPECT_EQ(0, mounted.exit) << mounted.output << mounted.errors;
    EXPECT_EQ(kTmpfs, FileSystemOf(place));
    const test::Finished unmounted = test::RunCommand({"umount", place});
    EXPECT_EQ(0, unmounted.exit) << unmounted.output << unmounted.errors;
}

TEST_F(OperationsTest, ACallerWithoutRightsGetsTheToolsOutputButNoWayIntoRootsFiles) {
    // Open for reading only, of a file that only root may write.
    const std::string path = test::PrivateBus::Folder() + "/of-root";
    std::ofstream(path) << "untouched";
    ASSERT_EQ(0, chmod(path.c_str(), 0644));
    const test::Descriptor readOnly(open(path.c_str(), O_RDONLY | O_CLOEXEC));
    test::Pipe output;
    const pid_t caller = test::Fork([&] {
        if (setgroups(0, nullptr) != 0 || setgid(kNobody) != 0 || setuid(kNobody) != 0) {
            return 90;
        }
        // As one that was started by its user; the change of ids alone makes a process closed.
        (void)prctl(PR_SET_DUMPABLE, 1);
        const std::string text = "-t tmpfs -o size=nonsense test " + place;
        int result = -1;
        const unsigned length = static_cast<unsigned>(text.size());
        const int refused = SR_Mount(text.data(), length, readOnly.Get(), &result);
        const int done = SR_Mount(text.data(), length, output.Writer(), &result);
        return refused == SR_FAIL && done == SR_OK && result == 32 ? 0 : 1;
    });
    EXPECT_EQ(0, test::Reap(caller, test::kLimit));
    EXPECT_NE("", test::ReadReady(output.Reader()));
    std::ifstream file(path);
    std::string text;
    std::getline(file, text);
    EXPECT_EQ("untouched", text);
    EXPECT_NE("", agent->NextLineWith(" uid=65534 "));
}

}  // namespace
