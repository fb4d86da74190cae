// SPDX-License-Identifier: Apache-2.0
// A caller's path, opened once and from then on reached by descriptor only, so that nothing that
// the caller renames or links afterwards changes what the tool works on.
//
// Used in the tool's child, never in the agent's own process: a path may hang.
#ifndef SENTREL_AGENT_PINNING_H
#define SENTREL_AGENT_PINNING_H

#include <string>

#include "MountTable.h"
#include "base/Descriptors.h"
#include "base/Permit.h"
#include "base/Result.h"

namespace agent {

struct PinnedPath {
    Pin pin;
    OwnedFd parent;
    OwnedFd object;    // none for kParent and kMountPoint
    std::string name;  // the last component

    // The descriptor that the tool must inherit.
    int Inherited() const;
    // The path for the tool's argument.
    std::string Reach() const;

    bool closedChain = false;  // all directories above are root's and closed to others
    bool blockDevice = false;
    bool regularFile = false;
    MountEntry mount;  // for kMountPoint: the topmost one there
};

// Refused, with a plain reason, when it is not, to the letter, the path of the pin.
Result<PinnedPath> PinPath(const Pin& pin);

// One component below `directory`, not followed when it is a symbolic link.
OwnedFd OpenBelow(int directory, const std::string& name, int flags);

// What the kernel calls the file behind `fd` now; empty when it does not say.
std::string PathOf(int fd);

}  // namespace agent

#endif
