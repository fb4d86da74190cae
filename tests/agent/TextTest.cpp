// SPDX-License-Identifier: Apache-2.0
// The small helpers for text.
#include "base/Text.h"

#include <gtest/gtest.h>

#include <cstdint>

using agent::ToNumber;

namespace {

TEST(Text, ANumberIsTheWholeTextOrNone) {
    EXPECT_EQ(ToNumber<unsigned>("0"), 0U);
    EXPECT_EQ(ToNumber<unsigned>("0042"), 42U);
    EXPECT_EQ(ToNumber<std::uint64_t>("18446744073709551615"), UINT64_MAX);
    EXPECT_EQ(ToNumber<unsigned>("777", 8), 0777U);
    EXPECT_EQ(ToNumber<unsigned>("fF", 16), 255U);
    for (const char* text : {"", " 1", "1 ", "+1", "0x1", "1.0", "1,2", "a", "\t1", "1\n"}) {
        EXPECT_EQ(ToNumber<unsigned>(text), std::nullopt) << text;
        EXPECT_EQ(ToNumber<int>(text), std::nullopt) << text;
    }
    EXPECT_EQ(ToNumber<unsigned>("8", 8), std::nullopt);
    EXPECT_EQ(ToNumber<unsigned>("0x1", 16), std::nullopt);
    EXPECT_EQ(ToNumber<unsigned>(std::string("1\0", 2)), std::nullopt);
}

TEST(Text, ANumberThatItsTypeCannotHoldIsNone) {
    EXPECT_EQ(ToNumber<std::uint64_t>("18446744073709551616"), std::nullopt);
    EXPECT_EQ(ToNumber<int>("2147483648"), std::nullopt);
    EXPECT_EQ(ToNumber<int>("-2147483648"), INT32_MIN);
    EXPECT_EQ(ToNumber<unsigned>("-1"), std::nullopt);
    EXPECT_EQ(ToNumber<int>("--1"), std::nullopt);
    EXPECT_EQ(ToNumber<int>("-"), std::nullopt);
}

TEST(Text, AQuotedTextIsOneReadableLine) {
    EXPECT_EQ(agent::Quote("/m/a b"), "'/m/a b'");
    EXPECT_EQ(agent::Quote("/m/a'b\\\xc3\xa4\n"), "'/m/a\\x27b\\x5c\\xc3\\xa4\\x0a'");
    EXPECT_EQ(agent::Quote(std::string(200, 'a')), "'" + std::string(120, 'a') + "...'");
}

}  // namespace
