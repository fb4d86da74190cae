// SPDX-License-Identifier: Apache-2.0
// Which name a mistyped one is taken for.
#include "Similar.h"

#include <gtest/gtest.h>

using cli::Similar;

namespace {

const std::vector<std::string> kNames = {"mount", "umount", "mounts", "rmmod", "raw"};

}  // namespace

TEST(SimilarTest, ACharacterTooFewTooManyAnotherOrTwoExchangedAreOneChange) {
    for (const char* word : {"mont", "mmount", "mopnt", "muont"}) {
        EXPECT_EQ(Similar(word, {"mount"}), "mount") << word;
    }
    EXPECT_EQ(Similar("rmomd", kNames), "rmmod");
}

TEST(SimilarTest, TheNearestIsTakenAndOfSeveralTheFirst) {
    EXPECT_EQ(Similar("mounts", kNames), "mounts");
    EXPECT_EQ(Similar("mountss", kNames), "mounts");
    EXPECT_EQ(Similar("ount", kNames), "mount");
    EXPECT_EQ(Similar("amount", kNames), "mount");
}

TEST(SimilarTest, WhatIsFarFromAllIsTakenForNone) {
    EXPECT_EQ(Similar("banana", kNames), "");
    EXPECT_EQ(Similar("", kNames), "");
    EXPECT_EQ(Similar("x", kNames), "");
    EXPECT_EQ(Similar("ra", kNames), "raw");
    EXPECT_EQ(Similar("zz", kNames), "");  // every one of its characters
    EXPECT_EQ(Similar(std::string(1000000, 'm'), kNames), "");
}
