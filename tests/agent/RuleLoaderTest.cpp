// SPDX-License-Identifier: Apache-2.0
// Loading the rules by another process: what it brings back, and a process that hangs, dies or is
// asked for again.
#include "rules/RuleLoader.h"

#include <gtest/gtest.h>
#include <sys/mman.h>
#include <unistd.h>

#include <atomic>
#include <csignal>
#include <new>

using agent::LoadResult;
using agent::RuleLoader;
using agent::RuleSource;

namespace {

const char kRule[] =
    "[[rule]]\nname = \"r\"\nagent = \"sr_rmmod\"\npermit = true\nuser = \"someone\"\n"
    "module = \"m\"\n";

RuleSource Source(int rules) {
    RuleSource source;
    for (int i = 0; i < rules; ++i) {
        source.files.files.push_back({"/f" + std::to_string(i), kRule, ""});
    }
    source.accounts.users["someone"] = {1000, ""};
    return source;
}

class RuleLoaderTest : public testing::Test {
protected:
    RuleLoaderTest()
        : shared(new (mmap(nullptr, sizeof(std::atomic<int>), PROT_READ | PROT_WRITE,
                           MAP_SHARED | MAP_ANONYMOUS, -1, 0)) std::atomic<int>(0)) {}
    ~RuleLoaderTest() override { (void)munmap(shared, sizeof *shared); }

    // Loads and waits; "COUNT" or the first error.
    std::string Load(RuleLoader& loader) {
        std::string text;
        loader.Load([&](const LoadResult& result) {
            text = result.errors.empty() ? std::to_string(store.Count()) : result.errors.front();
        });
        RunUntil([&text] { return !text.empty(); });
        return text;
    }
    template <typename Condition>
    void RunUntil(Condition condition) {
        bool late = false;
        const auto limit =
            agent::Timer::Make(loop, std::chrono::steady_clock::now() + std::chrono::seconds(20),
                               [&late] { late = true; });
        late = !limit;
        while (!condition() && !late) {
            loop.Dispatch();
        }
        EXPECT_TRUE(condition());
    }

    sentrel::SR_MainLoop loop;
    agent::RuleStore store{{}, geteuid(), "/nowhere"};
    std::atomic<int>* shared;  // with the other process
};

TEST_F(RuleLoaderTest, WhatTheProcessFoundBecomesTheRules) {
    RuleLoader loader(loop, store, std::chrono::seconds(20), [] { return Source(3); });
    EXPECT_EQ("3", Load(loader));
    RuleLoader large(loop, store, std::chrono::seconds(20), [] { return Source(5000); });
    EXPECT_EQ("5000", Load(large));
}

TEST_F(RuleLoaderTest, AFailureLeavesTheRulesAsTheyWere) {
    RuleLoader good(loop, store, std::chrono::seconds(20), [] { return Source(3); });
    EXPECT_EQ("3", Load(good));
    RuleLoader hangs(loop, store, std::chrono::milliseconds(1000), []() -> RuleSource {
        for (;;) {
            pause();
        }
    });
    EXPECT_EQ("the account database or the files did not answer within 1 s", Load(hangs));
    RuleLoader dies(loop, store, std::chrono::seconds(20), []() -> RuleSource { _exit(0); });
    EXPECT_EQ("the process that reads the files has failed", Load(dies));
    RuleLoader throws(loop, store, std::chrono::seconds(20),
                      []() -> RuleSource { throw std::bad_alloc(); });
    EXPECT_EQ("the process that reads the files has failed", Load(throws));
    RuleLoader unknown(loop, store, std::chrono::seconds(20), [] {
        RuleSource source = Source(1);
        source.accounts.users["someone"].failure = "Input/output error";
        return source;
    });
    EXPECT_EQ("/f0:5: user 'someone' cannot be looked up: Input/output error", Load(unknown));
    EXPECT_EQ(3U, store.Count());
}

TEST_F(RuleLoaderTest, LoadsThatAreAskedForMeanwhileAreOneLoadAfterwards) {
    RuleLoader loader(loop, store, std::chrono::seconds(20), [this] { return Source(++*shared); });
    std::vector<std::size_t> seen;
    const auto done = [&](const LoadResult& result) {
        EXPECT_TRUE(result.errors.empty());
        seen.push_back(store.Count());
    };
    for (int i = 0; i < 5; ++i) {
        loader.Load(done);
    }
    RunUntil([&seen] { return seen.size() == 5; });
    EXPECT_EQ((std::vector<std::size_t>{1, 2, 2, 2, 2}), seen);
    EXPECT_EQ(2, shared->load());
}

TEST_F(RuleLoaderTest, OneThatGoesInTheMiddleOfALoadLeavesNothing) {
    bool called = false;
    {
        RuleLoader loader(loop, store, std::chrono::seconds(20), []() -> RuleSource {
            for (;;) {
                pause();
            }
        });
        loader.Load([&called](const LoadResult&) { called = true; });
    }
    EXPECT_FALSE(called);
    EXPECT_EQ(0U, store.Count());
}

TEST(RuleSourceTest, PackingKeepsEverythingAndATextThatIsNotWholeIsNoSource) {
    RuleSource source = Source(2);
    source.files.errors = {"/d: cannot be opened", ""};
    source.files.files.push_back({"/g 1\n", std::string("\0 7 \xff", 5), "is a symbolic link"});
    source.accounts.groups["g"] = {std::nullopt, "Input/output error"};
    source.accounts.groups["max"] = {4294967295U, ""};
    const std::string packed = source.Pack();
    RuleSource again;
    ASSERT_TRUE(again.Unpack(packed));
    EXPECT_EQ(packed, again.Pack());
    EXPECT_EQ(4294967295U, again.accounts.groups["max"].id);
    for (std::size_t size = 0; size < packed.size(); ++size) {
        RuleSource part;
        EXPECT_FALSE(part.Unpack(packed.substr(0, size))) << size;
    }
    RuleSource other;
    EXPECT_FALSE(other.Unpack(packed + " "));
    EXPECT_FALSE(other.Unpack("99999999999999999 "));
}

}  // namespace
