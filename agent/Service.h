// SPDX-License-Identifier: Apache-2.0
// Leads each request through the rooms: gate, parse, decide, run, answer. Lives on the loop's
// thread; connection and loop must outlive it.
#ifndef SENTREL_AGENT_SERVICE_H
#define SENTREL_AGENT_SERVICE_H

#include <sentrel/SR_DBusConnection.h>
#include <sentrel/SR_MainLoop.h>

#include <memory>
#include <string>

#include "Decider.h"
#include "Gate.h"
#include "Runner.h"

namespace agent {

struct Settings {
    bool allowAll = false;
    int deadlineSeconds = 20;
    std::string toolPath;  // directories with colons between them
};

class Service {
public:
    // Registers the object; the name is the caller's to request. Throws SR_DBusException.
    Service(sentrel::SR_DBusConnection& bus, sentrel::SR_MainLoop& loop, const Settings& given);

    // Whether the bus is still there.
    bool Connected() const { return gate.Connected(); }
    // To be called in every turn of the loop.
    void Turn() { runner.Turn(); }
    // What is under way is brought to an end, and nothing new is taken on.
    void EndAll() { runner.EndAll(); }
    bool Settled() const { return runner.Settled(); }

private:
    struct Caller;

    void Handle(const Request& request, OwedAnswer answer);
    // False, with the reason, when the descriptor cannot be used. A number of 0 or less asks for
    // no output, and that is well.
    static bool TakeOutput(const Request& request, const Caller& caller, Output& output,
                           std::string& error);

    sentrel::SR_DBusConnection connection;
    Settings settings;
    Decider decider;
    // The answers in the runner go before the gate that they are sent through.
    Gate gate;
    Runner runner;
};

}  // namespace agent

#endif
