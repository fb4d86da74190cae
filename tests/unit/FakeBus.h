// SPDX-License-Identifier: Apache-2.0
// libdbus without a bus, inside the test program: connections, watches and timeouts are records of
// the test's own; messages are libdbus's, with their references counted. Any of the functions can
// be made to fail or to throw. One bus, one thread.
#ifndef SENTREL_TESTS_FAKEBUS_H
#define SENTREL_TESTS_FAKEBUS_H

#include <dbus/dbus.h>

#include <functional>
#include <list>
#include <map>
#include <string>
#include <vector>

namespace test {

struct FakeWatch {
    int fd = -1;
    unsigned flags = 0;
    bool enabled = true;
    void* data = nullptr;
    std::vector<unsigned> handled;  // the conditions of each dbus_watch_handle
    bool answer = true;
    std::function<void()> onHandle;

    DBusWatch* Get() { return reinterpret_cast<DBusWatch*>(this); }
};

struct FakeTimeout {
    int interval = 0;
    bool enabled = true;
    void* data = nullptr;
    int handled = 0;
    bool answer = true;
    std::function<void()> onHandle;

    DBusTimeout* Get() { return reinterpret_cast<DBusTimeout*>(this); }
};

struct FakeFilter {
    DBusHandleMessageFunction function;
    void* data;
    DBusFreeFunction freeData;
};

struct FakeConnection {
    int references = 1;
    bool connected = true;
    bool exitOnDisconnect = true;
    std::function<DBusDispatchStatus()> dispatch;  // empty: complete
    int dispatched = 0;
    std::list<FakeWatch> watches;
    std::list<FakeTimeout> timeouts;

    DBusDispatchStatusFunction statusFunction = nullptr;
    void* statusData = nullptr;
    DBusRemoveWatchFunction removeWatch = nullptr;  // null: libdbus has no watch functions
    DBusWatchToggledFunction toggleWatch = nullptr;
    void* watchData = nullptr;
    DBusFreeFunction freeWatchData = nullptr;
    DBusRemoveTimeoutFunction removeTimeout = nullptr;
    DBusTimeoutToggledFunction toggleTimeout = nullptr;
    void* timeoutData = nullptr;
    std::map<std::string, std::pair<DBusObjectPathVTable, void*> > paths;
    std::list<FakeFilter> filters;

    DBusConnection* Get() { return reinterpret_cast<DBusConnection*>(this); }
};

struct FakeBus {
    // Forgets everything. What the library has not given back by then is the test's mistake.
    void Reset();
    // Whether every connection and every message reference has been given back.
    bool Balanced() const;

    // The call number `failAt` (from 1) of `failing` fails: with this error where it takes one,
    // else with false or null.
    std::string failing;
    int failAt = 1;
    std::string errorName;
    std::string errorText;
    // Runs in every call that is recorded; may throw through it.
    std::function<void(const std::string& function)> onCall;

    // The string that answers a blocking call; or, unless empty, what makes the reply.
    std::string reply;
    std::function<DBusMessage*()> makeReply;
    int requestNameAnswer;
    bool requestNameError;             // sets the error beside that answer
    std::function<void()> onNewError;  // runs in dbus_message_new_error; may throw through it
    bool hasOwner;
    const char* uniqueName;  // may be null

    // "function argument" of each call to a connection or the bus, and of each failure.
    std::vector<std::string> calls;
    std::list<FakeConnection> connections;  // in order of opening; the dead ones too
    std::map<DBusMessage*, int> messages;   // references that the library holds; none when 0
    std::vector<std::string> nulls;         // functions that were given a null message
    std::vector<std::string> sent;          // "type text" of what was sent without waiting
    int lastTimeout;                        // of the last blocking call
};

extern FakeBus bus;

// Above 0 while a fake does work of its own: allocations made then are not the library's.
extern int fakeDepth;

}  // namespace test

#endif
