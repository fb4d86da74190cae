// SPDX-License-Identifier: Apache-2.0
// The main loop of bus connections: runs libdbus's watches and timeouts, and keeps the queue of
// connections that hold messages to dispatch.
//
// Ownership: connections are bound to a dispatcher by reference and stand in its queue as plain
// pointers. The dispatcher must outlive every connection bound to it, and a connection must not end
// while it stands in a queue that is still going to be drained.
// Threads: AddToQueue() may be called on any thread; the loop is run by one thread.
#ifndef SENTREL_SR_DBUSDISPATCHER_H
#define SENTREL_SR_DBUSDISPATCHER_H

#include <list>

#include "SR_DBusConnection.h"
#include "SR_Export.h"
#include "SR_MainLoop.h"

namespace sentrel {

class SR_EXPORT SR_DBusDispatcher : public SR_MainLoop {
public:
    class SR_HIDDEN Impl;

    SR_DBusDispatcher();
    // Discards what is queued and deletes the watches and timeouts that are still registered. Close
    // the connections first: libdbus would keep pointers to what is deleted.
    ~SR_DBusDispatcher() override;

    // Appends to the queue; duplicates are allowed.
    void AddToQueue(SR_DBusConnection::Impl* connection);

    // Called by the loop through the callback of an event whose data is its adapter.
    void WatchReady(SR_WatchEvent& event);
    void TimeoutExpired(SR_TimeoutEvent& event);

    // Takes turns until Leave() has been called: drain the queue, then one iteration of the loop.
    // At least one whole turn is run.
    void Enter();
    // Lets Enter() return after the current turn. Does not wake it: that may take the loop's wait
    // of up to 10 s when nothing happens.
    void Leave();

    // Dispatches every queued connection until none has messages left and the queue is empty.
    void DispatchPending();
    // Dispatches the listed connections until none has messages left, removing each that is done.
    void DispatchPending(std::list<SR_DBusConnection::Impl*>& connections);

private:
    bool running;
    SR_DBusMutex queueMutex;
    SR_DBusMutex dispatchMutex;
    std::list<SR_DBusConnection::Impl*> pending SR_GUARDED_BY(queueMutex);
};

}  // namespace sentrel

#endif
