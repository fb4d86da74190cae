// SPDX-License-Identifier: Apache-2.0
// A stream socket at a path to which everybody may connect. Failures are thrown as
// std::runtime_error.
#ifndef SENTREL_TESTS_STREAMLISTENER_H
#define SENTREL_TESTS_STREAMLISTENER_H

#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>

#include <cstring>
#include <string>

#include "ChildProcess.h"

namespace test {

class StreamListener {
public:
    explicit StreamListener(const std::string& where)
        : path(where), descriptor(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
        const sockaddr_un address = AddressOf(path);
        if (bind(descriptor.Get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) !=
                0 ||
            chmod(path.c_str(), 0666) != 0 || listen(descriptor.Get(), 16) != 0) {
            ThrowErrno("listening at " + path);
        }
    }
    StreamListener(const StreamListener&) = delete;
    StreamListener& operator=(const StreamListener&) = delete;

    // A new socket that is connected to it, by its path or another; -1 when that fails.
    int Connect() const { return Connect(path); }
    int Connect(const std::string& by) const {
        const sockaddr_un address = AddressOf(by);
        const int fd = ::socket(AF_UNIX, SOCK_STREAM, 0);
        return connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0 ? fd
                                                                                             : -1;
    }

    // The other end of the next of these.
    int Accept() const { return accept4(descriptor.Get(), nullptr, nullptr, SOCK_CLOEXEC); }

private:
    static sockaddr_un AddressOf(const std::string& where) {
        sockaddr_un address = {};
        address.sun_family = AF_UNIX;
        std::strncpy(address.sun_path, where.c_str(), sizeof address.sun_path - 1);
        return address;
    }

    std::string path;
    Descriptor descriptor;
};

}  // namespace test

#endif
