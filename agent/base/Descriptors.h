// SPDX-License-Identifier: Apache-2.0
// A descriptor with one owner, closed when the owner goes. Movable, not copyable.
#ifndef SENTREL_AGENT_DESCRIPTORS_H
#define SENTREL_AGENT_DESCRIPTORS_H

#include <unistd.h>

#include <utility>

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

}  // namespace agent

#endif
