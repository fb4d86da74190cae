// SPDX-License-Identifier: Apache-2.0
// The worked examples load without a word and do what their comments say.
#include <dirent.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <algorithm>
#include <fstream>
#include <sstream>

#include "Oracle.h"
#include "RuleTexts.h"
#include "decide/Decide.h"
#include "decide/RuleCheck.h"
#include "decide/RuleReader.h"
#include "rules/RuleFiles.h"

namespace {

const char* const kFiles[] = {
    "00-first-steps.toml", "10-usb-stick.toml", "20-network-share.toml",    "30-device-node.toml",
    "40-module.toml",      "50-units.toml",     "60-deny-before-allow.toml"};

std::string TextOf(const std::string& name) {
    std::ifstream file(std::string(RULE_EXAMPLES) + "/" + name);
    std::ostringstream text;
    text << file.rdbuf();
    EXPECT_TRUE(file.good() || file.eof()) << name;
    return text.str();
}

std::shared_ptr<const agent::RuleSet> AllExamples() {
    std::string text;
    for (const char* name : kFiles) {
        text += TextOf(name);
    }
    return MakeRules(text);
}

bool Allowed(const agent::Caller& caller, const std::string& agentName, const std::string& text) {
    static const auto kSet = AllExamples();
    bool permitted = false;
    EXPECT_EQ(Ask(*kSet, caller, agentName, text, permitted), std::vector<std::string>{}) << text;
    return permitted;
}

TEST(Examples, AreTheseAndNoOthers) {
    std::size_t count = 0;
    DIR* directory = opendir(RULE_EXAMPLES);
    ASSERT_NE(directory, nullptr);
    while (const struct dirent* entry = readdir(directory)) {
        count += entry->d_name[0] != '.' ? 1 : 0;
    }
    closedir(directory);
    EXPECT_EQ(count, std::size(kFiles));
}

TEST(Examples, LoadOneByOneAndTogetherWithoutAWarningOrFinding) {
    for (const char* name : kFiles) {
        const agent::LoadResult result = agent::ParseRules(TextOf(name), name, TestAccounts());
        EXPECT_EQ(result.errors, std::vector<std::string>{});
        ASSERT_TRUE(result.rules);
        EXPECT_FALSE(result.rules->rules.empty());
#ifdef SENTREL_RE2
        EXPECT_EQ(result.warnings, std::vector<std::string>{});
        EXPECT_EQ(agent::CheckRules(*result.rules), std::vector<std::string>{});
#endif
    }
#ifdef SENTREL_RE2
    EXPECT_EQ(agent::CheckRules(*AllExamples()), std::vector<std::string>{});
#endif
}

TEST(Examples, LoadFromTheirDirectoryAsFiles) {
    struct stat status = {};
    ASSERT_EQ(stat(RULE_EXAMPLES, &status), 0);
    const agent::LoadResult result =
        agent::LoadRules({RULE_EXAMPLES}, status.st_uid, TestAccounts());
    EXPECT_EQ(result.errors, std::vector<std::string>{});
    ASSERT_TRUE(result.rules);
    EXPECT_EQ(result.rules->rules.size(), AllExamples()->rules.size());
}

TEST(Examples, AStickIsForThePlayerOnly) {
    const std::string text = "-t vfat -o uid=1000,umask=022 /dev/sdb1 /media/usb0";
    EXPECT_TRUE(Allowed(MakeCaller(1000), "sr_mount", text));
    EXPECT_FALSE(Allowed(MakeCaller(1001), "sr_mount", text));
    EXPECT_FALSE(Allowed(MakeCaller(0), "sr_mount", text));
    EXPECT_FALSE(Allowed(MakeCaller(1000), "sr_mount", "-t vfat -o uid=0 /dev/sdb1 /media/usb0"));
    EXPECT_FALSE(Allowed(MakeCaller(1000), "sr_mount", "-t vfat /dev/sdb2 /media/usb0"));
    EXPECT_TRUE(Allowed(MakeCaller(1000), "sr_umount", "-l /media/usb0"));
    EXPECT_FALSE(Allowed(MakeCaller(1000), "sr_umount", "-f /media/usb0"));
}

// A PC's boot partition is often the first of its first disk.
TEST(Examples, TheMachinesOwnDisksAreNoSticks) {
    for (const char* disk : {"/dev/sda1", "/dev/nvme0n1p1", "/dev/mmcblk0p1", "/dev/vda1"}) {
        for (const char* type : {"vfat", "ext4"}) {
            EXPECT_FALSE(Allowed(MakeCaller(1000), "sr_mount",
                                 std::string("-t ") + type + " " + disk + " /media/usb0"))
                << disk;
        }
    }
}

// What the superblock asks for may be a panic.
TEST(Examples, AnExt4IsMountedOnlyWithAnAnswerToItsErrors) {
    static const auto kSet = AllExamples();
    const agent::Caller caller = MakeCaller(1000);
    const agent::Decision decision =
        agent::Decider(agent::Tools())
            .Decide(*kSet, caller,
                    agent::Parse("sr_mount", "-t ext4 -o ro /dev/sdb1 /media/usb0").request);
    ASSERT_TRUE(decision.permit) << decision.detail;
    std::string command;
    for (const std::string& word : decision.permit->GetPlan().argv) {
        command += word + " ";
    }
    EXPECT_NE(command.find("errors=remount-ro"), std::string::npos) << command;
    EXPECT_FALSE(Allowed(caller, "sr_mount", "-t ext4 -o errors=panic /dev/sdb1 /media/usb0"));
    EXPECT_FALSE(Allowed(caller, "sr_mount", "-t auto /dev/sdb1 /media/usb0"));
    for (const agent::Rule& rule : kSet->rules) {
        for (const char* type : {"ext2", "ext3", "ext4"}) {
            const bool ext = rule.permit && rule.operation == agent::Operation::kMount &&
                             rule.type.given && rule.type.Match(type, agent::Variables());
            EXPECT_TRUE(!ext || std::count(rule.always.begin(), rule.always.end(),
                                           "errors=remount-ro") == 1)
                << rule.where;
        }
    }
}

TEST(Examples, AShareIsMountedWithAPasswordOrACredentialsFile) {
    const std::string end = " //nas.local/music /media/music";
    EXPECT_TRUE(Allowed(MakeCaller(1001), "sr_mount_cifs", "-o user=a,password=geheim" + end));
    EXPECT_TRUE(Allowed(MakeCaller(1000), "sr_mount_cifs", "-o credentials=/home/a/.music" + end));
    EXPECT_FALSE(Allowed(MakeCaller(1000), "sr_mount_cifs", "-o credentials=/etc/shadow" + end));
    EXPECT_FALSE(Allowed(MakeCaller(1000), "sr_mount_cifs", "//nas.local/other /media/music"));
    EXPECT_TRUE(Allowed(MakeCaller(1001), "sr_umount_cifs", "/media/music"));
    EXPECT_FALSE(Allowed(MakeCaller(1002), "sr_umount_cifs", "/media/music"));
}

TEST(Examples, ANodeIsOneOfFour) {
    EXPECT_TRUE(Allowed(MakeCaller(1000), "sr_mknod", "/dev/tuner3 c 240 3"));
    EXPECT_FALSE(Allowed(MakeCaller(1000), "sr_mknod", "/dev/tuner4 c 240 4"));
    EXPECT_FALSE(Allowed(MakeCaller(1000), "sr_mknod", "/dev/tuner3 b 240 3"));
    EXPECT_FALSE(Allowed(MakeCaller(1000), "sr_mknod", "-m 666 /dev/tuner3 c 240 3"));
}

TEST(Examples, AModuleIsLoadedByItsFileAndRemovedByItsName) {
    const std::string path = "/usr/lib/modules/extra/tuner-usb.ko";
    EXPECT_FALSE(Allowed(MakeCaller(1000), "sr_insmod", "/tmp/tuner-usb.ko"));
    EXPECT_FALSE(Allowed(MakeCaller(1000), "sr_insmod", path + " debug=1"));
    EXPECT_FALSE(Allowed(MakeCaller(1000, {}, "/bin/sh"), "sr_insmod", path));
#ifdef SENTREL_RE2
    EXPECT_TRUE(Allowed(MakeCaller(1000), "sr_insmod", path + " index=1 region=eu"));
    EXPECT_FALSE(Allowed(MakeCaller(1000), "sr_insmod", path + " region=mars"));
#endif
    EXPECT_TRUE(Allowed(MakeCaller(1000), "sr_rmmod", "tuner-usb"));
}

TEST(Examples, TwoUnitsHaveThreeVerbs) {
    for (const char* verb : {"start", "stop", "status"}) {
        EXPECT_TRUE(Allowed(MakeCaller(1000), "sr_systemctl", std::string(verb) + " player"));
        EXPECT_TRUE(Allowed(MakeCaller(1000), "sr_systemctl", std::string(verb) + " player-db"));
        EXPECT_FALSE(Allowed(MakeCaller(1000), "sr_systemctl", std::string(verb) + " ssh"));
    }
    EXPECT_FALSE(Allowed(MakeCaller(1000), "sr_systemctl", "restart player"));
}

TEST(Examples, TheFirstStepsAreMemoryAndHarmlessNodesAtOnePlaceForRoot) {
    const agent::Caller root = MakeCaller(0, {0}, "");
    const std::string mount = "-t tmpfs -o size=1m,mode=755 demo /run/media/demo";
    EXPECT_TRUE(Allowed(root, "sr_mount", mount));
    EXPECT_FALSE(Allowed(MakeCaller(1000, {1000}, ""), "sr_mount", mount));
    EXPECT_FALSE(Allowed(root, "sr_mount", "-t tmpfs demo /run/media/other"));
    EXPECT_FALSE(Allowed(root, "sr_mount", "-t ext4 demo /run/media/demo"));
    EXPECT_TRUE(Allowed(root, "sr_umount", "/run/media/demo"));
    EXPECT_TRUE(Allowed(root, "sr_mknod", "-m 600 /run/media/demo/null c 1 3"));
    EXPECT_FALSE(Allowed(root, "sr_mknod", "/run/media/demo/mem c 1 1"));
    EXPECT_FALSE(Allowed(root, "sr_mknod", "/run/media/demo/port c 1 4"));
    EXPECT_FALSE(Allowed(root, "sr_mknod", "/run/media/demo/disk b 8 0"));
}

TEST(Examples, TheSystemsDiskIsClosedBeforeCardsAreOpened) {
    const agent::Caller caller = MakeCaller(1001, {44});
    EXPECT_TRUE(Allowed(caller, "sr_mount", "-t vfat /dev/mmcblk1p1 /media/card"));
    EXPECT_FALSE(Allowed(caller, "sr_mount", "-t vfat /dev/mmcblk0p1 /media/card"));
    EXPECT_FALSE(Allowed(caller, "sr_mount", "-t vfat /dev/mmcblk1p1 /media/system"));
    EXPECT_FALSE(Allowed(MakeCaller(1001), "sr_mount", "-t vfat /dev/mmcblk1p1 /media/card"));
}

}  // namespace
