// SPDX-License-Identifier: Apache-2.0
#include "SR_DBusCredentials.h"

#include <dbus/dbus.h>

#include <cstring>

#include "SR_DBusConnection.h"
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

SR_DBusCredentials::SR_DBusCredentials(SR_DBusConnection& connection, const std::string& busName)
    : uidKnown(false), pidKnown(false), uid(0), pid(0) {
    SR_DBusCallMessage call;
    (void)call.SetDestination(DBUS_SERVICE_DBUS);
    (void)call.SetPath(DBUS_PATH_DBUS);
    (void)call.SetInterface(DBUS_INTERFACE_DBUS);
    (void)call.SetMember("GetConnectionCredentials");
    (void)call.GetWriter().AppendString(busName);
    const SR_DBusMessage reply = connection.SendReplyAndBlock(call, -1);

    DBusMessageIter entries;
    if (!EnterDictionary(SR_DBusMessage::Impl::Of(reply), entries)) {
        throw SR_DBusException("org.freedesktop.DBus.Error.InvalidArgs", "type mismatch");
    }
    for (; dbus_message_iter_get_arg_type(&entries) == DBUS_TYPE_DICT_ENTRY;
         dbus_message_iter_next(&entries)) {
        const char* key = nullptr;
        DBusMessageIter value;
        if (!ReadEntry(entries, key, value)) {
            continue;
        }
        if (std::strcmp(key, "UnixUserID") == 0) {
            dbus_uint32_t number = 0;
            uidKnown = Read(value, DBUS_TYPE_UINT32, number);
            uid = number;
        } else if (std::strcmp(key, "ProcessID") == 0) {
            dbus_uint32_t number = 0;
            pidKnown = Read(value, DBUS_TYPE_UINT32, number);
            pid = static_cast<pid_t>(number);
        } else if (std::strcmp(key, "UnixGroupIDs") == 0) {
            const dbus_uint32_t* ids = nullptr;
            int count = 0;
            if (ReadArray(value, DBUS_TYPE_UINT32, ids, count)) {
                groups.assign(ids, ids + count);
            }
        } else if (std::strcmp(key, "LinuxSecurityLabel") == 0) {
            const char* bytes = nullptr;
            int count = 0;
            if (ReadArray(value, DBUS_TYPE_BYTE, bytes, count)) {
                label.assign(bytes, strnlen(bytes, static_cast<std::size_t>(count)));
            }
        }
    }
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
