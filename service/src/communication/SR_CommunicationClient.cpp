// SPDX-License-Identifier: Apache-2.0
#include "SR_CommunicationClient.h"

#include <locale>
#include <sstream>

#include "SR_DBusConnection.h"
#include "SR_DBusError.h"
#include "SR_LogImpl.h"
#include "SR_Status.h"

namespace sentrel {

namespace {

const char kServiceUnknown[] = "org.freedesktop.DBus.Error.ServiceUnknown";

}  // namespace

SR_CommunicationClient::SR_CommunicationClient(SR_DBusConnection& connection,
                                               const std::string& name, const std::string& path)
    : SR_DBusIProxy(name), SR_DBusProxy(connection, path, name) {}

SR_CommunicationClient::~SR_CommunicationClient() {}

std::string SR_CommunicationClient::CallCommand(const std::string& agent, const std::string& args,
                                                int descriptor) {
    SR_DBusCallMessage call;
    SR_DBusMessageIter writer = call.GetWriter();
    (void)writer.AppendString(agent);
    (void)writer.AppendString(args);
    (void)writer.AppendInt32(descriptor);
    (void)call.SetMember("CallCommand");
    const SR_DBusMessage reply = Invoke(call);
    SR_DBusMessageIter reader = reply.GetReader();
    std::string result(reader.GetString());
    ++reader;
    return result;
}

int Communication::SendMessage(const std::string& service, const Message& request,
                               Message& response) {
    // The handlers run when the connection is closed and this dispatcher is gone.
    try {
        SR_DBusDispatcher callDispatcher;
        SR_DBusConnection connection = SR_DBusConnection::SystemBus(callDispatcher);
        std::string path;
        ServiceNameToPath(service, path);
        SR_CommunicationClient client(connection, service, path);
        const std::string serial =
            client.CallCommand(request.GetAgent(), request.Get(), request.GetOutputStream());
        SR_LOG(DBG, "responseSerial: " << serial.c_str());

        // A number that cannot be read is 0, one that does not fit is the nearest int; behind
        // either nothing more is read.
        std::stringstream reader(serial);
        reader.imbue(std::locale::classic());  // not the program's: the wire knows no grouping
        int status = 0;
        int returnValue = 0;
        reader >> status >> returnValue;
        response.SetRv(returnValue);
        return status == 0 ? SR_COMM_OK : status;
    } catch (const SR_DBusException& exception) {
        SR_LOG(ERR, " service: " << service.c_str() << " has dbus error: " << exception.what()
                                 << " (" << exception.name() << ")"
                                 << " for agent: " << request.GetAgent());
        return std::string(exception.name()) == kServiceUnknown ? SR_COMM_NO_SERVICE
                                                                : SR_COMM_FAILED;
    } catch (const std::exception& exception) {
        // Deliberate spelling, here and below (pinned by ExchangeTest, "AStandardExceptionIs6" and
        // "AnUnknownExceptionIs6").
        SR_LOG(ERR, "sarvice: " << service.c_str() << " has exception error: " << exception.what()
                                << " for agent: " << request.GetAgent());
        return SR_COMM_FAILED;
    } catch (...) {
        SR_LOG(ERR, "sarvice: " << service.c_str() << " has unknown exception error"
                                << " for agent: " << request.GetAgent());
        return SR_COMM_FAILED;
    }
}

}  // namespace sentrel
