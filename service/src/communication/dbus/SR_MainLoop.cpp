// SPDX-License-Identifier: Apache-2.0
//
// How one iteration works. The enabled watches are copied into an array of poll slots; then comes
// the wait; then the timers; then the watches. Neither lock is held during the wait, and the two
// are never held together: watches, timers, (wait), timers, watches.
//
// Handlers run inside the lock of their registry and may change it. So the registries are walked
// with a Walk, which knows the entry that comes next and the last one that was there when the walk
// began. The destructor of an event tells every walk under way that its entry leaves; entries that
// come later stand behind the last one and are not visited. That keeps three promises: any entry
// may be destroyed in mid-walk, an event created meanwhile waits for the next iteration, and a
// result that was polled for one watch never reaches a newer one that reuses its descriptor.
//
// The clock is the wall clock and the wait is a timer's whole interval, not the time it has left:
// deliberate, pinned by MainLoopTest.

#include "SR_MainLoop.h"

#include <alloca.h>
#include <poll.h>

#include "SR_MainLoopImpl.h"

namespace sentrel {

namespace {

const int kLongestWait = 10000;  // milliseconds

double Now() {
    timeval time = {};
    gettimeofday(&time, nullptr);
    return SR_TimeoutEvent::msec(time);
}

}  // namespace

SR_DBusMutex::SR_DBusMutex() : SR_DBusMutex(false) {}

SR_DBusMutex::SR_DBusMutex(bool recursive) : mutex() {
    if (!recursive) {
        pthread_mutex_init(&mutex, nullptr);
        return;
    }
    pthread_mutexattr_t attributes;
    pthread_mutexattr_init(&attributes);
    pthread_mutexattr_settype(&attributes, PTHREAD_MUTEX_RECURSIVE);
    pthread_mutex_init(&mutex, &attributes);
    pthread_mutexattr_destroy(&attributes);
}

SR_DBusMutex::~SR_DBusMutex() { pthread_mutex_destroy(&mutex); }

void SR_DBusMutex::Lock() { pthread_mutex_lock(&mutex); }

void SR_DBusMutex::Unlock() { pthread_mutex_unlock(&mutex); }

// A walk over the entries that are registered at its construction, in registration order, as often
// as wanted. All its operations need the registry's lock but construction and destruction, which
// take it themselves.
template <typename Event>
class SR_MainLoop::Walk {
public:
    Walk(std::list<Event*>& registry, SR_DBusMutex& registryMutex, Walk*& registryWalks)
        : list(registry), mutex(registryMutex), walks(registryWalks), current(nullptr) {
        SR_DBusLock lock(mutex);
        empty = list.empty();
        exhausted = empty;
        next = list.begin();
        last = list.end();
        if (!empty) {
            --last;
        }
        outer = walks;
        walks = this;
    }

    ~Walk() {
        SR_DBusLock lock(mutex);
        Walk** link = &walks;
        while (*link != this) {
            link = &(*link)->outer;
        }
        *link = outer;
    }

    Walk(const Walk&) = delete;
    Walk& operator=(const Walk&) = delete;

    // Goes back to the first entry.
    void Restart() {
        exhausted = empty;
        next = list.begin();
    }

    // The next entry, or null behind the last.
    Event* Next() {
        if (exhausted) {
            return nullptr;
        }
        current = *next;
        if (next == last) {
            exhausted = true;
        } else {
            ++next;
        }
        return current;
    }

    // Whether the entry that Next() gave last has been removed since.
    bool CurrentLeft() const { return current == nullptr; }

    // Takes every entry of `event` out of the registry and out of the reach of all walks.
    static void Remove(std::list<Event*>& list, Walk* walks, const Event* event) {
        typename std::list<Event*>::iterator entry = list.begin();
        while (entry != list.end()) {
            if (*entry != event) {
                ++entry;
                continue;
            }
            for (Walk* walk = walks; walk != nullptr; walk = walk->outer) {
                walk->Leaving(entry);
            }
            entry = list.erase(entry);
        }
    }

private:
    void Leaving(typename std::list<Event*>::iterator entry) {
        if (*entry == current) {
            current = nullptr;
        }
        if (empty) {
            return;
        }
        if (entry != last) {
            if (!exhausted && entry == next) {
                ++next;
            }
            return;
        }
        if (entry == list.begin()) {
            empty = true;
            exhausted = true;
            return;
        }
        if (!exhausted && entry == next) {
            exhausted = true;
        }
        --last;
    }

