// SPDX-License-Identifier: Apache-2.0
// A serving program: owns org.example.Greeter on the system bus and answers one method. Ends when
// the bus does.
//     c++ -std=c++17 serve.cpp $(pkg-config --cflags --libs sentrel-client) -o serve
#include <sentrel/sentrel.h>

#include <iostream>
#include <string>

// The interfaces first, SR_DBusAdaptor last among the bases.
class Greeter : public sentrel::SR_DBusIAdaptor, public sentrel::SR_DBusAdaptor {
public:
    explicit Greeter(sentrel::SR_DBusConnection& bus)
        : SR_DBusIAdaptor("org.example.Greeter"), SR_DBusAdaptor(bus, "/org/example/Greeter") {
        AddMethod("Greet", this, &Greeter::Greet);
    }

private:
    // What it returns is sent; what it throws becomes an error reply.
    sentrel::SR_DBusMessage Greet(const sentrel::SR_DBusCallMessage& call) {
        const std::string name = call.GetReader().GetString();  // throws for another type
        sentrel::SR_DBusReturnMessage reply(call);
        (void)reply.GetWriter().AppendString("Hello, " + name + "!");
        return reply;
    }
};

int main() {
    try {
        sentrel::SR_DBusDispatcher loop;  // first: it must outlive the connection
        sentrel::SR_DBusConnection bus = sentrel::SR_DBusConnection::SystemBus(loop);
        Greeter greeter(bus);  // before the name, so that no call finds the name without it
        bus.RequestName("org.example.Greeter", DBUS_NAME_FLAG_DO_NOT_QUEUE);
        std::cout << "ready" << std::endl;
        while (greeter.Connected()) {
            loop.DispatchPending();
            loop.Dispatch();
        }
    } catch (const sentrel::SR_DBusException& exception) {
        std::cerr << exception.name() << ": " << exception.what() << std::endl;
        return 1;
    }
    return 0;
}
