// SPDX-License-Identifier: Apache-2.0
#include "Output.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <cerrno>
#include <future>
#include <system_error>

namespace cli {

namespace {

// What a program left behind by the tool writes later is not the tool's output any more.
const int kSilence = 2000;  // milliseconds

[[noreturn]] void ThrowErrno(const char* what) {
    throw std::system_error(errno, std::generic_category(), what);
}

struct Ends {
    Ends() {
        if (pipe2(pipe, O_CLOEXEC) != 0) {
            ThrowErrno("making a pipe");
        }
        answered = eventfd(0, EFD_CLOEXEC);
        if (answered < 0) {
            CloseWriter();
            (void)close(pipe[0]);
            ThrowErrno("making an event");
        }
    }
    ~Ends() {
        CloseWriter();
        (void)close(pipe[0]);
        (void)close(answered);
    }
    Ends(const Ends&) = delete;
    Ends& operator=(const Ends&) = delete;

    void CloseWriter() {
        if (pipe[1] >= 0) {
            (void)close(pipe[1]);
            pipe[1] = -1;
        }
    }

    int pipe[2];
    int answered;
};

// One piece. False at the end.
bool Pass(int reader, const std::function<void(const std::string&)>& sink) {
    char buffer[65536];
    const ssize_t count = read(reader, buffer, sizeof(buffer));
    if (count < 0 && errno == EINTR) {
        return true;
    }
    if (count > 0) {
        sink(std::string(buffer, static_cast<std::size_t>(count)));
    }
    return count > 0;
}

void PassAll(const Ends& ends, const std::function<void(const std::string&)>& sink) {
    for (bool answered = false;;) {
        pollfd slots[] = {{ends.pipe[0], POLLIN, 0}, {answered ? -1 : ends.answered, POLLIN, 0}};
        const int ready = poll(slots, 2, answered ? kSilence : -1);
        if (ready < 0 && errno != EINTR) {
            ThrowErrno("waiting for output");
        }
        if (ready == 0) {
            return;
        }
        if (ready > 0 && slots[0].revents != 0 && !Pass(ends.pipe[0], sink)) {
            return;
        }
        answered = answered || (ready > 0 && slots[1].revents != 0);
    }
}

}  // namespace

int WithOutput(const std::function<int(int)>& call,
               const std::function<void(const std::string&)>& sink) {
    Ends ends;  // outlives the thread, for which the result's destructor waits
    const std::function<int()> body = [&] {
        // However the call ends, the reader learns of it.
        struct Notice {
            ~Notice() {
                ends.CloseWriter();
                (void)eventfd_write(ends.answered, 1);
            }
            Ends& ends;
        } notice{ends};
        return call(ends.pipe[1]);
    };
    std::future<int> result = std::async(std::launch::async, body);
    PassAll(ends, sink);
    return result.get();
}

}  // namespace cli
