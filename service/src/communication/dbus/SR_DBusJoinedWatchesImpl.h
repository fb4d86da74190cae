// SPDX-License-Identifier: Apache-2.0
// Inside the library: how a connection that serves is watched.
//
// libdbus watches its one socket twice, for reading and for writing. The loop hands a result to the
// first enabled watch on a descriptor, so while libdbus has something to write, what is there to
// read goes to the watch for writing, which has no use for it: a peer that takes no answers would
// make the server deaf, and the loop turn without end. A client need not wait in the loop; a server
// does. So for a server the two are one event of the loop that asks for what both want and
// hands each what it asked for. That a watch is toggled leaves no line in the log here.
//
// Ownership: libdbus owns the object and deletes it with the connection, or when another one is
// installed there. The events are the registry's, as the dispatcher's own are.
// Threads: the one that runs the dispatcher's loop.
#ifndef SENTREL_SR_DBUSJOINEDWATCHESIMPL_H
#define SENTREL_SR_DBUSJOINEDWATCHESIMPL_H

#include <dbus/dbus.h>

#include <vector>

#include "SR_DBusDispatcher.h"

namespace sentrel {

class SR_HIDDEN SR_DBusJoinedWatches {
public:
    // Takes the place of the watch functions that the connection has, of an earlier object of this
    // class too. Throws std::bad_alloc; the connection is then watched as before.
    static void Install(DBusConnection* connection, SR_DBusDispatcher& dispatcher);

    SR_DBusJoinedWatches(const SR_DBusJoinedWatches&) = delete;
    SR_DBusJoinedWatches& operator=(const SR_DBusJoinedWatches&) = delete;

private:
    class Event;

    explicit SR_DBusJoinedWatches(SR_DBusDispatcher& servingDispatcher)
        : dispatcher(servingDispatcher) {}

    Event* Find(const DBusWatch* watch) const;
    void Add(DBusWatch* watch);

    // Called by libdbus; `data` is the object.
    static dbus_bool_t AddWatch(DBusWatch* watch, void* data) noexcept;
    static void RemoveWatch(DBusWatch* watch, void* data) noexcept;
    static void ToggleWatch(DBusWatch* watch, void* data) noexcept;
    static void Delete(void* data) noexcept;

    SR_DBusDispatcher& dispatcher;  // not owned
    std::vector<Event*> events;     // one for each descriptor
};

}  // namespace sentrel

#endif
