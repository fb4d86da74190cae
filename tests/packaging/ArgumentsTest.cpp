// SPDX-License-Identifier: Apache-2.0
// What <sentrel/Arguments.h> writes, the agent's splitter reads back word for word; and what the
// splitter or the bus would refuse is refused before.
#include <gtest/gtest.h>
#include <sentrel/Arguments.h>

#include <random>

#include "parse/Words.h"

namespace {

using sentrel::Arguments;
typedef std::vector<std::string> List;

bool Split(const std::string& text, List& words) {
    const agent::Result<List> split = agent::SplitWords(text);
    words = split ? *split : words;
    return static_cast<bool>(split);
}

// A character of 1 to 4 bytes that a word may hold, the awkward ones often.
std::string RandomCharacter(std::mt19937& random) {
    static const std::string kAwkward = " '\"\\$`-=,/*?~#;&|<>(){}[]!%";
    if (random() % 3 != 0) {
        return std::string(1, kAwkward[random() % kAwkward.size()]);
    }
    static const char* const kOthers[] = {"a",
                                          "Z",
                                          "\xc2\xa0",
                                          "\xc3\xa4",
                                          "\xdf\xbf",
                                          "\xe0\xa0\x80",
                                          "\xe6\xbc\xa2",
                                          "\xef\xbf\xbf",
                                          "\xf0\x9f\x92\xbe",
                                          "\xf4\x8f\xbf\xbf"};
    return kOthers[random() % (sizeof(kOthers) / sizeof(kOthers[0]))];
}

std::string RandomWord(std::mt19937& random) {
    std::string word;
    for (auto left = random() % 10; left > 0; --left) {
        word += RandomCharacter(random);
    }
    return word;
}

TEST(ArgumentsTest, TheAgentReadsBackAnyWords) {
    for (unsigned seed = 0; seed < 20000; ++seed) {
        std::mt19937 random(seed);
        Arguments arguments;
        List words;
        for (auto left = random() % 8; left > 0; --left) {
            words.push_back(RandomWord(random));
            arguments.Add(words.back());
        }
        List found = {"not written"};
        ASSERT_TRUE(Split(arguments.Text(), found)) << "seed " << seed << ": " << arguments.Text();
        ASSERT_EQ(words, found) << "seed " << seed << ": " << arguments.Text();
    }
}

TEST(ArgumentsTest, AnyBytesAreRefusedOrReadBack) {
    unsigned refused = 0;
    unsigned taken = 0;
    for (unsigned seed = 0; seed < 50000; ++seed) {
        std::mt19937 random(seed);
        std::string word;
        for (auto left = 1 + random() % 4; left > 0; --left) {
            // Half of them plain, so that enough are taken.
            word += static_cast<char>(random() % 2 == 0 ? random() % 256 : 0x20 + random() % 0x60);
        }
        if (!Arguments::IsText(word)) {
            ++refused;
            EXPECT_THROW((Arguments{word}), std::invalid_argument);
            continue;
        }
        ++taken;
        List found;
        ASSERT_TRUE(Split(Arguments{word}.Text(), found)) << "seed " << seed;
        ASSERT_EQ(List{word}, found) << "seed " << seed;
    }
    EXPECT_GT(refused, 5000U);
    EXPECT_GT(taken, 5000U);
}

TEST(ArgumentsTest, PlainWordsStayAsTheyAre) {
    EXPECT_EQ("-t tmpfs -o size=1m,mode=755 none /run/x@1:%i",
              (Arguments{"-t", "tmpfs", "-o", "size=1m,mode=755", "none", "/run/x@1:%i"}.Text()));
    EXPECT_EQ("", Arguments().Text());
}

TEST(ArgumentsTest, AnEmptyWordIsAWord) {
    EXPECT_EQ("'' x ''", (Arguments{"", "x", ""}.Text()));
}

TEST(ArgumentsTest, NulAndControlCharactersAreRefused) {
    for (int c = 0; c < 0x20; ++c) {
        EXPECT_FALSE(Arguments::IsText(std::string(1, static_cast<char>(c)))) << c;
    }
    EXPECT_FALSE(Arguments::IsText("\x7f"));
    EXPECT_FALSE(Arguments::IsText("\xc2\x80"));
    EXPECT_FALSE(Arguments::IsText("\xc2\x9f"));
    EXPECT_TRUE(Arguments::IsText("\xc2\xa0"));
    EXPECT_THROW((Arguments{std::string("a\0b", 3)}), std::invalid_argument);
}

TEST(ArgumentsTest, WhatIsNotUtf8IsRefused) {
    for (const char* bad :
         {"\x80", "\xbf", "\xc0\x80", "\xc1\xbf", "\xc3", "\xc3\x28", "\xe0\x9f\xbf", "\xe6\xbc",
          "\xed\xa0\x80", "\xed\xbf\xbf", "\xf0\x8f\xbf\xbf", "\xf4\x90\x80\x80",
          "\xf8\x88\x80\x80\x80", "\xff", "ok\xfe"}) {
        EXPECT_FALSE(Arguments::IsText(bad)) << bad;
        EXPECT_THROW((Arguments{bad}), std::invalid_argument) << bad;
    }
}

TEST(ArgumentsTest, ARefusedWordLeavesTheOthers) {
    Arguments arguments{"a", "b c"};
    EXPECT_THROW(arguments.Add("\n"), std::invalid_argument);
    EXPECT_EQ("a 'b c'", arguments.Text());
}

TEST(ArgumentsTest, AsManyWordsAsTheAgentTakes) {
    Arguments arguments;
    for (std::size_t i = 0; i < Arguments::kMostWords; ++i) {
        arguments.Add("x");
    }
    List found;
    EXPECT_TRUE(Split(arguments.Text(), found));
    EXPECT_EQ(Arguments::kMostWords, found.size());
    EXPECT_THROW(arguments.Add("x"), std::length_error);
    EXPECT_FALSE(Split(arguments.Text() + " x", found));
}

TEST(ArgumentsTest, AsManyBytesAsTheAgentTakes) {
    Arguments arguments;
    EXPECT_THROW(arguments.Add(std::string(Arguments::kMostBytes + 1, 'x')), std::length_error);
    arguments.Add(std::string(Arguments::kMostBytes, 'x'));
    EXPECT_THROW(arguments.Add("x"), std::length_error);
    List found;
    EXPECT_TRUE(Split(arguments.Text(), found));
    EXPECT_FALSE(Split(arguments.Text() + "x", found));

    Arguments two({"x"});
    EXPECT_THROW(two.Add(std::string(Arguments::kMostBytes - 1, 'x')), std::length_error);
    two.Add(std::string(Arguments::kMostBytes - 2, 'x'));
    EXPECT_EQ(Arguments::kMostBytes, two.Text().size());
}

}  // namespace
