// SPDX-License-Identifier: Apache-2.0
// The tools that the agent may run, by absolute path. An empty path: not on this system. Nodes it
// makes itself.
#ifndef SENTREL_AGENT_TOOLS_H
#define SENTREL_AGENT_TOOLS_H

#include <string>

namespace agent {

struct Tools {
    std::string mount = "/usr/bin/mount";
    std::string umount = "/usr/bin/umount";
    std::string mountCifs = "/usr/sbin/mount.cifs";
    std::string insmod = "/usr/sbin/insmod";
    std::string rmmod = "/usr/sbin/rmmod";
    std::string systemctl = "/usr/bin/systemctl";
};

}  // namespace agent

#endif
