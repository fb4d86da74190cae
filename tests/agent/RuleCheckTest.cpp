// SPDX-License-Identifier: Apache-2.0
// What the check of a rule set finds, and what it must not claim.
#include <gtest/gtest.h>

#include "RuleTexts.h"
#include "decide/RuleCheck.h"

namespace {

using Words = std::vector<std::string>;

Words Check(const std::string& text) {
    const auto set = MakeRules(text);
    EXPECT_TRUE(set);
    return set ? agent::CheckRules(*set) : Words{"(not loaded)"};
}

std::string Rule(const std::string& agent, bool permit, const std::string& lines) {
    return "[[rule]]\nname = \"r\"\nagent = \"" + agent +
           "\"\npermit = " + (permit ? "true" : "false") + "\n" + lines;
}

std::string Umount(const std::string& user, const std::string& target,
                   const std::string& lines = "") {
    return Rule("sr_umount", true, "user = " + user + "\ntarget = " + target + "\n" + lines);
}

// The second of two rules can never match, says the check, because of the first.
bool Shadowed(const std::string& first, const std::string& second) {
    for (const std::string& finding : Check(first + second)) {
        if (finding.find("can never match: test.toml:1 matches everything") != std::string::npos) {
            return true;
        }
    }
    return false;
}

TEST(RuleCheck, FindsNothingInGoodRules) {
    EXPECT_EQ(Check(kNarrowRules), Words{});
    EXPECT_EQ(Check(kWideRules), Words{});
    EXPECT_EQ(Check(""), Words{});
}

TEST(RuleCheck, FindsARuleBehindOneThatMatchesTheSame) {
    EXPECT_EQ(Check(Umount("1000", "\"/m\"") + Umount("1000", "\"/m\"")),
              Words{"test.toml:7: rule 'r': can never match: test.toml:1 matches everything that "
                    "it matches"});
}

TEST(RuleCheck, ProvesCoverageByWiderPatterns) {
    EXPECT_TRUE(Shadowed(Umount("\"*\"", "\"/media/**\""), Umount("5", "\"/media/x\"")));
    EXPECT_TRUE(Shadowed(Umount("5", "\"/media/**\""), Umount("5", "\"/media/x/*\"")));
    EXPECT_TRUE(Shadowed(Umount("5", "\"/media/**\""), Umount("5", "\"/media/x/**\"")));
    EXPECT_TRUE(Shadowed(Umount("5", "\"/media/?\""), Umount("5", "\"/media/a\"")));
    EXPECT_TRUE(Shadowed(Umount("[5, 6]", "[\"/a\", \"/b\"]"), Umount("6", "\"/b\"")));
    EXPECT_TRUE(Shadowed(Umount("5", "\"/a\"", "options.allow = [\"lazy\", \"force\"]\n"),
                         Umount("5", "\"/a\"", "options.allow = \"lazy\"\n")));
}

TEST(RuleCheck, DoesNotClaimWhatIsNotProved) {
    EXPECT_FALSE(Shadowed(Umount("5", "\"/media/x\""), Umount("5", "\"/media/**\"")));
    EXPECT_FALSE(Shadowed(Umount("5", "\"/media/**\""), Umount("5", "\"/media*\"")));
    EXPECT_FALSE(Shadowed(Umount("5", "\"/media/**\""), Umount("5", "\"/media\"")));
    EXPECT_FALSE(Shadowed(Umount("5", "\"/a\""), Umount("6", "\"/a\"")));
    EXPECT_FALSE(Shadowed(Umount("5", "\"/a\""), Umount("\"*\"", "\"/a\"")));
    EXPECT_FALSE(Shadowed(Umount("5", "\"/a\"", "exe = \"/x\"\n"), Umount("5", "\"/a\"")));
    EXPECT_FALSE(
        Shadowed(Umount("5", "\"/a\""), Umount("5", "\"/a\"", "options.allow = \"lazy\"\n")));
    EXPECT_FALSE(Shadowed(Umount("5", "\"/a/%uid\""), Umount("5", "\"/a/5\"")));
    EXPECT_FALSE(Shadowed(Umount("5", "\"/a/*\""), Umount("5", "\"/a/%uid\"")));
}

TEST(RuleCheck, ADenyingRuleHidesAPermittingOneButSeldomTheOtherWayRound) {
    const std::string deny = Rule("sr_umount", false, "target = \"/m\"\n");
    EXPECT_TRUE(Shadowed(deny, Umount("5", "\"/m\"", "options.allow = \"lazy\"\n")));
    EXPECT_FALSE(Shadowed(Umount("\"*\"", "\"/m\""), deny));
    EXPECT_TRUE(Shadowed(Rule("sr_rmmod", true, "user = \"*\"\nmodule = \"*\"\n"),
                         Rule("sr_rmmod", false, "module = \"m\"\n")));
}

TEST(RuleCheck, ComparesNumbersAndModes) {
    const auto node = [](const std::string& major, const std::string& mode) {
        return Rule("sr_mknod", true,
                    "user = 5\npath = \"/x\"\nkind = \"c\"\nminor = 0\nmajor = " + major +
                        "\nmode = " + mode + "\n");
    };
    EXPECT_TRUE(
        Shadowed(node("\"1-9\"", "[\"0600\", \"0660\"]"), node("[2, \"4-5\"]", "\"0660\"")));
    EXPECT_FALSE(Shadowed(node("\"1-9\"", "\"0660\""), node("\"9-10\"", "\"0660\"")));
    EXPECT_FALSE(Shadowed(node("\"1-9\"", "\"0660\""), node("2", "\"0666\"")));
}

TEST(RuleCheck, FindsARuleWhoseUsersAreAllUnknown) {
    EXPECT_EQ(Check(Umount("[\"nobody-here\", \"@none\"]", "\"/m\"")),
              Words{"test.toml:1: rule 'r': can never match: there is none of its users"});
}

TEST(RuleCheck, FindsAPatternThatDoesNotCompile) {
    EXPECT_EQ(Check(Umount("5", "\"/a**\"")),
              Words{"test.toml:6: '**' can only be the end '/**' of a pattern"});
}

TEST(RuleCheck, FindsPatternsThatNoRequestCanHave) {
    const auto finding = [](const std::string& agent, const std::string& lines) {
        const Words findings = Check(Rule(agent, true, "user = 5\n" + lines));
        return findings.size() == 1 ? findings[0].substr(findings[0].find("the ", 0)) : "";
    };
    EXPECT_EQ(finding("sr_umount", "target = \"media\"\n"),
              "the target 'media' can never match: no path begins like this");
    EXPECT_EQ(finding("sr_mount_cifs", "target = \"/m\"\nsource = \"//nas/my music\"\n"),
              "the source '//nas/my music' can never match: the share's name holds ' ', which is "
              "not available");
    EXPECT_EQ(finding("sr_umount", "target = \"*\"\n"),
              "the target '*' can never match: a wildcard does not match the '/' at the beginning "
              "of a path");
    EXPECT_EQ(finding("sr_umount", "target = \"/media/\"\n"),
              "the target '/media/' can never match: no path ends in '/'");
    EXPECT_NE(finding("sr_umount", "target = \"/a/../b\"\n"), "");
    EXPECT_NE(finding("sr_umount", "target = \"/a//b\"\n"), "");
    EXPECT_NE(finding("sr_umount", "target = \"/a\"\noptions.allow = \"-l\"\n"), "");
    EXPECT_NE(finding("sr_systemctl", "verb = \"start\"\nunit = \"player\"\n"), "");
    EXPECT_NE(finding("sr_systemctl", "verb = \"start\"\nunit = \"/x.service\"\n"), "");
    EXPECT_NE(finding("sr_rmmod", "module = \"snd-x\"\n"), "");
    const std::string mount = "target = \"/m\"\n";
    EXPECT_NE(finding("sr_mount", mount + "source = \"LABEL=x\"\ntype = \"vfat\"\n"), "");
    EXPECT_NE(finding("sr_mount", mount + "source = \"/a\"\ntype = \"fuse\"\n"), "");
    EXPECT_NE(finding("sr_mount", mount + "source = \"/a\"\ntype = \"vfat\"\n"
                                          "options.allow = \"remount\"\n"),
              "");
    EXPECT_NE(finding("sr_mount_cifs", mount + "source = \"/nas/x\"\n"), "");
    EXPECT_NE(finding("sr_mount_cifs", mount + "source = \"//nas/x\"\n"
                                               "options.allow = \"password=*\"\n"),
              "");
    EXPECT_NE(finding("sr_mount_cifs", mount + "source = \"//nas/x\"\n"
                                               "options.allow = \"username=*\"\n"),
              "");
}

}  // namespace
