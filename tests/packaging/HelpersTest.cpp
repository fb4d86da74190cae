// SPDX-License-Identifier: Apache-2.0
// What the typed helpers of <sentrel/Arguments.h> send, as the far end of a bus sees it.
#include <gtest/gtest.h>
#include <sentrel/Arguments.h>

#include "AgentProcess.h"
#include "PrivateBus.h"

namespace {

class HelpersTest : public testing::Test {
protected:
    // Agent, text and descriptor of the next call.
    std::string Sent() {
        const std::string report = agent.NextReport();
        const std::size_t at = report.find(" | ");
        return at == std::string::npos ? report : report.substr(at + 3);
    }

    test::PrivateBus bus;
    test::AgentProcess agent{{"--text", "0 32"}};
};

TEST_F(HelpersTest, MountSendsTypeOptionsAndOperands) {
    const sentrel::Outcome outcome =
        sentrel::Mount("none", "/run/a b", "tmpfs", {"size=1m", "ro"}, 7);
    EXPECT_EQ("sr_mount | -t tmpfs -o size=1m,ro -- none '/run/a b' | 7", Sent());
    EXPECT_TRUE(outcome.Ran());
    EXPECT_FALSE(outcome.Succeeded());
    EXPECT_EQ(32, outcome.exitCode);
    EXPECT_STREQ("OK", outcome.Text());
}

TEST_F(HelpersTest, MountWithoutTypeAndOptionsSendsOperandsOnly) {
    (void)sentrel::Mount("/dev/sda1", "/media/usb", "");
    EXPECT_EQ("sr_mount | -- /dev/sda1 /media/usb | 0", Sent());
}

TEST_F(HelpersTest, AnOptionWithACommaIsNotSent) {
    EXPECT_THROW((void)sentrel::Mount("none", "/run/x", "tmpfs", {"size=1m,suid"}),
                 std::invalid_argument);
    EXPECT_THROW((void)sentrel::MountCifs("//h/s", "/run/x", {""}), std::invalid_argument);
    (void)sentrel::Rmmod("first");
    EXPECT_EQ("sr_rmmod | -- first | 0", Sent());
}

TEST_F(HelpersTest, UmountSendsFlagsByTheirLongNames) {
    (void)sentrel::Umount("/media/usb", {"lazy", "force"});
    EXPECT_EQ("sr_umount | --lazy --force -- /media/usb | 0", Sent());
    (void)sentrel::UmountCifs("/media/music");
    EXPECT_EQ("sr_umount_cifs | -- /media/music | 0", Sent());
}

TEST_F(HelpersTest, MountCifsSendsShareAndOptions) {
    (void)sentrel::MountCifs("//nas/music", "/media/music", {"user=me", "password=it's"});
    EXPECT_EQ("sr_mount_cifs | -o 'user=me,password=it'\\''s' -- //nas/music /media/music | 0",
              Sent());
}

TEST_F(HelpersTest, MknodSendsModeKindAndNumbers) {
    (void)sentrel::Mknod("/dev/tuner0", 'c', 240, 3, "0660");
    EXPECT_EQ("sr_mknod | -m 0660 -- /dev/tuner0 c 240 3 | 0", Sent());
}

TEST_F(HelpersTest, InsmodSendsFileAndParameters) {
    (void)sentrel::Insmod("/lib/m/t.ko", {"index=1", "on"});
    EXPECT_EQ("sr_insmod | -- /lib/m/t.ko index=1 on | 0", Sent());
}

TEST_F(HelpersTest, SystemctlSendsOptionsVerbAndUnits) {
    (void)sentrel::Systemctl("restart", {"a.service", "b@1.service"}, {"no-block"});
    EXPECT_EQ("sr_systemctl | --no-block -- restart a.service b@1.service | 0", Sent());
}

TEST_F(HelpersTest, WithoutAnAgentTheStatusSaysSo) {
    agent.Kill();
    const sentrel::Outcome outcome = sentrel::Rmmod("x");
    EXPECT_EQ(SR_COMM_NO_SERVICE, outcome.status);
    EXPECT_FALSE(outcome.Ran());
    EXPECT_STREQ("COMM_NO_SERVICE", outcome.Text());
}

}  // namespace
