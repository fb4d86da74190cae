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
    static SR_DBusCallMessage Question(const std::string& busName) {
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

    // Runs in libdbus's frames: nothing may be thrown through it.
    static void Answered(DBusPendingCall* pending, void* data) noexcept {
        const auto* answer = static_cast<Slot<void, const SR_DBusCredentials*>*>(data);
        DBusMessage* reply = dbus_pending_call_steal_reply(pending);
        try {
            SR_DBusCredentials credentials;
            const bool known = dbus_message_get_type(reply) == DBUS_MESSAGE_TYPE_METHOD_RETURN &&
                               Read(reply, credentials);
            (*answer)(known ? &credentials : nullptr);
        } catch (...) {
            // As the header says: dropped.
        }
        dbus_message_unref(reply);
    }

    static void Forget(void* data) {
        delete static_cast<Slot<void, const SR_DBusCredentials*>*>(data);
    }

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
    SR_DBusCallMessage call = Impl::Question(busName);
    const SR_DBusMessage reply = connection.SendReplyAndBlock(call, -1);
    if (!Impl::Read(SR_DBusMessage::Impl::Of(reply), *this)) {
        throw SR_DBusException("org.freedesktop.DBus.Error.InvalidArgs", "type mismatch");
    }
}

bool SR_DBusCredentials::Ask(SR_DBusConnection& connection, const std::string& busName,
                             const Slot<void, const SR_DBusCredentials*>& answer) {
    const SR_DBusCallMessage call = Impl::Question(busName);
    DBusPendingCall* pending = nullptr;
    if (!dbus_connection_send_with_reply(SR_DBusConnection::Impl::Of(connection),
                                         SR_DBusMessage::Impl::Of(call), &pending, -1) ||
        pending == nullptr) {
        return false;
    }
    // libdbus holds the pending call until it is answered; our own reference can go at once.
    auto kept = std::make_unique<Slot<void, const SR_DBusCredentials*> >(answer);
    const bool set =
        dbus_pending_call_set_notify(pending, Impl::Answered, kept.get(), Impl::Forget) != 0;
    if (set) {
        (void)kept.release();
    } else {
        dbus_pending_call_cancel(pending);
    }
    dbus_pending_call_unref(pending);
    return set;
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
