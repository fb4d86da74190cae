// SPDX-License-Identifier: Apache-2.0
// What an administrator reads, and what a caller cannot make him read.
#include "answer/Audit.h"

#include <gtest/gtest.h>

#include <sstream>

#include "parse/Parse.h"
#include "passage/Requests.h"

using agent::Audit;
using agent::AuditRequest;
using agent::Outcome;

namespace {

AuditRequest Request() {
    AuditRequest request;
    request.id = 7;
    request.uid = 1000;
    request.pid = 42;
    request.executable = "/usr/bin/player";
    request.operation = "sr_mount";
    request.arguments = {"-t", "tmpfs", "none", "/media/x"};
    request.rule = "/etc/rules/10.toml:3";
    return request;
}

const char kHead[] =
    "id=7 uid=1000 pid=42 exe=\"/usr/bin/player\" agent=\"sr_mount\" "
    "args=\"-t tmpfs none /media/x\" rule=\"/etc/rules/10.toml:3\"";

}  // namespace

TEST(AuditTest, OneLineIsWrittenBeforeAndOneAfter) {
    std::ostringstream out;
    Audit audit(out);
    audit.Before(Request());
    Outcome result;
    result.exit = 32;
    result.duration = std::chrono::milliseconds(15);
    result.outBytes = 99;
    result.droppedBytes = 1;
    audit.After(Request(), result);
    EXPECT_EQ(out.str(), std::string("sentrel-agent: phase=start ") + kHead +
                             " decision=allow\nsentrel-agent: phase=end " + kHead +
                             " decision=allow status=0 exit=32 signal=0 duration_ms=15 "
                             "out_bytes=99 dropped_bytes=1 reason=\"\"\n");
}

TEST(AuditTest, ADenialIsALineWithItsReason) {
    std::ostringstream out;
    Audit audit(out);
    audit.Denied(Request(), 7, "no rule");
    EXPECT_EQ(out.str(), std::string("sentrel-agent: phase=end ") + kHead +
                             " decision=deny status=7 reason=\"no rule\"\n");
}

TEST(AuditTest, NoCallersTextEndsALineOrMakesAField) {
    std::ostringstream out;
    Audit audit(out);
    AuditRequest request = Request();
    request.arguments = {"x\nsentrel-agent: phase=end id=8", "\" decision=allow uid=0 \""};
    request.operation = "a\r\x1b[2J";
    request.executable = "/tmp/\xff\xc2\x85";
    audit.Denied(request, 7, "\x01");
    const std::string line = out.str();
    EXPECT_EQ(line.find('\n'), line.size() - 1);
    EXPECT_NE(line.find("args=\"x\\x0asentrel-agent: phase=end id=8 \\\" decision=allow uid=0 "
                        "\\\"\""),
              std::string::npos)
        << line;
    EXPECT_NE(line.find("agent=\"a\\x0d\\x1b[2J\""), std::string::npos);
    EXPECT_NE(line.find("exe=\"/tmp/\\xff\\xc2\\x85\""), std::string::npos);
    EXPECT_NE(line.find("reason=\"\\x01\""), std::string::npos);
}

TEST(AuditTest, OnlyPrintableUtf8IsKept) {
    EXPECT_EQ(Audit::Quote("gr\xc3\xbc\xc3\x9f \xe2\x82\xac \xf0\x9f\x98\x80", 100),
              "\"gr\xc3\xbc\xc3\x9f \xe2\x82\xac \xf0\x9f\x98\x80\"");
    EXPECT_EQ(Audit::Quote("\x7f\t\\", 100), "\"\\x7f\\x09\\\\\"");
    EXPECT_EQ(Audit::Quote("\xc0\xaf", 100), "\"\\xc0\\xaf\"");           // overlong
    EXPECT_EQ(Audit::Quote("\xe0\x80\xaf", 100), "\"\\xe0\\x80\\xaf\"");  // overlong
    EXPECT_EQ(Audit::Quote("\xed\xa0\x80", 100), "\"\\xed\\xa0\\x80\"");  // surrogate
    EXPECT_EQ(Audit::Quote("\xe2\x80\xae", 100), "\"\\xe2\\x80\\xae\"");  // turns the text
    EXPECT_EQ(Audit::Quote("\xf4\x90\x80\x80", 100), "\"\\xf4\\x90\\x80\\x80\"");
    EXPECT_EQ(Audit::Quote("a\xe2\x82", 100), "\"a\\xe2\\x82\"");  // cut off
    EXPECT_EQ(Audit::Quote(std::string("a\0b", 3), 100), "\"a\\x00b\"");
}

