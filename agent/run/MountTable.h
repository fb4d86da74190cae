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

// False when the whole of it cannot be read: what is not in `mounts` may be mounted all the same.
bool ReadMounts(std::vector<MountEntry>& mounts);

// The one with the id; null when there is none.
const MountEntry* FindMount(const std::vector<MountEntry>& mounts, std::uint64_t id);

// The first of the flags ("nosuid") that the mount does not have; empty when it has them all.
std::string MissingFlag(const MountEntry& mount, const std::vector<std::string>& flags);

// The mount that `fd` was opened in. False when the kernel does not tell.
bool MountId(int fd, std::uint64_t& id);

}  // namespace agent

#endif
