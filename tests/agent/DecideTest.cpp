// SPDX-License-Identifier: Apache-2.0
// Who may do what, and the command that comes out of it.
#include <linux/mount.h>
#include <sys/stat.h>

#include "decide/Decide.h"

#include <gtest/gtest.h>

#include <type_traits>

#include "Oracle.h"
#include "RuleTexts.h"

using agent::Caller;
using agent::Decision;
using agent::Pin;
using agent::Plan;

namespace {

using Words = std::vector<std::string>;

Decision Decide(const agent::RuleSet& set, const Caller& caller, const std::string& agentName,
                const std::string& text, const agent::Tools& tools = agent::Tools()) {
    const agent::Parsed parsed = agent::Parse(agentName, text);
    EXPECT_EQ(parsed.status, SR_OK) << parsed.error;
    return agent::Decider(tools).Decide(set, caller, parsed.request);
}

// The plan that the only rule gives to player; an empty one when it is refused.
Plan PlanOf(const std::string& agentName, const std::string& rule, const std::string& text) {
    const auto set = MakeRules("[[rule]]\nname = \"r\"\nagent = \"" + agentName +
                               "\"\npermit = true\nuser = 1000\n" + rule);
    EXPECT_TRUE(set);
    const Decision decision = Decide(*set, MakeCaller(1000), agentName, text);
    EXPECT_EQ(decision.status == SR_OK, decision.permit.has_value());
    if (!decision.permit) {
        EXPECT_EQ(decision.status, SR_RULE_NO_FOUND);
        return Plan();
    }
    EXPECT_EQ(decision.rule, "test.toml:1");
    EXPECT_EQ(
        Objections(set->rules[0], MakeCaller(1000), agent::Tools(), decision.permit->GetPlan()),
        Words{});
    return decision.permit->GetPlan();
}

std::string Command(const Plan& plan) {
    std::string line;
    for (const std::string& word : plan.argv) {
        line += (line.empty() ? "" : " ") + word;
    }
    return line;
}

std::string Pins(const Plan& plan) {
    static const char* const kKinds[] = {"directory", "file",       "any",
                                         "parent",    "mountpoint", "module"};
    std::string line;
    for (const Pin& pin : plan.pins) {
        line += std::to_string(pin.argument) + " " + kKinds[pin.kind] + " " + pin.path +
                (pin.rootOwnedChain ? " closed;" : " open;");
    }
    return line;
}

const char kMountRule[] = "source = \"/**\"\ntarget = \"/**\"\ntype = [\"vfat\", \"auto\"]\n";

TEST(Decide, APermitCannotBeMadeByAnybodyElse) {
    EXPECT_FALSE((std::is_constructible<agent::Permit, Plan&&>::value));
    EXPECT_FALSE((std::is_constructible<agent::Permit, const Plan&>::value));
    EXPECT_FALSE(std::is_default_constructible<agent::Permit>::value);
    EXPECT_FALSE(std::is_copy_constructible<agent::Permit>::value);
    EXPECT_TRUE(std::is_move_constructible<agent::Permit>::value);
}

TEST(Decide, AMountIsRebuiltWithTheProtectingFlagsLast) {
    const Plan plan = PlanOf("sr_mount",
                             std::string(kMountRule) +
                                 "options.allow = [\"ro\", \"uid=*\"]\n"
                                 "options.always = [\"noexec\", \"gid=%gid\"]\ndeadline = 5\n",
                             "/dev/sda1 /m -r -o uid=7 -t vfat");
    EXPECT_EQ(Command(plan),
              "/usr/bin/mount -i -n --no-canonicalize -t vfat -o "
              "ro,uid=7,noexec,gid=1100,nosuid,nodev -- /dev/sda1 /m");
    EXPECT_EQ(Pins(plan), "9 file /dev/sda1 closed;10 directory /m closed;");
    EXPECT_EQ(plan.requiredMountFlags, (Words{"nosuid", "nodev", "noexec"}));
    EXPECT_EQ(plan.deadline.count(), 5000);
    EXPECT_EQ(plan.operation, agent::Operation::kMount);
}

TEST(Decide, AMountOfNothingHasNoPinnedSource) {
    const Plan plan = PlanOf("sr_mount", "source = \"none\"\ntarget = \"/m\"\ntype = \"tmpfs\"\n",
                             "-t tmpfs none /m");
    EXPECT_EQ(Command(plan),
              "/usr/bin/mount -i -n --no-canonicalize -t tmpfs -o nosuid,nodev -- none /m");
    EXPECT_EQ(Pins(plan), "10 directory /m closed;");
}

TEST(Decide, AMountWithoutATypeNeedsARuleForAuto) {
    EXPECT_EQ(Command(PlanOf("sr_mount", kMountRule, "/dev/a /m")),
              "/usr/bin/mount -i -n --no-canonicalize -t auto -o nosuid,nodev -- /dev/a /m");
    EXPECT_EQ(Command(PlanOf("sr_mount", "source = \"/**\"\ntarget = \"/**\"\ntype = \"vfat\"\n",
                             "/dev/a /m")),
              "");
}

TEST(Decide, TheProtectingFlagsStayAwayOnlyByConsent) {
    const std::string base = kMountRule;
    EXPECT_EQ(PlanOf("sr_mount", base + "suid = true\n", "-t vfat /a /m").argv[7], "nodev");
    EXPECT_EQ(PlanOf("sr_mount", base + "dev = true\n", "-t vfat /a /m").argv[7], "nosuid");
    EXPECT_EQ(Command(PlanOf("sr_mount", base + "dev = true\nsuid = true\n", "-t vfat /a /m")),
              "/usr/bin/mount -i -n --no-canonicalize -t vfat -- /a /m");
    EXPECT_EQ(PlanOf("sr_mount", base + "dev = true\noptions.always = \"nodev\"\n", "-t vfat /a /m")
                  .argv[7],
              "nosuid,nodev");
    // Asking for it takes the consent and the allowed option.
    for (const char* flag : {"suid", "dev"}) {
        const std::string name = flag;
        const std::string text = "-t vfat -o " + name + " /a /m";
        const std::string allow = "options.allow = [\"" + name + "\"]\n";
        EXPECT_EQ(Command(PlanOf("sr_mount", base + allow, text)), "");
        EXPECT_EQ(Command(PlanOf("sr_mount", base + name + " = true\n", text)), "");
        EXPECT_EQ(
            Command(PlanOf("sr_mount", base + name + " = true\noptions.allow = \"*\"\n", text)),
            "");
        EXPECT_NE(Command(PlanOf("sr_mount", base + name + " = true\n" + allow, text)), "");
    }
}

TEST(Decide, ABindOrALoopIsOnlyMeantByItsName) {
    const std::string base = "source = \"/**\"\ntarget = \"/**\"\ntype = [\"none\", \"ext4\"]\n";
    EXPECT_EQ(
        Command(PlanOf("sr_mount", base + "options.allow = [\"*\", \"b*\"]\n", "--bind /a /m")),
        "");
    EXPECT_EQ(
        Command(PlanOf("sr_mount", base + "options.allow = \"*\"\n", "-t ext4 -o loop /a /m")), "");
    const Plan plan = PlanOf("sr_mount", base + "options.allow = \"bind\"\n", "--bind /a /m");
    EXPECT_EQ(Command(plan),
              "/usr/bin/mount -i -n --no-canonicalize -o bind,nosuid,nodev -- /a /m");
    EXPECT_EQ(Pins(plan), "7 any /a closed;8 directory /m closed;");
    EXPECT_NE(
        Command(PlanOf("sr_mount", base + "options.allow = \"loop\"\n", "-t ext4 -o loop /a /m")),
        "");
}

TEST(Decide, ABindMountsFlagsAreTheCallersOverruledByTheForcedOnes) {
    const auto flags = [](const std::string& rule, const std::string& options) {
        const Plan plan = PlanOf("sr_mount",
                                 "source = \"/a\"\ntarget = \"/m\"\ntype = \"none\"\n"
                                 "options.allow = [\"bind\", \"*\", \"suid\", \"dev\"]\n" +
                                     rule,
                                 "-o bind" + options + " /a /m");
        EXPECT_TRUE(plan.bind) << rule << options;
        return plan.bind ? std::make_pair(plan.bind->set, plan.bind->clear)
                         : std::make_pair<std::uint64_t, std::uint64_t>(0, 0);
    };
    const std::uint64_t forced = MOUNT_ATTR_NOSUID | MOUNT_ATTR_NODEV;
    typedef std::pair<std::uint64_t, std::uint64_t> Flags;
    EXPECT_EQ(flags("", ""), Flags(forced, 0));
    EXPECT_EQ(flags("", ",ro,noexec"), Flags(forced | MOUNT_ATTR_RDONLY | MOUNT_ATTR_NOEXEC, 0));
    // What the source's mount has to protect, no word takes away.
    EXPECT_EQ(flags("", ",ro,rw,exec"), Flags(forced, 0));
    EXPECT_EQ(flags("options.always = [\"ro\", \"noexec\"]\n", ",exec,rw"),
              Flags(forced | MOUNT_ATTR_RDONLY | MOUNT_ATTR_NOEXEC, 0));
    EXPECT_EQ(flags("suid = true\ndev = true\n", ""), Flags(0, 0));
    EXPECT_EQ(flags("suid = true\ndev = true\n", ",suid,dev"), Flags(0, 0));
    EXPECT_EQ(flags("suid = true\noptions.always = \"nosuid\"\n", ",suid"), Flags(forced, 0));
    EXPECT_EQ(flags("", ",noatime,nodiratime"),
              Flags(forced | MOUNT_ATTR_NOATIME | MOUNT_ATTR_NODIRATIME, MOUNT_ATTR__ATIME));
    EXPECT_EQ(flags("", ",noatime,strictatime"),
              Flags(forced | MOUNT_ATTR_STRICTATIME, MOUNT_ATTR__ATIME));
    EXPECT_EQ(flags("options.always = \"nosymfollow\"\n", ",symfollow"),
              Flags(forced | MOUNT_ATTR_NOSYMFOLLOW, 0));
}

// What is bound has its file system already: there is nobody to give the option to.
TEST(Decide, ABindMountHasNoOptionsOfAFileSystem) {
    const std::string base =
        "source = \"/a\"\ntarget = \"/m\"\ntype = [\"none\", \"vfat\"]\n"
        "options.allow = [\"bind\", \"uid=*\"]\n";
    for (const char* option : {"uid=0", "sync", "_netdev", "loop", "nosymfollow=x"}) {
        const agent::Parsed parsed =
            agent::Parse("sr_mount", std::string("-o bind,") + option + " /a /m");
        EXPECT_EQ(parsed.status, SR_FAIL) << option;
        EXPECT_EQ(parsed.error.find("a bind mount cannot have the option"), 0U) << parsed.error;
    }
    const std::string forced = base + "options.always = \"umask=022\"\n";
    EXPECT_EQ(Command(PlanOf("sr_mount", forced, "--bind /a /m")), "");
    EXPECT_NE(Command(PlanOf("sr_mount", forced, "-t vfat /a /m")), "");
}

TEST(Decide, AHelperRunsOnlyForTheTypesThatTheRuleNames) {
    const std::string rule =
        "source = \"nas:/x\"\ntarget = \"/m\"\ntype = [\"nfs\", \"ext4\"]\n"
        "helper = \"nfs\"\n";
    EXPECT_EQ(Command(PlanOf("sr_mount", rule, "-t nfs nas:/x /m")),
              "/usr/bin/mount -n --no-canonicalize -t nfs -o nosuid,nodev -- nas:/x /m");
    EXPECT_EQ(Command(PlanOf("sr_mount", rule, "-t ext4 nas:/x /m")),
              "/usr/bin/mount -i -n --no-canonicalize -t ext4 -o nosuid,nodev -- nas:/x /m");
}

TEST(Decide, AnAllowedKeyDoesNotAllowAValue) {
    const std::string rule =
        std::string(kMountRule) + "options.allow = [\"umask\", \"uid=%uid\"]\n";
    EXPECT_NE(Command(PlanOf("sr_mount", rule, "-t vfat -o umask /a /m")), "");
    EXPECT_EQ(Command(PlanOf("sr_mount", rule, "-t vfat -o umask=0 /a /m")), "");
    EXPECT_NE(Command(PlanOf("sr_mount", rule, "-t vfat -o uid=1000 /a /m")), "");
    EXPECT_EQ(Command(PlanOf("sr_mount", rule, "-t vfat -o uid=0 /a /m")), "");
    EXPECT_EQ(Command(PlanOf("sr_mount", rule, "-t vfat -o uid=1000,uid=0 /a /m")), "");
}

TEST(Decide, ParentsMayBeOthersOnlyByConsent) {
    EXPECT_EQ(Pins(PlanOf("sr_mount", std::string(kMountRule) + "open_parents = true\n",
                          "-t vfat /a /m")),
              "9 file /a open;10 directory /m open;");
}

TEST(Decide, AnUmountHasItsMountPointPinned) {
    const Plan plan = PlanOf("sr_umount",
                             "target = \"/m/*\"\noptions.allow = [\"lazy\"]\n"
                             "options.always = [\"force\"]\n",
                             "-l -l /m/x");
    EXPECT_EQ(Command(plan), "/usr/bin/umount -i --no-canonicalize --lazy --force -- /m/x");
    EXPECT_EQ(Pins(plan), "6 mountpoint /m/x closed;");
    EXPECT_EQ(Command(PlanOf("sr_umount", "target = \"/m/*\"\n", "-l /m/x")), "");
}

TEST(Decide, APasswordTravelsOutsideTheCommand) {
    const std::string rule =
        "source = \"//nas/x\"\ntarget = \"/m\"\n"
        "options.allow = [\"user=*\", \"password\"]\n"
        "options.always = [\"uid=%uid\"]\n";
    const Plan plan = PlanOf("sr_mount_cifs", rule, "-o user=me,password=geheim //nas/x /m");
    EXPECT_EQ(Command(plan), "/usr/sbin/mount.cifs -o user=me,uid=1000,nosuid,nodev -- //nas/x /m");
    EXPECT_EQ(plan.secret, "geheim");
    EXPECT_EQ(plan.secretFile, "");
    EXPECT_EQ(Pins(plan), "5 directory /m closed;");
    EXPECT_EQ(plan.requiredMountFlags, (Words{"nosuid", "nodev"}));
    EXPECT_EQ(Command(PlanOf("sr_mount_cifs", rule, "-o credentials=/c //nas/x /m")), "");
}

TEST(Decide, ACredentialsFileTravelsOutsideTheCommandToo) {
    const std::string rule =
        "source = \"//nas/x\"\ntarget = \"/m\"\n"
        "options.allow = \"credentials=/home/*/.cred\"\n";
    const Plan plan = PlanOf("sr_mount_cifs", rule, "-o cred=/home/me/.cred //nas/x /m");
    EXPECT_EQ(Command(plan), "/usr/sbin/mount.cifs -o nosuid,nodev -- //nas/x /m");
    EXPECT_EQ(plan.secretFile, "/home/me/.cred");
    EXPECT_EQ(Command(PlanOf("sr_mount_cifs", rule, "-o cred=/etc/shadow //nas/x /m")), "");
    EXPECT_EQ(Command(PlanOf("sr_mount_cifs", rule, "-o password=x //nas/x /m")), "");
}

TEST(Decide, ANodeHasModeOwnerAndItsParentPinned) {
    const std::string rule =
        "path = \"/dev/x?\"\nkind = [\"c\", \"p\"]\nmajor = 240\n"
        "minor = \"0-3\"\nowner = \"player\"\ngroup = \"media\"\n";
    const Plan plan = PlanOf("sr_mknod", rule + "mode = [\"0640\", \"0600\"]\n", "/dev/x1 c 240 1");
    EXPECT_EQ(Command(plan), "mknod -m 0640 -- /dev/x1 c 240 1");
    EXPECT_EQ(Pins(plan), "4 parent /dev/x1 closed;");
    ASSERT_TRUE(plan.node);
    EXPECT_EQ(plan.node->type, static_cast<mode_t>(S_IFCHR));
    EXPECT_EQ(plan.node->mode, 0640U);
    EXPECT_EQ(plan.node->majorNumber, 240U);
    EXPECT_EQ(plan.node->minorNumber, 1U);
    EXPECT_EQ(plan.node->owner, 1000U);
    EXPECT_EQ(plan.node->group, 44U);
    EXPECT_EQ(Command(PlanOf("sr_mknod", rule, "-m 600 /dev/x1 p")), "mknod -m 0600 -- /dev/x1 p");
    EXPECT_EQ(Command(PlanOf("sr_mknod", rule, "-m 644 /dev/x1 p")), "");
    EXPECT_EQ(Command(PlanOf("sr_mknod", rule, "/dev/x1 c 240 4")), "");
    EXPECT_EQ(Command(PlanOf("sr_mknod", rule, "/dev/x1 c 241 1")), "");
    EXPECT_EQ(Command(PlanOf("sr_mknod", rule, "/dev/x1 b 240 1")), "");
}

TEST(Decide, AModulesFileNeedsAClosedChainWhateverTheRuleSays) {
    const std::string rule = "path = \"/m/*.ko\"\nmodule = \"snd_*\"\nparameters = \"index=?\"\n";
    const Plan plan = PlanOf("sr_insmod", rule, "/m/snd-x.ko index=1");
    EXPECT_EQ(Command(plan), "/usr/sbin/insmod -- /m/snd-x.ko index=1");
    EXPECT_EQ(Pins(plan), "2 module /m/snd-x.ko closed;");
    EXPECT_EQ(Command(PlanOf("sr_insmod", rule, "/m/snd-x.ko index=12")), "");
    EXPECT_EQ(Command(PlanOf("sr_insmod", rule, "/m/usb-x.ko")), "");
    EXPECT_EQ(Command(PlanOf("sr_insmod", "path = \"/m/*.ko\"\n", "/m/x.ko a=1")), "");
    EXPECT_EQ(Command(PlanOf("sr_rmmod", "module = \"snd_x\"\n", "snd-x")),
              "/usr/sbin/rmmod -- snd_x");
}

TEST(Decide, EveryUnitMustBeAllowed) {
    const std::string rule =
        "verb = [\"start\", \"show\"]\nunit = [\"a.service\", \"b@*.service\"]\n"
        "options.allow = [\"no-block\", \"property=*State\", \"value\"]\n";
    EXPECT_EQ(Command(PlanOf("sr_systemctl", rule, "start a b@1 --no-block")),
              "/usr/bin/systemctl --no-pager --no-ask-password --no-block -- start a.service "
              "b@1.service");
    EXPECT_EQ(Command(PlanOf("sr_systemctl", rule, "show -p ActiveState --value a")),
              "/usr/bin/systemctl --no-pager --no-ask-password --property=ActiveState --value -- "
              "show a.service");
    EXPECT_EQ(Command(PlanOf("sr_systemctl", rule, "start a c")), "");
    EXPECT_EQ(Command(PlanOf("sr_systemctl", rule, "stop a")), "");
    EXPECT_EQ(Command(PlanOf("sr_systemctl", rule, "show -p Environment a")), "");
    EXPECT_EQ(Command(PlanOf("sr_systemctl", rule, "-q start a")), "");
}

// ---- which rule decides

std::string Rmmod(const std::string& name, bool permit, const std::string& lines) {
    return "[[rule]]\nname = \"" + name +
           "\"\nagent = \"sr_rmmod\"\npermit = " + (permit ? "true" : "false") + "\n" + lines;
}

TEST(Decide, WithoutARuleTheAnswerIsNoForRootToo) {
    const Decision decision = Decide(agent::RuleSet(), MakeCaller(0), "sr_rmmod", "m");
    EXPECT_EQ(decision.status, SR_RULE_NO_FOUND);
    EXPECT_FALSE(decision.permit);
    EXPECT_EQ(decision.rule, "");
    EXPECT_EQ(decision.reason, "no rule allows this");
    EXPECT_EQ(decision.detail, "no rule matches");
}

TEST(Decide, TheFirstRuleThatMatchesDecides) {
    const std::string deny = Rmmod("no", false, "module = \"a\"\n");
    const std::string allow = Rmmod("yes", true, "user = \"*\"\nmodule = \"*\"\n");
    const Decision denied = Decide(*MakeRules(deny + allow), MakeCaller(1000), "sr_rmmod", "a");
    EXPECT_EQ(denied.status, SR_RULE_NO_FOUND);
    EXPECT_EQ(denied.rule, "test.toml:1");
    EXPECT_EQ(denied.reason, "a rule forbids this");
    EXPECT_EQ(denied.detail, "rule 'no' (test.toml:1) forbids it");
    const Decision other = Decide(*MakeRules(deny + allow), MakeCaller(1000), "sr_rmmod", "b");
    EXPECT_EQ(other.status, SR_OK);
    EXPECT_EQ(other.rule, "test.toml:6");
    EXPECT_EQ(other.detail, "rule 'yes' (test.toml:6) allows it");
    EXPECT_EQ(Decide(*MakeRules(allow + deny), MakeCaller(1000), "sr_rmmod", "a").status, SR_OK);
}

TEST(Decide, ARefusalNamesTheNearestRuleForTheAuditOnly) {
    const auto set = MakeRules(kNarrowRules);
    const Decision decision =
        Decide(*set, MakeCaller(1000), "sr_mount", "-t vfat -o exec /dev/sda1 /media/usb");
    EXPECT_EQ(decision.reason, "no rule allows this");
    EXPECT_EQ(decision.detail,
              "no rule matches; the nearest is 'stick' (test.toml:2), which does not allow the "
              "option 'exec'");
}

TEST(Decide, UsersAreMatchedByNumberNameAndGroup) {
    const auto status = [](const std::string& user, const Caller& caller) {
        return Decide(*MakeRules(Rmmod("r", true, "module = \"m\"\nuser = " + user + "\n")), caller,
                      "sr_rmmod", "m")
            .status;
    };
    EXPECT_EQ(status("1000", MakeCaller(1000)), SR_OK);
    EXPECT_EQ(status("\"player\"", MakeCaller(1000)), SR_OK);
    EXPECT_EQ(status("\"@media\"", MakeCaller(5, {1, 44})), SR_OK);
    EXPECT_EQ(status("\"*\"", MakeCaller(5)), SR_OK);
    EXPECT_EQ(status("1000", MakeCaller(44, {1000})), SR_RULE_NO_FOUND);
    EXPECT_EQ(status("\"@media\"", MakeCaller(44)), SR_RULE_NO_FOUND);
    EXPECT_EQ(status("\"player\"", MakeCaller(0)), SR_RULE_NO_FOUND);
    EXPECT_EQ(status("\"nobody-here\"", MakeCaller(0)), SR_RULE_NO_FOUND);
    EXPECT_EQ(status("\"*\"", MakeCaller(static_cast<uid_t>(-1))), SR_RULE_NO_FOUND);
}

TEST(Decide, AnExecutableThatIsNotKnownNeverHelpsTheCaller) {
    const auto status = [](bool permit, const std::string& executable) {
        const std::string lines = "module = \"m\"\nuser = 1000\nexe = \"/usr/bin/player\"\n";
        const std::string last = Rmmod("last", true, "module = \"m\"\nuser = 0\n");
        return Decide(*MakeRules(Rmmod("r", permit, lines) + last),
                      MakeCaller(1000, {}, executable), "sr_rmmod", "m");
    };
    EXPECT_EQ(status(true, "/usr/bin/player").status, SR_OK);
    EXPECT_EQ(status(true, "/usr/bin/other").status, SR_RULE_NO_FOUND);
    EXPECT_EQ(status(true, "/usr/bin/player (deleted)").status, SR_RULE_NO_FOUND);
    EXPECT_EQ(status(true, "").status, SR_RULE_NO_FOUND);
    EXPECT_EQ(status(false, "/usr/bin/player").rule, "test.toml:1");
    EXPECT_EQ(status(false, "").rule, "test.toml:1");
    EXPECT_EQ(status(false, "/usr/bin/other").rule, "");
}

TEST(Decide, ADenyingRuleMatchesOnAnyOneOfSeveralUnits) {
    const auto set = MakeRules(
        "[[rule]]\nname = \"no\"\nagent = \"sr_systemctl\"\npermit = false\nunit = "
        "\"ssh.service\"\n"
        "[[rule]]\nname = \"yes\"\nagent = \"sr_systemctl\"\npermit = true\nuser = \"*\"\n"
        "verb = \"stop\"\nunit = \"*\"\n");
    EXPECT_EQ(Decide(*set, MakeCaller(1), "sr_systemctl", "stop a ssh b").rule, "test.toml:1");
    EXPECT_EQ(Decide(*set, MakeCaller(1), "sr_systemctl", "stop a b").status, SR_OK);
}

TEST(Decide, ADenyingRuleLooksPastOptions) {
    const auto set = MakeRules(
        "[[rule]]\nname = \"no\"\nagent = \"sr_umount\"\npermit = false\ntarget = \"/m\"\n" +
        std::string(kWideRules));
    EXPECT_EQ(Decide(*set, MakeCaller(1), "sr_umount", "-l -f /m").rule, "test.toml:1");
    EXPECT_EQ(Decide(*set, MakeCaller(1), "sr_umount", "-l -f /n").status, SR_OK);
}

// The kernel may find any type where none is named.
TEST(Decide, ADenyingRuleForATypeIsNotEvadedByLeavingTheTypeAway) {
    const auto set = MakeRules(
        "[[rule]]\nname = \"no\"\nagent = \"sr_mount\"\npermit = false\ntype = [\"ntfs\", "
        "\"ext?\"]\n" +
        std::string(kWideRules));
    for (const char* denied : {"-t ntfs /a /m", "-t ext4 /a /m", "/a /m", "-t auto /a /m"}) {
        EXPECT_EQ(Decide(*set, MakeCaller(1), "sr_mount", denied).rule, "test.toml:1") << denied;
    }
    EXPECT_EQ(Decide(*set, MakeCaller(1), "sr_mount", "-t vfat /a /m").status, SR_OK);
    // A binding has no type to be looked for; the rules behind decide.
    EXPECT_NE(Decide(*set, MakeCaller(1), "sr_mount", "--bind /a /m").rule, "test.toml:1");
}

TEST(Decide, APermittingRuleForATypeDoesNotPermitAnyType) {
    const std::string rule = "source = \"/**\"\ntarget = \"/**\"\ntype = \"vfat\"\n";
    EXPECT_EQ(Command(PlanOf("sr_mount", rule, "/a /m")), "");
    EXPECT_EQ(Command(PlanOf("sr_mount", rule, "-t auto /a /m")), "");
}

TEST(Decide, ADenyingRuleWithoutNumbersMeansAllNodes) {
    const auto set =
        MakeRules("[[rule]]\nname = \"no\"\nagent = \"sr_mknod\"\npermit = false\nkind = \"b\"\n" +
                  std::string(kWideRules));
    EXPECT_EQ(Decide(*set, MakeCaller(1), "sr_mknod", "/dev/x b 8 0").rule, "test.toml:1");
    EXPECT_EQ(Decide(*set, MakeCaller(1), "sr_mknod", "/dev/x c 8 0").status, SR_OK);
}

// "**" in the middle does not compile, with or without regular expressions.
TEST(Decide, ARuleThatWouldDecideWithABrokenPatternAnswersThat) {
    for (const bool permit : {true, false}) {
        const std::string broken = Rmmod("b", permit, "user = 1000\nmodule = [\"a**\", \"m\"]\n");
        const auto set = MakeRules(broken + Rmmod("next", true, "user = \"*\"\nmodule = \"*\"\n"));
        const Decision decision = Decide(*set, MakeCaller(1000), "sr_rmmod", "m");
        EXPECT_EQ(decision.status, SR_INVALID_REGEX);
        EXPECT_FALSE(decision.permit);
        EXPECT_EQ(decision.rule, "test.toml:1");
        EXPECT_EQ(decision.reason,
                  "the rule that would decide has a pattern that does not compile");
        EXPECT_EQ(Decide(*set, MakeCaller(1000), "sr_rmmod", "zzz").status, SR_INVALID_REGEX);
        // Another field already says no: the rule would not decide.
        EXPECT_EQ(Decide(*set, MakeCaller(1001), "sr_rmmod", "m").status, SR_OK);
    }
}

TEST(Decide, ABrokenPatternBehindADecidingRuleDoesNotMatter) {
    const auto set = MakeRules(Rmmod("first", true, "user = \"*\"\nmodule = \"m\"\n") +
                               Rmmod("b", true, "user = \"*\"\nmodule = \"a**\"\n"));
    EXPECT_EQ(Decide(*set, MakeCaller(1), "sr_rmmod", "m").status, SR_OK);
    EXPECT_EQ(Decide(*set, MakeCaller(1), "sr_rmmod", "n").status, SR_INVALID_REGEX);
}

TEST(Decide, ABrokenPatternAmongOptionsCountsLikeAnyOther) {
    const auto set = MakeRules(
        "[[rule]]\nname = \"b\"\nagent = \"sr_umount\"\npermit = true\nuser = \"*\"\n"
        "target = \"/m\"\noptions.allow = [\"**lazy\"]\n");
    EXPECT_EQ(Decide(*set, MakeCaller(1), "sr_umount", "-l /m").status, SR_INVALID_REGEX);
    EXPECT_EQ(Decide(*set, MakeCaller(1), "sr_umount", "/m").status, SR_INVALID_REGEX);
    EXPECT_EQ(Decide(*set, MakeCaller(1), "sr_umount", "/n").status, SR_RULE_NO_FOUND);
}

TEST(Decide, ARegularExpressionDecidesWhenItIsBuiltInAndIsAnErrorElse) {
    const auto set =
        MakeRules(Rmmod("r", true, "user = \"*\"\nmodule = { regex = \"snd_[a-z]+\" }\n"));
#ifdef SENTREL_RE2
    EXPECT_EQ(Decide(*set, MakeCaller(1), "sr_rmmod", "snd_x").status, SR_OK);
    EXPECT_EQ(Decide(*set, MakeCaller(1), "sr_rmmod", "snd_1").status, SR_RULE_NO_FOUND);
    EXPECT_EQ(Decide(*set, MakeCaller(1), "sr_rmmod", "xsnd_x").status, SR_RULE_NO_FOUND);
#else
    EXPECT_EQ(Decide(*set, MakeCaller(1), "sr_rmmod", "snd_x").status, SR_INVALID_REGEX);
#endif
    const auto broken =
        MakeRules(Rmmod("r", true, "user = \"*\"\nmodule = { regex = \"snd_(\" }\n"));
    EXPECT_EQ(Decide(*broken, MakeCaller(1), "sr_rmmod", "snd_x").status, SR_INVALID_REGEX);
}

TEST(Decide, AToolThatIsNotThereIsNotImplementedOnlyForThoseWhoMay) {
    agent::Tools tools;
    tools.paths.at("rmmod").clear();
    const auto set = MakeRules(kNarrowRules);
    EXPECT_EQ(Decide(*set, MakeCaller(1000), "sr_rmmod", "snd_player", tools).status,
              SR_FEATURE_ISNT_IMPLEMENTED);
    EXPECT_EQ(Decide(*set, MakeCaller(1001), "sr_rmmod", "snd_player", tools).status,
              SR_RULE_NO_FOUND);
    // A node takes no tool.
    const std::string node = "/dev/player0 c 240 2";
    EXPECT_EQ(Decide(*set, MakeCaller(1000), "sr_mknod", node, agent::Tools()).status, SR_OK);
    tools.paths.at("umount") = "/opt/bin/umount";
    const Decision moved = Decide(*set, MakeCaller(1000), "sr_umount", "/media/usb", tools);
    ASSERT_TRUE(moved.permit);
    EXPECT_EQ(moved.permit->GetPlan().argv[0], "/opt/bin/umount");
}

// The account database may be on a network.
TEST(Decide, AnAccountIsAskedForOnlyWhatTheOperationsRulesNeed) {
    const auto asked = [](const std::string& rules, agent::Operation operation) {
        const agent::AccountQuestions questions = agent::QuestionsOf(*MakeRules(rules), operation);
        std::string text = questions.primary ? "primary" : "";
        for (const gid_t group : questions.groups) {
            text += (text.empty() ? "" : " ") + std::to_string(group);
        }
        EXPECT_EQ(text.empty(), !questions.Any());
        return text;
    };
    const std::string off = Rmmod("off", true, "user = [1000, \"@disk\"]\nmodule = \"m\"\n");
    const std::string never = Rmmod("never", false, "user = [\"@media\", \"@disk\"]\n");
    const std::string start =
        "[[rule]]\nname = \"r\"\nagent = \"sr_mount\"\npermit = true\nuser = 1000\n" +
        std::string(kMountRule);
    const std::string allow = start + "options.allow = [\"uid=%uid\", \"gid=%gid\"]\n";
    const std::string always = start + "options.always = \"gid=%gid\"\n";
    const std::string exact = start + "options.allow = { exact = \"gid=1\" }\n";
    EXPECT_EQ(asked(off, agent::Operation::kRmmod), "");
    EXPECT_EQ(asked(allow + off, agent::Operation::kRmmod), "");
    EXPECT_EQ(asked(never + off, agent::Operation::kRmmod), "6 44");
    EXPECT_EQ(asked(never + off, agent::Operation::kMount), "");
    EXPECT_EQ(asked(exact, agent::Operation::kMount), "");
    EXPECT_EQ(asked(allow, agent::Operation::kMount), "primary");
    EXPECT_EQ(asked(always + allow + never, agent::Operation::kMount), "primary");
}

// Whoever lays a group down for a connection is still in it by his account.
TEST(Decide, AGroupThatIsForbiddenCountsByTheAccountAndOneThatIsAllowedByTheConnection) {
    const auto set = MakeRules(Rmmod("never", false, "user = \"@media\"\nmodule = \"m\"\n") +
                               Rmmod("group", true, "user = \"@disk\"\nmodule = \"m\"\n") +
                               Rmmod("all", true, "user = [1000, 1001]\nmodule = \"?\"\n"));
    EXPECT_EQ(Decide(*set, MakeCaller(1001), "sr_rmmod", "m").detail,
              "rule 'never' (test.toml:1) forbids it");
    EXPECT_EQ(Decide(*set, MakeCaller(1000, {44}), "sr_rmmod", "m").rule, "test.toml:1");
    EXPECT_EQ(Decide(*set, MakeCaller(1001), "sr_rmmod", "n").status, SR_OK);
    EXPECT_EQ(Decide(*set, MakeCaller(1000), "sr_rmmod", "m").status, SR_OK);
    EXPECT_EQ(Decide(*set, MakeCaller(1002, {6}), "sr_rmmod", "m").status, SR_OK);
    Caller caller = MakeCaller(1002);
    caller.account.groups = {6};
    EXPECT_EQ(Decide(*set, caller, "sr_rmmod", "m").status, SR_RULE_NO_FOUND);
}

TEST(Decide, ARuleThatForbidsAGroupMatchesWhereTheAccountIsNotKnown) {
    const auto set = MakeRules(Rmmod("never", false, "user = [7, \"@media\"]\nmodule = \"m\"\n") +
                               Rmmod("all", true, "user = 1000\nmodule = \"?\"\n"));
    Caller caller = MakeCaller(1000);
    caller.account = agent::Account();
    const Decision decision = Decide(*set, caller, "sr_rmmod", "m");
    EXPECT_EQ(decision.status, SR_RULE_NO_FOUND);
    EXPECT_EQ(decision.reason, "a rule forbids this");
    EXPECT_EQ(decision.detail,
              "rule 'never' (test.toml:1) forbids it; whether the caller's account is in its group "
              "is not known");
    EXPECT_EQ(Decide(*set, caller, "sr_rmmod", "n").status, SR_OK);
    caller.account.asked = {6};  // another group than the rule's
    EXPECT_EQ(Decide(*set, caller, "sr_rmmod", "m").status, SR_RULE_NO_FOUND);
    caller.account.asked = {44};
    EXPECT_EQ(Decide(*set, caller, "sr_rmmod", "m").status, SR_OK);
    EXPECT_EQ(Decide(*set, MakeCaller(7), "sr_rmmod", "m").detail,
              "rule 'never' (test.toml:1) forbids it");
}

TEST(Decide, EachOperationHasItsGrammarItsKeysAndItsCommand) {
    const auto set = MakeRules(kNarrowRules);
    const std::vector<agent::OperationRow>& rows = agent::OperationRows();
    ASSERT_EQ(GoodRequests().size(), rows.size());
    for (std::size_t i = 0; i < rows.size(); ++i) {
        const GoodRequest& good = GoodRequests()[i];
        ASSERT_EQ(std::string(good.operation), rows[i].name);
        const Decision decision = Decide(*set, MakeCaller(1000), good.operation, good.text);
        ASSERT_TRUE(decision.permit) << good.operation << ": " << decision.detail;
        const Plan& plan = decision.permit->GetPlan();
        EXPECT_EQ(plan.operation, rows[i].operation);
        EXPECT_EQ(plan.argv[0], rows[i].tool);
    }
}

TEST(Decide, AnAdditionThatNeedsAnUnknownGroupIsRefused) {
    const auto set =
        MakeRules("[[rule]]\nname = \"r\"\nagent = \"sr_mount\"\npermit = true\nuser = \"*\"\n" +
                  std::string(kMountRule) + "options.always = \"gid=%gid\"\n");
    EXPECT_EQ(Decide(*set, MakeCaller(1000), "sr_mount", "-t vfat /a /m").status, SR_OK);
    const Decision decision = Decide(*set, MakeCaller(77), "sr_mount", "-t vfat /a /m");
    EXPECT_EQ(decision.status, SR_RULE_NO_FOUND);
    EXPECT_FALSE(decision.permit);
    EXPECT_EQ(decision.detail,
              "rule 'r' (test.toml:1) cannot be applied: the caller's group is not known");
}

}  // namespace
