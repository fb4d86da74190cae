// SPDX-License-Identifier: Apache-2.0
// A stranger's C++17 program: a message of its own, a dispatcher, and an exception that crosses the
// library's border. It is run with DBUS_SYSTEM_BUS_ADDRESS set to a socket that does not exist.
#include <sentrel/sentrel.h>

#include <cstring>
#include <exception>
#include <iostream>
#include <typeinfo>

namespace {

int failures = 0;

void Check(bool holds, const char* what) {
    if (!holds) {
        std::cerr << "failed: " << what << '\n';
        ++failures;
    }
}

void AMessageKeepsItsArguments() {
    sentrel::SR_DBusCallMessage call;
    Check(call.SetMember("Greet"), "a member can be set");
    Check(std::strcmp(call.GetMember(), "Greet") == 0, "a member is kept");
    sentrel::SR_DBusMessageIter writer = call.GetWriter();
    Check(writer.AppendString("hello") && writer.AppendInt32(7), "arguments can be appended");
    sentrel::SR_DBusMessageIter reader = call.GetReader();
    Check(std::strcmp(reader.GetString(), "hello") == 0, "the text is kept");
    Check((++reader).GetInt32() == 7, "the number is kept");
    try {
        reader.GetString();
        Check(false, "a number is no text");
    } catch (const sentrel::SR_DBusException& error) {
        Check(std::strcmp(error.name(), "org.freedesktop.DBus.Error.InvalidArgs") == 0,
              "the error's name");
    }
}

void AMissingBusIsAnException() {
    sentrel::SR_DBusDispatcher dispatcher;
    try {
        sentrel::SR_DBusConnection::SystemBus(dispatcher);
        Check(false, "there is no bus");
    } catch (const std::exception& error) {
        Check(typeid(error) == typeid(sentrel::SR_DBusException), "one type on both sides");
        Check(std::strlen(error.what()) > 0, "the error has a text");
    }
}

class Timer : public sentrel::SR_TimeoutEvent {
public:
    explicit Timer(sentrel::SR_MainLoop* loop) : SR_TimeoutEvent(1, true, loop) {
        callback.reset(new sentrel::Callback<Timer, void, SR_TimeoutEvent&>(this, &Timer::Fire));
    }
    bool fired = false;

private:
    void Fire(SR_TimeoutEvent&) { fired = true; }
};

void TheLoopFiresATimer() {
    sentrel::SR_DBusDispatcher dispatcher;
    Timer timer(&dispatcher);
    for (int turn = 0; turn < 1000 && !timer.fired; ++turn) {
        dispatcher.Dispatch();
    }
    Check(timer.fired, "a timer of 1 ms fires");
}

}  // namespace

int main() {
    AMessageKeepsItsArguments();
    AMissingBusIsAnException();
    TheLoopFiresATimer();
    return failures;
}
