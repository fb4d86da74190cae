// SPDX-License-Identifier: Apache-2.0
// Many random requests with a fixed seed: whatever is permitted must find no objection in the
// second opinion. And the second opinion itself: a plan that was tampered with is objected to.
#include <sys/stat.h>

#include <gtest/gtest.h>

#include <functional>
#include <iostream>
#include <random>

#include "Oracle.h"
#include "RuleTexts.h"
#include "decide/Decide.h"

namespace {

using Words = std::vector<std::string>;

const int kRounds = 200000;

class Generator {
public:
    std::size_t Below(std::size_t limit) { return random() % limit; }

    // A good request's text, changed in up to four places.
    std::string Text(const char* good) {
        std::string text = good;
        for (std::size_t changes = Below(5); changes > 0; --changes) {
            Change(text);
        }
        return text;
    }

private:
    void Change(std::string& text) {
        static const Words kPieces = {" ",
                                      " -- ",
                                      " -",
                                      ",",
                                      ",suid",
                                      ",nodev",
                                      ",bind",
                                      " --bind",
                                      "remount",
                                      "/",
                                      "/..",
                                      "//",
                                      "\"",
                                      "'",
                                      "\\",
                                      "=",
                                      " -o ",
                                      " -t ",
                                      " ext4",
                                      "fuse",
                                      ",uid=0",
                                      "\n",
                                      "x",
                                      " -l",
                                      " -r",
                                      " -f",
                                      " -p Id",
                                      ",loop",
                                      ",ro",
                                      " /m/a b",
                                      "$(id)",
                                      "-a",
                                      ",password=Geheimnis2",
                                      ",credentials=/home/player/c",
                                      " stop",
                                      " show",
                                      " --now",
                                      " 7",
                                      ",x-y",
                                      "%uid",
                                      " p ",
                                      " b 8 1",
                                      ".ko",
                                      " enable",
                                      "\xc3\xa4"};
        const std::size_t at = Below(text.size() + 1);
        switch (Below(4)) {
            case 0:
                text.insert(at, kPieces[Below(kPieces.size())]);
                break;
            case 1:
                text.erase(at, Below(6));
                break;
            case 2:
                text += kPieces[Below(kPieces.size())];
                break;
            default:
                if (at < text.size()) {
                    text[at] = static_cast<char>(Below(256));
                }
        }
    }

