// SPDX-License-Identifier: Apache-2.0
#include "ChildProcess.h"

#include <fcntl.h>
#include <poll.h>
#include <pty.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <termios.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstring>

namespace test {

namespace {

typedef std::chrono::steady_clock Clock;

int Left(Clock::time_point end) {
    const auto left =
        std::chrono::duration_cast<std::chrono::milliseconds>(end - Clock::now()).count();
    return left > 0 ? static_cast<int>(left) : 0;
}

void DieWithParent(pid_t parent) {
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    if (getppid() != parent) {
        _exit(98);  // it was gone before
    }
}

// `descriptor` takes the place of a standard one; none when it is negative.
void Place(int descriptor, int standard) {
    if (descriptor < 0) {
        close(standard);
    } else {
        dup2(descriptor, standard);
    }
}

struct Ends {
    Ends() {
        if (pipe2(ends, O_CLOEXEC) != 0) {
            ThrowErrno("making a pipe");
        }
    }
    int ends[2];
};

}  // namespace

void ThrowErrno(const std::string& what) {
    throw std::runtime_error(what + ": " + std::strerror(errno));
}

void Descriptor::Close() {
    if (descriptor >= 0) {
        close(descriptor);
        descriptor = -1;
    }
}

Pipe::Pipe() : Pipe(Ends().ends) {}

Pipe Pipe::Terminal() {
    termios settings = {};
    cfmakeraw(&settings);
    int ends[2];
    if (openpty(&ends[0], &ends[1], nullptr, &settings, nullptr) != 0) {
        ThrowErrno("making a terminal");
    }
    for (const int end : ends) {
        fcntl(end, F_SETFD, FD_CLOEXEC);
    }
    return Pipe(ends);
}

std::string Pipe::ReadLine(int limit) {
    const Clock::time_point end = Clock::now() + std::chrono::milliseconds(limit);
    for (;;) {
        const std::size_t at = rest.find('\n');
        if (at != std::string::npos) {
            const std::string line = rest.substr(0, at);
            rest.erase(0, at + 1);
            return line;
        }
        if (!WaitFor(reader.Get(), POLLIN, Left(end))) {
            throw std::runtime_error("no line came in time");
        }
        char buffer[4096];
        const ssize_t count = read(reader.Get(), buffer, sizeof(buffer));
        if (count == 0) {
            throw std::runtime_error("the pipe ended before a line came");
        }
        if (count > 0) {
            rest.append(buffer, static_cast<std::size_t>(count));
        } else if (errno != EINTR) {
            ThrowErrno("reading a line");
        }
    }
}

pid_t Spawn(const std::vector<std::string>& arguments, const std::vector<int>& kept, int output,
            int errors) {
    std::vector<char*> argv;
    for (const std::string& argument : arguments) {
        argv.push_back(const_cast<char*>(argument.c_str()));
    }
    argv.push_back(nullptr);
    const pid_t parent = getpid();
    const pid_t pid = fork();
    if (pid < 0) {
        ThrowErrno("forking");
    }
    if (pid == 0) {
        DieWithParent(parent);
        Place(output, STDOUT_FILENO);
        Place(errors, STDERR_FILENO);
        for (const int descriptor : kept) {
            fcntl(descriptor, F_SETFD, 0);
        }
        execvp(argv[0], argv.data());
        _exit(99);
    }
    return pid;
}

bool WaitFor(int descriptor, short events, int limit) {
    const Clock::time_point end = Clock::now() + std::chrono::milliseconds(limit);
    for (;;) {
        pollfd slot = {descriptor, events, 0};
        const int ready = poll(&slot, 1, Left(end));
        if (ready > 0) {
            return true;
        }
        if (ready < 0 && errno != EINTR) {
            ThrowErrno("waiting for a descriptor");
        }
        if (ready == 0) {
            return false;
        }
    }
}

std::string ReadAll(int descriptor) {
    std::string all;
    char buffer[65536];
    for (;;) {
        if (!WaitFor(descriptor, POLLIN, kLimit)) {
            throw std::runtime_error("the output did not end in time");
        }
        // A terminal ends with an error.
        const ssize_t count = read(descriptor, buffer, sizeof(buffer));
        if (count <= 0) {
            return all;
        }
        all.append(buffer, static_cast<std::size_t>(count));
    }
}

std::string ReadReady(int descriptor) {
    std::string all;
    char buffer[65536];
    while (WaitFor(descriptor, POLLIN, 0)) {
        const ssize_t count = read(descriptor, buffer, sizeof(buffer));
        if (count <= 0) {
            break;
        }
        all.append(buffer, static_cast<std::size_t>(count));
    }
    return all;
}

int Reap(pid_t pid, int limit) {
    const Descriptor handle(static_cast<int>(syscall(SYS_pidfd_open, pid, 0)));
    if (handle.Get() < 0) {
        ThrowErrno("opening a child");
    }
    if (!WaitFor(handle.Get(), POLLIN, limit)) {
        throw std::runtime_error("a child did not end in time");
    }
    int status = -1;
    while (waitpid(pid, &status, 0) < 0) {
        if (errno != EINTR) {
            ThrowErrno("reaping a child");
        }
    }
    return status;
}

void KillAndReap(pid_t pid) {
    kill(pid, SIGKILL);
    while (waitpid(pid, nullptr, 0) < 0 && errno == EINTR) {
    }
}

pid_t ForkCall(int (*function)(void*), void* data) {
    const pid_t parent = getpid();
    std::fflush(nullptr);
    const pid_t pid = fork();
    if (pid < 0) {
        ThrowErrno("forking");
    }
    if (pid == 0) {
        DieWithParent(parent);
        int status = 99;
        try {
            status = function(data);
        } catch (const std::exception& exception) {
            std::fprintf(stderr, "in a forked child: %s\n", exception.what());
        } catch (...) {
            std::fputs("in a forked child: an exception\n", stderr);
        }
        std::fflush(nullptr);
        _exit(status);
    }
    return pid;
}

}  // namespace test
