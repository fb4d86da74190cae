// SPDX-License-Identifier: Apache-2.0
// The agent's front. Everything that arrives on the connection comes by here first: whose it is
// (asked of the bus, once for a connection), what its user has sent lately, and only then what it
// wants. What comes out is a call with its caller, whose executable nobody knows yet, and whether
// it is to be turned away.
//
// A message whose sender is not known yet is read, and what it wants waits for the bus's word; a
// message may be large, that is small. What follows on its connection waits behind it, so that the
// order is kept.
//
// What was passed in to Serve() is called on the loop's thread. The connection must outlive the
// object; whoever holds answers must let go of them first.
#ifndef SENTREL_AGENT_SERVICE_H
#define SENTREL_AGENT_SERVICE_H

#include <sentrel/SR_DBusConnection.h>
#include <sentrel/SR_DBusFilter.h>

#include <chrono>
#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "Callers.h"
#include "Gate.h"
#include "Tolls.h"
#include "WorkQueue.h"
#include "answer/Answer.h"
#include "answer/Replies.h"

namespace agent {

typedef std::shared_ptr<Answer> SharedAnswer;

// A request and all that belongs to it.
struct Arrival {
    Call call;
    Caller caller;
    std::chrono::steady_clock::time_point received;
    SharedAnswer answer;
    Turn turn = Turn::kTaken;  // or to be turned away
};

// Who takes what comes. All may be empty.
struct Receivers {
    std::function<void(const Arrival&)> request;
    // Whoever cannot answer at once keeps the reply.
    std::function<void(const Question&, const Caller&, const std::shared_ptr<TextReply>&)> question;
    // A message of a sender who is not known, what it asks for if anything, and why. It gets no
    // answer.
    std::function<void(const std::string& sender, const std::optional<Call>&,
                       const std::string& reason)>
        unknown;
    // A message too many of that user's, whether it is answered or not.
    std::function<void(uid_t)> tooMany;
    // A user who does not read gets no answers for now.
    std::function<void(uid_t, std::size_t unreadBytes)> leftAlone;
};

class Service {
public:
    // Registers the object; the name is to be requested later. Throws SR_DBusException.
    Service(sentrel::SR_MainLoop& loop, sentrel::SR_DBusConnection& bus,
            std::size_t requestsPerMinute);

    // Until then every call fails.
    void Serve(const Receivers& newReceivers);
    // Hands on at once what waits for its turn.
    void Finish() { work.Finish(); }
    // Whether the bus is still there.
    bool Connected() const { return gate.Connected(); }

private:
    bool Take(const sentrel::SR_DBusCallMessage& message);
    void TakeFromBus(const sentrel::SR_DBusCallMessage& message);
    bool Counts(const Caller& caller, Turn& turn);
    void Admit(const std::shared_ptr<const Errand>& errand, const Caller& caller, Turn turn,
               std::chrono::steady_clock::time_point received);
    void Carry(const Errand& errand, const Caller& caller, Turn turn,
               std::chrono::steady_clock::time_point received);

    Receivers receivers;
    Tolls tolls;
    Replies replies;
    Gate gate;
    Callers callers;
    WorkQueue work;
    sentrel::SR_DBusFilter filter;  // goes first: nothing arrives any more
};

}  // namespace agent

#endif
