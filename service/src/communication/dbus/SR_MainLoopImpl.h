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
        : mutex(lockedMutex) {
        mutex.Lock();
    }
    ~SR_DBusLock() SR_THREAD_ANNOTATION(release_capability()) { mutex.Unlock(); }
    SR_DBusLock(const SR_DBusLock&) = delete;
    SR_DBusLock& operator=(const SR_DBusLock&) = delete;

private:
    SR_DBusMutex& mutex;
};

}  // namespace sentrel

#endif
