// SPDX-License-Identifier: Apache-2.0
#include <poll.h>

#include <algorithm>
#include <boost/make_shared.hpp>
#include <new>

#include "SR_DBusJoinedWatchesImpl.h"

namespace sentrel {

namespace {

// What a poll result means to a watch with these flags: trouble concerns every watch, readiness the
// one that asked for it.
unsigned Conditions(int result, unsigned wanted) {
    unsigned conditions = 0;
    if ((result & POLLIN) != 0) {
        conditions |= wanted & DBUS_WATCH_READABLE;
    }
    if ((result & POLLOUT) != 0) {
        conditions |= wanted & DBUS_WATCH_WRITABLE;
    }
    if ((result & POLLHUP) != 0) {
        conditions |= DBUS_WATCH_HANGUP;
    }
    if ((result & POLLERR) != 0) {
        conditions |= DBUS_WATCH_ERROR;
    }
    return conditions;
}

}  // namespace

class SR_HIDDEN SR_DBusJoinedWatches::Event : public SR_WatchEvent {
public:
    Event(int fd, SR_DBusDispatcher& dispatcher)
        : SR_WatchEvent(fd, 0, &dispatcher), watches(boost::make_shared<Watches>()) {
        enabled = false;
        callback = boost::make_shared<Callback<Event, void, SR_WatchEvent&> >(this, &Event::Ready);
    }

    bool Has(const DBusWatch* watch) const { return IsAmong(*watches, watch); }
    bool IsEmpty() const { return watches->empty(); }

    void Add(DBusWatch* watch) {
        watches->push_back(watch);
        Renew();
    }
    void Remove(const DBusWatch* watch) {
        watches->erase(std::find(watches->begin(), watches->end(), watch));
        Renew();
    }
    // Asks the loop for what the enabled ones want.
    void Renew() {
        flags = POLLERR | POLLHUP;
        enabled = false;
        for (DBusWatch* watch : *watches) {
            if (dbus_watch_get_enabled(watch) != 0) {
                const unsigned wanted = dbus_watch_get_flags(watch);
                flags |= (wanted & DBUS_WATCH_READABLE) != 0 ? POLLIN : 0;
                flags |= (wanted & DBUS_WATCH_WRITABLE) != 0 ? POLLOUT : 0;
                enabled = true;
            }
        }
    }

private:
    typedef std::vector<DBusWatch*> Watches;

    static bool IsAmong(const Watches& all, const DBusWatch* watch) {
        return std::find(all.begin(), all.end(), watch) != all.end();
    }

    // Handling one may disable or remove others, and this event with the last of them: from there
    // on nothing but what is kept here is touched.
    void Ready(SR_WatchEvent& event) {
        const boost::shared_ptr<Watches> present = watches;
        const Watches before = *present;
        const int result = event.State();
        for (DBusWatch* watch : before) {
            if (IsAmong(*present, watch) && dbus_watch_get_enabled(watch) != 0) {
                const unsigned conditions = Conditions(result, dbus_watch_get_flags(watch));
                if (conditions != 0) {
                    (void)dbus_watch_handle(watch, conditions);
                }
            }
        }
    }

    boost::shared_ptr<Watches> watches;
};

void SR_DBusJoinedWatches::Install(DBusConnection* connection, SR_DBusDispatcher& dispatcher) {
    auto* const joined = new SR_DBusJoinedWatches(dispatcher);
    // libdbus hands every watch to the new functions before it takes it from the old ones, and
    // leaves the old ones in place when that fails. Nothing of ours stands in the watches' user
    // data, so that the old ones find theirs.
    if (dbus_connection_set_watch_functions(connection, AddWatch, RemoveWatch, ToggleWatch, joined,
                                            Delete) == 0) {
        delete joined;
        throw std::bad_alloc();
    }
}

SR_DBusJoinedWatches::Event* SR_DBusJoinedWatches::Find(const DBusWatch* watch) const {
    const auto found = std::find_if(events.begin(), events.end(),
                                    [watch](const Event* event) { return event->Has(watch); });
    return found == events.end() ? nullptr : *found;
}

void SR_DBusJoinedWatches::Add(DBusWatch* watch) {
    const int fd = dbus_watch_get_unix_fd(watch);
    for (Event* event : events) {
        if (event->GetDescriptor() == fd) {
            return event->Add(watch);
        }
    }
    events.reserve(events.size() + 1);
    auto* const event = new Event(fd, dispatcher);
    events.push_back(event);  // from here on the registry's, and found by RemoveWatch
    try {
        event->Add(watch);
    } catch (...) {
        events.pop_back();
        delete event;
        throw;
    }
}

dbus_bool_t SR_DBusJoinedWatches::AddWatch(DBusWatch* watch, void* data) noexcept {
    try {
        static_cast<SR_DBusJoinedWatches*>(data)->Add(watch);
        return TRUE;
    } catch (const std::bad_alloc&) {
        return FALSE;  // libdbus gives up what it was doing
    }
}

void SR_DBusJoinedWatches::RemoveWatch(DBusWatch* watch, void* data) noexcept {
    std::vector<Event*>& events = static_cast<SR_DBusJoinedWatches*>(data)->events;
    Event* const event = static_cast<SR_DBusJoinedWatches*>(data)->Find(watch);
    if (event == nullptr) {
        return;
    }
    event->Remove(watch);
    if (event->IsEmpty()) {
        events.erase(std::find(events.begin(), events.end(), event));
        delete event;
    }
}

void SR_DBusJoinedWatches::ToggleWatch(DBusWatch* watch, void* data) noexcept {
    if (Event* const event = static_cast<SR_DBusJoinedWatches*>(data)->Find(watch)) {
        event->Renew();
    }
}

void SR_DBusJoinedWatches::Delete(void* data) noexcept {
    delete static_cast<SR_DBusJoinedWatches*>(data);
}

}  // namespace sentrel
