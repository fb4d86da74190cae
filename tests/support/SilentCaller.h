// SPDX-License-Identifier: Apache-2.0
// A connection to the private bus that writes calls and reads nothing until it is told to: libdbus
// reads whenever it waits, so the bytes go to the socket past it. Failures are thrown as
// std::runtime_error.
#ifndef SENTREL_TESTS_SILENTCALLER_H
#define SENTREL_TESTS_SILENTCALLER_H

#include <dbus/dbus.h>

#include "Monitor.h"

namespace test {

class SilentCaller {
public:
    SilentCaller();

    // Writes the message, which it takes over. False when the bus took nothing for `milliseconds`;
    // the rest is then kept for the next call of Finish().
    bool Write(DBusMessage* message, int milliseconds);
    // The rest of what was not taken.
    bool Finish(int milliseconds);
    // Reads all that the bus has for it up to now; the number of replies among it.
    int Read();
    const PlainConnection& Connection() const { return connection; }

private:
    PlainConnection connection;
    int socket = -1;
    dbus_uint32_t serial = 1000;
    std::string rest;
};

}  // namespace test

#endif
