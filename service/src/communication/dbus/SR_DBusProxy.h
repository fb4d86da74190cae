// SPDX-License-Identifier: Apache-2.0
// The object half of a remote object: where it is, and how calls get there.
//
// A client class derives from its SR_DBusIProxy interfaces first and from SR_DBusProxy last:
// this constructor asks the bus for the signals of every interface that is in the table by then.
// Ownership: holds a copy of the connection handle, which keeps the connection open.
// Threads: used by one thread at a time; the loop's, while one runs the dispatcher's loop.
#ifndef SENTREL_SR_DBUSPROXY_H
#define SENTREL_SR_DBUSPROXY_H

#include <string>

#include "SR_DBusConnection.h"
#include "SR_DBusInterface.h"
#include "SR_Export.h"

namespace sentrel {

// The address of a remote object.
struct SR_EXPORT SR_DBusData {
    // Takes a handle of its own on the connection.
    SR_DBusData(const SR_DBusConnection& connection, const std::string& path,
                const std::string& service);
    ~SR_DBusData();

    SR_DBusConnection connection;  // the way there
    std::string path;              // object path
    std::string service;           // bus name
};

class SR_EXPORT SR_DBusProxy : public virtual SR_DBusBaseProxy {
public:
    // Adds one match rule for each interface; blocks. Throws SR_DBusException when the bus refuses
    // one; those before it then stay until the connection ends.
    SR_DBusProxy(SR_DBusConnection& connection, const std::string& path,
                 const std::string& service);
    // Removes the rules; failures are ignored. Blocks.
    ~SR_DBusProxy() override;

    // Blocks at most libdbus's default reply timeout. Throws SR_DBusException.
    SR_DBusMessage InvokeImpl(SR_DBusCallMessage& call) override;

private:
    SR_DBusData data;
    int timeout;  // milliseconds; -1 is libdbus's default
};

}  // namespace sentrel

#endif
