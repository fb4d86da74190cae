// SPDX-License-Identifier: Apache-2.0
// The one reply that a call is owed. Whoever holds the object owes it; if nobody gives one, the
// destructor answers SR_FAIL. Each answer is one line of the agent's log. Lives on the loop's
// thread, shorter than the adaptor.
#ifndef SENTREL_AGENT_ANSWER_H
#define SENTREL_AGENT_ANSWER_H

#include <sentrel/SR_DBusAdaptor.h>

#include <memory>
#include <string>

namespace agent {

class Answer {
public:
    // Keeps its own copy of `call`.
    Answer(sentrel::SR_DBusAdaptor& adaptor, const sentrel::SR_DBusCallMessage& call);
    ~Answer();
    Answer(const Answer&) = delete;
    Answer& operator=(const Answer&) = delete;

    // Who asked for what, for the log. Holds nothing that came from the caller unchecked.
    void Describe(const std::string& text) { description = text; }
    // Sends "STATUS RETURNVALUE". Only the first call sends anything.
    void Give(int status, int returnValue);

private:
    sentrel::SR_DBusAdaptor& sender;  // not owned
    sentrel::SR_DBusCallMessage asked;
    std::string description;
    bool given;
};

typedef std::unique_ptr<Answer> OwedAnswer;

}  // namespace agent

#endif
