// SPDX-License-Identifier: Apache-2.0
#include "SR_DBusWatch.h"

#include <poll.h>

#include "SR_DBusDispatcher.h"
#include "SR_LogImpl.h"

namespace sentrel {

namespace {

int PollMask(unsigned watchFlags) {
    int mask = POLLERR | POLLHUP;
    if ((watchFlags & DBUS_WATCH_READABLE) != 0) {
        mask |= POLLIN;
    }
    if ((watchFlags & DBUS_WATCH_WRITABLE) != 0) {
        mask |= POLLOUT;
    }
    return mask;
}

}  // namespace

SR_DBusWatch::SR_DBusWatch(Internal* watched, SR_DBusDispatcher* dispatcher)
    : SR_WatchEvent(0, 0, dispatcher), watch(watched) {
    dbus_watch_set_data(watch, this, nullptr);
    descriptor = dbus_watch_get_unix_fd(watch);
    flags = PollMask(dbus_watch_get_flags(watch));
    enabled = dbus_watch_get_enabled(watch) != 0;
}

SR_DBusWatch::~SR_DBusWatch() {}

bool SR_DBusWatch::Handle(int conditions) {
    return dbus_watch_handle(watch, static_cast<unsigned>(conditions)) != 0;
}

void SR_DBusWatch::Toggle() {
    enabled = dbus_watch_get_enabled(watch) != 0;
    SR_LOG(DBG, "Watch " << this << " toggled (" << (enabled ? "on" : "off") << ")");
}

}  // namespace sentrel
