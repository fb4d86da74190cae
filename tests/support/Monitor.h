// SPDX-License-Identifier: Apache-2.0
// Sees everything that crosses the private bus, in order, from its construction on. A plain
// libdbus connection of its own; what concerns the monitor itself is left out.
#ifndef SENTREL_TESTS_MONITOR_H
#define SENTREL_TESTS_MONITOR_H

#include <dbus/dbus.h>

#include <functional>
#include <string>
#include <vector>

namespace test {

// A private connection of the test's own to the bus at PrivateBus::Address().
class PlainConnection {
public:
    PlainConnection();
    ~PlainConnection();
    PlainConnection(const PlainConnection&) = delete;
    PlainConnection& operator=(const PlainConnection&) = delete;

    DBusConnection* Get() const { return connection; }
    std::string UniqueName() const;
    // Calls a method of the bus itself and waits for the answer; throws std::runtime_error.
    void AskBus(const char* member);

private:
    DBusConnection* connection;
};

// One message as it was seen. Fields that are not set are empty.
struct Seen {
    int type = 0;  // libdbus's
    std::string sender;
    std::string destination;
    std::string path;
    std::string interface;
    std::string member;
    std::string error;
    std::string signature;
    std::vector<std::string> arguments;  // strings as they are, numbers in decimal, others "?"
    dbus_uint32_t serial = 0;
    dbus_uint32_t replySerial = 0;
    bool noReply = false;
    bool noAutoStart = false;
    bool descriptors = false;

    static Seen Of(DBusMessage* message);
    // "call SENDER>DESTINATION PATH INTERFACE.MEMBER SIGNATURE(ARGUMENTS)", likewise return, error
    // and signal.
    std::string Text() const;
};

class Monitor {
public:
    Monitor();

    // Everything until now, by a round trip of another connection; forgets it.
    std::vector<Seen> Take();
    // Collects until `last` has been seen, that one included. Throws when 30 s pass.
    std::vector<Seen> TakeUntil(const std::function<bool(const Seen&)>& last);

private:
    PlainConnection marker;
    PlainConnection watcher;
};

}  // namespace test

#endif
