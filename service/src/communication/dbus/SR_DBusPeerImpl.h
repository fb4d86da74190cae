// SPDX-License-Identifier: Apache-2.0
// Inside the library: the answers of org.freedesktop.DBus.Peer, which concern the process and hold
// at every path. libdbus gives them by itself unless an SR_DBusFilter wants to see the calls first.
#ifndef SENTREL_SR_DBUSPEERIMPL_H
#define SENTREL_SR_DBUSPEERIMPL_H

#include "SR_DBusMessage.h"

namespace sentrel {

class SR_HIDDEN SR_DBusPeer {
public:
    // Whether it is a method call of that interface.
    static bool IsFor(const SR_DBusCallMessage& message);
    // Throws SR_DBusException when the machine has no id.
    static SR_DBusMessage Answer(const SR_DBusCallMessage& call);
};

}  // namespace sentrel

#endif