    std::list<Event*>& list;
    SR_DBusMutex& mutex;
    Walk*& walks;
    Event* current;
    typename std::list<Event*>::iterator next;  // means something while not exhausted
    typename std::list<Event*>::iterator last;  // means something while not empty
    bool empty;                                 // none of the entries is left
    bool exhausted;                             // the last one has been passed
    Walk* outer;
};

SR_MainLoop::SR_MainLoop()
    : timeoutsMutex(true), watchesMutex(true), timeoutWalks(nullptr), watchWalks(nullptr) {}

SR_MainLoop::~SR_MainLoop() {
    // Each delete runs outside the scope of the lock; the event takes it to leave the registry.
    {
        Walk<SR_WatchEvent> walk(watches, watchesMutex, watchWalks);
        for (;;) {
            watchesMutex.Lock();
            SR_WatchEvent* watch = walk.Next();
            watchesMutex.Unlock();
            if (watch == nullptr) {
                break;
            }
            delete watch;
        }
    }
    Walk<SR_TimeoutEvent> walk(timeouts, timeoutsMutex, timeoutWalks);
    for (;;) {
        timeoutsMutex.Lock();
        SR_TimeoutEvent* timeout = walk.Next();
        timeoutsMutex.Unlock();
        if (timeout == nullptr) {
            break;
        }
        delete timeout;
    }
}

void SR_MainLoop::Dispatch() {
    // Which watches take part is settled here; the walk remembers the last of them.
    Walk<SR_WatchEvent> walk(watches, watchesMutex, watchWalks);
    pollfd* slots = nullptr;
    nfds_t count = 0;
    {
        SR_DBusLock lock(watchesMutex);
        slots = static_cast<pollfd*>(alloca(watches.size() * sizeof(pollfd)));
        while (const SR_WatchEvent* watch = walk.Next()) {
            if (!watch->Enabled()) {
                continue;
            }
            slots[count].fd = watch->GetDescriptor();
            slots[count].events = static_cast<short>(watch->GetFlags());
            slots[count].revents = 0;
            ++count;
        }
    }

    int wait = kLongestWait;
    {
        SR_DBusLock lock(timeoutsMutex);
        for (const SR_TimeoutEvent* timeout : timeouts) {
            if (timeout->Enabled() && timeout->GetInterval() < wait) {
                wait = timeout->GetInterval();
            }
        }
    }

    // Deliberate: the result is not looked at. After a failure every result is 0 and nothing fires
    // (pinned by MainLoopTest, "AnInterruptedWaitIsAnOrdinaryReturn").
    (void)poll(slots, count, wait);

    const double now = Now();
    FireTimeouts(now);

    SR_DBusLock lock(watchesMutex);
    for (nfds_t i = 0; i < count; ++i) {
        walk.Restart();
        while (slots[i].revents != 0) {
            SR_WatchEvent* watch = walk.Next();
            if (watch == nullptr) {
                break;
            }
            if (!watch->enabled || watch->descriptor != slots[i].fd) {
                continue;
            }
            watch->state = slots[i].revents;
            watch->callback->call(*watch);
            // Only the first enabled watch on a descriptor gets the result.
            slots[i].revents = 0;
        }
    }
}

void SR_MainLoop::FireTimeouts(double now) {
    Walk<SR_TimeoutEvent> walk(timeouts, timeoutsMutex, timeoutWalks);
    SR_DBusLock lock(timeoutsMutex);
    while (SR_TimeoutEvent* timeout = walk.Next()) {
        if (!timeout->enabled || timeout->expiry > now) {
            continue;
        }
        timeout->callback->call(*timeout);
        // The handler may have destroyed its timer.
        if (walk.CurrentLeft()) {
            continue;
        }
        // From this iteration's clock, not from the old expiry: missed periods are not made up for.
        if (timeout->repeat) {
            timeout->expiry = now + timeout->interval;
        }
    }
}

SR_WatchEvent::SR_WatchEvent(int watchedDescriptor, int requestedFlags, SR_MainLoop* mainLoop)
    : enabled(true),
      descriptor(watchedDescriptor),
      flags(requestedFlags),
      state(0),
      data(nullptr),
      loop(mainLoop) {
    SR_DBusLock lock(loop->watchesMutex);
    loop->watches.push_back(this);
}

SR_WatchEvent::~SR_WatchEvent() {
    SR_DBusLock lock(loop->watchesMutex);
    SR_MainLoop::Walk<SR_WatchEvent>::Remove(loop->watches, loop->watchWalks, this);
}

SR_TimeoutEvent::SR_TimeoutEvent(int milliseconds, bool repeats, SR_MainLoop* mainLoop)
    : enabled(true),
      repeat(repeats),
      interval(milliseconds),
      expiry(Now() + milliseconds),
      data(nullptr),
      loop(mainLoop) {
    SR_DBusLock lock(loop->timeoutsMutex);
    loop->timeouts.push_back(this);
}

SR_TimeoutEvent::~SR_TimeoutEvent() {
    SR_DBusLock lock(loop->timeoutsMutex);
    SR_MainLoop::Walk<SR_TimeoutEvent>::Remove(loop->timeouts, loop->timeoutWalks, this);
}

double SR_TimeoutEvent::msec(timeval time) {
    return static_cast<double>(time.tv_sec) * 1000.0 + static_cast<double>(time.tv_usec) / 1000.0;
}

}  // namespace sentrel
