// SPDX-License-Identifier: Apache-2.0
// The operations of the command, and what their outcome means to a person and to a script.
#ifndef SENTREL_CLI_OPERATIONS_H
#define SENTREL_CLI_OPERATIONS_H

#include <cstddef>
#include <string>
#include <vector>

namespace cli {

// Exit statuses of the command's own; those up to 124 are the tool's.
const int kLastToolStatus = 124;
const int kUsage = 125;  // also: the exchange failed, or the tool's exit code is above 124
const int kRefused = 126;
const int kNobodyThere = 127;

struct Operation {
    const char* name;
    const char* operands;  // for the usage line
    int (*call)(const char* args, unsigned int length, int descriptor, int* result);
};

// Null for a name that is not one of the eight.
const Operation* FindOperation(const std::string& name);
const std::vector<Operation>& Operations();

// Asks the agent, lets the tool's output appear on standard output, says on standard error what
// went wrong, if anything, and returns the command's exit status.
int Carry(const Operation& operation, const std::string& text);

// Prints the table of status codes.
void PrintErrors();

}  // namespace cli

#endif
