// SPDX-License-Identifier: Apache-2.0
//
// THE LINES OF THIS FILE ARE FIXED. Each log entry carries its source line, and those of this file
// are part of the interface: 35, 51, 55, 68, 79, 99, 115, 180 and 193. ConnectionTest,
// "EveryLogStatementStandsOnItsLine", pins them, and the formatter passes this file over.
//
// References on libdbus's connection: one of the Impl, and one of each live handle. The Impl's
// constructor takes both its own and the one that the first handle adopts; a copy takes one, a
// handle's destructor gives one back, the Impl's destructor gives back the last.
//
// One libdbus call, one shape: a local error, the call, throw if the error is set, go on. An
// exception takes the error's content over.

#include "SR_DBusConnection.h"

#include <boost/make_shared.hpp>

#include "SR_DBusConnectionImpl.h"
#include "SR_DBusDispatcher.h"
#include "SR_DBusDispatcherImpl.h"
#include "SR_DBusError.h"
#include "SR_DBusMessageImpl.h"
#include "SR_LogImpl.h"

namespace sentrel {

namespace {

void ThrowIfSet(const SR_DBusError& error) { if (error.IsSet()) { throw SR_DBusException(error); } }

}  // namespace

SR_DBusConnection::Impl::Impl(DBusBusType type) : connection(nullptr), dispatcher(nullptr), uniqueName(nullptr) {
    // A private connection, never the shared one: it is closed with the last handle.
    SR_LOG(DBG, "SR_DBusConnection::Impl::Impl " << type);
    SR_DBusError error;
    connection = dbus_bus_get_private(type, error.Get());
    ThrowIfSet(error);
    uniqueName = dbus_bus_get_unique_name(connection);
    dbus_connection_ref(connection);  // the first handle's
    dbus_connection_set_dispatch_status_function(connection, GetDispatchStatus_stub, this, nullptr);
    // A lost bus must never end the process that uses the library.
    dbus_connection_set_exit_on_disconnect(connection, FALSE);
}

SR_DBusConnection::Impl::~Impl() {
    // Closing makes libdbus call the dispatcher's remove functions, so the dispatcher must still
    // be there. Nothing takes this object out of the dispatcher's queue: see SR_DBusDispatcher.h.
    // A failure while logging ends the program, as everywhere in a destructor.

    SR_LOG(DBG, "Terminating connection " << connection);

    // Each request is released, duplicates and names that were never owned included.
    if (dbus_connection_get_is_connected(connection)) {
        SR_LOG(DBG, "Terminating connection is connected");

        for (std::vector<std::string>::const_iterator name = ownedNames.begin();
             name != ownedNames.end(); ++name) {
            (void)dbus_bus_release_name(connection, name->c_str(), nullptr);
        }

        dbus_connection_close(connection);
        dbus_connection_unref(connection);

    } else {

        // libdbus closed it when the bus went away; a name went with it.
        SR_LOG(DBG, "Terminating connection no connected");

        dbus_connection_unref(connection);
    }
}

bool SR_DBusConnection::Impl::Dispatch() {

    // A connection that is gone counts as done.
    if (!dbus_connection_get_is_connected(connection)) {

        SR_LOG(DBG, "Connection " << connection << " terminated ");

        return true;
    }

    // One message at most. When out of memory, libdbus reports the connection again later, through
    // the function below.
    return dbus_connection_dispatch(connection) != DBUS_DISPATCH_DATA_REMAINS;
}

void SR_DBusConnection::Impl::GetDispatchStatus_stub(Internal* connection,
                                                     DBusDispatchStatus status, void* data) {

    // Called on any thread, from the moment the connection was opened; a status that comes before
    // a handle has bound the dispatcher is dropped.
    Impl* impl = static_cast<Impl*>(data);

    if (impl == nullptr || impl->dispatcher == nullptr) {
        // Deliberate spelling (pinned by DispatchTest, "AStatusWithoutADispatcherIsLoggedOnly").

        SR_LOG(DBG, "P-dispather == 0 !!!");

        return;
    }

    // Never dispatched from here: libdbus calls this from inside its own work. The connection is
    // queued, and the dispatcher's loop comes back to it.
    if (status == DBUS_DISPATCH_DATA_REMAINS) {

        impl->dispatcher->AddToQueue(impl);

        return;
    }

    // Nothing is queued: libdbus comes back when there is memory.
    if (status == DBUS_DISPATCH_NEED_MEMORY) {
        SR_LOG(ERR, "Connection " << connection << " needs memory");
    }
}

SR_DBusConnection SR_DBusConnection::SystemBus(SR_DBusDispatcher& dispatcher) {
    return SR_DBusConnection(boost::make_shared<Impl>(DBUS_BUS_SYSTEM), dispatcher);
}

SR_DBusConnection::SR_DBusConnection(const boost::shared_ptr<Impl>& shared, SR_DBusDispatcher& dispatcher)
    : impl(shared), timeout(-1) {
    typedef SR_DBusDispatcher::Impl Bridge;
    DBusConnection* const connection = impl->connection;
    impl->dispatcher = &dispatcher;
    try {
        dispatcher.AddToQueue(impl.get());
        (void)dbus_connection_set_watch_functions(connection, Bridge::AddWatch, Bridge::RemoveWatch,
                                                  Bridge::ToggleWatch, &dispatcher, nullptr);
        (void)dbus_connection_set_timeout_functions(connection, Bridge::AddTimeout, Bridge::RemoveTimeout,
                                                    Bridge::ToggleTimeout, &dispatcher, nullptr);
    } catch (...) { dbus_connection_unref(connection); throw; }  // adopted, but there is no handle
}

SR_DBusConnection::SR_DBusConnection(const SR_DBusConnection& other) : impl(other.impl), timeout(other.timeout) {
    dbus_connection_ref(impl->connection);
}

SR_DBusConnection::~SR_DBusConnection() { dbus_connection_unref(impl->connection); }

bool SR_DBusConnection::Send(const SR_DBusMessage& message, dbus_uint32_t* serial) {
    return dbus_connection_send(impl->connection, SR_DBusMessage::Impl::Of(message), serial) != 0;
}

SR_DBusMessage SR_DBusConnection::SendReplyAndBlock(SR_DBusMessage& message, int timeoutMilliseconds) {
    SR_DBusError error;
    DBusMessage* reply = dbus_connection_send_with_reply_and_block(
        impl->connection, SR_DBusMessage::Impl::Of(message),
        timeout != -1 ? timeout : timeoutMilliseconds, error.Get());
    ThrowIfSet(error);
    try {
        return SR_DBusMessage(new SR_DBusMessage::Impl(reply), false /* addRef: ours is handed on */);
    } catch (...) { dbus_message_unref(reply); throw; }
}
const char* SR_DBusConnection::GetUniqueName() const { return impl->uniqueName; }

bool SR_DBusConnection::HasName(const std::string& name) {
    SR_DBusError error;
    const dbus_bool_t owned = dbus_bus_name_has_owner(impl->connection, name.c_str(), error.Get());
    ThrowIfSet(error);
    return owned != 0;
}

void SR_DBusConnection::RequestName(const std::string& name, int flags) {
    SR_DBusError error;
    const int answer = dbus_bus_request_name(impl->connection, name.c_str(), static_cast<unsigned>(flags), error.Get());
    if (answer == -1) { ThrowIfSet(error); }
    // Deliberate: recorded whatever the answer was, so that teardown releases every request (pinned
    // by ConnectionTest, "EveryRequestedNameIsReleasedInOrder").
    impl->ownedNames.push_back(name);
    AddMatch("destination='" + name + "'");
}

void SR_DBusConnection::AddMatch(const std::string& rule) {
    SR_DBusError error;
    dbus_bus_add_match(impl->connection, rule.c_str(), error.Get());
    ThrowIfSet(error);
    SR_LOG(DBG, "Connection (unique name: " << GetUniqueName() << ") added match rule " << rule.c_str());
}

// Deliberate: the line is written even when the removal failed quietly (pinned by MatchTest,
// "AFailedQuietRemovalStillLogsTheRule").
void SR_DBusConnection::RemoveMatch(const std::string& rule, bool throwOnError) {
    SR_DBusError error;
    dbus_bus_remove_match(impl->connection, rule.c_str(), error.Get());
    if (throwOnError) {
        ThrowIfSet(error);
    }


    SR_LOG(DBG, "Connection (unique name: " << GetUniqueName() << ") removed match rule " << rule.c_str());
}

}  // namespace sentrel
