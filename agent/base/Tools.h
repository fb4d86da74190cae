// SPDX-License-Identifier: Apache-2.0
// The tools that the agent may run, by absolute path. An empty path: not on this system. Nodes it
// makes itself.
#ifndef SENTREL_AGENT_TOOLS_H
#define SENTREL_AGENT_TOOLS_H

#include <string>
#include <vector>

namespace agent {

struct Tools {
    std::string mount = "/usr/bin/mount";
    std::string umount = "/usr/bin/umount";
    std::string mountCifs = "/usr/sbin/mount.cifs";
    std::string insmod = "/usr/sbin/insmod";
    std::string rmmod = "/usr/sbin/rmmod";
    std::string systemctl = "/usr/bin/systemctl";
};

// The first of the directories (colons between them) that has each tool; a tool that is nowhere has
// an empty path. What is there but not to be trusted is a line in `warnings`; it is kept, and
// looked at again before every start.
Tools FindTools(const std::string& directories, std::vector<std::string>& warnings);

// Status 0 when the tool may be run; else 10 when it is missing, or 9 when others could have
// changed it, with a reason. For the program's start; every child looks again.
int CheckTool(const std::string& path, std::string& reason);

}  // namespace agent

#endif
