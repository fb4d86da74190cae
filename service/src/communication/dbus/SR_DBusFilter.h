// SPDX-License-Identifier: Apache-2.0
// A first look at every message that arrives on a connection, before anything is done for it:
// before an object of this process is found for it, and before libdbus answers for one. For a
// server that counts what its callers send.
//
// Replies that somebody waits for do not come by here. Those to SR_DBusCredentials::Ask() and its
// like do, when they were asked after the filter was made: a filter leaves alone what the bus
// itself has sent.
// From the first filter on, calls of org.freedesktop.DBus.Peer come by here too and are answered by
// the object at their path; libdbus no longer answers them by itself.
// Ownership: holds a copy of the connection handle, which keeps the connection open.
// Threads: the one that runs the dispatcher's loop.
#ifndef SENTREL_SR_DBUSFILTER_H
#define SENTREL_SR_DBUSFILTER_H

#include <boost/shared_ptr.hpp>

#include "SR_Callback.h"
#include "SR_DBusConnection.h"
#include "SR_DBusMessage.h"
#include "SR_Export.h"

namespace sentrel {

class SR_EXPORT SR_DBusFilter {
public:
    // `take` is called with each message, as a call whatever its type is: see GetType(). True:
    // nothing more is done with it, and no answer is sent; what it throws counts as true. Throws
    // std::bad_alloc.
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
