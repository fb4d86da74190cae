// SPDX-License-Identifier: Apache-2.0
// JSON as the command writes it and as it reads the agent's.
#include "Json.h"

#include <gtest/gtest.h>

namespace {

using cli::Json;

std::string Again(const std::string& text) {
    Json value;
    return Json::Parse(text, value) ? value.Write() : "(refused)";
}

TEST(CliJsonTest, ValuesAreWrittenOnOneLine) {
    const Json value = Json::Object()
                           .Add("n", Json::Number(-12))
                           .Add("t", Json::Text("x"))
                           .Add("b", Json::Bool(false))
                           .Add("l", Json::List().Add(Json()).Add(Json::Object()));
    EXPECT_EQ(R"({"n":-12,"t":"x","b":false,"l":[null,{}]})", value.Write());
}

TEST(CliJsonTest, TextsAreEscapedAndMalformedBytesReplaced) {
    EXPECT_EQ("\"\\\"\\\\\\n\\u001b\\u0000\\u007f\\u009b\xc3\xa4\\ufffd\"",
              Json::Text(std::string("\"\\\n\x1b\0\x7f\xc2\x9b\xc3\xa4\xff", 11)).Write());
}

TEST(CliJsonTest, WhatIsReadIsWrittenTheSame) {
    for (const char* text : {"null", "true", "false", "0", "-7", "[]", "{}", "\"a\"",
                             R"({"a":[1,"\u001b",{"b":null}],"":""})"}) {
        EXPECT_EQ(text, Again(text));
    }
    EXPECT_EQ(R"({"a":[1,2]})", Again(" {\t\"a\" : [ 1 ,\n2 ]\r} "));
}

TEST(CliJsonTest, EscapesAreRead) {
    Json value;
    ASSERT_TRUE(Json::Parse(R"("\"\\\/\b\f\n\r\t\u00e4\u6f22\ud83d\udcbe\u0041")", value));
    EXPECT_EQ(
        "\"\\/\b\f\n\r\t\xc3\xa4\xe6\xbc\xa2\xf0\x9f\x92\xbe"
        "A",
        value.Content());
}

TEST(CliJsonTest, AnythingElseIsRefused) {
    for (const char* text : {"",
                             " ",
                             "x",
                             "nul",
                             "tru",
                             "+1",
                             "01",
                             "-",
                             "1.5",
                             "1e3",
                             "1234567890123456789",
                             "\"",
                             "\"a",
                             "\"\\\"",
                             "\"\\x\"",
                             "\"\\u12\"",
                             "\"\\u12g4\"",
                             "\"\\ud800\"",
                             "\"\\ud800\\u0041\"",
                             "\"\\udc00\"",
                             "\"\n\"",
                             "[",
                             "[1",
                             "[1,",
                             "[1,]",
                             "[1 2]",
                             "]",
                             "{",
                             "{\"a\"",
                             "{\"a\":",
                             "{\"a\":1",
                             "{\"a\":1,}",
                             "{a:1}",
                             "{1:1}",
                             "[}",
                             "{]",
                             "1 2",
                             "{} x",
                             "\\"}) {
        EXPECT_EQ("(refused)", Again(text)) << text;
    }
    EXPECT_EQ("(refused)", Again(std::string("1\0", 2)));
}

TEST(CliJsonTest, DeepNestingIsRefusedWithoutHarm) {
    EXPECT_EQ("[[[[]]]]", Again("[[[[]]]]"));
    EXPECT_EQ("(refused)", Again(std::string(1000000, '[')));
}

TEST(CliJsonTest, MembersAreFoundByName) {
    Json value;
    ASSERT_TRUE(Json::Parse(R"({"a":1,"b":"x"})", value));
    EXPECT_EQ("x", value.Field("b"));
    EXPECT_EQ(Json::kNumber, value.Find("a")->GetKind());
    EXPECT_EQ(nullptr, value.Find("c"));
    EXPECT_EQ("", value.Field("c"));
}

}  // namespace
