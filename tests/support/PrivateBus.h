// SPDX-License-Identifier: Apache-2.0
// A message bus of the test's own: a dbus-daemon in a child process, with its socket in a folder of
// this process. libdbus reads the system bus's address once in a process, so there is one address
// per process; a bus may be stopped and started again at it. One bus at a time.
//
// The bus dies with the thread that started it. Failures are thrown as std::runtime_error.
#ifndef SENTREL_TESTS_PRIVATEBUS_H
#define SENTREL_TESTS_PRIVATEBUS_H

#include <sys/types.h>

#include <string>

namespace test {

class PrivateBus {
public:
    // kRaised: thousands of connections of one user; kDefault: the daemon's own 256; kNoRules:
    // that, and every match rule is refused.
    enum class Limits { kRaised, kDefault, kNoRules };

    // Starts it and returns when it listens. DBUS_SYSTEM_BUS_ADDRESS then points at it.
    explicit PrivateBus(Limits limits = Limits::kRaised);
    // The same with a whole configuration text, in which %ADDRESS% stands for the address.
    explicit PrivateBus(const std::string& configuration);
    // The text for kDefault, with more elements at its end.
    static std::string Configuration(const std::string& more);
    ~PrivateBus();
    PrivateBus(const PrivateBus&) = delete;
    PrivateBus& operator=(const PrivateBus&) = delete;

    void Start();
    // Kills and reaps it. Nothing when it is not running.
    void Stop();
    pid_t Pid() const { return pid; }

    // The address of this process's bus, "unix:path=...", running or not. The first call makes the
    // folder, which is removed at exit, and sets DBUS_SYSTEM_BUS_ADDRESS. It also removes those
    // of processes that have been killed.
    static const std::string& Address();
    // That folder; readable by everybody.
    static const std::string& Folder();

private:
    std::string configuration;
    pid_t pid;
};

}  // namespace test

#endif
