// SPDX-License-Identifier: Apache-2.0
// The main loop of bus connections: runs libdbus's watches and timeouts, and keeps the queue of
// connections that hold messages to dispatch.
//
// Ownership: connections are bound to a dispatcher by reference and stand in its queue as plain
// pointers. The dispatcher must outlive every connection bound to it, and must not drain its queue
// after one of them has ended: closing a connection queues it once more. So a short-lived
// connection gets a dispatcher of its own.
// Threads: AddToQueue() may be called on any thread; one thread runs the loop and drains the queue.
// While it does, connections, proxies and served objects of this dispatcher are used on that thread
// only, their destruction included: libdbus takes its lock and the loop's in the other order.
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

    // Dispatches every queued connection until none has messages left and the queue is empty. Not
    // from inside a handler that is being dispatched: that would wait for itself.
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
