// SPDX-License-Identifier: Apache-2.0
#include "Gate.h"

#include <sentrel/SR_Message.h>

#include <cstring>

#include "parse/Words.h"

namespace agent {

const char kServiceName[] = "org.sentrel.sr_agent";
const char kControlInterface[] = "org.sentrel.sr_agent.Control1";

namespace {

const char kInvalidArgs[] = "org.freedesktop.DBus.Error.InvalidArgs";
const char kLimitsExceeded[] = "org.freedesktop.DBus.Error.LimitsExceeded";
const char kUnknownInterface[] = "org.freedesktop.DBus.Error.UnknownInterface";
const char kNotSupported[] = "org.freedesktop.DBus.Error.NotSupported";
const char kUnknownMethod[] = "org.freedesktop.DBus.Error.UnknownMethod";
const char kUnknownObject[] = "org.freedesktop.DBus.Error.UnknownObject";

// What a call gets that cannot be read.
struct CallError {
    const char* name;
    const char* text;
};

bool Is(const char* text, const char* wanted) {
    return text != nullptr && std::strcmp(text, wanted) == 0;
}

std::string Path() {
    std::string path;
    sentrel::ServiceNameToPath(kServiceName, path);
    return path;
}

// What holds for every call, whatever it asks.
void CheckHeader(const sentrel::SR_DBusCallMessage& call) {
    if (call.GetInterface() == nullptr) {
        throw CallError{kUnknownInterface, "the call names no interface"};
    }
    // Nobody would learn what became of it.
    if (!sentrel::SR_DBusAdaptor::WantsReply(call)) {
        throw CallError{kNotSupported, "a call must want its reply"};
    }
}

struct Arguments {
    std::string operation;
    std::string text;
    int descriptor = 0;
};

// They must be those of `signature`, in its order, and no others: the first text is the operation,
// the second one its argument text.
Arguments ReadArguments(const sentrel::SR_DBusCallMessage& call, const std::string& signature) {
    sentrel::SR_DBusMessageIter reader = call.GetReader();
    Arguments arguments;
    std::string* next = &arguments.operation;
    bool tooLong = false;
    for (const char type : signature) {
        if (reader.GetArgType() != type) {
            throw CallError{kInvalidArgs, "the arguments are not the ones that are expected"};
        }
        if (type == 's') {
            const char* const given = reader.GetString();
            tooLong = tooLong || strnlen(given, kLongestText + 1) > kLongestText;
            if (!tooLong) {
                *next = given;
            }
            next = &arguments.text;
        } else {
            arguments.descriptor = reader.GetInt32();
        }
        ++reader;
    }
    if (reader.GetArgType() != 0) {
        throw CallError{kInvalidArgs, "there are more arguments than are expected"};
    }
    if (tooLong) {
        throw CallError{kLimitsExceeded, "the argument text is too long"};
    }
    return arguments;
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

CallInterface::CallInterface() : SR_DBusIAdaptor(kServiceName) {
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
    Arguments arguments;
    try {
        CheckHeader(call);
        arguments = ReadArguments(call, "ssi");
    } catch (const CallError& error) {
        return sentrel::SR_DBusErrorMessage(call, error.name, error.text);
    }
    Reading().call = Call{call.GetSender(), std::move(arguments.operation),
                          std::move(arguments.text), arguments.descriptor};
    return call;
}

ControlInterface::ControlInterface() : SR_DBusIAdaptor(kControlInterface) {
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
    Arguments arguments;
    try {
        CheckHeader(call);
        arguments = ReadArguments(call, Is(call.GetMember(), "Test") ? "ss" : "");
    } catch (const CallError& error) {
        return sentrel::SR_DBusErrorMessage(call, error.name, error.text);
    }
    Reading().question =
        Question{call.GetMember(), std::move(arguments.operation), std::move(arguments.text)};
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
