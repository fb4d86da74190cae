// SPDX-License-Identifier: Apache-2.0
// Which standard tool stands behind each agent name. Pure functions but for a look at the disk.
#ifndef SENTREL_AGENT_TOOLS_H
#define SENTREL_AGENT_TOOLS_H

#include <string>
#include <vector>

namespace agent {

struct Tool {
    const char* agent;               // the name on the wire
    const char* program;             // the file's name
    std::vector<std::string> first;  // goes before the caller's words
};

// The directories in which tools are looked for unless others are given.
extern const char kToolPath[];

// Null for a name that is not one of the eight. Static.
const Tool* FindTool(const std::string& agent);

// The first executable file of that name in `directories` (absolute, separated by colons); empty
// when there is none.
std::string FindProgram(const std::string& program, const std::string& directories);

}  // namespace agent

#endif
