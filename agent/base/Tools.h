// SPDX-License-Identifier: Apache-2.0
// The tools that the agent may run, by absolute path, and whether one may be trusted. Which
// operation has which tool says base/Operation. A value type, and functions that look at files.
#ifndef SENTREL_AGENT_TOOLS_H
#define SENTREL_AGENT_TOOLS_H

#include <map>
#include <string>
#include <vector>

#include "Operation.h"
#include "Result.h"

namespace agent {

struct Tools {
    // Each tool where it usually is.
    Tools();

    // Of an operation's tool; empty when it is not on this system. What the agent makes itself has
    // a bare name.
    const std::string& PathFor(Operation operation) const;

    std::map<std::string, std::string> paths;  // by the tool's name, as "mount.cifs"
};

// The first of the directories (colons between them) that has each tool; a tool that is nowhere has
// an empty path. What is there but not to be trusted is a line in `warnings`; it is kept, and
// looked at again before every start.
Tools FindTools(const std::string& directories, std::vector<std::string>& warnings);

// Refused with the status for the answer: SR_FEATURE_ISNT_IMPLEMENTED when the tool is missing,
// SR_FORK_FAILED when others could have changed it. For the program's start; every child looks
// again.
Check CheckTool(const std::string& path);

}  // namespace agent

#endif
