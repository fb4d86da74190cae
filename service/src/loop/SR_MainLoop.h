// SPDX-License-Identifier: Apache-2.0
// A poll loop: descriptor watches and timers register themselves, Dispatch() serves them once.
//
// Ownership: an event enters its loop's registry in its constructor and leaves it in its
// destructor. The loop must outlive its events; those still registered when it is destroyed, it
// deletes, so such an event must live on the heap.
// Threads: one thread runs a loop, and serves its events. Events may be created and destroyed on
// any thread; one of a derived class that the loop could fire meanwhile, only on the loop's thread,
// for its derived part is not there yet, or no more, while it is registered. Handlers run with the
// lock of their registry held; it is recursive, so a handler may create and destroy any event of
// the loop, its own included.
#ifndef SENTREL_SR_MAINLOOP_H
#define SENTREL_SR_MAINLOOP_H

#include <pthread.h>
#include <sys/time.h>

#include <boost/shared_ptr.hpp>
#include <list>

#include "SR_Callback.h"
#include "SR_Export.h"

// Lock annotations; clang checks them, other compilers see nothing.
#if defined(__clang__)
#define SR_THREAD_ANNOTATION(x) __attribute__((x))
#else
#define SR_THREAD_ANNOTATION(x)
#endif
#define SR_GUARDED_BY(mutex) SR_THREAD_ANNOTATION(guarded_by(mutex))

namespace sentrel {

class SR_DBusDispatcher;
class SR_TimeoutEvent;
class SR_WatchEvent;

class SR_EXPORT SR_THREAD_ANNOTATION(capability("mutex")) SR_DBusMutex {
public:
    SR_DBusMutex();
    // A recursive mutex may be locked again by the thread that holds it.
    explicit SR_DBusMutex(bool recursive);
    ~SR_DBusMutex();
    SR_DBusMutex(const SR_DBusMutex&) = delete;
    SR_DBusMutex& operator=(const SR_DBusMutex&) = delete;

    // Blocks until it is free.
    void Lock() SR_THREAD_ANNOTATION(acquire_capability());
    // By the thread that holds it.
    void Unlock() SR_THREAD_ANNOTATION(release_capability());

private:
    pthread_mutex_t mutex;
};

class SR_EXPORT SR_MainLoop {
public:
    SR_MainLoop();
    // Deletes every event that is still registered.
    virtual ~SR_MainLoop();
    SR_MainLoop(const SR_MainLoop&) = delete;
    SR_MainLoop& operator=(const SR_MainLoop&) = delete;

    // One iteration: waits for the enabled watches, at most as long as the smallest interval of an
    // enabled timer and never longer than 10 s; then fires the expired timers, then the ready
    // watches. A watch created after the wait began, and a timer created after the timers began to
    // fire, is served in the next iteration. Reports nothing; an interrupted wait is an ordinary
    // return.
    void Dispatch();

private:
    friend class SR_DBusDispatcher;
    friend class SR_TimeoutEvent;
    friend class SR_WatchEvent;
    template <typename Event>
    class SR_HIDDEN Walk;
    class SR_HIDDEN DescriptorFilter;
    class SR_HIDDEN MoveTeller;
    // A watch that takes part in an iteration; it may be gone by the time it is looked at again.
    struct Entry {
        SR_WatchEvent* watch;
        bool polled;
    };

    template <typename Event>
    SR_HIDDEN static void DeleteAll(std::list<Event*>& registry, SR_DBusMutex& mutex);
    SR_HIDDEN int Wait();
    SR_HIDDEN void FireTimeouts(double now);
    SR_HIDDEN static SR_WatchEvent* FirstEnabled(Walk<SR_WatchEvent>& walk, int descriptor);
    SR_HIDDEN static void Fire(const Walk<SR_WatchEvent>& walk, SR_WatchEvent* watch, int result);

    SR_DBusMutex timeoutsMutex;
    std::list<SR_TimeoutEvent*> timeouts SR_GUARDED_BY(timeoutsMutex);
    SR_DBusMutex watchesMutex;
    std::list<SR_WatchEvent*> watches SR_GUARDED_BY(watchesMutex);
    // The walks under way, innermost first; each is told of every removal.
    Walk<SR_TimeoutEvent>* timeoutWalks SR_GUARDED_BY(timeoutsMutex);
    Walk<SR_WatchEvent>* watchWalks SR_GUARDED_BY(watchesMutex);
};

// A descriptor to watch. The callback must be set before the loop can reach the enabled event.
class SR_EXPORT SR_WatchEvent {
public:
    // Registers with `loop`. `flags` is a poll(2) event mask. The descriptor is not owned and must
    // stay open while the event is enabled.
    SR_WatchEvent(int descriptor, int flags, SR_MainLoop* loop);
    virtual ~SR_WatchEvent();
    SR_WatchEvent(const SR_WatchEvent&) = delete;
    SR_WatchEvent& operator=(const SR_WatchEvent&) = delete;

    // A pointer of the user's own, never looked at; null until set.
    void SetData(void* pointer) { data = pointer; }
    void* GetData() const { return data; }
    // The poll(2) result of the last firing.
    int State() const { return state; }
    int GetFlags() const { return flags; }
    int GetDescriptor() const { return descriptor; }
    bool Enabled() const { return enabled; }

protected:
    friend class SR_DBusDispatcher;
    friend class SR_MainLoop;

    // Called when the descriptor is ready; a derived class sets it, then `enabled`.
    boost::shared_ptr<BaseCallback<void, SR_WatchEvent&> > callback;
    bool enabled;
    // Changed by the watch's own handler, it counts at once: a result of the same iteration goes to
    // the first watch that is on its descriptor by then. Changed by anything else, it may count
    // from the next iteration only.
    int descriptor;
    int flags;
    int state;
    void* data;
    SR_MainLoop* loop;
};

// A timer by the wall clock. One that does not repeat keeps its expiry, so it fires in every
// iteration from then on until it is disabled or destroyed.
class SR_EXPORT SR_TimeoutEvent {
public:
    // Registers with `loop`; first due `interval` milliseconds from now.
    SR_TimeoutEvent(int interval, bool repeat, SR_MainLoop* loop);
    virtual ~SR_TimeoutEvent();
    SR_TimeoutEvent(const SR_TimeoutEvent&) = delete;
    SR_TimeoutEvent& operator=(const SR_TimeoutEvent&) = delete;

    // A pointer of the user's own, never looked at; null until set.
    void SetData(void* pointer) { data = pointer; }
    void* GetData() const { return data; }
    int GetInterval() const { return interval; }
    bool Enabled() const { return enabled; }

    // A wall-clock time in milliseconds.
    static double msec(timeval time);

protected:
    friend class SR_DBusDispatcher;
    friend class SR_MainLoop;

    // Called when it is due; a derived class sets it, then `enabled`.
    boost::shared_ptr<BaseCallback<void, SR_TimeoutEvent&> > callback;
    bool enabled;
    bool repeat;
    int interval;
    double expiry;
    void* data;
    SR_MainLoop* loop;
};

}  // namespace sentrel

#endif
