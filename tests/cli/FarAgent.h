// SPDX-License-Identifier: Apache-2.0
// An agent that does as it is told: it writes a text to the caller's descriptor and answers each
// operation with another. A child process on plain libdbus, ended by the destructor.
#ifndef SENTREL_TESTS_CLI_FARAGENT_H
#define SENTREL_TESTS_CLI_FARAGENT_H

#include <sys/types.h>

#include <string>

#include "ChildProcess.h"

namespace test {

class FarAgent {
public:
    // After the answer, the descriptor stays open until the agent's end, if `keeps`.
    explicit FarAgent(const std::string& answer, const std::string& output = "",
                      bool keeps = false);
    ~FarAgent();
    FarAgent(const FarAgent&) = delete;
    FarAgent& operator=(const FarAgent&) = delete;

    // The next call: "AGENT TEXT" or, without a descriptor, "AGENT TEXT (no output)".
    std::string NextReport();

private:
    Pipe reports;
    pid_t pid;
};

}  // namespace test

#endif
