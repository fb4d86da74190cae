// SPDX-License-Identifier: Apache-2.0
// Does what mount(8) would for a bind mount. That tool makes it with one call and sets its flags
// with a second; in between, and when the second fails, the mount stands without them. Here it
// stands nowhere until it has them all. Used in the tool's process.
#ifndef SENTREL_AGENT_BIND_H
#define SENTREL_AGENT_BIND_H

#include "Pinning.h"

namespace agent {

// The finished mount, for PutInPlace(). A reason why there is none is without the path. What the
// flags do not name stays as it is where the source lies.
Result<OwnedFd> MakeBind(const PinnedPath& source, const BindFlags& flags);

}  // namespace agent

#endif
