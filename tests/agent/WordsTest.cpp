// SPDX-License-Identifier: Apache-2.0
// The splitter of argument texts.
#include "Words.h"

#include <gtest/gtest.h>

namespace {

typedef std::vector<std::string> List;

List Words(const std::string& text) {
    List words = {"left from before"};
    std::string error = "untouched";
    EXPECT_TRUE(agent::SplitWords(text, words, error)) << text << ": " << error;
    EXPECT_EQ("untouched", error);
    return words;
}

std::string Error(const std::string& text) {
    List words = {"untouched"};
    std::string error;
    EXPECT_FALSE(agent::SplitWords(text, words, error)) << text;
    EXPECT_EQ(List{"untouched"}, words);
    return error;
}

TEST(WordsTest, BlanksSeparateWords) {
    EXPECT_EQ((List{"-t", "tmpfs", "none", "/x"}), Words("-t tmpfs none /x"));
    EXPECT_EQ((List{"a", "b"}), Words("  a \t  b  "));
}

TEST(WordsTest, NothingIsNoWord) {
    EXPECT_EQ(List(), Words(""));
    EXPECT_EQ(List(), Words(" \t "));
}

TEST(WordsTest, SingleQuotesKeepEverything) {
    EXPECT_EQ(List{"a \"b\" \\ $c"}, Words("'a \"b\" \\ $c'"));
}

TEST(WordsTest, DoubleQuotesKnowFourEscapes) {
    EXPECT_EQ(List{"\" \\ $ `"}, Words(R"("\" \\ \$ \`")"));
    EXPECT_EQ(List{R"(\a\' )"}, Words(R"("\a\' ")"));
}

TEST(WordsTest, ABackslashOutsideQuotesMakesTheNextCharacterPlain) {
    EXPECT_EQ((List{"a b", "'", "\\n"}), Words(R"(a\ b \' \\n)"));
}

TEST(WordsTest, PiecesThatTouchAreOneWord) {
    EXPECT_EQ(List{"it's"}, Words(R"('it'\''s')"));
    EXPECT_EQ(List{"abc"}, Words("a'b'\"c\""));
}

TEST(WordsTest, EmptyQuotesAreAnEmptyWord) {
    EXPECT_EQ((List{"", "a", ""}), Words("'' a \"\""));
}

TEST(WordsTest, NothingIsExpanded) {
    EXPECT_EQ((List{"$HOME", "*", "~", "`id`", "$(id)", "a;b", "#c", "{a,b}", "|", ">x"}),
              Words("$HOME * ~ `id` $(id) a;b #c {a,b} | >x"));
}

TEST(WordsTest, BytesBeyondAsciiAreKept) {
    EXPECT_EQ((List{"/m\xc3\xb6unt", "\xe6\xbc\xa2"}), Words("/m\xc3\xb6unt \xe6\xbc\xa2"));
}

TEST(WordsTest, AnOpenQuoteIsAnError) {
    EXPECT_EQ("a quote that is not closed", Error("a 'b"));
    EXPECT_EQ("a quote that is not closed", Error("a \"b"));
    EXPECT_EQ("a quote that is not closed", Error("\"b\\\""));
    EXPECT_EQ("a quote that is not closed", Error("\"b\\"));
    EXPECT_EQ("a quote that is not closed", Error("'"));
}

TEST(WordsTest, ABackslashAtTheEndIsAnError) {
    EXPECT_EQ("a backslash at the end", Error("a\\"));
}

TEST(WordsTest, EveryControlCharacterIsAnErrorWhereverItStands) {
    for (int c = 0; c < 0x80; ++c) {
        if (c >= 0x20 && c != 0x7f) {
            continue;
        }
        const std::string control(1, static_cast<char>(c));
        for (const std::string& text : {"'a" + control + "'", "\"a" + control + "\"",
                                        "a\\" + control, "\"\\" + control + "\""}) {
            EXPECT_EQ("a control character", Error(text)) << c;
        }
        if (c != '\t') {
            EXPECT_EQ("a control character", Error("a" + control + "b")) << c;
        }
    }
}

TEST(WordsTest, SixtyFourWordsAreTheMost) {
    std::string text;
    for (int i = 0; i < 64; ++i) {
        text += "w ";
    }
    EXPECT_EQ(64U, Words(text).size());
    EXPECT_EQ("too many words", Error(text + "w"));
    EXPECT_EQ("too many words", Error(text + "''"));
}

TEST(WordsTest, EightKilobytesAreTheMost) {
    EXPECT_EQ(List{std::string(8192, 'x')}, Words(std::string(8192, 'x')));
    EXPECT_EQ("too long", Error(std::string(8193, 'x')));
    EXPECT_EQ("too long", Error(std::string(8193, ' ')));
}

}  // namespace
