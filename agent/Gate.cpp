// SPDX-License-Identifier: Apache-2.0
#include "Gate.h"

#include <sentrel/SR_Message.h>

#include <boost/make_shared.hpp>
#include <exception>

#include "Log.h"
#include "Words.h"

namespace agent {

const char kName[] = "org.sentrel.sr_agent";
const char kControlName[] = "org.sentrel.sr_agent.Control1";

namespace {

const char kInvalidArgs[] = "org.freedesktop.DBus.Error.InvalidArgs";
const char kLimitsExceeded[] = "org.freedesktop.DBus.Error.LimitsExceeded";
const char kUnknownInterface[] = "org.freedesktop.DBus.Error.UnknownInterface";
const char kNotSupported[] = "org.freedesktop.DBus.Error.NotSupported";

// An error instead of an answer.
struct Turned {
    const char* name;
    const char* text;
};

std::string Path() {
    std::string path;
    sentrel::ServiceNameToPath(kName, path);
    return path;
}

// What holds for every call, whatever it asks.
void CheckHeader(const sentrel::SR_DBusCallMessage& call) {
    if (call.GetInterface() == nullptr) {
        throw Turned{kUnknownInterface, "the call names no interface"};
    }
    if (call.GetSender() == nullptr) {
        throw Turned{kInvalidArgs, "the call has no sender"};
    }
    // Nobody would learn what became of it.
    if (!sentrel::SR_DBusAdaptor::WantsReply(call)) {
        throw Turned{kNotSupported, "a call must want its reply"};
    }
}

// The arguments in the order of `signature`; they must be these and no others.
void ReadArguments(const sentrel::SR_DBusCallMessage& call, const std::string& signature,
                   std::string* agent, std::string* text, int* number) {
    sentrel::SR_DBusMessageIter reader = call.GetReader();
    // The first string is the agent's name, the second the text.
    std::string* next = agent;
    bool tooLong = false;
    for (const char type : signature) {
        if (reader.GetArgType() != type) {
            throw Turned{kInvalidArgs, "the arguments are not the ones that are expected"};
        }
        if (type == 's') {
            if (next != nullptr) {
                *next = reader.GetString();
                tooLong = tooLong || next->size() > kLongestText;
            }
            next = text;
        } else if (number != nullptr) {
            *number = reader.GetInt32();
        }
        ++reader;
    }
    if (reader.GetArgType() != 0) {
        throw Turned{kInvalidArgs, "there are more arguments than are expected"};
    }
    if (tooLong) {
        throw Turned{kLimitsExceeded, "the argument text is too long"};
    }
}

template <typename Interface>
sentrel::Slot<sentrel::SR_DBusMessage, const sentrel::SR_DBusCallMessage&> SlotOf(
    Interface* object,
    sentrel::SR_DBusMessage (Interface::*method)(const sentrel::SR_DBusCallMessage&)) {
    return sentrel::Slot<sentrel::SR_DBusMessage, const sentrel::SR_DBusCallMessage&>(
        boost::make_shared<sentrel::Callback<Interface, sentrel::SR_DBusMessage,
                                             const sentrel::SR_DBusCallMessage&> >(object, method));
}

// From here on the answer is the reply: an exception must not become a second one.
template <typename Function>
void Guarded(const std::string& sender, const Function& function) {
    try {
        function();
    } catch (const std::exception& exception) {
        StandardError().WriteLine("a call of " + sender + ": " + exception.what());
    }
}

}  // namespace

TextReply::~TextReply() {
    try {
        if (!error.empty()) {
            (void)adaptor.Reply(call, sentrel::SR_DBusErrorMessage(call, error, text));
            return;
        }
        sentrel::SR_DBusReturnMessage reply(call);
        if (reply.GetWriter().AppendString(text)) {
            (void)adaptor.Reply(call, reply);
        }
    } catch (const std::exception&) {
        // Out of memory: the caller's wait ends with its timeout.
    }
}

void TextReply::Set(const std::string& newText) {
    error.clear();
    text = newText;
}

void TextReply::SetError(const std::string& newName, const std::string& newText) {
    error = newName;
    text = newText;
}

CallInterface::CallInterface() : SR_DBusIAdaptor(kName) {
    AddMethod("CallCommand", SlotOf(this, &CallInterface::CallCommand));
}

const char* CallInterface::Introspect() const {
    return "  <interface name=\"org.sentrel.sr_agent\">\n"
           "    <method name=\"CallCommand\">\n"
           "      <arg name=\"agent\" type=\"s\" direction=\"in\"/>\n"
           "      <arg name=\"arguments\" type=\"s\" direction=\"in\"/>\n"
           "      <arg name=\"descriptor\" type=\"i\" direction=\"in\"/>\n"
           "      <arg name=\"answer\" type=\"s\" direction=\"out\"/>\n"
           "    </method>\n"
           "  </interface>\n";
}

sentrel::SR_DBusMessage CallInterface::CallCommand(const sentrel::SR_DBusCallMessage& call) {
    Call request;
    try {
        CheckHeader(call);
        ReadArguments(call, "ssi", &request.agent, &request.text, &request.descriptor);
    } catch (const Turned& turned) {
        return sentrel::SR_DBusErrorMessage(call, turned.name, turned.text);
    }
    request.sender = call.GetSender();
    const SharedAnswer answer = std::make_shared<Answer>(Object(), call);
    Guarded(request.sender, [&] { onCall(request, answer); });
    return call;
}

ControlInterface::ControlInterface() : SR_DBusIAdaptor(kControlName) {
    for (const char* member : {"Test", "Status", "Reload", "Mounts"}) {
        AddMethod(member, SlotOf(this, &ControlInterface::Ask));
    }
}

const char* ControlInterface::Introspect() const {
    return "  <interface name=\"org.sentrel.sr_agent.Control1\">\n"
           "    <method name=\"Test\">\n"
           "      <arg name=\"agent\" type=\"s\" direction=\"in\"/>\n"
           "      <arg name=\"arguments\" type=\"s\" direction=\"in\"/>\n"
           "      <arg name=\"decision\" type=\"s\" direction=\"out\"/>\n"
           "    </method>\n"
           "    <method name=\"Status\">\n"
           "      <arg name=\"status\" type=\"s\" direction=\"out\"/>\n"
           "    </method>\n"
           "    <method name=\"Reload\">\n"
           "      <arg name=\"result\" type=\"s\" direction=\"out\"/>\n"
           "    </method>\n"
           "    <method name=\"Mounts\">\n"
           "      <arg name=\"mounts\" type=\"s\" direction=\"out\"/>\n"
           "    </method>\n"
           "  </interface>\n";
}

sentrel::SR_DBusMessage ControlInterface::Ask(const sentrel::SR_DBusCallMessage& call) {
    Question question;
    try {
        CheckHeader(call);
        question.member = call.GetMember();
        ReadArguments(call, question.member == "Test" ? "ss" : "", &question.agent, &question.text,
                      nullptr);
    } catch (const Turned& turned) {
        return sentrel::SR_DBusErrorMessage(call, turned.name, turned.text);
    }
    question.sender = call.GetSender();
    const std::shared_ptr<TextReply> reply = std::make_shared<TextReply>(Object(), call);
    Guarded(question.sender, [&] { onQuestion(question, reply); });
    return call;
}

Gate::Gate(sentrel::SR_DBusConnection& bus, const CallReceiver& callReceiver,
           const QuestionReceiver& questionReceiver)
    : SR_DBusAdaptor(bus, Path()) {
    onCall = callReceiver;
    onQuestion = questionReceiver;
}

}  // namespace agent
