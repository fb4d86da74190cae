// SPDX-License-Identifier: Apache-2.0
// The serving half of the library: an SR_DBusAdaptor on an SR_DBusDispatcher. Log lines are
// dropped (dlog_dropped.c).
#include <dbus/dbus.h>
#include <sentrel/sentrel.h>

#include <string>

#include "serve.h"

namespace {

class Interface : public sentrel::SR_DBusIAdaptor {
public:
    Interface() : SR_DBusIAdaptor(BENCH_NAME) { AddMethod(BENCH_MEMBER, this, &Interface::Answer); }

private:
    sentrel::SR_DBusMessage Answer(const sentrel::SR_DBusCallMessage& call) {
        sentrel::SR_DBusMessageIter reader = call.GetReader();
        (void)reader.GetString();
        ++reader;
        (void)reader.GetString();
        ++reader;
        (void)reader.GetInt32();
        sentrel::SR_DBusReturnMessage reply(call);
        (void)reply.GetWriter().AppendString(BENCH_REPLY);
        return reply;
    }
};

class Agent : public Interface, public sentrel::SR_DBusAdaptor {
public:
    explicit Agent(sentrel::SR_DBusConnection& bus) : SR_DBusAdaptor(bus, BENCH_PATH) {}
};

}  // namespace

int main(int argc, char** argv) {
    try {
        sentrel::SR_DBusDispatcher dispatcher;
        sentrel::SR_DBusConnection connection = sentrel::SR_DBusConnection::SystemBus(dispatcher);
        Agent agent(connection);
        connection.RequestName(serve_name(argc, argv), DBUS_NAME_FLAG_DO_NOT_QUEUE);
        serve_ready();
        // Enter() would not see the bus go away.
        while (agent.Connected()) {
            dispatcher.DispatchPending();
            dispatcher.Dispatch();
        }
    } catch (const std::exception& exception) {
        measure_fail(exception.what());
    }
}
