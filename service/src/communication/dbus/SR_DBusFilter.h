// SPDX-License-Identifier: Apache-2.0
// A first look at every message that arrives on a connection, before anything is done for it: for a
// server that counts what its callers send. One filter for a connection.
//
// Replies that somebody waits for do not come by here; those to SR_DBusCredentials::Ask() and
// SR_DBusBacklog::Ask() do. So leave to others what has no sender and what is from
// "org.freedesktop.DBus", the bus itself: whoever takes those, takes such answers away.
// Calls of org.freedesktop.DBus.Peer come by here as well; those that are not taken are answered,
// at every path. Both directions of the socket are one event of the loop from then on, as
// SR_DBusAdaptor.h tells.
// Ownership: holds a copy of the connection handle, which keeps the connection open, and shares
// `take`. Destroy it before the connection's dispatcher.
// Threads: the one that runs the dispatcher's loop.
#ifndef SENTREL_SR_DBUSFILTER_H
#define SENTREL_SR_DBUSFILTER_H

#include "SR_Callback.h"
#include "SR_DBusConnection.h"
#include "SR_DBusMessage.h"
#include "SR_Export.h"

namespace sentrel {

class SR_EXPORT SR_DBusFilter {
public:
    // `take` is called with each message, as a call whatever its type is: see GetType(). True:
    // nothing more is done with it, and no answer is sent. What it throws is dropped and counts as
    // true, but for a message of the bus. Throws std::bad_alloc.
    SR_DBusFilter(SR_DBusConnection& connection, const Slot<bool, const SR_DBusCallMessage&>& take);
    // Not from inside `take`.
    ~SR_DBusFilter();
    SR_DBusFilter(const SR_DBusFilter&) = delete;
    SR_DBusFilter& operator=(const SR_DBusFilter&) = delete;

private:
    class SR_HIDDEN Impl;

    SR_DBusConnection filteredConnection;
    Slot<bool, const SR_DBusCallMessage&> taker;
};

}  // namespace sentrel

#endif
