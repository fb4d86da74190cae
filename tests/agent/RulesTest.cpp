// SPDX-License-Identifier: Apache-2.0
// Reading rules: what is accepted, what is refused with its line, and which files are trusted.
#include "decide/Rule.h"
#include "decide/RuleReader.h"
#include "rules/RuleFiles.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <fstream>

#include "RuleTexts.h"

using agent::LoadResult;
using agent::ParseRules;
using agent::Rule;

namespace {

using Words = std::vector<std::string>;

const char kUmountRule[] =
    "[[rule]]\nname = \"x\"\nagent = \"sr_umount\"\npermit = true\n"
    "user = 1000\ntarget = \"/m\"\n";

LoadResult Load(const std::string& text) {
    return ParseRules(text, "f", TestAccounts());
}

// A complete rule with more lines behind it; the first of them is line 7.
Words ErrorsWith(const std::string& lines) {
    const LoadResult result = Load(kUmountRule + lines);
    EXPECT_EQ(result.rules == nullptr, !result.errors.empty());
    return result.errors;
}

// A complete rule for one operation; the first of `lines` is line 5.
Words ErrorsFor(const std::string& agent, const std::string& lines) {
    return Load("[[rule]]\nname = \"x\"\nagent = \"" + agent + "\"\npermit = true\n" + lines)
        .errors;
}

TEST(Rules, ACompleteRuleIsReadWithAllItsFields) {
    const LoadResult result = Load(R"([[rule]]
name = "n"
agent = "sr_mount"
permit = true
user = [1000, "media", "@disk"]
exe = "/usr/bin/*"
source = ["/dev/sd?1", { exact = "/dev/*" }]
target = "/media/**"
type = "vfat"
helper = "nfs4"
options.allow = ["ro", "uid=%uid"]
options.always = ["noexec", "suid"]
suid = true
dev = true
open_parents = true
deadline = "1500ms"
)");
    EXPECT_EQ(result.errors, Words{});
    ASSERT_TRUE(result.rules);
    const Rule& rule = result.rules->rules.at(0);
    EXPECT_EQ(rule.where, "f:1");
    EXPECT_EQ(rule.name, "n");
    EXPECT_TRUE(rule.permit);
    EXPECT_EQ(rule.users.uids, (std::set<uid_t>{1000, 1001}));
    EXPECT_EQ(rule.users.gids, std::set<gid_t>{6});
    EXPECT_FALSE(rule.users.any);
    EXPECT_EQ(rule.source.list.size(), 2U);
    EXPECT_EQ(rule.source.list[1].GetKind(), agent::Pattern::kExact);
    EXPECT_EQ(rule.always, (Words{"noexec", "suid"}));
    EXPECT_EQ(rule.helpers, Words{"nfs4"});
    EXPECT_TRUE(rule.suid && rule.dev && rule.openParents);
    EXPECT_EQ(rule.deadline.count(), 1500);
}

TEST(Rules, ANodesRuleHasNumbersModesAndOwners) {
    const LoadResult result = Load(R"([[rule]]
name = "n"
agent = "sr_mknod"
permit = true
user = "*"
path = "/dev/x"
kind = ["b", "c"]
major = [1, "5-7"]
minor = "*"
mode = ["0660", "600"]
owner = "player"
group = "media"
)");
    ASSERT_EQ(result.errors, Words{});
    const Rule& rule = result.rules->rules.at(0);
    EXPECT_TRUE(rule.users.any);
    EXPECT_TRUE(rule.majors.Has(1) && rule.majors.Has(5) && rule.majors.Has(7));
    EXPECT_FALSE(rule.majors.Has(0) || rule.majors.Has(2) || rule.majors.Has(8));
    EXPECT_TRUE(rule.minors.Has(0) && rule.minors.Has(1048575));
    EXPECT_EQ(rule.modes, (std::vector<int>{0660, 0600}));
    EXPECT_EQ(rule.owner, 1000U);
    EXPECT_EQ(rule.group, 44U);
    EXPECT_EQ(rule.deadline.count(), 20000);
}

TEST(Rules, OneRuleForSeveralAgentsBecomesOneForEach) {
    const LoadResult result = Load(
        "[[rule]]\nname = \"x\"\nagent = [\"sr_umount\", \"sr_umount_cifs\"]\npermit = true\n"
        "user = 0\ntarget = \"/m\"\n");
    ASSERT_TRUE(result.rules);
    ASSERT_EQ(result.rules->rules.size(), 2U);
    EXPECT_EQ(result.rules->rules[0].operation, agent::Operation::kUmount);
    EXPECT_EQ(result.rules->rules[1].operation, agent::Operation::kUmountCifs);
    EXPECT_EQ(result.rules->rules[1].where, "f:1");
}

TEST(Rules, AnEmptyTextIsASetWithoutRules) {
    const LoadResult result = Load("# nothing\n");
    ASSERT_TRUE(result.rules);
    EXPECT_TRUE(result.rules->rules.empty());
}

TEST(Rules, EveryErrorNamesItsFileAndLine) {
    EXPECT_EQ(ErrorsWith(""), Words{});
    EXPECT_EQ(ErrorsWith("taget = \"/m\"\n"), Words{"f:7: unknown key 'taget'"});
    EXPECT_EQ(ErrorsWith("source = \"/m\"\n"), Words{"f:7: the key 'source' is not for sr_umount"});
    EXPECT_EQ(ErrorsWith("exe = 5\n"),
              Words{"f:7: a text is expected here (not empty, without control characters)"});
    EXPECT_EQ(ErrorsWith("exe = \"\"\n"),
              Words{"f:7: a text is expected here (not empty, without control characters)"});
    EXPECT_EQ(ErrorsWith("exe = \"a\\u0007\"\n"),
              Words{"f:7: a text is expected here (not empty, without control characters)"});
    EXPECT_EQ(ErrorsWith("exe = []\n"), Words{"f:7: an empty list can match nothing"});
    EXPECT_EQ(ErrorsWith("exe = { regexp = \"x\" }\n"),
              Words{"f:7: a pattern is a text, {regex = \"...\"} or {exact = \"...\"}"});
    EXPECT_EQ(ErrorsWith("exe = { regex = \"/run/%uid\" }\n"),
              Words{"f:7: %uid and %gid are for plain patterns only"});
    EXPECT_EQ(ErrorsWith("open_parents = 1\n"), Words{"f:7: true or false is expected here"});
    EXPECT_EQ(ErrorsWith("options = \"lazy\"\n"),
              Words{"f:7: options are written as options.allow and options.always"});
    EXPECT_EQ(ErrorsWith("options.deny = \"lazy\"\n"), Words{"f:7: unknown key 'options.deny'"});
    EXPECT_EQ(ErrorsWith("options.always = \"ro\"\n"),
              Words{"f:7: this option cannot be added always"});
    EXPECT_EQ(ErrorsWith("exe = [\n  \"/a\",\n  7,\n]\n"),
              Words{"f:9: a text is expected here (not empty, without control characters)"});
    EXPECT_EQ(ErrorsWith("exe = \"x\"\nexe = \"y\"\n").size(), 1U);
    EXPECT_EQ(ErrorsWith("= 5\n").at(0).substr(0, 4), "f:7:");
    EXPECT_EQ(Load("rules = 5\n").errors,
              Words{"f:1: only [[rule]] tables are known here, not 'rules'"});
    EXPECT_EQ(Load("rule = 5\n").errors,
              Words{"f:1: only [[rule]] tables are known here, not 'rule'"});
    EXPECT_EQ(Load("rule = [5]\n").errors, Words{"f:1: a rule is a table"});
}

TEST(Rules, EveryErrorIsReportedNotOnlyTheFirst) {
    EXPECT_EQ(ErrorsWith("a = 1\nb = 2\nopen_parents = 3\n").size(), 3U);
}

TEST(Rules, AnUnknownAgentIsAnError) {
    EXPECT_EQ(ErrorsFor("sr_reboot", "user = 0\n"), Words{"f:3: there is no agent 'sr_reboot'"});
    EXPECT_EQ(Load("[[rule]]\nname = \"x\"\n").errors, Words{"f:1: the key 'agent' is missing"});
}

TEST(Rules, InAPermittingRuleNothingIsOpenByOmission) {
    const auto missing = [](const std::string& key) {
        return "f:1: the key '" + key + "' is missing";
    };
    EXPECT_EQ(ErrorsFor("sr_mount", ""),
              (Words{missing("user"), missing("source"), missing("target"), missing("type")}));
    EXPECT_EQ(ErrorsFor("sr_umount", ""), (Words{missing("user"), missing("target")}));
    EXPECT_EQ(ErrorsFor("sr_mount_cifs", ""),
              (Words{missing("user"), missing("source"), missing("target")}));
    EXPECT_EQ(ErrorsFor("sr_umount_cifs", ""), (Words{missing("user"), missing("target")}));
    EXPECT_EQ(
        ErrorsFor("sr_mknod", "kind = \"c\"\n"),
        (Words{missing("user"), missing("path"), "f:1: the keys 'major' and 'minor' are missing"}));
    EXPECT_EQ(ErrorsFor("sr_mknod", "user = 0\npath = \"/x\"\nkind = \"p\"\n"), Words{});
    EXPECT_EQ(ErrorsFor("sr_insmod", ""), (Words{missing("user"), missing("path")}));
    EXPECT_EQ(ErrorsFor("sr_rmmod", ""), (Words{missing("user"), missing("module")}));
    EXPECT_EQ(ErrorsFor("sr_systemctl", ""),
              (Words{missing("user"), missing("verb"), missing("unit")}));
    EXPECT_EQ(Load("[[rule]]\nagent = \"sr_rmmod\"\n").errors,
              (Words{missing("permit"), missing("name"), missing("user"), missing("module")}));
}

TEST(Rules, ADenyingRuleNeedsNoFieldsButCannotGrant) {
    const std::string start = "[[rule]]\nname = \"x\"\nagent = \"sr_mount\"\npermit = false\n";
    const LoadResult result = Load(start);
    ASSERT_TRUE(result.rules);
    EXPECT_TRUE(result.rules->rules[0].users.any);
    EXPECT_EQ(Load(start + "options.allow = \"ro\"\n").errors,
              Words{"f:5: the key 'options' has no meaning in a rule that denies"});
    EXPECT_EQ(Load(start + "deadline = 5\n").errors,
              Words{"f:5: the key 'deadline' has no meaning in a rule that denies"});
    EXPECT_EQ(Load("[[rule]]\nname = \"x\"\nagent = \"sr_mount\"\npermit = \"no\"\n").errors,
              Words{"f:4: true or false is expected here"});
}

TEST(Rules, UsersAreNumbersNamesGroupsOrEverybody) {
    for (const char* wrong : {"-1", "4294967295", "1.5", "true", "{}", "\"1000\"", "[]", "\"\""}) {
        const std::string text =
            "[[rule]]\nname = \"x\"\nagent = \"sr_rmmod\"\npermit = true\n"
            "module = \"m\"\nuser = " +
            std::string(wrong) + "\n";
        ASSERT_EQ(Load(text).errors.size(), 1U) << wrong;
        EXPECT_EQ(Load(text).errors[0].substr(0, 4), "f:6:") << wrong;
    }
}

TEST(Rules, AnUnknownUserIsAWarningAndMatchesNobody) {
    const LoadResult result = Load(
        "[[rule]]\nname = \"x\"\nagent = \"sr_rmmod\"\npermit = true\nmodule = \"m\"\n"
        "user = [\"nobody-here\", \"@none\"]\n");
    EXPECT_EQ(result.warnings,
              (Words{"f:6: there is no user 'nobody-here'", "f:6: there is no group 'none'"}));
    ASSERT_TRUE(result.rules);
    EXPECT_TRUE(result.rules->rules[0].users.uids.empty());
    EXPECT_FALSE(result.rules->rules[0].users.any);
}

TEST(Rules, ADeadlineStaysBelowTheCallersPatience) {
    for (const char* good : {"1", "21", "\"21s\"", "\"1ms\"", "\"21000ms\""}) {
        EXPECT_EQ(ErrorsWith("deadline = " + std::string(good) + "\n"), Words{}) << good;
    }
    for (const char* bad :
         {"0", "22", "25", "-1", "\"22s\"", "\"21001ms\"", "\"24999ms\"", "\"0s\"", "\"5\"",
          "\"5m\"", "\"s\"", "\"\"", "1.5", "\"-5s\"", "99999999999", "\"999999999s\""}) {
        EXPECT_EQ(ErrorsWith("deadline = " + std::string(bad) + "\n"),
                  Words{"f:7: a deadline is a time such as \"15s\" or \"500ms\", at most 21 s"})
            << bad;
    }
}

TEST(Rules, NumbersAndModesAreInBounds) {
    const std::string start = "user = 0\npath = \"/x\"\nkind = \"c\"\n";
    EXPECT_EQ(ErrorsFor("sr_mknod", start + "major = 4095\nminor = 1048575\n"), Words{});
    for (const char* bad : {"4096", "-1", "\"3-2\"", "\"a\"", "\"1-\"", "\"0-\"", "\"0-255x\"",
                            "\"0-0x1f\"", "\"0-255 \"", "\"-0\"", "\"x-0\"", "\"-\"", "\"1-2-3\"",
                            "\"0-4096\"", "true", "\"1\"", "\"999999999-9999999999\""}) {
        EXPECT_EQ(ErrorsFor("sr_mknod", start + "minor = 0\nmajor = " + bad + "\n").at(0),
                  "f:9: a number up to 4095, a range \"FIRST-LAST\" or \"*\" is expected here")
            << bad;
    }
    for (const char* bad : {"\"4755\"", "\"01777\"", "660", "\"rw\"", "\"\"", "\"668\""}) {
        EXPECT_EQ(ErrorsFor("sr_mknod", start + "major = 1\nminor = 0\nmode = " + bad + "\n"),
                  Words{"f:10: a mode is an octal text up to \"0777\""})
            << bad;
    }
    EXPECT_EQ(ErrorsFor("sr_mknod", "user = 0\npath = \"/x\"\nkind = \"d\"\n"),
              Words{"f:7: this can only be one of b, c, p"});
    EXPECT_EQ(ErrorsFor("sr_mknod", start + "major = 1\nminor = 0\nowner = \"nobody-here\"\n"),
              Words{"f:10: there is no user 'nobody-here'"});
    EXPECT_EQ(ErrorsFor("sr_mknod", start + "major = 1\nminor = 0\ngroup = \"none\"\n"),
              Words{"f:10: there is no group 'none'"});
}

TEST(Rules, WhatIsAlwaysAddedIsCheckedLikeWhatIsAsked) {
    const std::string start =
        "user = 0\nsource = \"/x\"\ntarget = \"/y\"\ntype = \"vfat\"\noptions.always = ";
    const auto first = [&](const std::string& value) {
        const Words errors = ErrorsFor("sr_mount", start + value + "\n");
        return errors.empty() ? std::string() : errors[0];
    };
    EXPECT_EQ(first("[\"noexec\", \"ro\", \"uid=%uid\"]"), "");
    EXPECT_EQ(first("[\"ro,rw\"]"), "f:9: an option's name is malformed");
    EXPECT_EQ(first("[\"a=\\\"b\"]"), "f:9: the value of the option 'a' is malformed");
    EXPECT_EQ(first("\"remount\""), "f:9: the option 'remount' is not available");
    EXPECT_EQ(first("\"bind\""), "f:9: the option 'bind' can only be allowed");
    EXPECT_EQ(first("\"suid\""), "f:9: the option 'suid' needs 'suid = true' in the rule");
    EXPECT_EQ(first("\"dev\""), "f:9: the option 'dev' needs 'dev = true' in the rule");
    EXPECT_EQ(first("\"suid\"\nsuid = true"), "");
    EXPECT_EQ(first("[\"exec\", \"noexec\"]"),
              "f:9: the options 'noexec' and 'exec' contradict each other");
    EXPECT_EQ(first("[\"rw\", \"ro\"]"), "f:9: the options 'ro' and 'rw' contradict each other");
    EXPECT_EQ(first("5"), "f:9: a text is expected here (not empty, without control characters)");
}

TEST(Rules, AHelperIsNeverOneThatRunsTheCallersProgram) {
    const std::string start =
        "user = 0\nsource = \"/x\"\ntarget = \"/y\"\ntype = \"vfat\"\nhelper = ";
    EXPECT_EQ(ErrorsFor("sr_mount", start + "\"ntfs\"\n"), Words{});
    for (const char* bad :
         {"\"fuse\"", "\"fuseblk\"", "\"auto\"", "\"none\"", "\"a*\"", "\"cifs\""}) {
        EXPECT_EQ(ErrorsFor("sr_mount", start + bad + "\n"),
                  Words{"f:9: a type is expected here that can have a helper"})
            << bad;
    }
}

TEST(Rules, VerbsAreNamedOneByOne) {
    EXPECT_EQ(ErrorsFor("sr_systemctl", "user = 0\nunit = \"a.service\"\nverb = \"*\"\n"),
              Words{"f:7: this is not an available verb"});
    EXPECT_EQ(
        ErrorsFor("sr_systemctl", "user = 0\nunit = \"a.service\"\nverb = [\"start\", \"link\"]\n"),
        Words{"f:7: this is not an available verb"});
}

TEST(Rules, APatternThatDoesNotCompileMarksItsRuleAndOnlyThat) {
    const LoadResult result = Load(std::string(kUmountRule) + "exe = \"/a/**/b\"\n" + kUmountRule);
    EXPECT_EQ(result.warnings, Words{"f:7: '**' can only be the end '/**' of a pattern"});
    ASSERT_TRUE(result.rules);
    EXPECT_EQ(result.rules->rules[0].broken, result.warnings[0]);
    EXPECT_EQ(result.rules->rules[1].broken, "");
}

// ---- files

class RuleFiles : public testing::Test {
protected:
    void SetUp() override {
        char pattern[] = "/tmp/rules-test-XXXXXX";
        ASSERT_NE(mkdtemp(pattern), nullptr);
        root = pattern;
        ASSERT_EQ(mkdir(Vendor().c_str(), 0755), 0);
        ASSERT_EQ(mkdir(Admin().c_str(), 0755), 0);
        ASSERT_EQ(chmod(Vendor().c_str(), 0755), 0);
        ASSERT_EQ(chmod(Admin().c_str(), 0755), 0);
    }
    void TearDown() override {
        for (const std::string& path : written) {
            unlink(path.c_str());
        }
        rmdir(Vendor().c_str());
        rmdir(Admin().c_str());
        rmdir(root.c_str());
    }

