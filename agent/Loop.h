// SPDX-License-Identifier: Apache-2.0
// The program's one loop: everything that happens comes in here, in turns. A turn dispatches what
// the bus has brought, then waits for the next event: a message, a child's end, a time, a signal.
//
// Signals come in through a descriptor like everything else, and are blocked otherwise. SIGHUP is
// handed on. SIGTERM and SIGINT begin the end, and so does the loss of the bus: what is under way
// gets a few seconds, and the loop is left when the last answer has been given.
//
// While the object lives, nothing that is said on standard error or in the library's log waits for
// whoever reads it. One object at a time, before any thread or child. Threads: the one that has
// made it.
#ifndef SENTREL_AGENT_LOOP_H
#define SENTREL_AGENT_LOOP_H

#include <sentrel/SR_DBusDispatcher.h>

#include <functional>

#include "LibraryLog.h"
#include "answer/Log.h"
#include "base/Descriptors.h"

namespace agent {

class Loop {
public:
    // What the loop asks of those who work on it.
    struct Tasks {
        std::function<void()> hangUp;   // SIGHUP has come
        std::function<void()> endAll;   // the end begins; called once
        std::function<bool()> settled;  // whether every answer has been given
        std::function<bool()> connected;
    };

    // Throws std::runtime_error when the signals cannot be watched.
    Loop();
    Loop(const Loop&) = delete;
    Loop& operator=(const Loop&) = delete;

    sentrel::SR_DBusDispatcher& Dispatcher() { return dispatcher; }
    // Runs until the end. False when that was the loss of the bus, or could not be timed.
    bool Run(const Tasks& tasks);

private:
    void ReadSignals(const Tasks& tasks);

    OwnedFd signals;
    sentrel::SR_DBusDispatcher dispatcher;
    AttachedLog errors;
    LibraryLog library;
    bool stop = false;  // somebody wants the end
    bool late = false;  // it has taken too long
};

}  // namespace agent

#endif
