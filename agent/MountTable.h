// SPDX-License-Identifier: Apache-2.0
// The kernel's list of what is mounted, which can be read without touching what is mounted: that
// may hang. Stateless.
#ifndef SENTREL_AGENT_MOUNTTABLE_H
#define SENTREL_AGENT_MOUNTTABLE_H

#include <cstdint>
#include <string>
#include <vector>

namespace agent {

struct MountEntry {
    std::uint64_t id = 0;
    std::uint64_t parent = 0;
    unsigned majorNumber = 0;  // these two: of the device
    unsigned minorNumber = 0;
    std::string point;
    std::string options;  // of the mount, not of its file system
};

std::vector<MountEntry> ReadMounts();

// The mount that `fd` was opened in. False when the kernel does not tell.
bool MountId(int fd, std::uint64_t& id);

}  // namespace agent

#endif
