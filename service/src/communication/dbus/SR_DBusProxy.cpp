// SPDX-License-Identifier: Apache-2.0
#include "SR_DBusProxy.h"

namespace sentrel {

namespace {

std::string SignalRule(const std::string& interfaceName, const std::string& path) {
    std::string rule;
    rule.reserve(interfaceName.size() + path.size() + 48);
    rule.append("type='signal',interface='").append(interfaceName);
    rule.append("',path='").append(path).append("'");
    return rule;
}

}  // namespace

SR_DBusData::SR_DBusData(const SR_DBusConnection& handle, const std::string& objectPath,
                         const std::string& busName)
    : connection(handle), path(objectPath), service(busName) {}

SR_DBusData::~SR_DBusData() {}

SR_DBusProxy::SR_DBusProxy(SR_DBusConnection& connection, const std::string& path,
                           const std::string& service)
    : data(connection, path, service), timeout(-1) {
    for (const auto& entry : interfaces) {
        data.connection.AddMatch(SignalRule(entry.first, data.path));
    }
}

SR_DBusProxy::~SR_DBusProxy() {
    for (const auto& entry : interfaces) {
        data.connection.RemoveMatch(SignalRule(entry.first, data.path), false /* throwOnError */);
    }
}

SR_DBusMessage SR_DBusProxy::InvokeImpl(SR_DBusCallMessage& call) {
    if (call.GetPath() == nullptr) {
        (void)call.SetPath(data.path);
    }
    if (call.GetDestination() == nullptr) {
        (void)call.SetDestination(data.service);
    }
    return data.connection.SendReplyAndBlock(call, timeout);
}

}  // namespace sentrel
