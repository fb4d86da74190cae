// SPDX-License-Identifier: Apache-2.0
// How much of what was sent to one connection the bus still holds, because it was not read: for a
// server that must not let one silent peer use up what the bus keeps for it.
//
// dbus-daemon tells where it was built with its statistics, and on a system bus only root is told.
// A value object: copies are independent. Threads: Ask() on the one that runs the dispatcher's
// loop.
#ifndef SENTREL_SR_DBUSBACKLOG_H
#define SENTREL_SR_DBUSBACKLOG_H

#include <cstddef>
#include <string>

#include "SR_Callback.h"
#include "SR_Export.h"

namespace sentrel {

class SR_DBusConnection;

class SR_EXPORT SR_DBusBacklog {
public:
    // Asks the bus and returns at once; the dispatcher's loop calls `answer` later, once. When the
    // bus or the connection goes away first, `answer` is never called; it is released with the
    // connection. What it throws is dropped. False, and never a call, when out of memory or not
    // connected; std::bad_alloc likewise. `busName` must be valid UTF-8.
    static bool Ask(SR_DBusConnection& connection, const std::string& busName,
                    const Slot<void, const SR_DBusBacklog&>& answer);

    // Whether nobody has the name any more.
    bool IsGone() const { return gone; }
    // Whether the bus tells; false too for a name that is gone.
    bool IsKnown() const { return known; }
    // In bytes; 0 unless it is known.
    std::size_t GetBytes() const { return bytes; }

private:
    class SR_HIDDEN Impl;

    SR_HIDDEN SR_DBusBacklog() : gone(false), known(false), bytes(0) {}

    bool gone;
    bool known;
    std::size_t bytes;
};

}  // namespace sentrel

#endif
