// SPDX-License-Identifier: Apache-2.0
// Inside the library: a lock held for a scope.
#ifndef SENTREL_SR_MAINLOOPIMPL_H
#define SENTREL_SR_MAINLOOPIMPL_H

#include "SR_MainLoop.h"

namespace sentrel {

class SR_THREAD_ANNOTATION(scoped_lockable) SR_DBusLock {
public:
    explicit SR_DBusLock(SR_DBusMutex& lockedMutex)
        SR_THREAD_ANNOTATION(acquire_capability(lockedMutex))
        : mutex(lockedMutex), locked(true) {
        mutex.Lock();
    }
    ~SR_DBusLock() SR_THREAD_ANNOTATION(release_capability()) {
        if (locked) {
            mutex.Unlock();
        }
    }
    SR_DBusLock(const SR_DBusLock&) = delete;
    SR_DBusLock& operator=(const SR_DBusLock&) = delete;

    // Releases the lock in mid-scope, and takes it again.
    void Unlock() SR_THREAD_ANNOTATION(release_capability()) {
        mutex.Unlock();
        locked = false;
    }
    void Lock() SR_THREAD_ANNOTATION(acquire_capability()) {
        mutex.Lock();
        locked = true;
    }

private:
    SR_DBusMutex& mutex;
    bool locked;
};

}  // namespace sentrel

#endif
