// SPDX-License-Identifier: Apache-2.0
// A child process, held by a pidfd: it is signalled and reaped through it and never by a number
// that may belong to somebody else. Lives on the loop's thread; the process has no other.
#ifndef SENTREL_AGENT_CHILD_H
#define SENTREL_AGENT_CHILD_H

#include <sys/types.h>

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "Fd.h"

namespace agent {

class Child {
public:
    // Forks, and runs `body` in the child, which it ends by _exit(2) with what `body` returns. Null
    // with errno set when the child could not be made.
    static std::unique_ptr<Child> Fork(const std::function<int()>& body);

    // An unfinished child is killed.
    ~Child();
    Child(const Child&) = delete;
    Child& operator=(const Child&) = delete;

    // Readable once the child has ended.
    int PidFd() const { return pidfd.Get(); }
    // Whether it has ended. Never blocks.
    bool Ended();
    // The end, after Ended(): the exit code, or 128 and the number of the signal that ended it.
    // False when the end could not be learned.
    bool ExitCode(int& code) const;

    void Kill();
    // To the process group that the child leads. Does nothing once it has ended.
    void SignalGroup(int signal);

private:
    Child(pid_t childPid, Fd childPidfd);

    pid_t pid;
    Fd pidfd;
    bool ended;
    int exitCode;  // -1: not known
};

// What a tool is started with.
struct ToolStart {
    std::string program;             // absolute path
    std::vector<std::string> words;  // its arguments, without the program's name
    int output = -1;                 // its standard output and error; negative for none
};

// Becomes the tool: own session and process group, standard input /dev/null, no other descriptor,
// an environment made from nothing, all signals at their defaults but for an ignored SIGPIPE, so
// that a caller that stops reading cannot end a tool half-way. Dies with the agent. Returns only
// when that failed, after writing errno as an int into `report`. For the body of a Child.
int BecomeTool(const ToolStart& start, int report, pid_t agentPid);

}  // namespace agent

#endif
