// SPDX-License-Identifier: Apache-2.0
#include "SR_DBusCredentials.h"

#include <dbus/dbus.h>

#include <cstring>
#include <memory>

#include "SR_DBusConnectionImpl.h"
#include "SR_DBusError.h"
#include "SR_DBusMessageImpl.h"

namespace sentrel {

namespace {

// Reads a value of one type; false when it is of another.
template <typename T>
bool Read(DBusMessageIter& value, int type, T& result) {
    if (dbus_message_iter_get_arg_type(&value) != type) {
        return false;
    }
    dbus_message_iter_get_basic(&value, &result);
    return true;
}

// Reads an array of a fixed-size type in place; false when it is something else.
template <typename T>
bool ReadArray(DBusMessageIter& value, int type, const T*& items, int& count) {
    if (dbus_message_iter_get_arg_type(&value) != DBUS_TYPE_ARRAY ||
        dbus_message_iter_get_element_type(&value) != type) {
        return false;
    }
    DBusMessageIter array;
    dbus_message_iter_recurse(&value, &array);
    dbus_message_iter_get_fixed_array(&array, &items, &count);
    return true;
}

// Steps into the reply's one argument, an array of dictionary entries.
bool EnterDictionary(DBusMessage* reply, DBusMessageIter& entries) {
    DBusMessageIter arguments;
    if (!dbus_message_iter_init(reply, &arguments) ||
        dbus_message_iter_get_arg_type(&arguments) != DBUS_TYPE_ARRAY ||
        dbus_message_iter_get_element_type(&arguments) != DBUS_TYPE_DICT_ENTRY) {
        return false;
    }
    dbus_message_iter_recurse(&arguments, &entries);
    return true;
}

// Steps into an entry: its key, and a position on the value inside its variant.
bool ReadEntry(DBusMessageIter& entries, const char*& key, DBusMessageIter& value) {
    DBusMessageIter entry;
    dbus_message_iter_recurse(&entries, &entry);
    if (!Read(entry, DBUS_TYPE_STRING, key)) {
        return false;
    }
    dbus_message_iter_next(&entry);
    if (dbus_message_iter_get_arg_type(&entry) != DBUS_TYPE_VARIANT) {
        return false;
    }
    dbus_message_iter_recurse(&entry, &value);
    return true;
}

}  // namespace

// The question, the answer, and what is kept while the bus has not answered.
class SR_HIDDEN SR_DBusCredentials::Impl {
public:
    static SR_DBusCallMessage Call(const std::string& busName) {
        SR_DBusCallMessage call;
        (void)call.SetDestination(DBUS_SERVICE_DBUS);
        (void)call.SetPath(DBUS_PATH_DBUS);
        (void)call.SetInterface(DBUS_INTERFACE_DBUS);
        (void)call.SetMember("GetConnectionCredentials");
        (void)call.GetWriter().AppendString(busName);
        return call;
    }

    // False when the message is not a dictionary of credentials.
    static bool Read(DBusMessage* reply, SR_DBusCredentials& result) {
        DBusMessageIter entries;
        if (!EnterDictionary(reply, entries)) {
            return false;
        }
        for (; dbus_message_iter_get_arg_type(&entries) == DBUS_TYPE_DICT_ENTRY;
             dbus_message_iter_next(&entries)) {
            const char* key = nullptr;
            DBusMessageIter value;
            if (ReadEntry(entries, key, value)) {
                Take(key, value, result);
            }
        }
        return true;
    }

    // A question under way: a filter of the connection, which owns it.
    struct Question {
        dbus_uint32_t serial;
        Slot<void, const SR_DBusCredentials*> answer;
    };

    // Runs in libdbus's frames: nothing may be thrown through it. Not a pending call, because that
    // and its connection would keep each other when the connection is closed before the answer.
    static DBusHandlerResult Filter(DBusConnection* connection, DBusMessage* message,
                                    void* data) noexcept {
        const auto* question = static_cast<Question*>(data);
        if (dbus_message_get_reply_serial(message) != question->serial ||
            dbus_message_has_sender(message, DBUS_SERVICE_DBUS) == 0) {
            return DBUS_HANDLER_RESULT_NOT_YET_HANDLED;
        }
        try {
            const Slot<void, const SR_DBusCredentials*> answer = question->answer;
            dbus_connection_remove_filter(connection, Filter, data);
            SR_DBusCredentials credentials;
            const bool known = dbus_message_get_type(message) == DBUS_MESSAGE_TYPE_METHOD_RETURN &&
                               Read(message, credentials);
            answer(known ? &credentials : nullptr);
        } catch (...) {
            // As the header says: dropped.
        }
        return DBUS_HANDLER_RESULT_HANDLED;
    }

    static void Forget(void* data) { delete static_cast<Question*>(data); }

private:
    static void Take(const char* key, DBusMessageIter& value, SR_DBusCredentials& result) {
        if (std::strcmp(key, "UnixUserID") == 0) {
            dbus_uint32_t number = 0;
            result.uidKnown = sentrel::Read(value, DBUS_TYPE_UINT32, number);
            result.uid = number;
        } else if (std::strcmp(key, "ProcessID") == 0) {
            dbus_uint32_t number = 0;
            result.pidKnown = sentrel::Read(value, DBUS_TYPE_UINT32, number);
            result.pid = static_cast<pid_t>(number);
        } else if (std::strcmp(key, "UnixGroupIDs") == 0) {
            const dbus_uint32_t* ids = nullptr;
            int count = 0;
            if (ReadArray(value, DBUS_TYPE_UINT32, ids, count)) {
                result.groups.assign(ids, ids + count);
            }
        } else if (std::strcmp(key, "LinuxSecurityLabel") == 0) {
            const char* bytes = nullptr;
            int count = 0;
            if (ReadArray(value, DBUS_TYPE_BYTE, bytes, count)) {
                result.label.assign(bytes, strnlen(bytes, static_cast<std::size_t>(count)));
            }
        }
    }
};

SR_DBusCredentials::SR_DBusCredentials() : uidKnown(false), pidKnown(false), uid(0), pid(0) {}

SR_DBusCredentials::SR_DBusCredentials(SR_DBusConnection& connection, const std::string& busName)
    : SR_DBusCredentials() {
    SR_DBusCallMessage call = Impl::Call(busName);
    const SR_DBusMessage reply = connection.SendReplyAndBlock(call, -1);
    if (!Impl::Read(SR_DBusMessage::Impl::Of(reply), *this)) {
        throw SR_DBusException("org.freedesktop.DBus.Error.InvalidArgs", "type mismatch");
    }
}

bool SR_DBusCredentials::Ask(SR_DBusConnection& connection, const std::string& busName,
                             const Slot<void, const SR_DBusCredentials*>& answer) {
    DBusConnection* const handle = SR_DBusConnection::Impl::Of(connection);
    dbus_uint32_t serial = 0;
    if (dbus_connection_get_is_connected(handle) == 0 ||
        !connection.Send(Impl::Call(busName), &serial)) {
        return false;
    }
    std::unique_ptr<Impl::Question> question(new Impl::Question{serial, answer});
    if (dbus_connection_add_filter(handle, Impl::Filter, question.get(), Impl::Forget) == 0) {
        return false;
    }
    (void)question.release();
    return true;
}

bool SR_DBusCredentials::GetUid(uid_t& result) const {
    if (uidKnown) {
        result = uid;
    }
    return uidKnown;
}

bool SR_DBusCredentials::GetPid(pid_t& result) const {
    if (pidKnown) {
        result = pid;
    }
    return pidKnown;
}

}  // namespace sentrel
