// SPDX-License-Identifier: Apache-2.0
#include "Gate.h"

#include <sentrel/SR_Message.h>

#include <boost/make_shared.hpp>
#include <cstdio>
#include <exception>
#include <utility>

#include "Words.h"

namespace agent {

const char kName[] = "org.sentrel.sr_agent";

namespace {

const char kInvalidArgs[] = "org.freedesktop.DBus.Error.InvalidArgs";
const char kLimitsExceeded[] = "org.freedesktop.DBus.Error.LimitsExceeded";
const char kUnknownInterface[] = "org.freedesktop.DBus.Error.UnknownInterface";
const char kNotSupported[] = "org.freedesktop.DBus.Error.NotSupported";

std::string Path() {
    std::string path;
    sentrel::ServiceNameToPath(kName, path);
    return path;
}

// False when the arguments are not exactly "ssi".
bool ReadArguments(const sentrel::SR_DBusCallMessage& call, Request& request) {
    sentrel::SR_DBusMessageIter reader = call.GetReader();
    if (reader.GetArgType() != 's') {
        return false;
    }
    request.agent = reader.GetString();
    if ((++reader).GetArgType() != 's') {
        return false;
    }
    request.text = reader.GetString();
    if ((++reader).GetArgType() != 'i') {
        return false;
    }
    request.descriptor = reader.GetInt32();
    return (++reader).GetArgType() == 0;
}

}  // namespace

Gate::Gate(sentrel::SR_DBusConnection& bus, Receiver onRequest)
    : SR_DBusIAdaptor(kName), SR_DBusAdaptor(bus, Path()), receiver(std::move(onRequest)) {
    AddMethod("CallCommand",
              sentrel::Slot<sentrel::SR_DBusMessage, const sentrel::SR_DBusCallMessage&>(
                  boost::make_shared<sentrel::Callback<Gate, sentrel::SR_DBusMessage,
                                                       const sentrel::SR_DBusCallMessage&> >(
                      this, &Gate::CallCommand)));
}

const char* Gate::Introspect() const {
    return "  <interface name=\"org.sentrel.sr_agent\">\n"
           "    <method name=\"CallCommand\">\n"
           "      <arg name=\"agent\" type=\"s\" direction=\"in\"/>\n"
           "      <arg name=\"arguments\" type=\"s\" direction=\"in\"/>\n"
           "      <arg name=\"descriptor\" type=\"i\" direction=\"in\"/>\n"
           "      <arg name=\"answer\" type=\"s\" direction=\"out\"/>\n"
           "    </method>\n"
           "  </interface>\n";
}

sentrel::SR_DBusMessage Gate::CallCommand(const sentrel::SR_DBusCallMessage& call) {
    if (call.GetInterface() == nullptr) {
        return sentrel::SR_DBusErrorMessage(call, kUnknownInterface, "the call names no interface");
    }
    Request request;
    if (!ReadArguments(call, request)) {
        return sentrel::SR_DBusErrorMessage(call, kInvalidArgs, "the arguments must be \"ssi\"");
    }
    if (request.text.size() > kMostBytes) {
        return sentrel::SR_DBusErrorMessage(call, kLimitsExceeded, "the argument text is too long");
    }
    if (call.GetSender() == nullptr) {
        return sentrel::SR_DBusErrorMessage(call, kInvalidArgs, "the call has no sender");
    }
    request.sender = call.GetSender();
    // Nobody would learn what became of it.
    if (!WantsReply(call)) {
        return sentrel::SR_DBusErrorMessage(call, kNotSupported, "a call must want its reply");
    }
    OwedAnswer answer(new agent::Answer(*this, call));
    // From here on the answer is the reply: an exception must not become a second one.
    try {
        receiver(request, std::move(answer));
    } catch (const std::exception& exception) {
        std::fprintf(stderr, "sentrel-agent: request of %s: %s\n", request.sender.c_str(),
                     exception.what());
    }
    return call;
}

}  // namespace agent
