// SPDX-License-Identifier: Apache-2.0
// The record of one agent request or response, and the two functions that make paths.
#include <gtest/gtest.h>

#include <climits>
#include <string>
#include <type_traits>
#include <utility>

#include "SR_Message.h"

namespace {

using sentrel::DescriptorToPath;
using sentrel::Message;
using sentrel::ServiceNameToPath;

std::string PathOf(const std::string& service) {
    std::string path("what was there before");
    ServiceNameToPath(service, path);
    return path;
}

TEST(MessageRecordTest, ARequestMadeWithADescriptorHasNoPath) {
    const Message message("args", 7);
    EXPECT_EQ("args", message.Get());
    EXPECT_EQ(7, message.GetOutputStream());
    EXPECT_EQ("", message.GetOutputStreamPath());
    EXPECT_EQ(0, message.GetRv());
    EXPECT_EQ("", message.GetAgent());
}

TEST(MessageRecordTest, ARequestMadeWithAPathHasNoDescriptor) {
    const Message message("args", std::string("/tmp/out"));
    EXPECT_EQ("args", message.Get());
    EXPECT_EQ(-1, message.GetOutputStream());
    EXPECT_EQ("/tmp/out", message.GetOutputStreamPath());
    EXPECT_EQ(0, message.GetRv());
    EXPECT_EQ("", message.GetAgent());
}

TEST(MessageRecordTest, AnyDescriptorNumberIsRecordedAsItIs) {
    for (const int descriptor : {0, -1, INT_MAX, INT_MIN}) {
        EXPECT_EQ(descriptor, Message("", descriptor).GetOutputStream());
    }
}

TEST(MessageRecordTest, DataKeepsItsNulBytes) {
    const std::string data("a\0b\0", 4);
    EXPECT_EQ(data, Message(data, 1).Get());
    EXPECT_EQ(4u, Message(data, 1).Get().size());
}

TEST(MessageRecordTest, ATextIsCopiedEvenWhenItIsHandedOver) {
    std::string data(1000, 'x');
    const Message message(std::move(data), 7);
    EXPECT_EQ(1000u, data.size());  // NOLINT(bugprone-use-after-move): that is the point
    EXPECT_EQ(data, message.Get());
}

TEST(MessageRecordTest, TheAgentNameCanBeReplaced) {
    Message message("", 1);
    message.SetAgent("sr_mount");
    EXPECT_EQ("sr_mount", message.GetAgent());
    message.SetAgent("sr_rmmod");
    EXPECT_EQ("sr_rmmod", message.GetAgent());
    message.SetAgent("");
    EXPECT_EQ("", message.GetAgent());
}

TEST(MessageRecordTest, TheReturnValueCanBeReplaced) {
    Message message("", 1);
    for (const int value : {42, -1, INT_MIN, INT_MAX, 0}) {
        message.SetRv(value);
        EXPECT_EQ(value, message.GetRv());
    }
}

TEST(MessageRecordTest, TheSettersLeaveTheOtherFieldsAlone) {
    Message message("data", 5);
    message.SetAgent("agent");
    message.SetRv(9);
    EXPECT_EQ("data", message.Get());
    EXPECT_EQ(5, message.GetOutputStream());
    EXPECT_EQ("", message.GetOutputStreamPath());
    EXPECT_EQ("agent", message.GetAgent());
    EXPECT_EQ(9, message.GetRv());
}

TEST(MessageRecordTest, TheTextsGivenAreCopied) {
    std::string data("data");
    std::string path("/path");
    std::string agent("agent");
    Message message(data, path);
    message.SetAgent(agent);
    data = path = agent = "changed";
    EXPECT_EQ("data", message.Get());
    EXPECT_EQ("/path", message.GetOutputStreamPath());
    EXPECT_EQ("agent", message.GetAgent());
}

TEST(MessageRecordTest, CopiesAreIndependent) {
    Message original("data", 5);
    original.SetAgent("one");
    original.SetRv(1);
    Message copy(original);
    copy.SetAgent("two");
    copy.SetRv(2);
    EXPECT_EQ("one", original.GetAgent());
    EXPECT_EQ(1, original.GetRv());
    EXPECT_EQ("data", copy.Get());
    EXPECT_EQ(5, copy.GetOutputStream());
    original = copy;
    EXPECT_EQ("two", original.GetAgent());
    EXPECT_EQ(2, original.GetRv());
    const Message moved(std::move(original));
    EXPECT_EQ("two", moved.GetAgent());
    EXPECT_EQ("data", moved.Get());
}

TEST(MessageRecordTest, TheRecordIsAPlainClass) {
    EXPECT_FALSE(std::is_polymorphic<Message>::value);
    EXPECT_FALSE(std::is_default_constructible<Message>::value);
    EXPECT_TRUE(std::is_copy_assignable<Message>::value);
    EXPECT_TRUE(std::is_move_constructible<Message>::value);
}

TEST(MessageRecordTest, ABusNameBecomesAnObjectPath) {
    EXPECT_EQ("/org/sentrel/sr_agent", PathOf("org.sentrel.sr_agent"));
}

TEST(MessageRecordTest, AnEmptyNameBecomesTheRoot) {
    EXPECT_EQ("/", PathOf(""));
}

TEST(MessageRecordTest, EachDotBecomesOneSlash) {
    EXPECT_EQ("/a//b", PathOf("a..b"));
    EXPECT_EQ("/x/", PathOf("x."));
    EXPECT_EQ("//x", PathOf(".x"));
    EXPECT_EQ("////", PathOf("..."));
}

TEST(MessageRecordTest, NothingElseInANameIsTouched) {
    EXPECT_EQ("/:1/42", PathOf(":1.42"));
    EXPECT_EQ("/a-b/c_d e/", PathOf("a-b.c_d e/"));
    EXPECT_EQ(std::string("/a\0/b", 5), PathOf(std::string("a\0.b", 4)));
}

TEST(MessageRecordTest, NameAndPathMayBeTheSameString) {
    std::string text("a.b");
    ServiceNameToPath(text, text);
    EXPECT_EQ("/a/b", text);
}

TEST(MessageRecordTest, ADescriptorPathNamesProcessThenDescriptor) {
    EXPECT_EQ("/proc/1234/fd/5", DescriptorToPath(5, 1234));
    EXPECT_EQ("/proc/2147483647/fd/2147483647", DescriptorToPath(INT_MAX, INT_MAX));
    EXPECT_EQ("/proc/2/fd/1", DescriptorToPath(1, 2));
}

TEST(MessageRecordTest, ADescriptorOfZeroOrLessHasNoPath) {
    for (const int descriptor : {0, -1, -2, INT_MIN}) {
        for (const int pid : {1234, 0, -7}) {
            EXPECT_EQ("", DescriptorToPath(descriptor, pid));
        }
    }
}

TEST(MessageRecordTest, TheProcessNumberIsNotTested) {
    EXPECT_EQ("/proc/0/fd/3", DescriptorToPath(3, 0));
    EXPECT_EQ("/proc/-7/fd/3", DescriptorToPath(3, -7));
    EXPECT_EQ("/proc/-2147483648/fd/3", DescriptorToPath(3, INT_MIN));
}

}  // namespace
