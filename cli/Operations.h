// SPDX-License-Identifier: Apache-2.0
// The operations: the one table of their names. Nothing else of the command tells them apart.
#ifndef SENTREL_CLI_OPERATIONS_H
#define SENTREL_CLI_OPERATIONS_H

#include <string>
#include <vector>

namespace cli {

struct Operation {
    const char* name;       // the command's
    const char* operation;  // its name on the bus
    const char* operands;   // for the usage line
    const char* tool;       // whose words it takes
    const char* example;    // words as somebody may type them
    int (*call)(const char* args, unsigned int length, int descriptor, int* result);
};

const std::vector<Operation>& Operations();
// By the command's name. Null when there is none of it.
const Operation* FindOperation(const std::string& name);

}  // namespace cli

#endif
