// SPDX-License-Identifier: Apache-2.0
// An agent at the far end of the bus, in a process of its own: a program in plain C that shares no
// code with the library. It owns its name, answers each call as its options say, and reports
// what it received. Ended by the destructor.
#ifndef SENTREL_TESTS_AGENTPROCESS_H
#define SENTREL_TESTS_AGENTPROCESS_H

#include <sys/types.h>

#include <string>
#include <vector>

#include "ChildProcess.h"

namespace test {

class AgentProcess {
public:
    // Options of the program; see the head of scripted_agent.c. Returns when the agent owns its
    // name. Throws std::runtime_error when it does not come so far.
    explicit AgentProcess(const std::vector<std::string>& options = {});
    ~AgentProcess();
    AgentProcess(const AgentProcess&) = delete;
    AgentProcess& operator=(const AgentProcess&) = delete;

    // The report of the next call: "call FIELD=VALUE ... | ARGUMENT | ARGUMENT ...".
    std::string NextReport();
    pid_t Pid() const { return pid; }
    // Waits for it to end by itself; returns its wait status.
    int WaitForEnd();
    void Kill();

private:
    Pipe ready;
    Pipe output;
    pid_t pid;
};

}  // namespace test

#endif
