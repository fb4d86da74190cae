// SPDX-License-Identifier: Apache-2.0
// A finished mount is put in its place and then looked at once more, by its descriptor: no name is
// asked that a caller could have given to something else. Used in the request's process.
#ifndef SENTREL_AGENT_AFTERCHECK_H
#define SENTREL_AGENT_AFTERCHECK_H

#include <string>
#include <vector>

#include "Pinning.h"

namespace agent {

// Shows a mount that stands nowhere on the very directory that was pinned. Refused, with a reason
// without the path, when that cannot be: it still stands nowhere. `once`: not when the very same
// file system stands there already.
Check PutInPlace(const OwnedFd& mount, const PinnedPath& target, bool once);

// Looks at the mount in its place. Refused when it lacks a flag or is not there, or when that
// cannot be learned; it is then taken away again.
Check CheckMount(const OwnedFd& mount, const std::string& path,
                 const std::vector<std::string>& flags);

}  // namespace agent

#endif
