// SPDX-License-Identifier: Apache-2.0
// The operations of the command, and what their outcome means to a person and to a script.
#ifndef SENTREL_CLI_OPERATIONS_H
#define SENTREL_CLI_OPERATIONS_H

#include <cstddef>
#include <string>
#include <vector>

#include "Options.h"

namespace cli {

struct Operation {
    const char* name;
    const char* agent;     // the name that the agent knows it by
    const char* operands;  // for the usage line
    int (*call)(const char* args, unsigned int length, int descriptor, int* result);
};

// Null for a name that is not one of the eight.
const Operation* FindOperation(const std::string& name);
const std::vector<Operation>& Operations();

// Asks the agent, lets the tool's output appear on standard output, says on standard error what
// went wrong, if anything, and returns the command's exit status. For a program, one JSON object on
// standard output holds it all.
int Carry(const Operation& operation, const std::string& text, const Options& options);

// Of a status code, without its prefix.
const char* StatusName(int status);

// What to do when nobody is there, and when the exchange fails.
extern const char kStartAgent[];
extern const char kAskDoctor[];

// Prints the table of status codes.
void PrintErrors(const Options& options);

}  // namespace cli

#endif
