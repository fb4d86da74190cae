// SPDX-License-Identifier: Apache-2.0
#include "AgentProcess.h"

#include "PrivateBus.h"

namespace test {

AgentProcess::AgentProcess(const std::vector<std::string>& options) : pid(-1) {
    std::vector<std::string> arguments = {SENTREL_SCRIPTED_AGENT, "--address",
                                          PrivateBus::Address(), "--ready",
                                          std::to_string(ready.Writer())};
    arguments.insert(arguments.end(), options.begin(), options.end());
    pid = Spawn(arguments, {ready.Writer()}, output.Writer());
    ready.CloseWriter();
    output.CloseWriter();
    try {
        (void)ready.ReadLine(kLimit);
    } catch (...) {
        Kill();
        throw;
    }
}

AgentProcess::~AgentProcess() {
    Kill();
}

std::string AgentProcess::NextReport() {
    return output.ReadLine(kLimit);
}

int AgentProcess::WaitForEnd() {
    const int status = Reap(pid, kLimit);
    pid = -1;
    return status;
}

void AgentProcess::Kill() {
    if (pid > 0) {
        KillAndReap(pid);
        pid = -1;
    }
}

}  // namespace test
