// SPDX-License-Identifier: Apache-2.0
// The agent's front. Every message that arrives on the connection takes these steps, in this order:
//
//   Take    whose is it? A sender that is known goes on at once. About any other the bus is asked,
//           once (Callers.h); until it answers, what the message wants is kept and not the message,
//           which may be large. What follows from the same sender waits behind it, in its order.
//   Count   has its user sent too much (Tolls.h)? Then it is turned away, or gets nothing at all.
//   Admit   it waits for its turn among the users (WorkQueue.h). Until here all is cheap.
//   Carry   it goes where it belongs: a request and a question to who takes them, everything else
//           back with the answer that the gate has for it (Gate.h).
//
// The bus's own signals end at the first step: names that are gone are forgotten. A sender that the
// bus does not know gets no answer, and is told of. What a step throws ends that message only.
//
// A request comes out with its caller, whose executable nobody knows yet.
//
// Ownership: who was passed to Serve() is called on the loop's thread and must outlive the loop's
// last turn. The connection must outlive the object; whoever holds answers must let go of them
// first. Threads: the one that runs the loop.
#ifndef SENTREL_AGENT_SERVICE_H
#define SENTREL_AGENT_SERVICE_H

#include <sentrel/SR_DBusConnection.h>
#include <sentrel/SR_DBusFilter.h>

#include <chrono>
#include <memory>
#include <optional>
#include <string>

#include "Callers.h"
#include "Gate.h"
#include "Tolls.h"
#include "WorkQueue.h"
#include "answer/Answer.h"
#include "answer/Replies.h"
#include "base/Result.h"

namespace agent {

typedef std::shared_ptr<Answer> SharedAnswer;

// A request and all that belongs to it.
struct Arrival {
    Call call;
    Caller caller;
    std::chrono::steady_clock::time_point received;
    SharedAnswer answer;
    Admission admission = Admission::kTaken;  // or to be turned away
};

class RequestTaker {
public:
    virtual ~RequestTaker() {}

    virtual void Take(const Arrival& arrival) = 0;
    // These three have no answer of their own. A message whose sender is not known: what it asks
    // for, if anything, and why.
    virtual void TakeUnknown(const std::string& sender, const std::optional<Call>& call,
                             const std::string& reason) = 0;
    // A message too many of that user's, whether it is answered or not.
    virtual void TakeTooMany(uid_t uid) = 0;
    // A user who does not read gets no answers for now.
    virtual void TakeLeftAlone(uid_t uid, std::size_t unreadBytes) = 0;
};

class QuestionTaker {
public:
    virtual ~QuestionTaker() {}

    // Whoever cannot answer at once keeps the reply.
    virtual void Answer(const Question& question, const Caller& caller,
                        const std::shared_ptr<TextReply>& reply) = 0;
};

class Service {
public:
    // Registers the object. Throws SR_DBusException.
    Service(sentrel::SR_MainLoop& loop, sentrel::SR_DBusConnection& connection_,
            std::size_t requestsPerMinute);

    // Until then every call fails.
    void Serve(RequestTaker& requests_, QuestionTaker& questions_);
    // Takes the name on the bus, so that callers find the object. Refused when another process has
    // it. Throws SR_DBusException.
    Check TakeName();
    // Hands on at once what waits for its turn.
    void Finish() { work.Finish(); }
    // Whether the bus is still there.
    bool Connected() const { return gate.Connected(); }

private:
    bool Take(const sentrel::SR_DBusCallMessage& message);
    void TakeFromBus(const sentrel::SR_DBusCallMessage& message);
    Admission Count(uid_t uid);
    void Admit(const std::shared_ptr<const Errand>& errand, const Caller& caller,
               Admission admission, std::chrono::steady_clock::time_point received);
    void Carry(const Errand& errand, const Caller& caller, Admission admission,
               std::chrono::steady_clock::time_point received);

    sentrel::SR_DBusConnection& connection;
    RequestTaker* requests = nullptr;
    QuestionTaker* questions = nullptr;
    Tolls tolls;
    Replies replies;
    Gate gate;
    Callers callers;
    WorkQueue work;
    sentrel::SR_DBusFilter filter;  // goes first: nothing arrives any more
};

}  // namespace agent

#endif
