// SPDX-License-Identifier: Apache-2.0
// The bus calls beside the operations: the agent's interface for people, and a look at each step
// of the way to it. The one file of the command that stands on the library's bus layer; each
// function opens a connection of its own and blocks.
#ifndef SENTREL_CLI_CONTROL_H
#define SENTREL_CLI_CONTROL_H

#include <string>
#include <vector>

namespace cli {

struct Answer {
    std::string error;  // the D-Bus error's name; empty when there is an answer
    std::string text;   // the answer, or the error's own words
};

// Calls a method of the agent's second interface with these texts, which must be UTF-8.
Answer AskControl(const std::string& member, const std::vector<std::string>& texts = {});

// What was found on the way to the agent. Nothing beyond the first failure is asked.
struct Findings {
    Answer connected;    // to the bus
    bool owned = false;  // the agent's name, once it has been called
    Answer probe;        // an operation's call without arguments, which does nothing
    Answer status;       // Control1.Status
};

// Waits for each answer at most `limit` milliseconds.
Findings Examine(int limit);

}  // namespace cli

#endif
