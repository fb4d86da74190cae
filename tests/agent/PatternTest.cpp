// SPDX-License-Identifier: Apache-2.0
// Globs, exact texts and regular expressions.
#include "decide/Pattern.h"

#include <gtest/gtest.h>

#include <chrono>
#include <random>

using agent::Pattern;
using agent::Variables;

namespace {

bool Glob(const std::string& pattern, const std::string& field) {
    return Pattern(Pattern::kGlob, pattern).Matches(field, Variables());
}

bool TextGlob(const std::string& pattern, const std::string& text) {
    return Pattern(Pattern::kTextGlob, pattern).Matches(text, Variables());
}

// The meaning of a glob without "/**", as slow and plain as it can be written (bytes only).
// `border`: what no wildcard takes.
bool Plain(const char* glob, const char* field, char border = '/') {
    if (*glob == '\0') {
        return *field == '\0';
    }
    if (*glob == '*') {
        return Plain(glob + 1, field, border) ||
               (*field != '\0' && *field != border && Plain(glob, field + 1, border));
    }
    const bool one = *glob == '?' ? *field != '\0' && *field != border : *glob == *field;
    return one && *field != '\0' && Plain(glob + 1, field + 1, border);
}

TEST(Pattern, AStarStopsAtASlash) {
    EXPECT_TRUE(Glob("/media/*", "/media/usb"));
    EXPECT_TRUE(Glob("/media/*", "/media/"));
    EXPECT_FALSE(Glob("/media/*", "/media/usb/x"));
    EXPECT_FALSE(Glob("*", "/"));
    EXPECT_TRUE(Glob("/*/x", "/a/x"));
    EXPECT_FALSE(Glob("/*/x", "/a/b/x"));
}

TEST(Pattern, AQuestionMarkIsOneCharacterButASlash) {
    EXPECT_TRUE(Glob("/dev/sd?1", "/dev/sda1"));
    EXPECT_TRUE(Glob("/dev/sd?1",
                     "/dev/sd\xc3\xa4"
                     "1"));
    EXPECT_FALSE(Glob("/dev/sd?1", "/dev/sd1"));
    EXPECT_FALSE(Glob("/dev/sd?1", "/dev/sdaa1"));
    EXPECT_FALSE(Glob("a?b", "a/b"));
}

TEST(Pattern, TwoStarsAtTheEndAreAnythingBelowButNotTheDirectoryItself) {
    EXPECT_TRUE(Glob("/media/**", "/media/x"));
    EXPECT_TRUE(Glob("/media/**", "/media/x/y/z"));
    EXPECT_TRUE(Glob("/media/*/in/**", "/media/a/in/x/y"));
    EXPECT_FALSE(Glob("/media/**", "/media"));
    EXPECT_FALSE(Glob("/media/**", "/media/"));
    EXPECT_FALSE(Glob("/media/**", "/mediax/y"));
    EXPECT_TRUE(Glob("/**", "/x"));
}

TEST(Pattern, TwoStarsAnywhereElseDoNotCompile) {
    for (const char* text : {"**", "/a**", "/**/b", "a/**b", "/a/***", "/**/**"}) {
        EXPECT_EQ(Pattern(Pattern::kGlob, text).GetError(),
                  "'**' can only be the end '/**' of a pattern")
            << text;
        EXPECT_FALSE(Glob(text, "/a/b")) << text;
    }
}

TEST(Pattern, NothingElseInAGlobIsSpecial) {
    EXPECT_TRUE(Glob("[a-z].{x}$^+\\d", "[a-z].{x}$^+\\d"));
    EXPECT_FALSE(Glob("[a-z]", "b"));
    EXPECT_FALSE(Glob("a.b", "axb"));
    EXPECT_TRUE(Glob(".*", ".x"));
    EXPECT_TRUE(Glob("*", ".x"));
}

TEST(Pattern, AGlobMatchesTheWholeField) {
    EXPECT_FALSE(Glob("abc", "abcd"));
    EXPECT_FALSE(Glob("abc", "xabc"));
    EXPECT_FALSE(Glob("abc", ""));
}

TEST(Pattern, ThousandsOfRandomGlobsAgreeWithThePlainDefinition) {
    std::mt19937 random(7);
    int matched = 0;
    for (int round = 0; round < 50000; ++round) {
        std::string glob;
        std::string field;
        for (std::size_t n = random() % 8; n > 0 || glob.empty(); n -= n > 0) {
            glob += "ab/*?"[random() % 5];
        }
        for (std::size_t n = random() % 9; n > 0; --n) {
            field += "ab/"[random() % 3];
        }
        if (glob.find("**") == std::string::npos) {
            ASSERT_EQ(Glob(glob, field), Plain(glob.c_str(), field.c_str()))
                << glob << " " << field;
            matched += Glob(glob, field) ? 1 : 0;
        }
        ASSERT_EQ(TextGlob(glob, field), Plain(glob.c_str(), field.c_str(), '\0'))
            << glob << " " << field;
    }
    EXPECT_GT(matched, 500);
}

TEST(Pattern, InATextGlobTheWildcardsTakeASlashToo) {
    EXPECT_TRUE(TextGlob("*/media/*", "-t ext4 /dev/sda1 /media/a/b"));
    EXPECT_TRUE(TextGlob("a?b", "a/b"));
    EXPECT_TRUE(TextGlob("a?b",
                         "a\xc3\xa4"
                         "b"));
    EXPECT_FALSE(TextGlob("a?b", "a//b"));
    EXPECT_TRUE(TextGlob("**", "/"));
    EXPECT_FALSE(TextGlob("*/media", "/media/x"));
}

TEST(Pattern, NothingElseInATextGlobIsSpecial) {
    EXPECT_TRUE(TextGlob("[ab]", "[ab]"));
    EXPECT_FALSE(TextGlob("[ab]", "a"));
    EXPECT_TRUE(TextGlob("a\\*", "a\\b"));
    EXPECT_TRUE(TextGlob("/x/**", "/x/"));
    EXPECT_TRUE(TextGlob("%uid", "%uid"));
    EXPECT_TRUE(TextGlob("", ""));
    EXPECT_FALSE(TextGlob("", "a"));
}

TEST(Pattern, AManyStarredGlobIsDecidedQuickly) {
    std::string glob;
    for (int i = 0; i < 50; ++i) {
        glob += "*a";
    }
    const auto begin = std::chrono::steady_clock::now();
    EXPECT_FALSE(Glob(glob + "b", std::string(8000, 'a')));
    EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::seconds(5));
}

