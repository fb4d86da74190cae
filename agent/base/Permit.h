// SPDX-License-Identifier: Apache-2.0
// What may be run, and the proof that a rule allows it.
//
// A Plan is a tool's command rebuilt from parsed fields. Only the rules can make a Permit out of a
// Plan, and the executor takes nothing but a Permit: there is no way to start a tool past them.
// Value types; movable, one owner at a time.
#ifndef SENTREL_AGENT_PERMIT_H
#define SENTREL_AGENT_PERMIT_H

#include <sys/stat.h>
#include <sys/types.h>

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "Operation.h"

namespace agent {

// A path of the caller's that the tool's child pins before the tool runs: it is opened without
// following any symbolic link and must then be, to the letter, the path that the rule was checked
// against. The argument is replaced by a path under which the pinned file is reached.
struct Pin {
    enum Kind {
        kDirectory,   // an existing directory (mount point)
        kFile,        // an existing file of any other type (block device, image)
        kAny,         // an existing file or directory (what is bound to another place)
        kParent,      // the path need not exist; its directory is pinned (a node to be made)
        kMountPoint,  // to unmount: the parent is pinned, the last component is taken as it is
        kModule       // an existing regular file that only root can write, wherever it lies
    };
    std::size_t argument = 0;  // index in Plan::argv
    Kind kind = kDirectory;
    std::string path;             // absolute, no "." or "..", no doubled "/", no trailing "/"
    bool rootOwnedChain = false;  // every directory above must be root's and closed to others
};

// What a bind mount is given and what is taken from it, MOUNT_ATTR_ of linux/mount.h.
struct BindFlags {
    std::uint64_t set = 0;
    std::uint64_t clear = 0;
};

enum NodeType : mode_t { kBlockNode = S_IFBLK, kCharacterNode = S_IFCHR, kPipeNode = S_IFIFO };

// A node to be made; -1 for an owner or a group is the agent's own.
struct NodeSpec {
    mode_t type = 0;  // a NodeType
    mode_t mode = 0;  // permission bits
    unsigned majorNumber = 0;
    unsigned minorNumber = 0;
    uid_t owner = static_cast<uid_t>(-1);
    gid_t group = static_cast<gid_t>(-1);
};

// What the agent does itself, without a tool, has its command all the same: it is what an
// administrator sees.
struct Plan {
    Operation operation = Operation::kMount;
    std::vector<std::string> argv;  // argv[0] is the tool's absolute path; "--" before operands
    std::vector<Pin> pins;
    // A text that must reach the tool but must not be seen: written to a pipe whose number the tool
    // finds in the environment variable PASSWD_FD. Empty: none.
    std::string secret;
    // A file of credentials, opened as the caller: its password travels as `secret` does, its user
    // and domain join the options where those name none.
    std::string secretFile;
    std::chrono::milliseconds deadline{20000};
    // A mount: the tool makes it on the last kDirectory, or the agent binds the kAny there.
    bool makesMount = false;
    std::optional<BindFlags> bind;
    // Flags that the mount must have ("nosuid", "nodev"), else nobody gets to see it.
    std::vector<std::string> requiredMountFlags;
    // A node that the agent makes at the kParent.
    std::optional<NodeSpec> node;
};

class Permit {
public:
    Permit(Permit&&) = default;
    Permit& operator=(Permit&&) = default;
    Permit(const Permit&) = delete;
    Permit& operator=(const Permit&) = delete;

    const Plan& GetPlan() const { return plan; }

private:
    friend class Decider;
    explicit Permit(Plan&& plan_) : plan(std::move(plan_)) {}

    Plan plan;
};

}  // namespace agent

#endif
