// SPDX-License-Identifier: Apache-2.0
// The built agent in a process of its own, scripts that stand in for tools, and calls to the
// agent over plain libdbus. Failures are thrown as std::runtime_error.
#ifndef SENTREL_TESTS_AGENT_PROGRAMS_H
#define SENTREL_TESTS_AGENT_PROGRAMS_H

#include <dbus/dbus.h>
#include <sys/types.h>

#include <string>
#include <vector>

#include "ChildProcess.h"
#include "RunProgram.h"

namespace test {

// A folder of scripts under the name of tools; lies in the folder of the private bus.
class FakeTools {
public:
    FakeTools();
    ~FakeTools();  // removes it
    FakeTools(const FakeTools&) = delete;
    FakeTools& operator=(const FakeTools&) = delete;

    // A shell script; $DIR in it stands for the folder.
    void Add(const std::string& name, const std::string& script) const;
    std::string File(const std::string& name) const { return folder + "/" + name; }
    const std::string& Folder() const { return folder; }

private:
    std::string folder;
};

// A folder of rules, beside the one of the tools.
class RuleFolder {
public:
    RuleFolder();
    ~RuleFolder();  // removes it
    RuleFolder(const RuleFolder&) = delete;
    RuleFolder& operator=(const RuleFolder&) = delete;

    void Write(const std::string& name, const std::string& text) const;
    const std::string& Folder() const { return folder; }

private:
    std::string folder;
};

// sentrel-agent, serving from the constructor on, ended by the destructor.
class RunningAgent {
public:
    explicit RunningAgent(const std::vector<std::string>& options);
    ~RunningAgent();
    RunningAgent(const RunningAgent&) = delete;
    RunningAgent& operator=(const RunningAgent&) = delete;

    // The next line of its log.
    std::string NextLine() { return log.ReadLine(kLimit); }
    // The next one that holds `text`.
    std::string NextLineWith(const std::string& text);
    // What it has said and nobody has read.
    std::string Said() const;
    int Log() const { return log.Reader(); }
    pid_t Pid() const { return pid; }
    void Signal(int signal) const;
    // Its wait status.
    int WaitForEnd();

private:
    Pipe log;
    pid_t pid;
};

// Runs it to its end.
Finished RunAgent(const std::vector<std::string>& options);

struct Reply {
    std::string error;  // the D-Bus error's name; empty for a return
    std::string text;
};

DBusMessage* NewCall(const char* agent, const char* text, int descriptor);
// Takes the call over.
Reply Send(DBusConnection* connection, DBusMessage* call);
Reply Call(DBusConnection* connection, const char* agent, const char* text, int descriptor = 0);

// Calls under way, all sent at once.
class Calls {
public:
    explicit Calls(DBusConnection* owner) : connection(owner) {}
    ~Calls();
    Calls(const Calls&) = delete;
    Calls& operator=(const Calls&) = delete;

    void Add(const char* agent, const char* text, int descriptor = 0);
    // The answers in the order of the calls.
    std::vector<std::string> Wait();

private:
    DBusConnection* connection;
    std::vector<DBusPendingCall*> pending;
};

}  // namespace test

#endif
