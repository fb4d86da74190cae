// SPDX-License-Identifier: Apache-2.0
#include "SR_DBusInterface.h"

#include "SR_LogImpl.h"

namespace sentrel {

SR_DBusI::SR_DBusI(const std::string& name) : interfaceName(name) {}

SR_DBusI::~SR_DBusI() {}

SR_DBusBaseAdaptor::SR_DBusBaseAdaptor() {}

SR_DBusBaseAdaptor::~SR_DBusBaseAdaptor() {}

SR_DBusIAdaptor::SR_DBusIAdaptor(const std::string& name) : SR_DBusI(name) {
    SR_LOG(DBG, "Adding a new DBusIAdaptor: " << name);
    interfaces[name] = this;
}

SR_DBusIAdaptor::~SR_DBusIAdaptor() {}

const char* SR_DBusIAdaptor::Introspect() const {
    return nullptr;
}

SR_DBusMessage SR_DBusIAdaptor::Dispatch(const SR_DBusCallMessage& call) {
    // Deliberately without a test for a missing member (pinned by InterfaceTest,
    // "ACallWithoutAMemberThrowsLogicError").
    const std::string member(call.GetMember());
    const auto method = methods.find(member);
    if (method == methods.end()) {
        return SR_DBusErrorMessage(call, "org.freedesktop.DBus.Error.UnknownMethod", member);
    }
    return method->second(call);
}

void SR_DBusIAdaptor::AddMethod(const std::string& member,
                                const Slot<SR_DBusMessage, const SR_DBusCallMessage&>& handler) {
    methods.insert_or_assign(member, handler);
}

SR_DBusBaseProxy::SR_DBusBaseProxy() {}

SR_DBusBaseProxy::~SR_DBusBaseProxy() {}

SR_DBusIProxy::SR_DBusIProxy(const std::string& name) : SR_DBusI(name) {
    SR_LOG(DBG, "Adding a new DBusIProxy " << name);
    interfaces[name] = this;
}

SR_DBusIProxy::~SR_DBusIProxy() {}

SR_DBusMessage SR_DBusIProxy::Invoke(const SR_DBusCallMessage& call) {
    SR_DBusCallMessage& caller = const_cast<SR_DBusCallMessage&>(call);
    if (caller.GetInterface() == nullptr) {
        (void)caller.SetInterface(GetName());
    }
    return InvokeImpl(caller);
}

}  // namespace sentrel
