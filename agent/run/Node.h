// SPDX-License-Identifier: Apache-2.0
// Does what mknod(1) would. That tool sets the mode by the node's name a second time, and by then
// the name may be another file's. Used in the tool's process.
#ifndef SENTREL_AGENT_NODE_H
#define SENTREL_AGENT_NODE_H

#include <string>

#include "Pinning.h"

namespace agent {

// What mknod(1) would end with, after saying on the standard error why it is not 0. The node has
// its mode and owner, and no access list of its directory's, when its name appears.
int MakeNode(const PinnedPath& pinned, const NodeSpec& node);

}  // namespace agent

#endif
