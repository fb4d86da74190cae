// SPDX-License-Identifier: Apache-2.0
//
// The bridge between libdbus and the loop. libdbus hands over each of its watches and timeouts
// through the six functions of Impl; each becomes an event of the loop whose callback leads back
// here. An adapter is owned by the registry of the loop: libdbus's remove function deletes it, or
// else the loop's destructor.
//
// libdbus reads messages when a watch is handled, but dispatches them only when asked. A connection
// with messages left puts itself into the queue, and a turn of Enter() drains the queue first, then
// runs one iteration of the loop. One pass of the drain works on a snapshot and then takes as many
// entries from the front of the queue as the snapshot had; what was queued meanwhile stays behind.
//
// Locks: a registry lock of the loop or the dispatch lock first, then the queue lock. The queue
// lock is never held while connections are dispatched or another lock is taken, so that a
// connection may queue itself from inside its own dispatching.

#include "SR_DBusDispatcher.h"

#include <poll.h>

#include <boost/make_shared.hpp>

#include "SR_DBusConnectionImpl.h"
#include "SR_DBusDispatcherImpl.h"
#include "SR_DBusTimeout.h"
#include "SR_DBusWatch.h"
#include "SR_LogImpl.h"
#include "SR_MainLoopImpl.h"

namespace sentrel {

SR_DBusDispatcher::SR_DBusDispatcher() : running(false) {
    SR_LOG(DBG, "create new dispatcher addr: " << this);
}

SR_DBusDispatcher::~SR_DBusDispatcher() {
    SR_LOG(DBG, "destroy dispatcher addr: " << this);
}

void SR_DBusDispatcher::AddToQueue(SR_DBusConnection::Impl* connection) {
    SR_DBusLock lock(queueMutex);
    pending.push_back(connection);
}

void SR_DBusDispatcher::WatchReady(SR_WatchEvent& event) {
    const int state = event.State();
    unsigned conditions = 0;
    if ((state & POLLIN) != 0) {
        conditions |= DBUS_WATCH_READABLE;
    }
    if ((state & POLLOUT) != 0) {
        conditions |= DBUS_WATCH_WRITABLE;
    }
    if ((state & POLLHUP) != 0) {
        conditions |= DBUS_WATCH_HANGUP;
    }
    if ((state & POLLERR) != 0) {
        conditions |= DBUS_WATCH_ERROR;
    }
    (void)static_cast<SR_DBusWatch*>(event.GetData())->Handle(static_cast<int>(conditions));
}

void SR_DBusDispatcher::TimeoutExpired(SR_TimeoutEvent& event) {
    (void)static_cast<SR_DBusTimeout*>(event.GetData())->Handle();
}

void SR_DBusDispatcher::Enter() {
    running = true;
    do {
        DispatchPending();
        Dispatch();
    } while (running);
}

void SR_DBusDispatcher::Leave() {
    running = false;
}

void SR_DBusDispatcher::DispatchPending() {
    for (;;) {
        std::list<SR_DBusConnection::Impl*> snapshot;
        {
            SR_DBusLock lock(queueMutex);
            if (pending.empty()) {
                return;
            }
            snapshot = pending;
        }
        std::size_t count = snapshot.size();
        DispatchPending(snapshot);
        SR_DBusLock lock(queueMutex);
        for (; count > 0 && !pending.empty(); --count) {
            pending.pop_front();
        }
    }
}

void SR_DBusDispatcher::DispatchPending(std::list<SR_DBusConnection::Impl*>& connections) {
    SR_DBusLock lock(dispatchMutex);
    while (!connections.empty()) {
        std::list<SR_DBusConnection::Impl*>::iterator entry = connections.begin();
        while (entry != connections.end()) {
            std::list<SR_DBusConnection::Impl*>::iterator current = entry++;
            if ((*current)->Dispatch()) {
                connections.erase(current);
            }
        }
    }
}

dbus_bool_t SR_DBusDispatcher::Impl::AddWatch(DBusWatch* watch, void* data) {
    SR_DBusDispatcher* dispatcher = static_cast<SR_DBusDispatcher*>(data);
    // Held until the adapter is whole: a loop on another thread must not fire it before.
    SR_DBusLock lock(dispatcher->watchesMutex);
    SR_DBusWatch* adapter = new SR_DBusWatch(watch, dispatcher);  // owned by the loop's registry
    SR_WatchEvent* event = adapter;
    event->callback = boost::make_shared<Callback<SR_DBusDispatcher, void, SR_WatchEvent&> >(
        dispatcher, &SR_DBusDispatcher::WatchReady);
    event->SetData(adapter);
    return TRUE;
}

void SR_DBusDispatcher::Impl::RemoveWatch(DBusWatch* watch, void* /*data*/) {
    delete static_cast<SR_DBusWatch*>(dbus_watch_get_data(watch));
}

void SR_DBusDispatcher::Impl::ToggleWatch(DBusWatch* watch, void* /*data*/) {
    // Deliberately without a test for null: libdbus toggles only what it has added.
    static_cast<SR_DBusWatch*>(dbus_watch_get_data(watch))->Toggle();
}

dbus_bool_t SR_DBusDispatcher::Impl::AddTimeout(DBusTimeout* timeout, void* data) {
    SR_DBusDispatcher* dispatcher = static_cast<SR_DBusDispatcher*>(data);
    SR_DBusLock lock(dispatcher->timeoutsMutex);
    SR_DBusTimeout* adapter = new SR_DBusTimeout(timeout, dispatcher);  // owned as a watch is
    SR_TimeoutEvent* event = adapter;
    event->callback = boost::make_shared<Callback<SR_DBusDispatcher, void, SR_TimeoutEvent&> >(
        dispatcher, &SR_DBusDispatcher::TimeoutExpired);
    event->SetData(adapter);
    return TRUE;
}

void SR_DBusDispatcher::Impl::RemoveTimeout(DBusTimeout* timeout, void* /*data*/) {
    delete static_cast<SR_DBusTimeout*>(dbus_timeout_get_data(timeout));
}

void SR_DBusDispatcher::Impl::ToggleTimeout(DBusTimeout* timeout, void* /*data*/) {
    static_cast<SR_DBusTimeout*>(dbus_timeout_get_data(timeout))->Toggle();
}

}  // namespace sentrel
