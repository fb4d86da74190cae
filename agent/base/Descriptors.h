// SPDX-License-Identifier: Apache-2.0
// A descriptor with one owner, closed when the owner goes. Movable, not copyable. A pipe is two of
// them.
#ifndef SENTREL_AGENT_DESCRIPTORS_H
#define SENTREL_AGENT_DESCRIPTORS_H

#include <errno.h>
#include <fcntl.h>
#include <unistd.h>

#include <cstring>
#include <string>
#include <utility>

#include "Result.h"

namespace agent {

class OwnedFd {
public:
    OwnedFd() = default;
    // Adopts `number`; negative: none.
    explicit OwnedFd(int number) : fd(number) {}
    OwnedFd(OwnedFd&& other) noexcept : fd(std::exchange(other.fd, -1)) {}
    OwnedFd& operator=(OwnedFd&& other) noexcept {
        if (this != &other) {
            Reset(std::exchange(other.fd, -1));
        }
        return *this;
    }
    OwnedFd(const OwnedFd&) = delete;
    OwnedFd& operator=(const OwnedFd&) = delete;
    ~OwnedFd() { Reset(); }

    int Get() const { return fd; }
    explicit operator bool() const { return fd >= 0; }
    int Release() { return std::exchange(fd, -1); }
    void Reset(int number = -1) {
        if (fd >= 0) {
            (void)close(fd);
        }
        fd = number;
    }

private:
    int fd = -1;
};

struct Pipe {
    OwnedFd reader;
    OwnedFd writer;
};

enum class Reading { kWaits, kNeverWaits };

// Both ends close-on-exec; the writing end waits where the pipe is full.
inline Result<Pipe> OpenPipe(Reading reading = Reading::kWaits) {
    int ends[2];
    if (pipe2(ends, O_CLOEXEC) != 0) {
        return Refusal{std::string("no pipe can be made: ") + std::strerror(errno)};
    }
    Pipe pipe{OwnedFd(ends[0]), OwnedFd(ends[1])};
    if (reading == Reading::kNeverWaits && fcntl(ends[0], F_SETFL, O_NONBLOCK) != 0) {
        return Refusal{std::string("no pipe can be made: ") + std::strerror(errno)};
    }
    return pipe;
}

}  // namespace agent

#endif
