// SPDX-License-Identifier: Apache-2.0
// Does what umount(8) would. That tool looks the mount point's name up again and follows it, and by
// then somebody may have made a link of it: in a mount namespace where nothing is mounted there a
// name can be moved. Nor does it find the mount of a path through a descriptor in its tables. Used
// in the tool's process.
#ifndef SENTREL_AGENT_UNMOUNT_H
#define SENTREL_AGENT_UNMOUNT_H

#include <string>
#include <vector>

#include "Pinning.h"

namespace agent {

// What umount(8) would end with, after saying on the standard error why it is not 0. `words` is its
// command; the working directory becomes the one above the mount point.
int Unmount(const PinnedPath& pinned, const std::vector<std::string>& words);

}  // namespace agent

#endif