TEST(Pattern, AnExactTextHasNoWildcards) {
    const Pattern exact(Pattern::kExact, "/a/*");
    EXPECT_TRUE(exact.Matches("/a/*", Variables()));
    EXPECT_FALSE(exact.Matches("/a/b", Variables()));
    EXPECT_TRUE(exact.IsLiteral());
}

TEST(Pattern, TheCallersNumbersArePutIn) {
    const Pattern pattern(Pattern::kGlob, "/run/user/%uid/%gid*");
    Variables variables;
    variables.uid = "1000";
    variables.gid = "44";
    EXPECT_TRUE(pattern.Matches("/run/user/1000/44x", variables));
    EXPECT_FALSE(pattern.Matches("/run/user/1001/44x", variables));
    EXPECT_FALSE(pattern.Matches("/run/user/%uid/%gid", variables));
}

TEST(Pattern, ANumberThatIsNotKnownMatchesNothing) {
    Variables variables;
    variables.uid = "1000";
    EXPECT_FALSE(Pattern(Pattern::kGlob, "gid=%gid").Matches("gid=", variables));
    EXPECT_EQ(agent::Expand("gid=%gid", variables), std::nullopt);
    EXPECT_EQ(agent::Expand("uid=%uid", variables), "uid=1000");
}

TEST(Pattern, OnlyATextWithoutWildcardsIsLiteral) {
    EXPECT_TRUE(Pattern(Pattern::kGlob, "bind").IsLiteral());
    EXPECT_FALSE(Pattern(Pattern::kGlob, "b*").IsLiteral());
    EXPECT_FALSE(Pattern(Pattern::kGlob, "uid=%uid").IsLiteral());
    EXPECT_FALSE(Pattern(Pattern::kRegex, "bind").IsLiteral());
    EXPECT_EQ(Pattern(Pattern::kGlob, "/a/%uid/*").GetFixedPart(), "/a/");
}

TEST(Pattern, AnEmptyPatternDoesNotCompile) {
    EXPECT_EQ(Pattern(Pattern::kGlob, "").GetError(), "the pattern is empty");
}

TEST(Pattern, ARegularExpressionBeyond1024CharactersDoesNotCompile) {
    const Pattern pattern(Pattern::kRegex, std::string(1025, 'a'));
    EXPECT_EQ(pattern.GetError(), "the regular expression is longer than 1024 characters");
    EXPECT_FALSE(pattern.Matches(std::string(1025, 'a'), Variables()));
}

#ifdef SENTREL_RE2
bool Regex(const std::string& pattern, const std::string& field) {
    return Pattern(Pattern::kRegex, pattern).Matches(field, Variables());
}

TEST(Pattern, ARegularExpressionIsAnchoredAtBothEnds) {
    EXPECT_TRUE(Regex("/dev/sd[a-z][0-9]", "/dev/sda1"));
    EXPECT_FALSE(Regex("/dev/sd[a-z][0-9]", "/dev/sda12"));
    EXPECT_FALSE(Regex("/dev/sd[a-z][0-9]", "x/dev/sda1"));
    EXPECT_FALSE(Regex("a|b", "ab"));
    EXPECT_FALSE(Regex("a", "a\n"));
    EXPECT_FALSE(Regex("(?m)^a$", "a\nb"));
}

TEST(Pattern, ARegularExpressionOf1024CharactersCompiles) {
    EXPECT_TRUE(Regex(std::string(1024, 'a'), std::string(1024, 'a')));
}

TEST(Pattern, ARegularExpressionThatDoesNotCompileSaysWhyAndMatchesNothing) {
    for (const char* text : {"(", "[a", "(?=a)", "\\1", "*"}) {
        const Pattern pattern(Pattern::kRegex, text);
        EXPECT_NE(pattern.GetError(), "") << text;
        EXPECT_FALSE(pattern.Matches(text, Variables())) << text;
    }
}

TEST(Pattern, ARegularExpressionThatNeedsTooMuchMemoryDoesNotCompile) {
    EXPECT_NE(Pattern(Pattern::kRegex, "((a{100}){100}){100}").GetError(), "");
    EXPECT_NE(Pattern(Pattern::kRegex, "(\\pL{900}){900}").GetError(), "");
}

TEST(Pattern, ANestedRepetitionIsDecidedQuickly) {
    const auto begin = std::chrono::steady_clock::now();
    EXPECT_FALSE(Regex("(a+)+", std::string(8000, 'a') + "b"));
    EXPECT_FALSE(Regex("[a-z/]*(a|b)*", std::string(8000, 'a') + "!"));
    EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::seconds(5));
}
#else
TEST(Pattern, WithoutTheLibraryARegularExpressionDoesNotCompile) {
    const Pattern pattern(Pattern::kRegex, "a");
    EXPECT_EQ(pattern.GetError(), "regular expressions are not built in");
    EXPECT_FALSE(pattern.Matches("a", Variables()));
}
#endif

}  // namespace
