// SPDX-License-Identifier: Apache-2.0
// Pipes and child programs of the tests. Failures are thrown as std::runtime_error.
#ifndef SENTREL_TESTS_CHILDPROCESS_H
#define SENTREL_TESTS_CHILDPROCESS_H

#include <sys/types.h>

#include <stdexcept>
#include <string>
#include <vector>

namespace test {

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

// Starts a program found by PATH, in which the listed descriptors stay open. It dies with the
// thread that started it.
pid_t Spawn(const std::vector<std::string>& arguments, const std::vector<int>& kept,
            int standardOutput = -1);

// Waits for a descriptor to have `events` of poll(2); false when the limit has passed.
bool WaitFor(int descriptor, short events, int limit);

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
