// SPDX-License-Identifier: Apache-2.0
#include "SR_DBusFilter.h"

#include <new>

#include "SR_DBusConnectionImpl.h"
#include "SR_DBusMessageImpl.h"

namespace sentrel {

class SR_HIDDEN SR_DBusFilter::Impl {
public:
    // Runs in libdbus's frames: nothing may be thrown through it.
    static DBusHandlerResult MessageReceived(DBusConnection* /*connection*/, DBusMessage* message,
                                             void* data) noexcept {
        try {
            const SR_DBusCallMessage seen(new SR_DBusMessage::Impl(message), true /* addRef */);
            return static_cast<SR_DBusFilter*>(data)->taker(seen)
                       ? DBUS_HANDLER_RESULT_HANDLED
                       : DBUS_HANDLER_RESULT_NOT_YET_HANDLED;
        } catch (...) {
            return DBUS_HANDLER_RESULT_HANDLED;  // as the header says
        }
    }
};

SR_DBusFilter::SR_DBusFilter(SR_DBusConnection& connection,
                             const Slot<bool, const SR_DBusCallMessage&>& take)
    : filteredConnection(connection), taker(take) {
    DBusConnection* const handle = SR_DBusConnection::Impl::Of(filteredConnection);
    if (dbus_connection_add_filter(handle, Impl::MessageReceived, this, nullptr) == 0) {
        throw std::bad_alloc();
    }
    dbus_connection_set_route_peer_messages(handle, TRUE);
}

SR_DBusFilter::~SR_DBusFilter() {
    dbus_connection_remove_filter(SR_DBusConnection::Impl::Of(filteredConnection),
                                  Impl::MessageReceived, this);
}

}  // namespace sentrel
