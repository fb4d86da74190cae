// SPDX-License-Identifier: Apache-2.0
// The command's quoting and the agent's splitting undo each other.
#include "Quote.h"

#include <gtest/gtest.h>
#include <sentrel/Arguments.h>

#include <random>

#include "parse/Words.h"

namespace {

typedef std::vector<std::string> List;

// Few of each, so that awkward ones meet.
const char* const kPieces[] = {"a",
                               "Z",
                               "0",
                               " ",
                               "  ",
                               "'",
                               "''",
                               "\"",
                               "\\",
                               "\\\\",
                               "$",
                               "`",
                               "*",
                               "?",
                               "~",
                               "#",
                               ";",
                               "&",
                               "|",
                               "(",
                               ")",
                               "<",
                               ">",
                               "{",
                               "}",
                               "[",
                               "]",
                               "=",
                               ",",
                               "-",
                               "--",
                               "/",
                               "!",
                               "\xc3\xa4",
                               "\xe6\xbc\xa2",
                               "\xf0\x9f\x92\xbe",
                               "\xc2\xa0",
                               "%",
                               "^"};

std::string RandomWord(std::mt19937& random) {
    std::string word;
    for (auto left = random() % 12; left > 0; --left) {
        word += kPieces[random() % (sizeof(kPieces) / sizeof(kPieces[0]))];
    }
    return word;
}

TEST(QuoteTest, TheSplitterUndoesTheQuotingOfAnyWords) {
    for (unsigned seed = 0; seed < 20000; ++seed) {
        std::mt19937 random(seed);
        List words;
        for (auto left = random() % 6; left > 0; --left) {
            words.push_back(RandomWord(random));
        }
        const std::string text = cli::JoinQuoted(words);
        const agent::Result<List> found = agent::SplitWords(text);
        ASSERT_TRUE(found) << "seed " << seed << ": " << text;
        ASSERT_EQ(words, *found) << "seed " << seed << ": " << text;
    }
}

TEST(QuoteTest, EverySingleCharacterSurvivesAloneAndBetweenOthers) {
    for (int c = 0x20; c < 0x7f; ++c) {
        const std::string one(1, static_cast<char>(c));
        const List words = {one, "x" + one, one + "x", one + one, ""};
        const agent::Result<List> found = agent::SplitWords(cli::JoinQuoted(words));
        ASSERT_TRUE(found) << c;
        EXPECT_EQ(words, *found) << c;
    }
}

TEST(QuoteTest, OrdinaryWordsStayAsTheyAre) {
    EXPECT_EQ("-t tmpfs -o size=1m,mode=755 none /run/mount@1",
              cli::JoinQuoted({"-t", "tmpfs", "-o", "size=1m,mode=755", "none", "/run/mount@1"}));
}

TEST(QuoteTest, TheTwoLimitsOnTheTextAreTheSame) {
    EXPECT_EQ(agent::kLongestText, sentrel::Arguments::kMostBytes);
}

TEST(QuoteTest, WellFormedUtf8IsText) {
    for (const char* good :
         {"", "a", "\x7f", "\xc2\x80", "\xdf\xbf", "\xe0\xa0\x80", "\xed\x9f\xbf", "\xee\x80\x80",
          "\xef\xbf\xbf", "\xf0\x90\x80\x80", "\xf4\x8f\xbf\xbf"}) {
        EXPECT_TRUE(cli::IsText(good)) << good;
    }
}

TEST(QuoteTest, AnythingElseIsNotText) {
    EXPECT_FALSE(cli::IsText(std::string("a\0b", 3)));
    for (const char* bad :
         {"\x80", "\xbf", "\xc0\x80", "\xc1\xbf", "\xc3", "\xc3\x28", "\xe0\x9f\xbf", "\xe6\xbc",
          "\xed\xa0\x80", "\xed\xbf\xbf", "\xf0\x8f\xbf\xbf", "\xf4\x90\x80\x80",
          "\xf8\x88\x80\x80\x80", "\xff", "ok\xfe"}) {
        EXPECT_FALSE(cli::IsText(bad)) << bad;
    }
}

}  // namespace
