// SPDX-License-Identifier: Apache-2.0
// Message wrappers and the argument iterator, on libdbus's own messages; no bus.
#include "SR_DBusMessage.h"

#include <gtest/gtest.h>

#include <climits>
#include <memory>
#include <string>
#include <thread>
#include <type_traits>
#include <vector>

#include "SR_DBusAdaptor.h"
#include "SR_DBusError.h"
#include "SR_DBusMessageImpl.h"

namespace {

using sentrel::SR_DBusCallMessage;
using sentrel::SR_DBusErrorMessage;
using sentrel::SR_DBusException;
using sentrel::SR_DBusMessage;
using sentrel::SR_DBusMessageIter;
using sentrel::SR_DBusReturnMessage;

DBusMessage* HandleOf(const SR_DBusMessage& message) {
    return SR_DBusMessage::Impl::Of(message);
}

// Tells when libdbus frees a message: data attached to it goes with it.
class Life {
public:
    explicit Life(DBusMessage* message) {
        EXPECT_TRUE(dbus_message_allocate_data_slot(&slot));
        EXPECT_TRUE(dbus_message_set_data(message, slot, this, Freed));
    }
    ~Life() { dbus_message_free_data_slot(&slot); }
    Life(const Life&) = delete;
    Life& operator=(const Life&) = delete;
    bool Ended() const { return ended; }

private:
    static void Freed(void* data) { static_cast<Life*>(data)->ended = true; }

