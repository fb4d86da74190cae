// SPDX-License-Identifier: Apache-2.0
//
// How one iteration works. The enabled watches are copied into an array of poll slots; then comes
// the wait; then the timers; then the watches. The iteration itself holds neither lock during the
// wait and never both: watches, timers, (wait), timers, watches. Only a handler may take the second
// inside the first, so one thread runs a loop.
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

#include <algorithm>
#include <cstddef>

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

SR_DBusMutex::~SR_DBusMutex() {
    pthread_mutex_destroy(&mutex);
}

void SR_DBusMutex::Lock() {
    pthread_mutex_lock(&mutex);
}

void SR_DBusMutex::Unlock() {
    pthread_mutex_unlock(&mutex);
}

// A walk over the entries that are registered when it is constructed, in registration order, as
// often as wanted. Everything here needs the registry's lock; the destructor takes it itself.
template <typename Event>
class SR_MainLoop::Walk {
public:
    Walk(std::list<Event*>& registry, SR_DBusMutex& registryMutex, Walk*& registryWalks)
        : list(registry),
          mutex(registryMutex),
          walks(registryWalks),
          outer(registryWalks),
          current(nullptr),
          last(registry.end()),
          empty(registry.empty()),
          changed(false) {
        if (!empty) {
            --last;
        }
        walks = this;
        Restart();
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
    Event* Peek() const { return exhausted ? nullptr : *next; }

    // The same, and moves on.
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

    // Whether the entry that Next() or First() gave last has been removed since.
    bool CurrentLeft() const { return current == nullptr; }

    // Whether an entry has changed in a way that makes it match otherwise; every walk under way is
    // told.
    bool Changed() const { return changed; }
    void TellChanged() const {
        for (Walk* walk = walks; walk != nullptr; walk = walk->outer) {
            walk->changed = true;
        }
    }

    // The first of the entries that are left for which `matches` holds, wherever the walk stands.
    template <typename Predicate>
    Event* First(const Predicate& matches) {
        if (empty) {
            return nullptr;
        }
        for (typename std::list<Event*>::iterator entry = list.begin();; ++entry) {
            if (matches(**entry)) {
                current = *entry;
                return current;
            }
            if (entry == last) {
                return nullptr;
            }
        }
    }

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
    Walk* outer;
    Event* current;
    typename std::list<Event*>::iterator next;  // means something while not exhausted
    typename std::list<Event*>::iterator last;  // means something while not empty
    bool empty;                                 // none of the entries is left
    bool exhausted;                             // the last one has been passed
    bool changed;
};

// A set of descriptors in a few words of borrowed memory. It may take one that was never added for
// a member, never the other way round.
// Plainer ways were measured with all of 4096 ready. This one takes 1.5 times a poll's time. To
// search the registry for each result takes 260 times, to remember no more than the highest
// descriptor passed 200 times, unless the descriptors happen to ascend.
class SR_MainLoop::DescriptorFilter {
public:
    // How many words do well for `count` descriptors; a power of two.
    static std::size_t WordsFor(std::size_t count) {
        std::size_t words = 1;
        while (words * 16 < count) {
            words *= 2;
        }
        return words;
    }

    DescriptorFilter(unsigned long long* memory, std::size_t words)
        : bits(memory), mask(words * 64 - 1) {
        std::fill(bits, bits + words, 0ULL);
    }

    void Add(int descriptor) { bits[Index(descriptor) / 64] |= 1ULL << (Index(descriptor) % 64); }

    bool MayHold(int descriptor) const {
        return (bits[Index(descriptor) / 64] >> (Index(descriptor) % 64) & 1ULL) != 0;
    }

private:
    std::size_t Index(int descriptor) const { return static_cast<unsigned>(descriptor) & mask; }

