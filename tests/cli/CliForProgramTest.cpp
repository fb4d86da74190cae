// SPDX-License-Identifier: Apache-2.0
// What --json prints, byte for byte: programs may rely on the order of the fields.
#include "ForProgram.h"

#include <gtest/gtest.h>
#include <sentrel/SR_API.h>

#include <nlohmann/json.hpp>

namespace {

using cli::JsonLine;
using nlohmann::ordered_json;

TEST(CliForProgramTest, ValuesAreWrittenOnOneLine) {
    EXPECT_EQ(R"({"n":-12,"t":"x","b":false,"l":[null,{}]})",
              JsonLine({{"n", -12},
                        {"t", "x"},
                        {"b", false},
                        {"l", {ordered_json(), ordered_json::object()}}}));
}

TEST(CliForProgramTest, TextsAreEscapedAndMalformedBytesReplaced) {
    EXPECT_EQ("\"\\\"\\\\\\n\\u001b\\u0000\\u007f\\u009b\xc3\xa4\\ufffd\"",
              JsonLine(std::string("\"\\\n\x1b\0\x7f\xc2\x9b\xc3\xa4\xff", 11)));
}

TEST(CliForProgramTest, WhateverTheBytesALineIsOneOfUtf8WithoutControls) {
    std::string bytes;
    for (int first = 0; first < 256; ++first) {
        for (int second = 0; second < 256; ++second) {
            bytes += static_cast<char>(first);
            bytes += static_cast<char>(second);
        }
    }
    const std::string line = JsonLine(bytes);
    const ordered_json again = ordered_json::parse(line);
    ASSERT_TRUE(again.is_string());
    for (std::size_t i = 0; i < line.size(); ++i) {
        const unsigned byte = static_cast<unsigned char>(line[i]);
        EXPECT_TRUE(byte >= 0x20 && byte != 0x7f) << i;
        EXPECT_FALSE(byte == 0xc2 && static_cast<unsigned char>(line[i + 1]) < 0xa0) << i;
    }
}

TEST(CliForProgramTest, AnOutcomeHasItsFieldsInTheirOrder) {
    const cli::Operation* rmmod = cli::FindOperation("rmmod");
    ASSERT_NE(nullptr, rmmod);
    EXPECT_EQ(R"({"operation":"rmmod","status":0,"name":"OK","value":1,"exit":1,)"
              R"("output":"a\ufffdb","text":"the tool's exit code is 1","advice":""})",
              OutcomeLine(*rmmod, cli::Outcome{SR_OK, 1},
                          "a\xff"
                          "b"));
}

TEST(CliForProgramTest, EachOtherLineHasItsFieldsInTheirOrder) {
    EXPECT_EQ(R"({"version":"1","interface":"v"})", cli::VersionLine("1", "v"));
    EXPECT_EQ(R"({"error":"e","text":"t\ufffd","exit":126,"advice":"a"})",
              FailureLine(cli::Answer{"e", "t\xc3"}, 126, "a"));
    EXPECT_EQ(R"([{"status":5,"name":"COMM_NO_SERVICE","exit":127,"text":"t","advice":"a"},)"
              R"({"status":0,"name":"OK","exit":null,"text":"u","advice":"b"}])",
              cli::MeaningsLine({{SR_COMM_NO_SERVICE, "t", "a"}, {SR_OK, "u", "b"}}));
    EXPECT_EQ(R"({"ok":false,"exit":126,"steps":[)"
              R"({"step":"bus","state":"ok","detail":"d","advice":[]},)"
              R"({"step":"rules","state":"failed","detail":"\ufffd","advice":["x","y"]}]})",
              cli::StepsLine({cli::Step{"bus", cli::State::kGood, "d", {}, 0},
                              cli::Step{"rules", cli::State::kFailed, "\x80", {"x", "y"}, 126}},
                             126));
}

}  // namespace
