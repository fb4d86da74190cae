// SPDX-License-Identifier: Apache-2.0
#include "SR_DBusConnectionImpl.h"
#include "SR_DBusMessageImpl.h"
#include "SR_DBusQuestionImpl.h"

namespace sentrel {

SR_DBusCallMessage SR_DBusQuestion::Call(const char* interfaceName, const char* member,
                                         const std::string& busName) {
    SR_DBusCallMessage call;
    (void)call.SetDestination(DBUS_SERVICE_DBUS);
    (void)call.SetPath(DBUS_PATH_DBUS);
    (void)call.SetInterface(interfaceName);
    (void)call.SetMember(member);
    (void)call.GetWriter().AppendString(busName);
    return call;
}

bool SR_DBusQuestion::Ask(SR_DBusConnection& connection, const SR_DBusCallMessage& call,
                          std::unique_ptr<SR_DBusQuestion> question) {
    DBusConnection* const handle = SR_DBusConnection::Impl::Of(connection);
    if (dbus_connection_get_is_connected(handle) == 0 ||
        !connection.Send(call, &question->serial) ||
        dbus_connection_add_filter(handle, Filter, question.get(), Forget) == 0) {
        return false;
    }
    (void)question.release();  // the filter's
    return true;
}

// A filter and not a pending call, because that and its connection would keep each other when the
// connection is closed before the answer. Runs in libdbus's frames: nothing may be thrown through.
DBusHandlerResult SR_DBusQuestion::Filter(DBusConnection* connection, DBusMessage* message,
                                          void* data) noexcept {
    auto* const question = static_cast<SR_DBusQuestion*>(data);
    if (dbus_message_get_reply_serial(message) != question->serial ||
        dbus_message_has_sender(message, DBUS_SERVICE_DBUS) == 0) {
        return DBUS_HANDLER_RESULT_NOT_YET_HANDLED;
    }
    try {
        question->Answered(message);
    } catch (...) {
        // As the header says: dropped.
    }
    dbus_connection_remove_filter(connection, Filter, data);  // deletes the question
    return DBUS_HANDLER_RESULT_HANDLED;
}

void SR_DBusQuestion::Forget(void* data) {
    delete static_cast<SR_DBusQuestion*>(data);
}

SR_DBusDictionary::SR_DBusDictionary(DBusMessage* reply) : there(false), entries() {
    DBusMessageIter arguments;
    if (dbus_message_iter_init(reply, &arguments) &&
        dbus_message_iter_get_arg_type(&arguments) == DBUS_TYPE_ARRAY &&
        dbus_message_iter_get_element_type(&arguments) == DBUS_TYPE_DICT_ENTRY) {
        dbus_message_iter_recurse(&arguments, &entries);
        there = true;
    }
}

bool SR_DBusDictionary::Next(const char*& key, DBusMessageIter& value) {
    while (there && dbus_message_iter_get_arg_type(&entries) == DBUS_TYPE_DICT_ENTRY) {
        DBusMessageIter entry;
        dbus_message_iter_recurse(&entries, &entry);
        (void)dbus_message_iter_next(&entries);
        if (Read(entry, DBUS_TYPE_STRING, key) && dbus_message_iter_next(&entry) &&
            dbus_message_iter_get_arg_type(&entry) == DBUS_TYPE_VARIANT) {
            dbus_message_iter_recurse(&entry, &value);
            return true;
        }
    }
    return false;
}

}  // namespace sentrel
