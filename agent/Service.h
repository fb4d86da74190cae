// SPDX-License-Identifier: Apache-2.0
// The agent's front: the gate, and behind it the question to the bus who is calling. What comes out
// is a call with its caller, whose executable nobody knows yet.
//
// What was passed in to Serve() is called on the loop's thread. The connection must outlive the
// object; whoever holds answers must let go of them first.
#ifndef SENTREL_AGENT_SERVICE_H
#define SENTREL_AGENT_SERVICE_H

#include <sentrel/SR_DBusConnection.h>

#include <chrono>
#include <functional>
#include <memory>
#include <string>

#include "Callers.h"
#include "Gate.h"

namespace agent {

// A request and all that belongs to it.
struct Arrival {
    Call call;
    Caller caller;
    std::chrono::steady_clock::time_point received;
    SharedAnswer answer;
};

class Service {
public:
    typedef std::function<void(const Arrival&)> OnRequest;
    // Whoever cannot answer at once keeps the reply.
    typedef std::function<void(const Question&, const Caller&, const std::shared_ptr<TextReply>&)>
        OnQuestion;
    // A call whose caller is not known, and why; it has failed.
    typedef std::function<void(const Call&, const std::string&)> OnUnknown;

    // Registers the object; the name is to be requested later. Throws SR_DBusException.
    explicit Service(sentrel::SR_DBusConnection& bus);

    // Who takes what comes; until then every call fails.
    void Serve(const OnRequest& onRequest, const OnQuestion& onQuestion,
               const OnUnknown& onUnknown = OnUnknown());
    // Whether the bus is still there.
    bool Connected() const { return gate.Connected(); }

private:
    void TakeCall(const Call& call, const SharedAnswer& answer);
    void TakeQuestion(const Question& question, const std::shared_ptr<TextReply>& reply);

    OnRequest requests;
    OnQuestion questions;
    OnUnknown unknown;
    Gate gate;
    Callers callers;  // goes first: holds answers that are sent through the gate
};

}  // namespace agent

#endif
