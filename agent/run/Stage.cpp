// SPDX-License-Identifier: Apache-2.0
#include "Stage.h"

#include <errno.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/stat.h>

#include <cstring>

#include "MountCalls.h"
#include "MountTable.h"
#include "Pinning.h"

namespace agent {

namespace {

// Always there in a /proc that shows more than processes, and needed by no tool. /proc itself is a
// mount wherever this program can work, which the root directory need not be.
const char kPlace[] = "/proc/driver";

}  // namespace

Result<std::string> EnterStage(const std::string& name) {
    std::string stage = std::string(kPlace) + "/" + name;
    // Private, and not a slave: a mount that an administrator makes below /proc while the tool runs
    // must not come to lie over the stage either.
    if (unshare(CLONE_NEWNS) == 0 && mount(nullptr, "/proc", nullptr, MS_PRIVATE, nullptr) == 0 &&
        mount("none", kPlace, "tmpfs", MS_NOSUID | MS_NODEV | MS_NOEXEC, "mode=700,size=64k") ==
            0 &&
        mkdir(stage.c_str(), 0755) == 0) {
        return stage;
    }
    return Refusal{std::string("a mount namespace for the tool cannot be had: ") +
                   std::strerror(errno)};
}

void ClearStage(const std::string& stage) {
    // One after the other: what is on top is what the name means.
    while (umount2(stage.c_str(), UMOUNT_NOFOLLOW | MNT_DETACH) == 0) {
    }
}

Result<OwnedFd> TakeFromStage(const std::string& stage, const std::vector<std::string>& flags) {
    // Opened once; what it is, where it stands and what is handed on are all asked of this one.
    const OwnedFd made = OpenBelow(AT_FDCWD, stage, O_DIRECTORY);
    const std::optional<std::uint64_t> id = made ? MountId(made.Get()) : std::nullopt;
    const Result<std::vector<MountEntry> > mounts = ReadMounts();
    if (!id || !mounts) {
        return Refusal{"what was mounted cannot be looked at"};
    }
    const MountEntry* entry = FindMount(*mounts, *id);
    // The tool may have ended well without mounting: then this is the stage's own file system.
    if (entry == nullptr || entry->point != stage) {
        return Refusal{"nothing was mounted there"};
    }
    const std::string missing = MissingFlag(*entry, flags);
    if (!missing.empty()) {
        return Refusal{"was mounted without " + missing + "; nobody has seen it"};
    }
    OwnedFd mount = CloneMount(made.Get(), "");
    if (!mount) {
        return Refusal{std::string("the mount cannot be handed on: ") + std::strerror(errno)};
    }
    return mount;
}

}  // namespace agent
