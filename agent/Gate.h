// SPDX-License-Identifier: Apache-2.0
// The first room: the served object with its two interfaces, the one that carries requests and the
// one for people. Lets through well-formed calls and nothing else; what it turns away gets a D-Bus
// error.
//
// Receivers are set before the name is taken. Threads: the one that runs the loop.
#ifndef SENTREL_AGENT_GATE_H
#define SENTREL_AGENT_GATE_H

#include <sentrel/SR_DBusAdaptor.h>
#include <sentrel/SR_DBusConnection.h>

#include <functional>
#include <memory>
#include <string>

#include "Answer.h"

namespace agent {

// The bus name, the interface's name and, with "/" for ".", the object path.
extern const char kName[];
extern const char kControlName[];

// What a caller asks for, as it arrived.
struct Call {
    std::string sender;  // its unique name on the bus
    std::string agent;   // such as "sr_mount"
    std::string text;    // the argument text
    int descriptor = 0;  // a number of the caller's
};

typedef std::shared_ptr<Answer> SharedAnswer;

// A question of the second interface; `agent` and `text` are there for Test only.
struct Question {
    std::string sender;
    std::string member;
    std::string agent;
    std::string text;
};

// The reply to a question, sent when the object goes: an error as long as nothing was set.
class TextReply {
public:
    TextReply(sentrel::SR_DBusAdaptor& servingAdaptor,
              const sentrel::SR_DBusCallMessage& receivedCall)
        : adaptor(servingAdaptor), call(receivedCall) {}
    TextReply(const TextReply&) = delete;
    TextReply& operator=(const TextReply&) = delete;
    ~TextReply();

    // The text must be UTF-8.
    void Set(const std::string& newText);
    void SetError(const std::string& newName, const std::string& newText);

private:
    sentrel::SR_DBusAdaptor& adaptor;  // not owned, lives longer
    const sentrel::SR_DBusCallMessage call;
    std::string error = "org.freedesktop.DBus.Error.Failed";
    std::string text = "the question was not answered";
};

typedef std::function<void(const Call&, const SharedAnswer&)> CallReceiver;
typedef std::function<void(const Question&, const std::shared_ptr<TextReply>&)> QuestionReceiver;

class CallInterface : public sentrel::SR_DBusIAdaptor {
public:
    CallInterface();
    const char* Introspect() const override;

protected:
    virtual sentrel::SR_DBusAdaptor& Object() = 0;
    CallReceiver onCall;

private:
    sentrel::SR_DBusMessage CallCommand(const sentrel::SR_DBusCallMessage& call);
};

class ControlInterface : public sentrel::SR_DBusIAdaptor {
public:
    ControlInterface();
    const char* Introspect() const override;

protected:
    virtual sentrel::SR_DBusAdaptor& Object() = 0;
    QuestionReceiver onQuestion;

private:
    sentrel::SR_DBusMessage Ask(const sentrel::SR_DBusCallMessage& call);
};

class Gate : public CallInterface, public ControlInterface, public sentrel::SR_DBusAdaptor {
public:
    // Registers the object on `bus`. Throws SR_DBusException.
    Gate(sentrel::SR_DBusConnection& bus, const CallReceiver& callReceiver,
         const QuestionReceiver& questionReceiver);

protected:
    sentrel::SR_DBusAdaptor& Object() override { return *this; }
};

}  // namespace agent

#endif