    std::mt19937 random{20240229};
};

TEST(RandomDecide, NothingThatIsPermittedIsObjectedTo) {
    const auto narrow = MakeRules(kNarrowRules);
    const auto wide = MakeRules(kWideRules);
    Generator generator;
    int byNarrow = 0;
    int byWide = 0;
    for (int round = 0; round < kRounds; ++round) {
        const GoodRequest& good = GoodRequests()[generator.Below(GoodRequests().size())];
        const std::string text = generator.Text(good.text);
        const agent::Caller caller = MakeCaller(generator.Below(8) == 0 ? 1001 : 1000);
        bool permitted = false;
        ASSERT_EQ(Ask(*narrow, caller, good.operation, text, permitted), Words{}) << text;
        byNarrow += permitted ? 1 : 0;
        ASSERT_EQ(Ask(*wide, caller, good.operation, text, permitted), Words{}) << text;
        byWide += permitted ? 1 : 0;
    }
    std::cout << "of " << kRounds << " requests " << byNarrow << " permitted by narrow rules, "
              << byWide << " by wide ones\n";
    EXPECT_GT(byNarrow, kRounds / 20);
    EXPECT_GT(byWide, kRounds / 10);
    EXPECT_LT(byWide, kRounds);
}

// A plan of kNarrowRules, changed; the second opinion must have something to say.
bool IsObjectedTo(std::size_t request, const std::function<void(agent::Plan&)>& tamper) {
    const auto set = MakeRules(kNarrowRules);
    const GoodRequest& good = GoodRequests()[request];
    const agent::Caller caller = MakeCaller(1000);
    const agent::Decision decision =
        agent::Decider(agent::Tools())
            .Decide(*set, caller, agent::Parse(good.operation, good.text).request);
    EXPECT_TRUE(decision.permit);
    agent::Plan plan = decision.permit->GetPlan();
    EXPECT_EQ(Objections(set->rules[request], caller, agent::Tools(), plan), Words{});
    tamper(plan);
    return !Objections(set->rules[request], caller, agent::Tools(), plan).empty();
}

std::size_t Find(const agent::Plan& plan, const std::string& word) {
    for (std::size_t i = 0; i < plan.argv.size(); ++i) {
        if (plan.argv[i] == word) {
            return i;
        }
    }
    ADD_FAILURE() << word << " is not in the command";
    return 0;
}

TEST(RandomDecide, TheSecondOpinionObjectsToEveryTamperedMount) {
    using agent::Plan;
    const std::size_t kMount = 0;
    const auto replace = [](const char* from, const char* to) {
        return [=](Plan& plan) { plan.argv[Find(plan, from)] = to; };
    };
    EXPECT_TRUE(IsObjectedTo(kMount, replace("/usr/bin/mount", "/tmp/mount")));
    EXPECT_TRUE(IsObjectedTo(kMount, replace("/usr/bin/mount", "/usr/bin/umount")));
    EXPECT_TRUE(IsObjectedTo(kMount, replace("-i", "-a")));
    EXPECT_TRUE(IsObjectedTo(kMount, replace("-i", "--no-canonicalize")));
    EXPECT_TRUE(IsObjectedTo(kMount, replace("--no-canonicalize", "-i")));
    EXPECT_TRUE(IsObjectedTo(kMount, replace("--", "-n")));
    EXPECT_TRUE(IsObjectedTo(kMount, replace("vfat", "xfs")));
    EXPECT_TRUE(IsObjectedTo(kMount, replace("/dev/sda1", "/dev/sdb1")));
    EXPECT_TRUE(IsObjectedTo(kMount, replace("/dev/sda1", "-a")));
    EXPECT_TRUE(IsObjectedTo(kMount, replace("/media/usb", "/etc")));
    EXPECT_TRUE(IsObjectedTo(kMount, [](Plan& plan) { plan.pins.pop_back(); }));
    EXPECT_TRUE(IsObjectedTo(kMount, [](Plan& plan) { plan.pins[0].rootOwnedChain = false; }));
    EXPECT_TRUE(IsObjectedTo(kMount, [](Plan& plan) { plan.pins[1].path = "/media"; }));
    EXPECT_TRUE(IsObjectedTo(kMount, [](Plan& plan) { plan.requiredMountFlags.clear(); }));
    EXPECT_TRUE(IsObjectedTo(kMount, [](Plan& plan) { plan.makesMount = false; }));
    EXPECT_TRUE(IsObjectedTo(kMount, [](Plan& plan) { plan.bind.emplace(); }));
    EXPECT_TRUE(IsObjectedTo(kMount, replace("-n", "-i")));
    EXPECT_TRUE(IsObjectedTo(kMount, [](Plan& plan) { plan.argv.push_back("/x"); }));
    EXPECT_TRUE(
        IsObjectedTo(kMount, [](Plan& plan) { plan.deadline = std::chrono::milliseconds(21001); }));
    for (const char* options :
         {"ro,nosuid", "ro,nodev,nosuid,suid", "nosuid,nodev,noexec,ro",
          "ro,noexec,exec,nosuid,nodev", "ro,x=\",noexec,nosuid,nodev", "ro,nosuid,nodev"}) {
        EXPECT_TRUE(IsObjectedTo(kMount, [&](Plan& plan) {
            plan.argv[Find(plan, "-o") + 1] = options;
        })) << options;
    }
}

TEST(RandomDecide, TheSecondOpinionObjectsToEveryOtherTamperedPlan) {
    using agent::Plan;
    const auto append = [](const char* word) {
        return [=](Plan& plan) { plan.argv.push_back(word); };
    };
    for (std::size_t request = 0; request < GoodRequests().size(); ++request) {
        EXPECT_TRUE(IsObjectedTo(request, append("-x"))) << request;
        EXPECT_TRUE(IsObjectedTo(request, append("/etc/x"))) << request;
        EXPECT_TRUE(IsObjectedTo(request, append("a\nb"))) << request;
        EXPECT_TRUE(IsObjectedTo(request, [](Plan& plan) {
            plan.argv.insert(plan.argv.begin() + 1, "--evil");
        })) << request;
        EXPECT_TRUE(IsObjectedTo(request, [](Plan& plan) { plan.argv[0] = "/bin/sh"; })) << request;
    }
    EXPECT_TRUE(
        IsObjectedTo(2, [](Plan& plan) { plan.argv[2] = "password=Geheimnis," + plan.argv[2]; }));
    EXPECT_TRUE(IsObjectedTo(4, [](Plan& plan) { plan.argv[2] = "0666"; }));
    EXPECT_TRUE(IsObjectedTo(4, [](Plan& plan) { plan.node->owner = 0; }));
    EXPECT_TRUE(IsObjectedTo(4, [](Plan& plan) { plan.argv.back() = "9"; }));
    EXPECT_TRUE(IsObjectedTo(4, [](Plan& plan) { plan.node->mode = 0666; }));
    EXPECT_TRUE(IsObjectedTo(4, [](Plan& plan) { plan.node->type = S_IFBLK; }));
    EXPECT_TRUE(IsObjectedTo(4, [](Plan& plan) { plan.node->minorNumber = 9; }));
    EXPECT_TRUE(IsObjectedTo(4, [](Plan& plan) { plan.node.reset(); }));
    EXPECT_TRUE(IsObjectedTo(5, [](Plan& plan) { plan.pins[0].rootOwnedChain = false; }));
}

}  // namespace
