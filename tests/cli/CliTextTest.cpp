// SPDX-License-Identifier: Apache-2.0
// What of foreign bytes reaches a person's terminal.
#include "Text.h"

#include <gtest/gtest.h>

namespace {

TEST(CliTextTest, ControlCharactersAreShownByTheirBytes) {
    EXPECT_EQ("\\x1b[2J\\x07\\x00\\x7f\\x0d", cli::Printable(std::string("\x1b[2J\a\0\x7f\r", 8)));
}

TEST(CliTextTest, ControlCharactersOfTwoBytesAreShownByBoth) {
    EXPECT_EQ("\\xc2\\x9b31m\xc2\xa0", cli::Printable("\xc2\x9b"
                                                      "31m\xc2\xa0"));
}

TEST(CliTextTest, MalformedBytesAreShownByThemselves) {
    EXPECT_EQ("\\x9b|\\xc0\\x80|\\xed\\xa0\\x80|\\xff|\\xe6\\xbc",
              cli::Printable("\x9b|\xc0\x80|\xed\xa0\x80|\xff|\xe6\xbc"));
}

TEST(CliTextTest, TextStaysAsItIs) {
    const std::string text = "a \\ ~ \xc3\xa4 \xe6\xbc\xa2 \xf0\x9f\x92\xbe";
    EXPECT_EQ(text, cli::Printable(text));
}

TEST(CliTextTest, OneLineHasNoLineEndAndAStreamKeepsIts) {
    EXPECT_EQ("a\\x0ab\\x09c", cli::Printable("a\nb\tc"));
    EXPECT_EQ("a\nb\tc\\x0d", cli::Filter().Take("a\nb\tc\r"));
}

TEST(CliTextTest, AStreamIsTheSameHoweverItIsCut) {
    const std::string bytes =
        "a\xc3\xa4\x1b[m\xf0\x9f\x92\xbe\xc2\x9b\xe6\xbc|\xf0\x9f\x92\xff\xed\xa0\x80\n\xe6";
    cli::Filter whole;
    std::string expected = whole.Take(bytes);
    expected += whole.Finish();
    for (std::size_t first = 0; first <= bytes.size(); ++first) {
        for (std::size_t second = first; second <= bytes.size(); ++second) {
            cli::Filter filter;
            std::string shown = filter.Take(bytes.substr(0, first));
            shown += filter.Take(bytes.substr(first, second - first));
            shown += filter.Take(bytes.substr(second));
            EXPECT_EQ(expected, shown + filter.Finish()) << first << " " << second;
        }
    }
}

TEST(CliTextTest, NothingButTheBeginningOfACharacterIsHeldBack) {
    cli::Filter filter;
    EXPECT_EQ("a", filter.Take("a\xe6\xbc"));
    EXPECT_EQ("\xe6\xbc\xa2", filter.Take("\xa2"));
    EXPECT_EQ("\\xff", filter.Take("\xff"));
    EXPECT_EQ("", filter.Finish());
    EXPECT_EQ("", filter.Take("\xf0"));
    EXPECT_EQ("\\xf0", filter.Finish());
}

}  // namespace
