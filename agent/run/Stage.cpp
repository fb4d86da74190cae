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

std::string EnterStage(const std::string& name, std::string& reason) {
    std::string stage = std::string(kPlace) + "/" + name;
    if (unshare(CLONE_NEWNS) == 0 && mount(nullptr, "/proc", nullptr, MS_PRIVATE, nullptr) == 0 &&
        mount("none", kPlace, "tmpfs", MS_NOSUID | MS_NODEV | MS_NOEXEC, "mode=700,size=64k") ==
            0 &&
        mkdir(stage.c_str(), 0755) == 0) {
        return stage;
    }
    reason = std::string("a mount namespace for the tool cannot be had: ") + std::strerror(errno);
    return "";
}

void ClearStage(const std::string& stage) {
    while (umount2(stage.c_str(), UMOUNT_NOFOLLOW | MNT_DETACH) == 0) {
    }
}

OwnedFd TakeFromStage(const std::string& stage, const std::vector<std::string>& flags,
                      std::string& reason) {
    const OwnedFd made = OpenBelow(AT_FDCWD, stage, O_DIRECTORY);
    std::uint64_t id = 0;
    std::vector<MountEntry> mounts;
    if (!made || !MountId(made.Get(), id) || !ReadMounts(mounts)) {
        reason = "what was mounted cannot be looked at";
        return OwnedFd();
    }
    const MountEntry* entry = FindMount(mounts, id);
    if (entry == nullptr || entry->point != stage) {
        reason = "nothing was mounted there";
        return OwnedFd();
    }
    const std::string missing = MissingFlag(*entry, flags);
    if (!missing.empty()) {
        reason = "was mounted without " + missing + "; nobody has seen it";
        return OwnedFd();
    }
    OwnedFd mount = CloneMount(made.Get(), "");
    if (!mount) {
        reason = std::string("the mount cannot be handed on: ") + std::strerror(errno);
    }
    return mount;
}

}  // namespace agent
