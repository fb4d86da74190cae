// SPDX-License-Identifier: Apache-2.0
// The kernel's list of what is mounted, which can be read without touching what is mounted: that
// may hang. Stateless.
#ifndef SENTREL_AGENT_MOUNTTABLE_H
#define SENTREL_AGENT_MOUNTTABLE_H

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "base/Result.h"

namespace agent {

struct MountEntry {
    std::uint64_t id = 0;
    std::uint64_t parent = 0;
    unsigned majorNumber = 0;  // these two: of the device
    unsigned minorNumber = 0;
    std::string point;
    std::string options;  // of the mount, not of its file system
};

// Refused when the whole of it cannot be read: a part is of no use, since what is not in it may be
// mounted all the same.
Result<std::vector<MountEntry> > ReadMounts();

// The one with the id; null when there is none.
const MountEntry* FindMount(const std::vector<MountEntry>& mounts, std::uint64_t id);

// The first of the flags ("nosuid") that the mount does not have; empty when it has them all.
std::string MissingFlag(const MountEntry& mount, const std::vector<std::string>& flags);

// The mount that `fd` was opened in; none when the kernel does not tell.
std::optional<std::uint64_t> MountId(int fd);

}  // namespace agent

#endif
