// SPDX-License-Identifier: Apache-2.0
// Whoever may write in the directory may exchange whatever gets a name there, and hands down to it
// what he likes: a group, an access list. So the node is made in a directory of root's own, closed
// to all others and below the pinned one, finished there, and then moved to its name. Such a
// directory may itself be exchanged by then, but only for another that is root's and closed, in
// which nothing of others' can stand.
#include "Node.h"

#include <errno.h>
#include <fcntl.h>
#include <sys/random.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/sysmacros.h>
#include <sys/xattr.h>

#include <cstdio>
#include <cstring>

namespace agent {

namespace {

const unsigned kDoNotReplace = 1;  // RENAME_NOREPLACE

int Fail(const PinnedPath& pinned, const std::string& why) {
    const std::string line = "mknod: " + pinned.pin.path + ": " + why + "\n";
    (void)!write(STDERR_FILENO, line.data(), line.size());
    return 1;
}

std::string RandomName() {
    unsigned long long number = 0;
    char text[64] = {};
    if (getrandom(&number, sizeof number, 0) == static_cast<ssize_t>(sizeof number)) {
        (void)std::snprintf(text, sizeof text, ".sentrel-%016llx", number);
    }
    return text;
}

std::string LinkTo(const OwnedFd& file) {
    return "/proc/self/fd/" + std::to_string(file.Get());
}

// Root's and nobody else's to look into, whatever stands there by now.
bool IsApart(const OwnedFd& directory) {
    struct stat found = {};
    return directory && fstat(directory.Get(), &found) == 0 && S_ISDIR(found.st_mode) &&
           found.st_uid == geteuid() && (found.st_mode & 0777) == 0700;
}

// That nothing of the directory's own was handed down, and nothing was left out.
bool IsAsAsked(const OwnedFd& made, const NodeSpec& node, uid_t owner, gid_t group) {
    struct stat found = {};
    return fstat(made.Get(), &found) == 0 && found.st_mode == (node.type | node.mode) &&
           (node.type == S_IFIFO || found.st_rdev == makedev(node.majorNumber, node.minorNumber)) &&
           found.st_nlink == 1 && found.st_uid == owner && found.st_gid == group &&
           getxattr(LinkTo(made).c_str(), "system.posix_acl_access", nullptr, 0) < 0;
}

// Its mode it has from the making; behind this the rest of it is as it was asked for too.
Check Finish(const OwnedFd& apart, const std::string& name, const NodeSpec& node) {
    const uid_t owner = node.owner == static_cast<uid_t>(-1) ? geteuid() : node.owner;
    const gid_t group = node.group == static_cast<gid_t>(-1) ? getegid() : node.group;
    const OwnedFd made = OpenBelow(apart.Get(), name, O_NOFOLLOW);
    if (!made || fchownat(made.Get(), "", owner, group, AT_EMPTY_PATH) != 0) {
        return Refusal{std::strerror(errno)};
    }
    if (!IsAsAsked(made, node, owner, group)) {
        return Refusal{"the node did not get its mode and owner"};
    }
    return Fine();
}

// Not over what has the name already.
bool Show(const OwnedFd& apart, const std::string& name, const PinnedPath& pinned) {
    const int parent = pinned.parent.Get();
    const char* const shown = pinned.name.c_str();
    return syscall(SYS_renameat2, apart.Get(), name.c_str(), parent, shown, kDoNotReplace) == 0 ||
           (errno == EINVAL && linkat(apart.Get(), name.c_str(), parent, shown, 0) == 0);
}

int MakeApart(const OwnedFd& apart, const std::string& name, const PinnedPath& pinned,
              const NodeSpec& node) {
    if (!IsApart(apart)) {
        return Fail(pinned, "somebody has taken away the directory that it is made in");
    }
    // Where there is none, or there are no such lists, nothing is handed down.
    (void)removexattr(LinkTo(apart).c_str(), "system.posix_acl_default");
    const dev_t device = node.type == S_IFIFO ? 0 : makedev(node.majorNumber, node.minorNumber);
    if (mknodat(apart.Get(), name.c_str(), node.type | node.mode, device) != 0) {
        return Fail(pinned, std::strerror(errno));
    }
    const Check finished = Finish(apart, name, node);
    int exit = 0;
    if (!finished) {
        exit = Fail(pinned, finished.Reason());
    } else if (!Show(apart, name, pinned)) {
        exit = Fail(pinned, std::strerror(errno));
    }
    (void)unlinkat(apart.Get(), name.c_str(), 0);  // not there after a move
    return exit;
}

}  // namespace

int MakeNode(const PinnedPath& pinned, const NodeSpec& node) {
    const std::string name = RandomName();
    (void)umask(0);
    if (name.empty() || mkdirat(pinned.parent.Get(), name.c_str(), 0700) != 0) {
        return Fail(pinned, std::strerror(errno));
    }
    const int exit =
        MakeApart(OpenBelow(pinned.parent.Get(), name, O_DIRECTORY), name, pinned, node);
    (void)unlinkat(pinned.parent.Get(), name.c_str(), AT_REMOVEDIR);
    return exit;
}

}  // namespace agent