    dbus_int32_t slot = -1;
    bool ended = false;
};

DBusMessage* NewCall() {
    DBusMessage* call = dbus_message_new_method_call("org.x.Dest", "/x", "org.x.If", "Member");
    dbus_message_set_serial(call, 77);
    EXPECT_TRUE(dbus_message_set_sender(call, ":1.5"));
    return call;
}

// A message that a peer sent.
SR_DBusCallMessage Received() {
    return SR_DBusCallMessage(new SR_DBusMessage::Impl(NewCall()), false /* addRef */);
}

template <typename Function>
void ExpectTypeMismatch(Function read) {
    try {
        read();
        ADD_FAILURE() << "nothing thrown";
    } catch (const SR_DBusException& exception) {
        EXPECT_STREQ("org.freedesktop.DBus.Error.InvalidArgs", exception.name());
        EXPECT_STREQ("type mismatch", exception.what());
    }
}

TEST(DBusMessageTest, AFreshCallHasNoHeaderFields) {
    const SR_DBusCallMessage call;
    EXPECT_EQ(1, call.GetType());
    EXPECT_EQ(nullptr, call.GetPath());
    EXPECT_EQ(nullptr, call.GetMember());
    EXPECT_EQ(nullptr, call.GetInterface());
    EXPECT_EQ(nullptr, call.GetDestination());
    EXPECT_EQ(nullptr, call.GetSender());
}

TEST(DBusMessageTest, EachSetterSetsItsOwnField) {
    SR_DBusCallMessage call;
    EXPECT_TRUE(call.SetPath("/org/x"));
    EXPECT_STREQ("/org/x", call.GetPath());
    EXPECT_EQ(nullptr, call.GetMember());
    EXPECT_EQ(nullptr, call.GetInterface());
    EXPECT_EQ(nullptr, call.GetDestination());
    EXPECT_TRUE(call.SetMember("Member"));
    EXPECT_TRUE(call.SetInterface("org.x.If"));
    EXPECT_TRUE(call.SetDestination("org.x.Dest"));
    EXPECT_STREQ("/org/x", call.GetPath());
    EXPECT_STREQ("Member", call.GetMember());
    EXPECT_STREQ("org.x.If", call.GetInterface());
    EXPECT_STREQ("org.x.Dest", call.GetDestination());
    EXPECT_STREQ("/org/x", dbus_message_get_path(HandleOf(call)));
    EXPECT_STREQ("Member", dbus_message_get_member(HandleOf(call)));
    EXPECT_STREQ("org.x.If", dbus_message_get_interface(HandleOf(call)));
    EXPECT_STREQ("org.x.Dest", dbus_message_get_destination(HandleOf(call)));
}

TEST(DBusMessageTest, AFieldCanBeSetAgain) {
    SR_DBusCallMessage call;
    EXPECT_TRUE(call.SetMember("First"));
    EXPECT_TRUE(call.SetMember("Second"));
    EXPECT_STREQ("Second", call.GetMember());
}

TEST(DBusMessageTest, TheTypeIsLibdbussOwn) {
    for (const int type : {DBUS_MESSAGE_TYPE_METHOD_CALL, DBUS_MESSAGE_TYPE_METHOD_RETURN,
                           DBUS_MESSAGE_TYPE_ERROR, DBUS_MESSAGE_TYPE_SIGNAL}) {
        const SR_DBusMessage message(new SR_DBusMessage::Impl(dbus_message_new(type)),
                                     false /* addRef */);
        EXPECT_EQ(type, message.GetType());
    }
}

TEST(DBusMessageTest, TheSenderIsReadFromTheHeader) {
    EXPECT_STREQ(":1.5", Received().GetSender());
}

TEST(DBusMessageTest, ASignalIsToldByInterfaceAndMember) {
    const SR_DBusMessage signal(
        new SR_DBusMessage::Impl(dbus_message_new_signal("/x", "org.x.If", "Changed")),
        false /* addRef */);
    EXPECT_TRUE(signal.IsSignal("org.x.If", "Changed"));
    EXPECT_FALSE(signal.IsSignal("org.x.If", "changed"));
    EXPECT_FALSE(signal.IsSignal("org.x.Other", "Changed"));
    EXPECT_FALSE(Received().IsSignal("org.x.If", "Member")) << "a call is no signal";
}

TEST(DBusMessageTest, AMessageWithoutArgumentsReadsAsTheEnd) {
    const SR_DBusCallMessage call;
    SR_DBusMessageIter reader = call.GetReader();
    EXPECT_EQ(0, reader.GetArgType());
    ExpectTypeMismatch([&] { (void)reader.GetString(); });
    ExpectTypeMismatch([&] { (void)reader.GetInt32(); });
    ++reader;
    EXPECT_EQ(0, reader.GetArgType());
}

TEST(DBusMessageTest, WhatIsAppendedIsReadInOrder) {
    SR_DBusCallMessage call;
    SR_DBusMessageIter writer = call.GetWriter();
    EXPECT_TRUE(writer.AppendString("a"));
    EXPECT_TRUE(writer.AppendInt32(7));
    EXPECT_STREQ("si", dbus_message_get_signature(HandleOf(call)));
    SR_DBusMessageIter reader = call.GetReader();
    EXPECT_EQ('s', reader.GetArgType());
    EXPECT_STREQ("a", reader.GetString());
    ++reader;
    EXPECT_EQ('i', reader.GetArgType());
    EXPECT_EQ(7, reader.GetInt32());
    ++reader;
    EXPECT_EQ(0, reader.GetArgType());
    ExpectTypeMismatch([&] { (void)reader.GetInt32(); });
}

TEST(DBusMessageTest, ATypedReadOfAnotherTypeThrowsAndDoesNotMove) {
    SR_DBusCallMessage call;
    SR_DBusMessageIter writer = call.GetWriter();
    EXPECT_TRUE(writer.AppendString("text"));
    EXPECT_TRUE(writer.AppendInt32(3));
    SR_DBusMessageIter reader = call.GetReader();
    ExpectTypeMismatch([&] { (void)reader.GetInt32(); });
    EXPECT_STREQ("text", reader.GetString());
    ++reader;
    ExpectTypeMismatch([&] { (void)reader.GetString(); });
    EXPECT_EQ(3, reader.GetInt32());
}

TEST(DBusMessageTest, ReadingDoesNotMoveOn) {
    SR_DBusCallMessage call;
    EXPECT_TRUE(call.GetWriter().AppendInt32(5));
    SR_DBusMessageIter reader = call.GetReader();
    EXPECT_EQ(5, reader.GetInt32());
    EXPECT_EQ(5, reader.GetInt32());
}

TEST(DBusMessageTest, ArgumentsOfOtherTypesAreTypeMismatches) {
    SR_DBusCallMessage call;
    const dbus_uint32_t number = 1;
    const char* path = "/x";
    const dbus_bool_t truth = TRUE;
    EXPECT_TRUE(dbus_message_append_args(HandleOf(call), DBUS_TYPE_UINT32, &number,
                                         DBUS_TYPE_OBJECT_PATH, &path, DBUS_TYPE_BOOLEAN, &truth,
                                         DBUS_TYPE_INVALID));
    SR_DBusMessageIter reader = call.GetReader();
    for (const int type : {'u', 'o', 'b'}) {
        EXPECT_EQ(type, reader.GetArgType());
        ExpectTypeMismatch([&] { (void)reader.GetString(); });
        ExpectTypeMismatch([&] { (void)reader.GetInt32(); });
        ++reader;
    }
    EXPECT_EQ(0, reader.GetArgType());
}

TEST(DBusMessageTest, EveryIntIsKept) {
    SR_DBusCallMessage call;
    SR_DBusMessageIter writer = call.GetWriter();
    const std::vector<int> numbers = {0, -1, INT_MAX, INT_MIN};
    for (const int number : numbers) {
        EXPECT_TRUE(writer.AppendInt32(number));
    }
    SR_DBusMessageIter reader = call.GetReader();
    for (const int number : numbers) {
        EXPECT_EQ(number, reader.GetInt32());
        ++reader;
    }
}

TEST(DBusMessageTest, ATextEndsAtItsFirstNul) {
    SR_DBusCallMessage call;
    EXPECT_TRUE(call.GetWriter().AppendString(std::string("ab\0cd", 5)));
    EXPECT_STREQ("ab", call.GetReader().GetString());
    EXPECT_TRUE(call.GetWriter().AppendString(""));
}

TEST(DBusMessageTest, AnEmptyAndALongTextAreKept) {
    SR_DBusCallMessage call;
    const std::string text(1000000, 'x');
    EXPECT_TRUE(call.GetWriter().AppendString(""));
    EXPECT_TRUE(call.GetWriter().AppendString(text));
    SR_DBusMessageIter reader = call.GetReader();
    EXPECT_STREQ("", reader.GetString());
    ++reader;
    EXPECT_EQ(text, reader.GetString());
}

TEST(DBusMessageTest, IncrementReturnsTheIteratorItself) {
    const SR_DBusCallMessage call;
    SR_DBusMessageIter reader = call.GetReader();
    EXPECT_EQ(&reader, &++reader);
}

TEST(DBusMessageTest, CopiesOfAnIteratorAreIndependentPositions) {
    SR_DBusCallMessage call;
    EXPECT_TRUE(call.GetWriter().AppendInt32(1));
    EXPECT_TRUE(call.GetWriter().AppendInt32(2));
    SR_DBusMessageIter reader = call.GetReader();
    SR_DBusMessageIter ahead(reader);
    ++ahead;
    EXPECT_EQ(1, reader.GetInt32());
    EXPECT_EQ(2, ahead.GetInt32());
}

TEST(DBusMessageTest, ATextLivesInTheMessage) {
    SR_DBusCallMessage call;
    EXPECT_TRUE(call.GetWriter().AppendString("text"));
    const char* text = nullptr;
    {
        const SR_DBusCallMessage copy(call);
        text = copy.GetReader().GetString();
    }
    EXPECT_STREQ("text", text);
    EXPECT_EQ(text, call.GetReader().GetString());
}

TEST(DBusMessageTest, TheMessageGoesWithItsOnlyObject) {
    std::unique_ptr<SR_DBusCallMessage> call(new SR_DBusCallMessage);
    const Life life(HandleOf(*call));
    EXPECT_FALSE(life.Ended());
    call.reset();
    EXPECT_TRUE(life.Ended());
}

TEST(DBusMessageTest, ACopySharesTheMessageUntilTheLastIsGone) {
    std::unique_ptr<SR_DBusCallMessage> first(new SR_DBusCallMessage);
    EXPECT_TRUE(first->SetMember("Kept"));
    const Life life(HandleOf(*first));
    std::unique_ptr<SR_DBusCallMessage> copy(new SR_DBusCallMessage(*first));
    std::unique_ptr<SR_DBusMessage> base(new SR_DBusMessage(*copy));
    EXPECT_EQ(HandleOf(*first), HandleOf(*base));
    first.reset();
    EXPECT_STREQ("Kept", copy->GetMember());
    EXPECT_TRUE(copy->SetMember("Usable"));
    copy.reset();
    EXPECT_FALSE(life.Ended());
    EXPECT_EQ(1, base->GetType());
    base.reset();
    EXPECT_TRUE(life.Ended());
}

TEST(DBusMessageTest, TheLastToGoMayAlsoBeTheFirstMade) {
    std::unique_ptr<SR_DBusCallMessage> first(new SR_DBusCallMessage);
    const Life life(HandleOf(*first));
    { const SR_DBusCallMessage copy(*first); }
    EXPECT_FALSE(life.Ended());
    first.reset();
    EXPECT_TRUE(life.Ended());
}

TEST(DBusMessageTest, AnAdoptedMessageLeavesNoReferenceBehind) {
    DBusMessage* reply = NewCall();
    const Life life(reply);
    { const SR_DBusMessage message(new SR_DBusMessage::Impl(reply), false /* addRef */); }
    EXPECT_TRUE(life.Ended());
}

TEST(DBusMessageTest, ABorrowedMessageKeepsItsOwnersReference) {
    DBusMessage* reply = NewCall();
    const Life life(reply);
    { const SR_DBusMessage message(new SR_DBusMessage::Impl(reply), true /* addRef */); }
    ASSERT_FALSE(life.Ended());
    EXPECT_STREQ("Member", dbus_message_get_member(reply));
    dbus_message_unref(reply);
    EXPECT_TRUE(life.Ended());
}

TEST(DBusMessageTest, CopiesMayBeDestroyedOnDifferentThreads) {
    std::unique_ptr<SR_DBusCallMessage> call(new SR_DBusCallMessage);
    const Life life(HandleOf(*call));
    std::vector<std::thread> threads;
    for (int i = 0; i < 4; ++i) {
        threads.emplace_back([copy = SR_DBusCallMessage(*call)] {
            for (int j = 0; j < 500; ++j) {
                const SR_DBusCallMessage another(copy);
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    threads.clear();
    EXPECT_FALSE(life.Ended());
    call.reset();
    EXPECT_TRUE(life.Ended());
}

TEST(DBusMessageTest, AnErrorReplyIsAddressedToTheCaller) {
    const SR_DBusCallMessage call = Received();
    const SR_DBusErrorMessage error(call, "org.x.Error.Bad", "why");
    EXPECT_EQ(3, error.GetType());
    EXPECT_STREQ(":1.5", error.GetDestination());
    EXPECT_STREQ("org.x.Error.Bad", dbus_message_get_error_name(HandleOf(error)));
    EXPECT_EQ(77u, dbus_message_get_reply_serial(HandleOf(error)));
    SR_DBusMessageIter reader = error.GetReader();
    EXPECT_STREQ("why", reader.GetString());
    ++reader;
    EXPECT_EQ(0, reader.GetArgType());
}

TEST(DBusMessageTest, AReturnIsAddressedToTheCallerAndEmpty) {
    const SR_DBusCallMessage call = Received();
    SR_DBusReturnMessage reply(call);
    EXPECT_EQ(2, reply.GetType());
    EXPECT_STREQ(":1.5", reply.GetDestination());
    EXPECT_EQ(77u, dbus_message_get_reply_serial(HandleOf(reply)));
    EXPECT_EQ(0, reply.GetReader().GetArgType());
    EXPECT_TRUE(reply.GetWriter().AppendString("0 0"));
    EXPECT_STREQ("0 0", reply.GetReader().GetString());
}

TEST(DBusMessageTest, AReplyIsFreedWithItsObjectAndLeavesTheCallAlone) {
    const SR_DBusCallMessage call = Received();
    std::unique_ptr<SR_DBusErrorMessage> error(new SR_DBusErrorMessage(call, "org.x.E", "why"));
    const Life errorLife(HandleOf(*error));
    std::unique_ptr<SR_DBusReturnMessage> reply(new SR_DBusReturnMessage(call));
    const Life replyLife(HandleOf(*reply));
    error.reset();
    reply.reset();
    EXPECT_TRUE(errorLife.Ended());
    EXPECT_TRUE(replyLife.Ended());
    EXPECT_STREQ("Member", call.GetMember());
}

TEST(DBusMessageTest, WhetherAReplyIsWantedIsReadFromTheHeader) {
    const SR_DBusCallMessage call = Received();
    EXPECT_TRUE(sentrel::SR_DBusAdaptor::WantsReply(call));
    dbus_message_set_no_reply(HandleOf(call), TRUE);
    EXPECT_FALSE(sentrel::SR_DBusAdaptor::WantsReply(call));
}

TEST(DBusMessageTest, MessagesAreNotPolymorphicAndNotAssignable) {
    EXPECT_FALSE(std::is_polymorphic<SR_DBusMessage>::value);
    EXPECT_FALSE(std::is_copy_assignable<SR_DBusMessage>::value);
    EXPECT_EQ(sizeof(SR_DBusMessage), sizeof(SR_DBusCallMessage));
    EXPECT_EQ(sizeof(SR_DBusMessage), sizeof(SR_DBusErrorMessage));
}

}  // namespace
