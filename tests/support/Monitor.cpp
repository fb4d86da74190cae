// SPDX-License-Identifier: Apache-2.0
#include "Monitor.h"

#include <chrono>
#include <stdexcept>

#include "ChildProcess.h"
#include "PrivateBus.h"

namespace test {

namespace {

typedef std::chrono::steady_clock Clock;

std::string Text(const char* value) {
    return value != nullptr ? value : "";
}

// Throws what is set in a libdbus error.
void Check(DBusError& error) {
    if (dbus_error_is_set(&error)) {
        const std::string text = Text(error.name) + ": " + Text(error.message);
        dbus_error_free(&error);
        throw std::runtime_error(text);
    }
}

DBusConnection* Open() {
    DBusError error = DBUS_ERROR_INIT;
    DBusConnection* connection =
        dbus_connection_open_private(PrivateBus::Address().c_str(), &error);
    Check(error);
    dbus_connection_set_exit_on_disconnect(connection, FALSE);
    if (!dbus_bus_register(connection, &error)) {
        dbus_connection_close(connection);
        dbus_connection_unref(connection);
        Check(error);
    }
    return connection;
}

void Exchange(DBusConnection* connection, DBusMessage* call) {
    DBusError error = DBUS_ERROR_INIT;
    DBusMessage* reply =
        dbus_connection_send_with_reply_and_block(connection, call, kLimit, &error);
    dbus_message_unref(call);
    Check(error);
    dbus_message_unref(reply);
}

void BecomeMonitor(DBusConnection* connection) {
    DBusMessage* call = dbus_message_new_method_call(
        DBUS_SERVICE_DBUS, DBUS_PATH_DBUS, "org.freedesktop.DBus.Monitoring", "BecomeMonitor");
    const char* none[] = {nullptr};
    const char* const* rules = none;
    const dbus_uint32_t flags = 0;
    dbus_message_append_args(call, DBUS_TYPE_ARRAY, DBUS_TYPE_STRING, &rules, 0, DBUS_TYPE_UINT32,
                             &flags, DBUS_TYPE_INVALID);
    Exchange(connection, call);
}

std::string Argument(DBusMessageIter& argument) {
    const int type = dbus_message_iter_get_arg_type(&argument);
    if (type == DBUS_TYPE_STRING) {
        const char* value = nullptr;
        dbus_message_iter_get_basic(&argument, &value);
        return value;
    }
    if (type == DBUS_TYPE_INT32) {
        dbus_int32_t value = 0;
        dbus_message_iter_get_basic(&argument, &value);
        return std::to_string(value);
    }
    if (type == DBUS_TYPE_UINT32) {
        dbus_uint32_t value = 0;
        dbus_message_iter_get_basic(&argument, &value);
        return std::to_string(value);
    }
    return "?";
}

}  // namespace

PlainConnection::PlainConnection() : connection(Open()) {}

PlainConnection::~PlainConnection() {
    dbus_connection_close(connection);
    dbus_connection_unref(connection);
}

std::string PlainConnection::UniqueName() const {
    return dbus_bus_get_unique_name(connection);
}

void PlainConnection::AskBus(const char* member) {
    Exchange(connection, dbus_message_new_method_call(DBUS_SERVICE_DBUS, DBUS_PATH_DBUS,
                                                      DBUS_INTERFACE_DBUS, member));
}

Seen Seen::Of(DBusMessage* message) {
    Seen seen;
    seen.type = dbus_message_get_type(message);
    seen.sender = test::Text(dbus_message_get_sender(message));
    seen.destination = test::Text(dbus_message_get_destination(message));
    seen.path = test::Text(dbus_message_get_path(message));
    seen.interface = test::Text(dbus_message_get_interface(message));
    seen.member = test::Text(dbus_message_get_member(message));
    seen.error = test::Text(dbus_message_get_error_name(message));
    seen.signature = test::Text(dbus_message_get_signature(message));
    seen.serial = dbus_message_get_serial(message);
    seen.replySerial = dbus_message_get_reply_serial(message);
    seen.noReply = dbus_message_get_no_reply(message) != 0;
    seen.noAutoStart = dbus_message_get_auto_start(message) == 0;
    seen.descriptors = dbus_message_contains_unix_fds(message) != 0;
    DBusMessageIter argument;
    if (dbus_message_iter_init(message, &argument)) {
        do {
            seen.arguments.push_back(Argument(argument));
        } while (dbus_message_iter_next(&argument));
    }
    return seen;
}

std::string Seen::Text() const {
    static const char* const kTypes[] = {"invalid", "call", "return", "error", "signal"};
    std::string text(type >= 0 && type <= 4 ? kTypes[type] : "?");
    text += " " + sender + ">" + destination;
    if (!path.empty()) {
        text += " " + path;
    }
    if (!error.empty()) {
        text += " " + error;
    }
    if (!member.empty()) {
        text += " " + interface + "." + member;
    }
    text += " " + signature + "(";
    for (std::size_t i = 0; i < arguments.size(); ++i) {
        text += (i > 0 ? ", " : "") + arguments[i];
    }
    return text + ")";
}

Monitor::Monitor() {
    BecomeMonitor(watcher.Get());
    (void)Take();
}

std::vector<Seen> Monitor::Take() {
    marker.AskBus("GetId");
    const std::string name = marker.UniqueName();
    std::vector<Seen> seen = TakeUntil([&name](const Seen& message) {
        return message.type == DBUS_MESSAGE_TYPE_METHOD_RETURN && message.destination == name;
    });
    std::vector<Seen> others;
    for (const Seen& message : seen) {
        if (message.sender != name && message.destination != name) {
            others.push_back(message);
        }
    }
    return others;
}

std::vector<Seen> Monitor::TakeUntil(const std::function<bool(const Seen&)>& last) {
    const Clock::time_point end = Clock::now() + std::chrono::milliseconds(kLimit);
    std::vector<Seen> result;
    while (Clock::now() < end) {
        DBusMessage* message = dbus_connection_pop_message(watcher.Get());
        if (message == nullptr) {
            if (!dbus_connection_read_write(watcher.Get(), 1000)) {
                throw std::runtime_error("the bus went away under the monitor");
            }
            continue;
        }
        result.push_back(Seen::Of(message));
        dbus_message_unref(message);
        if (last(result.back())) {
            return result;
        }
    }
    throw std::runtime_error("the monitor did not see what it waited for");
}

}  // namespace test
