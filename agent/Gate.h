// SPDX-License-Identifier: Apache-2.0
// The first room: the served object. Lets through a well-formed CallCommand and nothing else; what
// it turns away gets a D-Bus error. Lives on the loop's thread.
#ifndef SENTREL_AGENT_GATE_H
#define SENTREL_AGENT_GATE_H

#include <sentrel/SR_DBusAdaptor.h>
#include <sentrel/SR_DBusConnection.h>

#include <functional>
#include <string>

#include "Answer.h"

namespace agent {

// The bus name, the interface's name and, with "/" for ".", the object path.
extern const char kName[];

// What a caller asks for, as it arrived.
struct Request {
    std::string sender;  // its unique name on the bus
    std::string agent;   // such as "sr_mount"
    std::string text;    // the argument text
    int descriptor = 0;  // a number of the caller's
};

class Gate : public sentrel::SR_DBusIAdaptor, public sentrel::SR_DBusAdaptor {
public:
    // `onRequest` gets each request with the answer that it now owes.
    typedef std::function<void(const Request&, OwedAnswer)> Receiver;

    // Registers the object on `bus`. Throws SR_DBusException.
    Gate(sentrel::SR_DBusConnection& bus, Receiver onRequest);

    const char* Introspect() const override;

private:
    sentrel::SR_DBusMessage CallCommand(const sentrel::SR_DBusCallMessage& call);

    Receiver receiver;
};

}  // namespace agent

#endif
