// SPDX-License-Identifier: Apache-2.0
#include "SilentCaller.h"

#include <poll.h>
#include <sys/socket.h>

#include <cerrno>
#include <stdexcept>

#include "ChildProcess.h"

namespace test {

SilentCaller::SilentCaller() {
    if (!dbus_connection_get_unix_fd(connection.Get(), &socket)) {
        throw std::runtime_error("a connection without a socket");
    }
}

bool SilentCaller::Write(DBusMessage* message, int milliseconds) {
    dbus_message_set_serial(message, ++serial);
    char* bytes = nullptr;
    int length = 0;
    const bool written = dbus_message_marshal(message, &bytes, &length) != 0;
    dbus_message_unref(message);
    if (!written) {
        throw std::runtime_error("a message could not be written down");
    }
    rest.append(bytes, static_cast<std::size_t>(length));
    dbus_free(bytes);
    return Finish(milliseconds);
}

bool SilentCaller::Finish(int milliseconds) {
    std::size_t done = 0;
    while (done < rest.size()) {
        const ssize_t count = send(socket, rest.data() + done, rest.size() - done, MSG_NOSIGNAL);
        if (count > 0) {
            done += static_cast<std::size_t>(count);
        } else if (errno != EAGAIN) {
            ThrowErrno("writing to the bus");
        } else if (!WaitFor(socket, POLLOUT, milliseconds)) {
            break;
        }
    }
    rest.erase(0, done);
    return rest.empty();
}

int SilentCaller::Read() {
    (void)dbus_bus_name_has_owner(connection.Get(), "org.sentrel.nobody", nullptr);
    int count = 0;
    while (DBusMessage* message = dbus_connection_pop_message(connection.Get())) {
        const int type = dbus_message_get_type(message);
        count += type == DBUS_MESSAGE_TYPE_METHOD_RETURN || type == DBUS_MESSAGE_TYPE_ERROR;
        dbus_message_unref(message);
    }
    return count;
}

}  // namespace test
