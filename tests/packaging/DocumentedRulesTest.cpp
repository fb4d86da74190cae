// SPDX-License-Identifier: Apache-2.0
// The rules that the manual page and the first guide show load without an error, and allow what the
// text says they allow.
#include <gtest/gtest.h>

#include <fstream>
#include <sstream>

#include "decide/Accounts.h"
#include "decide/Decide.h"
#include "decide/Rule.h"
#include "decide/RuleCheck.h"
#include "decide/RuleReader.h"
#include "parse/Parse.h"

namespace {

const uid_t kMe = 1000;

// Every name is an account.
class EveryName : public agent::Accounts {
public:
    std::optional<uid_t> FindUser(const std::string&) const override { return kMe; }
    std::optional<gid_t> FindGroup(const std::string&) const override { return 1000; }
    std::optional<gid_t> FindPrimaryGroup(uid_t) const override { return 1000; }
    std::set<gid_t> FindGroupsOf(uid_t, const std::set<gid_t>&) const override { return {}; }
};

// The lines between each pair of `begin` and `end`, where they hold rules.
std::string Rules(const std::string& file, const std::string& begin, const std::string& end) {
    std::ifstream stream(file);
    std::string rules;
    std::string block;
    bool inside = false;
    for (std::string line; std::getline(stream, line);) {
        if (inside && line == end) {
            rules += block.find("[[rule]]") != std::string::npos ? block : "";
            inside = false;
        } else if (inside) {
            block += line + "\n";
        } else if (line == begin) {
            inside = true;
            block.clear();
        }
    }
    return rules;
}

std::string Joined(const std::vector<std::string>& lines) {
    std::string joined;
    for (const std::string& line : lines) {
        joined += line + "\n";
    }
    return joined;
}

class DocumentedRulesTest : public testing::Test {
protected:
    agent::LoadResult Load(const std::string& text) {
        agent::LoadResult result = agent::ParseRules(text, "text", accounts);
        EXPECT_EQ("", Joined(result.errors));
        EXPECT_EQ("", Joined(result.warnings));
        EXPECT_TRUE(result.rules);
        if (result.rules) {
            EXPECT_EQ("", Joined(agent::CheckRules(*result.rules)));
        }
        return result;
    }

    int Ask(const agent::LoadResult& result, const std::string& name, const std::string& text) {
        agent::Caller caller;
        caller.uid = kMe;
        caller.account = agent::LookUp(accounts, kMe, {{}, true});
        const agent::Parsed parsed = agent::Parse(name, text);
        EXPECT_EQ(SR_OK, parsed.status) << parsed.error;
        return agent::Decider(agent::Tools()).Decide(*result.rules, caller, parsed.request).status;
    }

    EveryName accounts;
};

TEST_F(DocumentedRulesTest, TheManualsRulesAllowWhatTheySay) {
    const agent::LoadResult result =
        Load(Rules(SENTREL_DOCS "/man/sentrel-rules.5", ".Bd -literal -offset indent", ".Ed"));
    ASSERT_TRUE(result.rules);
    EXPECT_EQ(4U, result.rules->rules.size());
    EXPECT_EQ(SR_OK, Ask(result, "sr_mount", "-t vfat -o ro,uid=1000 /dev/sdb1 /media/usb0"));
    EXPECT_EQ(SR_RULE_NO_FOUND, Ask(result, "sr_mount", "-t vfat /dev/sda1 /media/usb0"));
    EXPECT_EQ(SR_RULE_NO_FOUND, Ask(result, "sr_mount", "-t vfat /dev/mmcblk0p1 /media/usb0"));
    EXPECT_EQ(SR_RULE_NO_FOUND, Ask(result, "sr_mount", "-t vfat -o exec /dev/sdb1 /media/usb0"));
    EXPECT_EQ(SR_OK, Ask(result, "sr_umount", "-l /media/usb0"));
    EXPECT_EQ(SR_OK, Ask(result, "sr_systemctl", "restart player player-db.service"));
    EXPECT_EQ(SR_RULE_NO_FOUND, Ask(result, "sr_systemctl", "stop player"));
}

TEST_F(DocumentedRulesTest, TheFirstGuidesRulesAllowItsCalls) {
    const agent::LoadResult result = Load(Rules(SENTREL_DOCS "/first-call.md", "```toml", "```"));
    ASSERT_TRUE(result.rules);
    EXPECT_EQ(SR_OK, Ask(result, "sr_mount", "-t tmpfs -o size=1m none /run/media/x"));
    EXPECT_EQ(SR_OK, Ask(result, "sr_umount", "/run/media/x"));
    EXPECT_EQ(SR_RULE_NO_FOUND, Ask(result, "sr_umount", "/run/media/y"));
}

}  // namespace
