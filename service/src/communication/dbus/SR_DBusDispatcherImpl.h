// SPDX-License-Identifier: Apache-2.0
// Inside the library: what a connection hands to libdbus for its watches and timeouts. The user
// data is always the SR_DBusDispatcher. These run in libdbus's frames: an allocation failure passes
// through them as std::bad_alloc, where the platform can unwind them; else it ends the process.
#ifndef SENTREL_SR_DBUSDISPATCHERIMPL_H
#define SENTREL_SR_DBUSDISPATCHERIMPL_H

#include <dbus/dbus.h>

#include "SR_DBusDispatcher.h"

namespace sentrel {

class SR_HIDDEN SR_DBusDispatcher::Impl {
public:
    static dbus_bool_t AddWatch(DBusWatch* watch, void* data);
    static void RemoveWatch(DBusWatch* watch, void* data);
    static void ToggleWatch(DBusWatch* watch, void* data);
    static dbus_bool_t AddTimeout(DBusTimeout* timeout, void* data);
    static void RemoveTimeout(DBusTimeout* timeout, void* data);
    static void ToggleTimeout(DBusTimeout* timeout, void* data);
};

}  // namespace sentrel

#endif
