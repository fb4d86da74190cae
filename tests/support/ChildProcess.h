// SPDX-License-Identifier: Apache-2.0
// Pipes, terminals and child programs of the tests. Failures are thrown as std::runtime_error.
#ifndef SENTREL_TESTS_CHILDPROCESS_H
#define SENTREL_TESTS_CHILDPROCESS_H

#include <sys/types.h>
#include <unistd.h>

#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

namespace test {

const int kLimit = 30000;  // milliseconds, for whatever must come

// "WHAT: text of errno"
[[noreturn]] void ThrowErrno(const std::string& what);

// Owns a descriptor.
class Descriptor {
public:
    explicit Descriptor(int number = -1) : descriptor(number) {}
    ~Descriptor() { Close(); }
    Descriptor(Descriptor&& other) noexcept : descriptor(other.descriptor) {
        other.descriptor = -1;
    }
    Descriptor& operator=(Descriptor&& other) noexcept {
        std::swap(descriptor, other.descriptor);
        return *this;
    }
    Descriptor(const Descriptor&) = delete;
    Descriptor& operator=(const Descriptor&) = delete;

    int Get() const { return descriptor; }
    void Close();

private:
    int descriptor;
};

// A pipe whose ends are closed on exec. Lines are read with a limit in milliseconds.
class Pipe {
public:
    Pipe();
    // A terminal in its place, written to as a program writes to one; it passes bytes on as they
    // are.
    static Pipe Terminal();
    int Reader() const { return reader.Get(); }
    int Writer() const { return writer.Get(); }
    void CloseWriter() { writer.Close(); }
    // The next line without its end. Throws when the limit has passed or the pipe has ended.
    std::string ReadLine(int limit);

private:
    explicit Pipe(const int (&ends)[2]) : reader(ends[0]), writer(ends[1]) {}

    Descriptor reader;
    Descriptor writer;
    std::string rest;
};

// Starts a program found by PATH, in which the listed descriptors stay open. `output` and `errors`
// become its standard ones; negative: it has none. It dies with the thread that started it, and
// ends with 99 when it cannot be started.
pid_t Spawn(const std::vector<std::string>& arguments, const std::vector<int>& kept = {},
            int output = STDOUT_FILENO, int errors = STDERR_FILENO);

// Waits for a descriptor to have `events` of poll(2); false when the limit has passed.
bool WaitFor(int descriptor, short events, int limit);

// Everything until the end. Throws when kLimit has passed without any.
std::string ReadAll(int descriptor);
// What is there now.
std::string ReadReady(int descriptor);

// Waits for the child's end and reaps it; returns its wait status. Throws when the limit has
// passed.
int Reap(pid_t pid, int limit);
void KillAndReap(pid_t pid);

// Runs `body` in a forked child, whose exit status is what it returns, 99 after an exception.
template <typename Body>
pid_t Fork(Body body);

pid_t ForkCall(int (*function)(void*), void* data);

template <typename Body>
pid_t Fork(Body body) {
    return ForkCall([](void* data) { return (*static_cast<Body*>(data))(); }, &body);
}

}  // namespace test

#endif
