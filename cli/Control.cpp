// SPDX-License-Identifier: Apache-2.0
#include "Control.h"

#include <sentrel/sentrel.h>

namespace cli {

namespace {

const char kName[] = "org.sentrel.sr_agent";
const char kPath[] = "/org/sentrel/sr_agent";
const char kOperations[] = "org.sentrel.sr_agent";
const char kControl[] = "org.sentrel.sr_agent.Control1";
const char kNoReply[] = "org.freedesktop.DBus.Error.NoReply";
const int kUsualLimit = -1;  // libdbus's own

Answer Failure(const sentrel::SR_DBusException& exception) {
    return Answer{exception.name(), exception.what()};
}

// A connection, and the dispatcher that must outlive it.
class Bus {
public:
    // Throws SR_DBusException.
    Bus() : connection(sentrel::SR_DBusConnection::SystemBus(dispatcher)) {}

    // With `readAnswer`, the answer must begin with a text.
    Answer Call(const char* interfaceName, const std::string& member,
                const std::vector<std::string>& texts, int limit, bool readAnswer) {
        sentrel::SR_DBusCallMessage call;
        (void)call.SetDestination(kName);
        (void)call.SetPath(kPath);
        (void)call.SetInterface(interfaceName);
        (void)call.SetMember(member);
        sentrel::SR_DBusMessageIter writer = call.GetWriter();
        for (const std::string& text : texts) {
            (void)writer.AppendString(text);
        }
        try {
            const sentrel::SR_DBusMessage reply = connection.SendReplyAndBlock(call, limit);
            return Answer{"", readAnswer ? reply.GetReader().GetString() : ""};
        } catch (const sentrel::SR_DBusException& exception) {
            return Failure(exception);
        }
    }

    bool HasAgent() {
        try {
            return connection.HasName(kName);
        } catch (const sentrel::SR_DBusException&) {
            return false;
        }
    }

private:
    sentrel::SR_DBusDispatcher dispatcher;
    sentrel::SR_DBusConnection connection;
};

}  // namespace

Answer AskControl(const std::string& member, const std::vector<std::string>& texts) {
    try {
        return Bus().Call(kControl, member, texts, kUsualLimit, true);
    } catch (const sentrel::SR_DBusException& exception) {
        return Failure(exception);
    }
}

Findings Examine(int limit) {
    Findings findings;
    try {
        Bus bus;
        // Called before the name is looked for: the bus may be the one to start the agent.
        findings.probe = bus.Call(kOperations, "CallCommand", {}, limit, false);
        findings.owned = bus.HasAgent();
        if (findings.owned && findings.probe.error != kNoReply) {
            findings.status = bus.Call(kControl, "Status", {}, limit, true);
        }
    } catch (const sentrel::SR_DBusException& exception) {
        findings.connected = Failure(exception);
    }
    return findings;
}

}  // namespace cli
