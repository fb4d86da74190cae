// SPDX-License-Identifier: Apache-2.0
// The other message bus of Linux systems, dbus-broker, in the place of the private bus: at the same
// address, open to everybody. It wants a journal to write to, which it gets here; so it needs root
// and a mount namespace of the test's own, in which /run is then empty.
//
// The program is taken from SENTREL_DBUS_BROKER, a folder that holds dbus-broker-launch, or from
// PATH. Failures are thrown as std::runtime_error.
#ifndef SENTREL_TESTS_PRIVATEBROKER_H
#define SENTREL_TESTS_PRIVATEBROKER_H

#include <sys/types.h>

#include <string>

#include "ChildProcess.h"

namespace test {

class PrivateBroker {
public:
    // The program's path; empty when there is none.
    static std::string Program();

    // Returns when it listens. DBUS_SYSTEM_BUS_ADDRESS then points at it.
    PrivateBroker();
    ~PrivateBroker();
    PrivateBroker(const PrivateBroker&) = delete;
    PrivateBroker& operator=(const PrivateBroker&) = delete;

private:
    Descriptor journal;
    pid_t pid = -1;
};

}  // namespace test

#endif
