// SPDX-License-Identifier: Apache-2.0
//
// The reference rule: every live SR_DBusMessage, copy or derived, holds exactly one reference on
// the libdbus message in the shared Impl. A constructor that makes a libdbus message keeps the
// reference it was made with; the copy constructor takes one; the destructor gives one back. So
// the libdbus message goes with the last object, at the same moment as the Impl.
//
// The handle is null only when libdbus was out of memory while making a message. Deliberate: it is
// then handed to libdbus all the same, which refuses it as a failed precondition (pinned by
// FailureTest, "AMessageThatLibdbusCouldNotMakeIsHandedOnAsNull").

#include "SR_DBusMessage.h"

#include "SR_DBusError.h"
#include "SR_DBusMessageImpl.h"

namespace sentrel {

namespace {

void ExpectType(SR_DBusMessageIter& iterator, int type) {
    if (iterator.GetArgType() != type) {
        throw SR_DBusException("org.freedesktop.DBus.Error.InvalidArgs", "type mismatch");
    }
}

}  // namespace

SR_DBusMessage::SR_DBusMessage() : impl(new Impl) {}

SR_DBusMessage::SR_DBusMessage(Impl* adopted, bool addRef) : impl(adopted) {
    if (impl->handle != nullptr && addRef) {
        dbus_message_ref(impl->handle);
    }
}

SR_DBusMessage::SR_DBusMessage(const SR_DBusMessage& other) : impl(other.impl) {
    dbus_message_ref(impl->handle);
}

SR_DBusMessage::~SR_DBusMessage() {
    dbus_message_unref(impl->handle);
}

SR_DBusMessageIter SR_DBusMessage::GetReader() const {
    SR_DBusMessageIter reader(const_cast<SR_DBusMessage&>(*this));
    // False only says that there are no arguments; the iterator is good all the same.
    (void)dbus_message_iter_init(impl->handle, &reader.iterator);
    return reader;
}

SR_DBusMessageIter SR_DBusMessage::GetWriter() {
    SR_DBusMessageIter writer(*this);
    dbus_message_iter_init_append(impl->handle, &writer.iterator);
    return writer;
}

bool SR_DBusMessage::IsSignal(const std::string& interfaceName, const std::string& member) const {
    return dbus_message_is_signal(impl->handle, interfaceName.c_str(), member.c_str()) != 0;
}

bool SR_DBusMessage::SetDestination(const std::string& destination) {
    return dbus_message_set_destination(impl->handle, destination.c_str()) != 0;
}

const char* SR_DBusMessage::GetDestination() const {
    return dbus_message_get_destination(impl->handle);
}

const char* SR_DBusMessage::GetSender() const {
    return dbus_message_get_sender(impl->handle);
}

int SR_DBusMessage::GetType() const {
    return dbus_message_get_type(impl->handle);
}

SR_DBusCallMessage::SR_DBusCallMessage() {
    impl->handle = dbus_message_new(DBUS_MESSAGE_TYPE_METHOD_CALL);
}

SR_DBusCallMessage::SR_DBusCallMessage(Impl* adopted, bool addRef)
    : SR_DBusMessage(adopted, addRef) {}

bool SR_DBusCallMessage::SetPath(const std::string& path) {
    return dbus_message_set_path(impl->handle, path.c_str()) != 0;
}

bool SR_DBusCallMessage::SetMember(const std::string& member) {
    return dbus_message_set_member(impl->handle, member.c_str()) != 0;
}

bool SR_DBusCallMessage::SetInterface(const std::string& interfaceName) {
    return dbus_message_set_interface(impl->handle, interfaceName.c_str()) != 0;
}

const char* SR_DBusCallMessage::GetPath() const {
    return dbus_message_get_path(impl->handle);
}

const char* SR_DBusCallMessage::GetMember() const {
    return dbus_message_get_member(impl->handle);
}

const char* SR_DBusCallMessage::GetInterface() const {
    return dbus_message_get_interface(impl->handle);
}

SR_DBusErrorMessage::SR_DBusErrorMessage(const SR_DBusMessage& replyTo, const std::string& name,
                                         const std::string& message) {
    impl->handle = dbus_message_new_error(Impl::Of(replyTo), name.c_str(), message.c_str());
}

SR_DBusMessageIter::SR_DBusMessageIter(SR_DBusMessage& walked) : iterator(), message(walked) {}

SR_DBusMessageIter& SR_DBusMessageIter::operator++() {
    (void)dbus_message_iter_next(&iterator);
    return *this;
}

bool SR_DBusMessageIter::AppendString(const std::string& value) {
    const char* text = value.c_str();
    return dbus_message_iter_append_basic(&iterator, DBUS_TYPE_STRING, &text) != 0;
}

bool SR_DBusMessageIter::AppendInt32(int value) {
    const dbus_int32_t number = value;
    return dbus_message_iter_append_basic(&iterator, DBUS_TYPE_INT32, &number) != 0;
}

int SR_DBusMessageIter::GetArgType() {
    return dbus_message_iter_get_arg_type(&iterator);
}

const char* SR_DBusMessageIter::GetString() {
    ExpectType(*this, DBUS_TYPE_STRING);
    const char* text = nullptr;
    dbus_message_iter_get_basic(&iterator, &text);
    return text;
}

int SR_DBusMessageIter::GetInt32() {
    ExpectType(*this, DBUS_TYPE_INT32);
    dbus_int32_t number = 0;
    dbus_message_iter_get_basic(&iterator, &number);
    return number;
}

}  // namespace sentrel
