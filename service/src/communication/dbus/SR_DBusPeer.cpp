// SPDX-License-Identifier: Apache-2.0
#include <dbus/dbus.h>

#include <cstring>
#include <memory>
#include <string>

#include "SR_DBusAdaptor.h"
#include "SR_DBusError.h"
#include "SR_DBusPeerImpl.h"

namespace sentrel {

bool SR_DBusPeer::IsFor(const SR_DBusCallMessage& message) {
    const char* const interfaceName = message.GetInterface();
    return message.GetType() == DBUS_MESSAGE_TYPE_METHOD_CALL && interfaceName != nullptr &&
           std::strcmp(interfaceName, DBUS_INTERFACE_PEER) == 0;
}

SR_DBusMessage SR_DBusPeer::Answer(const SR_DBusCallMessage& call) {
    const std::string member(call.GetMember() != nullptr ? call.GetMember() : "");
    SR_DBusReturnMessage reply(call);
    if (member == "Ping") {
        return reply;
    }
    if (member != "GetMachineId") {
        return SR_DBusErrorMessage(call, "org.freedesktop.DBus.Error.UnknownMethod", member);
    }
    SR_DBusError error;
    const std::unique_ptr<char, void (*)(void*)> id(dbus_try_get_local_machine_id(error.Get()),
                                                    dbus_free);
    if (id == nullptr) {
        throw SR_DBusException(error);
    }
    (void)reply.GetWriter().AppendString(id.get());
    return reply;
}

}  // namespace sentrel
