// SPDX-License-Identifier: Apache-2.0
#include "SR_DBusReturnAddress.h"

#include <new>

#include "SR_DBusMessageImpl.h"

namespace sentrel {

SR_DBusReturnAddress::SR_DBusReturnAddress(const SR_DBusMessage& call)
    : sender(call.GetSender() != nullptr ? call.GetSender() : ""),
      serial(dbus_message_get_serial(SR_DBusMessage::Impl::Of(call))),
      wanted(dbus_message_get_no_reply(SR_DBusMessage::Impl::Of(call)) == 0) {}

SR_DBusMessage SR_DBusReturnAddress::Return() const {
    return Reply(DBUS_MESSAGE_TYPE_METHOD_RETURN);
}

SR_DBusMessage SR_DBusReturnAddress::Error(const std::string& name, const std::string& text) const {
    SR_DBusMessage reply = Reply(DBUS_MESSAGE_TYPE_ERROR);
    if (dbus_message_set_error_name(SR_DBusMessage::Impl::Of(reply), name.c_str()) == 0 ||
        !reply.GetWriter().AppendString(text)) {
        throw std::bad_alloc();
    }
    return reply;
}

SR_DBusMessage SR_DBusReturnAddress::Reply(int type) const {
    DBusMessage* const message = dbus_message_new(type);
    if (message == nullptr) {
        throw std::bad_alloc();
    }
    try {
        const SR_DBusMessage reply(new SR_DBusMessage::Impl(message), true /* addRef */);
        const bool addressed =
            (sender.empty() || dbus_message_set_destination(message, sender.c_str()) != 0) &&
            dbus_message_set_reply_serial(message, serial) != 0;
        if (!addressed) {
            throw std::bad_alloc();
        }
        dbus_message_set_no_reply(message, TRUE);
        dbus_message_unref(message);  // the object has its own
        return reply;
    } catch (...) {
        dbus_message_unref(message);
        throw;
    }
}

}  // namespace sentrel