TEST(AuditTest, LongTextIsCutAndMarked) {
    EXPECT_EQ(Audit::Quote("abcdef", 6), "\"abcdef\"");
    EXPECT_EQ(Audit::Quote("abcdefg", 6), "\"abcdef...\"");
    std::ostringstream out;
    Audit audit(out);
    AuditRequest request = Request();
    request.arguments = {std::string(100000, '\n')};
    audit.Denied(request, 1, "too long");
    EXPECT_LT(out.str().size(), 20000u);
}

TEST(AuditTest, APasswordIsNeverWritten) {
    for (const char* word : {"user=x,password=hun,ter2", "PASSWORD=hunter2", "pass=hunter2,ro",
                             "password2=hunter2", "a=b,passwd=hunter2", "credentials=hunter2"}) {
        EXPECT_EQ(Audit::Redact(word, true).find("ter2"), std::string::npos) << word;
        EXPECT_NE(Audit::Redact(word, true).find("=***"), std::string::npos) << word;
    }
    EXPECT_EQ(Audit::Redact("user=x,password=hunter2", true), "user=x,password=***");
    EXPECT_EQ(Audit::Redact("username=x%hunter2,ro", true), "username=x%***");
    EXPECT_EQ(Audit::Redact("bypass,mode=7", true), "bypass,mode=7");
    EXPECT_EQ(Audit::Redact("/media/x", true), "/media/x");
}

TEST(AuditTest, TextThatCouldNotBeSplitHidesNoPasswordBehindQuotes) {
    EXPECT_EQ(Audit::Redact("-o pa\"ss\"wo\\rd=hunter2 'open", false), "***");
    EXPECT_EQ(Audit::Redact("-o ro 'open", false), "-o ro 'open");
}

namespace {

// The line of a request that is refused, as its arguments come from the bus.
std::string LineFor(const std::string& operation, const std::string& text) {
    const agent::Parsed parsed = agent::Parse(operation, text);
    AuditRequest request;
    agent::DescribeArguments(text, parsed.words, parsed.status == SR_OK, request);
    std::ostringstream out;
    Audit(out).Denied(request, SR_FAIL, "");
    return out.str();
}

}  // namespace

TEST(AuditTest, ATextThatCannotBeParsedIsShownWithoutItsPassword) {
    for (const char* text :
         {"-o password=geheim,geheim //a/b", "-o 'PASS=geheim geheim", "-o user=me%geheim /x",
          "-o 'a,passwd=\"geheim\"' /x", "-o password=geheim geheim geheim"}) {
        ASSERT_NE(agent::Parse("sr_mount_cifs", text).status, SR_OK) << text;
        const std::string line = LineFor("sr_mount_cifs", text);
        EXPECT_EQ(line.find("geheim"), std::string::npos) << line;
        EXPECT_NE(line.find("***"), std::string::npos) << line;
    }
    EXPECT_NE(LineFor("sr_mount", "-t vfat 'a b' /m /x").find("args=\"-t vfat a b /m /x\""),
              std::string::npos);
    EXPECT_NE(LineFor("sr_mount", "a\nb 'c").find("args=\"a\\x0ab 'c\""), std::string::npos);
}

TEST(AuditTest, ARequestThatIsUnderstoodIsShownWithoutItsPassword) {
    const std::string text = "-o 'user=me,ro,password=a\"b\\c=d e' //nas/music /m";
    ASSERT_EQ(agent::Parse("sr_mount_cifs", text).request.secret, "a\"b\\c=d e");
    EXPECT_NE(
        LineFor("sr_mount_cifs", text).find("args=\"-o user=me,ro,password=*** //nas/music /m\""),
        std::string::npos);
}
