// SPDX-License-Identifier: Apache-2.0
#include "SR_DBusTimeout.h"

#include "SR_DBusDispatcher.h"
#include "SR_LogImpl.h"

namespace sentrel {

SR_DBusTimeout::SR_DBusTimeout(Internal* served, SR_DBusDispatcher* dispatcher)
    : SR_TimeoutEvent(dbus_timeout_get_interval(served), true, dispatcher), timeout(served) {
    dbus_timeout_set_data(timeout, this, nullptr);
    enabled = dbus_timeout_get_enabled(timeout) != 0;
}

SR_DBusTimeout::~SR_DBusTimeout() {}

bool SR_DBusTimeout::Handle() {
    return dbus_timeout_handle(timeout) != 0;
}

void SR_DBusTimeout::Toggle() {
    enabled = dbus_timeout_get_enabled(timeout) != 0;
    SR_LOG(DBG, "Timeout " << this << " toggled (" << (enabled ? "on" : "off") << ")");
}

}  // namespace sentrel
