// SPDX-License-Identifier: Apache-2.0
// A descriptor that is closed with its owner. Every descriptor of the agent is close-on-exec.
#ifndef SENTREL_AGENT_FD_H
#define SENTREL_AGENT_FD_H

#include <fcntl.h>
#include <unistd.h>

#include <utility>

namespace agent {

class Fd {
public:
    Fd() : number(-1) {}
    explicit Fd(int adopted) : number(adopted) {}
    Fd(Fd&& other) noexcept : number(std::exchange(other.number, -1)) {}
    Fd& operator=(Fd&& other) noexcept {
        std::swap(number, other.number);
        return *this;
    }
    Fd(const Fd&) = delete;
    Fd& operator=(const Fd&) = delete;
    ~Fd() { Close(); }

    int Get() const { return number; }
    bool Open() const { return number >= 0; }
    void Close() {
        if (number >= 0) {
            (void)close(std::exchange(number, -1));
        }
    }

private:
    int number;
};

// False with errno when there is none; the outputs are then left alone.
inline bool MakePipe(Fd& reader, Fd& writer) {
    int ends[2];
    if (pipe2(ends, O_CLOEXEC) != 0) {
        return false;
    }
    reader = Fd(ends[0]);
    writer = Fd(ends[1]);
    return true;
}

}  // namespace agent

#endif
