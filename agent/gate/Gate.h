// SPDX-License-Identifier: Apache-2.0
// The first room: the served object with its two interfaces, the one that carries requests and the
// one for people. It reads a message and says what is to be done with it: a well-formed call is
// handed on, everything else has its answer here. It sends nothing.
//
// Threads: the one that runs the loop.
#ifndef SENTREL_AGENT_GATE_H
#define SENTREL_AGENT_GATE_H

#include <sentrel/SR_DBusAdaptor.h>
#include <sentrel/SR_DBusConnection.h>
#include <sentrel/SR_DBusReturnAddress.h>

#include <memory>
#include <optional>
#include <string>

namespace agent {

// The name on the bus, the name of the interface and, with "/" for ".", the object's path.
extern const char kServiceName[];
extern const char kControlInterface[];

// What a caller asks for, as it arrived.
struct Call {
    std::string sender;     // its unique name on the bus
    std::string operation;  // such as "sr_mount"
    std::string text;       // the argument text
    int descriptor = 0;     // a number of the caller's
};

// A question of the second interface; `operation` and `text` are there for Test only.
struct Question {
    std::string member;
    std::string operation;
    std::string text;
};

// What one message wants. Small, whatever the message was, which is not kept.
struct Errand {
    explicit Errand(const sentrel::SR_DBusReturnAddress& address_) : address(address_) {}

    sentrel::SR_DBusReturnAddress address;
    // One of the four.
    std::optional<Call> call;
    std::optional<Question> question;
    std::optional<sentrel::SR_DBusMessage> reply;  // to be sent as it is
    std::shared_ptr<const std::string> text;       // to be returned; shared by all that return it
};

class CallInterface : public sentrel::SR_DBusIAdaptor {
public:
    CallInterface();
    const char* Introspect() const override;

protected:
    virtual Errand& Reading() = 0;

private:
    sentrel::SR_DBusMessage CallCommand(const sentrel::SR_DBusCallMessage& call);
};

class ControlInterface : public sentrel::SR_DBusIAdaptor {
public:
    ControlInterface();
    const char* Introspect() const override;

protected:
    virtual Errand& Reading() = 0;

private:
    sentrel::SR_DBusMessage Ask(const sentrel::SR_DBusCallMessage& call);
};

class Gate : public CallInterface, public ControlInterface, public sentrel::SR_DBusAdaptor {
public:
    // Registers the object on `bus`. Throws SR_DBusException.
    explicit Gate(sentrel::SR_DBusConnection& bus);

    // `message` must be a call that has a sender.
    std::shared_ptr<const Errand> Read(const sentrel::SR_DBusCallMessage& message);

protected:
    Errand& Reading() override { return *reading; }

private:
    void Keep(Errand& errand, const sentrel::SR_DBusMessage& reply);

    std::shared_ptr<Errand> reading;                 // the last one
    std::shared_ptr<const std::string> description;  // the last one that was asked for
};

}  // namespace agent

#endif
