// SPDX-License-Identifier: Apache-2.0
// What is made of an agent's answer, and what is refused of one that means harm.
#include "Told.h"

#include <gtest/gtest.h>

namespace {

using cli::Fields;
using cli::FindField;
using cli::Told;

// The answer as a program gets it; whatever it is, it is put into a list of an object.
std::string Again(const std::string& value) {
    const Told told = Told::Read("[{\"x\":" + value + "}]", Told::kObjects);
    return told.error.empty() ? told.line.substr(6, told.line.size() - 8) : "(refused)";
}

std::string Error(const std::string& bytes, Told::Shape expected = Told::kObject) {
    const Told told = Told::Read(bytes, expected);
    // What is refused leaves nothing behind that could be taken for an answer.
    EXPECT_TRUE(told.error.empty() || told.line.empty());
    return told.error;
}

std::string Repeated(const std::string& text, std::size_t count) {
    std::string all;
    while (count-- > 0) {
        all += text;
    }
    return all;
}

// An object whose members have names of their own.
std::string ObjectOf(std::size_t members) {
    std::string text = "{";
    for (std::size_t i = 0; i < members; ++i) {
        text += (i == 0 ? "\"" : ",\"") + std::to_string(i) + "\":0";
    }
    return text + "}";
}

TEST(CliToldTest, WhatIsReadIsWrittenTheSame) {
    for (const char* text :
         {"null", "true", "false", "0", "-7", "1234567890123456789", "-9223372036854775808",
          "18446744073709551615", "[]", "{}", "\"a\"", R"({"b":[1,"\u001b",{"b":null}],"":""})"}) {
        EXPECT_EQ(text, Again(text));
    }
    EXPECT_EQ(R"({"a":[1,2]})", Again(" {\t\"a\" : [ 1 ,\n2 ]\r} "));
}

TEST(CliToldTest, TheOrderOfTheFieldsStays) {
    const char text[] = R"({"z":1,"a":{"y":2,"b":3},"m":4})";
    const Told told = Told::Read(text, Told::kObject);
    EXPECT_EQ(text, told.line);
    ASSERT_EQ(1U, told.objects.size());
    ASSERT_EQ(3U, told.objects[0].size());
    EXPECT_EQ("z", told.objects[0][0].name);
    EXPECT_EQ("m", told.objects[0][2].name);
}

TEST(CliToldTest, EscapesAreRead) {
    const Told told =
        Told::Read(R"({"x":"\"\\\/\b\f\n\r\t\u00e4\u6f22\ud83d\udcbe\u0041"})", Told::kObject);
    EXPECT_EQ("", told.error);
    EXPECT_EQ(
        "\"\\/\b\f\n\r\t\xc3\xa4\xe6\xbc\xa2\xf0\x9f\x92\xbe"
        "A",
        TextOf(told.objects[0], "x"));
}

TEST(CliToldTest, AnythingElseIsRefused) {
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
                             "1e999",
                             "18446744073709551616",
                             "-9223372036854775809",
                             "NaN",
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
                             "\"\xff\"",
                             "\"\xed\xa0\x80\"",
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
                             "// x\n1",
                             "\\"}) {
        EXPECT_EQ("(refused)", Again(text)) << text;
        EXPECT_NE("", Error(text)) << text;
    }
    EXPECT_NE("", Error("{} x"));
    EXPECT_EQ("it holds a zero byte", Error(std::string("{}\0", 3)));
}

TEST(CliToldTest, ARefusalSaysWhereAndWhy) {
    EXPECT_EQ("it is no JSON, at byte 6", Error("{\"a\":x}"));
    EXPECT_EQ("it holds a number that is no integer of 64 bits", Error("{\"a\":0.5}"));
    EXPECT_EQ("it is no object", Error("7"));
    EXPECT_EQ("it is no object", Error("[]"));
    EXPECT_EQ("it is no list", Error("{}", Told::kObjects));
    EXPECT_EQ("it is no list of objects", Error("[{},7]", Told::kObjects));
}

TEST(CliToldTest, DeepNestingIsRefusedWithoutHarm) {
    const auto nested = [](std::size_t lists) {
        return "{\"x\":" + std::string(lists, '[') + std::string(lists, ']') + "}";
    };
    EXPECT_EQ("", Error(nested(31)));
    EXPECT_EQ("it is nested too deeply", Error(nested(32)));
    EXPECT_EQ("it is nested too deeply", Error("{\"x\":" + std::string(1000000, '[')));
    EXPECT_EQ("it is nested too deeply", Error(Repeated("{\"x\":", 1000000)));
}

TEST(CliToldTest, TooMuchOfAnythingIsRefusedBeforeItIsKept) {
    EXPECT_EQ("", Error(ObjectOf(256)));
    EXPECT_EQ("an object has too many members", Error(ObjectOf(257)));
    EXPECT_EQ("an object has too many members", Error(ObjectOf(100000)));
    EXPECT_EQ("", Error("{\"x\":[" + Repeated("0,", 99997) + "0]}"));
    EXPECT_EQ("it holds too many values", Error("{\"x\":[" + Repeated("0,", 99998) + "0]}"));
    EXPECT_EQ("it holds too many values",
              Error("[" + Repeated("{},", 100000) + "{}]", Told::kObjects));
    EXPECT_EQ("", Error("{\"x\":\"" + std::string(1U << 20U, 'x') + "\"}"));
    EXPECT_EQ("it is too long", Error("{\"x\":\"" + std::string(32U << 20U, 'x') + "\"}"));
}

TEST(CliToldTest, FieldsAreFoundByName) {
    const Told told = Told::Read(R"({"a":1,"b":"x","c":[1,"y",[]],"d":true,"e":{"f":1},"g":null})",
                                 Told::kObject);
    const Fields& fields = told.objects.at(0);
    EXPECT_EQ("1", TextOf(fields, "a"));
    EXPECT_EQ(1, FindField(fields, "a")->number);
    EXPECT_EQ("x", TextOf(fields, "b"));
    EXPECT_FALSE(FindField(fields, "b")->number.has_value());
    EXPECT_FALSE(FindField(fields, "b")->list.has_value());
    EXPECT_EQ((std::vector<std::string>{"1", "y", ""}), FindField(fields, "c")->list);
    EXPECT_EQ("true", TextOf(fields, "d"));
    EXPECT_EQ("", TextOf(fields, "e"));
    EXPECT_EQ("", TextOf(fields, "g"));
    EXPECT_EQ(nullptr, FindField(fields, "h"));
    EXPECT_EQ("", TextOf(fields, "h"));
}

TEST(CliToldTest, ANumberThatIsTooLargeForOneIsAText) {
    const Told told =
        Told::Read(R"({"a":9223372036854775807,"b":9223372036854775808,"c":-1})", Told::kObject);
    const Fields& fields = told.objects.at(0);
    EXPECT_EQ(9223372036854775807LL, FindField(fields, "a")->number);
    EXPECT_FALSE(FindField(fields, "b")->number.has_value());
    EXPECT_EQ("9223372036854775808", TextOf(fields, "b"));
    EXPECT_EQ(-1, FindField(fields, "c")->number);
}

}  // namespace
