// SPDX-License-Identifier: Apache-2.0
#include "Unmount.h"

#include <errno.h>
#include <fcntl.h>
#include <linux/loop.h>
#include <linux/major.h>
#include <sys/ioctl.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>

#include <algorithm>
#include <cstring>

namespace agent {

namespace {

const int kSystemError = 2;
const int kFailure = 32;

bool Has(const std::vector<std::string>& words, const char* flag) {
    const auto end = std::find(words.begin(), words.end(), "--");
    return std::find(words.begin(), end, flag) != end;
}

int Fail(const PinnedPath& pinned, const std::string& why, int exit) {
    const std::string line = "umount: " + pinned.pin.path + ": " + why + ".\n";
    (void)!write(STDERR_FILENO, line.data(), line.size());
    return exit;
}

std::string Why(int error) {
    if (error == EBUSY) {
        return "target is busy";
    }
    return error == EINVAL ? "not mounted" : std::string("umount failed: ") + std::strerror(error);
}

// What is at the name now need not be the device that lay under the mount: the number is compared
// once more on what was opened. One that ended with its last user is as good as detached.
bool DetachLoop(unsigned number) {
    const OwnedFd loop(open(("/dev/loop" + std::to_string(number)).c_str(), O_RDONLY | O_CLOEXEC));
    struct stat found = {};
    return loop && fstat(loop.Get(), &found) == 0 && S_ISBLK(found.st_mode) &&
           found.st_rdev == makedev(LOOP_MAJOR, number) &&
           (ioctl(loop.Get(), LOOP_CLR_FD, 0) == 0 || errno == ENXIO);
}

}  // namespace

int Unmount(const PinnedPath& pinned, const std::vector<std::string>& words) {
    const int flags = UMOUNT_NOFOLLOW | (Has(words, "--lazy") ? MNT_DETACH : 0) |
                      (Has(words, "--force") ? MNT_FORCE : 0);
    // The name's last component, looked up in the pinned directory: nothing above it can have been
    // exchanged, and the flag keeps the kernel from following the component itself. There is no
    // call that unmounts by a descriptor without keeping the mount busy by it.
    if (fchdir(pinned.parent.Get()) != 0 || umount2(pinned.name.c_str(), flags) != 0) {
        return Fail(pinned, Why(errno), kFailure);
    }
    // By what the table said of the mount before it went: now nobody can be asked.
    const bool loop = Has(words, "--detach-loop") && pinned.mount.majorNumber == LOOP_MAJOR;
    return !loop || DetachLoop(pinned.mount.minorNumber)
               ? 0
               : Fail(pinned, "the loop device could not be detached", kSystemError);
}

}  // namespace agent
