// SPDX-License-Identifier: Apache-2.0
#include "Gate.h"

#include <sentrel/SR_Message.h>

#include <cstring>

#include "parse/Words.h"

namespace agent {

const char kName[] = "org.sentrel.sr_agent";
const char kControlName[] = "org.sentrel.sr_agent.Control1";

namespace {

const char kInvalidArgs[] = "org.freedesktop.DBus.Error.InvalidArgs";
const char kLimitsExceeded[] = "org.freedesktop.DBus.Error.LimitsExceeded";
const char kUnknownInterface[] = "org.freedesktop.DBus.Error.UnknownInterface";
const char kNotSupported[] = "org.freedesktop.DBus.Error.NotSupported";
const char kUnknownMethod[] = "org.freedesktop.DBus.Error.UnknownMethod";
const char kUnknownObject[] = "org.freedesktop.DBus.Error.UnknownObject";

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
    // Nobody would learn what became of it.
    if (!sentrel::SR_DBusAdaptor::WantsReply(call)) {
        throw Turned{kNotSupported, "a call must want its reply"};
    }
}

// The arguments in the order of `signature`; they must be these and no others.
void ReadArguments(const sentrel::SR_DBusCallMessage& call, const std::string& signature,
                   std::string* operation, std::string* text, int* number) {
    sentrel::SR_DBusMessageIter reader = call.GetReader();
    // The first string is the agent's name, the second the text.
    std::string* next = operation;
    bool tooLong = false;
    for (const char type : signature) {
        if (reader.GetArgType() != type) {
            throw Turned{kInvalidArgs, "the arguments are not the ones that are expected"};
        }
        if (type == 's') {
            const char* const given = reader.GetString();
            tooLong = tooLong || strnlen(given, kLongestText + 1) > kLongestText;
            if (next != nullptr && !tooLong) {
                *next = given;
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

// For those who look from above, as tools that draw the tree of a bus do: what is next on the way
// to the object. Empty for a path that does not lead there.
std::string NextOnTheWay(const std::string& path) {
    const std::string end = Path();
    const std::string start = path == "/" ? path : path + "/";
    if (end.size() <= start.size() || end.compare(0, start.size(), start) != 0) {
        return "";
    }
    return end.substr(start.size(), end.find('/', start.size()) - start.size());
}

bool Is(const char* text, const char* wanted) {
    return text != nullptr && std::strcmp(text, wanted) == 0;
}

// For a path at which there is nothing.
sentrel::SR_DBusMessage AnswerElsewhere(const sentrel::SR_DBusReturnAddress& address,
                                        const sentrel::SR_DBusCallMessage& message) {
    const char* const path = message.GetPath();
    const std::string next = NextOnTheWay(path != nullptr ? path : "");
    if (next.empty() || !Is(message.GetInterface(), "org.freedesktop.DBus.Introspectable") ||
        !Is(message.GetMember(), "Introspect")) {
        return next.empty() ? address.Error(kUnknownObject, "there is no such object here")
                            : address.Error(kUnknownMethod, "there is nothing to call here");
    }
    sentrel::SR_DBusMessage reply = address.Return();
    (void)reply.GetWriter().AppendString("<node>\n  <node name=\"" + next + "\"/>\n</node>\n");
    return reply;
}

}  // namespace

CallInterface::CallInterface() : SR_DBusIAdaptor(kName) {
    AddMethod("CallCommand", this, &CallInterface::CallCommand);
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
        ReadArguments(call, "ssi", &request.operation, &request.text, &request.descriptor);
    } catch (const Turned& turned) {
        return sentrel::SR_DBusErrorMessage(call, turned.name, turned.text);
    }
    request.sender = call.GetSender();
    Reading().call = std::move(request);
    return call;
}

ControlInterface::ControlInterface() : SR_DBusIAdaptor(kControlName) {
    for (const char* member : {"Test", "Status", "Reload", "Mounts"}) {
        AddMethod(member, this, &ControlInterface::Ask);
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
        ReadArguments(call, question.member == "Test" ? "ss" : "", &question.operation,
                      &question.text, nullptr);
    } catch (const Turned& turned) {
        return sentrel::SR_DBusErrorMessage(call, turned.name, turned.text);
    }
    Reading().question = std::move(question);
    return call;
}

Gate::Gate(sentrel::SR_DBusConnection& bus) : SR_DBusAdaptor(bus, Path()) {}

std::shared_ptr<const Errand> Gate::Read(const sentrel::SR_DBusCallMessage& message) {
    const auto errand = std::make_shared<Errand>(sentrel::SR_DBusReturnAddress(message));
    // Whether the process is there is told at every path.
    const bool isPing = Is(message.GetInterface(), "org.freedesktop.DBus.Peer");
    if (!isPing && !Is(message.GetPath(), Path().c_str())) {
        errand->reply.emplace(AnswerElsewhere(errand->address, message));
        return errand;
    }
    reading = errand;
    const sentrel::SR_DBusMessage reply = Answer(message);
    if (!errand->call && !errand->question) {
        Keep(*errand, reply);
    }
    return errand;
}

// The object's description is long and always the same: it is kept once.
void Gate::Keep(Errand& errand, const sentrel::SR_DBusMessage& reply) {
    const int returned = 2;  // libdbus's message type
    sentrel::SR_DBusMessageIter reader = reply.GetReader();
    if (reply.GetType() != returned || reader.GetArgType() != 's') {
        errand.reply.emplace(reply);
        return;
    }
    const char* const text = reader.GetString();
    if (!description || *description != text) {
        description = std::make_shared<const std::string>(text);
    }
    errand.text = description;
}

}  // namespace agent
