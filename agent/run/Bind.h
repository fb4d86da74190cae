// SPDX-License-Identifier: Apache-2.0
// Does what mount(8) would for a bind mount. That tool makes it with one call and sets its flags
// with a second; in between, and when the second fails, the mount stands without them. Here it
// stands nowhere until it has them all. Used in the tool's process.
#ifndef SENTREL_AGENT_BIND_H
#define SENTREL_AGENT_BIND_H

#include <string>

#include "Pinning.h"

namespace agent {

// The finished mount, for PutInPlace(). None: `reason` says why, without the path. What the flags
// do not name stays as it is where the source lies.
OwnedFd MakeBind(const PinnedPath& source, const BindFlags& flags, std::string& reason);

}  // namespace agent

#endif
