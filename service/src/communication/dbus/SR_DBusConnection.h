// SPDX-License-Identifier: Apache-2.0
// A handle on one private connection to a message bus.
//
// Ownership: copies share the connection; the last handle to go releases the names requested
// through it and closes it. The dispatcher is not owned and must outlive the connection.
// Threads: handles may be copied and destroyed on any thread, as long as no other thread runs the
// dispatcher's loop; else see SR_DBusDispatcher.h. RequestName() must not run while the last handle
// is destroyed.
// Every blocking call waits for the bus at most libdbus's default reply timeout of 25 s, unless
// said otherwise. Names must be well-formed and texts valid UTF-8; libdbus checks them and by
// default ends the process.
#ifndef SENTREL_SR_DBUSCONNECTION_H
#define SENTREL_SR_DBUSCONNECTION_H

#include <dbus/dbus.h>

#include <boost/shared_ptr.hpp>
#include <string>

#include "SR_DBusMessage.h"
#include "SR_Export.h"

namespace sentrel {

class SR_DBusDispatcher;

class SR_EXPORT SR_DBusConnection {
public:
    class SR_HIDDEN Impl;

    // Opens a new private connection to the system bus and binds it to `dispatcher`. Blocks.
    // Throws SR_DBusException when the bus cannot be reached.
    static SR_DBusConnection SystemBus(SR_DBusDispatcher& dispatcher);

    // The first handle on `impl`, which is bound to `dispatcher` here.
    SR_DBusConnection(const boost::shared_ptr<Impl>& impl, SR_DBusDispatcher& dispatcher);
    // One live handle, one reference on libdbus's connection.
    SR_DBusConnection(const SR_DBusConnection& other);
    SR_DBusConnection& operator=(const SR_DBusConnection&) = delete;
    // The last handle blocks for the bus's answer to each name it releases.
    virtual ~SR_DBusConnection();

    // Queues the message for sending; neither blocks nor flushes. `serial` may be null; else it
    // receives the message's serial. False only when out of memory.
    bool Send(const SR_DBusMessage& message, dbus_uint32_t* serial);

    // Sends a method call and blocks for its reply, at most `timeoutMilliseconds`; -1 is libdbus's
    // default. Throws SR_DBusException for a failure, a late reply and a reply that is an error.
    SR_DBusMessage SendReplyAndBlock(SR_DBusMessage& message, int timeoutMilliseconds);

    // The name that the bus gave to this connection when it opened, ":1.42" or so. Owned by
    // libdbus; may be null.
    const char* GetUniqueName() const;

    // Whether anybody owns the name. Blocks; throws SR_DBusException.
    bool HasName(const std::string& name);

    // Asks for a well-known name and for the messages addressed to it; `flags` are libdbus's name
    // flags. The bus's answer is not reported: ask HasName() or the owner's name where it matters.
    // Blocks; throws SR_DBusException.
    void RequestName(const std::string& name, int flags);

    // Adds and removes a match rule on the bus, passed as it is. Both block. AddMatch throws
    // SR_DBusException; RemoveMatch only with `throwOnError`.
    void AddMatch(const std::string& rule);
    void RemoveMatch(const std::string& rule, bool throwOnError);

private:
    boost::shared_ptr<Impl> impl;
    // Milliseconds; overrides the timeout given to SendReplyAndBlock unless -1.
    int timeout;
};

}  // namespace sentrel

#endif
