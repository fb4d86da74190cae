// SPDX-License-Identifier: Apache-2.0
// Stands in for the daemon that reads the system's log: a datagram socket at a path, read only when
// the test says so. Failures are thrown as std::runtime_error.
#ifndef SENTREL_TESTS_LOGREADER_H
#define SENTREL_TESTS_LOGREADER_H

#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstring>
#include <string>

#include "ChildProcess.h"

namespace test {

class LogReader {
public:
    // Takes the path's place when something is left there.
    explicit LogReader(const std::string& where)
        : path(where), descriptor(::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0)) {
        sockaddr_un address = {};
        address.sun_family = AF_UNIX;
        std::strncpy(address.sun_path, path.c_str(), sizeof address.sun_path - 1);
        (void)unlink(path.c_str());
        if (bind(descriptor.Get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) !=
            0) {
            ThrowErrno("binding " + path);
        }
    }
    LogReader(const LogReader&) = delete;
    LogReader& operator=(const LogReader&) = delete;
    // As a daemon that is killed: the path stays, and nobody is behind it.
    ~LogReader() {}

    // The next entry; throws when none has come within the limit.
    std::string Next(int limit = kLimit) const {
        if (!WaitFor(descriptor.Get(), POLLIN, limit)) {
            throw std::runtime_error("nothing came to " + path);
        }
        std::string text(65536, '\0');
        const ssize_t count = recv(descriptor.Get(), &text[0], text.size(), MSG_DONTWAIT);
        if (count < 0) {
            ThrowErrno("reading the log");
        }
        text.resize(static_cast<std::size_t>(count));
        return text;
    }
    bool HasMore() const { return WaitFor(descriptor.Get(), POLLIN, 0); }

private:
    std::string path;
    Descriptor descriptor;
};

}  // namespace test

#endif
