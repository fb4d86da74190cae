// SPDX-License-Identifier: Apache-2.0
#include "SR_DBusCredentials.h"

#include <dbus/dbus.h>

#include <cstring>
#include <memory>

#include "SR_DBusError.h"
#include "SR_DBusMessageImpl.h"
#include "SR_DBusQuestionImpl.h"

namespace sentrel {

// The question and how its answer is read.
class SR_HIDDEN SR_DBusCredentials::Impl : public SR_DBusQuestion {
public:
    static SR_DBusCallMessage Call(const std::string& busName) {
        return SR_DBusQuestion::Call(DBUS_INTERFACE_DBUS, "GetConnectionCredentials", busName);
    }

    // False when the message is not a dictionary of credentials.
    static bool Read(DBusMessage* reply, SR_DBusCredentials& result) {
        SR_DBusDictionary entries(reply);
        const char* key = nullptr;
        DBusMessageIter value;
        while (entries.Next(key, value)) {
            Take(key, value, result);
        }
        return entries.IsThere();
    }

    explicit Impl(const Slot<void, const SR_DBusCredentials*>& awaited) : answer(awaited) {}

protected:
    void Answered(DBusMessage* reply) override {
        SR_DBusCredentials credentials;
        const bool known = dbus_message_get_type(reply) == DBUS_MESSAGE_TYPE_METHOD_RETURN &&
                           Read(reply, credentials);
        answer(known ? &credentials : nullptr);
    }

private:
    static void Take(const char* key, DBusMessageIter& value, SR_DBusCredentials& result) {
        if (std::strcmp(key, "UnixUserID") == 0) {
            dbus_uint32_t number = 0;
            result.uidKnown = SR_DBusDictionary::Read(value, DBUS_TYPE_UINT32, number);
            result.uid = number;
        } else if (std::strcmp(key, "ProcessID") == 0) {
            dbus_uint32_t number = 0;
            result.pidKnown = SR_DBusDictionary::Read(value, DBUS_TYPE_UINT32, number);
            result.pid = static_cast<pid_t>(number);
        } else if (std::strcmp(key, "UnixGroupIDs") == 0) {
            const dbus_uint32_t* ids = nullptr;
            int count = 0;
            if (SR_DBusDictionary::ReadArray(value, DBUS_TYPE_UINT32, ids, count)) {
                result.groups.assign(ids, ids + count);
            }
        } else if (std::strcmp(key, "LinuxSecurityLabel") == 0) {
            const char* bytes = nullptr;
            int count = 0;
            if (SR_DBusDictionary::ReadArray(value, DBUS_TYPE_BYTE, bytes, count)) {
                result.label.assign(bytes, strnlen(bytes, static_cast<std::size_t>(count)));
            }
        }
    }

    Slot<void, const SR_DBusCredentials*> answer;
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
    return SR_DBusQuestion::Ask(connection, Impl::Call(busName), std::make_unique<Impl>(answer));
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