    std::string Vendor() const { return root + "/vendor"; }
    std::string Admin() const { return root + "/admin"; }

    std::string Write(const std::string& path, const std::string& text) {
        std::ofstream(path) << text;
        EXPECT_EQ(chmod(path.c_str(), 0644), 0);
        written.push_back(path);
        return path;
    }
    // A rule whose name can be found again.
    static std::string Named(const std::string& name) {
        return "[[rule]]\nname = \"" + name +
               "\"\nagent = \"sr_rmmod\"\npermit = true\n"
               "user = 0\nmodule = \"m\"\n";
    }
    LoadResult Load(uid_t owner = geteuid()) {
        return agent::LoadRules({Vendor(), Admin()}, owner, TestAccounts());
    }
    Words Names() {
        Words names;
        const LoadResult result = Load();
        EXPECT_EQ(result.errors, Words{});
        for (const Rule& rule : result.rules->rules) {
            names.push_back(rule.name);
        }
        return names;
    }

    std::string root;
    Words written;
};

TEST_F(RuleFiles, AreReadInTheOrderOfTheirNamesAcrossDirectories) {
    Write(Vendor() + "/20-b.toml", Named("b"));
    Write(Admin() + "/10-a.toml", Named("a"));
    Write(Vendor() + "/30-c.toml", Named("c") + Named("d"));
    EXPECT_EQ(Names(), (Words{"a", "b", "c", "d"}));
    EXPECT_EQ(Load().rules->rules[3].where, Vendor() + "/30-c.toml:7");
}

TEST_F(RuleFiles, OfTheAdministratorTakeThePlaceOfTheVendors) {
    Write(Vendor() + "/10-a.toml", Named("vendor"));
    Write(Admin() + "/10-a.toml", Named("admin"));
    EXPECT_EQ(Names(), Words{"admin"});
    Write(Admin() + "/10-a.toml", "");
    EXPECT_EQ(Names(), Words{});
}

TEST_F(RuleFiles, WithOtherNamesAreNotRead) {
    Write(Admin() + "/a.toml~", "nonsense");
    Write(Admin() + "/.hidden.toml", "nonsense");
    Write(Admin() + "/README", "nonsense");
    Write(Admin() + "/.toml", "nonsense");
    EXPECT_EQ(Names(), Words{});
}

TEST_F(RuleFiles, InADirectoryThatIsNotThereAreNone) {
    const LoadResult result = agent::LoadRules({root + "/nowhere"}, geteuid(), TestAccounts());
    ASSERT_TRUE(result.rules);
    EXPECT_TRUE(result.rules->rules.empty());
}

TEST_F(RuleFiles, OfAnotherOwnerAreRefused) {
    const std::string path = Write(Admin() + "/a.toml", Named("a"));
    const uid_t other = geteuid() + 1;
    const LoadResult result = Load(other);
    EXPECT_EQ(result.rules, nullptr);
    const std::string why = ": does not belong to user " + std::to_string(other);
    EXPECT_EQ(result.errors, (Words{Vendor() + why, Admin() + why}));
    if (geteuid() == 0) {
        ASSERT_EQ(chown(path.c_str(), 65534, 0), 0);
        EXPECT_EQ(Load().errors, Words{path + ": does not belong to user 0"});
    }
}

TEST_F(RuleFiles, ThatOthersCanWriteAreRefused) {
    const std::string path = Write(Admin() + "/a.toml", Named("a"));
    for (const mode_t mode : {0664U, 0646U, 0666U}) {
        ASSERT_EQ(chmod(path.c_str(), mode), 0);
        EXPECT_EQ(Load().errors, Words{path + ": can be written by others"});
        EXPECT_EQ(Load().rules, nullptr);
    }
    ASSERT_EQ(chmod(path.c_str(), 0600), 0);
    EXPECT_EQ(Names(), Words{"a"});
}

TEST_F(RuleFiles, InADirectoryThatOthersCanWriteAreRefused) {
    Write(Admin() + "/a.toml", Named("a"));
    ASSERT_EQ(chmod(Admin().c_str(), 0777), 0);
    EXPECT_EQ(Load().errors, Words{Admin() + ": can be written by others"});
}

TEST_F(RuleFiles, ThatAreSymbolicLinksAreRefused) {
    Write(root + "/real.toml", Named("a"));
    const std::string link = Admin() + "/a.toml";
    ASSERT_EQ(symlink((root + "/real.toml").c_str(), link.c_str()), 0);
    written.push_back(link);
    EXPECT_EQ(Load().errors, Words{link + ": is a symbolic link"});
}

TEST_F(RuleFiles, ThatAreNoFilesAreRefusedWithoutWaiting) {
    const std::string pipe = Admin() + "/a.toml";
    ASSERT_EQ(mkfifo(pipe.c_str(), 0644), 0);
    written.push_back(pipe);
    EXPECT_EQ(Load().errors, Words{pipe + ": is not an ordinary file"});
}

TEST_F(RuleFiles, ThatAreTooLargeAreRefused) {
    const std::string path = Write(Admin() + "/a.toml", std::string(256 * 1024 + 1, '#'));
    EXPECT_EQ(Load().errors, Words{path + ": is larger than 256 KiB"});
}

TEST_F(RuleFiles, WithOneErrorGiveNoRulesAtAll) {
    Write(Admin() + "/a.toml", Named("a"));
    const std::string path = Write(Admin() + "/b.toml", Named("b") + "oops = 1\n");
    const LoadResult result = Load();
    EXPECT_EQ(result.rules, nullptr);
    EXPECT_EQ(result.errors, Words{path + ":7: unknown key 'oops'"});
}

TEST_F(RuleFiles, LeaveNoDescriptorOpen) {
    Write(Admin() + "/a.toml", Named("a"));
    const int before = open("/dev/null", O_RDONLY | O_CLOEXEC);
    close(before);
    Load();
    Load(geteuid() + 1);
    const int after = open("/dev/null", O_RDONLY | O_CLOEXEC);
    close(after);
    EXPECT_EQ(before, after);
}

// A database that does not answer must not make a rule that forbids a group one that forbids
// nobody.
TEST(Rules, AnAccountThatCannotBeLookedUpIsAnErrorAndNotAWarning) {
    class BrokenAccounts : public agent::Names {
    public:
        std::optional<uid_t> FindUser(const std::string&) const override {
            throw agent::LookUpFailed("Input/output error");
        }
        std::optional<gid_t> FindGroup(const std::string&) const override {
            throw agent::LookUpFailed("Numerical result out of range");
        }
    };
    const std::string head = "[[rule]]\nname = \"r\"\nagent = \"sr_mknod\"\n";
    const BrokenAccounts accounts;
    const LoadResult result =
        agent::ParseRules(head + "permit = false\nuser = [\n\"@media\",\n\"player\"]\n" + head +
                              "permit = true\nuser = 7\npath = \"/x\"\nkind = \"p\"\n"
                              "owner = \"o\"\ngroup = \"g\"\n",
                          "f.toml", accounts);
    EXPECT_FALSE(result.rules);
    EXPECT_TRUE(result.warnings.empty());
    EXPECT_EQ(result.errors,
              (std::vector<std::string>{
                  "f.toml:6: group 'media' cannot be looked up: Numerical result out of range",
                  "f.toml:7: user 'player' cannot be looked up: Input/output error",
                  "f.toml:15: user 'o' cannot be looked up: Input/output error",
                  "f.toml:16: group 'g' cannot be looked up: Numerical result out of range"}));
}

}  // namespace
