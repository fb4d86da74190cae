// SPDX-License-Identifier: Apache-2.0
#include "SR_DBusFilter.h"

#include <new>

#include "SR_DBusConnectionImpl.h"
#include "SR_DBusJoinedWatchesImpl.h"
#include "SR_DBusMessageImpl.h"
#include "SR_DBusPeerImpl.h"

namespace sentrel {

class SR_HIDDEN SR_DBusFilter::Impl {
public:
    // Runs in libdbus's frames: nothing may be thrown through it.
    static DBusHandlerResult MessageReceived(DBusConnection* connection, DBusMessage* message,
                                             void* data) noexcept {
        try {
            const SR_DBusCallMessage seen(new SR_DBusMessage::Impl(message), true /* addRef */);
            if (static_cast<SR_DBusFilter*>(data)->taker(seen)) {
                return DBUS_HANDLER_RESULT_HANDLED;
            }
            if (!SR_DBusPeer::IsFor(seen)) {
                return DBUS_HANDLER_RESULT_NOT_YET_HANDLED;
            }
            AnswerPeer(connection, seen);
        } catch (...) {
            // As the header says: taken, except for what somebody in this process has asked for.
            if (dbus_message_has_sender(message, DBUS_SERVICE_DBUS) != 0) {
                return DBUS_HANDLER_RESULT_NOT_YET_HANDLED;
            }
        }
        return DBUS_HANDLER_RESULT_HANDLED;
    }

private:
    static void AnswerPeer(DBusConnection* connection, const SR_DBusCallMessage& call) {
        if (dbus_message_get_no_reply(SR_DBusMessage::Impl::Of(call)) == 0) {
            const SR_DBusMessage reply = SR_DBusPeer::Answer(call);
            (void)dbus_connection_send(connection, SR_DBusMessage::Impl::Of(reply), nullptr);
        }
    }
};

SR_DBusFilter::SR_DBusFilter(SR_DBusConnection& connection,
                             const Slot<bool, const SR_DBusCallMessage&>& take)
    : filteredConnection(connection), taker(take) {
    DBusConnection* const handle = SR_DBusConnection::Impl::Of(filteredConnection);
    SR_DBusJoinedWatches::Install(handle,
                                  SR_DBusConnection::Impl::DispatcherOf(filteredConnection));
    if (dbus_connection_add_filter(handle, Impl::MessageReceived, this, nullptr) == 0) {
        throw std::bad_alloc();
    }
    dbus_connection_set_route_peer_messages(handle, TRUE);
}

SR_DBusFilter::~SR_DBusFilter() {
    DBusConnection* const handle = SR_DBusConnection::Impl::Of(filteredConnection);
    dbus_connection_remove_filter(handle, Impl::MessageReceived, this);
    dbus_connection_set_route_peer_messages(handle, FALSE);
}

}  // namespace sentrel
