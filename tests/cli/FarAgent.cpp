// SPDX-License-Identifier: Apache-2.0
#include "FarAgent.h"

#include <dbus/dbus.h>
#include <fcntl.h>
#include <unistd.h>

#include "Command.h"
#include "PrivateBus.h"

namespace test {

namespace {

const char kName[] = "org.sentrel.sr_agent";

// The child's whole state.
class Server {
public:
    Server(std::string answerText, std::string outputText, bool keepsOpen, int reportTo)
        : answer(std::move(answerText)),
          output(std::move(outputText)),
          keeps(keepsOpen),
          reports(reportTo) {}

    int Run() {
        DBusError error = DBUS_ERROR_INIT;
        connection = dbus_connection_open_private(PrivateBus::Address().c_str(), &error);
        if (connection == nullptr || !dbus_bus_register(connection, &error) ||
            dbus_bus_request_name(connection, kName, DBUS_NAME_FLAG_DO_NOT_QUEUE, &error) !=
                DBUS_REQUEST_NAME_REPLY_PRIMARY_OWNER) {
            return 1;
        }
        dbus_connection_set_exit_on_disconnect(connection, FALSE);
        Report("ready");
        while (dbus_connection_read_write(connection, -1)) {
            while (DBusMessage* message = dbus_connection_pop_message(connection)) {
                Receive(message);
                dbus_message_unref(message);
            }
        }
        return 0;
    }

private:
    void Report(std::string line) const {
        line += '\n';
        if (write(reports, line.data(), line.size()) != static_cast<ssize_t>(line.size())) {
            _exit(2);
        }
    }

    void Receive(DBusMessage* message) {
        const char* agent = nullptr;
        const char* text = nullptr;
        dbus_int32_t descriptor = 0;
        if (!dbus_message_is_method_call(message, kName, "CallCommand") ||
            !dbus_message_get_args(message, nullptr, DBUS_TYPE_STRING, &agent, DBUS_TYPE_STRING,
                                   &text, DBUS_TYPE_INT32, &descriptor, DBUS_TYPE_INVALID)) {
            return;
        }
        Report(std::string(agent) + " " + text + (descriptor > 0 ? "" : " (no output)"));
        if (descriptor > 0) {
            WriteOutput(dbus_message_get_sender(message), descriptor);
        }
        DBusMessage* reply = dbus_message_new_method_return(message);
        const char* value = answer.c_str();
        (void)dbus_message_append_args(reply, DBUS_TYPE_STRING, &value, DBUS_TYPE_INVALID);
        (void)dbus_connection_send(connection, reply, nullptr);
        dbus_message_unref(reply);
    }

    void WriteOutput(const char* sender, int descriptor) const {
        const std::string path =
            "/proc/" + std::to_string(PidOf(sender)) + "/fd/" + std::to_string(descriptor);
        const int file = open(path.c_str(), O_WRONLY | O_CLOEXEC);
        for (std::size_t at = 0; file >= 0 && at < output.size();) {
            const ssize_t count = write(file, output.data() + at, output.size() - at);
            if (count < 0) {
                _exit(3);
            }
            at += static_cast<std::size_t>(count);
        }
        if (file < 0) {
            _exit(4);
        }
        if (!keeps) {
            (void)close(file);
        }
    }

    unsigned PidOf(const char* sender) const {
        DBusMessage* question =
            dbus_message_new_method_call("org.freedesktop.DBus", "/org/freedesktop/DBus",
                                         "org.freedesktop.DBus", "GetConnectionUnixProcessID");
        (void)dbus_message_append_args(question, DBUS_TYPE_STRING, &sender, DBUS_TYPE_INVALID);
        DBusMessage* told =
            dbus_connection_send_with_reply_and_block(connection, question, kLimit, nullptr);
        dbus_message_unref(question);
        dbus_uint32_t number = 0;
        if (told == nullptr ||
            !dbus_message_get_args(told, nullptr, DBUS_TYPE_UINT32, &number, DBUS_TYPE_INVALID)) {
            _exit(5);
        }
        dbus_message_unref(told);
        return number;
    }

    const std::string answer;
    const std::string output;
    const bool keeps;
    const int reports;
    DBusConnection* connection = nullptr;
};

}  // namespace

FarAgent::FarAgent(const std::string& answer, const std::string& output, bool keeps)
    : pid(Fork([&] { return Server(answer, output, keeps, reports.Writer()).Run(); })) {
    reports.CloseWriter();
    try {
        (void)reports.ReadLine(kLimit);
    } catch (...) {
        KillAndReap(pid);
        throw;
    }
}

FarAgent::~FarAgent() {
    KillAndReap(pid);
}

std::string FarAgent::NextReport() {
    return reports.ReadLine(kLimit);
}

}  // namespace test
