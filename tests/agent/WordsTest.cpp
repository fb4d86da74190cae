// SPDX-License-Identifier: Apache-2.0
// Cutting the argument text into words.
#include "parse/Words.h"

#include <gtest/gtest.h>

#include <random>

namespace {

using Words = std::vector<std::string>;

Words Of(const std::string& text) {
    const agent::Result<Words> words = agent::SplitWords(text);
    return words ? *words : Words{"(refused)"};
}

std::string ErrorOf(const std::string& text) {
    const agent::Result<Words> words = agent::SplitWords(text);
    return words ? "(accepted)" : words.Reason();
}

// Any text as one word, the way a caller would write it.
std::string InQuotes(const std::string& word) {
    std::string quoted = "'";
    for (const char c : word) {
        quoted += c == '\'' ? std::string("'\\''") : std::string(1, c);
    }
    return quoted + "'";
}

TEST(Words, BlanksSeparateAndNothingElseDoes) {
    EXPECT_EQ(Of("  -t\ttmpfs  none /x "), (Words{"-t", "tmpfs", "none", "/x"}));
    EXPECT_EQ(Of("a;b|c&d>e"), (Words{"a;b|c&d>e"}));
    EXPECT_EQ(Of(""), Words{});
    EXPECT_EQ(Of(" \t "), Words{});
}

TEST(Words, NothingIsExpanded) {
    EXPECT_EQ(Of("$HOME ~ * $(id) `id` {a,b}"),
              (Words{"$HOME", "~", "*", "$(id)", "`id`", "{a,b}"}));
    EXPECT_EQ(Of("\"$HOME `id`\""), (Words{"$HOME `id`"}));
}

TEST(Words, QuotesKeepBlanksAndJoinWhatTouchesThem) {
    EXPECT_EQ(Of("'a b'c\"d e\" f"), (Words{"a bcd e", "f"}));
    EXPECT_EQ(Of("'' \"\" x"), (Words{"", "", "x"}));
    EXPECT_EQ(Of("'a\\' b"), (Words{"a\\", "b"}));
    EXPECT_EQ(Of("'a\"b' \"c'd\""), (Words{"a\"b", "c'd"}));
}

TEST(Words, ABackslashMakesTheNextCharacterPlain) {
    EXPECT_EQ(Of("a\\ b \\' \\\" \\\\"), (Words{"a b", "'", "\"", "\\"}));
}

TEST(Words, ABackslashInDoubleQuotesStaysBeforeOrdinaryCharacters) {
    EXPECT_EQ(Of(R"("HOME\user" "a\"b" "c\\d" "e\$f" "g\`h")"),
              (Words{"HOME\\user", "a\"b", "c\\d", "e$f", "g`h"}));
}

TEST(Words, AnOpenQuoteIsRefused) {
    EXPECT_EQ(ErrorOf("a 'b c"), "a quote is left open");
    EXPECT_EQ(ErrorOf("a \"b c"), "a quote is left open");
    EXPECT_EQ(ErrorOf("\"a\\\""), "a quote is left open");
}

TEST(Words, ABackslashAtTheEndIsRefused) {
    EXPECT_EQ(ErrorOf("a\\"), "the arguments end in a backslash");
    EXPECT_EQ(ErrorOf("\"a\\"), "the arguments end in a backslash");
}

TEST(Words, EveryControlCharacterIsRefusedWhereverItStands) {
    const std::string error = "the arguments hold a control character";
    for (int byte = 0; byte < 0x20; ++byte) {
        const std::string control(1, static_cast<char>(byte));
        EXPECT_EQ(ErrorOf("a '" + control + "'"), error) << byte;
        EXPECT_EQ(ErrorOf("\\" + control), error) << byte;
        if (byte != '\t') {
            EXPECT_EQ(ErrorOf("a" + control + "b"), error) << byte;
        }
    }
    EXPECT_EQ(ErrorOf("a\x7f"), error);
    EXPECT_EQ(ErrorOf("a\xc2\x9b"), error);
    EXPECT_EQ(Of("\xc3\xa4\xc2\xa0"), Words{"\xc3\xa4\xc2\xa0"});
}

TEST(Words, SixtyFourWordsAreTakenAndOneMoreIsRefused) {
    std::string text;
    for (int i = 0; i < 64; ++i) {
        text += "w ";
    }
    EXPECT_EQ(Of(text).size(), 64U);
    EXPECT_EQ(ErrorOf(text + "w"), "there are more than 64 arguments");
}

TEST(Words, EightKibibytesAreTakenAndOneByteMoreIsRefused) {
    EXPECT_EQ(Of(std::string(8192, 'a')).front().size(), 8192U);
    EXPECT_EQ(ErrorOf(std::string(8193, 'a')), "the arguments are longer than 8192 bytes");
}

TEST(Words, WhatIsQuotedComesBackUnchanged) {
    std::mt19937 random(1);
    static const char kCharacters[] = "ab '\"\\$`*?-=,/\xc3\xa4";
    for (int round = 0; round < 2000; ++round) {
        Words words(random() % 6);
        std::string text;
        for (std::string& word : words) {
            for (std::size_t length = random() % 8; length > 0; --length) {
                word += kCharacters[random() % (sizeof kCharacters - 1)];
            }
            text += InQuotes(word) + " ";
        }
        ASSERT_EQ(Of(text), words) << text;
    }
}

}  // namespace
