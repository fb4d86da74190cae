// SPDX-License-Identifier: Apache-2.0
#include "SR_DBusBacklog.h"

#include <cstring>

#include "SR_DBusQuestionImpl.h"

namespace sentrel {

class SR_HIDDEN SR_DBusBacklog::Impl : public SR_DBusQuestion {
public:
    typedef Slot<void, const SR_DBusBacklog&> Answer;

    explicit Impl(const Answer& awaited) : answer(awaited) {}

protected:
    void Answered(DBusMessage* reply) override {
        SR_DBusBacklog backlog;
        backlog.gone = dbus_message_is_error(reply, DBUS_ERROR_NAME_HAS_NO_OWNER) != 0;
        SR_DBusDictionary entries(reply);
        const char* key = nullptr;
        DBusMessageIter value;
        while (entries.Next(key, value)) {
            dbus_uint32_t number = 0;
            if (std::strcmp(key, "OutgoingBytes") == 0 &&
                SR_DBusDictionary::Read(value, DBUS_TYPE_UINT32, number)) {
                backlog.known = true;
                backlog.bytes = number;
            }
        }
        answer(backlog);
    }

private:
    Answer answer;
};

bool SR_DBusBacklog::Ask(SR_DBusConnection& connection, const std::string& busName,
                         const Slot<void, const SR_DBusBacklog&>& answer) {
    return SR_DBusQuestion::Ask(
        connection,
        SR_DBusQuestion::Call("org.freedesktop.DBus.Debug.Stats", "GetConnectionStats", busName),
        std::make_unique<Impl>(answer));
}

}  // namespace sentrel
