// SPDX-License-Identifier: Apache-2.0
// A libdbus timeout as a repeating timer of the loop. Made and destroyed at libdbus's word, through
// the dispatcher; neither the timeout nor the dispatcher is owned, and both must outlive it.
#ifndef SENTREL_SR_DBUSTIMEOUT_H
#define SENTREL_SR_DBUSTIMEOUT_H

#include <dbus/dbus.h>

#include "SR_Export.h"
#include "SR_MainLoop.h"

namespace sentrel {

class SR_DBusDispatcher;

class SR_EXPORT SR_DBusTimeout : public SR_TimeoutEvent {
public:
    // libdbus's timeout.
    typedef DBusTimeout Internal;

    // Registers with the dispatcher, armed, and makes itself the user data of `timeout`.
    SR_DBusTimeout(Internal* timeout, SR_DBusDispatcher* dispatcher);
    ~SR_DBusTimeout() override;

    // Lets libdbus act on the expiry. False when libdbus was out of memory and wants to be called
    // again.
    bool Handle();
    // Takes over whether libdbus has the timeout enabled. The timer is not armed anew: one that
    // comes back after its expiry fires at once.
    void Toggle();

private:
    Internal* timeout;
};

}  // namespace sentrel

#endif
