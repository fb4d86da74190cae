// SPDX-License-Identifier: Apache-2.0
// Does what mount(8) would for the option loop. That tool looks the image's name up again, and by
// then somebody may have given it to something else; and from a mount namespace of its own it would
// open the image where an unmounting of what the image lies on does not find it in use. Used in
// the tool's process.
#ifndef SENTREL_AGENT_LOOPDEVICE_H
#define SENTREL_AGENT_LOOPDEVICE_H

#include <string>
#include <vector>

#include "Pinning.h"

namespace agent {

// An ordinary file does, and whatever the option loop is given for.
bool NeedsLoop(const PinnedPath& image, const std::vector<std::string>& words);

// Makes a loop device of the pinned image, or takes the one that it has already, and in the words
// of mount(8) puts it into the image's place and its options away. The device goes with its last
// user: what is returned is to be kept until it is mounted. A reason is without the path.
Result<OwnedFd> AttachLoop(const PinnedPath& image, std::vector<std::string>& words);

}  // namespace agent

#endif
