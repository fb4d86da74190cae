// SPDX-License-Identifier: Apache-2.0
// The two numbers of a reply: what a formatted stream reads is the measure.
#include <gtest/gtest.h>

#include <locale>
#include <random>
#include <sstream>
#include <string>

#include "SR_ReplyImpl.h"

namespace {

struct Numbers {
    int status;
    int returnValue;

    bool operator==(const Numbers& other) const {
        return status == other.status && returnValue == other.returnValue;
    }
};

std::ostream& operator<<(std::ostream& out, const Numbers& numbers) {
    return out << numbers.status << '/' << numbers.returnValue;
}

Numbers Read(const std::string& text) {
    Numbers numbers = {-99, -99};
    sentrel::ReadReply(text, numbers.status, numbers.returnValue);
    return numbers;
}

Numbers Streamed(const std::string& text) {
    std::stringstream stream(text);
    stream.imbue(std::locale::classic());
    Numbers numbers = {0, 0};
    stream >> numbers.status >> numbers.returnValue;
    return numbers;
}

TEST(ReplyTest, StatusAndReturnValueAreRead) {
    EXPECT_EQ((Numbers{0, 42}), Read("0 42"));
    EXPECT_EQ((Numbers{9, 0}), Read("9 0"));
    EXPECT_EQ((Numbers{-7, 128}), Read("\t -7\n+128 and more"));
}

TEST(ReplyTest, WhatCannotBeReadIsZeroAndEndsTheReading) {
    EXPECT_EQ((Numbers{0, 0}), Read(""));
    EXPECT_EQ((Numbers{0, 0}), Read("x 5"));
    EXPECT_EQ((Numbers{0, 0}), Read("- 5"));
    EXPECT_EQ((Numbers{3, 0}), Read("3"));
    EXPECT_EQ((Numbers{3, 0}), Read("3 x"));
}

TEST(ReplyTest, ANumberThatOverflowsIsTheNearestIntAndEndsTheReading) {
    EXPECT_EQ((Numbers{2147483647, 0}), Read("2147483648 5"));
    EXPECT_EQ((Numbers{-2147483648, 0}), Read("-99999999999999999999999 5"));
    EXPECT_EQ((Numbers{1, 2147483647}), Read("1 99999999999999999999999"));
}

TEST(ReplyTest, EveryTextIsReadAsAFormattedStreamWould) {
    const std::string pieces[] = {"0",
                                  "7",
                                  "12",
                                  "-",
                                  "+",
                                  " ",
                                  "\t",
                                  "\n",
                                  "\v",
                                  "\f",
                                  "\r",
                                  "x",
                                  "0x1f",
                                  ".",
                                  ",",
                                  "1e3",
                                  "2147483647",
                                  "2147483648",
                                  "-2147483648",
                                  "e",
                                  "00",
                                  "-2147483649",
                                  "9999999999999999999999",
                                  "\xC2\xA0",
                                  std::string(1, '\0')};
    std::mt19937 random(1);
    std::uniform_int_distribution<std::size_t> piece(0, std::size(pieces) - 1);
    std::uniform_int_distribution<int> count(0, 6);
    for (int i = 0; i < 200000; ++i) {
        std::string text;
        for (int left = count(random); left > 0; --left) {
            text += pieces[piece(random)];
        }
        ASSERT_EQ(Streamed(text), Read(text)) << testing::PrintToString(text);
    }
}

}  // namespace