    unsigned long long* bits;
    std::size_t mask;
};

SR_MainLoop::SR_MainLoop()
    : timeoutsMutex(true), watchesMutex(true), timeoutWalks(nullptr), watchWalks(nullptr) {}

SR_MainLoop::~SR_MainLoop() {
    DeleteAll(watches, watchesMutex);
    DeleteAll(timeouts, timeoutsMutex);
}

// From the head on; each event takes itself out. The lock is not held during a delete.
template <typename Event>
void SR_MainLoop::DeleteAll(std::list<Event*>& registry, SR_DBusMutex& mutex) {
    SR_DBusLock lock(mutex);
    while (!registry.empty()) {
        Event* event = registry.front();
        lock.Unlock();
        delete event;
        lock.Lock();
    }
}

void SR_MainLoop::Dispatch() {
    // Which watches take part is settled here; the walk remembers the last of them. `entries` has
    // all of them, `slots` the enabled ones, both in registration order.
    SR_DBusLock lock(watchesMutex);
    Walk<SR_WatchEvent> walk(watches, watchesMutex, watchWalks);
    const std::size_t registered = watches.size();
    pollfd* slots = static_cast<pollfd*>(alloca(registered * sizeof(pollfd)));
    Entry* entries = static_cast<Entry*>(alloca(registered * sizeof(Entry)));
    const std::size_t words = DescriptorFilter::WordsFor(registered);
    DescriptorFilter passed(
        static_cast<unsigned long long*>(alloca(words * sizeof(unsigned long long))), words);
    nfds_t count = 0;
    for (std::size_t i = 0; i < registered; ++i) {
        SR_WatchEvent* watch = walk.Next();
        entries[i] = Entry{watch, watch->Enabled()};
        if (watch->Enabled()) {
            slots[count].fd = watch->GetDescriptor();
            slots[count].events = static_cast<short>(watch->GetFlags());
            slots[count].revents = 0;
            ++count;
        }
    }
    lock.Unlock();

    // Deliberate: the result is not looked at. After a failure every result is 0 and nothing fires
    // (pinned by MainLoopTest, "AnInterruptedWaitIsAnOrdinaryReturn").
    (void)poll(slots, count, Wait());

    FireTimeouts(Now());

    // For each result, the first watch that is enabled and on its descriptor at that moment. Slots,
    // entries and the registry are in one order, so walking them in step finds the slot's own watch
    // at once, and that is the first one unless the descriptor has been passed before, a handler
    // has moved its watch to another, or the watch is gone or disabled; only then the registry is
    // searched.
    lock.Lock();
    walk.Restart();
    nfds_t slot = 0;
    for (std::size_t i = 0; slot < count; ++i) {
        SR_WatchEvent* own = walk.Peek() == entries[i].watch ? walk.Next() : nullptr;
        const int descriptor = entries[i].polled ? slots[slot].fd : -1;
        const short result = entries[i].polled ? slots[slot++].revents : short(0);
        const bool isFirst = own != nullptr && own->enabled && own->descriptor == descriptor &&
                             !passed.MayHold(descriptor) && !walk.Changed();
        if (own != nullptr) {
            passed.Add(own->descriptor);
        }
        if (result != 0) {
            Fire(walk, isFirst ? own : FirstEnabled(walk, descriptor), result);
        }
    }
}

// The smallest interval of an enabled timer, capped.
int SR_MainLoop::Wait() {
    int wait = kLongestWait;
    SR_DBusLock lock(timeoutsMutex);
    for (const SR_TimeoutEvent* timeout : timeouts) {
        if (timeout->Enabled() && timeout->GetInterval() < wait) {
            wait = timeout->GetInterval();
        }
    }
    return wait;
}

SR_WatchEvent* SR_MainLoop::FirstEnabled(Walk<SR_WatchEvent>& walk, int descriptor) {
    return walk.First([descriptor](const SR_WatchEvent& watch) {
        return watch.enabled && watch.descriptor == descriptor;
    });
}

// Tells every walk when a handler has moved its watch to another descriptor, however it ends.
class SR_MainLoop::MoveTeller {
public:
    // `firing` is the one that the walk gave last.
    MoveTeller(const Walk<SR_WatchEvent>& ongoing, const SR_WatchEvent& firing)
        : walk(ongoing), watch(firing), descriptor(firing.descriptor) {}
    ~MoveTeller() {
        if (!walk.CurrentLeft() && watch.descriptor != descriptor) {
            walk.TellChanged();
        }
    }
    MoveTeller(const MoveTeller&) = delete;
    MoveTeller& operator=(const MoveTeller&) = delete;

private:
    const Walk<SR_WatchEvent>& walk;
    const SR_WatchEvent& watch;
    const int descriptor;
};

// `watch` is the one that the walk gave last, or null.
void SR_MainLoop::Fire(const Walk<SR_WatchEvent>& walk, SR_WatchEvent* watch, int result) {
    if (watch == nullptr) {
        return;
    }
    const auto callback = watch->callback;  // lives on if the handler destroys the watch
    watch->state = result;
    const MoveTeller teller(walk, *watch);
    callback->call(*watch);
}

void SR_MainLoop::FireTimeouts(double now) {
    SR_DBusLock lock(timeoutsMutex);
    Walk<SR_TimeoutEvent> walk(timeouts, timeoutsMutex, timeoutWalks);
    while (SR_TimeoutEvent* timeout = walk.Next()) {
        if (!timeout->enabled || timeout->expiry > now) {
            continue;
        }
        const auto callback = timeout->callback;  // lives on if the handler destroys the timer
        callback->call(*timeout);
        // The handler may have destroyed its timer. The next expiry counts from this iteration's
        // clock, not from the old expiry: missed periods are not made up for.
        if (!walk.CurrentLeft() && timeout->repeat) {
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
