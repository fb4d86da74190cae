// SPDX-License-Identifier: Apache-2.0
// A libdbus watch as an event of the loop. Made and destroyed at libdbus's word, through the
// dispatcher; neither the watch nor the dispatcher is owned, and both must outlive the adapter.
#ifndef SENTREL_SR_DBUSWATCH_H
#define SENTREL_SR_DBUSWATCH_H

#include <dbus/dbus.h>

#include "SR_Export.h"
#include "SR_MainLoop.h"

namespace sentrel {

class SR_DBusDispatcher;

class SR_EXPORT SR_DBusWatch : public SR_WatchEvent {
public:
    // libdbus's watch.
    typedef DBusWatch Internal;

    // Registers with the dispatcher and makes itself the user data of `watch`. Descriptor, mask
    // and state are read from `watch` here, once.
    SR_DBusWatch(Internal* watch, SR_DBusDispatcher* dispatcher);
    ~SR_DBusWatch() override;

    // Lets libdbus read or write; `conditions` are libdbus's watch flags. False when libdbus was
    // out of memory and wants to be called again.
    bool Handle(int conditions);
    // Takes over whether libdbus has the watch enabled.
    void Toggle();

private:
    Internal* watch;
};

}  // namespace sentrel

#endif
